// The commit graph of each project. A failed graph request sends no "git/graph"
// at all, only a "git/result" naming the failure, so every request is followed
// by a refresh barrier: the native git queue is serial, and a barrier answered
// while the request is still outstanding means it ended without a graph.

import { isObject, num, objects, str, uuid, type JsonObject } from '../json';

export const GRAPH_FAILURE_PREFIX = 'コミットグラフの取得に失敗しました: ';

export interface GraphNode {
  oid: string;
  lane: number;
  color: string;
  headline: string;
  authorName: string;
  date: string;
}

export interface GraphEdge {
  from: string;
  to: string;
  lane: number;
}

export interface ProjectGraph {
  nodes: GraphNode[];
  edges: GraphEdge[];
  loaded: boolean;
  /** The barrier behind the request in flight, and the request's place in the git queue. */
  loading?: { requestId: string; seq: number };
  /** The failure text the native side reported for the request in flight. */
  failure?: string;
  error?: string;
}

export interface GraphState {
  projects: Record<string, ProjectGraph>;
  seq: number;
}

export const initialGraph: GraphState = { projects: {}, seq: 0 };

const EMPTY: ProjectGraph = { nodes: [], edges: [], loaded: false };

export function projectGraph(state: GraphState, projectId: string): ProjectGraph {
  return state.projects[projectId] ?? EMPTY;
}

function withProject(state: GraphState, projectId: string, p: ProjectGraph): GraphState {
  return { ...state, projects: { ...state.projects, [projectId]: p } };
}

/** A request for the graph, unless one is already on its way (the answer would be the same). */
export function requestGraph(state: GraphState, projectId: string, requestId: string): { state: GraphState; send: boolean } {
  const p = projectGraph(state, projectId);
  if (p.loading) return { state, send: false };
  const next: ProjectGraph = { ...p, loading: { requestId, seq: state.seq + 1 } };
  delete next.error;
  delete next.failure;
  return { state: { ...withProject(state, projectId, next), seq: state.seq + 1 }, send: true };
}

const COLOR_RE = /^#[0-9a-fA-F]{3,8}$/;
/** The native palette, for a colour that is missing or not a colour. */
const PALETTE = ['#E57373', '#64B5F6', '#81C784', '#FFB74D', '#BA68C8', '#4DB6AC', '#AED581', '#FFD54F'];

export function laneColor(lane: number): string {
  return PALETTE[lane % PALETTE.length]!;
}

function lane(o: JsonObject): number | undefined {
  const n = num(o, 'lane');
  return n !== undefined && Number.isInteger(n) && n >= 0 ? n : undefined;
}

function parseNode(o: JsonObject): GraphNode | undefined {
  const oid = str(o, 'oid');
  const l = lane(o);
  if (!oid || l === undefined) return undefined;
  const color = str(o, 'branchColor');
  return { oid, lane: l, color: color && COLOR_RE.test(color) ? color : laneColor(l), headline: str(o, 'messageHeadline') ?? '', authorName: str(o, 'authorName') ?? '', date: str(o, 'committedDate') ?? '' };
}

function parseEdge(o: JsonObject): GraphEdge | undefined {
  const from = str(o, 'from');
  const to = str(o, 'to');
  const l = lane(o);
  return from && to && l !== undefined ? { from, to, lane: l } : undefined;
}

/** "git/graph": replaces the project's graph and ends its request. */
export function applyGraph(state: GraphState, payload: unknown): GraphState {
  if (!isObject(payload)) return state;
  const projectId = uuid(payload, 'projectId');
  if (!projectId) return state;
  return withProject(state, projectId, { nodes: objects(payload, 'nodes', parseNode) ?? [], edges: objects(payload, 'edges', parseEdge) ?? [], loaded: true });
}

/**
 * A "git/result" with the graph's failure text: it belongs to the oldest
 * request still outstanding, the one the serial queue worked off first.
 * False when no request claims it.
 */
export function claimFailure(state: GraphState, message: string): { state: GraphState; claimed: boolean } {
  let owner: string | undefined;
  for (const [id, p] of Object.entries(state.projects)) {
    if (p.loading && !p.failure && (!owner || p.loading.seq < state.projects[owner]!.loading!.seq)) owner = id;
  }
  if (!owner) return { state, claimed: false };
  return { state: withProject(state, owner, { ...state.projects[owner]!, failure: message }), claimed: true };
}

/** "git/refresh/barrier": a request that is still outstanding here ended without a graph. */
export function applyGraphBarrier(state: GraphState, payload: unknown, fallbackMessage: string): GraphState {
  if (!isObject(payload)) return state;
  const projectId = uuid(payload, 'projectId');
  const requestId = str(payload, 'requestId');
  const p = projectId ? state.projects[projectId] : undefined;
  if (!projectId || !p?.loading || p.loading.requestId !== requestId) return state;
  const next: ProjectGraph = { ...p, error: p.failure ?? fallbackMessage };
  delete next.loading;
  delete next.failure;
  return withProject(state, projectId, next);
}

export function forgetProjects(state: GraphState, keep: string[]): GraphState {
  const ids = new Set(keep);
  const entries = Object.entries(state.projects);
  if (entries.every(([id]) => ids.has(id))) return state;
  return { ...state, projects: Object.fromEntries(entries.filter(([id]) => ids.has(id))) };
}
