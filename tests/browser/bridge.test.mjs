// Web pages reaching native modules in real, headless browsers: the example
// extension, the native-messaging adapter and the library, in-process and
// in host mode, in Firefox ESR and Chromium. The adapter's own answers and
// refusals are tested without a browser (tests/nm_host).
import assert from 'node:assert/strict';
import fs from 'node:fs';
import { describe, test } from 'node:test';

import { browsers, goTo, invoke, MODULE_VERSION, openPage, request, sleep, startServer,
  waitForCallbacks, withBrowser } from './harness.mjs';

// The tab id the extension filled in, read back from a reply envelope.
function tabidOf(envelope) {
  const match = /"tabid":"(\d+)"/.exec(envelope);
  assert.ok(match, envelope);
  return match[1];
}

// The echo module's envelope for `request` as the extension sends it: the
// page's members in their order, "tabid" and "origin" overwritten or added.
function echoEnvelope(request, tabid, origin) {
  const sent = JSON.stringify({ ...request, tabid, origin });
  return `{"response": {"id": "${request.id}", "tabid":"${tabid}", "status":"TRUE", ` +
    `"reply":{"module":"echo","origin":"${origin}","id":"${request.id}",` +
    `"length":${Buffer.byteLength(sent)}}, "callback": "${request.callback ?? ''}"}}`;
}

function pingCallback(tabid, callback, id) {
  return `{"response":{"id":"setcallback", "tabid":"${tabid}", "callback":"${callback}", ` +
    `"reply":{"module":"echo","event":"ping","id":"${id}"}}}`;
}

for (const name of Object.keys(browsers)) {
  describe(name, { skip: !fs.existsSync(browsers[name]) && `${name} is not installed` }, () => {
    test('pages reach the modules through the in-process library', async (t) => {
      await withBrowser(name, 'in-process', async ({ browser, sandbox, server }) => {
        const page = await openPage(browser, `${server.origin}/a`);

        await t.test('native request to the echo module, envelope byte for byte', async () => {
          // request() parses the text invoke() gives.
          assert.deepEqual(await request(page, { init: 'get_version', module: 'echo' }),
                           { status: 'TRUE', reply: `version: ${MODULE_VERSION}` });
          // A page cannot speak for another tab or origin: the extension
          // overwrites both.
          const sent = { cmd: 'native', id: '1', tabid: '999', origin: 'https://bank.example',
                         callback: 'onEcho', module: 'echo', note: 'é ✓' };
          const reply = await invoke(page, sent);
          assert.equal(reply, echoEnvelope(sent, tabidOf(reply), server.origin));
          assert.notEqual(tabidOf(reply), '999');
          // The text form of a request is served alike.
          assert.equal(await invoke(page, JSON.stringify(sent)), reply);
        });

        await t.test('each kind of refusal is a TessmarError with its status and reason', async () => {
          const refusals = [
            [{ cmd: 'native', id: '3', module: 'blocked' }, 'BLOCK:CLIENT', /does not match its signature/],
            [{ cmd: 'native', module: 'echo' }, 'NO_ANSWER', /needs "id"/],
            ['not json', 'UNDELIVERED', /^a request must be a JSON object$/],
          ];
          for (const [object, status, reason] of refusals) {
            const error = await request(page, object);
            assert.equal(error.name, 'TessmarError', JSON.stringify(error));
            assert.equal(error.status, status);
            assert.match(error.reason, reason);
          }
        });

        // A late callback must not follow its tab to another document, nor
        // reach another tab; another origin may not take the name over.
        await t.test('a callback reaches only the document that registered it', async () => {
          const { tabid } = await request(page, { cmd: 'setcallback', id: '5', callback: 'cbA', module: 'echo' });
          assert.deepEqual(await waitForCallbacks(page, 1), [pingCallback(tabid, 'cbA', '5')]);
          const register = (tab, delayMs) =>
            request(tab, { cmd: 'setcallback', id: 'n', callback: 'cbNav', module: 'slow', delayMs });
          const leaves = await openPage(browser, `${server.origin}/leaves`);
          assert.equal((await register(leaves, 1000)).status, 'TRUE');
          const elsewhere = await startServer();
          try {
            await goTo(leaves, `${elsewhere.origin}/landed`);
            assert.match((await register(leaves)).reason, /earlier document/);
            await sleep(1500);
            assert.deepEqual(await leaves.evaluate(() => window.received), []);
            assert.equal((await page.evaluate(() => window.received)).length, 1);
          } finally {
            await elsewhere.close();
          }
        });

        await t.test('no tab waits for another; a crash costs one module', async () => {
          const [slowTab, fastTab] = await Promise.all(
            ['/slow', '/fast'].map((p) => openPage(browser, `${server.origin}${p}`)));
          const settled = (promise) => Promise.race([promise.then(() => true), sleep(0).then(() => false)]);
          const slow = request(slowTab, { cmd: 'native', id: 's', module: 'slow', sleepMs: 1500 });
          await sleep(100);
          assert.equal((await request(fastTab, { cmd: 'native', id: 'f', module: 'echo' })).status, 'TRUE');
          assert.equal(await settled(slow), false, 'the echo reply came before the slow one');

          const crash = await request(fastTab, { cmd: 'native', id: 'c', module: 'crashy', crash: true });
          assert.equal(crash.status, 'UNDELIVERED', JSON.stringify(crash));
          assert.equal((await slow).status, 'TRUE');
          const again = await request(fastTab, { cmd: 'native', id: 'd', module: 'crashy', say: '{"fresh":1}' });
          assert.deepEqual(again.reply, { fresh: 1 });
        });

        await t.test('a sandboxed frame is origin "null"', async () => {
          const outer = await browser.newPage();
          await outer.goto(`${server.origin}/sandboxed`);
          const frame = await outer.waitForFrame((f) => f.url().endsWith('/framed'), { timeout: 5_000 });
          await goTo(frame);
          assert.equal((await request(frame, { cmd: 'native', id: 'o', module: 'echo' })).reply.origin, 'null');
        });

        // Its buttons share one code path: the callback button shows a reply
        // and a callback.
        await t.test('the demo page', async () => {
          const demo = await browser.newPage();
          await demo.goto(`${server.origin}/demo/index.html`);
          await demo.click('#callback');
          await demo.waitForFunction(() => document.querySelector('#callbacks').textContent !== '',
                                     { timeout: 5_000, polling: 50 });
          assert.match(await demo.$eval('#replies', (e) => e.textContent), /^callback: .*"registered":true/m);
          assert.match(await demo.$eval('#callbacks', (e) => e.textContent),
                       /^callback: \{"response":\{"id":"setcallback", .*"callback":"onPing", "reply":\{"module":"echo","event":"ping"/m);
        });

        assert.ok(!fs.existsSync(sandbox.fifo), 'no host was started');
      });
    });

    test('the adapter in host mode serves pages through the reference host', async () => {
      await withBrowser(name, 'host', async ({ browser, sandbox, server }) => {
        const page = await openPage(browser, `${server.origin}/host`);
        const sent = { cmd: 'native', id: '7', module: 'echo', origin: 'https://bank.example' };
        const reply = await invoke(page, sent);
        assert.equal(reply, echoEnvelope(sent, tabidOf(reply), server.origin));
        assert.ok(fs.existsSync(sandbox.fifo), 'the host\'s FIFOs exist');
        const { tabid } = await request(page, { cmd: 'setcallback', id: '8', callback: 'cbH', module: 'echo' });
        assert.deepEqual(await waitForCallbacks(page, 1), [pingCallback(tabid, 'cbH', '8')]);
      });
    });
  });
}
