// The git column: a header with the refresh button and, below it, the view of
// the active project's repository. The column holds its views as a list so
// that more of them (history, graph, branches) can sit beside the changes.

import type { App } from '../../app';
import { L } from '../../labels';
import { h } from '../dom';
import { mountChanges } from './changes';

/** One view of the git column. */
export interface GitView {
  readonly element: HTMLElement;
  /** Draws the project's state; called whenever the git store or the active project changes. */
  render(projectId: string): void;
}

export function mountGit(app: App, column: HTMLElement): void {
  const refresh = h('button', { class: 'icon-button', title: L.refresh, 'aria-label': L.refresh }, '⟳');
  const header = h('div', { class: 'column-header' }, h('span', { class: 'column-title' }, L.git), h('span', { class: 'spacer' }), refresh);
  const views: GitView[] = [mountChanges(app)];
  const shown = views[0]!;
  const body = h('div', { class: 'git-body' }, shown.element);
  const none = h('div', { class: 'empty-note' }, L.noProjects);
  column.append(header, body, none);

  refresh.addEventListener('click', () => {
    const id = app.activeProjectId;
    if (id) app.refreshGit(id);
  });

  const render = () => {
    const id = app.activeProjectId;
    body.hidden = !id;
    none.hidden = !!id;
    if (id) shown.render(id);
  };
  app.git.subscribe(render);
  app.workspace.subscribe((s, prev) => {
    if (s.activeProjectId !== prev.activeProjectId) render();
  });
  render();
}
