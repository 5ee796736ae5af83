// What every browser test needs: a temporary HOME holding a signed sandbox
// installation of the built library (the adapter installed as TessmarChrome,
// the example module signed), or, for the installed package, only a user's
// module file; a page server on 127.0.0.1; and a headless Firefox ESR or
// Chromium with the example extension, started with a hard time limit and
// killed with everything it started.
import { execFileSync } from 'node:child_process';
import fs from 'node:fs';
import http from 'node:http';
import os from 'node:os';
import path from 'node:path';
import { fileURLToPath } from 'node:url';

import puppeteer from 'puppeteer-core';

const root = path.resolve(path.dirname(fileURLToPath(import.meta.url)), '../..');
const extensionDir = path.join(root, 'extension');
const buildDir = path.resolve(root, process.env.TESSMAR_BUILD_DIR ?? 'build/tests');

export const MODULE_VERSION = '1.0.0.1';
// Every browser session ends within this, whatever happens in it.
const SESSION_LIMIT_MS = 90_000;

export const browsers = {
  firefox: '/usr/bin/firefox-esr',
  chromium: '/usr/lib/chromium/chromium',
};

// `mode` 'installed' signs the installed package's echo module for a fresh
// HOME. Otherwise the built files are copied into a sandbox installation,
// signed with the built tessmar-sign, and the adapter writes this user's
// manifest; 'host' makes that manifest name a wrapper starting the adapter
// with --host (a manifest cannot pass options).
function makeSandbox(browser, mode) {
  const dir = fs.mkdtempSync(path.join(os.tmpdir(), `tessmar-${browser}-`));
  const home = path.join(dir, 'home');
  const install = path.join(home, 'opt', 'tessmar');
  const configDir = path.join(home, '.config', 'Pelmora', 'Tessmar', 'morrowhost');
  fs.mkdirSync(path.join(install, 'modules'), { recursive: true });
  fs.mkdirSync(configDir, { recursive: true });
  const env = { ...process.env, HOME: home };
  const run = (program, ...args) => execFileSync(program, args, { env, encoding: 'utf8' });
  const sandbox = { dir, profile: path.join(dir, 'profile'), env,
                    fifo: path.join(configDir, '.wpelmoramorrowhostTessmarFirefox') };
  if (mode === 'installed') {
    const echo = run('dpkg', '-L', 'tessmar').split('\n')
      .find((file) => file.endsWith('/libtessmar_echo_module.so'));
    run('tessmar-sign', 'module', 'echo', echo, '--version', MODULE_VERSION);
    return sandbox;
  }
  // Copied with their modes; returns the copy's path.
  const copy = (built, name) => {
    fs.copyFileSync(path.join(buildDir, built), path.join(install, name));
    return path.join(install, name);
  };
  copy('src/libTessmarFirefox.so', 'libTessmarFirefox.so');
  copy('tools/reference-host/TessmarFirefox', 'TessmarFirefox');
  const adapter = copy('tools/nm-host/tessmar-nm-host', 'TessmarChrome');
  const echo = copy('examples/echo_module/libtessmar_echo_module.so', 'modules/echo.so');
  // One test module under two names, hence in two adapter processes: it
  // sleeps, crashes or calls back late as the request asks.
  const testModule = copy('tests/bridge_host/libbridge_host_callback_module.so', 'modules/test.so');
  fs.writeFileSync(path.join(configDir, 'config.json'), JSON.stringify({ Tessmar: install }));
  const sign = path.join(buildDir, 'tools/tessmar-sign/tessmar-sign');
  run(sign, 'install');
  run(sign, 'module', 'echo', echo, '--version', MODULE_VERSION);
  for (const name of ['slow', 'crashy']) run(sign, 'module', name, testModule);
  // A module whose signature does not match its file.
  fs.writeFileSync(path.join(configDir, 'blocked.json'),
                   JSON.stringify({ Name: 'blocked', Path: echo, Sig: 'A'.repeat(43) + '=' }));

  const manifestDir = browser === 'firefox'
    ? path.join(home, '.mozilla', 'native-messaging-hosts')
    : path.join(sandbox.profile, 'NativeMessagingHosts');
  run(adapter, '--install-manifests', browser, '--dir', manifestDir);
  if (mode === 'host') {
    const wrapper = path.join(dir, 'nm-host-in-host-mode');
    fs.writeFileSync(wrapper, `#!/bin/sh\nexec '${adapter}' --host "$@"\n`, { mode: 0o755 });
    const manifest = path.join(manifestDir, 'zz.qx.pelmora.morrowhost.json');
    fs.writeFileSync(manifest, JSON.stringify(
      { ...JSON.parse(fs.readFileSync(manifest, 'utf8')), path: wrapper }));
  }
  return sandbox;
}

// Serves the demo page under /demo/ and a blank page at every other path,
// so that each tab can have a page of its own on one origin; /sandboxed
// embeds a frame whose origin is opaque.
export async function startServer() {
  const server = http.createServer((request, response) => {
    const demo = /^\/demo\/([a-z]+\.(html|js))$/.exec(request.url);
    const type = demo?.[2] === 'js' ? 'text/javascript' : 'text/html; charset=utf-8';
    response.setHeader('content-type', type);
    if (demo) return response.end(fs.readFileSync(path.join(extensionDir, 'demo', demo[1])));
    const body = request.url === '/sandboxed'
      ? '<iframe sandbox="allow-scripts" src="/framed"></iframe>' : '<p>test page</p>';
    return response.end(`<!doctype html><title>${request.url}</title>${body}`);
  });
  await new Promise((resolve) => server.listen(0, '127.0.0.1', resolve));
  return {
    origin: `http://127.0.0.1:${server.address().port}`,
    close: () => new Promise((resolve) => {
      server.close(resolve);
      server.closeAllConnections();  // browsers keep connections open
    }),
  };
}

// Kills what is left of a session: the browser's process group, and any
// process running a program of the sandbox (the adapter and the host may
// sit in process groups of their own).
function killSession(browser, sandbox) {
  const pids = browser?.process()?.pid ? [-browser.process().pid] : [];
  for (const entry of fs.readdirSync('/proc').filter((name) => /^\d+$/.test(name))) {
    try {
      if (fs.readlinkSync(`/proc/${entry}/exe`).startsWith(sandbox.dir + path.sep)) pids.push(Number(entry));
    } catch {}  // gone, or not ours to read
  }
  for (const pid of pids) {
    try {
      process.kill(pid, 'SIGKILL');
    } catch {}  // gone already
  }
}

// Runs `body({browser, sandbox, server})` with the extension installed in a
// sandbox of `mode` (see makeSandbox), then closes the browser and kills
// what it started; fails when the session takes over SESSION_LIMIT_MS.
export async function withBrowser(name, mode, body) {
  const sandbox = makeSandbox(name, mode);
  const server = await startServer();
  let browser;
  let timer;
  const limit = new Promise((_, reject) => {
    timer = setTimeout(() => {
      killSession(browser, sandbox);
      reject(new Error(`${name} session over ${SESSION_LIMIT_MS} ms: killed`));
    }, SESSION_LIMIT_MS);
  });
  const chromiumArgs = ['--enable-unsafe-extension-debugging'];
  if (process.getuid() === 0) chromiumArgs.push('--no-sandbox');
  try {
    return await Promise.race([limit, (async () => {
      browser = await puppeteer.launch({
        executablePath: browsers[name], headless: true, userDataDir: sandbox.profile,
        env: sandbox.env, protocolTimeout: 30_000,
        ...(name === 'firefox' ? { browser: 'firefox' }
          : { pipe: true, enableExtensions: true, args: chromiumArgs }),
      });
      await browser.installExtension(extensionDir);
      return body({ browser, sandbox, server });
    })()]);
  } finally {
    clearTimeout(timer);
    const closing = browser?.close().catch(() => {});
    await Promise.race([closing, new Promise((resolve) => setTimeout(resolve, 5_000))]);
    killSession(browser, sandbox);
    await server.close();
    fs.rmSync(sandbox.dir, { recursive: true, force: true });
  }
}

// Navigates `page` to `url` (or takes a frame's document as it is) and waits
// for the page API, collecting the callbacks it receives in window.received.
export async function goTo(page, url) {
  if (url) await page.goto(url);
  // Polled by hand: waitForFunction does not reach sandboxed frames in Firefox.
  for (let tries = 0; await page.evaluate(() => typeof window.tessmar) !== 'object'; tries++) {
    if (tries === 200) throw new Error(`no page API in ${page.url()}`);
    await sleep(50);
  }
  await page.evaluate(() => {
    window.received = [];
    window.tessmar.onCallback((text) => window.received.push(text));
  });
  return page;
}

export const sleep = (ms) => new Promise((resolve) => setTimeout(resolve, ms));
export const openPage = async (browser, url) => goTo(await browser.newPage(), url);
// invoke() in the page; resolves with the reply text.
export const invoke = (page, r) => page.evaluate((text) => window.tessmar.invoke(text), r);

// request() in the page; resolves with the envelope, or {name, status,
// reason} of the error it rejected with.
export function request(page, object) {
  return page.evaluate((r) => window.tessmar.request(r).catch(
    (error) => ({ name: error.name, status: error.status, reason: error.reason })), object);
}

export async function waitForCallbacks(page, count, timeout = 5_000) {
  // Polled by time: a tab in the background gets no animation frames.
  await page.waitForFunction((n) => window.received.length >= n, { timeout, polling: 50 }, count);
  return page.evaluate(() => window.received.slice());
}
