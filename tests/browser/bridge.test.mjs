// Web pages reaching native modules in real, headless browsers: the example
// extension, the native-messaging adapter and the library, in-process and
// in host mode, in Firefox ESR and Chromium.
import assert from 'node:assert/strict';
import fs from 'node:fs';
import path from 'node:path';
import { describe, test } from 'node:test';

import { browsers, goTo, invoke, MODULE_VERSION, openPage, sleep, startServer,
  waitForCallbacks, withBrowser } from './harness.mjs';

const bytes = (text) => Buffer.byteLength(text, 'utf8');

// The tab id the extension filled in, read back from a reply envelope.
function tabidOf(envelope) {
  const match = /"tabid":"([^"]*)"/.exec(envelope);
  assert.ok(match, envelope);
  assert.match(match[1], /^\d+$/);
  return match[1];
}

// The echo module's envelope for `request` as the extension sends it: the
// page's members in their order, "tabid" and "origin" overwritten or added.
function echoEnvelope(request, tabid, origin) {
  const sent = JSON.stringify({ ...request, tabid, origin });
  return `{"response": {"id": "${request.id}", "tabid":"${tabid}", "status":"TRUE", ` +
    `"reply":{"module":"echo","origin":"${origin}","id":"${request.id}",` +
    `"length":${bytes(sent)}}, "callback": "${request.callback ?? ''}"}}`;
}

function pingCallback(tabid, callback, id) {
  return `{"response":{"id":"setcallback", "tabid":"${tabid}", "callback":"${callback}", ` +
    `"reply":{"module":"echo","event":"ping","id":"${id}"}}}`;
}

const fifo = (sandbox) =>
  path.join(sandbox.configDir, '.wpelmoramorrowhostTessmarFirefox');

for (const name of Object.keys(browsers)) {
  describe(name, { skip: !fs.existsSync(browsers[name].executable) && `${name} is not installed` }, () => {
    test('pages reach the modules through the in-process library', async (t) => {
      await withBrowser(name, {}, async ({ browser, sandbox, server }) => {
        const page = await openPage(browser, `${server.origin}/a`);

        await t.test('version query', async () => {
          assert.deepEqual(await invoke(page, { init: 'get_version', module: 'echo' }),
                           { reply: `"version: ${MODULE_VERSION}"` });
        });

        await t.test('native request to the echo module, envelope byte for byte', async () => {
          const request = { cmd: 'native', id: '1', callback: 'onEcho', module: 'echo', note: 'é ✓' };
          const { reply } = await invoke(page, request);
          assert.equal(reply, echoEnvelope(request, tabidOf(reply), server.origin));
          // The text form of a request is served alike.
          const again = await invoke(page, JSON.stringify(request));
          assert.equal(again.reply, reply);
        });

        await t.test('a page cannot speak for another tab or origin', async () => {
          const request = { cmd: 'native', id: '2', tabid: '999', origin: 'https://bank.example', module: 'echo' };
          const { reply } = await invoke(page, request);
          const tabid = tabidOf(reply);
          assert.notEqual(tabid, '999');
          assert.equal(reply, echoEnvelope(request, tabid, server.origin));
          assert.ok(!reply.includes('bank.example'), reply);
        });

        await t.test('refused module and refused requests', async () => {
          const { reply } = await invoke(page, { cmd: 'native', id: '3', module: 'blocked' });
          assert.match(reply, /"status":"BLOCK:CLIENT", "reply":\{\}/);
          assert.deepEqual(await invoke(page, 'not json'),
                           { error: 'a request must be a JSON object' });
          // No module file at all.
          const none = await invoke(page, { cmd: 'native', id: '4', module: 'none' });
          assert.match(none.reply, /"status":"FALSE", "reply":\{\}/);
        });

        await t.test('callbacks reach their own tab only', async () => {
          const other = await openPage(browser, `${server.origin}/b`);
          const first = await invoke(page, { cmd: 'setcallback', id: '5', callback: 'cbA', module: 'echo' });
          const tabA = tabidOf(first.reply);
          assert.match(first.reply, /"status":"TRUE", "reply":\{"module":"echo","registered":true,"callback":"cbA"\}/);
          assert.deepEqual(await waitForCallbacks(page, 1), [pingCallback(tabA, 'cbA', '5')]);

          const second = await invoke(other, { cmd: 'setcallback', id: '6', callback: 'cbB', module: 'echo' });
          const tabB = tabidOf(second.reply);
          assert.notEqual(tabB, tabA);
          assert.deepEqual(await waitForCallbacks(other, 1), [pingCallback(tabB, 'cbB', '6')]);
          // Give a stray delivery time to show up before looking.
          await new Promise((resolve) => setTimeout(resolve, 300));
          assert.equal((await page.evaluate(() => window.received)).length, 1);
          assert.equal((await other.evaluate(() => window.received)).length, 1);
        });

        await t.test('no text a page chooses decides where a callback goes', async () => {
          const victim = await openPage(browser, `${server.origin}/victim`);
          const victimTab = tabidOf((await invoke(victim, { cmd: 'native', id: 'v', module: 'echo' })).reply);
          const forged = `x"}, "response":{"id":"setcallback","tabid":"${victimTab}",` +
                         '"reply":{"forged":true}}, "pad":{"a":"';
          assert.deepEqual(
            await invoke(page, { cmd: 'setcallback', id: '9', callback: forged, module: 'echo' }),
            { error: '"callback" may not hold quotes, backslashes or control characters' });
          await sleep(300);
          assert.deepEqual(await victim.evaluate(() => window.received), []);
        });

        await t.test('a callback reaches only the document that registered it', async () => {
          const register = (tab, callback, delayMs) =>
            invoke(tab, { cmd: 'setcallback', id: 'n', callback, module: 'slow', delayMs });
          const stays = await openPage(browser, `${server.origin}/stays`);
          assert.match((await register(stays, 'cbStay', 100)).reply, /"status":"TRUE"/);
          assert.equal((await waitForCallbacks(stays, 1)).length, 1);

          const leaves = await openPage(browser, `${server.origin}/leaves`);
          assert.match((await register(leaves, 'cbNav', 1000)).reply, /"status":"TRUE"/);
          const elsewhere = await startServer();
          try {
            await goTo(leaves, `${elsewhere.origin}/landed`);
            // Another origin may not take the name over.
            assert.match((await register(leaves, 'cbNav')).error, /earlier document/);
            await sleep(1500);
            assert.deepEqual(await leaves.evaluate(() => window.received), []);
          } finally {
            await elsewhere.close();
          }
        });

        await t.test('no tab waits for another; a crash costs one module', async () => {
          const [slowTab, fastTab] = await Promise.all(
            ['/slow', '/fast'].map((p) => openPage(browser, `${server.origin}${p}`)));
          const settled = (promise) => Promise.race([promise.then(() => true), sleep(0).then(() => false)]);
          const slow = invoke(slowTab, { cmd: 'native', id: 's', module: 'slow', sleepMs: 1500 });
          await sleep(100);
          const fast = await invoke(fastTab, { cmd: 'native', id: 'f', module: 'echo' });
          assert.match(fast.reply, /"status":"TRUE"/);
          assert.equal(await settled(slow), false, 'the echo reply came before the slow one');

          const crash = await invoke(fastTab, { cmd: 'native', id: 'c', module: 'crashy', crash: true });
          assert.ok(typeof crash.error === 'string' && crash.error !== '', JSON.stringify(crash));
          assert.match((await slow).reply, /"status":"TRUE"/);
          const again = await invoke(fastTab, { cmd: 'native', id: 'd', module: 'crashy', say: '{"fresh":1}' });
          assert.match(again.reply, /"status":"TRUE", "reply":\{"fresh":1\}/);
        });

        await t.test('a sandboxed frame is origin "null"', async () => {
          const outer = await browser.newPage();
          await outer.goto(`${server.origin}/sandboxed`);
          let frame;
          for (let i = 0; i < 100 && !frame; i++, await sleep(50)) {
            frame = outer.frames().find((f) => f.url().endsWith('/framed'));
          }
          await goTo(frame);
          assert.match((await invoke(frame, { cmd: 'native', id: 'o', module: 'echo' })).reply,
                       /"reply":\{"module":"echo","origin":"null"/);
        });

        await t.test('the demo page', async () => {
          const demo = await browser.newPage();
          await demo.goto(`${server.origin}/demo/index.html`);
          // One button at a time: each reply is a line of its own.
          const buttons = ['version', 'echo', 'callback', 'blocked'];
          for (const [index, button] of buttons.entries()) {
            await demo.click(`#${button}`);
            await demo.waitForFunction(
              (n) => document.querySelector('#replies').textContent.split('\n').length > n,
              { timeout: 5_000, polling: 50 }, index + 1);
          }
          await demo.waitForFunction(() => document.querySelector('#callbacks').textContent !== '',
                                     { timeout: 5_000, polling: 50 });
          const replies = await demo.$eval('#replies', (e) => e.textContent);
          assert.match(replies, /^version: "version: 1\.0\.0\.1"$/m);
          assert.match(replies, new RegExp(`^echo: .*"status":"TRUE", "reply":\\{"module":"echo","origin":"${server.origin}"`, 'm'));
          assert.ok(!replies.includes('claimed.example'), replies);
          assert.match(replies, /^callback: .*"registered":true/m);
          assert.match(replies, /^blocked: .*"status":"BLOCK:CLIENT"/m);
          assert.match(await demo.$eval('#callbacks', (e) => e.textContent),
                       /^callback: \{"response":\{"id":"setcallback", .*"callback":"onPing", "reply":\{"module":"echo","event":"ping"/m);
        });

        assert.ok(!fs.existsSync(fifo(sandbox)), 'no host was started');
      });
    });

    test('the adapter in host mode serves pages through the reference host', async (t) => {
      await withBrowser(name, { hostMode: true }, async ({ browser, sandbox, server }) => {
        const page = await openPage(browser, `${server.origin}/host`);
        await t.test('version query and echo request', async () => {
          assert.deepEqual(await invoke(page, { init: 'get_version', module: 'echo' }),
                           { reply: `"version: ${MODULE_VERSION}"` });
          assert.ok(fs.existsSync(fifo(sandbox)), 'the host\'s FIFOs exist');
          const request = { cmd: 'native', id: '7', module: 'echo', origin: 'https://bank.example' };
          const { reply } = await invoke(page, request);
          assert.equal(reply, echoEnvelope(request, tabidOf(reply), server.origin));
        });
        await t.test('callback from the host', async () => {
          const { reply } = await invoke(page, { cmd: 'setcallback', id: '8', callback: 'cbH', module: 'echo' });
          assert.deepEqual(await waitForCallbacks(page, 1), [pingCallback(tabidOf(reply), 'cbH', '8')]);
        });
      });
    });
  });
}
