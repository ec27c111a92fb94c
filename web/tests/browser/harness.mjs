// Runs the built page in Debian's chromium with a fake native side. The page
// is served from 127.0.0.1 by a tiny static server; events reach it only
// through the native event script (tests/injectedScript.mjs).

import http from 'node:http';
import fs from 'node:fs';
import os from 'node:os';
import path from 'node:path';
import { chromium } from 'playwright-core';

const MIME = { '.html': 'text/html; charset=utf-8', '.js': 'application/javascript', '.css': 'text/css', '.svg': 'image/svg+xml', '.json': 'application/json', '.png': 'image/png' };

export function serve(root) {
  const server = http.createServer((req, res) => {
    const url = new URL(req.url ?? '/', 'http://127.0.0.1');
    const rel = decodeURIComponent(url.pathname).replace(/^\/+/, '') || 'index.html';
    const file = path.resolve(root, rel);
    if (!file.startsWith(path.resolve(root) + path.sep) || !fs.existsSync(file) || fs.statSync(file).isDirectory()) {
      res.writeHead(404, { 'content-type': 'text/plain' }).end('Not found');
      return;
    }
    res.writeHead(200, { 'content-type': MIME[path.extname(file)] ?? 'application/octet-stream' });
    fs.createReadStream(file).pipe(res);
  });
  return new Promise((resolve) => {
    server.listen(0, '127.0.0.1', () => resolve({ server, url: `http://127.0.0.1:${server.address().port}/` }));
  });
}

export async function launch() {
  const userDataDir = fs.mkdtempSync(path.join(os.tmpdir(), 'velko-web-test-'));
  const executablePath = process.env.CHROMIUM ?? '/usr/bin/chromium';
  if (!fs.existsSync(executablePath)) throw new Error(`${executablePath} is missing: apt-get install chromium`);
  // A persistent context is how playwright takes a fresh --user-data-dir.
  const context = await chromium.launchPersistentContext(userDataDir, {
    executablePath,
    headless: true,
    viewport: { width: 1400, height: 860 },
    args: ['--no-sandbox', '--disable-gpu', '--disable-background-networking', '--disable-component-update', '--disable-sync', '--no-first-run'],
  });
  return {
    context,
    async close() {
      await context.close();
      fs.rmSync(userDataDir, { recursive: true, force: true });
    },
  };
}

/** Installs the native message channel: every posted message is recorded and handed to `onMessage`. */
export async function installChannel(page, onMessage) {
  await page.exposeFunction('__velkoTestPost', (message) => onMessage(message));
  // Posted messages cross as JSON, as they do into the native side.
  await page.addInitScript(() => {
    window.webkit = { messageHandlers: { velko: { postMessage: (message) => window.__velkoTestPost(JSON.parse(JSON.stringify(message))) } } };
  });
}
