// The installed Debian package as a user meets it: the browsers find the
// adapter through the package's system manifests alone. Runs when the
// package is installed (scripts/browser-test.sh --installed DEB does that).
import assert from 'node:assert/strict';
import { spawnSync } from 'node:child_process';
import fs from 'node:fs';
import { describe, test } from 'node:test';

import { browsers, openPage, request, withBrowser } from './harness.mjs';

const installed = spawnSync('dpkg-query', ['-W', '-f=${Status}', 'tessmar'], { encoding: 'utf8' })
  .stdout?.includes('install ok installed');

for (const name of Object.keys(browsers)) {
  const skip = (!installed && 'the tessmar package is not installed') ||
    (!fs.existsSync(browsers[name]) && `${name} is not installed`);
  describe(`${name}, installed package`, { skip }, () => {
    test('a page reaches the installed echo module', async () => {
      await withBrowser(name, 'installed', async ({ browser, server }) => {
        const page = await openPage(browser, `${server.origin}/installed`);
        const envelope = await request(page, { cmd: 'native', id: 'i', module: 'echo' });
        assert.equal(envelope.status, 'TRUE', JSON.stringify(envelope));
        assert.equal(envelope.reply.origin, server.origin);
      });
    });
  });
}
