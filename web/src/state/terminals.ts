// What the page knows about each terminal session. The configuration and
// "terminal/snapshot" both list the sessions in full; the per-session events
// (created, status, exit, error) and the codex markers refine one entry.

import { bool, isObject, num, objects, str, uuid, type JsonObject } from '../json';
import type { ConfiguredSession } from './workspace';

export type SessionStatus = 'pending' | 'booting' | 'ready' | 'terminated' | 'failed' | 'unavailable' | 'closed';

const STATUSES: readonly SessionStatus[] = ['pending', 'booting', 'ready', 'terminated', 'failed', 'unavailable', 'closed'];

export interface TerminalSession {
  id: string;
  title: string;
  workingDirectory: string;
  projectId?: string;
  status: SessionStatus;
  exitCode?: number;
  errorMessage?: string;
  pid?: number;
  cols?: number;
  rows?: number;
  /** True between the codex start and end markers. */
  codexRunning: boolean;
  codexExitStatus?: number;
}

export interface TerminalsState {
  sessions: TerminalSession[];
}

export const initialTerminals: TerminalsState = { sessions: [] };

function toStatus(text: string | undefined): SessionStatus | undefined {
  return text !== undefined && (STATUSES as readonly string[]).includes(text) ? (text as SessionStatus) : undefined;
}

function blank(id: string): TerminalSession {
  return { id, title: '', workingDirectory: '', status: 'pending', codexRunning: false };
}

/** Rebuilds the list in the given order, carrying live state over by id. */
function replaceList(
  state: TerminalsState,
  entries: { id: string; title: string; workingDirectory: string; projectId?: string; status?: SessionStatus; cols?: number; rows?: number; pid?: number }[],
): TerminalsState {
  const byId = new Map(state.sessions.map((s) => [s.id, s]));
  const sessions = entries.map((entry) => {
    const prev = byId.get(entry.id) ?? blank(entry.id);
    const next: TerminalSession = { ...prev, title: entry.title, workingDirectory: entry.workingDirectory };
    if (entry.projectId) next.projectId = entry.projectId;
    else delete next.projectId;
    if (entry.status) next.status = entry.status;
    if (entry.cols !== undefined) next.cols = entry.cols;
    if (entry.rows !== undefined) next.rows = entry.rows;
    if (entry.pid !== undefined) next.pid = entry.pid;
    return next;
  });
  return { sessions };
}

/** Sessions from "app/config". Its constant "pending" says nothing about a running session, so statuses stay. */
export function applyConfiguredSessions(state: TerminalsState, configured: ConfiguredSession[]): TerminalsState {
  return replaceList(
    state,
    configured.map((c) => {
      const entry: { id: string; title: string; workingDirectory: string; projectId?: string } = {
        id: c.id,
        title: c.title,
        workingDirectory: c.workingDirectory,
      };
      if (c.projectId) entry.projectId = c.projectId;
      return entry;
    }),
  );
}

function parseSnapshotEntry(o: JsonObject) {
  const id = uuid(o, 'id');
  if (!id) return undefined;
  const entry: { id: string; title: string; workingDirectory: string; projectId?: string; status?: SessionStatus; cols?: number; rows?: number; pid?: number } = {
    id,
    title: str(o, 'title') ?? '',
    workingDirectory: str(o, 'workingDirectory') ?? '',
  };
  const projectId = uuid(o, 'projectId');
  if (projectId) entry.projectId = projectId;
  const status = toStatus(str(o, 'status'));
  if (status) entry.status = status;
  const cols = num(o, 'cols');
  const rows = num(o, 'rows');
  const pid = num(o, 'pid');
  if (cols !== undefined) entry.cols = cols;
  if (rows !== undefined) entry.rows = rows;
  if (pid !== undefined) entry.pid = pid;
  return entry;
}

/** "terminal/snapshot": the native side's full list with live statuses. */
export function applySnapshot(state: TerminalsState, payload: unknown): TerminalsState {
  if (!isObject(payload)) return state;
  const entries = objects(payload, 'sessions', parseSnapshotEntry);
  if (!entries) return state;
  const next = replaceList(state, entries);
  // A session that is running again has no old failure to show.
  next.sessions = next.sessions.map((s) => (s.status === 'booting' || s.status === 'ready' ? clearFailure(s) : s));
  return next;
}

function clearFailure(s: TerminalSession): TerminalSession {
  if (s.errorMessage === undefined && s.exitCode === undefined) return s;
  const copy = { ...s };
  delete copy.errorMessage;
  delete copy.exitCode;
  return copy;
}

function update(state: TerminalsState, id: string | undefined, change: (s: TerminalSession) => TerminalSession): TerminalsState {
  if (!id) return state;
  let hit = false;
  const sessions = state.sessions.map((s) => {
    if (s.id !== id) return s;
    hit = true;
    return change(s);
  });
  return hit ? { sessions } : state;
}

/** Applies one per-session terminal event; unknown types and malformed payloads leave the state as it was. */
export function applyTerminalEvent(state: TerminalsState, type: string, payload: unknown): TerminalsState {
  if (!isObject(payload)) return state;
  const id = uuid(payload, 'sessionId');
  switch (type) {
    case 'terminal/snapshot':
      return applySnapshot(state, payload);
    case 'terminal/created':
      return update(state, id, (s) => {
        const next = clearFailure({ ...s, status: s.status === 'pending' ? 'booting' : s.status, codexRunning: false });
        const pid = num(payload, 'pid');
        const cols = num(payload, 'cols');
        const rows = num(payload, 'rows');
        const title = str(payload, 'title');
        const cwd = str(payload, 'workingDirectory');
        if (pid !== undefined) next.pid = pid;
        if (cols !== undefined) next.cols = cols;
        if (rows !== undefined) next.rows = rows;
        if (title) next.title = title;
        if (cwd) next.workingDirectory = cwd;
        return next;
      });
    case 'terminal/status': {
      const status = toStatus(str(payload, 'status'));
      if (!status) return state;
      const exitCode = num(payload, 'exitCode');
      return update(state, id, (s) => {
        let next: TerminalSession = { ...s, status };
        if (status === 'booting' || status === 'ready') next = clearFailure(next);
        if (status === 'terminated' || status === 'failed' || status === 'closed') next.codexRunning = false;
        if (exitCode !== undefined) next.exitCode = exitCode;
        return next;
      });
    }
    case 'terminal/exit': {
      const exitCode = num(payload, 'exitCode');
      if (exitCode === undefined) return state;
      return update(state, id, (s) => ({ ...s, exitCode, codexRunning: false }));
    }
    case 'terminal/error': {
      const message = str(payload, 'message');
      if (message === undefined) return state;
      // `recoverable` is read only for validation: every failure can be retried by a new terminal.
      if (payload.recoverable !== undefined && bool(payload, 'recoverable') === undefined) return state;
      return update(state, id, (s) => ({ ...s, errorMessage: message }));
    }
    case 'terminal/resize': {
      const cols = num(payload, 'cols');
      const rows = num(payload, 'rows');
      if (cols === undefined || rows === undefined) return state;
      return update(state, id, (s) => ({ ...s, cols, rows }));
    }
    default:
      return state;
  }
}

export type CodexMarker = { kind: 'start' } | { kind: 'end'; status?: number };

/** The body of an OSC 633 sequence written by velko's codex wrapper, or nothing for any other 633 body. */
export function parseCodexMarker(data: string): CodexMarker | undefined {
  if (data === 'velko-codex:start') return { kind: 'start' };
  const prefix = 'velko-codex:end;status=';
  if (!data.startsWith(prefix)) return undefined;
  const digits = data.slice(prefix.length);
  if (!/^-?\d+$/.test(digits)) return { kind: 'end' };
  return { kind: 'end', status: Number(digits) };
}

export function applyCodexMarker(state: TerminalsState, id: string, marker: CodexMarker): TerminalsState {
  return update(state, id, (s) => {
    if (marker.kind === 'start') {
      const next = { ...s, codexRunning: true };
      delete next.codexExitStatus;
      return next;
    }
    const next = { ...s, codexRunning: false };
    if (marker.status !== undefined) next.codexExitStatus = marker.status;
    else delete next.codexExitStatus;
    return next;
  });
}

/** Sessions shown with a project: its own, plus those that belong to no project. */
export function sessionsForProject(state: TerminalsState, projectId: string | undefined): TerminalSession[] {
  return state.sessions.filter((s) => s.projectId === undefined || s.projectId === projectId);
}

/** Whether the user can still type into the session. */
export function acceptsInput(s: TerminalSession): boolean {
  return s.status === 'booting' || s.status === 'ready' || s.status === 'pending' || s.status === 'unavailable';
}
