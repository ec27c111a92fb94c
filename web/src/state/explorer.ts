// The explorer tree of each project, loaded one directory level at a time.
// A listing is asked for with a requestId and only an answer to a request of
// ours is taken, so a late answer for a project we left cannot overwrite a
// newer tree. The root directory is the empty path.

import { isObject, objects, str, strings, uuid, type JsonObject } from '../json';

export interface ExplorerNode {
  name: string;
  path: string;
  type: 'folder' | 'file';
}

export interface DirectoryListing {
  nodes: ExplorerNode[];
  error?: string;
}

export interface ProjectTree {
  /** Listings by directory path; a directory without an entry has not been loaded. */
  dirs: Record<string, DirectoryListing>;
  /** Expanded folders (the root is always shown). */
  expanded: string[];
  /** Directories asked for and not answered yet. */
  loading: string[];
  /** Outstanding request ids and the paths each asked for. */
  requests: Record<string, string[]>;
}

export interface ExplorerState {
  trees: Record<string, ProjectTree>;
}

export const initialExplorer: ExplorerState = { trees: {} };

export function emptyTree(): ProjectTree {
  return { dirs: {}, expanded: [], loading: [], requests: {} };
}

export function treeFor(state: ExplorerState, projectId: string): ProjectTree {
  return state.trees[projectId] ?? emptyTree();
}

function withTree(state: ExplorerState, projectId: string, tree: ProjectTree): ExplorerState {
  return { trees: { ...state.trees, [projectId]: tree } };
}

function unique(paths: string[]): string[] {
  return [...new Set(paths)];
}

/** Records that `paths` were requested under `requestId`. */
export function markRequested(state: ExplorerState, projectId: string, paths: string[], requestId: string): ExplorerState {
  const tree = treeFor(state, projectId);
  return withTree(state, projectId, {
    ...tree,
    loading: unique([...tree.loading, ...paths]),
    requests: { ...tree.requests, [requestId]: [...paths] },
  });
}

function parseNode(o: JsonObject): ExplorerNode | undefined {
  const name = str(o, 'name');
  const path = str(o, 'path');
  const type = str(o, 'type');
  if (name === undefined || path === undefined || (type !== 'folder' && type !== 'file')) return undefined;
  return { name, path, type };
}

/** "project/explorer/directories": stores the listings of one of our requests. */
export function applyDirectories(state: ExplorerState, payload: unknown): ExplorerState {
  if (!isObject(payload)) return state;
  const projectId = uuid(payload, 'projectId');
  const requestId = str(payload, 'requestId');
  if (!projectId || requestId === undefined) return state;
  const tree = state.trees[projectId];
  const asked = tree?.requests[requestId];
  if (!tree || !asked) return state;
  const snapshots = objects(payload, 'directories', (o) => {
    const path = str(o, 'path');
    if (path === undefined) return undefined;
    const listing: DirectoryListing = { nodes: objects(o, 'nodes', parseNode) ?? [] };
    const error = str(o, 'error');
    if (error !== undefined) listing.error = error;
    return { path, listing };
  });
  const dirs = { ...tree.dirs };
  for (const snap of snapshots ?? []) dirs[snap.path] = snap.listing;
  const requests = { ...tree.requests };
  delete requests[requestId];
  const stillAsked = new Set(Object.values(requests).flat());
  return withTree(state, projectId, {
    ...tree,
    dirs,
    requests,
    loading: tree.loading.filter((p) => stillAsked.has(p)),
  });
}

export interface Transition {
  state: ExplorerState;
  /** Directories that must be asked for now; empty when nothing is needed. */
  request: string[];
}

/** Expands or collapses a folder; expanding an unloaded folder asks for it. */
export function toggleFolder(state: ExplorerState, projectId: string, path: string): Transition {
  const tree = treeFor(state, projectId);
  if (tree.expanded.includes(path)) {
    return { state: withTree(state, projectId, { ...tree, expanded: tree.expanded.filter((p) => p !== path) }), request: [] };
  }
  const next = withTree(state, projectId, { ...tree, expanded: [...tree.expanded, path] });
  const needs = tree.dirs[path] === undefined && !tree.loading.includes(path);
  return { state: next, request: needs ? [path] : [] };
}

/** Whether a directory can be seen: the root, or a folder whose ancestors are all expanded. */
export function isVisible(tree: ProjectTree, path: string): boolean {
  if (path === '') return true;
  if (!tree.expanded.includes(path)) return false;
  const slash = path.lastIndexOf('/');
  return isVisible(tree, slash < 0 ? '' : path.slice(0, slash));
}

/** The root listing when the project is shown for the first time. */
export function ensureRoot(state: ExplorerState, projectId: string): Transition {
  const tree = treeFor(state, projectId);
  const needs = tree.dirs[''] === undefined && !tree.loading.includes('');
  return { state: needs ? withTree(state, projectId, tree) : state, request: needs ? [''] : [] };
}

/**
 * "project/explorer/changed": reloads exactly the named directories that are
 * on screen, and forgets named ones that are loaded but hidden so they are
 * asked for again on expand. A resync reloads everything on screen and
 * forgets the rest.
 */
export function applyChanged(state: ExplorerState, payload: unknown): Transition & { projectId?: string } {
  if (!isObject(payload)) return { state, request: [] };
  const projectId = uuid(payload, 'projectId');
  if (!projectId || !state.trees[projectId]) return { state, request: [] };
  const tree = state.trees[projectId]!;
  const resync = payload.requiresResync === true;
  const named = resync ? Object.keys(tree.dirs) : strings(payload, 'directoryPaths');
  if (!Array.isArray(named)) return { state, request: [] };
  const dirs = { ...tree.dirs };
  const request: string[] = [];
  for (const path of unique(resync ? [...named, ''] : named)) {
    if (isVisible(tree, path)) request.push(path);
    else delete dirs[path];
  }
  return { state: withTree(state, projectId, { ...tree, dirs }), request, projectId };
}

/** Drops a project's tree (after it was closed). */
export function forgetProject(state: ExplorerState, projectId: string): ExplorerState {
  if (!state.trees[projectId]) return state;
  const trees = { ...state.trees };
  delete trees[projectId];
  return { trees };
}

export function parentPath(path: string): string {
  const slash = path.lastIndexOf('/');
  return slash < 0 ? '' : path.slice(0, slash);
}

export function baseName(path: string): string {
  const slash = path.lastIndexOf('/');
  return slash < 0 ? path : path.slice(slash + 1);
}

/** The `nextPath` of a rename in place: same parent, new last component. */
export function renamedPath(path: string, newName: string): string {
  const parent = parentPath(path);
  return parent === '' ? newName : `${parent}/${newName}`;
}

/** Visible rows in display order, for rendering and keyboard navigation. */
export function visibleRows(tree: ProjectTree): { node: ExplorerNode; depth: number }[] {
  const rows: { node: ExplorerNode; depth: number }[] = [];
  const walk = (dir: string, depth: number) => {
    for (const node of tree.dirs[dir]?.nodes ?? []) {
      rows.push({ node, depth });
      if (node.type === 'folder' && tree.expanded.includes(node.path)) walk(node.path, depth + 1);
    }
  };
  walk('', 0);
  return rows;
}
