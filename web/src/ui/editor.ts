// Editor column (CodeMirror 6) and preview column. Each open file is a tab
// of its project; one editor view shows the tab on screen, and every tab
// keeps its own editor state (text, undo history, selection) while another
// one is shown. The preview column shows the project's image or Markdown
// tab, the Markdown rendered from the editor's current text.

import { EditorView, keymap, lineNumbers, highlightActiveLine, highlightActiveLineGutter, drawSelection, highlightSpecialChars } from '@codemirror/view';
import { EditorState, Compartment, type Extension } from '@codemirror/state';
import { defaultKeymap, history, historyKeymap, indentWithTab } from '@codemirror/commands';
import { search, searchKeymap, highlightSelectionMatches } from '@codemirror/search';
import { syntaxHighlighting, HighlightStyle, LanguageDescription, bracketMatching, indentOnInput } from '@codemirror/language';
import { languages } from '@codemirror/language-data';
import { tags } from '@lezer/highlight';
import type { App } from '../app';
import { L } from '../labels';
import { isDirty, closeDoc, edited, activeDoc, isMarkdownPath, type EditorDoc } from '../state/editor';
import { baseName } from '../state/explorer';
import { tabReordering } from './tabDrag';
import { h, reconcile, setText } from './dom';
import { showDialog } from './dialog';
import { renderMarkdown } from './markdown';

const highlight = HighlightStyle.define([
  { tag: [tags.keyword, tags.controlKeyword, tags.moduleKeyword], color: '#c49bf0' },
  { tag: [tags.string, tags.special(tags.string)], color: '#8bd49c' },
  { tag: [tags.number, tags.bool, tags.null], color: '#e6a06b' },
  { tag: [tags.comment, tags.lineComment, tags.blockComment], color: '#6b7385', fontStyle: 'italic' },
  { tag: [tags.function(tags.variableName), tags.function(tags.propertyName)], color: '#6ea8fe' },
  { tag: [tags.typeName, tags.className, tags.namespace], color: '#e6c07b' },
  { tag: [tags.propertyName, tags.attributeName], color: '#5fd1e0' },
  { tag: [tags.tagName, tags.heading], color: '#ef6b73', fontWeight: 'bold' },
  { tag: [tags.operator, tags.punctuation], color: '#a0a7b4' },
  { tag: [tags.link, tags.url], color: '#6ea8fe', textDecoration: 'underline' },
  { tag: tags.invalid, color: '#ff5c5c' },
]);

const theme = EditorView.theme(
  {
    '&': { backgroundColor: '#05060a', color: '#d7dae0', height: '100%' },
    '.cm-content': { caretColor: '#8ab4ff' },
    '.cm-gutters': { backgroundColor: '#0a0c12', color: '#4b5263', border: 'none' },
    '.cm-activeLine': { backgroundColor: '#10131c' },
    '.cm-activeLineGutter': { backgroundColor: '#10131c', color: '#8a93a6' },
    '&.cm-focused .cm-selectionBackground, .cm-selectionBackground, ::selection': { backgroundColor: '#2a3b5c' },
    '.cm-cursor': { borderLeftColor: '#8ab4ff' },
    '.cm-panels': { backgroundColor: '#0a0c12', color: '#d7dae0' },
    '.cm-panels.cm-panels-top': { borderBottom: '1px solid #1c2130' },
    '.cm-textfield': { backgroundColor: '#05060a', color: '#d7dae0', border: '1px solid #1c2130' },
    '.cm-button': { backgroundImage: 'none', backgroundColor: '#10131c', color: '#d7dae0', border: '1px solid #1c2130' },
    '.cm-searchMatch': { backgroundColor: '#4a3b1066', outline: '1px solid #e6c07b55' },
    '.cm-searchMatch.cm-searchMatch-selected': { backgroundColor: '#6ea8fe55' },
    '.cm-selectionMatch': { backgroundColor: '#2a3b5c88' },
  },
  { dark: true },
);

/** The editor's own words (search panel, go to line) in Japanese like the rest of the page. */
const PHRASES: Record<string, string> = {
  Find: '検索',
  Replace: '置換',
  next: '次へ',
  previous: '前へ',
  all: 'すべて',
  'match case': '大文字と小文字を区別',
  'by word': '単語単位',
  regexp: '正規表現',
  replace: '置換',
  'replace all': 'すべて置換',
  close: '閉じる',
  'current match': '現在の一致',
  'on line': '行',
  'replaced match on line $': '$ 行目を置換しました',
  'replaced $ matches': '$ 件を置換しました',
  'Go to line': '行へ移動',
  go: '移動',
};

export interface EditorViewHandle {
  focus(): boolean;
  /** The text of an open tab as it stands in the editor, edits included. */
  textOf(key: string): string | undefined;
}

export function mountEditor(app: App, column: HTMLElement): EditorViewHandle {
  const tabs = h('div', { class: 'doc-tabs', role: 'tablist', 'aria-label': L.editor });
  const rendered = h('button', { class: 'text-button view-mode', title: L.renderMarkdown, 'aria-pressed': 'false', hidden: true }, 'Markdown');
  const header = h('div', { class: 'column-header' }, h('span', { class: 'column-title' }, L.editor), tabs, rendered);
  const message = h('div', { class: 'doc-message', hidden: true });
  const image = h('div', { class: 'doc-image', hidden: true });
  const host = h('div', { class: 'cm-host', hidden: true });
  const empty = h('div', { class: 'empty-note' }, L.noFileOpen);
  column.append(header, message, image, host, empty);

  const states = new Map<string, { state: EditorState; generation: number }>();
  let shownKey: string | undefined;
  const language = new Compartment();

  const save = (): boolean => {
    if (!shownKey) return false;
    app.saveFile(shownKey, view.state.doc.toString());
    return true;
  };

  const extensions: Extension[] = [
    lineNumbers(),
    highlightActiveLineGutter(),
    highlightSpecialChars(),
    history(),
    drawSelection(),
    indentOnInput(),
    bracketMatching(),
    highlightActiveLine(),
    highlightSelectionMatches(),
    search({ top: true }),
    syntaxHighlighting(highlight),
    theme,
    EditorState.phrases.of(PHRASES),
    keymap.of([{ key: 'Mod-s', run: save, preventDefault: true }, indentWithTab, ...defaultKeymap, ...historyKeymap, ...searchKeymap]),
    EditorView.updateListener.of((update) => {
      if (update.docChanged && shownKey) app.editor.update((s) => edited(s, shownKey!));
    }),
  ];

  const view = new EditorView({ parent: host, state: EditorState.create({ doc: '', extensions: [...extensions, language.of([])] }) });

  const stateFor = (doc: EditorDoc): EditorState => {
    const stored = states.get(doc.key);
    if (stored && stored.generation === doc.loadGeneration) return stored.state;
    const state = EditorState.create({ doc: doc.initialContent, extensions: [...extensions, language.of([])] });
    states.set(doc.key, { state, generation: doc.loadGeneration });
    const desc = LanguageDescription.matchFilename(languages, baseName(doc.path));
    if (desc) {
      desc
        .load()
        .then((support) => {
          const effects = language.reconfigure(support);
          if (shownKey === doc.key) view.dispatch({ effects });
          else {
            const cur = states.get(doc.key);
            if (cur) states.set(doc.key, { ...cur, state: cur.state.update({ effects }).state });
          }
        })
        .catch(() => undefined);
    }
    return state;
  };

  const show = (doc: EditorDoc | undefined) => {
    if (shownKey && states.has(shownKey) && shownKey !== doc?.key) {
      states.set(shownKey, { ...states.get(shownKey)!, state: view.state });
    }
    const isText = doc?.kind === 'text';
    host.hidden = !isText;
    image.hidden = doc?.kind !== 'image';
    message.hidden = !doc || isText || doc.kind === 'image';
    empty.hidden = doc !== undefined;
    if (!doc) {
      shownKey = undefined;
      return;
    }
    if (isText) {
      const stored = states.get(doc.key);
      const fresh = !stored || stored.generation !== doc.loadGeneration;
      if (shownKey !== doc.key || fresh) {
        const hadFocus = view.hasFocus;
        shownKey = undefined; // setState must not count as an edit
        view.setState(stateFor(doc));
        if (hadFocus) view.focus();
      }
    }
    shownKey = doc.key;
    if (doc.kind === 'image') renderImage(image, doc);
    else if (doc.kind === 'loading' || doc.kind === 'unloaded') setText(message, L.loading);
    else if (doc.kind === 'error') setText(message, doc.error ?? '');
    message.classList.toggle('error', doc.kind === 'error');
  };

  const closeTab = async (doc: EditorDoc) => {
    if (isDirty(doc)) {
      const ok = await showDialog({ title: L.closeTab, body: L.discardChanges(baseName(doc.path)), confirm: L.closeTab, danger: true });
      if (!ok) return;
    }
    states.delete(doc.key);
    app.editor.update((s) => closeDoc(s, doc.key));
  };

  rendered.addEventListener('click', () => {
    const doc = activeDoc(app.editor.get(), app.activeProjectId);
    if (doc) app.setViewMode(doc.key, doc.viewMode === 'markdown' ? 'source' : 'markdown');
  });

  const reorderable = tabReordering(tabs, (from, to, after) => app.reorderTab(from, to, after), (tab) => tab.title);
  const tabFor = (el: HTMLElement) => app.editor.get().docs.find((x) => x.key === el.dataset.key);
  const createTab = () => {
    const name = h('span', { class: 'doc-name' });
    const dirty = h('span', { class: 'dirty-marker', title: L.unsaved, hidden: true }, '●');
    const close = h('button', { class: 'tab-close', title: L.closeTab, 'aria-label': L.closeTab, tabindex: -1 }, '×');
    const tab = h('div', { class: 'doc-tab', role: 'tab', tabindex: 0, draggable: 'true' }, name, dirty, close);
    tab.addEventListener('click', () => {
      app.activateTab(tab.dataset.key!);
      view.focus();
    });
    close.addEventListener('click', (ev) => {
      ev.stopPropagation();
      const doc = tabFor(tab);
      if (doc) void closeTab(doc);
    });
    tab.addEventListener('auxclick', (ev) => {
      if (ev.button !== 1) return;
      const doc = tabFor(tab);
      if (doc) void closeTab(doc);
    });
    reorderable(tab);
    return tab;
  };

  const render = () => {
    const state = app.editor.get();
    const projectId = app.workspace.get().activeProjectId;
    const docs = state.docs.filter((d) => d.projectId === projectId);
    for (const key of [...states.keys()]) if (!state.docs.some((d) => d.key === key)) states.delete(key);
    const active = activeDoc(state, projectId);
    reconcile(tabs, docs, (d) => d.key, createTab, (el, d) => {
      el.classList.toggle('active', d === active);
      el.setAttribute('aria-selected', String(d === active));
      el.title = d.missing ? `${d.path} — ${d.missing}` : d.path;
      setText(el.querySelector('.doc-name')!, baseName(d.path));
      el.querySelector<HTMLElement>('.dirty-marker')!.hidden = !isDirty(d);
      el.classList.toggle('dirty', isDirty(d));
      el.classList.toggle('missing', d.missing !== undefined);
    });
    rendered.hidden = !active || !isMarkdownPath(active.path) || active.viewMode === 'rendered';
    rendered.setAttribute('aria-pressed', String(active?.viewMode === 'markdown'));
    rendered.classList.toggle('active', active?.viewMode === 'markdown');
    show(active);
  };

  app.editor.subscribe(render);
  app.workspace.subscribe((s, prev) => {
    if (s.activeProjectId !== prev.activeProjectId) render();
  });
  render();

  return {
    focus() {
      if (host.hidden) return false;
      view.focus();
      return true;
    },
    textOf(key) {
      if (key === shownKey && !host.hidden) return view.state.doc.toString();
      return states.get(key)?.state.doc.toString() ?? app.editor.get().docs.find((d) => d.key === key)?.initialContent;
    },
  };
}

function renderImage(container: HTMLElement, doc: EditorDoc): void {
  const src = `data:${doc.mimeType ?? 'application/octet-stream'};base64,${doc.initialContent}`;
  const img = container.querySelector('img');
  if (img && img.getAttribute('src') === src) return;
  container.replaceChildren(h('img', { src, alt: doc.path }));
}

const MARKDOWN_DELAY_MS = 150;

export function mountPreview(app: App, column: HTMLElement, textOf: (key: string) => string | undefined): void {
  const title = h('span', { class: 'column-title' }, L.preview);
  const header = h('div', { class: 'column-header' }, title);
  const image = h('div', { class: 'doc-image' });
  const markdown = h('article', { class: 'markdown-body' });
  const empty = h('div', { class: 'empty-note' }, L.noPreview);
  column.append(header, image, markdown, empty);

  const shownDoc = () => {
    const state = app.editor.get();
    const projectId = app.workspace.get().activeProjectId;
    const key = projectId ? state.preview[projectId] : undefined;
    return state.docs.find((d) => d.key === key && (d.kind === 'image' || (d.kind === 'text' && d.viewMode === 'markdown')));
  };
  const stamp = (doc: EditorDoc) => `${doc.key}\u0000${doc.loadGeneration}\u0000${doc.version}`;
  /** The tab, load and edit the Markdown view shows. */
  let drawn = '';
  let timer: ReturnType<typeof setTimeout> | undefined;
  const drawMarkdown = (doc: EditorDoc) => {
    drawn = stamp(doc);
    const scroll = markdown.scrollTop;
    markdown.replaceChildren(renderMarkdown(textOf(doc.key) ?? doc.initialContent, { path: doc.path, openPath: (path) => app.openFile(doc.projectId, path) }));
    markdown.scrollTop = scroll;
  };

  const render = () => {
    const doc = shownDoc();
    image.hidden = doc?.kind !== 'image';
    markdown.hidden = doc?.kind !== 'text';
    empty.hidden = !!doc;
    setText(title, doc ? `${L.preview} — ${baseName(doc.path)}` : L.preview);
    if (doc?.kind === 'image') renderImage(image, doc);
    else image.replaceChildren();
    if (doc?.kind !== 'text') {
      drawn = '';
      markdown.replaceChildren();
      return;
    }
    // Another file or a fresh load is drawn at once; edits are drawn after a pause in typing.
    if (!drawn.startsWith(`${doc.key}\u0000${doc.loadGeneration}\u0000`)) {
      clearTimeout(timer);
      timer = undefined;
      drawMarkdown(doc);
    } else if (stamp(doc) !== drawn && timer === undefined) {
      timer = setTimeout(() => {
        timer = undefined;
        const now = shownDoc();
        if (now?.kind === 'text') drawMarkdown(now);
      }, MARKDOWN_DELAY_MS);
    }
  };
  app.editor.subscribe(render);
  app.workspace.subscribe(render);
  render();
}
