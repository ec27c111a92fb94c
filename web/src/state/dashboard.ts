// The dashboard as the native side reports it: whether it is on screen
// ("dashboard.toggled"), the last snapshot of commit activity
// ("dashboard.metrics") or why there is none ("dashboard.metrics.error"),
// and the program's own CPU and memory ("system/metrics"). The page never
// opens or closes the dashboard itself; it asks and follows the answer.

import { arr, isObject, num, str, uuid, type JsonObject } from '../json';

export interface HeatCell {
  /** The user's local day, as the native side sends it: midnight UTC of that calendar date, read with UTC getters. */
  day: string;
  count: number;
}

export interface Language {
  name: string;
  ratio: number;
}

export interface ProjectSummary {
  projectId: string;
  projectName: string;
  branch: string;
  commitCount: number;
  lastCommitAt?: number;
  languages: Language[];
  heatmap: HeatCell[];
}

export interface Snapshot {
  generatedAt?: number;
  totalCommits: number;
  todaysCommits: number;
  last30DayCommits: number;
  previous30DayCommits: number;
  last30DayDeltaPercent: number;
  projects: ProjectSummary[];
}

export interface SystemMetrics {
  cpuPercent: number;
  memoryMB: number;
}

export interface DashboardState {
  open: boolean;
  /** A snapshot is on its way: the dashboard was opened or a refresh was asked for. */
  loading: boolean;
  error?: string;
  snapshot?: Snapshot;
  metrics?: SystemMetrics;
}

export const initialDashboard: DashboardState = { open: false, loading: false };

const count = (o: JsonObject, key: string) => Math.max(0, Math.trunc(num(o, key) ?? 0));

function date(o: JsonObject, key: string): number | undefined {
  const text = str(o, key);
  const ms = text === undefined ? NaN : Date.parse(text);
  return Number.isFinite(ms) ? ms : undefined;
}

/** YYYY-MM-DD of a cell's date. UTC getters: in any zone west of Greenwich local getters would name the day before. */
export function utcDay(ms: number): string {
  const d = new Date(ms);
  return `${d.getUTCFullYear()}-${String(d.getUTCMonth() + 1).padStart(2, '0')}-${String(d.getUTCDate()).padStart(2, '0')}`;
}

/** YYYY-MM-DD of the user's local calendar day. */
export function localDay(ms: number): string {
  const d = new Date(ms);
  return `${d.getFullYear()}-${String(d.getMonth() + 1).padStart(2, '0')}-${String(d.getDate()).padStart(2, '0')}`;
}

function parseSummary(o: JsonObject): ProjectSummary | undefined {
  const projectId = uuid(o, 'projectId');
  if (!projectId) return undefined;
  const summary: ProjectSummary = {
    projectId,
    projectName: str(o, 'projectName') ?? '',
    branch: str(o, 'branch') || 'HEAD',
    commitCount: count(o, 'commitCount'),
    languages: [],
    heatmap: [],
  };
  const last = date(o, 'lastCommitAt');
  if (last !== undefined) summary.lastCommitAt = last;
  const stack = o.techStack;
  for (const entry of isObject(stack) ? (arr(stack, 'languages') ?? []) : []) {
    if (!isObject(entry)) continue;
    const name = str(entry, 'name');
    const ratio = num(entry, 'ratio');
    if (name && ratio !== undefined && ratio > 0) summary.languages.push({ name, ratio: Math.min(ratio, 1) });
  }
  for (const cell of arr(o, 'heatmap') ?? []) {
    if (!isObject(cell)) continue;
    const ms = date(cell, 'date');
    if (ms !== undefined) summary.heatmap.push({ day: utcDay(ms), count: count(cell, 'count') });
  }
  return summary;
}

/** "dashboard.metrics"; a payload without the project list is not a snapshot. */
export function parseSnapshot(payload: JsonObject): Snapshot | undefined {
  const list = arr(payload, 'projectSummaries');
  if (!list) return undefined;
  const snapshot: Snapshot = {
    totalCommits: count(payload, 'totalCommits'),
    todaysCommits: count(payload, 'todaysCommits'),
    last30DayCommits: count(payload, 'last30DayCommits'),
    previous30DayCommits: count(payload, 'previous30DayCommits'),
    last30DayDeltaPercent: num(payload, 'last30DayDeltaPercent') ?? 0,
    projects: list.filter(isObject).map(parseSummary).filter((s): s is ProjectSummary => s !== undefined),
  };
  const generatedAt = date(payload, 'generatedAt');
  if (generatedAt !== undefined) snapshot.generatedAt = generatedAt;
  return snapshot;
}

export function applyEvent(state: DashboardState, type: string, payload: JsonObject): DashboardState {
  switch (type) {
    case 'dashboard.toggled': {
      const open = payload.open;
      if (typeof open !== 'boolean' || open === state.open) return state;
      // Every opening fetches (or joins the fetch already running), so a snapshot follows.
      if (!open) return { ...state, open };
      const next: DashboardState = { ...state, open, loading: true };
      delete next.error;
      return next;
    }
    case 'dashboard.metrics': {
      const snapshot = parseSnapshot(payload);
      if (!snapshot) return state;
      const next: DashboardState = { ...state, loading: false, snapshot };
      delete next.error;
      return next;
    }
    case 'dashboard.metrics.error':
      return { ...state, loading: false, error: str(payload, 'message') ?? '' };
    case 'system/metrics': {
      const cpuPercent = num(payload, 'cpuPercent');
      const memoryMB = num(payload, 'memoryMB');
      if (cpuPercent === undefined || memoryMB === undefined || cpuPercent < 0 || memoryMB < 0) return state;
      return { ...state, metrics: { cpuPercent, memoryMB } };
    }
    default:
      return state;
  }
}

export function refreshRequested(state: DashboardState): DashboardState {
  const next: DashboardState = { ...state, loading: true };
  delete next.error;
  return next;
}

/** The last 30 days against the 30 before, as an arrow and a percentage with one decimal. */
export function delta(percent: number): { arrow: string; text: string; trend: 'up' | 'down' | 'flat' } {
  const rounded = Math.round(percent * 10) / 10;
  const text = `${Math.abs(rounded).toFixed(1)}%`;
  if (rounded > 0) return { arrow: '↑', text, trend: 'up' };
  if (rounded < 0) return { arrow: '↓', text, trend: 'down' };
  return { arrow: '→', text, trend: 'flat' };
}

const relative = new Intl.RelativeTimeFormat('ja', { numeric: 'always' });

/** "3 時間前" and the like; a date in the future (a skewed clock) counts as now. */
export function relativeTime(thenMs: number, nowMs: number): string {
  const seconds = Math.floor((nowMs - thenMs) / 1000);
  if (seconds < 60) return 'たった今';
  const day = 86400;
  if (seconds < 3600) return relative.format(-Math.floor(seconds / 60), 'minute');
  if (seconds < day) return relative.format(-Math.floor(seconds / 3600), 'hour');
  if (seconds < 30 * day) return relative.format(-Math.floor(seconds / day), 'day');
  if (seconds < 365 * day) return relative.format(-Math.floor(seconds / (30 * day)), 'month');
  return relative.format(-Math.floor(seconds / (365 * day)), 'year');
}

/** Shade 0 (no commits) to 4 (the card's busiest day). */
export function heatLevel(count: number, max: number): number {
  if (count <= 0 || max <= 0) return 0;
  return Math.min(4, Math.max(1, Math.ceil((count / max) * 4)));
}

/** The language bar: the named languages (at most five), then the remainder in grey. */
export function languageBar(languages: readonly Language[]): { named: Language[]; rest: number } {
  const named = languages.slice(0, 5);
  const sum = named.reduce((s, l) => s + l.ratio, 0);
  return { named, rest: Math.max(0, 1 - sum) };
}

export function metricsText(m: SystemMetrics): string {
  return `CPU ${m.cpuPercent.toFixed(1)}% · ${Math.round(m.memoryMB)} MB`;
}
