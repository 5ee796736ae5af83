// Content script (the extension's side of each frame): relays the page's
// requests posted on the "tessmar" channel to the background script and
// posts the answers and the callbacks for this frame back to the page.
//
// Page -> extension: {channel: "tessmar", type: "invoke", id, request}
// Extension -> page: {channel: "tessmar", type: "reply", id, reply | error}
//                    {channel: "tessmar", type: "callback", text}
'use strict';

(() => {
  const api = globalThis.browser ?? globalThis.chrome;
  const CHANNEL = 'tessmar';

  function toPage(message) {
    window.postMessage({ channel: CHANNEL, ...message }, '*');
  }

  window.addEventListener('message', (event) => {
    // Only this frame's own page may speak for it.
    if (event.source !== window) return;
    const data = event.data;
    if (!data || data.channel !== CHANNEL || data.type !== 'invoke') return;
    const { id, request } = data;
    api.runtime.sendMessage({ kind: 'invoke', request }).then(
      (answer) => toPage({ type: 'reply', id, ...(answer ?? { error: 'no answer' }) }),
      (error) => toPage({ type: 'reply', id, error: String(error?.message ?? error) }));
  });

  api.runtime.onMessage.addListener((message) => {
    if (message?.kind === 'callback') toPage({ type: 'callback', text: message.text });
  });
})();
