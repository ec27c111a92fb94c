// The open tabs of a project as the native side keeps them between runs:
// the snapshot the page sends with "previewTabs/persist", the one it gets
// back with "previewTab:hydrate", and the tabs "previewTab:warning" names
// as gone. The native side stores what it is given; the page decides what
// a snapshot means.

import { bool, isObject, num, objects, str, uuid, type JsonObject } from '../json';
import { baseName } from './explorer';
import { docKey, isDirty, projectDocs, PREVIEW_TAB_LIMIT, VIEW_MODES, type EditorDoc, type EditorState, type ViewMode } from './editor';

export interface TabSnapshot {
  id: string;
  path: string;
  title: string;
  isDirty: boolean;
  viewMode: ViewMode;
  lastOpenedAt: number;
}

export interface TabsSnapshot {
  activeTabId?: string;
  tabs: TabSnapshot[];
  version: 1;
}

/** The project's tabs in the order shown, as "previewTabs/persist" carries them. */
export function snapshotOf(state: EditorState, projectId: string): TabsSnapshot {
  const docs = projectDocs(state, projectId);
  const tabs = docs.map((d) => ({ id: d.tabId, path: d.path, title: baseName(d.path), isDirty: isDirty(d), viewMode: d.viewMode, lastOpenedAt: Math.trunc(d.lastOpenedAt) }));
  const active = docs.find((d) => d.key === state.active[projectId]);
  return active ? { activeTabId: active.tabId, tabs, version: 1 } : { tabs, version: 1 };
}

function parseTab(o: JsonObject): TabSnapshot | undefined {
  const id = str(o, 'id');
  const path = str(o, 'path');
  const viewMode = str(o, 'viewMode') as ViewMode | undefined;
  if (!id || !path || !viewMode || !VIEW_MODES.includes(viewMode)) return undefined;
  return { id, path, title: str(o, 'title') ?? baseName(path), isDirty: bool(o, 'isDirty') ?? false, viewMode, lastOpenedAt: num(o, 'lastOpenedAt') ?? 0 };
}

/**
 * "previewTab:hydrate": the project's stored tabs come back unread, ahead of
 * any the user opened before they arrived; what is already open wins. Edits
 * that were unsaved when the tabs were stored are not part of a snapshot, so
 * a restored tab starts clean.
 */
export function applyHydrate(state: EditorState, projectId: string, snapshot: unknown): EditorState {
  if (!isObject(snapshot) || num(snapshot, 'version') !== 1) return state;
  const tabs = objects(snapshot, 'tabs', parseTab) ?? [];
  const open = projectDocs(state, projectId);
  const seen = new Set(open.map((d) => d.key));
  const ids = new Set(open.map((d) => d.tabId));
  const restored: EditorDoc[] = [];
  for (const t of tabs) {
    const key = docKey(projectId, t.path);
    if (seen.has(key) || ids.has(t.id) || restored.length + open.length >= PREVIEW_TAB_LIMIT) continue;
    seen.add(key);
    ids.add(t.id);
    restored.push({ key, projectId, path: t.path, kind: 'unloaded', initialContent: '', loadGeneration: 0, version: 0, savedVersion: 0, tabId: t.id, viewMode: t.viewMode, lastOpenedAt: t.lastOpenedAt });
  }
  if (restored.length === 0) return state;
  const firstOpen = state.docs.findIndex((d) => d.projectId === projectId);
  const docs = firstOpen < 0 ? [...state.docs, ...restored] : [...state.docs.slice(0, firstOpen), ...restored, ...state.docs.slice(firstOpen)];
  const next: EditorState = { ...state, docs };
  const activeTabId = str(snapshot, 'activeTabId');
  const active = restored.find((d) => d.tabId === activeTabId);
  if (active && state.active[projectId] === undefined) {
    next.active = { ...state.active, [projectId]: active.key };
    if (active.viewMode !== 'source') next.preview = { ...state.preview, [projectId]: active.key };
  }
  return next;
}

/** "previewTab:warning": the named tabs stay, marked as pointing at a file that is gone. */
export function applyMissing(state: EditorState, payload: unknown): EditorState {
  if (!isObject(payload)) return state;
  const projectId = uuid(payload, 'projectId');
  const gone = new Map<string, string>();
  for (const w of objects(payload, 'tabs', (o) => o) ?? []) {
    const tabId = str(w, 'tabId');
    if (tabId) gone.set(tabId, str(w, 'message') ?? '');
  }
  let changed = false;
  const docs = state.docs.map((d) => {
    if (d.projectId !== projectId || !gone.has(d.tabId)) return d;
    changed = true;
    return { ...d, missing: gone.get(d.tabId)! };
  });
  return changed ? { ...state, docs } : state;
}
