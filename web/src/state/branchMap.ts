// The branch map of each project. Computing it runs a few git commands per
// branch and holds the native git queue meanwhile, so it is asked for only
// when the view opens or is refreshed, never while an answer is on its way.
// A refresh barrier follows each request so that a request the native side
// dropped cannot leave the view waiting for ever.

import { bool, isObject, num, objects, str, strings, uuid, type JsonObject } from '../json';

export interface BranchOverlap {
  branch: string;
  fileCount: number;
  samplePaths: string[];
}

export interface BranchNode {
  name: string;
  recentSubject?: string;
  isCurrent: boolean;
  isBase: boolean;
  parent?: string;
  parentConfidence: string;
  mergeState: string;
  undeterminedReason?: string;
  integration?: string;
  aheadOfBase?: number;
  behindBase?: number;
  changedFileCount?: number;
  location: string;
  pushState: string;
  unpushedCount?: number;
  inUseByOtherWorktree: boolean;
  worktreePath?: string;
  hasUncommittedChanges: boolean;
  hasConflicts: boolean;
  lastCommitDate?: string;
  isCleanupCandidate: boolean;
  overlaps: BranchOverlap[];
  priority: number;
}

export interface BranchMap {
  baseBranch?: string;
  currentBranch?: string;
  headSha?: string;
  repositoryState: string;
  isShallow: boolean;
  hasRemote: boolean;
  nodes: BranchNode[];
  totalCount: number;
  truncatedCount: number;
  generatedAt?: string;
}

export interface ProjectBranchMap {
  map?: BranchMap;
  /** The barrier behind the request in flight. */
  loading?: string;
  /** The limit asked for last; a refresh keeps it. */
  limit?: number;
  error?: string;
}

export interface BranchMapState {
  projects: Record<string, ProjectBranchMap>;
}

export const initialBranchMap: BranchMapState = { projects: {} };

export function projectBranchMap(state: BranchMapState, projectId: string): ProjectBranchMap {
  return state.projects[projectId] ?? {};
}

function withProject(state: BranchMapState, projectId: string, p: ProjectBranchMap): BranchMapState {
  return { projects: { ...state.projects, [projectId]: p } };
}

/** The request to post, if any; `limit` absent keeps the last one (the native default at first). */
export function requestBranchMap(state: BranchMapState, projectId: string, barrierId: string, limit?: number): { state: BranchMapState; request?: JsonObject } {
  const p = projectBranchMap(state, projectId);
  if (p.loading) return { state };
  const next: ProjectBranchMap = { ...p, loading: barrierId };
  if (limit !== undefined) next.limit = limit;
  const request: JsonObject = { projectId };
  if (next.limit !== undefined) request.limit = next.limit;
  return { state: withProject(state, projectId, next), request };
}

const optional = <K extends string, V>(key: K, value: V | undefined) => (value === undefined ? {} : ({ [key]: value } as { [P in K]: V }));

function parseOverlap(o: JsonObject): BranchOverlap | undefined {
  const branch = str(o, 'branch');
  if (branch === undefined) return undefined;
  return { branch, fileCount: num(o, 'fileCount') ?? 0, samplePaths: strings(o, 'samplePaths') ?? [] };
}

function parseNode(o: JsonObject): BranchNode | undefined {
  const name = str(o, 'name');
  if (!name) return undefined;
  return {
    name,
    ...optional('recentSubject', str(o, 'recentSubject')),
    isCurrent: bool(o, 'isCurrent') ?? false,
    isBase: bool(o, 'isBase') ?? false,
    ...optional('parent', str(o, 'parent')),
    parentConfidence: str(o, 'parentConfidence') ?? 'confirmed',
    mergeState: str(o, 'mergeState') ?? 'undetermined',
    ...optional('undeterminedReason', str(o, 'undeterminedReason')),
    ...optional('integration', str(o, 'integration')),
    ...optional('aheadOfBase', num(o, 'aheadOfBase')),
    ...optional('behindBase', num(o, 'behindBase')),
    ...optional('changedFileCount', num(o, 'changedFileCount')),
    location: str(o, 'location') ?? 'local',
    pushState: str(o, 'pushState') ?? 'noUpstream',
    ...optional('unpushedCount', num(o, 'unpushedCount')),
    inUseByOtherWorktree: bool(o, 'inUseByOtherWorktree') ?? false,
    ...optional('worktreePath', str(o, 'worktreePath')),
    hasUncommittedChanges: bool(o, 'hasUncommittedChanges') ?? false,
    hasConflicts: bool(o, 'hasConflicts') ?? false,
    ...optional('lastCommitDate', str(o, 'lastCommitDate')),
    isCleanupCandidate: bool(o, 'isCleanupCandidate') ?? false,
    overlaps: objects(o, 'overlaps', parseOverlap) ?? [],
    priority: num(o, 'priority') ?? 6,
  };
}

/** "git/branch-map": replaces the project's map and ends its request. */
export function applyBranchMap(state: BranchMapState, payload: unknown): BranchMapState {
  if (!isObject(payload)) return state;
  const projectId = uuid(payload, 'projectId');
  if (!projectId) return state;
  const nodes = objects(payload, 'nodes', parseNode) ?? [];
  const map: BranchMap = {
    ...optional('baseBranch', str(payload, 'baseBranch')),
    ...optional('currentBranch', str(payload, 'currentBranch')),
    ...optional('headSha', str(payload, 'headSha')),
    repositoryState: str(payload, 'repositoryState') ?? 'ready',
    isShallow: bool(payload, 'isShallow') ?? false,
    hasRemote: bool(payload, 'hasRemote') ?? true,
    nodes,
    totalCount: num(payload, 'totalCount') ?? nodes.length,
    truncatedCount: Math.max(0, num(payload, 'truncatedCount') ?? 0),
    ...optional('generatedAt', str(payload, 'generatedAt')),
  };
  const p = projectBranchMap(state, projectId);
  const next: ProjectBranchMap = { ...p, map };
  delete next.loading;
  delete next.error;
  return withProject(state, projectId, next);
}

/** "git/branch-map/error": the message replaces the map. */
export function applyBranchMapError(state: BranchMapState, payload: unknown): BranchMapState {
  if (!isObject(payload)) return state;
  const projectId = uuid(payload, 'projectId');
  const message = str(payload, 'message');
  if (!projectId || message === undefined) return state;
  const next: ProjectBranchMap = { ...projectBranchMap(state, projectId), error: message };
  delete next.loading;
  return withProject(state, projectId, next);
}

/** "git/refresh/barrier": a request still outstanding here ended without an answer. */
export function applyBranchMapBarrier(state: BranchMapState, payload: unknown, fallbackMessage: string): BranchMapState {
  if (!isObject(payload)) return state;
  const projectId = uuid(payload, 'projectId');
  const p = projectId ? state.projects[projectId] : undefined;
  if (!projectId || !p?.loading || p.loading !== str(payload, 'requestId')) return state;
  const next: ProjectBranchMap = { ...p, error: fallbackMessage };
  delete next.loading;
  return withProject(state, projectId, next);
}

export function forgetProjects(state: BranchMapState, keep: string[]): BranchMapState {
  const ids = new Set(keep);
  const entries = Object.entries(state.projects);
  if (entries.every(([id]) => ids.has(id))) return state;
  return { projects: Object.fromEntries(entries.filter(([id]) => ids.has(id))) };
}
