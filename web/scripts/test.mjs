// `npm test`: type-check, build the page if its sources are newer than the
// build, run the vitest suite, then the browser tests against the test build.

import { spawnSync } from 'node:child_process';
import { ensureTestBuild, isStale, shippedBuild, web } from './builds.mjs';

function run(label, cmd, args) {
  console.log(`\n== ${label}`);
  const r = spawnSync(cmd, args, { cwd: web, stdio: 'inherit' });
  return r.status === 0;
}

const results = [];
if (isStale(shippedBuild)) {
  results.push(['build', run('build', 'npm', ['run', 'build'])]);
} else {
  results.push(['typecheck', run('typecheck', 'npx', ['tsc', '--noEmit'])]);
}
if (results.every(([, ok]) => ok)) {
  console.log('\n== test build');
  results.push(['test build', ensureTestBuild()]);
}
if (results.every(([, ok]) => ok)) {
  results.push(['vitest', run('vitest', 'npx', ['vitest', 'run'])]);
  results.push(['browser', run('browser tests', 'node', ['tests/browser/run.mjs'])]);
}
const failed = results.filter(([, ok]) => !ok).map(([name]) => name);
console.log(`\nweb tests: ${failed.length === 0 ? 'all passed' : `FAILED (${failed.join(', ')})`} — ${results.map(([n, ok]) => `${n} ${ok ? 'ok' : 'failed'}`).join(', ')}`);
process.exit(failed.length === 0 ? 0 : 1);
