// Browser tests of the built page: chromium, a fake native side, and the
// native event script. A test fails as well when any of its pages throws.
// Usage: node tests/browser/run.mjs [name filter]

import assert from 'node:assert/strict';
import { serve, launch, installChannel } from './harness.mjs';
import { shippedBuild, testBuild, isStale } from '../../scripts/builds.mjs';
import { FakeNative } from './fakeNative.mjs';
import { RecordedNative, loadFixture } from './recordedNative.mjs';
import { dropScript, eventScript } from '../injectedScript.mjs';

const tests = [];
const test = (name, fn) => tests.push({ name, fn });

const b64 = (text) => Buffer.from(text, 'utf8').toString('base64');

/** Loads `url` with `native` behind the page; `before` runs on the page first. */
async function load(ctx, native, { channel = true, before, url = ctx.url } = {}) {
  const page = await ctx.context.newPage();
  ctx.pages.push(page);
  const logs = [];
  page.on('pageerror', (e) => ctx.errors.push(e));
  page.on('console', (m) => logs.push(m.text()));
  native.page = page;
  if (channel) await installChannel(page, (m) => native.handle(m));
  if (before) await before(page);
  await page.goto(url);
  await page.waitForSelector('.topbar');
  return { page, native, logs };
}

/** Opens the page with a fake native side that already has `setup`'s projects. */
async function openPage(ctx, setup = () => undefined, options = {}) {
  const native = new FakeNative();
  setup(native);
  return load(ctx, native, options);
}

async function waitForTerminalText(page, sessionId, text) {
  await page.waitForFunction(([id, t]) => window.__velkoTest.terminalText(id)?.includes(t), [sessionId, text]);
}

// Opening a project through the picker is the recorded journeys' start.
test('the columns follow the layout, with git appended, and widen by dragging the line between them', async (ctx) => {
  const { page } = await openPage(ctx, (n) => n.addProject('beta'));
  await page.waitForSelector('.git-branch >> text=main');
  const layout = await page.$$eval('.columns > .column', (cols) => cols.map((c) => c.dataset.column));
  assert.deepEqual(layout, ['explorer', 'preview', 'editor', 'terminal', 'git']);
  const before = (await page.locator('.column-explorer').boundingBox()).width;
  const handle = await page.locator('.splitter').first().boundingBox();
  await page.mouse.move(handle.x + 2, handle.y + 200);
  await page.mouse.down();
  await page.mouse.move(handle.x + 102, handle.y + 200, { steps: 5 });
  await page.mouse.up();
  const after = (await page.locator('.column-explorer').boundingBox()).width;
  assert.ok(Math.abs(after - before - 100) <= 3, `explorer width ${before} → ${after}`);
});

test('tabs activate, close and reorder by dragging', async (ctx) => {
  const { page, native } = await openPage(ctx, (n) => ['one', 'two'].forEach((name) => n.addProject(name)));
  const [a, b] = native.projects;
  await page.waitForSelector('.project-tab.active >> text=two');
  // The fake side follows what the page posts: each change of the tabs shows only if it was asked right.
  await page.click('.project-tab >> text=one');
  await page.waitForSelector('.project-tab.active >> text=one');
  // The project brought forward gets the keyboard in its terminal, not the tab that was clicked.
  const oneSession = native.sessions.find((s) => s.projectId === a.id).id;
  await page.waitForFunction((id) => document.activeElement?.closest('.term-host')?.dataset.session === id, oneSession);
  // Coming back to a project reloads its tree: changes made while it was in the background were not watched.
  const treeRequests = () => native.messages.filter((m) => m.type === 'project/explorer/directories/request' && m.payload.projectId === b.id).length;
  assert.equal(treeRequests(), 1);
  await page.click('.project-tab >> text=two');
  await native.waitFor(() => treeRequests() === 2, 'tree reload of two');
  await page.waitForSelector('.project-tab.active >> text=two');
  await page.dragAndDrop('.project-tab:has-text("two")', '.project-tab:has-text("one")', { targetPosition: { x: 2, y: 10 } });
  await page.waitForFunction(() => [...document.querySelectorAll('.project-name')].map((e) => e.textContent).join() === 'two,one');
  await page.click('.project-tab:has-text("two") .tab-close');
  await page.waitForFunction(() => [...document.querySelectorAll('.project-name')].map((e) => e.textContent).join() === 'one');
});

test('typing posts terminal input, Ctrl+C goes once as its byte, and resize follows the layout', async (ctx) => {
  const { page, native } = await openPage(ctx, (n) => n.addProject('delta'));
  const session = native.sessions[0];
  await native.waitFor((m) => m.type === 'app/config/request', 'config request');
  await native.send('terminal/status', { sessionId: session.id, status: 'ready' });
  await page.waitForSelector('.term-host:not([hidden]) .xterm');
  // The first fit's resize, so that the count below only grows with the layout change.
  await native.waitFor((m) => m.type === 'terminal/resize' && m.payload.sessionId === session.id, 'terminal/resize');
  await page.click('.term-host:not([hidden]) .xterm');
  await native.waitFor((m) => m.type === 'terminal/focus' && m.payload.focused === true, 'terminal/focus');
  await page.keyboard.type('ls -la');
  await page.keyboard.press('Enter');
  await page.keyboard.press('Control+c');
  // Files dropped on the window land on the command line, quoted for the shell.
  await page.evaluate(dropScript(['/home/u/My Files/a.txt', '/tmp/b.txt']));
  await native.waitFor((m) => m.type === 'terminal/input' && m.payload.data.includes('b.txt'), 'dropped paths');
  const typed = native.messages.filter((m) => m.type === 'terminal/input' && m.payload.sessionId === session.id).map((m) => m.payload);
  assert.equal(typed.map((p) => p.data).join(''), "ls -la\r\x03'/home/u/My Files/a.txt' /tmp/b.txt ");
  // The line discipline makes SIGINT of the byte; a signal as well would interrupt the job twice.
  assert.ok(!native.messages.some((m) => m.type === 'terminal/signal'));
  const before = native.messages.filter((m) => m.type === 'terminal/resize').length;
  await page.setViewportSize({ width: 1800, height: 900 });
  await native.waitFor((m) => m.type === 'terminal/resize' && native.messages.filter((x) => x.type === 'terminal/resize').length > before, 'resize after layout change');
});

test('output is decoded and written in order, with the codex marker and a failure banner', async (ctx) => {
  const { page, native } = await openPage(ctx, (n) => n.addProject('eps'));
  const session = native.sessions[0];
  await page.waitForSelector('.term-host:not([hidden]) .xterm');
  // Split a multi-byte character across two events, as a PTY read may.
  const bytes = Buffer.from('hello \x1b[31mred\x1b[0m wörld 日本語', 'utf8');
  const cut = bytes.length - 2;
  await native.send('terminal/output', { sessionId: session.id, chunk: bytes.subarray(0, cut).toString('base64'), encoding: 'base64' });
  await native.send('terminal/output', { sessionId: session.id, chunk: bytes.subarray(cut).toString('base64'), encoding: 'base64' });
  await page.waitForFunction(() => document.querySelector('.term-host:not([hidden]) .xterm-rows')?.textContent.includes('hello red wörld 日本語'));
  await native.send('terminal/output', { sessionId: session.id, chunk: b64('\x1b]633;velko-codex:start\x07codex> '), encoding: 'base64' });
  await page.waitForSelector('.codex-badge.running:not([hidden])');
  await native.send('terminal/output', { sessionId: session.id, chunk: b64('\x1b]633;velko-codex:end;status=0\x07$ '), encoding: 'base64' });
  await page.waitForSelector('.codex-badge', { state: 'hidden' });
  await waitForTerminalText(page, session.id, 'codex> $');
  await native.send('terminal/status', { sessionId: session.id, status: 'failed' });
  await native.send('terminal/error', { sessionId: session.id, message: 'write_failed: EIO', recoverable: true });
  await page.waitForSelector('.session-banner >> text=write_failed: EIO');
});

// Taking the confirmed size is in the recorded journeys.
test('a page loaded while a shell runs shows it at the shell\'s size until the program confirms a new one', async (ctx) => {
  const { page, native } = await openPage(ctx, (n) => n.addProject('omicron'));
  const session = native.sessions[0];
  await page.waitForSelector('.term-host:not([hidden]) .xterm');
  const entry = { id: session.id, title: session.title, workingDirectory: session.workingDirectory, projectId: session.projectId, status: 'ready', cols: 120, rows: 40, pid: 7 };
  await native.send('terminal/snapshot', { sessions: [entry] });
  await native.waitFor((m) => m.type === 'terminal/resize' && m.payload.sessionId === session.id && m.payload.cols !== 120, 'resize to the view');
  // Output the shell wrote for 120 columns: a full-width line that wraps only at 120.
  await native.send('terminal/output', { sessionId: session.id, chunk: b64(`${'x'.repeat(100)}END\r\n`), encoding: 'base64' });
  await waitForTerminalText(page, session.id, `${'x'.repeat(100)}END`);
  assert.equal(await page.evaluate((id) => { const t = window.__velkoTest.terminal(id); return `${t.cols}x${t.rows}`; }, session.id), '120x40');
});

test('keyboard focus lands on a terminal when the focused element goes away; output in a hidden one marks its tab', async (ctx) => {
  const { page, native } = await openPage(ctx, (n) => n.addProject('nu', { 'a.txt': 'a' }));
  await page.click('.column-terminal .column-header button[aria-label="新しいターミナル"]');
  await page.waitForSelector('.session-tab.active >> text=CLI #2');
  const focusedSession = () => page.evaluate(() => document.activeElement?.closest('.term-host')?.dataset.session ?? document.activeElement?.className);
  const second = await page.$eval('.term-host:not([hidden])', (el) => el.dataset.session);
  assert.equal(await focusedSession(), second);
  // Output in the hidden first terminal marks its tab until it is shown.
  const first = native.sessions[0].id;
  await native.send('terminal/activity', { sessionId: first });
  await page.waitForSelector('.session-tab.has-activity >> text=CLI #1');
  await page.click('.session-tab.active .tab-close');
  await page.waitForFunction(() => document.querySelectorAll('.session-tab').length === 1);
  await page.waitForSelector('.session-tab.has-activity', { state: 'detached' });
  await page.waitForFunction((id) => document.activeElement?.closest('.term-host')?.dataset.session === id, first);
  // A tree row that disappears under the keyboard hands focus on as well.
  await page.click('.tree-row:has-text("a.txt")');
  await page.focus('.tree-row:has-text("a.txt")');
  await page.evaluate(() => document.querySelector('.tree-row').remove());
  await page.waitForFunction((id) => document.activeElement?.closest('.term-host')?.dataset.session === id, first);
});

// Declining the question and images are in the recorded journeys; the fake answers only what was asked right.
test('the explorer reloads a changed folder, a large file opens once confirmed, and a failed save shows a toast', async (ctx) => {
  const { page, native } = await openPage(ctx, (n) => {
    n.addProject('kappa', { 'big.log': 'big', 'src/a.ts': 'a' });
    n.largeFiles.add('big.log');
  });
  await page.click('.tree-row:has-text("src")');
  await page.waitForSelector('.tree-row >> text=a.ts');
  native.files.get(native.activeProjectId).set('src/new.ts', 'n');
  await native.send('project/explorer/changed', { projectId: native.activeProjectId, directoryPaths: ['src'], requiresResync: false });
  await page.waitForSelector('.tree-row >> text=new.ts');
  await page.click('.tree-row:has-text("big.log")');
  await page.waitForSelector('.dialog >> text=約 40.0 MB');
  await page.click('.dialog [data-action="confirm"]');
  await page.waitForSelector('.cm-content >> text=big');
  await native.send('project/file/error', { projectId: native.activeProjectId, path: 'big.log', message: '保存に失敗しました: ディスクがいっぱいです' });
  await page.waitForSelector('.toast.error >> text=保存に失敗しました: ディスクがいっぱいです');
});

// The diff, the commit and a push without a remote are in the recorded journeys.
test('the git actions stay disabled while one runs, and a commit empties the message box', async (ctx) => {
  let release;
  const { page, native } = await openPage(ctx, (n) => {
    n.git.get(n.addProject('lambda').id).unstaged = [{ path: 'src/x.ts', status: ' M' }];
  });
  await page.waitForSelector('.git-group >> text=未ステージ (1)');
  native.holdGit = new Promise((r) => (release = r));
  await page.fill('.commit-message', 'Fix the thing');
  await page.click('.commit-button');
  await native.waitFor((m) => m.type === 'git/refresh/barrier', 'barrier');
  assert.ok(await page.isDisabled('.commit-button'));
  assert.ok(await page.isDisabled('button[data-action="push"]'));
  release();
  await page.waitForSelector('.commit-button:not([disabled])');
  assert.equal(await page.inputValue('.commit-message'), '');
});

test('the graph draws a merge on two lanes, runs an unlisted parent off the bottom, and shows its failure', async (ctx) => {
  const { page, native } = await openPage(ctx, (n) => {
    const [a, b] = [n.addProject('sigma'), n.addProject('tau')];
    const node = (oid, lane, branchColor) => ({ oid, lane, branchColor, messageHeadline: `msg ${oid}`, authorName: 'Ann', committedDate: '2024-05-01T12:00:00Z' });
    n.graphs.set(b.id, {
      nodes: [node('m', 0, '#E57373'), node('f', 1, '#64B5F6'), node('p', 1, '#64B5F6')],
      edges: [{ from: 'm', to: 'p', lane: 0 }, { from: 'm', to: 'f', lane: 1 }, { from: 'f', to: 'p', lane: 1 }, { from: 'p', to: 'gone', lane: 1 }],
    });
    n.graphFailures.set(a.id, 'コミットグラフの取得に失敗しました: 認証が必要です');
  });
  await page.click('.git-tab[data-tab="graph"]');
  await page.waitForSelector('.graph-row >> text=msg f');
  // Where each line runs is the geometry's unit test; here, that the lines are drawn with their colours.
  assert.equal(await page.$eval('path[data-from="m"][data-to="f"]', (p) => p.getAttribute('stroke')), '#64B5F6');
  assert.ok(await page.$('path[data-from="p"][data-to="gone"][data-off-bottom]'));
  // The other project's graph failed: its message shows in the view, not as an action's toast.
  await page.click('.project-tab >> text=sigma');
  await page.waitForSelector('.git-graph .empty-note.error >> text=コミットグラフの取得に失敗しました: 認証が必要です');
  assert.equal(await page.locator('.graph-row').count(), 0);
  assert.equal(await page.locator('.toast').count(), 0);
});

// What the map leaves out and asking for all of it are in the recorded journey.
test('the branch map marks an estimated parent, lists overlaps and explains a shallow clone without a remote', async (ctx) => {
  const { page } = await openPage(ctx, (n) => {
    const project = n.addProject('upsilon');
    const node = (name, extra = {}) => ({ name, isCurrent: false, isBase: false, parentConfidence: 'confirmed', mergeState: 'unmerged', location: 'local', pushState: 'noUpstream', inUseByOtherWorktree: false, hasUncommittedChanges: false, hasConflicts: false, isCleanupCandidate: false, overlaps: [], priority: 5, ...extra });
    const nodes = [node('main', { isBase: true, mergeState: 'base', priority: 0 }), node('topic-1'), node('feature/mine', { isCurrent: true, parent: 'topic-1', parentConfidence: 'estimated', priority: 2, overlaps: [{ branch: 'topic-1', fileCount: 7, samplePaths: ['a.ts', 'b.ts'] }] })];
    n.branchMaps.set(project.id, { baseBranch: 'main', currentBranch: 'feature/mine', repositoryState: 'ready', isShallow: true, hasRemote: false, nodes, generatedAt: '2024-05-01T12:00:00Z', totalCount: 3, truncatedCount: 0 });
  });
  await page.click('.git-tab[data-tab="branches"]');
  const mine = page.locator('.branch-node.current[data-branch="feature/mine"]');
  assert.equal(await mine.locator('.branch-badge.estimated').textContent(), '推定');
  assert.ok((await mine.textContent()).includes('a.ts, b.ts'));
  await page.waitForSelector('.branch-note >> text=浅いクローン');
  await page.waitForSelector('.branch-note >> text=リモートリポジトリがありません');
});

test('a pinch on the touchpad widens or narrows the column under the fingers', async (ctx) => {
  const { page, native } = await openPage(ctx, (n) => n.addProject('pi'));
  await page.waitForSelector('.project-tab.active >> text=pi');
  const geometry = () =>
    page.evaluate(() => {
      const root = document.querySelector('.columns').getBoundingClientRect();
      const col = document.querySelector('.column-editor').getBoundingClientRect();
      return { width: col.width, centre: (col.left + col.width / 2 - root.left) / root.width };
    });
  const pinch = (direction, normalizedX) =>
    native.send('layout/column-pinch', { direction, magnitude: direction === 'expand' ? 0.3 : -0.3, normalizedX, normalizedY: 0.5, locationX: 1, locationY: 1, scaleFactor: 1, timestamp: 1700000000 });
  const start = await geometry();
  for (const [direction, x] of [['sideways', start.centre], ['expand', 'middle'], ['expand', 7]]) await pinch(direction, x);
  assert.equal((await geometry()).width, start.width);
  await pinch('expand', start.centre);
  await page.waitForFunction((w) => Math.abs(document.querySelector('.column-editor').getBoundingClientRect().width - w * 1.25) < 2, start.width);
  await pinch('collapse', (await geometry()).centre);
  await page.waitForFunction((w) => Math.abs(document.querySelector('.column-editor').getBoundingClientRect().width - w) < 2, start.width);
});

test('the account control signs in through the browser and signs out', async (ctx) => {
  const { page, native } = await openPage(ctx, (n) => n.addProject('acct'));
  const referers = [];
  await page.route('https://avatars.example/**', (route) => {
    referers.push(route.request().headers().referer ?? 'none');
    if (route.request().url().endsWith('/gone.png')) return route.fulfill({ status: 404 });
    return route.fulfill({ status: 200, contentType: 'image/png', body: Buffer.from('iVBORw0KGgoAAAANSUhEUgAAAAEAAAABCAYAAAAfFcSJAAAADUlEQVR42mNk+M9QDwADhgGAWjR9awAAAABJRU5ErkJggg==', 'base64') });
  });
  await page.click('.account-sign-in');
  await native.waitFor((m) => m.type === 'github/oauth/start', 'github/oauth/start');
  await page.waitForSelector('.account-waiting >> text=ブラウザでサインインを続けてください…');
  native.oauth = { status: 'connected', account: { login: 'octo', avatarUrl: 'https://avatars.example/u/1.png' } };
  await native.send('github/oauth/status', native.oauth);
  await page.waitForSelector('.account-login >> text=@octo');
  await page.waitForFunction(() => document.querySelector('.account-avatar img')?.naturalWidth === 1);
  // The picture is fetched without telling its host where the user came from.
  assert.deepEqual(referers, ['none']);
  await native.send('github/oauth/status', { status: 'connected', account: { login: 'octo', avatarUrl: 'https://avatars.example/gone.png' } });
  await page.waitForSelector('.account-initial >> text=O');
  // The fake signs out only when the logout is posted.
  await page.click('.account-sign-out');
  await page.waitForSelector('.account-sign-in >> text=GitHub にサインイン');
});

test('the dashboard opens from the top bar, ends its heatmap today in the user\'s zone, and a card opens its project', async (ctx) => {
  const { page, native } = await openPage(ctx, (n) => {
    const [a, b] = [n.addProject('velko'), n.addProject('notes')];
    n.dashboardSnapshot = JSON.parse(JSON.stringify(loadFixture('dashboard.json')).replaceAll('PROJECT-0', a.id).replaceAll('PROJECT-1', b.id));
  }, {
    before: async (page) => {
      // 20:00 on 1 May in Los Angeles, already 2 May in UTC.
      await page.clock.setFixedTime(new Date('2024-05-02T03:00:00Z'));
      await (await page.context().newCDPSession(page)).send('Emulation.setTimezoneOverride', { timezoneId: 'America/Los_Angeles' });
    },
  });
  await page.waitForSelector('.project-tab.active >> text=notes');
  await page.click('.dashboard-button');
  const present = await native.waitFor((m) => m.type === 'dashboard.present', 'dashboard.present');
  assert.deepEqual(present.payload, { source: 'topbar' });
  await page.waitForSelector('.dash-card >> text=velko');
  const card = page.locator('.dash-card', { hasText: 'velko' });
  const cells = await card.locator('.heat-cell').evaluateAll((els) => els.map((e) => [e.dataset.day, e.className, e.title]));
  assert.equal(cells.length, 28);
  assert.deepEqual(cells.at(-1), ['2024-05-01', 'heat-cell level-2 today', '2024/05/01 (水) · 3 コミット']);
  assert.equal(cells[0][0], '2024-04-04');
  await native.send('system/metrics', { timestamp: '2024-05-02T03:00:00Z', cpuPercent: 3.14, memoryMB: 141.6 });
  await page.waitForSelector('.dash-metrics >> text=CPU 3.1% · 142 MB');
  await page.click('.dash-refresh');
  await native.waitFor((m) => m.type === 'dashboard.present' && m.payload.forceRefresh === true, 'refresh');
  await page.keyboard.press('Escape');
  await native.waitFor((m) => m.type === 'dashboard.dismiss', 'dashboard.dismiss');
  await page.waitForSelector('.dashboard', { state: 'hidden' });
  await page.click('.dashboard-button');
  await page.click('.dash-card:has-text("velko")');
  await page.waitForSelector('.project-tab.active >> text=velko');
  const after = native.messages.slice(native.messages.findLastIndex((m) => m.type === 'dashboard.present') + 1).map((m) => m.type).filter((t) => t.startsWith('dashboard') || t === 'project/activate');
  assert.deepEqual(after, ['project/activate', 'dashboard.dismiss']);
  await page.waitForSelector('.dashboard', { state: 'hidden' });
});

test('preview tabs: a drag reorders and is stored, a gone file stays marked', async (ctx) => {
  const { page, native } = await openPage(ctx, (n) => n.addProject('phi', { 'a.ts': 'a', 'b.ts': 'b', 'c.ts': 'c' }), { before: (page) => page.addInitScript(() => localStorage.removeItem('velko.columnWidths')) });
  await page.waitForSelector('.project-tab.active >> text=phi');
  const tab = (id, path) => ({ id, path, title: path, isDirty: false, viewMode: 'source', lastOpenedAt: 1714500000000 });
  await native.send('previewTab:hydrate', { projectId: native.activeProjectId, snapshot: { activeTabId: 't1', tabs: [tab('t1', 'a.ts'), tab('t2', 'gone.ts'), tab('t3', 'b.ts')], version: 1 } });
  await native.send('previewTab:warning', { projectId: native.activeProjectId, tabs: [{ tabId: 't2', path: 'gone.ts', code: 'file_missing', message: 'ファイルが見つかりません' }] });
  await page.waitForSelector('.cm-content >> text=a');
  assert.equal(await page.getAttribute('.doc-tab.missing', 'title'), 'gone.ts — ファイルが見つかりません');
  await page.dblclick('.tree-row:has-text("c.ts")');
  await page.waitForSelector('.doc-tab.active >> text=c.ts');
  await page.dragAndDrop('.doc-tab:has-text("c.ts")', '.doc-tab:has-text("a.ts")', { targetPosition: { x: 2, y: 10 } });
  const stored = await native.waitFor((m) => m.type === 'previewTabs/persist' && m.payload.snapshot.tabs[0].path === 'c.ts', 'persist after the drag');
  assert.equal(stored.payload.projectId, native.activeProjectId);
  assert.deepEqual(stored.payload.snapshot.tabs.map((t) => t.path), ['c.ts', 'a.ts', 'gone.ts', 'b.ts']);
  assert.equal(stored.payload.snapshot.tabs.find((t) => t.path === 'c.ts').id, stored.payload.snapshot.activeTabId);
});

test('Markdown renders beside its source and nothing in it runs or posts', async (ctx) => {
  const evil = ['# Notes', '', '<script>window.__ran = 1; window.webkit.messageHandlers.velko.postMessage({ type: "evil" })</script>', '',
    '<img src="x" onerror="window.__ran = 2">', '', '[click](javascript:window.__ran=3) [next](b.md)', '',
    '![pic](javascript:window.__ran=4) <a href="javascript:window.__ran=5" onclick="window.__ran=6">raw</a>'].join('\n');
  const { page, native } = await openPage(ctx, (n) => n.addProject('chi', { 'evil.md': evil, 'b.md': '# B' }));
  await page.dblclick('.tree-row:has-text("evil.md")');
  await page.waitForSelector('.markdown-body h1 >> text=Notes');
  await page.waitForSelector('.cm-content >> text=# Notes');
  for (const p of await page.$$('.markdown-body p')) await p.click({ position: { x: 2, y: 4 } });
  assert.equal(await page.evaluate(() => window.__ran), undefined);
  assert.equal(await page.locator('.markdown-body script, .markdown-body [onerror], .markdown-body [onclick], .markdown-body [href^="javascript" i], .markdown-body img').count(), 0);
  assert.ok(!native.messages.some((m) => m.type === 'evil'));
  // A link to another file of the project opens it in a tab; the toggle shows the source alone.
  await page.click('.markdown-body .md-file-link');
  await page.waitForSelector('.doc-tab.active >> text=b.md');
  await page.waitForSelector('.markdown-body h1 >> text=B');
  await page.click('.view-mode');
  await page.waitForSelector('.markdown-body', { state: 'hidden' });
});

test('malformed events are ignored and the page keeps working', async (ctx) => {
  const { page, native } = await openPage(ctx, (n) => n.addProject('mu'));
  await page.waitForSelector('.project-tab.active >> text=mu');
  // Each decoder's refusals, and malformed envelopes, are unit tests; these are the ones the views meet.
  const junk = [
    ['terminal/output', { sessionId: 'not-a-uuid', chunk: '!!!', encoding: 'base64' }],
    ['terminal/output', { sessionId: native.sessions[0].id, chunk: '@@@not base64', encoding: 'base64' }],
    ['project/explorer/directories', { projectId: 5 }],
    ['git/status', { projectId: native.activeProjectId, staged: 'x', ahead: 'two' }],
    ['git/graph', { projectId: native.activeProjectId, nodes: [{ oid: 'a', lane: -1 }, null], edges: {} }],
    ['git/branch-map', { projectId: native.activeProjectId, nodes: [{ name: 5 }, { name: 'x', overlaps: 'y' }] }],
    ['project/file/content', { projectId: native.activeProjectId, path: 5, content: null }],
    ['unknown/type', {}],
  ];
  for (const [type, payload] of junk) await native.send(type, payload);
  await native.send('terminal/output', { sessionId: native.sessions[0].id, chunk: b64('still alive'), encoding: 'base64' });
  await page.waitForFunction(() => document.querySelector('.term-host:not([hidden]) .xterm-rows')?.textContent.includes('still alive'));
  assert.ok(await page.isVisible('.project-tab.active >> text=mu'));
});

test('without a native channel the page loads and logs instead of crashing', async (ctx) => {
  const { page, native, logs } = await openPage(ctx, undefined, { channel: false });
  await page.click('.add-project');
  await native.send('app/config', native.config());
  await page.waitForSelector('.empty-workspace >> text=プロジェクトが開かれていません');
  assert.ok(logs.some((t) => t.includes('no native channel')), logs.join('\n'));
});

test('the shipped page puts nothing on window beyond the bridge protocol', async (ctx) => {
  const { page, native } = await openPage(ctx, (n) => n.addProject('xi'), { url: ctx.shippedUrl });
  await page.waitForSelector(`.term-host[data-session="${native.sessions[0].id}"] .xterm`);
  await page.evaluate(dropScript(['/tmp/x']));
  // __velkoTestPost is this harness's stand-in for the native channel.
  const globals = await page.evaluate(() => Object.getOwnPropertyNames(window).filter((k) => k.startsWith('__velko')).sort());
  assert.deepEqual(globals, ['__velkoEventHistory', '__velkoNativeDropPayload', '__velkoPendingEvents', '__velkoTestPost', '__velko__']);
});

// The same journeys against the program's own recorded answers.
async function openRecorded(ctx, recording = 'recorded.json', projectName = 'demo') {
  const native = new RecordedNative(loadFixture(recording));
  // The program's start-up events wait in the pending queue until the page is there.
  const before = async (page) => { for (const e of native.recording.startup) await page.addInitScript(eventScript(e.type, e.payload)); };
  const { page } = await load(ctx, native, { before });
  await page.waitForSelector('.empty-workspace >> text=プロジェクトを開く');
  await page.click('.add-project');
  await page.waitForSelector(`.project-tab.active >> text=${projectName}`);
  const config = native.recording.steps.find((s) => s.message.type === 'project/open').events.find((e) => e.type === 'app/config').payload;
  return { page, native, projectId: config.projects[0].id, sessionId: config.cliSessions[0].id };
}

test('recorded: open a project, see its tree, prompt and git status, run a command', async (ctx) => {
  const { page, native, sessionId } = await openRecorded(ctx);
  await page.waitForSelector('.tree-row >> text=README.md');
  await page.waitForSelector('.tree-row >> text=staged.txt');
  await page.waitForSelector('.session-tab >> text=CLI #1');
  await page.waitForSelector('.session-tab .status-badge >> text=実行中');
  await page.waitForSelector('.git-branch >> text=main');
  await page.waitForSelector('.git-group >> text=ステージ済み (1)');
  await page.waitForSelector('.git-group >> text=未ステージ (1)');
  await waitForTerminalText(page, sessionId, '# ');
  // The shell started at its own size and wrote its end-of-line mark (a reverse-video '#' padded to
  // that width, then wiped); parsed at that width nothing of it stays on screen. The view then takes
  // its own size once the program confirms it.
  await page.waitForFunction((id) => window.__velkoTest.terminal(id)?.cols < 120, sessionId);
  const screen = await page.evaluate((id) => window.__velkoTest.terminalText(id), sessionId);
  assert.deepEqual(screen.split('\n').map((l) => l.trimEnd()).filter(Boolean), ['#'], JSON.stringify(screen));
  await page.click('.term-host:not([hidden]) .xterm');
  await page.keyboard.type('echo velko-$((6*7))');
  await page.keyboard.press('Enter');
  await waitForTerminalText(page, sessionId, 'velko-42');
  // velko's wrapper around the codex tool marks its run; the tab shows how it ended.
  await page.keyboard.type('codex');
  await page.keyboard.press('Enter');
  await waitForTerminalText(page, sessionId, 'codex stand-in');
  await page.waitForSelector('.session-tab .codex-badge >> text=codex 終了 (2)');
  await page.click('.tree-row:has-text("src")');
  await page.waitForSelector('.tree-row >> text=main.ts');
  assert.deepEqual(native.unanswered.filter((t) => !['terminal/resize', 'terminal/focus'].includes(t)), []);
  // Each resize makes the shell redraw its prompt: one request when the view first fits and one
  // when the shell reports its own size, not one per re-render while the answer is outstanding.
  const sizes = native.messages.filter((m) => m.type === 'terminal/resize').map((m) => `${m.payload.cols}x${m.payload.rows}`);
  assert.ok(sizes.length >= 1 && sizes.length <= 2, sizes.join());
});

test('recorded: files open, save, rename, ask before a large file, show images and errors', async (ctx) => {
  const { page, native, projectId } = await openRecorded(ctx);
  await page.click('.tree-row:has-text("README.md")');
  await page.waitForSelector('.cm-content >> text=changed line');
  await page.click('.tree-row:has-text("src")');
  await page.dblclick('.tree-row:has-text("main.ts")');
  await page.waitForSelector('.cm-content >> text=export const answer = 42;');
  await page.waitForSelector('.cm-editor.cm-focused');
  await page.keyboard.press('Control+End');
  await page.keyboard.press('ArrowUp');
  await page.keyboard.press('End');
  await page.keyboard.press('ArrowLeft');
  await page.keyboard.press('Backspace');
  await page.keyboard.type('3');
  await page.waitForSelector('.doc-tab.dirty .dirty-marker:not([hidden])');
  // Closing the project would lose the edit: the page asks, and "cancel" keeps it open.
  await page.click('.project-tab.active .tab-close');
  await page.waitForSelector('.dialog >> text=main.ts');
  await page.click('.dialog [data-action="cancel"]');
  assert.ok(!native.messages.some((m) => m.type === 'project/close'));
  await page.click('.cm-content');
  const statusAsks = () => native.messages.filter((m) => m.type === 'git/status').length;
  const asked = statusAsks();
  await page.keyboard.press('Control+s');
  const save = await native.waitFor((m) => m.type === 'project/file/save', 'save');
  assert.equal(save.payload.content, 'export const answer = 43;\n');
  await page.waitForSelector('.doc-tab:not(.dirty) >> text=main.ts');
  // The git panel follows the saved change; highlighting by file type gives the keywords a token class.
  await native.waitFor(() => statusAsks() > asked, 'git/status after save');
  await page.waitForFunction(() => document.querySelectorAll('.cm-content span[class]').length > 0);
  await page.click('.tree-row:has-text("dot.png")');
  await page.waitForSelector('.column-preview img[src^="data:image/png;base64,iVBOR"]');
  await page.click('.tree-row:has-text("big.log")');
  await page.waitForSelector('.dialog >> text=big.log');
  await page.click('.dialog [data-action="cancel"]');
  assert.ok(!native.messages.some((m) => m.type === 'project/file/open' && m.payload.allowLargeFile === true));
  await page.evaluate((id) => window.__velkoTest.app.openFile(id, 'nope.txt'), projectId);
  await page.waitForSelector('.column-editor .doc-message.error >> text=ファイルが見つかりませんでした');
  await page.click('.tree-row:has-text("old.ts")');
  await page.press('.tree-row:has-text("old.ts")', 'F2');
  await page.fill('.rename-input', 'renamed.ts');
  await page.press('.rename-input', 'Enter');
  await native.waitFor((m) => m.type === 'project/file/rename', 'rename');
  await page.waitForSelector('.git-group >> text=未追跡 (4)');
});

test('recorded: diff, commit, push without a remote, a terminal that exits, closing the project', async (ctx) => {
  const { page, native } = await openRecorded(ctx);
  await page.click('.git-file:has-text("README.md")');
  await page.waitForSelector('.diff-line.add >> text=+changed line');
  await page.fill('.commit-message', 'Add staged file');
  await page.click('.commit-button');
  await page.waitForSelector('.toast.success >> text=コミットしました');
  await page.waitForSelector('.git-groups >> text=変更はありません');
  await page.waitForSelector('.commit-button:not([disabled])');
  await page.click('button[data-action="push"]');
  await page.waitForSelector('.toast.error >> text=リモートリポジトリがないプロジェクトです');
  await page.waitForSelector('.git-notice:not([hidden])');
  await page.click('.column-terminal .column-header button[aria-label="新しいターミナル"]');
  await page.waitForSelector('.session-tab.active >> text=CLI #2');
  await page.waitForSelector('.session-tab.active .status-badge >> text=実行中');
  await page.keyboard.type('exit 3');
  await page.keyboard.press('Enter');
  await page.waitForSelector('.session-tab.active .status-badge >> text=終了コード 3');
  await page.click('.session-tab.active .tab-close');
  await native.waitFor((m) => m.type === 'terminal/close', 'terminal/close');
  await page.waitForFunction(() => document.querySelectorAll('.session-tab').length === 1);
  await page.click('.project-tab.active .tab-close');
  await page.waitForSelector('.resume-list >> text=demo');
  await page.click('.resume-button');
  await page.waitForSelector('.project-tab.active >> text=demo');
  await page.waitForSelector('.tree-row >> text=README.md');
  // The program brings projects back without their shells: the page asks for one (how many is a unit test).
  await page.waitForSelector('.session-tab.active .status-badge >> text=実行中');
});

test('recorded: history pages to its end, a commit file shows its diff, an empty graph, and the whole branch map', async (ctx) => {
  const { page, native, projectId } = await openRecorded(ctx, 'history.json', 'widgets');
  const recorded = native.recording.steps.filter((s) => s.message.type === 'git/history').flatMap((s) => s.events.filter((e) => e.type === 'git/history'));
  const expected = recorded.flatMap((e) => e.payload.edges.map((c) => c.oid));
  await page.click('.git-tab[data-tab="history"]');
  await page.waitForSelector('.history-row.commit >> text=Settle part one');
  const end = await page.waitForFunction(() => {
    const list = document.querySelector('.history-list');
    list.scrollTop = list.scrollHeight;
    const tail = document.querySelector('.history-row.tail')?.textContent;
    return tail?.endsWith('件のコミット') && tail;
  }, undefined, { polling: 30, timeout: 20000 });
  assert.equal(await end.jsonValue(), `${expected.length} 件のコミット`);
  const oids = await page.evaluate((id) => window.__velkoTest.app.history.get().projects[id].commits.map((c) => c.oid), projectId);
  assert.deepEqual(oids, expected);
  assert.equal(new Set(oids).size, oids.length);
  await page.$eval('.history-list', (l) => (l.scrollTop = 0));
  await page.click('.history-row.commit:has-text("Settle part one")');
  await page.click('.history-row.file:has-text("src/part1.ts")');
  await page.waitForSelector('.history-diff .diff-line.add >> text=+export const part = 100;');
  await page.click('.git-tab[data-tab="graph"]');
  await page.waitForSelector('.git-graph .empty-note');
  assert.equal(await page.locator('.graph-row').count(), 0);
  await page.click('.git-tab[data-tab="branches"]');
  await page.waitForSelector('.branch-more >> text=8 件を省略');
  assert.equal(await page.locator('.branch-node').count(), 50);
  assert.ok(await page.$('.branch-node.current[data-branch="main"]'));
  await page.click('.branch-more button');
  await native.waitFor((m) => m.type === 'git/branch-map' && m.payload.limit === 58, 'the whole branch map');
  await page.waitForFunction(() => document.querySelectorAll('.branch-node').length === 58);
});

async function main() {
  const filter = process.argv[2];
  for (const dir of [shippedBuild, testBuild]) {
    if (isStale(dir)) {
      console.error(`no up-to-date build at ${dir}: run npm test, which builds both`);
      process.exit(1);
    }
  }
  const { server, url } = await serve(testBuild);
  const shipped = await serve(shippedBuild);
  const browser = await launch();
  const ctx = { context: browser.context, url, shippedUrl: shipped.url };
  let passed = 0;
  const failed = [];
  for (const t of tests) {
    if (filter && !t.name.includes(filter)) continue;
    const started = Date.now();
    Object.assign(ctx, { pages: [], errors: [] });
    try {
      await t.fn(ctx);
      assert.deepEqual(ctx.errors, []);
      passed += 1;
      console.log(`  ✓ ${t.name} (${Date.now() - started} ms)`);
    } catch (error) {
      failed.push(t.name);
      console.log(`  ✗ ${t.name}\n    ${String(error?.stack ?? error).split('\n').slice(0, 6).join('\n    ')}`);
    }
    for (const p of ctx.pages) await p.close().catch(() => undefined);
  }
  await browser.close();
  server.close();
  shipped.server.close();
  console.log(`browser tests: ${passed} passed, ${failed.length} failed`);
  process.exit(failed.length > 0 ? 1 : 0);
}

await main();
