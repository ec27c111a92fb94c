// The explorer column: a lazily loaded tree of the active project. Click or
// Enter opens a file or toggles a folder; F2 (or the context menu) renames
// in place. With no project open it offers to open one or to resume.

import type { App } from '../app';
import { L } from '../labels';
import { treeFor, visibleRows, type ExplorerNode } from '../state/explorer';
import { activeProject } from '../state/workspace';
import { h, reconcile, setText } from './dom';

export function mountExplorer(app: App, column: HTMLElement, focusEditor: () => boolean): void {
  const title = h('span', { class: 'column-title' }, L.explorer);
  const reload = h('button', { class: 'icon-button', title: L.reload, 'aria-label': L.reload }, '⟳');
  const header = h('div', { class: 'column-header' }, title, h('span', { class: 'spacer' }), reload);
  const tree = h('div', { class: 'tree', role: 'tree', 'aria-label': L.explorer });
  const status = h('div', { class: 'tree-status' });
  const emptyState = h('div', { class: 'empty-workspace', hidden: true });
  column.append(header, emptyState, status, tree);

  let renaming: string | undefined;
  let selected: string | undefined;

  const focusEditorWhenLoaded = () => {
    if (focusEditor()) return;
    const stop = app.editor.subscribe(() => {
      if (focusEditor()) stop();
    });
    // Give up if nothing arrives; a load error is shown in place anyway.
    setTimeout(stop, 5000);
  };

  reload.addEventListener('click', () => {
    const id = app.activeProjectId;
    if (id) app.reloadExplorer(id);
  });

  const activate = (node: ExplorerNode) => {
    const id = app.activeProjectId;
    if (!id) return;
    selected = node.path;
    if (node.type === 'folder') app.toggleFolder(id, node.path);
    else app.openFile(id, node.path);
    render();
  };

  const startRename = (row: HTMLElement, node: ExplorerNode) => {
    const id = app.activeProjectId;
    if (!id) return;
    renaming = node.path;
    const label = row.querySelector<HTMLElement>('.node-name')!;
    const input = h('input', { class: 'rename-input', value: node.name, 'aria-label': L.rename, spellcheck: 'false' });
    label.hidden = true;
    row.append(input);
    input.focus();
    const dot = node.type === 'file' ? node.name.lastIndexOf('.') : -1;
    input.setSelectionRange(0, dot > 0 ? dot : node.name.length);
    let finished = false;
    const finish = (commit: boolean) => {
      if (finished) return;
      finished = true;
      renaming = undefined;
      const value = input.value;
      input.remove();
      label.hidden = false;
      row.focus();
      if (commit) app.renameItem(id, node.path, value, node.type);
    };
    input.addEventListener('keydown', (ev) => {
      ev.stopPropagation();
      if (ev.key === 'Enter') finish(true);
      else if (ev.key === 'Escape') finish(false);
    });
    // Leaving the field keeps the new name, as in other editors; Escape is the way out.
    input.addEventListener('blur', () => finish(true));
    input.addEventListener('click', (ev) => ev.stopPropagation());
  };

  const create = () => {
    const twisty = h('span', { class: 'twisty' });
    const name = h('span', { class: 'node-name' });
    const row = h('div', { class: 'tree-row', role: 'treeitem', tabindex: -1 }, twisty, name);
    row.addEventListener('click', () => {
      const node = nodeOf(row);
      if (node && renaming !== node.path) activate(node);
    });
    // A double click means "edit it now": the editor takes the keyboard once the text is there.
    row.addEventListener('dblclick', () => {
      const node = nodeOf(row);
      if (node?.type === 'file' && renaming !== node.path) focusEditorWhenLoaded();
    });
    row.addEventListener('contextmenu', (ev) => {
      const node = nodeOf(row);
      if (!node) return;
      ev.preventDefault();
      startRename(row, node);
    });
    row.addEventListener('keydown', (ev) => {
      const node = nodeOf(row);
      if (!node) return;
      if (ev.key === 'Enter') activate(node);
      else if (ev.key === 'F2') startRename(row, node);
      else if (ev.key === 'ArrowDown' || ev.key === 'ArrowUp') {
        const sibling = (ev.key === 'ArrowDown' ? row.nextElementSibling : row.previousElementSibling) as HTMLElement | null;
        sibling?.focus();
        if (sibling) selected = sibling.dataset.key;
      } else if (ev.key === 'ArrowRight' || ev.key === 'ArrowLeft') {
        const id = app.activeProjectId;
        const open = row.getAttribute('aria-expanded') === 'true';
        if (id && node.type === 'folder' && open === (ev.key === 'ArrowLeft')) app.toggleFolder(id, node.path);
      } else return;
      ev.preventDefault();
    });
    return row;
  };

  const nodes = new WeakMap<HTMLElement, ExplorerNode>();
  const nodeOf = (row: HTMLElement) => nodes.get(row);

  const render = () => {
    const ws = app.workspace.get();
    const project = activeProject(ws);
    emptyState.hidden = project !== undefined || !ws.loaded;
    if (!project) {
      renderEmpty(app, emptyState);
      tree.replaceChildren();
      status.hidden = true;
      setText(title, L.explorer);
      return;
    }
    setText(title, project.name || L.explorer);
    const t = treeFor(app.explorer.get(), project.id);
    const rows = visibleRows(t);
    const root = t.dirs[''];
    status.hidden = !(root === undefined || root.error !== undefined || root.nodes.length === 0);
    setText(status, root === undefined ? L.loading : root.error ? L.explorerErrors[root.error] ?? root.error : L.emptyFolder);
    reconcile(tree, rows, (r) => r.node.path, create, (el, r) => {
      nodes.set(el, r.node);
      const open = r.node.type === 'folder' && t.expanded.includes(r.node.path);
      const listing = t.dirs[r.node.path];
      el.style.paddingLeft = `${8 + r.depth * 14}px`;
      el.dataset.type = r.node.type;
      el.classList.toggle('selected', r.node.path === selected);
      // One row takes part in Tab order: the selected one, else the first.
      el.tabIndex = r.node.path === (selected ?? rows[0]?.node.path) ? 0 : -1;
      if (r.node.type === 'folder') el.setAttribute('aria-expanded', String(open));
      else el.removeAttribute('aria-expanded');
      el.title = r.node.path;
      setText(el.querySelector('.twisty')!, r.node.type === 'folder' ? (open ? '▾' : '▸') : '');
      const label = el.querySelector<HTMLElement>('.node-name')!;
      let text = r.node.name;
      if (open && t.loading.includes(r.node.path) && !listing) text += `  ${L.loading}`;
      else if (open && listing?.error) text += `  (${L.explorerErrors[listing.error] ?? listing.error})`;
      setText(label, text);
    });
    if (selected && !rows.some((r) => r.node.path === selected)) selected = undefined;
  };

  app.explorer.subscribe(render);
  app.workspace.subscribe(render);
  // After a rename the new entry keeps the selection.
  app.bridge.on('project/file/renamed', (p) => {
    if (typeof p.path === 'string' && typeof p.nextPath === 'string' && selected === p.path) selected = p.nextPath;
  });
  render();
}

function renderEmpty(app: App, el: HTMLElement): void {
  const ws = app.workspace.get();
  const key = `${ws.hasSavedWorkspace}:${ws.resumeProjects.map((p) => p.id).join()}`;
  if (el.dataset.key === key) return;
  el.dataset.key = key;
  const children: Node[] = [
    h('p', { class: 'empty-title' }, L.noProjects),
    h('p', { class: 'empty-hint' }, L.openFolderHint),
    h('button', { class: 'primary-button', onclick: () => app.openProject() }, L.openProject),
  ];
  if (ws.hasSavedWorkspace) {
    children.push(
      h('button', { class: 'secondary-button resume-button', onclick: () => app.resumeWorkspace() }, L.resumeWorkspace),
      h('ul', { class: 'resume-list' }, ...ws.resumeProjects.map((p) => h('li', { title: p.rootPath }, p.name || p.rootPath))),
    );
  }
  el.replaceChildren(...children);
}
