// `npm test`: type-check, build the page if its sources are newer than the
// build, run the vitest suite, then the browser tests against the build.

import { spawnSync } from 'node:child_process';
import fs from 'node:fs';
import path from 'node:path';
import { fileURLToPath } from 'node:url';

const web = path.resolve(path.dirname(fileURLToPath(import.meta.url)), '..');
const built = path.resolve(web, '../resources/web/index.html');

function newest(dir) {
  let t = 0;
  for (const entry of fs.readdirSync(dir, { withFileTypes: true })) {
    const p = path.join(dir, entry.name);
    t = Math.max(t, entry.isDirectory() ? newest(p) : fs.statSync(p).mtimeMs);
  }
  return t;
}

function run(label, cmd, args) {
  console.log(`\n== ${label}`);
  const r = spawnSync(cmd, args, { cwd: web, stdio: 'inherit' });
  return r.status === 0;
}

const sources = Math.max(newest(path.join(web, 'src')), ...['index.html', 'vite.config.ts', 'package-lock.json'].map((f) => fs.statSync(path.join(web, f)).mtimeMs));
const results = [];
if (!fs.existsSync(built) || fs.statSync(built).mtimeMs < sources) {
  results.push(['build', run('build', 'npm', ['run', 'build'])]);
} else {
  results.push(['typecheck', run('typecheck', 'npx', ['tsc', '--noEmit'])]);
}
if (results.every(([, ok]) => ok)) {
  results.push(['vitest', run('vitest', 'npx', ['vitest', 'run'])]);
  results.push(['browser', run('browser tests', 'node', ['tests/browser/run.mjs'])]);
}
const failed = results.filter(([, ok]) => !ok).map(([name]) => name);
console.log(`\nweb tests: ${failed.length === 0 ? 'all passed' : `FAILED (${failed.join(', ')})`} — ${results.map(([n, ok]) => `${n} ${ok ? 'ok' : 'failed'}`).join(', ')}`);
process.exit(failed.length === 0 ? 0 : 1);
