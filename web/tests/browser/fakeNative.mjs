// A small stand-in for the native program: it keeps a workspace, files and a
// git status in memory and answers the page's messages with the events the
// native side would send, through the native event script.

import { randomUUID } from 'node:crypto';
import { NativeStandIn } from './postedMessages.mjs';

const id = () => randomUUID().toUpperCase();

export class FakeNative extends NativeStandIn {
  projects = [];
  activeProjectId = undefined;
  columnLayout = ['explorer', 'preview', 'editor', 'terminal'];
  sessions = [];
  /** Files per project id: relative path → text. */
  files = new Map();
  largeFiles = new Set();
  git = new Map();
  graphs = new Map();
  /** Per project id: a failure text sent as "git/result" instead of a graph. */
  graphFailures = new Map();
  /** Per project id: the branch map as sent. */
  branchMaps = new Map();
  /** What "github/oauth/status" says after each configuration. */
  oauth = { status: 'disconnected' };
  /** "dashboard.metrics" as the program writes it, and whether the dashboard is up. */
  dashboardSnapshot = undefined;
  dashboardOpen = false;

  addProject(name, files = {}) {
    const project = { id: id(), name, rootPath: `~/src/${name}`, explorerExcludedPaths: [] };
    this.projects.push(project);
    this.files.set(project.id, new Map(Object.entries(files)));
    this.git.set(project.id, { branch: 'main', ahead: 0, behind: 0, staged: [], unstaged: [], untracked: [] });
    this.activeProjectId = project.id;
    const session = { id: id(), title: 'CLI #1', workingDirectory: `/home/u/src/${name}`, projectId: project.id };
    this.sessions.push(session);
    return project;
  }

  config() {
    const payload = {
      projects: this.projects,
      columnLayout: this.columnLayout,
      cliSessions: this.sessions.map((s) => ({ ...s, status: 'pending' })),
      features: ['terminal.v2'],
      hasSavedWorkspace: false,
    };
    if (this.activeProjectId) payload.activeProjectId = this.activeProjectId;
    return payload;
  }

  async sendConfig() {
    await this.send('app/config', this.config());
    await this.send('github/oauth/status', this.oauth);
  }

  listing(projectId, dir) {
    const files = this.files.get(projectId);
    const children = new Map();
    for (const p of files.keys()) {
      if (dir !== '' && !p.startsWith(`${dir}/`)) continue;
      const rest = dir === '' ? p : p.slice(dir.length + 1);
      const [head, ...tail] = rest.split('/');
      const childPath = dir === '' ? head : `${dir}/${head}`;
      children.set(childPath, { name: head, path: childPath, type: tail.length > 0 ? 'folder' : 'file' });
    }
    const nodes = [...children.values()].sort((a, b) => (a.type === b.type ? a.name.localeCompare(b.name) : a.type === 'folder' ? -1 : 1));
    return { path: dir, nodes };
  }

  async sendStatus(projectId) {
    const g = this.git.get(projectId);
    if (!g) return;
    await this.send('git/status', { projectId, ...g, pending: g.staged.length + g.unstaged.length + g.untracked.length });
  }

  async respond({ type, payload = {} }) {
    switch (type) {
      case 'app/config/request':
        return this.sendConfig();
      case 'project/activate':
        if (!this.projects.some((p) => p.id === payload.id)) return;
        this.activeProjectId = payload.id;
        await this.sendConfig();
        return this.sendStatus(payload.id);
      case 'project/close':
        this.projects = this.projects.filter((p) => p.id !== payload.projectId);
        this.sessions = this.sessions.filter((s) => s.projectId !== payload.projectId);
        if (this.activeProjectId === payload.projectId) this.activeProjectId = this.projects[0]?.id;
        return this.sendConfig();
      case 'project/reorder': {
        const order = payload.order;
        this.projects = [...order.map((i) => this.projects.find((p) => p.id === i)).filter(Boolean), ...this.projects.filter((p) => !order.includes(p.id))];
        return this.sendConfig();
      }
      case 'terminal/create': {
        const session = { id: id(), title: `CLI #${this.sessions.filter((s) => s.projectId === payload.projectId).length + 1}`, workingDirectory: '/tmp', projectId: payload.projectId };
        this.sessions.push(session);
        await this.sendConfig();
        await this.send('terminal/created', { sessionId: session.id, pid: 4242, cols: 120, rows: 40, title: session.title, workingDirectory: '/tmp', shell: '/bin/zsh' });
        await this.send('terminal/status', { sessionId: session.id, status: 'booting' });
        return this.send('terminal/status', { sessionId: session.id, status: 'ready' });
      }
      case 'terminal/close':
        this.sessions = this.sessions.filter((s) => s.id !== payload.sessionId);
        return this.sendConfig();
      case 'project/explorer/directories/request':
        return this.send('project/explorer/directories', {
          projectId: payload.projectId,
          requestId: payload.requestId,
          directories: payload.paths.map((p) => this.listing(payload.projectId, p)),
        });
      case 'project/file/open': {
        const files = this.files.get(payload.projectId);
        const text = files?.get(payload.path);
        if (text === undefined) return this.send('project/file/error', { projectId: payload.projectId, path: payload.path, message: 'ファイルが見つかりませんでした' });
        if (this.largeFiles.has(payload.path) && payload.allowLargeFile !== true) {
          return this.send('project/file/confirm', { projectId: payload.projectId, path: payload.path, sizeBytes: 41943040, softLimitBytes: 31457280, hardLimitBytes: 314572800 });
        }
        return this.send('project/file/content', { projectId: payload.projectId, path: payload.path, content: text });
      }
      case 'project/file/save':
        this.files.get(payload.projectId)?.set(payload.path, payload.content);
        return this.send('project/file/saved', { projectId: payload.projectId, path: payload.path });
      case 'git/status':
        return this.sendStatus(payload.projectId ?? this.activeProjectId);
      case 'git/commit': {
        if (this.holdGit) await this.holdGit;
        const g = this.git.get(payload.projectId);
        Object.assign(g, { staged: [], unstaged: [], untracked: [], ahead: g.ahead + 1 });
        await this.send('git/result', { success: true, message: 'コミットしました' });
        return this.sendStatus(payload.projectId);
      }
      case 'git/graph': {
        const failure = this.graphFailures.get(payload.projectId);
        if (failure) return this.send('git/result', { success: false, message: failure });
        return this.send('git/graph', { projectId: payload.projectId, nodes: [], edges: [], ...this.graphs.get(payload.projectId) });
      }
      case 'git/branch-map': {
        const map = this.branchMaps.get(payload.projectId);
        if (!map) return this.send('git/branch-map/error', { projectId: payload.projectId, message: 'プロジェクトを確認できません' });
        return this.send('git/branch-map', { ...map, projectId: payload.projectId });
      }
      case 'dashboard.present':
        if (!this.dashboardOpen) {
          this.dashboardOpen = true;
          await this.send('dashboard.toggled', { open: true });
        } else if (payload.forceRefresh !== true) return undefined;
        return this.dashboardSnapshot ? this.send('dashboard.metrics', this.dashboardSnapshot) : this.send('dashboard.metrics.error', { message: 'Failed to fetch dashboard metrics' });
      case 'dashboard.dismiss':
        if (!this.dashboardOpen) return undefined;
        this.dashboardOpen = false;
        return this.send('dashboard.toggled', { open: false });
      case 'github/oauth/logout':
        this.oauth = { status: 'disconnected' };
        return this.send('github/oauth/status', { status: 'disconnected', reason: 'userLogout' });
      case 'git/refresh/barrier':
        if (this.holdGit) await this.holdGit;
        return this.send('git/refresh/barrier', { projectId: payload.projectId, requestId: payload.requestId });
      default:
        return undefined;
    }
  }
}
