// The page's API, run in the page's own world before its scripts:
//
//   const reply = await window.tessmar.invoke({cmd: "native", id: "1", module: "echo"});
//   window.tessmar.onCallback((text) => ...);
//
// invoke(request) takes a JSON object (or its text) and resolves with the
// reply text, or null when the native side gave no answer; it rejects with
// an Error when the request could not be delivered. Callback listeners get
// each callback text meant for this frame. "tabid" and "origin" are filled
// in by the extension: whatever the page puts there is replaced.
//
// Everything goes over window.postMessage on the "tessmar" channel, so a
// page may also speak that protocol itself (see content.js).
'use strict';

(() => {
  if (window.tessmar) return;
  const CHANNEL = 'tessmar';
  const waiting = new Map();
  const listeners = new Set();
  let nextId = 1;

  window.addEventListener('message', (event) => {
    if (event.source !== window) return;
    const data = event.data;
    if (!data || data.channel !== CHANNEL) return;
    if (data.type === 'reply') {
      const call = waiting.get(data.id);
      if (!call) return;
      waiting.delete(data.id);
      if (typeof data.error === 'string') call.reject(new Error(data.error));
      else call.resolve(data.reply ?? null);
    } else if (data.type === 'callback') {
      for (const listener of listeners) {
        try {
          listener(data.text);
        } catch (e) {
          console.error(e);
        }
      }
    }
  });

  const tessmar = Object.freeze({
    invoke(request) {
      const id = `p${nextId++}`;
      return new Promise((resolve, reject) => {
        waiting.set(id, { resolve, reject });
        window.postMessage({ channel: CHANNEL, type: 'invoke', id, request }, '*');
      });
    },
    onCallback(listener) {
      listeners.add(listener);
      return () => listeners.delete(listener);
    },
  });
  Object.defineProperty(window, 'tessmar', { value: tessmar });
})();
