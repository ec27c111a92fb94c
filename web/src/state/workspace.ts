// Projects and layout as the last "app/config" snapshot describes them. Each
// snapshot replaces the whole workspace: nothing from an earlier one may
// survive, or a closed project could linger as a tab.

import { bool, isObject, str, strings, objects, uuid, type JsonObject } from '../json';

export type ColumnKind = 'explorer' | 'preview' | 'editor' | 'terminal' | 'git';

export const COLUMN_KINDS: readonly ColumnKind[] = ['explorer', 'preview', 'editor', 'terminal', 'git'];
export const DEFAULT_LAYOUT: readonly ColumnKind[] = ['explorer', 'preview', 'editor', 'terminal'];

export interface Project {
  id: string;
  name: string;
  rootPath: string;
  explorerExcludedPaths: string[];
}

export interface ConfiguredSession {
  id: string;
  title: string;
  workingDirectory: string;
  projectId?: string;
  status: string;
}

export interface WorkspaceState {
  loaded: boolean;
  projects: Project[];
  activeProjectId?: string;
  columnLayout: ColumnKind[];
  cliSessions: ConfiguredSession[];
  features: string[];
  hasSavedWorkspace: boolean;
  resumeProjects: Project[];
}

export const initialWorkspace: WorkspaceState = {
  loaded: false,
  projects: [],
  columnLayout: [...DEFAULT_LAYOUT],
  cliSessions: [],
  features: [],
  hasSavedWorkspace: false,
  resumeProjects: [],
};

export function parseProject(o: JsonObject): Project | undefined {
  const id = uuid(o, 'id');
  if (!id) return undefined;
  return {
    id,
    name: str(o, 'name') ?? '',
    rootPath: str(o, 'rootPath') ?? '',
    explorerExcludedPaths: strings(o, 'explorerExcludedPaths') ?? [],
  };
}

export function parseSession(o: JsonObject): ConfiguredSession | undefined {
  const id = uuid(o, 'id');
  if (!id) return undefined;
  const session: ConfiguredSession = {
    id,
    title: str(o, 'title') ?? '',
    workingDirectory: str(o, 'workingDirectory') ?? '',
    status: str(o, 'status') ?? 'pending',
  };
  const projectId = uuid(o, 'projectId');
  if (projectId) session.projectId = projectId;
  return session;
}

/** The column order to show: known kinds only, no repeats, never empty. */
export function normalizeLayout(raw: string[] | undefined): ColumnKind[] {
  const seen = new Set<ColumnKind>();
  for (const item of raw ?? []) {
    if ((COLUMN_KINDS as readonly string[]).includes(item)) seen.add(item as ColumnKind);
  }
  return seen.size > 0 ? [...seen] : [...DEFAULT_LAYOUT];
}

/** "app/config": a full replacement. A payload without a project list is not a snapshot and is ignored. */
export function applyConfig(state: WorkspaceState, payload: unknown): WorkspaceState {
  if (!isObject(payload) || !Array.isArray(payload.projects)) return state;
  const projects = objects(payload, 'projects', parseProject) ?? [];
  const activeId = uuid(payload, 'activeProjectId');
  const next: WorkspaceState = {
    loaded: true,
    projects,
    columnLayout: normalizeLayout(strings(payload, 'columnLayout')),
    cliSessions: objects(payload, 'cliSessions', parseSession) ?? [],
    features: strings(payload, 'features') ?? [],
    hasSavedWorkspace: bool(payload, 'hasSavedWorkspace') ?? false,
    resumeProjects: objects(payload, 'resumeProjects', parseProject) ?? [],
  };
  if (activeId && projects.some((p) => p.id === activeId)) next.activeProjectId = activeId;
  return next;
}

/** "project/activate": the native side has made this project active. */
export function applyActivation(state: WorkspaceState, payload: unknown): WorkspaceState {
  if (!isObject(payload)) return state;
  const id = uuid(payload, 'id');
  if (!id || id === state.activeProjectId || !state.projects.some((p) => p.id === id)) return state;
  return { ...state, activeProjectId: id };
}

export function activeProject(state: WorkspaceState): Project | undefined {
  return state.projects.find((p) => p.id === state.activeProjectId);
}

/** The id order after dragging `dragged` onto the place of `target`. */
export function reorderIds(ids: readonly string[], dragged: string, target: string, after: boolean): string[] {
  if (dragged === target || !ids.includes(dragged) || !ids.includes(target)) return [...ids];
  const rest = ids.filter((id) => id !== dragged);
  const at = rest.indexOf(target) + (after ? 1 : 0);
  rest.splice(at, 0, dragged);
  return rest;
}
