// Open files, one preview tab each, per project. The text itself lives in
// the editor component; this state tracks what the user must see: which
// file is loading, failed, waiting for a large-file confirmation, whether
// edits since the last acknowledged save are outstanding, how each tab is
// shown, and which tab of each project is on screen. Tabs restored from the
// native side are read only when they come on screen ('unloaded' until then).

import { isObject, num, str, uuid } from '../json';

export type DocKind = 'unloaded' | 'loading' | 'text' | 'image' | 'error';

/** How a tab shows its file: text in the editor, an image, or Markdown rendered in the preview column beside its source. */
export type ViewMode = 'source' | 'rendered' | 'markdown';
export const VIEW_MODES: readonly ViewMode[] = ['source', 'rendered', 'markdown'];

/** Open tabs per project; past it a file is not opened, and the native side is told. */
export const PREVIEW_TAB_LIMIT = 20;

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
  /** The tab's identity in the persisted tab list. */
  tabId: string;
  viewMode: ViewMode;
  /** Milliseconds since 1970 when the tab was last brought forward. */
  lastOpenedAt: number;
  /** The native side found the file gone when the tabs were restored; the tab stays, marked with this text. */
  missing?: string;
}

export interface LargeFileRequest {
  projectId: string;
  path: string;
  sizeBytes: number;
  softLimitBytes: number;
  hardLimitBytes: number;
}

export interface EditorState {
  /** In tab order; each project's tabs are its documents in this order. */
  docs: EditorDoc[];
  /** Per project id: the key of the tab on screen. */
  active: Record<string, string>;
  /** Per project id: the key of the tab shown rendered in the preview column. */
  preview: Record<string, string>;
  confirm?: LargeFileRequest;
}

export const initialEditor: EditorState = { docs: [], active: {}, preview: {} };

export function docKey(projectId: string, path: string): string {
  return `${projectId}\u0000${path}`;
}

export function isDirty(doc: EditorDoc): boolean {
  return doc.kind === 'text' && doc.version !== doc.savedVersion;
}

const IMAGE_RE = /\.(png|jpe?g|gif|webp|bmp|ico|avif)$/i;
const MARKDOWN_RE = /\.(md|markdown|mdown|mkd)$/i;

export function isMarkdownPath(path: string): boolean {
  return MARKDOWN_RE.test(path);
}

/** How a newly opened file is shown; the content event corrects a guess by name. */
export function defaultViewMode(path: string): ViewMode {
  if (IMAGE_RE.test(path)) return 'rendered';
  return isMarkdownPath(path) ? 'markdown' : 'source';
}

export function projectDocs(state: EditorState, projectId: string): EditorDoc[] {
  return state.docs.filter((d) => d.projectId === projectId);
}

/** The project's tab on screen: the remembered one, else its last tab. */
export function activeDoc(state: EditorState, projectId: string | undefined): EditorDoc | undefined {
  if (!projectId) return undefined;
  const docs = projectDocs(state, projectId);
  return docs.find((d) => d.key === state.active[projectId]) ?? docs[docs.length - 1];
}

function without(map: Record<string, string>, projectId: string): Record<string, string> {
  const next = { ...map };
  delete next[projectId];
  return next;
}

/** Brings a tab forward; a rendered or Markdown tab also takes the preview column. */
function focusDoc(state: EditorState, doc: EditorDoc, now: number): EditorState {
  const docs = state.docs.map((d) => (d.key === doc.key ? { ...d, lastOpenedAt: now } : d));
  const preview = doc.viewMode === 'source' ? state.preview : { ...state.preview, [doc.projectId]: doc.key };
  return { ...state, docs, active: { ...state.active, [doc.projectId]: doc.key }, preview };
}

let tabCounter = 0;
export function newTabId(): string {
  tabCounter += 1;
  const random = typeof crypto !== 'undefined' && 'randomUUID' in crypto ? crypto.randomUUID() : `${Date.now()}-${Math.random()}`;
  return `tab-${tabCounter}-${random}`;
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
export function openRequested(state: EditorState, projectId: string, path: string, now = Date.now(), tabId = newTabId()): EditorState {
  const key = docKey(projectId, path);
  const existing = state.docs.find((d) => d.key === key);
  if (existing && existing.kind !== 'error') return focusDoc(state, existing, now);
  const doc: EditorDoc = {
    key,
    projectId,
    path,
    kind: 'loading',
    initialContent: '',
    loadGeneration: existing?.loadGeneration ?? 0,
    version: 0,
    savedVersion: 0,
    tabId: existing?.tabId ?? tabId,
    viewMode: existing?.viewMode ?? defaultViewMode(path),
    lastOpenedAt: now,
  };
  const docs = existing ? state.docs.map((d) => (d.key === key ? doc : d)) : [...state.docs, doc];
  return focusDoc({ ...state, docs }, doc, now);
}

/** A restored tab came on screen: it is read now. */
export function loadRequested(state: EditorState, key: string): EditorState {
  return replaceDoc(state, key, (d) => (d.kind === 'unloaded' ? { ...d, kind: 'loading' } : d));
}

export function closeDoc(state: EditorState, key: string): EditorState {
  const doc = state.docs.find((d) => d.key === key);
  if (!doc) return state;
  const siblings = projectDocs(state, doc.projectId);
  const index = siblings.indexOf(doc);
  const next: EditorState = { ...state, docs: state.docs.filter((d) => d.key !== key) };
  if (state.active[doc.projectId] === key) {
    const rest = siblings.filter((d) => d.key !== key);
    const neighbour = rest[Math.min(index, rest.length - 1)];
    next.active = neighbour ? { ...state.active, [doc.projectId]: neighbour.key } : without(state.active, doc.projectId);
  }
  if (state.preview[doc.projectId] === key) next.preview = without(state.preview, doc.projectId);
  return next;
}

export function activate(state: EditorState, key: string, now = Date.now()): EditorState {
  const doc = state.docs.find((d) => d.key === key);
  return doc ? focusDoc(state, doc, now) : state;
}

/** Markdown rendered beside its source, or the source alone. */
export function setViewMode(state: EditorState, key: string, mode: 'markdown' | 'source'): EditorState {
  const doc = state.docs.find((d) => d.key === key);
  if (!doc || doc.viewMode === mode || doc.viewMode === 'rendered' || !isMarkdownPath(doc.path)) return state;
  const next = replaceDoc(state, key, (d) => ({ ...d, viewMode: mode }));
  if (mode === 'markdown') return { ...next, preview: { ...next.preview, [doc.projectId]: key } };
  return next.preview[doc.projectId] === key ? { ...next, preview: without(next.preview, doc.projectId) } : next;
}

/** Moves a tab before or after another tab of its project. */
export function reorderTab(state: EditorState, dragged: string, target: string, after: boolean): EditorState {
  const from = state.docs.find((d) => d.key === dragged);
  const to = state.docs.find((d) => d.key === target);
  if (!from || !to || from === to || from.projectId !== to.projectId) return state;
  const docs = state.docs.filter((d) => d !== from);
  docs.splice(docs.indexOf(to) + (after ? 1 : 0), 0, from);
  return docs.every((d, i) => d === state.docs[i]) ? state : { ...state, docs };
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
      let loaded: EditorDoc | undefined;
      const next = replaceDoc(state, t.key, (d) => {
        const doc: EditorDoc = {
          ...d,
          kind: image ? 'image' : 'text',
          initialContent: content,
          loadGeneration: d.loadGeneration + 1,
          version: 0,
          savedVersion: 0,
          // The name guessed wrong: an image is shown as one, anything else as text.
          viewMode: image ? 'rendered' : d.viewMode === 'rendered' ? 'source' : d.viewMode,
        };
        delete doc.error;
        delete doc.savingVersion;
        delete doc.missing;
        if (image && mimeType) doc.mimeType = mimeType;
        else delete doc.mimeType;
        loaded = doc;
        return doc;
      });
      if (next === state || !loaded) return state;
      if (loaded.viewMode !== 'source' && next.active[loaded.projectId] === t.key) next.preview = { ...next.preview, [loaded.projectId]: t.key };
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
  const follow = (map: Record<string, string>) => Object.fromEntries(Object.entries(map).map(([p, k]) => [p, keyMap.get(k) ?? k]));
  return { ...state, docs, active: follow(state.active), preview: follow(state.preview) };
}

/** Closes the documents of projects that are no longer open. */
export function keepProjects(state: EditorState, projectIds: string[]): EditorState {
  const keep = new Set(projectIds);
  if (state.docs.every((d) => keep.has(d.projectId))) return state;
  let next = state;
  for (const d of state.docs) if (!keep.has(d.projectId)) next = closeDoc(next, d.key);
  return next;
}
