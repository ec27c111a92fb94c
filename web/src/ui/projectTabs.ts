// The bar of project tabs: click activates, the cross closes, dragging
// reorders, "+" opens the folder picker. The order shown is always the
// configuration's; a drop only asks the native side to reorder.

import type { App } from '../app';
import { L } from '../labels';
import { reorderIds, type Project } from '../state/workspace';
import { isDirty } from '../state/editor';
import { baseName } from '../state/explorer';
import { h, reconcile, setText } from './dom';
import { showDialog } from './dialog';
import { tabReordering } from './tabDrag';

export function mountProjectTabs(app: App, root: HTMLElement): void {
  const list = h('div', { class: 'project-tabs', role: 'tablist', 'aria-label': 'プロジェクト' });
  const add = h('button', { class: 'icon-button add-project', title: L.openProject, 'aria-label': L.openProject, onclick: () => app.openProject() }, '+');
  root.append(list, add);
  const reorderable = tabReordering(
    list,
    (from, to, after) => {
      const ids = app.workspace.get().projects.map((x) => x.id);
      const order = reorderIds(ids, from, to, after);
      if (order.join() !== ids.join()) app.reorderProjects(order);
    },
    (tab) => tab.dataset.key ?? '',
  );

  const create = (p: Project) => {
    const name = h('span', { class: 'project-name' });
    const close = h('button', { class: 'tab-close', title: L.closeProject, 'aria-label': L.closeProject, tabindex: -1 }, '×');
    const tab = h('div', { class: 'project-tab', role: 'tab', draggable: 'true', tabindex: 0 }, name, close);
    close.addEventListener('click', (ev) => {
      ev.stopPropagation();
      void confirmClose(app, p);
    });
    tab.addEventListener('click', () => app.activateProject(tab.dataset.key!));
    tab.addEventListener('keydown', (ev) => {
      if (ev.key === 'Enter' || ev.key === ' ') {
        ev.preventDefault();
        app.activateProject(tab.dataset.key!);
      }
    });
    reorderable(tab);
    return tab;
  };

  const render = () => {
    const state = app.workspace.get();
    const unseen = app.unseen.get();
    const busy = new Set(app.terminals.get().sessions.filter((s) => s.projectId && unseen.has(s.id)).map((s) => s.projectId));
    reconcile(list, state.projects, (p) => p.id, create, (el, p) => {
      const active = p.id === state.activeProjectId;
      el.classList.toggle('active', active);
      el.classList.toggle('has-activity', !active && busy.has(p.id));
      el.setAttribute('aria-selected', String(active));
      el.title = p.rootPath;
      setText(el.querySelector('.project-name')!, p.name || p.rootPath);
    });
  };
  app.workspace.subscribe(render);
  app.unseen.subscribe(render);
  render();
}

/** Closing a project closes its open files; unsaved edits would be lost, so ask first. */
async function confirmClose(app: App, p: Project): Promise<void> {
  const dirty = app.editor.get().docs.filter((d) => d.projectId === p.id && isDirty(d));
  if (dirty.length > 0) {
    const names = dirty.map((d) => baseName(d.path)).join('、');
    const ok = await showDialog({ title: L.closeProject, body: L.closeProjectUnsaved(p.name || p.rootPath, names), confirm: L.closeProject, danger: true });
    if (!ok) return;
  }
  app.closeProject(p.id);
}

