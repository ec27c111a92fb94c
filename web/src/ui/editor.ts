// Editor column (CodeMirror 6) and preview column. One editor view shows the
// active document; every open document keeps its own editor state (text,
// undo history, selection) while another one is shown.

import { EditorView, keymap, lineNumbers, highlightActiveLine, highlightActiveLineGutter, drawSelection, highlightSpecialChars } from '@codemirror/view';
import { EditorState, Compartment, type Extension } from '@codemirror/state';
import { defaultKeymap, history, historyKeymap, indentWithTab } from '@codemirror/commands';
import { search, searchKeymap, highlightSelectionMatches } from '@codemirror/search';
import { syntaxHighlighting, HighlightStyle, LanguageDescription, bracketMatching, indentOnInput } from '@codemirror/language';
import { languages } from '@codemirror/language-data';
import { tags } from '@lezer/highlight';
import type { App } from '../app';
import { L } from '../labels';
import { isDirty, closeDoc, activate, edited, type EditorDoc } from '../state/editor';
import { baseName } from '../state/explorer';
import { h, reconcile, setText } from './dom';
import { showDialog } from './dialog';

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
}

export function mountEditor(app: App, column: HTMLElement): EditorViewHandle {
  const tabs = h('div', { class: 'doc-tabs', role: 'tablist', 'aria-label': L.editor });
  const header = h('div', { class: 'column-header' }, h('span', { class: 'column-title' }, L.editor), tabs);
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
    else if (doc.kind === 'loading') setText(message, L.loading);
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

  const render = () => {
    const state = app.editor.get();
    const projectId = app.workspace.get().activeProjectId;
    const docs = state.docs.filter((d) => d.projectId === projectId);
    for (const key of [...states.keys()]) if (!state.docs.some((d) => d.key === key)) states.delete(key);
    const active = docs.find((d) => d.key === state.activeKey) ?? docs[docs.length - 1];
    reconcile(
      tabs,
      docs,
      (d) => d.key,
      (d) => {
        const name = h('span', { class: 'doc-name' });
        const dirty = h('span', { class: 'dirty-marker', title: L.unsaved, hidden: true }, '●');
        const close = h('button', { class: 'tab-close', title: L.closeTab, 'aria-label': L.closeTab, tabindex: -1 }, '×');
        const tab = h('div', { class: 'doc-tab', role: 'tab', tabindex: 0 }, name, dirty, close);
        tab.addEventListener('click', () => {
          app.editor.update((s) => activate(s, d.key));
          view.focus();
        });
        close.addEventListener('click', (ev) => {
          ev.stopPropagation();
          const doc = app.editor.get().docs.find((x) => x.key === tab.dataset.key);
          if (doc) void closeTab(doc);
        });
        tab.addEventListener('auxclick', (ev) => {
          if (ev.button !== 1) return;
          const doc = app.editor.get().docs.find((x) => x.key === tab.dataset.key);
          if (doc) void closeTab(doc);
        });
        return tab;
      },
      (el, d) => {
        el.classList.toggle('active', d === active);
        el.setAttribute('aria-selected', String(d === active));
        el.title = d.path;
        setText(el.querySelector('.doc-name')!, baseName(d.path));
        el.querySelector<HTMLElement>('.dirty-marker')!.hidden = !isDirty(d);
        el.classList.toggle('dirty', isDirty(d));
      },
    );
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
  };
}

function renderImage(container: HTMLElement, doc: EditorDoc): void {
  const src = `data:${doc.mimeType ?? 'application/octet-stream'};base64,${doc.initialContent}`;
  const img = container.querySelector('img');
  if (img && img.getAttribute('src') === src) return;
  container.replaceChildren(h('img', { src, alt: doc.path }));
}

export function mountPreview(app: App, column: HTMLElement): void {
  const title = h('span', { class: 'column-title' }, L.preview);
  const header = h('div', { class: 'column-header' }, title);
  const image = h('div', { class: 'doc-image' });
  const empty = h('div', { class: 'empty-note' }, L.noPreview);
  column.append(header, image, empty);
  const render = () => {
    const state = app.editor.get();
    const projectId = app.workspace.get().activeProjectId;
    const doc = state.docs.find((d) => d.key === state.previewKey && d.projectId === projectId && d.kind === 'image');
    image.hidden = !doc;
    empty.hidden = !!doc;
    setText(title, doc ? `${L.preview} — ${baseName(doc.path)}` : L.preview);
    if (doc) renderImage(image, doc);
    else image.replaceChildren();
  };
  app.editor.subscribe(render);
  app.workspace.subscribe(render);
  render();
}
