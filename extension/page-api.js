// The page's API, run in the page's own world before its scripts:
//
//   const {status, reply} = await window.tessmar.request({cmd: "native", id: "1", module: "echo"});
//   window.tessmar.onCallback((text) => ...);
//
// request(object) resolves with the parsed reply envelope {id, tabid,
// status: "TRUE", reply, callback} (or, for an "init" query, {status:
// "TRUE", reply: <the parsed answer>}) and rejects with a TessmarError
// carrying `status` and `reason` for every failure: the library's status
// words ("FALSE", "BLOCK:CLIENT", "BLOCK:QX", "CANCEL"), "NO_ANSWER" when
// the native side gave none, "UNDELIVERED" when the extension or the
// adapter refused or lost the request. invoke(request) is the text level
// underneath: it resolves with the reply text, or null, and rejects only
// when the request could not be delivered. Callback listeners get each
// callback text meant for this document. "tabid" and "origin" are filled in
// by the extension: whatever the page puts there is replaced. The types are
// in extension/tessmar.d.ts.
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

  // Why the library answers with a status word other than "TRUE".
  const REASONS = {
    FALSE: 'the module is not installed, could not be loaded, or gave no answer ' +
           '(tessmar-sign verify-module NAME tells which)',
    'BLOCK:CLIENT': 'the module\'s file does not match its signature',
    'BLOCK:QX': 'the installation\'s files do not match their signature',
    CANCEL: 'the module cancelled the request',
  };

  class TessmarError extends Error {
    constructor(status, reason) {
      super(`${status}: ${reason}`);
      this.name = 'TessmarError';
      this.status = status;
      this.reason = reason;
    }
  }

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

  function invoke(request) {
    const id = `p${nextId++}`;
    return new Promise((resolve, reject) => {
      waiting.set(id, { resolve, reject });
      window.postMessage({ channel: CHANNEL, type: 'invoke', id, request }, '*');
    });
  }

  async function request(object) {
    let text;
    try {
      text = await invoke(object);
    } catch (e) {
      throw new TessmarError('UNDELIVERED', e.message);
    }
    if (text === null || text === '') {
      throw new TessmarError('NO_ANSWER', 'the native side gave no answer: a request ' +
                             'needs "id" and a "cmd" of "native" or "setcallback", or a known "init"');
    }
    let parsed;
    try {
      parsed = JSON.parse(text);
    } catch {
      throw new TessmarError('MALFORMED', `the answer is not JSON: ${text.slice(0, 200)}`);
    }
    const envelope = parsed?.response;
    if (typeof envelope !== 'object' || envelope === null) {
      return { status: 'TRUE', reply: parsed };  // an "init" query's answer
    }
    if (envelope.status !== 'TRUE') {
      throw new TessmarError(String(envelope.status),
                             REASONS[envelope.status] ?? 'the module refused the request');
    }
    return envelope;
  }

  const tessmar = Object.freeze({
    invoke,
    request,
    onCallback(listener) {
      listeners.add(listener);
      return () => listeners.delete(listener);
    },
    TessmarError,
  });
  Object.defineProperty(window, 'tessmar', { value: tessmar });
})();
