// The commit history list of each project, walked page by page. The native
// side keeps the walk's position per project and starts over whenever a
// request carries no cursor, so two requests of one project must never run
// at once: a fresh walk asked for while a page is on its way waits for that
// answer, which it then discards. Answers are matched by requestId, and a
// commit already on screen is never added twice (the native fallback repeats
// local-only commits as "remote" on later pages).

import { bool, isObject, num, objects, str, uuid, type JsonObject } from '../json';

export const HISTORY_PAGE_SIZE = 50;
export const HISTORY_FAILURE_PREFIX = 'コミット履歴の取得に失敗しました: ';

export interface CommitFile {
  path: string;
  additions: number;
  deletions: number;
}

export interface HistoryCommit {
  oid: string;
  headline: string;
  authorName: string;
  login?: string;
  date: string;
  files: CommitFile[];
  origin: 'local' | 'remote';
}

export interface CommitDiffFile {
  path: string;
  additions: number;
  deletions: number;
  isBinary: boolean;
  patch: string;
}

export interface CommitDiffSelection {
  oid: string;
  path: string;
  loading: boolean;
  files: CommitDiffFile[];
}

export interface ProjectHistory {
  commits: HistoryCommit[];
  seen: ReadonlySet<string>;
  /** The last answer's `cursorPayload`: where the next page starts. */
  cursor?: string;
  hasNextPage: boolean;
  /** A page of the current walk has arrived. */
  loaded: boolean;
  inFlight?: { requestId: string; fresh: boolean };
  /** A fresh walk waits for the answer in flight. */
  queuedFresh: boolean;
  /** The request answered last; its error event follows its page. */
  answered?: string;
  error?: string;
  /** The commit whose files are listed. */
  open?: string;
  diff?: CommitDiffSelection;
}

export interface HistoryState {
  projects: Record<string, ProjectHistory>;
}

export const initialHistory: HistoryState = { projects: {} };

const EMPTY: ProjectHistory = { commits: [], seen: new Set(), hasNextPage: false, loaded: false, queuedFresh: false };

export function projectHistory(state: HistoryState, projectId: string): ProjectHistory {
  return state.projects[projectId] ?? EMPTY;
}

function withProject(state: HistoryState, projectId: string, p: ProjectHistory): HistoryState {
  return { projects: { ...state.projects, [projectId]: p } };
}

/** What to post, when anything. */
export interface HistoryStep {
  state: HistoryState;
  request?: JsonObject;
}

function send(state: HistoryState, projectId: string, p: ProjectHistory, requestId: string, fresh: boolean): HistoryStep {
  const request: JsonObject = { projectId, pageSize: HISTORY_PAGE_SIZE, requestId };
  if (!fresh && p.cursor !== undefined) request.cursorPayload = p.cursor;
  const next: ProjectHistory = { ...p, inFlight: { requestId, fresh }, queuedFresh: false };
  delete next.error;
  return { state: withProject(state, projectId, next), request };
}

/** Opening, refresh, a successful action: the walk starts over. The rows stay until its first page replaces them. */
export function startWalk(state: HistoryState, projectId: string, requestId: string): HistoryStep {
  const p = projectHistory(state, projectId);
  if (p.inFlight) return { state: p.queuedFresh ? state : withProject(state, projectId, { ...p, queuedFresh: true }) };
  return send(state, projectId, p, requestId, true);
}

/** The list reached its end: the next page, unless one is on its way, the walk is over, or an error waits for a retry. */
export function nextPage(state: HistoryState, projectId: string, requestId: string): HistoryStep {
  const p = projectHistory(state, projectId);
  if (p.inFlight || !p.loaded || !p.hasNextPage || p.error !== undefined || p.cursor === undefined) return { state };
  return send(state, projectId, p, requestId, false);
}

/** Retry after an error: go on from the last page shown, or start over when there is none. */
export function retry(state: HistoryState, projectId: string, requestId: string): HistoryStep {
  const p = projectHistory(state, projectId);
  if (p.inFlight) return { state };
  return send(state, projectId, p, requestId, !p.loaded || p.cursor === undefined);
}

function parseFile(o: JsonObject): CommitFile | undefined {
  const path = str(o, 'path');
  if (path === undefined) return undefined;
  return { path, additions: num(o, 'additions') ?? 0, deletions: num(o, 'deletions') ?? 0 };
}

function parseEdge(o: JsonObject): HistoryCommit | undefined {
  const oid = str(o, 'oid');
  if (!oid) return undefined;
  const author = isObject(o.author) ? o.author : {};
  const commit: HistoryCommit = {
    oid,
    headline: str(o, 'messageHeadline') ?? '',
    authorName: str(author, 'name') ?? '',
    date: str(o, 'committedDate') ?? '',
    files: objects(o, 'files', parseFile) ?? [],
    origin: str(o, 'origin') === 'local' ? 'local' : 'remote',
  };
  const login = str(author, 'login');
  if (login) commit.login = login;
  return commit;
}

/**
 * "git/history". `follow` says what to post next: another page when this one
 * brought only commits already shown, or the fresh walk that waited for it.
 */
export function applyHistory(state: HistoryState, payload: unknown): { state: HistoryState; projectId?: string; follow?: 'more' | 'fresh' } {
  if (!isObject(payload)) return { state };
  const projectId = uuid(payload, 'projectId');
  const requestId = str(payload, 'requestId');
  const p = projectId ? state.projects[projectId] : undefined;
  if (!projectId || !p?.inFlight || p.inFlight.requestId !== requestId) return { state };
  const done: ProjectHistory = { ...p, answered: requestId };
  delete done.inFlight;
  if (p.queuedFresh) return { state: withProject(state, projectId, done), projectId, follow: 'fresh' };

  const fresh = p.inFlight.fresh;
  const edges = objects(payload, 'edges', parseEdge) ?? [];
  const seen = new Set(fresh ? [] : p.seen);
  const commits = fresh ? [] : [...p.commits];
  for (const e of edges) {
    if (seen.has(e.oid)) continue;
    seen.add(e.oid);
    commits.push(e);
  }
  const added = commits.length - (fresh ? 0 : p.commits.length);
  const cursor = str(payload, 'cursorPayload');
  const pageInfo = isObject(payload.pageInfo) ? payload.pageInfo : {};
  // Without a cursor the next request would start the walk over.
  const hasNextPage = (bool(pageInfo, 'hasNextPage') ?? false) && cursor !== undefined;
  const next: ProjectHistory = { ...done, commits, seen, hasNextPage, loaded: true };
  if (cursor !== undefined) next.cursor = cursor;
  else delete next.cursor;
  if (fresh) {
    if (next.open !== undefined && !seen.has(next.open)) delete next.open;
    if (next.diff && !seen.has(next.diff.oid)) delete next.diff;
  }
  // An answer with no commits at all gives nothing to go on from: the user scrolls to ask again.
  const follow = added === 0 && edges.length > 0 && hasNextPage ? 'more' : undefined;
  return { state: withProject(state, projectId, next), projectId, follow };
}

/** "git/history/error": shown above the rows, which stay. */
export function applyHistoryError(state: HistoryState, payload: unknown): HistoryState {
  if (!isObject(payload)) return state;
  const projectId = uuid(payload, 'projectId');
  const message = str(payload, 'message');
  const requestId = str(payload, 'requestId');
  const p = projectId ? state.projects[projectId] : undefined;
  if (!projectId || !p || message === undefined) return state;
  if (requestId !== undefined && requestId !== p.answered && requestId !== p.inFlight?.requestId) return state;
  const next: ProjectHistory = { ...p, error: message };
  if (p.inFlight?.requestId === requestId) delete next.inFlight;
  return withProject(state, projectId, next);
}

export function toggleCommit(state: HistoryState, projectId: string, oid: string): HistoryState {
  const p = projectHistory(state, projectId);
  const next = { ...p, open: p.open === oid ? undefined : oid };
  if (next.open === undefined) delete next.open;
  return withProject(state, projectId, next);
}

export function selectCommitDiff(state: HistoryState, projectId: string, oid: string, path: string): HistoryState {
  return withProject(state, projectId, { ...projectHistory(state, projectId), diff: { oid, path, loading: true, files: [] } });
}

export function clearCommitDiff(state: HistoryState, projectId: string): HistoryState {
  const next = { ...projectHistory(state, projectId) };
  delete next.diff;
  return withProject(state, projectId, next);
}

/**
 * The new path of a numstat rename ("src/{a => b}/f.txt" is "src/b/f.txt"):
 * a commit's diff is asked for by the path git knows the file under now.
 */
export function renamedPath(text: string): string {
  if (!text.includes('=>')) return text;
  let out = text;
  for (;;) {
    const open = out.indexOf('{');
    const close = open < 0 ? -1 : out.indexOf('}', open);
    if (close < 0) break;
    const inner = out.slice(open + 1, close);
    const arrow = inner.indexOf('=>');
    out = out.slice(0, open) + (arrow >= 0 ? inner.slice(arrow + 2) : inner).trim() + out.slice(close + 1);
  }
  const arrow = out.indexOf('=>');
  return (arrow >= 0 ? out.slice(arrow + 2) : out).trim();
}

function parseDiffFile(o: JsonObject): CommitDiffFile | undefined {
  const path = str(o, 'path');
  if (path === undefined) return undefined;
  return { path, additions: num(o, 'additions') ?? 0, deletions: num(o, 'deletions') ?? 0, isBinary: bool(o, 'isBinary') ?? false, patch: str(o, 'patch') ?? '' };
}

/** "git/commit/diff": fills the selected file's diff when the answer is for it. */
export function applyCommitDiff(state: HistoryState, payload: unknown): HistoryState {
  if (!isObject(payload)) return state;
  const projectId = uuid(payload, 'projectId');
  const commit = str(payload, 'commit');
  const files = objects(payload, 'files', parseDiffFile);
  const sel = projectId ? state.projects[projectId]?.diff : undefined;
  if (!projectId || !files || !sel || commit !== sel.oid) return state;
  const matching = files.filter((f) => f.path === (sel.path || '.'));
  if (matching.length === 0) return state;
  return withProject(state, projectId, { ...projectHistory(state, projectId), diff: { ...sel, loading: false, files: matching } });
}

export function forgetProjects(state: HistoryState, keep: string[]): HistoryState {
  const ids = new Set(keep);
  const entries = Object.entries(state.projects);
  if (entries.every(([id]) => ids.has(id))) return state;
  return { projects: Object.fromEntries(entries.filter(([id]) => ids.has(id))) };
}
