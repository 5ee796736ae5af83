// Background script: carries page requests to the native-messaging adapter
// and its callbacks back to the one document that registered them.
//
// In-process, each module gets an adapter process (a native port) of its
// own, and requests that name no module one more, so that a slow or
// crashing module holds up or fails only the requests waiting for it. In
// host mode one adapter serves everything: the host's FIFOs are per user.
// The adapter's first message says which mode it runs in.
//
// Runs as a service worker in Chromium and as an event page in Firefox.
'use strict';

if (typeof importScripts === 'function') importScripts('routing.js');

const api = globalThis.browser ?? globalThis.chrome;
const HOST_NAME = 'zz.qx.pelmora.morrowhost';
const R = globalThis.TessmarRouting;

let mode = null;                 // 'in-process' or 'host', once told
const waitingForMode = [];       // [call, object] sent before that
const ports = new Map();         // port key -> {port, pending, lastUse, registered}
const inFlight = new Map();      // tabid -> requests waiting for an answer
// tabid -> callback name -> {doc, origin}: the document that registered it.
const owners = new Map();
let nextSeq = 1;

function answer(call, response) {
  const left = (inFlight.get(call.tabid) ?? 1) - 1;
  if (left > 0) inFlight.set(call.tabid, left);
  else inFlight.delete(call.tabid);
  call.sendResponse(response);
}

// --- Callbacks ----------------------------------------------------------------

// Records who registers a callback name in a frame. A later document of the
// same origin takes a name over (modules cannot tell the two apart either);
// one of another origin must choose another name.
function register(call, object) {
  if (object.cmd !== 'setcallback' || typeof object.callback !== 'string') return null;
  let names = owners.get(call.tabid);
  if (!names) owners.set(call.tabid, (names = new Map()));
  const owner = names.get(object.callback);
  if (owner && owner.doc !== call.doc && owner.origin !== call.origin) {
    return `the callback "${object.callback}" belongs to an earlier document of this frame; choose another name`;
  }
  if (!owner && names.size >= R.MAX_CALLBACKS_PER_FRAME) {
    return `too many callbacks registered in this frame (at most ${R.MAX_CALLBACKS_PER_FRAME})`;
  }
  names.set(object.callback, { doc: call.doc, origin: call.origin });
  return null;
}

function deliverCallback(text) {
  const route = R.callbackRoute(text);
  const owner = route && owners.get(route.tabid)?.get(route.callback);
  const target = owner && R.frameOf(route.tabid);
  if (!target) {
    console.warn('tessmar: callback for no registered document dropped');
    return;
  }
  // The content script drops it too unless it is still that document.
  api.tabs
    .sendMessage(target.tabId, { kind: 'callback', text, doc: owner.doc },
                 { frameId: target.frameId })
    .catch(() => {});  // the tab or frame is gone
}

api.tabs.onRemoved.addListener((tabId) => {
  for (const tabid of owners.keys()) {
    if (R.frameOf(tabid)?.tabId === tabId) owners.delete(tabid);
  }
});

// --- Adapter processes ----------------------------------------------------------

function portKey(object) {
  if (mode !== 'in-process' || typeof object.module !== 'string' || object.module === '') {
    return '';
  }
  return `module:${object.module}`;
}

function onHostMessage(slot, message) {
  if (typeof message.mode === 'string') {
    if (mode === null) {
      mode = message.mode;
      for (const [call, object] of waitingForMode.splice(0)) dispatch(call, object);
    }
    return;
  }
  if (typeof message.callback === 'string') {
    deliverCallback(message.callback);
    return;
  }
  const call = slot.pending.get(message.seq);
  if (!call) {
    console.warn('tessmar: adapter message for no request', message);
    return;
  }
  slot.pending.delete(message.seq);
  // A module that took a registration keeps its process: closing it would
  // lose the registration. One that refused it may be closed to make room.
  if (call.registers && typeof message.reply === 'string' &&
      message.reply.includes('"status":"TRUE"')) {
    slot.registered = true;
  }
  answer(call, 'error' in message ? { error: String(message.error) } : { reply: message.reply });
}

function openPort(key) {
  const slot = { port: null, pending: new Map(), lastUse: 0, registered: false };
  slot.port = api.runtime.connectNative(HOST_NAME);
  slot.port.onMessage.addListener((message) => onHostMessage(slot, message));
  slot.port.onDisconnect.addListener((gone) => {
    const reason = gone.error?.message ?? api.runtime.lastError?.message ??
                   'the native host has exited';
    if (ports.get(key) === slot) ports.delete(key);
    for (const call of slot.pending.values()) answer(call, { error: reason });
    slot.pending.clear();
    if (key === '' && mode === null) {
      for (const [call] of waitingForMode.splice(0)) answer(call, { error: reason });
    }
  });
  ports.set(key, slot);
  return slot;
}

// The port for `key`; at the limit of module ports the least recently used
// idle one without registered callbacks is closed first. Null when all are
// busy.
function portFor(key) {
  const existing = ports.get(key);
  if (existing) return existing;
  if (key !== '' && ports.size - (ports.has('') ? 1 : 0) >= R.MAX_MODULE_PORTS) {
    let idle = null;
    for (const [k, slot] of ports) {
      if (k === '' || slot.pending.size > 0 || slot.registered) continue;
      if (!idle || slot.lastUse < idle[1].lastUse) idle = [k, slot];
    }
    if (!idle) return null;
    ports.delete(idle[0]);
    idle[1].port.disconnect();
  }
  return openPort(key);
}

function dispatch(call, object) {
  const slot = portFor(portKey(object));
  if (!slot) {
    answer(call, { error: `too many modules busy at once (at most ${R.MAX_MODULE_PORTS})` });
    return;
  }
  slot.pending.set(call.seq, call);
  slot.lastUse = call.seq;
  call.registers = object.cmd === 'setcallback';
  try {
    slot.port.postMessage({ seq: call.seq, request: call.request });
  } catch (e) {
    slot.pending.delete(call.seq);
    answer(call, { error: String(e?.message ?? e) });
  }
}

// --- Page requests --------------------------------------------------------------

api.runtime.onMessage.addListener((message, sender, sendResponse) => {
  if (message?.kind !== 'invoke' || !sender.tab || typeof message.doc !== 'string') return false;
  const tabid = R.tabidOf(sender);
  const origin = R.originOf(sender);
  const checked = R.checkRequest(message.request);
  let error = checked.error;
  const waiting = inFlight.get(tabid) ?? 0;
  if (!error && waiting >= R.MAX_IN_FLIGHT_PER_FRAME) {
    error = `too many requests waiting in this frame (at most ${R.MAX_IN_FLIGHT_PER_FRAME})`;
  }
  const seq = nextSeq++;
  const request = error ? '' : R.requestText(checked.object, tabid, origin);
  if (!error) {
    const bytes = R.messageBytes(seq, request);
    if (bytes > R.MAX_MESSAGE_BYTES) {
      error = `request too large (${bytes} bytes, at most ${R.MAX_MESSAGE_BYTES})`;
    }
  }
  const call = { seq, request, tabid, origin, doc: message.doc, sendResponse };
  if (!error) error = register(call, checked.object);
  if (error) {
    sendResponse({ error });
    return false;
  }
  inFlight.set(tabid, waiting + 1);
  if (mode === null) {
    if (!ports.has('')) openPort('');
    waitingForMode.push([call, checked.object]);
  } else {
    dispatch(call, checked.object);
  }
  return true;  // answered later
});
