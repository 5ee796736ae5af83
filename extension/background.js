// Background script: one native-messaging port to the Tessmar host, shared by
// every tab. Content scripts send page requests here; this script writes the
// sender's tab and real origin into each request, forwards it, and hands the
// reply back. Callbacks from the host go only to the frame whose "tabid" they
// carry.
//
// Runs as a service worker in Chromium and as an event page in Firefox.
'use strict';

const api = globalThis.browser ?? globalThis.chrome;
const HOST_NAME = 'zz.qx.pelmora.morrowhost';

let port = null;
let nextSeq = 1;
const pending = new Map();  // seq -> sendResponse

// "tabid" names the sender: the tab id for a top-level document, "tab/frame"
// for a sub-frame, so that a frame embedded in a page never receives the
// callbacks of the page around it, nor the page those of the frame.
function tabidOf(sender) {
  return sender.frameId ? `${sender.tab.id}/${sender.frameId}` : `${sender.tab.id}`;
}

function frameOf(tabid) {
  const match = /^(\d+)(?:\/(\d+))?$/.exec(tabid);
  if (!match) return null;
  return { tabId: Number(match[1]), frameId: match[2] ? Number(match[2]) : 0 };
}

// The origin of the frame that sent the message, as the browser knows it.
function originOf(sender) {
  if (typeof sender.origin === 'string') return sender.origin;
  try {
    return new URL(sender.url).origin;
  } catch {
    return 'null';
  }
}

function deliverCallback(text) {
  let tabid;
  try {
    tabid = JSON.parse(text)?.response?.tabid;
  } catch {
    // Not JSON: nobody can be told who it is for.
  }
  const target = typeof tabid === 'string' ? frameOf(tabid) : null;
  if (!target) {
    console.warn('tessmar: callback without a usable "tabid" dropped');
    return;
  }
  api.tabs
    .sendMessage(target.tabId, { kind: 'callback', text }, { frameId: target.frameId })
    .catch(() => {});  // the tab or frame is gone
}

function onHostMessage(message) {
  if (typeof message.callback === 'string') {
    deliverCallback(message.callback);
    return;
  }
  const sendResponse = pending.get(message.seq);
  if (!sendResponse) {
    console.warn('tessmar: host message for no request', message);
    return;
  }
  pending.delete(message.seq);
  if ('error' in message) sendResponse({ error: String(message.error) });
  else sendResponse({ reply: message.reply });
}

function connect() {
  const p = api.runtime.connectNative(HOST_NAME);
  p.onMessage.addListener(onHostMessage);
  p.onDisconnect.addListener((gone) => {
    const error = gone.error?.message ?? api.runtime.lastError?.message ??
                  'the native host has exited';
    if (port === p) port = null;
    for (const sendResponse of pending.values()) sendResponse({ error });
    pending.clear();
  });
  return p;
}

// Parses the page's request and overwrites what the page cannot vouch for.
function prepare(request, sender) {
  let object = request;
  if (typeof request === 'string') {
    try {
      object = JSON.parse(request);
    } catch {
      return null;
    }
  }
  if (object === null || typeof object !== 'object' || Array.isArray(object)) return null;
  return JSON.stringify({ ...object, tabid: tabidOf(sender), origin: originOf(sender) });
}

api.runtime.onMessage.addListener((message, sender, sendResponse) => {
  if (message?.kind !== 'invoke' || !sender.tab) return false;
  const request = prepare(message.request, sender);
  if (request === null) {
    sendResponse({ error: 'a request must be a JSON object' });
    return false;
  }
  const seq = nextSeq++;
  pending.set(seq, sendResponse);
  try {
    if (!port) port = connect();
    port.postMessage({ seq, request });
  } catch (e) {
    pending.delete(seq);
    sendResponse({ error: String(e?.message ?? e) });
    return false;
  }
  return true;  // answered later
});
