// The extension's rules for what a page may send and where an answer may
// go, kept apart from the browser APIs so that they can be tested alone.
// Loaded before background.js (importScripts in Chromium's service worker,
// "background.scripts" in Firefox).
'use strict';

globalThis.TessmarRouting = (() => {
  // The adapter serves messages of at most 4 MiB ({"seq":N,"request":TEXT}
  // as JSON, in UTF-8); replies are capped at 1 MiB, so no real request
  // comes near it.
  const MAX_MESSAGE_BYTES = 4 * 1024 * 1024;
  // Requests one frame may have waiting for an answer at once.
  const MAX_IN_FLIGHT_PER_FRAME = 16;
  // Callback names one frame may have registered.
  const MAX_CALLBACKS_PER_FRAME = 32;
  // Adapter processes for modules at once (the one for requests that name
  // no module comes on top).
  const MAX_MODULE_PORTS = 8;

  // Every callback text starts with what the library writes itself: the
  // "tabid" that the extension gave and the page's callback name.
  const CALLBACK_PREFIX = '{"response":{"id":"setcallback", "tabid":"';
  const CALLBACK_MIDDLE = '", "callback":"';

  // The library copies these members into its texts as they stand, so a
  // quote, a backslash or a control character in them could forge members.
  const COPIED_MEMBERS = ['id', 'callback', 'module'];
  const UNSAFE = /["\\\u0000-\u001f]/;

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
  // Local files and opaque origins (sandboxed frames, data: documents) are
  // "null": no two of them may pass for one origin, nor for their URL's.
  function originOf(sender) {
    const origin = sender.origin;
    if (typeof origin !== 'string' || origin === '' || origin === 'null' ||
        origin.startsWith('file:')) {
      return 'null';
    }
    return origin;
  }

  // The page's request as an object ({object}), or why it is refused ({error}).
  function checkRequest(request) {
    let object = request;
    if (typeof request === 'string') {
      try {
        object = JSON.parse(request);
      } catch {
        object = null;
      }
    }
    if (object === null || typeof object !== 'object' || Array.isArray(object)) {
      return { error: 'a request must be a JSON object' };
    }
    for (const name of COPIED_MEMBERS) {
      if (!(name in object)) continue;
      if (typeof object[name] !== 'string') return { error: `"${name}" must be a string` };
      if (UNSAFE.test(object[name])) {
        return { error: `"${name}" may not hold quotes, backslashes or control characters` };
      }
    }
    return { object };
  }

  // The request text sent on: the page's members, with "tabid" and
  // "origin" overwritten by what the browser says of the sender.
  function requestText(object, tabid, origin) {
    return JSON.stringify({ ...object, tabid, origin });
  }

  function messageBytes(seq, request) {
    return new TextEncoder().encode(JSON.stringify({ seq, request })).length;
  }

  // Where a callback text goes ({tabid, callback}), read from the prefix the
  // library writes, or null. The parsed text must agree: a module's reply
  // that carries members of its own cannot redirect it.
  function callbackRoute(text) {
    if (typeof text !== 'string' || !text.startsWith(CALLBACK_PREFIX)) return null;
    const tabidEnd = text.indexOf('"', CALLBACK_PREFIX.length);
    if (tabidEnd < 0 || !text.startsWith(CALLBACK_MIDDLE, tabidEnd)) return null;
    const nameStart = tabidEnd + CALLBACK_MIDDLE.length;
    const nameEnd = text.indexOf('"', nameStart);
    if (nameEnd < 0) return null;
    const tabid = text.slice(CALLBACK_PREFIX.length, tabidEnd);
    const callback = text.slice(nameStart, nameEnd);
    let response;
    try {
      response = JSON.parse(text).response;
    } catch {
      return null;
    }
    if (response?.tabid !== tabid || response.callback !== callback) return null;
    return { tabid, callback };
  }

  return {
    MAX_MESSAGE_BYTES, MAX_IN_FLIGHT_PER_FRAME, MAX_CALLBACKS_PER_FRAME, MAX_MODULE_PORTS,
    tabidOf, frameOf, originOf, checkRequest, requestText, messageBytes, callbackRoute,
  };
})();
