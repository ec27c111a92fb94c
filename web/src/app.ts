// The page's controller: turns bridge events into state through the pure
// functions of src/state, and user intents into bridge messages. Views only
// read the stores and call the intents below.

import { Bridge } from './bridge';
import { num, str, uuid, type JsonObject } from './json';
import { Store } from './store';
import { newRequestId } from './ui/dom';
import * as ws from './state/workspace';
import * as term from './state/terminals';
import * as ex from './state/explorer';
import * as ed from './state/editor';
import * as git from './state/git';
import * as hist from './state/history';
import * as graph from './state/graph';
import * as bmap from './state/branchMap';
import * as acct from './state/account';
import * as dash from './state/dashboard';
import * as tabs from './state/previewTabs';
import { L } from './labels';
import { decodeBase64 } from './terminal/base64';
import { OutputQueue, type Scheduler } from './terminal/outputQueue';

const GIT_REFRESH_DELAY_MS = 700;
/** Tab changes come in bursts (open, activate, reorder); the native side gets the settled list. */
const TABS_PERSIST_DELAY_MS = 400;

export interface Toast {
  id: number;
  kind: 'success' | 'error' | 'info';
  message: string;
}

const TERMINAL_EVENTS = ['terminal/snapshot', 'terminal/created', 'terminal/status', 'terminal/exit', 'terminal/error', 'terminal/resize'];
const DASHBOARD_EVENTS = ['dashboard.toggled', 'dashboard.metrics', 'dashboard.metrics.error', 'system/metrics'];
const FILE_EVENTS = ['project/file/content', 'project/file/confirm', 'project/file/saved', 'project/file/error'];

export class App {
  readonly workspace = new Store<ws.WorkspaceState>(ws.initialWorkspace);
  readonly terminals = new Store<term.TerminalsState>(term.initialTerminals);
  readonly explorer = new Store<ex.ExplorerState>(ex.initialExplorer);
  readonly editor = new Store<ed.EditorState>(ed.initialEditor);
  readonly git = new Store<git.GitState>(git.initialGit);
  readonly history = new Store<hist.HistoryState>(hist.initialHistory);
  readonly graph = new Store<graph.GraphState>(graph.initialGraph);
  readonly branchMap = new Store<bmap.BranchMapState>(bmap.initialBranchMap);
  readonly account = new Store<acct.AccountState>(acct.initialAccount);
  readonly dashboard = new Store<dash.DashboardState>(dash.initialDashboard);
  readonly toasts = new Store<Toast[]>([]);
  /** Sessions that printed something while not on screen. */
  readonly unseen = new Store<ReadonlySet<string>>(new Set());
  private shownSessionId: string | undefined;
  private shownProjectId: string | undefined;
  /** The project whose history is on screen; a successful action walks it again. */
  private historyShownId: string | undefined;
  private readonly gitRefreshTimers = new Map<string, ReturnType<typeof setTimeout>>();
  /** The size last asked for per session until the native side confirms one; every resize makes the shell redraw its prompt. */
  private readonly pendingResize = new Map<string, string>();
  /** Sessions whose shell size the output stream has carried. */
  private readonly sizedSessions = new Set<string>();
  /** A resume was asked for; its snapshot brings projects back without their shells. */
  private resumeRequested = false;
  readonly output: OutputQueue;
  private toastCounter = 0;
  /** Projects whose stored tabs came back since the page loaded; later hydrations would undo the user's changes. */
  private readonly hydrated = new Set<string>();
  /** Per project: the tab list the native side holds, as JSON; a project is sent only when its list differs. */
  private readonly storedTabs = new Map<string, string>();
  private persistTimer: ReturnType<typeof setTimeout> | undefined;

  constructor(
    readonly bridge: Bridge,
    schedule: Scheduler,
  ) {
    this.output = new OutputQueue(schedule);
    this.subscribe();
    this.editor.subscribe(() => {
      this.readShownTab();
      this.schedulePersist();
    });
  }

  get activeProjectId(): string | undefined {
    return this.workspace.get().activeProjectId;
  }

  private subscribe(): void {
    const b = this.bridge;
    b.on('app/config', (p) => this.onConfig(p));
    b.on('project/activate', (p) => {
      this.workspace.update((s) => ws.applyActivation(s, p));
      this.onActiveProjectShown();
    });
    b.on('project/resume/error', (p) => {
      this.resumeRequested = false;
      const message = str(p, 'message');
      if (message) this.toast('error', message);
    });
    for (const type of TERMINAL_EVENTS) b.on(type, (p) => this.terminals.update((s) => term.applyTerminalEvent(s, type, p)));
    // The shell's size, in the order of its output: the view parses what the shell wrote at the size it wrote it for.
    for (const type of ['terminal/created', 'terminal/resize']) {
      b.on(type, (p) => {
        const id = uuid(p, 'sessionId');
        const cols = num(p, 'cols');
        const rows = num(p, 'rows');
        if (!id) return;
        this.pendingResize.delete(id);
        if (cols === undefined || rows === undefined || cols <= 0 || rows <= 0) return;
        this.sizedSessions.add(id);
        this.output.resize(id, cols, rows);
      });
    }
    b.on('terminal/snapshot', () => {
      // A page loaded while shells run learns their sizes here.
      for (const s of this.terminals.get().sessions) {
        if ((s.status === 'booting' || s.status === 'ready') && s.cols && s.rows && !this.sizedSessions.has(s.id)) {
          this.sizedSessions.add(s.id);
          this.output.resize(s.id, s.cols, s.rows);
        }
      }
    });
    b.on('terminal/output', (p) => this.onOutput(p));
    b.on('terminal/activity', (p) => {
      const id = uuid(p, 'sessionId');
      // Checked before any copy: this event comes with every output chunk.
      if (!id || id === this.shownSessionId || this.unseen.get().has(id)) return;
      this.unseen.set(new Set([...this.unseen.get(), id]));
    });
    b.on('project/explorer/directories', (p) => this.explorer.update((s) => ex.applyDirectories(s, p)));
    b.on('project/explorer/changed', (p) => {
      const t = ex.applyChanged(this.explorer.get(), p);
      this.explorer.set(t.state);
      if (t.projectId && t.request.length > 0) this.requestDirectories(t.projectId, t.request);
      // Files changed on disk: the git panel would show an old picture otherwise.
      const projectId = uuid(p, 'projectId');
      if (projectId) this.refreshGitSoon(projectId);
    });
    for (const type of FILE_EVENTS) b.on(type, (p) => this.onFileEvent(type, p));
    b.on('project/file/renamed', (p) => this.editor.update((s) => ed.applyRenamed(s, p)));
    b.on('git/status', (p) => this.git.update((s) => git.applyStatus(s, p)));
    b.on('git/diff', (p) => this.git.update((s) => git.applyDiff(s, p)));
    b.on('git/result', (p) => this.onGitResult(p));
    b.on('git/refresh/barrier', (p) => {
      this.git.update((s) => git.applyBarrier(s, p));
      this.graph.update((s) => graph.applyGraphBarrier(s, p, L.graphFailed));
      this.branchMap.update((s) => bmap.applyBranchMapBarrier(s, p, L.branchMapFailed));
    });
    b.on('git/history', (p) => {
      const r = hist.applyHistory(this.history.get(), p);
      this.history.set(r.state);
      if (r.projectId && r.follow === 'more') this.moreHistory(r.projectId);
      else if (r.projectId && r.follow === 'fresh') this.walkHistory(r.projectId);
    });
    b.on('git/history/error', (p) => this.history.update((s) => hist.applyHistoryError(s, p)));
    b.on('git/commit/diff', (p) => this.history.update((s) => hist.applyCommitDiff(s, p)));
    b.on('git/graph', (p) => this.graph.update((s) => graph.applyGraph(s, p)));
    b.on('git/branch-map', (p) => this.branchMap.update((s) => bmap.applyBranchMap(s, p)));
    b.on('git/branch-map/error', (p) => this.branchMap.update((s) => bmap.applyBranchMapError(s, p)));
    b.on('previewTab:hydrate', (p) => this.onHydrate(p));
    b.on('previewTab:warning', (p) => this.editor.update((s) => tabs.applyMissing(s, p)));
    for (const type of DASHBOARD_EVENTS) b.on(type, (p) => this.dashboard.update((s) => dash.applyEvent(s, type, p)));
    b.on('github/oauth/status', (p) => this.onAccountStep(acct.applyStatus(this.account.get(), p)));
    b.on('github/oauth/error', (p) => this.onAccountStep(acct.applyError(this.account.get(), p)));
  }

  private onAccountStep(step: acct.AccountStep): void {
    this.account.set(step.state);
    if (step.notice) this.toast(step.notice.kind, step.notice.message);
  }

  private onGitResult(payload: JsonObject): void {
    const message = str(payload, 'message');
    // The history's failure comes again as "git/history/error", which the history view shows.
    if (message?.startsWith(hist.HISTORY_FAILURE_PREFIX)) return;
    if (message?.startsWith(graph.GRAPH_FAILURE_PREFIX)) {
      const c = graph.claimFailure(this.graph.get(), message);
      this.graph.set(c.state);
      // No graph request of ours is outstanding (the page was reloaded meanwhile): the toast is all there is to show.
      if (!c.claimed) this.toast('error', message);
      return;
    }
    const r = git.applyResult(this.git.get(), payload, this.activeProjectId);
    this.git.set(r.state);
    if (r.toast) this.toast(r.toast.success ? 'success' : 'error', r.toast.message);
    if (r.toast?.success && r.owner !== undefined && r.owner === this.historyShownId) this.walkHistory(r.owner);
  }

  private onConfig(payload: unknown): void {
    const before = this.workspace.get();
    const next = ws.applyConfig(before, payload);
    if (next === before) return;
    // The tabs of a project going away or out of sight are stored first, while they are still here.
    this.flushPersist();
    for (const p of before.projects) {
      if (next.projects.some((q) => q.id === p.id)) continue;
      this.hydrated.delete(p.id);
      this.storedTabs.delete(p.id);
    }
    this.workspace.set(next);
    this.terminals.update((s) => term.applyConfiguredSessions(s, next.cliSessions));
    const sessionIds = new Set(next.cliSessions.map((c) => c.id));
    if ([...this.unseen.get()].some((id) => !sessionIds.has(id))) this.unseen.set(new Set([...this.unseen.get()].filter((id) => sessionIds.has(id))));
    const open = next.projects.map((p) => p.id);
    this.editor.update((s) => ed.keepProjects(s, open));
    this.git.update((s) => git.forgetProjects(s, open));
    this.history.update((s) => hist.forgetProjects(s, open));
    this.graph.update((s) => graph.forgetProjects(s, open));
    this.branchMap.update((s) => bmap.forgetProjects(s, open));
    this.explorer.update((s) => {
      let out = s;
      for (const id of Object.keys(s.trees)) if (!open.includes(id)) out = ex.forgetProject(out, id);
      return out;
    });
    this.onActiveProjectShown();
    if (this.resumeRequested && next.projects.length > 0) {
      this.resumeRequested = false;
      // A workspace brought back should be ready to type into, as a freshly opened project is.
      const id = next.activeProjectId;
      if (id && !next.cliSessions.some((c) => c.projectId === id)) this.createTerminal();
    }
  }

  /**
   * A project came on screen: its tree root and git status must be there.
   * Only the active project's folder is watched, so a tree kept from an
   * earlier visit may be stale and is reloaded where it is shown.
   */
  private onActiveProjectShown(): void {
    const id = this.activeProjectId;
    const changed = id !== this.shownProjectId;
    this.shownProjectId = id;
    if (!id) return;
    const tree = this.explorer.get().trees[id];
    if (changed && tree?.dirs[''] !== undefined) this.reloadExplorer(id);
    else {
      const t = ex.ensureRoot(this.explorer.get(), id);
      this.explorer.set(t.state);
      if (t.request.length > 0) this.requestDirectories(id, t.request);
    }
    if (!this.git.get().projects[id]?.status) this.bridge.post('git/status', { projectId: id });
    this.readShownTab();
  }

  private onOutput(payload: Record<string, unknown>): void {
    const id = uuid(payload, 'sessionId');
    const chunk = str(payload, 'chunk');
    if (!id || chunk === undefined) return;
    const encoding = str(payload, 'encoding');
    const bytes = encoding === 'base64' ? decodeBase64(chunk) : new TextEncoder().encode(chunk);
    if (bytes) this.output.push(id, bytes);
  }

  private onFileEvent(type: string, payload: Record<string, unknown>): void {
    if (type === 'project/file/saved') {
      const projectId = uuid(payload, 'projectId');
      if (projectId) this.refreshGitSoon(projectId);
    }
    const before = this.editor.get();
    const after = ed.applyFileEvent(before, type, payload);
    this.editor.set(after);
    if (type === 'project/file/error') {
      const message = str(payload, 'message');
      const projectId = uuid(payload, 'projectId');
      const path = str(payload, 'path');
      const doc = projectId && path !== undefined ? before.docs.find((d) => d.key === ed.docKey(projectId, path)) : undefined;
      // A failed load shows in the editor itself; everything else (save, rename) needs a toast.
      if (message && doc?.kind !== 'loading') this.toast('error', message);
    }
  }

  toast(kind: Toast['kind'], message: string): void {
    if (kind === 'error') this.bridge.log('warning', `shown to the user: ${message}`);
    this.toastCounter += 1;
    const toast = { id: this.toastCounter, kind, message };
    this.toasts.update((list) => [...list.slice(-4), toast]);
  }

  dismissToast(id: number): void {
    this.toasts.update((list) => list.filter((t) => t.id !== id));
  }

  // Projects

  openProject(): void {
    this.bridge.post('project/open');
  }

  closeProject(projectId: string): void {
    this.flushPersist();
    this.bridge.post('project/close', { projectId });
  }

  activateProject(id: string): void {
    if (id === this.activeProjectId) return;
    this.flushPersist();
    this.bridge.post('project/activate', { id });
  }

  reorderProjects(order: string[]): void {
    this.bridge.post('project/reorder', { order });
  }

  resumeWorkspace(): void {
    this.resumeRequested = true;
    this.bridge.post('project/resume');
  }

  // GitHub account

  signIn(): void {
    this.account.update(acct.signInStarted);
    this.bridge.post('github/oauth/start');
  }

  /** Stops waiting for the browser; the native side has no way to be told, and a new start replaces its flow. */
  cancelSignIn(): void {
    this.account.update(acct.signInCancelled);
  }

  signOut(): void {
    this.bridge.post('github/oauth/logout');
  }

  // Dashboard

  presentDashboard(source: string): void {
    this.bridge.post('dashboard.present', { source });
  }

  refreshDashboard(): void {
    this.dashboard.update(dash.refreshRequested);
    this.bridge.post('dashboard.present', { forceRefresh: true, source: 'refresh' });
  }

  dismissDashboard(): void {
    this.bridge.post('dashboard.dismiss');
  }

  /**
   * A card was chosen: its project comes forward and the dashboard closes.
   * The activation goes first, and even for the active project, because the
   * native side counts a card as opened only while the dashboard is up.
   */
  openProjectFromDashboard(id: string): void {
    this.flushPersist();
    this.bridge.post('project/activate', { id });
    this.dismissDashboard();
  }

  // Terminals

  createTerminal(): void {
    const projectId = this.activeProjectId;
    this.bridge.post('terminal/create', projectId ? { projectId } : {});
  }

  closeTerminal(sessionId: string): void {
    this.bridge.post('terminal/close', { sessionId });
  }

  /** The terminal view reports which session is on screen; its activity is seen. */
  sessionShown(sessionId: string | undefined): void {
    this.shownSessionId = sessionId;
    if (sessionId && this.unseen.get().has(sessionId)) {
      const next = new Set(this.unseen.get());
      next.delete(sessionId);
      this.unseen.set(next);
    }
  }

  sendInput(sessionId: string, data: string, encoding?: 'base64'): void {
    this.bridge.post('terminal/input', encoding ? { sessionId, data, encoding } : { sessionId, data });
  }

  interrupt(sessionId: string): void {
    this.bridge.post('terminal/signal', { sessionId, signal: 'SIGINT' });
  }

  resizeTerminal(sessionId: string, cols: number, rows: number): void {
    if (cols < 1 || rows < 1) return;
    const size = `${cols}x${rows}`;
    if (this.pendingResize.get(sessionId) === size) return;
    this.pendingResize.set(sessionId, size);
    this.bridge.post('terminal/resize', { sessionId, cols, rows });
  }

  focusTerminal(sessionId: string, focused: boolean): void {
    this.bridge.post('terminal/focus', { sessionId, focused });
  }

  codexMarker(sessionId: string, data: string): boolean {
    const marker = term.parseCodexMarker(data);
    if (!marker) return false;
    this.terminals.update((s) => term.applyCodexMarker(s, sessionId, marker));
    return true;
  }

  // Explorer

  requestDirectories(projectId: string, paths: string[]): void {
    const requestId = newRequestId();
    this.explorer.update((s) => ex.markRequested(s, projectId, paths, requestId));
    this.bridge.post('project/explorer/directories/request', { projectId, paths, requestId });
  }

  toggleFolder(projectId: string, path: string): void {
    const t = ex.toggleFolder(this.explorer.get(), projectId, path);
    this.explorer.set(t.state);
    if (t.request.length > 0) this.requestDirectories(projectId, t.request);
  }

  reloadExplorer(projectId: string): void {
    const tree = ex.treeFor(this.explorer.get(), projectId);
    const paths = ['', ...tree.expanded.filter((p) => ex.isVisible(tree, p))];
    this.requestDirectories(projectId, paths);
  }

  renameItem(projectId: string, path: string, newName: string, entityType: 'file' | 'folder'): void {
    const name = newName.trim();
    if (name === '' || name === ex.baseName(path)) return;
    this.bridge.post('project/file/rename', { projectId, path, nextPath: ex.renamedPath(path, name), entityType });
  }

  // Editor

  openFile(projectId: string, path: string): void {
    const before = this.editor.get();
    const existing = before.docs.find((d) => d.key === ed.docKey(projectId, path));
    if (!existing && ed.projectDocs(before, projectId).length >= ed.PREVIEW_TAB_LIMIT) {
      this.toast('error', L.tabLimit(ed.PREVIEW_TAB_LIMIT));
      this.bridge.post('previewTabs/limitReached', { projectId });
      return;
    }
    this.editor.update((s) => ed.openRequested(s, projectId, path));
    if (!existing || existing.kind === 'error') this.bridge.post('project/file/open', { projectId, path });
  }

  /** A restored tab is read when it comes on screen, so a project with many tabs costs one read to show. */
  private readShownTab(): void {
    const doc = ed.activeDoc(this.editor.get(), this.activeProjectId);
    if (doc?.kind !== 'unloaded') return;
    this.editor.update((s) => ed.loadRequested(s, doc.key));
    this.bridge.post('project/file/open', { projectId: doc.projectId, path: doc.path });
  }

  private onHydrate(payload: JsonObject): void {
    const id = uuid(payload, 'projectId');
    // The native side sends this on every activation; only the first since the page loaded restores anything.
    if (!id || this.hydrated.has(id) || !this.workspace.get().projects.some((p) => p.id === id)) return;
    this.hydrated.add(id);
    const hadTabs = ed.projectDocs(this.editor.get(), id).length > 0;
    const next = tabs.applyHydrate(this.editor.get(), id, payload.snapshot);
    // What just came back is what the native side holds; only a merge with tabs opened meanwhile needs storing.
    if (!hadTabs) this.storedTabs.set(id, JSON.stringify(tabs.snapshotOf(next, id)));
    this.editor.set(next);
  }

  private schedulePersist(): void {
    if (this.persistTimer !== undefined) return;
    this.persistTimer = setTimeout(() => this.flushPersist(), TABS_PERSIST_DELAY_MS);
  }

  /** Sends the tab list of every open project whose list changed since it was last stored. */
  flushPersist(): void {
    if (this.persistTimer !== undefined) clearTimeout(this.persistTimer);
    this.persistTimer = undefined;
    const state = this.editor.get();
    for (const { id } of this.workspace.get().projects) {
      const snapshot = tabs.snapshotOf(state, id);
      const text = JSON.stringify(snapshot);
      // A project never restored and without tabs has nothing to say; an empty list would wipe what is stored.
      if (text === (this.storedTabs.get(id) ?? JSON.stringify(tabs.snapshotOf(ed.initialEditor, id)))) continue;
      this.storedTabs.set(id, text);
      this.bridge.post('previewTabs/persist', { projectId: id, snapshot: snapshot as unknown as JsonObject });
    }
  }

  activateTab(key: string): void {
    this.editor.update((s) => ed.activate(s, key));
  }

  reorderTab(dragged: string, target: string, after: boolean): void {
    this.editor.update((s) => ed.reorderTab(s, dragged, target, after));
  }

  setViewMode(key: string, mode: 'markdown' | 'source'): void {
    this.editor.update((s) => ed.setViewMode(s, key, mode));
  }

  confirmLargeFile(accept: boolean): void {
    const c = this.editor.get().confirm;
    if (!c) return;
    if (accept) {
      this.editor.update(ed.acceptConfirm);
      this.bridge.post('project/file/open', { projectId: c.projectId, path: c.path, allowLargeFile: true });
    } else {
      this.editor.update(ed.dismissConfirm);
    }
  }

  saveFile(key: string, content: string): void {
    const doc = this.editor.get().docs.find((d) => d.key === key);
    if (!doc || doc.kind !== 'text') return;
    this.editor.update((s) => ed.saveRequested(s, key));
    this.bridge.post('project/file/save', { projectId: doc.projectId, path: doc.path, content });
  }

  // Git

  refreshGit(projectId: string): void {
    this.bridge.post('git/status', { projectId });
  }

  /** Coalesces refreshes that bursts of file changes would otherwise each ask for. */
  refreshGitSoon(projectId: string): void {
    if (this.gitRefreshTimers.has(projectId)) return;
    this.gitRefreshTimers.set(
      projectId,
      setTimeout(() => {
        this.gitRefreshTimers.delete(projectId);
        if (this.workspace.get().projects.some((p) => p.id === projectId)) this.refreshGit(projectId);
      }, GIT_REFRESH_DELAY_MS),
    );
  }

  showDiff(projectId: string, path: string, stage: git.DiffStage): void {
    this.git.update((s) => git.selectDiff(s, projectId, path, stage));
    this.bridge.post('git/diff', { projectId, targets: [{ path, stage }] });
  }

  runGitAction(projectId: string, action: git.GitAction): void {
    if (git.isRunning(this.git.get(), projectId)) return;
    const payload: Record<string, unknown> = { projectId };
    if (action === 'commit') {
      const message = git.projectGit(this.git.get(), projectId).draft;
      if (message.trim() === '') {
        this.toast('error', 'コミットメッセージを入力してください');
        return;
      }
      payload.message = message;
    }
    const requestId = newRequestId();
    this.git.update((s) => git.actionStarted(s, projectId, action, requestId));
    this.bridge.post(`git/${action}`, payload);
    this.bridge.post('git/refresh/barrier', { projectId, requestId });
  }

  // History, graph and branch map

  /** The history view shows `projectId` (undefined: it is hidden); opening it walks the history afresh. */
  showHistory(projectId: string | undefined): void {
    this.historyShownId = projectId;
    if (projectId) this.walkHistory(projectId);
  }

  walkHistory(projectId: string): void {
    this.postHistory(hist.startWalk(this.history.get(), projectId, newRequestId()));
  }

  moreHistory(projectId: string): void {
    this.postHistory(hist.nextPage(this.history.get(), projectId, newRequestId()));
  }

  retryHistory(projectId: string): void {
    this.postHistory(hist.retry(this.history.get(), projectId, newRequestId()));
  }

  private postHistory(step: hist.HistoryStep): void {
    this.history.set(step.state);
    if (step.request) this.bridge.post('git/history', step.request);
  }

  toggleCommit(projectId: string, oid: string): void {
    this.history.update((s) => hist.toggleCommit(s, projectId, oid));
  }

  showCommitDiff(projectId: string, oid: string, path: string): void {
    const asked = hist.renamedPath(path);
    this.history.update((s) => hist.selectCommitDiff(s, projectId, oid, asked));
    this.bridge.post('git/commit/diff', { projectId, commit: oid, path: asked });
  }

  closeCommitDiff(projectId: string): void {
    this.history.update((s) => hist.clearCommitDiff(s, projectId));
  }

  /** Asks for the graph; the barrier behind it tells when a request ended without one. */
  loadGraph(projectId: string): void {
    const requestId = newRequestId();
    const r = graph.requestGraph(this.graph.get(), projectId, requestId);
    this.graph.set(r.state);
    if (!r.send) return;
    this.bridge.post('git/graph', { projectId });
    this.bridge.post('git/refresh/barrier', { projectId, requestId });
  }

  /** Asks for the branch map; `limit` absent keeps the last one asked for. */
  loadBranchMap(projectId: string, limit?: number): void {
    const requestId = newRequestId();
    const r = bmap.requestBranchMap(this.branchMap.get(), projectId, requestId, limit);
    this.branchMap.set(r.state);
    if (!r.request) return;
    this.bridge.post('git/branch-map', r.request);
    this.bridge.post('git/refresh/barrier', { projectId, requestId });
  }
}
