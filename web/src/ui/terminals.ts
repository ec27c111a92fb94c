// Terminal column: the session tabs of the project on screen (status, exit
// code, codex marker, unseen output), a banner for a session that ended or
// failed, and one view per session (src/ui/terminalPane.ts). Which view is
// shown is decided by src/terminal/paneRoster.ts.

import type { App } from '../app';
import { L } from '../labels';
import { acceptsInput, sessionsForProject, type TerminalSession } from '../state/terminals';
import { dropText } from '../terminal/input';
import { PaneRoster } from '../terminal/paneRoster';
import { bannerText, codexText, statusText } from '../terminal/sessionText';
import { h, reconcile, setText } from './dom';
import { TerminalPane } from './terminalPane';

export interface TerminalsView {
  /** Focuses the visible terminal; false when there is none. */
  focusActive(): boolean;
  setFontSize(size: number): void;
  /** The view of a session, for checks in test builds. */
  pane(sessionId: string): TerminalPane | undefined;
}

export function mountTerminals(app: App, column: HTMLElement): TerminalsView {
  const roster = new PaneRoster();
  const panes = new Map<string, TerminalPane>();
  let activeId: string | undefined;
  /** The project whose terminals were last on screen, to notice a switch. */
  let shownProject: string | undefined;
  let fontSize = 13;

  const newTerminal = () => {
    roster.expectCreated();
    app.createTerminal();
  };
  const tabs = h('div', { class: 'session-tabs', role: 'tablist', 'aria-label': L.terminal });
  const add = h('button', { class: 'icon-button', title: L.newTerminal, 'aria-label': L.newTerminal, onclick: newTerminal }, '+');
  const interrupt = h('button', { class: 'text-button', title: L.interrupt, onclick: () => activeId && app.interrupt(activeId) }, L.interruptShort);
  const header = h('div', { class: 'column-header' }, h('span', { class: 'column-title' }, L.terminal), tabs, interrupt, add);
  const bannerLine = h('span', { class: 'banner-text' });
  const banner = h('div', { class: 'session-banner', hidden: true }, bannerLine, h('button', { class: 'text-button', onclick: newTerminal }, L.newTerminal));
  const body = h('div', { class: 'terminal-stack' });
  const empty = h('div', { class: 'empty-note' }, L.noTerminals);
  column.append(header, banner, body, empty);

  const focusActive = (): boolean => (activeId ? panes.get(activeId)?.focus() ?? false : false);

  const createTab = (s: TerminalSession) => {
    const close = h('button', { class: 'tab-close', title: L.closeTerminal, 'aria-label': L.closeTerminal, tabindex: -1 }, '×');
    const tab = h('div', { class: 'session-tab', role: 'tab', tabindex: 0 }, h('span', { class: 'session-title' }), h('span', { class: 'status-badge' }), h('span', { class: 'codex-badge', hidden: true }), close);
    tab.addEventListener('click', () => {
      roster.choose(app.activeProjectId ?? '', s.id);
      render();
      focusActive();
    });
    close.addEventListener('click', (ev) => {
      ev.stopPropagation();
      app.closeTerminal(s.id);
    });
    return tab;
  };

  const render = () => {
    const state = app.terminals.get();
    const projectKey = app.activeProjectId ?? '';
    const visible = sessionsForProject(state, app.activeProjectId);
    const hadFocus = activeId !== undefined && panes.get(activeId)?.hasFocus() === true;
    const change = roster.update(projectKey, state.sessions.map((s) => s.id), visible.map((s) => s.id));
    for (const id of change.removed) {
      panes.get(id)?.dispose();
      panes.delete(id);
    }
    for (const id of change.added) panes.set(id, new TerminalPane(app, id, body, fontSize));
    const current = change.current;
    activeId = current;
    app.sessionShown(current);

    const unseen = app.unseen.get();
    reconcile(tabs, visible, (s) => s.id, createTab, (el, s) => {
      el.classList.toggle('active', s.id === current);
      el.setAttribute('aria-selected', String(s.id === current));
      el.dataset.status = s.status;
      el.classList.toggle('has-activity', unseen.has(s.id));
      setText(el.querySelector('.session-title')!, s.title || L.terminal);
      setText(el.querySelector('.status-badge')!, statusText(s));
      el.title = [s.workingDirectory, s.errorMessage].filter(Boolean).join('\n');
      const codex = el.querySelector<HTMLElement>('.codex-badge')!;
      const text = codexText(s);
      codex.hidden = text === '';
      codex.classList.toggle('running', s.codexRunning);
      setText(codex, text);
    });

    for (const [id, pane] of panes) pane.show(id === current);
    const cur = current ? state.sessions.find((s) => s.id === current) : undefined;
    const line = cur && bannerText(cur);
    banner.hidden = line === undefined;
    if (cur && line !== undefined) {
      setText(bannerLine, line);
      banner.dataset.status = cur.status;
    }
    empty.hidden = visible.length > 0;
    interrupt.toggleAttribute('disabled', !cur || !acceptsInput(cur));
    if (!current) return;
    const pane = panes.get(current);
    if (pane) requestAnimationFrame(() => pane.fit());
    // A project brought forward (by its tab, a key or at start) is there to be typed into.
    const focused = document.activeElement;
    const focusIdle = !focused || focused === document.body || focused.closest('.topbar') !== null;
    if (hadFocus || change.created || (projectKey !== shownProject && focusIdle)) focusActive();
    shownProject = projectKey;
  };

  new ResizeObserver(() => {
    if (activeId) panes.get(activeId)?.fit();
  }).observe(body);

  window.addEventListener('velko:native-drop', (ev) => {
    const text = dropText((ev as CustomEvent).detail);
    const pane = activeId ? panes.get(activeId) : undefined;
    if (pane && text !== undefined) pane.paste(text);
  });

  app.terminals.subscribe(render);
  app.unseen.subscribe(render);
  app.workspace.subscribe((s, prev) => {
    if (s.activeProjectId !== prev.activeProjectId || s.cliSessions !== prev.cliSessions) render();
  });
  render();

  return {
    focusActive,
    pane: (id) => panes.get(id),
    setFontSize(size: number) {
      fontSize = size;
      for (const pane of panes.values()) pane.setFontSize(size);
    },
  };
}
