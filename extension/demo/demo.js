// The demo page: calls the example echo module through the extension's page
// API (window.tessmar) and shows what comes back.
'use strict';

const $ = (id) => document.getElementById(id);
let nextId = 1;

function show(where, label, text) {
  $(where).textContent += `${label}: ${text}\n`;
}

async function call(label, request) {
  try {
    const reply = await window.tessmar.invoke(request);
    show('replies', label, reply === null ? '(no reply)' : reply);
  } catch (error) {
    show('replies', label, `error: ${error.message}`);
  }
}

const id = () => String(nextId++);
const actions = {
  version: () => call('version', { init: 'get_version', module: 'echo' }),
  echo: () => call('echo', { cmd: 'native', id: id(), module: 'echo', origin: 'https://claimed.example' }),
  callback: () => call('callback', { cmd: 'setcallback', id: id(), callback: 'onPing', module: 'echo' }),
  // Signed with a signature that does not match: "BLOCK:CLIENT".
  blocked: () => call('blocked', { cmd: 'native', id: id(), module: 'blocked' }),
};

function start() {
  if (typeof window.tessmar !== 'object') {
    $('status').textContent = 'The Tessmar extension is not installed in this browser.';
    $('status').className = 'missing';
    return;
  }
  $('status').textContent = `Extension found; this page's origin is ${location.origin}.`;
  window.tessmar.onCallback((text) => show('callbacks', 'callback', text));
  for (const [button, action] of Object.entries(actions)) $(button).onclick = action;
}

// The page API is defined before the page's own scripts run.
start();
