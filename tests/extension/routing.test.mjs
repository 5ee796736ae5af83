// The extension's routing rules (extension/routing.js), without a browser.
import assert from 'node:assert/strict';
import fs from 'node:fs';
import { test } from 'node:test';
import vm from 'node:vm';

const source = fs.readFileSync(new URL('../../extension/routing.js', import.meta.url), 'utf8');
const context = { TextEncoder };
context.globalThis = context;
vm.runInNewContext(source, context);
const R = context.TessmarRouting;

test('members the library copies unescaped must be plain strings', () => {
  for (const name of ['id', 'callback', 'module']) {
    for (const bad of ['a"b', 'a\\b', 'a\u0000b', 'a\u001fb']) {
      assert.match(R.checkRequest({ [name]: bad }).error, /may not hold quotes/, `${name}: ${bad}`);
    }
    assert.equal(R.checkRequest({ [name]: 7 }).error, `"${name}" must be a string`);
  }
  const ok = { cmd: 'setcallback', id: '1', callback: 'on.Ping_$2', module: 'echo', note: 'a"b' };
  assert.deepEqual({ ...R.checkRequest(JSON.stringify(ok)).object }, ok);
  for (const bad of ['[1]', 'null', '"x"', 'not json', 3]) {
    assert.equal(R.checkRequest(bad).error, 'a request must be a JSON object');
  }
  // Duplicate members in a text collapse to one before anything is sent.
  const sent = R.requestText(R.checkRequest('{"tabid":"9","a":1,"a":2}').object, '4', 'null');
  assert.equal(sent, '{"tabid":"4","a":2,"origin":"null"}');
});

test('a callback goes where the library\'s own prefix says, or nowhere', () => {
  const text = (tabid, callback, reply) =>
    `{"response":{"id":"setcallback", "tabid":"${tabid}", "callback":"${callback}", "reply":${reply}}}`;
  assert.deepEqual({ ...R.callbackRoute(text('4/2', 'cb', '{"a":1}')) }, { tabid: '4/2', callback: 'cb' });
  // A module reply carrying a second "response" (JSON.parse keeps the last).
  assert.equal(R.callbackRoute(text('4', 'cb', '{}}, "response":{"tabid":"5","callback":"cb"}, "x":{"a":1}')), null);
  // A callback name that forges the rest (refused at the request already).
  assert.equal(R.callbackRoute(text('4', 'x"}, "response":{"id":"setcallback","tabid":"5', '{}')), null);
  for (const bad of ['', 'nope', '{"response":{"id":"setcallback", "tabid":"4"}}', text('4', 'cb', '{')]) {
    assert.equal(R.callbackRoute(bad), null, bad);
  }
});

test('local files and opaque origins are "null"', () => {
  // No origin is never taken from the URL.
  for (const origin of ['file:///tmp/x.html', 'null', '', undefined]) {
    assert.equal(R.originOf({ origin, url: 'https://b.example/' }), 'null', origin);
  }
  assert.equal(R.originOf({ origin: 'https://a.example', url: 'https://b.example/' }), 'https://a.example');
  assert.deepEqual({ ...R.frameOf('12/3') }, { tabId: 12, frameId: 3 });
  assert.equal(R.frameOf('12/x'), null);
  assert.equal(R.tabidOf({ tab: { id: 12 }, frameId: 0 }), '12');
});
