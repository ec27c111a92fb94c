// The git panel's view of each project. "git/result" carries no project or
// operation, so an action is followed by a refresh barrier: the native git
// queue is serial, so the barrier's answer means the action has finished and
// every result it produced has arrived.

import { bool, isObject, num, objects, str, uuid, type JsonObject } from '../json';

export const MISSING_REMOTE_MESSAGE = 'リモートリポジトリがないプロジェクトです';

export interface GitFile {
  path: string;
  status: string;
}

export interface GitStatus {
  branch: string;
  ahead: number;
  behind: number;
  staged: GitFile[];
  unstaged: GitFile[];
  untracked: GitFile[];
  pending: number;
}

export type DiffStage = 'staged' | 'unstaged' | 'head';

export interface DiffFile {
  path: string;
  stage: string;
  additions: number;
  deletions: number;
  isBinary: boolean;
  patch: string;
}

export interface DiffSelection {
  path: string;
  stage: DiffStage;
  loading: boolean;
  files: DiffFile[];
}

export type GitAction = 'commit' | 'push' | 'pull' | 'fetch';

export interface RunningAction {
  action: GitAction;
  requestId: string;
  /** The last "git/result" that arrived while the action ran. */
  result?: { success: boolean; message: string };
}

export interface GitProjectState {
  status?: GitStatus;
  diff?: DiffSelection;
  running?: RunningAction;
  missingRemote: boolean;
  draft: string;
}

export interface GitState {
  projects: Record<string, GitProjectState>;
}

export const initialGit: GitState = { projects: {} };

export function projectGit(state: GitState, projectId: string): GitProjectState {
  return state.projects[projectId] ?? { missingRemote: false, draft: '' };
}

function withProject(state: GitState, projectId: string, change: (p: GitProjectState) => GitProjectState): GitState {
  return { projects: { ...state.projects, [projectId]: change(projectGit(state, projectId)) } };
}

function parseFile(o: JsonObject): GitFile | undefined {
  const path = str(o, 'path');
  if (path === undefined) return undefined;
  return { path, status: str(o, 'status') ?? '' };
}

export function applyStatus(state: GitState, payload: unknown): GitState {
  if (!isObject(payload)) return state;
  const projectId = uuid(payload, 'projectId');
  if (!projectId) return state;
  const staged = objects(payload, 'staged', parseFile) ?? [];
  const unstaged = objects(payload, 'unstaged', parseFile) ?? [];
  const untracked = objects(payload, 'untracked', parseFile) ?? [];
  const status: GitStatus = {
    branch: str(payload, 'branch') ?? '--',
    ahead: num(payload, 'ahead') ?? 0,
    behind: num(payload, 'behind') ?? 0,
    staged,
    unstaged,
    untracked,
    pending: num(payload, 'pending') ?? staged.length + unstaged.length + untracked.length,
  };
  return withProject(state, projectId, (p) => {
    const next = { ...p, status };
    // A diff of a file that is no longer changed would show stale text.
    if (p.diff && !isListed(status, p.diff.path)) delete next.diff;
    return next;
  });
}

function isListed(status: GitStatus, path: string): boolean {
  return [...status.staged, ...status.unstaged, ...status.untracked].some((f) => f.path === path);
}

export function selectDiff(state: GitState, projectId: string, path: string, stage: DiffStage): GitState {
  return withProject(state, projectId, (p) => ({ ...p, diff: { path, stage, loading: true, files: [] } }));
}

export function clearDiff(state: GitState, projectId: string): GitState {
  return withProject(state, projectId, (p) => {
    const next = { ...p };
    delete next.diff;
    return next;
  });
}

function parseDiffFile(o: JsonObject): DiffFile | undefined {
  const path = str(o, 'path');
  if (path === undefined) return undefined;
  return {
    path,
    stage: str(o, 'stage') ?? 'unstaged',
    additions: num(o, 'additions') ?? 0,
    deletions: num(o, 'deletions') ?? 0,
    isBinary: bool(o, 'isBinary') ?? false,
    patch: str(o, 'patch') ?? '',
  };
}

/** "git/diff": fills the selected diff when the answer is for it. An empty answer means "no differences". */
export function applyDiff(state: GitState, payload: unknown): GitState {
  if (!isObject(payload)) return state;
  const projectId = uuid(payload, 'projectId');
  const files = objects(payload, 'files', parseDiffFile);
  if (!projectId || !files) return state;
  const sel = state.projects[projectId]?.diff;
  if (!sel) return state;
  const matching = files.filter((f) => f.path === sel.path && f.stage === sel.stage);
  if (files.length > 0 && matching.length === 0) return state;
  return withProject(state, projectId, (p) => ({ ...p, diff: { ...sel, loading: false, files: matching } }));
}

export function actionStarted(state: GitState, projectId: string, action: GitAction, requestId: string): GitState {
  return withProject(state, projectId, (p) => ({ ...p, running: { action, requestId } }));
}

export function setDraft(state: GitState, projectId: string, draft: string): GitState {
  return withProject(state, projectId, (p) => ({ ...p, draft }));
}

export function isRunning(state: GitState, projectId: string): boolean {
  return state.projects[projectId]?.running !== undefined;
}

/**
 * "git/result": attributed to the project whose action is running, else to
 * the active project. Returns the result for the toast, and that project.
 */
export function applyResult(
  state: GitState,
  payload: unknown,
  activeProjectId: string | undefined,
): { state: GitState; toast?: { success: boolean; message: string }; owner?: string } {
  if (!isObject(payload)) return { state };
  const success = bool(payload, 'success');
  const message = str(payload, 'message');
  if (success === undefined || message === undefined) return { state };
  const toast = { success, message };
  const owner = Object.keys(state.projects).find((id) => state.projects[id]?.running) ?? activeProjectId;
  if (!owner) return { state, toast };
  const next = withProject(state, owner, (p) => {
    const q = { ...p };
    if (p.running) q.running = { ...p.running, result: toast };
    if (message === MISSING_REMOTE_MESSAGE) q.missingRemote = true;
    else if (success && p.running && p.running.action !== 'commit') q.missingRemote = false;
    return q;
  });
  return { state: next, toast, owner };
}

/** "git/refresh/barrier": ends the action that posted it. A commit that succeeded empties the message box. */
export function applyBarrier(state: GitState, payload: unknown): GitState {
  if (!isObject(payload)) return state;
  const projectId = uuid(payload, 'projectId');
  const requestId = str(payload, 'requestId');
  if (!projectId || requestId === undefined) return state;
  const p = state.projects[projectId];
  if (!p?.running || p.running.requestId !== requestId) return state;
  const committed = p.running.action === 'commit' && p.running.result?.success === true;
  return withProject(state, projectId, (q) => {
    const next = { ...q, draft: committed ? '' : q.draft };
    delete next.running;
    return next;
  });
}

export function forgetProjects(state: GitState, keep: string[]): GitState {
  const ids = new Set(keep);
  const projects: Record<string, GitProjectState> = {};
  let changed = false;
  for (const [id, p] of Object.entries(state.projects)) {
    if (ids.has(id)) projects[id] = p;
    else changed = true;
  }
  return changed ? { projects } : state;
}

export type DiffLineKind = 'add' | 'del' | 'hunk' | 'meta' | 'context';

/** Splits a patch into lines with their kind, for colouring. */
export function classifyPatch(patch: string): { kind: DiffLineKind; text: string }[] {
  const lines = patch.split('\n');
  if (lines.length > 0 && lines[lines.length - 1] === '') lines.pop();
  let inHunk = false;
  return lines.map((text) => {
    if (text.startsWith('@@')) {
      inHunk = true;
      return { kind: 'hunk', text };
    }
    if (!inHunk || text.startsWith('diff --git ')) {
      inHunk = false;
      return { kind: 'meta', text };
    }
    if (text.startsWith('+')) return { kind: 'add', text };
    if (text.startsWith('-')) return { kind: 'del', text };
    return { kind: 'context', text };
  });
}
