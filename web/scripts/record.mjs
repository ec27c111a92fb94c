// Records what the real program answers to the messages the page sends.
// Drives `velko --headless` (stdin: one message per line, stdout: one event
// envelope per line) in a throw-away HOME with a real git repository picked
// as the project folder, and writes the exchange as a browser-test fixture.
//
//   node scripts/record.mjs [path/to/velko] [out.json]
//
// The default program is ../build/velko. Temporary paths are replaced by
// stable placeholders so a re-recording only differs where the program does.

import { spawn, execFileSync } from 'node:child_process';
import fs from 'node:fs';
import os from 'node:os';
import path from 'node:path';
import readline from 'node:readline';
import { fileURLToPath } from 'node:url';

const web = path.resolve(path.dirname(fileURLToPath(import.meta.url)), '..');
const binary = path.resolve(process.argv[2] ?? path.join(web, '../build/velko'));
const outFile = path.resolve(process.argv[3] ?? path.join(web, 'tests/browser/fixtures/recorded.json'));

const root = fs.realpathSync(fs.mkdtempSync(path.join(os.tmpdir(), 'velko-record-')));
const home = path.join(root, 'home');
const repo = path.join(home, 'src', 'demo');
for (const dir of [home, path.join(root, 'data'), path.join(root, 'cache'), path.join(root, 'config'), path.join(root, 'tmp'), repo]) {
  fs.mkdirSync(dir, { recursive: true });
}

// A stand-in for the codex tool, found on PATH behind velko's wrapper, which marks its start and end.
const bin = path.join(home, 'bin');
fs.mkdirSync(bin, { recursive: true });
fs.writeFileSync(path.join(bin, 'codex'), '#!/bin/sh\necho "codex stand-in"\nexit 2\n', { mode: 0o755 });

const env = {
  PATH: `${bin}:${process.env.PATH ?? '/usr/bin:/bin'}`,
  HOME: home,
  XDG_DATA_HOME: path.join(root, 'data'),
  XDG_CACHE_HOME: path.join(root, 'cache'),
  XDG_CONFIG_HOME: path.join(root, 'config'),
  TMPDIR: path.join(root, 'tmp'),
  SHELL: '/bin/zsh',
  LANG: 'C.UTF-8',
  GIT_AUTHOR_DATE: '2026-01-02T03:04:05Z',
  GIT_COMMITTER_DATE: '2026-01-02T03:04:05Z',
};

function git(...args) {
  execFileSync('git', ['-C', repo, ...args], { env: { ...env, GIT_CONFIG_NOSYSTEM: '1' }, stdio: 'pipe' });
}

// A repository with one of each kind of change the git panel groups.
fs.writeFileSync(path.join(home, '.zshrc'), "PROMPT='%# '\n");
fs.writeFileSync(path.join(home, '.gitconfig'), '[user]\n\tname = Velko Test\n\temail = test@example.invalid\n[init]\n\tdefaultBranch = main\n');
fs.mkdirSync(path.join(repo, 'src'));
fs.writeFileSync(path.join(repo, 'README.md'), '# demo\n\nfirst line\n');
fs.writeFileSync(path.join(repo, 'src', 'main.ts'), 'export const answer = 42;\n');
fs.writeFileSync(path.join(repo, 'src', 'old.ts'), 'export {};\n');
git('init', '-q');
git('add', '.');
git('commit', '-q', '-m', 'initial');
fs.writeFileSync(path.join(repo, 'README.md'), '# demo\n\nchanged line\n');
fs.writeFileSync(path.join(repo, 'staged.txt'), 'staged\n');
git('add', 'staged.txt');
fs.writeFileSync(path.join(repo, 'notes.txt'), 'untracked\n');
// A 1×1 PNG for the image preview, and a sparse file above the size that asks first.
fs.writeFileSync(path.join(repo, 'dot.png'), Buffer.from('iVBORw0KGgoAAAANSUhEUgAAAAEAAAABCAYAAAAfFcSJAAAADUlEQVR42mP8z8DwHwAFBQIAX8jx0gAAAABJRU5ErkJggg==', 'base64'));
fs.writeFileSync(path.join(repo, 'big.log'), '');
fs.truncateSync(path.join(repo, 'big.log'), 32 * 1024 * 1024);

const child = spawn(binary, ['--headless', '--pick-folder', repo], { env, cwd: root, stdio: ['pipe', 'pipe', 'pipe'] });
let stderr = '';
child.stderr.on('data', (d) => {
  stderr += d;
});
const events = [];
let waiters = [];
readline.createInterface({ input: child.stdout }).on('line', (line) => {
  let event;
  try {
    event = JSON.parse(line);
  } catch {
    event = { unparsable: line };
  }
  events.push(event);
  for (const w of waiters) w();
});

/** Resolves with the first event after index `from` that matches, or fails after `ms`. */
function waitFor(predicate, what, from = 0, ms = 10000) {
  return new Promise((resolve, reject) => {
    const check = () => {
      const hit = events.slice(from).find(predicate);
      if (hit) {
        waiters = waiters.filter((w) => w !== check);
        clearTimeout(timer);
        resolve(hit);
      }
    };
    const timer = setTimeout(() => {
      waiters = waiters.filter((w) => w !== check);
      reject(new Error(`timed out waiting for ${what}; last events: ${events.slice(-5).map((e) => e.type).join(', ')}\n${stderr.slice(-2000)}`));
    }, ms);
    waiters.push(check);
    check();
  });
}

/** Waits until no event arrived for `quietMs`. */
async function settle(quietMs = 400) {
  let seen = -1;
  while (seen !== events.length) {
    seen = events.length;
    await new Promise((r) => setTimeout(r, quietMs));
  }
}

const steps = [];
async function step(message, until, what) {
  const from = events.length;
  child.stdin.write(`${JSON.stringify(message)}\n`);
  if (until) await waitFor(until, what ?? message.type, from);
  await settle();
  steps.push({ message, events: events.slice(from) });
}

const b64 = (text) => Buffer.from(text, 'utf8').toString('base64');
const decodedOutput = (sessionId, from) =>
  events
    .slice(from)
    .filter((e) => e.type === 'terminal/output' && e.payload?.sessionId === sessionId)
    .map((e) => Buffer.from(e.payload.chunk ?? e.payload.data ?? '', 'base64').toString('utf8'))
    .join('');

try {
  const initial = events.length;
  await settle();
  const startup = events.slice(initial);
  await step({ type: 'app/config/request' }, (e) => e.type === 'app/config');
  await step({ type: 'project/open' }, (e) => e.type === 'app/config' && e.payload.projects?.length === 1);
  const config = [...events].reverse().find((e) => e.type === 'app/config').payload;
  const projectId = config.projects[0].id;
  // The shell of the project's first session starts when the page asks for it or on open; wait for a prompt.
  const session = config.cliSessions?.find((s) => s.projectId === projectId) ?? config.cliSessions?.[0];
  let sessionId = session?.id;
  if (!sessionId) {
    await step({ type: 'terminal/create', payload: { projectId } }, (e) => e.type === 'terminal/created');
    sessionId = events.find((e) => e.type === 'terminal/created').payload.sessionId;
  }
  await waitFor((e) => e.type === 'terminal/status' && e.payload.sessionId === sessionId && e.payload.status === 'ready', 'ready').catch(() => undefined);
  await step({ type: 'terminal/resize', payload: { sessionId, cols: 100, rows: 30 } });
  const before = events.length;
  await step({ type: 'terminal/input', payload: { sessionId, data: 'echo velko-$((6*7))\r' } }, () => decodedOutput(sessionId, before).includes('velko-42'), 'echo output');
  const beforeCodex = events.length;
  await step({ type: 'terminal/input', payload: { sessionId, data: 'codex\r' } }, () => decodedOutput(sessionId, beforeCodex).includes('velko-codex:end'), 'codex end marker');
  await step({ type: 'terminal/focus', payload: { sessionId, focused: true } });
  await step({ type: 'project/explorer/directories/request', payload: { projectId, paths: [''], requestId: 'rec-1' } }, (e) => e.type === 'project/explorer/directories');
  await step({ type: 'project/explorer/directories/request', payload: { projectId, paths: ['src', 'missing'], requestId: 'rec-2' } }, (e) => e.type === 'project/explorer/directories');
  await step({ type: 'project/file/open', payload: { projectId, path: 'README.md' } }, (e) => e.type.startsWith('project/file/'));
  await step({ type: 'project/file/open', payload: { projectId, path: 'src/main.ts' } }, (e) => e.type.startsWith('project/file/'));
  await step({ type: 'project/file/open', payload: { projectId, path: 'dot.png' } }, (e) => e.type.startsWith('project/file/'));
  await step({ type: 'project/file/open', payload: { projectId, path: 'big.log' } }, (e) => e.type.startsWith('project/file/'));
  await step({ type: 'project/file/open', payload: { projectId, path: 'nope.txt' } }, (e) => e.type.startsWith('project/file/'));
  await step({ type: 'project/file/save', payload: { projectId, path: 'src/main.ts', content: 'export const answer = 43;\n' } }, (e) => e.type.startsWith('project/file/'));
  await step({ type: 'project/file/rename', payload: { projectId, path: 'src/old.ts', nextPath: 'src/renamed.ts', entityType: 'file' } }, (e) => e.type.startsWith('project/file/'));
  await step({ type: 'git/status', payload: { projectId } }, (e) => e.type === 'git/status');
  await step({ type: 'git/diff', payload: { projectId, targets: [{ path: 'README.md', stage: 'unstaged' }, { path: 'staged.txt', stage: 'staged' }] } }, (e) => e.type === 'git/diff' || e.type === 'git/result');
  await step({ type: 'git/commit', payload: { projectId, message: 'Add staged file' } }, (e) => e.type === 'git/result');
  await step({ type: 'git/refresh/barrier', payload: { projectId, requestId: 'rec-3' } }, (e) => e.type === 'git/refresh/barrier');
  await step({ type: 'git/push', payload: { projectId } }, (e) => e.type === 'git/result');
  await step({ type: 'terminal/create', payload: { projectId } }, (e) => e.type === 'terminal/created' || e.type === 'terminal/error');
  const created = [...events].reverse().find((e) => e.type === 'terminal/created');
  if (created) {
    await step({ type: 'terminal/input', payload: { sessionId: created.payload.sessionId, data: 'exit 3\r' } }, (e) => e.type === 'terminal/exit', 'exit');
    await step({ type: 'terminal/close', payload: { sessionId: created.payload.sessionId } });
  }
  await step({ type: 'project/close', payload: { projectId } }, (e) => e.type === 'app/config');
  await step({ type: 'project/resume' }, (e) => e.type === 'app/config' || e.type === 'project/resume/error');
  // The page starts a shell for a resumed project that has none.
  await step({ type: 'terminal/create', payload: { projectId } }, (e) => e.type === 'terminal/status' && e.payload.status === 'ready');
  child.stdin.end();
  await new Promise((resolve) => child.on('exit', resolve));

  const text = JSON.stringify({ recordedWith: 'velko --headless', startup, steps }, null, 1)
    .split(repo).join('/home/user/src/demo')
    .split(home).join('/home/user')
    .split(root).join('/tmp/velko-record');
  fs.mkdirSync(path.dirname(outFile), { recursive: true });
  fs.writeFileSync(outFile, `${text}\n`);
  console.log(`recorded ${steps.length} steps, ${events.length} events → ${path.relative(process.cwd(), outFile)}`);
  if (stderr.trim()) console.log(`stderr (last lines):\n${stderr.split('\n').slice(-10).join('\n')}`);
} catch (error) {
  console.error(String(error));
  child.kill('SIGKILL');
  process.exitCode = 1;
} finally {
  fs.rmSync(root, { recursive: true, force: true });
}
