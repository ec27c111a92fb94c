// Open files of the editor and preview. The text itself lives in the editor
// component; this state tracks what the user must see: which file is
// loading, failed, waiting for a large-file confirmation, and whether edits
// since the last acknowledged save are outstanding.

import { isObject, num, str, uuid } from '../json';

export type DocKind = 'loading' | 'text' | 'image' | 'error';

export interface EditorDoc {
  key: string;
  projectId: string;
  path: string;
  kind: DocKind;
  /** Text as loaded (for 'text'), base64 data (for 'image'). */
  initialContent: string;
  /** Bumped on every load, so the editor knows its text must be replaced. */
  loadGeneration: number;
  mimeType?: string;
  error?: string;
  /** Edit counter; the document is dirty while it differs from `savedVersion`. */
  version: number;
  savedVersion: number;
  /** The version that the outstanding save carries. */
  savingVersion?: number;
}

export interface LargeFileRequest {
  projectId: string;
  path: string;
  sizeBytes: number;
  softLimitBytes: number;
  hardLimitBytes: number;
}

export interface EditorState {
  docs: EditorDoc[];
  activeKey?: string;
  /** The image shown in the preview column. */
  previewKey?: string;
  confirm?: LargeFileRequest;
}

export const initialEditor: EditorState = { docs: [] };

export function docKey(projectId: string, path: string): string {
  return `${projectId}\u0000${path}`;
}

export function isDirty(doc: EditorDoc): boolean {
  return doc.kind === 'text' && doc.version !== doc.savedVersion;
}

function replaceDoc(state: EditorState, key: string, change: (d: EditorDoc) => EditorDoc): EditorState {
  let hit = false;
  const docs = state.docs.map((d) => {
    if (d.key !== key) return d;
    hit = true;
    return change(d);
  });
  return hit ? { ...state, docs } : state;
}

/** The user asked to open a file: show it at once as loading, unless it is already open. */
export function openRequested(state: EditorState, projectId: string, path: string): EditorState {
  const key = docKey(projectId, path);
  const existing = state.docs.find((d) => d.key === key);
  if (existing && existing.kind !== 'error') return { ...state, activeKey: key };
  const doc: EditorDoc = { key, projectId, path, kind: 'loading', initialContent: '', loadGeneration: 0, version: 0, savedVersion: 0 };
  const docs = existing ? state.docs.map((d) => (d.key === key ? doc : d)) : [...state.docs, doc];
  return { ...state, docs, activeKey: key };
}

export function closeDoc(state: EditorState, key: string): EditorState {
  const index = state.docs.findIndex((d) => d.key === key);
  if (index < 0) return state;
  const docs = state.docs.filter((d) => d.key !== key);
  const next: EditorState = { ...state, docs };
  if (state.activeKey === key) {
    const neighbour = docs[Math.min(index, docs.length - 1)];
    if (neighbour) next.activeKey = neighbour.key;
    else delete next.activeKey;
  }
  if (state.previewKey === key) delete next.previewKey;
  return next;
}

export function activate(state: EditorState, key: string): EditorState {
  return state.docs.some((d) => d.key === key) ? { ...state, activeKey: key } : state;
}

export function edited(state: EditorState, key: string): EditorState {
  return replaceDoc(state, key, (d) => ({ ...d, version: d.version + 1 }));
}

/** The user saved: remember which edit the save carries. */
export function saveRequested(state: EditorState, key: string): EditorState {
  return replaceDoc(state, key, (d) => ({ ...d, savingVersion: d.version }));
}

function target(payload: unknown): { projectId: string; path: string; key: string; p: Record<string, unknown> } | undefined {
  if (!isObject(payload)) return undefined;
  const projectId = uuid(payload, 'projectId');
  const path = str(payload, 'path');
  if (!projectId || path === undefined) return undefined;
  return { projectId, path, key: docKey(projectId, path), p: payload };
}

/** Applies a file event of the native side; events for files we do not hold are ignored. */
export function applyFileEvent(state: EditorState, type: string, payload: unknown): EditorState {
  const t = target(payload);
  if (!t) return state;
  switch (type) {
    case 'project/file/content': {
      const content = str(t.p, 'content');
      if (content === undefined) return state;
      const image = str(t.p, 'encoding') === 'base64';
      const mimeType = str(t.p, 'mimeType');
      const next = replaceDoc(state, t.key, (d) => {
        const doc: EditorDoc = {
          ...d,
          kind: image ? 'image' : 'text',
          initialContent: content,
          loadGeneration: d.loadGeneration + 1,
          version: 0,
          savedVersion: 0,
        };
        delete doc.error;
        delete doc.savingVersion;
        if (image && mimeType) doc.mimeType = mimeType;
        else delete doc.mimeType;
        return doc;
      });
      if (next === state) return state;
      if (image) next.previewKey = t.key;
      if (next.confirm && docKey(next.confirm.projectId, next.confirm.path) === t.key) delete next.confirm;
      return next;
    }
    case 'project/file/confirm': {
      const sizeBytes = num(t.p, 'sizeBytes');
      if (sizeBytes === undefined || !state.docs.some((d) => d.key === t.key)) return state;
      return {
        ...state,
        confirm: {
          projectId: t.projectId,
          path: t.path,
          sizeBytes,
          softLimitBytes: num(t.p, 'softLimitBytes') ?? 31457280,
          hardLimitBytes: num(t.p, 'hardLimitBytes') ?? 314572800,
        },
      };
    }
    case 'project/file/saved':
      return replaceDoc(state, t.key, (d) => {
        if (d.savingVersion === undefined) return d;
        const doc = { ...d, savedVersion: d.savingVersion };
        delete doc.savingVersion;
        return doc;
      });
    case 'project/file/error': {
      const message = str(t.p, 'message') ?? '';
      // Rename failures carry a code and concern the explorer, not an open document.
      if (str(t.p, 'code') !== undefined) return state;
      return replaceDoc(state, t.key, (d) => {
        if (d.kind === 'loading') return { ...d, kind: 'error', error: message };
        if (d.savingVersion !== undefined) {
          const doc = { ...d };
          delete doc.savingVersion;
          return doc;
        }
        return d;
      });
    }
    default:
      return state;
  }
}

/** The user declined to open a large file. */
export function dismissConfirm(state: EditorState): EditorState {
  if (!state.confirm) return state;
  const key = docKey(state.confirm.projectId, state.confirm.path);
  const next = closeDoc(state, key);
  delete next.confirm;
  return { ...next };
}

export function acceptConfirm(state: EditorState): EditorState {
  if (!state.confirm) return state;
  const next = { ...state };
  delete next.confirm;
  return next;
}

/** "project/file/renamed": open documents follow their file or folder. */
export function applyRenamed(state: EditorState, payload: unknown): EditorState {
  const t = target(payload);
  if (!t) return state;
  const nextPath = str(t.p, 'nextPath');
  if (nextPath === undefined) return state;
  const folder = str(t.p, 'entityType') === 'folder';
  const rewrite = (path: string): string | undefined => {
    if (path === t.path) return nextPath;
    if (folder && path.startsWith(`${t.path}/`)) return nextPath + path.slice(t.path.length);
    return undefined;
  };
  let changed = false;
  const keyMap = new Map<string, string>();
  const docs = state.docs.map((d) => {
    if (d.projectId !== t.projectId) return d;
    const path = rewrite(d.path);
    if (path === undefined) return d;
    changed = true;
    const key = docKey(d.projectId, path);
    keyMap.set(d.key, key);
    return { ...d, path, key };
  });
  if (!changed) return state;
  const next: EditorState = { ...state, docs };
  if (state.activeKey && keyMap.has(state.activeKey)) next.activeKey = keyMap.get(state.activeKey)!;
  if (state.previewKey && keyMap.has(state.previewKey)) next.previewKey = keyMap.get(state.previewKey)!;
  return next;
}

/** Closes the documents of projects that are no longer open. */
export function keepProjects(state: EditorState, projectIds: string[]): EditorState {
  const keep = new Set(projectIds);
  if (state.docs.every((d) => keep.has(d.projectId))) return state;
  let next = state;
  for (const d of state.docs) if (!keep.has(d.projectId)) next = closeDoc(next, d.key);
  return next;
}
