// The columns in the configuration's order. The git panel is not part of the
// default layout, but without it there is no way to commit, so a layout
// that leaves it out still gets it as the last column.

import type { App } from '../app';
import type { ColumnKind } from '../state/workspace';
import { h } from './dom';

export function columnOrder(layout: readonly ColumnKind[]): ColumnKind[] {
  return layout.includes('git') ? [...layout] : [...layout, 'git'];
}

export function mountLayout(app: App, root: HTMLElement): Record<ColumnKind, HTMLElement> {
  const columns: Record<ColumnKind, HTMLElement> = {
    explorer: h('section', { class: 'column column-explorer', 'data-column': 'explorer' }),
    preview: h('section', { class: 'column column-preview', 'data-column': 'preview' }),
    editor: h('section', { class: 'column column-editor', 'data-column': 'editor' }),
    terminal: h('section', { class: 'column column-terminal', 'data-column': 'terminal' }),
    git: h('section', { class: 'column column-git', 'data-column': 'git' }),
  };
  const render = () => {
    const order = columnOrder(app.workspace.get().columnLayout);
    const current = Array.from(root.children).map((c) => (c as HTMLElement).dataset.column);
    if (current.join() === order.join()) return;
    for (const kind of Object.keys(columns) as ColumnKind[]) if (!order.includes(kind)) columns[kind].remove();
    root.append(...order.map((k) => columns[k]));
  };
  app.workspace.subscribe((s, prev) => {
    if (s.columnLayout !== prev.columnLayout) render();
  });
  render();
  return columns;
}
