// The git column: a header with the refresh button, tabs for its views
// (changes, history, graph, branches), and the chosen view of the active
// project's repository. A view is opened when it comes on screen for a
// project (tab chosen, project switched) and again on refresh; that is when
// it asks the native side for its data.

import type { App } from '../../app';
import { L } from '../../labels';
import { h } from '../dom';
import { mountBranchMap } from './branchMap';
import { mountChanges } from './changes';
import { mountGraph } from './graph';
import { mountHistory } from './history';

/** One view of the git column. */
export interface GitView {
  readonly element: HTMLElement;
  /** Draws the project's state; called whenever the column's stores or the active project change. */
  render(projectId: string): void;
  /** The view came on screen for the project, or the user asked for a refresh. */
  open?(projectId: string): void;
  /** The view left the screen. */
  close?(): void;
}

type TabId = keyof typeof L.gitTabs;

export function mountGit(app: App, column: HTMLElement): void {
  const refresh = h('button', { class: 'icon-button', title: L.refresh, 'aria-label': L.refresh }, '⟳');
  const header = h('div', { class: 'column-header' }, h('span', { class: 'column-title' }, L.git), h('span', { class: 'spacer' }), refresh);
  const views: Record<TabId, GitView> = { changes: mountChanges(app), history: mountHistory(app), graph: mountGraph(app), branches: mountBranchMap(app) };
  const ids = Object.keys(views) as TabId[];
  const tabs = h('div', { class: 'git-tabs', role: 'tablist' });
  const buttons = new Map<TabId, HTMLButtonElement>();
  for (const id of ids) {
    const button = h('button', { class: 'git-tab', role: 'tab', 'data-tab': id }, L.gitTabs[id]);
    button.addEventListener('click', () => select(id));
    buttons.set(id, button);
    tabs.append(button);
  }
  const body = h('div', { class: 'git-body' }, ...ids.map((id) => views[id].element));
  const none = h('div', { class: 'empty-note' }, L.noProjects);
  column.append(header, tabs, body, none);

  let tab: TabId = 'changes';
  /** The project the chosen view was opened for. */
  let openedFor: string | undefined;

  const select = (id: TabId) => {
    if (id === tab) return;
    views[tab].close?.();
    tab = id;
    openedFor = undefined;
    render();
  };

  refresh.addEventListener('click', () => {
    const id = app.activeProjectId;
    if (!id) return;
    app.refreshGit(id);
    views[tab].open?.(id);
  });

  const render = () => {
    const id = app.activeProjectId;
    body.hidden = !id;
    tabs.hidden = !id;
    none.hidden = !!id;
    for (const v of ids) {
      views[v].element.hidden = v !== tab;
      buttons.get(v)!.classList.toggle('active', v === tab);
      buttons.get(v)!.setAttribute('aria-selected', String(v === tab));
    }
    if (id !== openedFor) {
      openedFor = id;
      if (id) views[tab].open?.(id);
      else views[tab].close?.();
    }
    if (id) views[tab].render(id);
  };
  for (const store of [app.git, app.history, app.graph, app.branchMap] as { subscribe(f: () => void): unknown }[]) store.subscribe(render);
  app.workspace.subscribe((s, prev) => {
    if (s.activeProjectId !== prev.activeProjectId) render();
  });
  render();
}
