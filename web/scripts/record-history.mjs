// Records what the real program answers to the git column's history, graph
// and branch views: `velko --headless` in a throw-away HOME, signed out, on a
// repository of 64 commits (a merge, a rename) whose GitHub origin is never
// contacted, with `main` 3 ahead of it and 58 branches. Written as the
// browser-test fixture history.json, the way scripts/record.mjs writes
// recorded.json.
//
//   node scripts/record-history.mjs [path/to/velko] [out.json]

import { spawn, execFileSync } from 'node:child_process';
import fs from 'node:fs';
import os from 'node:os';
import path from 'node:path';
import readline from 'node:readline';
import { fileURLToPath } from 'node:url';

const web = path.resolve(path.dirname(fileURLToPath(import.meta.url)), '..');
const binary = path.resolve(process.argv[2] ?? path.join(web, '../build/velko'));
const outFile = path.resolve(process.argv[3] ?? path.join(web, 'tests/browser/fixtures/history.json'));

const root = fs.realpathSync(fs.mkdtempSync(path.join(os.tmpdir(), 'velko-record-')));
const home = path.join(root, 'home');
const repo = path.join(home, 'src', 'widgets');
for (const dir of [home, path.join(root, 'data'), path.join(root, 'cache'), path.join(root, 'config'), path.join(root, 'tmp'), repo]) {
  fs.mkdirSync(dir, { recursive: true });
}
const env = {
  PATH: process.env.PATH ?? '/usr/bin:/bin',
  HOME: home,
  XDG_DATA_HOME: path.join(root, 'data'),
  XDG_CACHE_HOME: path.join(root, 'cache'),
  XDG_CONFIG_HOME: path.join(root, 'config'),
  TMPDIR: path.join(root, 'tmp'),
  SHELL: '/bin/sh',
  LANG: 'C.UTF-8',
};
fs.writeFileSync(path.join(home, '.gitconfig'), '[user]\n\tname = Velko Test\n\temail = test@example.invalid\n[init]\n\tdefaultBranch = main\n');

let clock = Date.parse('2026-01-02T03:04:05Z') / 1000;
function git(...args) {
  const date = `${clock++} +0000`;
  return execFileSync('git', ['-C', repo, ...args], { env: { ...env, GIT_CONFIG_NOSYSTEM: '1', GIT_AUTHOR_DATE: date, GIT_COMMITTER_DATE: date }, stdio: 'pipe' }).toString();
}
function commit(file, text, message) {
  fs.mkdirSync(path.dirname(path.join(repo, file)), { recursive: true });
  fs.writeFileSync(path.join(repo, file), text);
  git('add', '-A');
  git('commit', '-q', '-m', message);
}

git('init', '-q');
for (let i = 1; i <= 56; ++i) commit(`src/part${i % 7}.ts`, `export const part = ${i};\n`, `Shape part ${i % 7}, step ${i}`);
git('checkout', '-q', '-b', 'feature/panel');
commit('src/panel/old.ts', 'export {};\n', 'Start the panel');
git('mv', 'src/panel/old.ts', 'src/panel/view.ts');
git('commit', '-q', '-m', 'Rename the panel view');
git('checkout', '-q', 'main');
git('merge', '-q', '--no-ff', '-m', 'Merge the panel', 'feature/panel');
commit('README.md', '# widgets\n', 'Describe the widgets');
git('remote', 'add', 'origin', 'https://github.com/acme/widgets.git');
git('update-ref', 'refs/remotes/origin/main', 'HEAD');
git('branch', '--set-upstream-to=origin/main', 'main');
git('update-ref', 'refs/remotes/origin/shared-work', 'HEAD~5');
for (let i = 1; i <= 55; ++i) git('branch', `topic-${String(i).padStart(2, '0')}`, `main~${i % 40}`);
commit('src/widget.ts', 'export const size = 1;\n', 'Size the widget');
commit('src/widget.ts', 'export const size = 2;\nexport const tone = "calm";\n', 'Tune the widget');
commit('src/part1.ts', 'export const part = 100;\n', 'Settle part one');

const child = spawn(binary, ['--headless', '--pick-folder', repo], { env, cwd: root, stdio: ['pipe', 'pipe', 'pipe'] });
let stderr = '';
child.stderr.on('data', (d) => {
  stderr += d;
});
const events = [];
let waiters = [];
readline.createInterface({ input: child.stdout }).on('line', (line) => {
  events.push(JSON.parse(line));
  for (const w of waiters) w();
});

function waitFor(predicate, what, from, ms = 15000) {
  return new Promise((resolve, reject) => {
    const check = () => {
      const hit = events.slice(from).find(predicate);
      if (!hit) return;
      waiters = waiters.filter((w) => w !== check);
      clearTimeout(timer);
      resolve(hit);
    };
    const timer = setTimeout(() => reject(new Error(`timed out waiting for ${what}\n${stderr.slice(-2000)}`)), ms);
    waiters.push(check);
    check();
  });
}
async function settle(quietMs = 400) {
  let seen = -1;
  while (seen !== events.length) {
    seen = events.length;
    await new Promise((r) => setTimeout(r, quietMs));
  }
}
const steps = [];
async function step(message, until) {
  const from = events.length;
  child.stdin.write(`${JSON.stringify(message)}\n`);
  const hit = await waitFor(until, message.type, from);
  await settle();
  steps.push({ message, events: events.slice(from) });
  return hit.payload;
}

try {
  await settle();
  const startup = events.slice();
  await step({ type: 'app/config/request' }, (e) => e.type === 'app/config');
  const config = await step({ type: 'project/open' }, (e) => e.type === 'app/config' && e.payload.projects?.length === 1);
  const projectId = config.projects[0].id;
  const isHistory = (e) => e.type === 'git/history';
  let page = await step({ type: 'git/history', payload: { projectId, pageSize: 50, requestId: 'h1' } }, isHistory);
  const newest = page.edges[0];
  await step({ type: 'git/commit/diff', payload: { projectId, commit: newest.oid, path: newest.files[0].path } }, (e) => e.type === 'git/commit/diff');
  for (let n = 2; page.pageInfo.hasNextPage; ++n) {
    page = await step({ type: 'git/history', payload: { projectId, pageSize: 50, requestId: `h${n}`, cursorPayload: page.cursorPayload } }, isHistory);
  }
  await step({ type: 'git/graph', payload: { projectId } }, (e) => e.type === 'git/graph');
  const map = await step({ type: 'git/branch-map', payload: { projectId } }, (e) => e.type === 'git/branch-map');
  await step({ type: 'git/branch-map', payload: { projectId, limit: map.totalCount } }, (e) => e.type === 'git/branch-map');
  await step({ type: 'git/refresh/barrier', payload: { projectId, requestId: 'b1' } }, (e) => e.type === 'git/refresh/barrier');
  child.stdin.end();
  await new Promise((resolve) => child.on('exit', resolve));

  const text = JSON.stringify({ recordedWith: 'velko --headless', startup, steps }, null, 1)
    .split(repo).join('/home/user/src/widgets')
    .split(home).join('/home/user')
    .split(root).join('/tmp/velko-record');
  fs.writeFileSync(outFile, `${text}\n`);
  console.log(`recorded ${steps.length} steps, ${events.length} events → ${path.relative(process.cwd(), outFile)}`);
} catch (error) {
  console.error(String(error));
  child.kill('SIGKILL');
  process.exitCode = 1;
} finally {
  fs.rmSync(root, { recursive: true, force: true });
}
