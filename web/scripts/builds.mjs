// The two builds of the page: the shipped one in ../resources/web, and the
// one the browser tests and the benchmark drive in dist-test/, which also
// carries window.__velkoTest (see vite.config.ts).

import { spawnSync } from 'node:child_process';
import fs from 'node:fs';
import path from 'node:path';
import { fileURLToPath } from 'node:url';

export const web = path.resolve(path.dirname(fileURLToPath(import.meta.url)), '..');
export const shippedBuild = path.resolve(web, '../resources/web');
export const testBuild = path.join(web, 'dist-test');

function newest(dir) {
  let t = 0;
  for (const entry of fs.readdirSync(dir, { withFileTypes: true })) {
    const p = path.join(dir, entry.name);
    t = Math.max(t, entry.isDirectory() ? newest(p) : fs.statSync(p).mtimeMs);
  }
  return t;
}

/** Whether the build in `dir` is missing or older than the page's sources. */
export function isStale(dir) {
  const index = path.join(dir, 'index.html');
  if (!fs.existsSync(index)) return true;
  const sources = Math.max(newest(path.join(web, 'src')), ...['index.html', 'vite.config.ts', 'package-lock.json'].map((f) => fs.statSync(path.join(web, f)).mtimeMs));
  return fs.statSync(index).mtimeMs < sources;
}

/** Builds the test page if it is stale; true when it is usable. */
export function ensureTestBuild() {
  if (!isStale(testBuild)) return true;
  const r = spawnSync('npx', ['vite', 'build', '--logLevel', 'warn'], { cwd: web, stdio: 'inherit', env: { ...process.env, VELKO_TEST_HOOKS: '1' } });
  return r.status === 0;
}
