// Content script (the extension's side of each frame): relays the page's
// requests posted on the "tessmar" channel to the background script and
// posts the answers and the callbacks for this document back to the page.
//
// Page -> extension: {channel: "tessmar", type: "invoke", id, request}
// Extension -> page: {channel: "tessmar", type: "reply", id, reply | error}
//                    {channel: "tessmar", type: "callback", text}
'use strict';

(() => {
  const api = globalThis.browser ?? globalThis.chrome;
  const CHANNEL = 'tessmar';
  // This document's identity. It lives in the content script's isolated
  // world, where the page can neither read nor change it; the background
  // sends each callback with the identity of the document that registered
  // it, so a later document in this frame never receives it.
  const doc = Array.from(crypto.getRandomValues(new Uint8Array(16)),
                         (byte) => byte.toString(16).padStart(2, '0')).join('');

  function toPage(message) {
    window.postMessage({ channel: CHANNEL, ...message }, '*');
  }

  window.addEventListener('message', (event) => {
    // Only this frame's own page may speak for it.
    if (event.source !== window) return;
    const data = event.data;
    if (!data || data.channel !== CHANNEL || data.type !== 'invoke') return;
    const { id, request } = data;
    api.runtime.sendMessage({ kind: 'invoke', request, doc }).then(
      (answer) => toPage({ type: 'reply', id, ...(answer ?? { error: 'no answer' }) }),
      (error) => toPage({ type: 'reply', id, error: String(error?.message ?? error) }));
  });

  api.runtime.onMessage.addListener((message) => {
    if (message?.kind === 'callback' && message.doc === doc) {
      toPage({ type: 'callback', text: message.text });
    }
  });
})();
