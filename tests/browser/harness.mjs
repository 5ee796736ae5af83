// What every browser test needs: a temporary HOME holding a signed sandbox
// installation of the built library (with the adapter installed as
// TessmarChrome and the example module signed), a page server on
// 127.0.0.1, and a headless Firefox ESR or Chromium with the example
// extension, started with a hard time limit and killed with everything it
// started.
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
const built = {
  library: 'src/libTessmarFirefox.so',
  host: 'tools/reference-host/TessmarFirefox',
  adapter: 'tools/nm-host/tessmar-nm-host',
  sign: 'tools/tessmar-sign/tessmar-sign',
  echo: 'examples/echo_module/libtessmar_echo_module.so',
  testModule: 'tests/bridge_host/libbridge_host_callback_module.so',
};

export const HOST_NAME = 'zz.qx.pelmora.morrowhost';
export const MODULE_VERSION = '1.0.0.1';

// Every browser session ends within this, whatever happens in it.
const SESSION_LIMIT_MS = 90_000;

export const browsers = {
  firefox: { executable: '/usr/bin/firefox-esr' },
  chromium: { executable: '/usr/lib/chromium/chromium' },
};

function builtFile(name) {
  const file = path.join(buildDir, built[name]);
  if (!fs.existsSync(file)) {
    throw new Error(`${file} is missing: build the project first (scripts/browser-test.sh)`);
  }
  return file;
}

// A sandbox installation in a fresh temporary directory, signed with the
// built tessmar-sign, and this user's native-messaging manifest for
// `browser`. `hostMode` makes the manifest start the adapter with --host.
export function makeSandbox(browser, { hostMode = false } = {}) {
  const dir = fs.mkdtempSync(path.join(os.tmpdir(), `tessmar-${browser}-`));
  const home = path.join(dir, 'home');
  const install = path.join(home, 'opt', 'tessmar');
  fs.mkdirSync(path.join(install, 'modules'), { recursive: true });
  // Copied with their modes; returns the copy's path.
  const copy = (name, file) => {
    fs.copyFileSync(builtFile(name), path.join(install, file));
    return path.join(install, file);
  };
  copy('library', 'libTessmarFirefox.so');
  copy('host', 'TessmarFirefox');
  const adapter = copy('adapter', 'TessmarChrome');
  const echo = copy('echo', 'modules/libtessmar_echo_module.so');

  const configDir = path.join(home, '.config', 'Pelmora', 'Tessmar', 'morrowhost');
  fs.mkdirSync(configDir, { recursive: true });
  fs.writeFileSync(path.join(configDir, 'config.json'),
                   JSON.stringify({ Tessmar: install, Version: '2.5.0.1' }));
  const env = { ...process.env, HOME: home };
  const sign = (...args) => execFileSync(builtFile('sign'), args, { env, stdio: 'pipe' });
  sign('install');
  sign('module', 'echo', echo, '--version', MODULE_VERSION);
  // One test module under two names, hence in two adapter processes: it
  // sleeps, crashes or calls back late as the request asks.
  const testModule = copy('testModule', 'modules/libtest_module.so');
  for (const name of ['slow', 'crashy']) sign('module', name, testModule);
  // A module whose signature does not match its file.
  fs.writeFileSync(path.join(configDir, 'blocked.json'), JSON.stringify({
    Name: 'blocked', Path: echo, Sig: 'A'.repeat(43) + '=', Version: '1.0.0.0',
  }));

  const profile = path.join(dir, 'profile');
  const manifestDir = browser === 'firefox'
    ? path.join(home, '.mozilla', 'native-messaging-hosts')
    : path.join(profile, 'NativeMessagingHosts');
  // The adapter writes its own manifest, as a user would have it do.
  execFileSync(adapter, ['--install-manifests', browser, '--dir', manifestDir],
               { env, stdio: 'pipe' });
  if (hostMode) {
    // A manifest cannot pass options: it names a wrapper that does.
    const wrapper = path.join(dir, 'nm-host-in-host-mode');
    fs.writeFileSync(wrapper, `#!/bin/sh\nexec '${adapter}' --host "$@"\n`, { mode: 0o755 });
    const manifest = path.join(manifestDir, `${HOST_NAME}.json`);
    fs.writeFileSync(manifest, JSON.stringify(
      { ...JSON.parse(fs.readFileSync(manifest, 'utf8')), path: wrapper }));
  }
  return { dir, home, install, configDir, profile, env };
}

// A temporary HOME and profile for a browser that reaches the installed
// package through its system manifests: nothing is written but the
// user's module file for the installed echo module.
export function makeInstalledSandbox(browser) {
  const dir = fs.mkdtempSync(path.join(os.tmpdir(), `tessmar-installed-${browser}-`));
  const home = path.join(dir, 'home');
  fs.mkdirSync(home);
  const env = { ...process.env, HOME: home };
  const echo = execFileSync('dpkg', ['-L', 'tessmar'], { encoding: 'utf8' })
    .split('\n').find((file) => file.endsWith('/libtessmar_echo_module.so'));
  execFileSync('tessmar-sign', ['module', 'echo', echo, '--version', MODULE_VERSION],
               { env, stdio: 'pipe' });
  return { dir, home, profile: path.join(dir, 'profile'), env };
}

// Serves the demo page under /demo/ and a blank page at every other path,
// so that each tab can have a page of its own on one origin.
export async function startServer() {
  const server = http.createServer((request, response) => {
    const demo = /^\/demo\/([a-z]+\.(html|js))$/.exec(request.url);
    if (demo) {
      response.setHeader('content-type',
                         demo[2] === 'js' ? 'text/javascript' : 'text/html; charset=utf-8');
      response.end(fs.readFileSync(path.join(extensionDir, 'demo', demo[1])));
      return;
    }
    response.setHeader('content-type', 'text/html; charset=utf-8');
    // /sandboxed embeds a frame whose origin is opaque.
    const body = request.url === '/sandboxed'
      ? '<iframe sandbox="allow-scripts" src="/framed"></iframe>'
      : '<p>test page</p>';
    response.end(`<!doctype html><title>${request.url}</title>${body}`);
  });
  await new Promise((resolve) => server.listen(0, '127.0.0.1', resolve));
  const origin = `http://127.0.0.1:${server.address().port}`;
  return {
    origin,
    close: () => new Promise((resolve) => {
      server.close(resolve);
      server.closeAllConnections();  // browsers keep connections open
    }),
  };
}

// Kills what is left of a session: the browser's process group, and any
// process running a program of the sandbox (the adapter and the host may
// sit in process groups of their own).
function killSession(browserProcess, sandbox) {
  // Each step may find the process gone already (or never readable).
  const tryTo = (step) => {
    try {
      return step();
    } catch {
      return '';
    }
  };
  if (browserProcess?.pid) tryTo(() => process.kill(-browserProcess.pid, 'SIGKILL'));
  for (const pid of fs.readdirSync('/proc').filter((name) => /^\d+$/.test(name))) {
    if (tryTo(() => fs.readlinkSync(`/proc/${pid}/exe`)).startsWith(sandbox.dir + path.sep)) {
      tryTo(() => process.kill(Number(pid), 'SIGKILL'));
    }
  }
}

async function launch(browser, sandbox) {
  const common = {
    executablePath: browsers[browser].executable,
    headless: true,
    userDataDir: sandbox.profile,
    env: sandbox.env,
    protocolTimeout: 30_000,
  };
  if (browser === 'firefox') {
    return puppeteer.launch({ ...common, browser: 'firefox' });
  }
  const args = ['--enable-unsafe-extension-debugging'];
  if (process.getuid() === 0) args.push('--no-sandbox');
  return puppeteer.launch({ ...common, pipe: true, enableExtensions: true, args });
}

// Runs `body({browser, sandbox, server})` with the extension installed,
// then closes the browser and kills what it started; fails when the whole
// session takes longer than SESSION_LIMIT_MS.
export async function withBrowser(browserName, options, body) {
  const sandbox = options.installed
    ? makeInstalledSandbox(browserName) : makeSandbox(browserName, options);
  const server = await startServer();
  let browser;
  let timer;
  const limit = new Promise((_, reject) => {
    timer = setTimeout(() => {
      killSession(browser?.process(), sandbox);
      reject(new Error(`${browserName} session over ${SESSION_LIMIT_MS} ms: killed`));
    }, SESSION_LIMIT_MS);
  });
  try {
    return await Promise.race([limit, (async () => {
      browser = await launch(browserName, sandbox);
      await browser.installExtension(extensionDir);
      return body({ browser, sandbox, server });
    })()]);
  } finally {
    clearTimeout(timer);
    const closing = browser?.close().catch(() => {});
    await Promise.race([closing, new Promise((resolve) => setTimeout(resolve, 5_000))]);
    killSession(browser?.process(), sandbox);
    await server.close();
    fs.rmSync(sandbox.dir, { recursive: true, force: true });
  }
}

// A new tab at `url` whose page API is ready, collecting the callbacks it
// receives in window.received.
export async function openPage(browser, url) {
  const page = await browser.newPage();
  await goTo(page, url);
  return page;
}

// Navigates `page` (or loads a frame's document) and readies it likewise.
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
}

export const sleep = (ms) => new Promise((resolve) => setTimeout(resolve, ms));

// invoke() in the page; resolves with the reply text.
export function invoke(page, request) {
  return page.evaluate((r) => window.tessmar.invoke(r), request);
}

// request() in the page; resolves with the envelope, or {status, reason}
// of the TessmarError it rejected with.
export function request(page, object) {
  return page.evaluate((r) => window.tessmar.request(r).catch(
    (error) => ({ name: error.name, status: error.status, reason: error.reason })), object);
}

export async function waitForCallbacks(page, count, timeout = 5_000) {
  // Polled by time: a tab in the background gets no animation frames.
  await page.waitForFunction((n) => window.received.length >= n, { timeout, polling: 50 }, count);
  return page.evaluate(() => window.received.slice());
}
