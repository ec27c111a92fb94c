// The dashboard: a top-bar button and a view over the columns with commit
// totals, a card per project and the program's CPU and memory. The button
// and Escape only ask; the view opens and closes when the native side says
// so with "dashboard.toggled".

import type { App } from '../app';
import { L } from '../labels';
import * as dash from '../state/dashboard';
import { h, reconcile, setText } from './dom';

/** GitHub's colours for the languages the native side names; others take one of the spare ones. */
const LANGUAGE_COLOURS: Record<string, string> = {
  TypeScript: '#3178c6',
  JavaScript: '#f1e05a',
  Python: '#3572a5',
  Rust: '#dea584',
  Go: '#00add8',
  Swift: '#f05138',
  Shell: '#89e051',
  Ruby: '#cc342d',
  Java: '#b07219',
  Kotlin: '#a97bff',
  CSS: '#663399',
  HTML: '#e34c26',
  Markdown: '#4a7bd0',
  JSON: '#c0a060',
  YAML: '#cb171e',
  'C++': '#f34b7d',
  C: '#8a8a8a',
};
const SPARE_COLOURS = ['#c49bf0', '#5fd1e0', '#e6a06b', '#8bd49c', '#ef6b73'];

function colour(name: string, index: number): string {
  return LANGUAGE_COLOURS[name] ?? SPARE_COLOURS[index % SPARE_COLOURS.length]!;
}

const WEEKDAYS = ['日', '月', '火', '水', '木', '金', '土'];
const number = (n: number) => n.toLocaleString('ja-JP');

export function mountDashboard(app: App, topbar: HTMLElement, root: HTMLElement): { focus(): boolean } {
  const toggle = h('button', { class: 'topbar-button dashboard-button', 'aria-pressed': 'false', title: L.dashboard.open }, L.dashboard.title);
  toggle.addEventListener('click', () => (app.dashboard.get().open ? app.dismissDashboard() : app.presentDashboard('topbar')));
  topbar.append(toggle);

  const generated = h('span', { class: 'dash-generated' });
  const refresh = h('button', { class: 'secondary-button dash-refresh', onclick: () => app.refreshDashboard() }, L.refresh);
  const close = h('button', { class: 'icon-button dash-close', title: L.dashboard.close, 'aria-label': L.dashboard.close, onclick: () => app.dismissDashboard() }, '×');
  const header = h('div', { class: 'dash-header' }, h('h2', {}, L.dashboard.title), generated, h('span', { class: 'spacer' }), refresh, close);
  const status = h('div', { class: 'dash-status' });
  const totals = h('div', { class: 'dash-totals' });
  const cards = h('div', { class: 'dash-cards' });
  const metrics = h('div', { class: 'dash-metrics', 'aria-label': L.dashboard.systemMetrics });
  const view = h('section', { class: 'dashboard', 'aria-label': L.dashboard.title, tabindex: -1, hidden: true }, header, status, totals, cards, metrics);
  root.append(view);

  let returnFocus: HTMLElement | null = null;
  document.addEventListener('keydown', (ev) => {
    if (ev.key !== 'Escape' || !app.dashboard.get().open || ev.defaultPrevented) return;
    ev.preventDefault();
    app.dismissDashboard();
  });

  const render = (s: dash.DashboardState, prev?: dash.DashboardState) => {
    toggle.classList.toggle('active', s.open);
    toggle.setAttribute('aria-pressed', String(s.open));
    toggle.title = s.open ? L.dashboard.close : L.dashboard.open;
    view.hidden = !s.open;
    if (s.open && !prev?.open) {
      // Keys must not reach the terminal hidden under the view; they come back to it on close.
      returnFocus = document.activeElement as HTMLElement | null;
      view.focus();
    } else if (!s.open && prev?.open) {
      if (returnFocus?.isConnected && view.contains(document.activeElement)) returnFocus.focus();
      returnFocus = null;
    }
    setText(metrics, s.metrics ? dash.metricsText(s.metrics) : '');
    if (!s.open) return;
    refresh.disabled = s.loading;
    renderStatus(app, status, s);
    const snapshot = s.snapshot;
    setText(generated, snapshot?.generatedAt !== undefined ? L.dashboard.generatedAt(new Date(snapshot.generatedAt).toLocaleTimeString('ja-JP', { hour: '2-digit', minute: '2-digit' })) : '');
    totals.hidden = cards.hidden = !snapshot;
    if (!snapshot) return;
    renderTotals(totals, snapshot);
    const now = Date.now();
    cards.querySelector(':scope > .empty-note')?.remove();
    reconcile(cards, snapshot.projects, (p) => p.projectId, (p) => card(app, p.projectId), (el, p) => fillCard(el, p, now));
    if (snapshot.projects.length === 0) cards.replaceChildren(h('div', { class: 'empty-note' }, L.noProjects));
  };
  app.dashboard.subscribe(render);
  render(app.dashboard.get());
  return {
    /** While the view is up, the keyboard stays in it (a button that went away must not hand it to a terminal below). */
    focus() {
      if (view.hidden) return false;
      view.focus();
      return true;
    },
  };
}

function renderStatus(app: App, el: HTMLElement, s: dash.DashboardState): void {
  el.className = `dash-status${s.error !== undefined ? ' error' : ''}`;
  if (s.error !== undefined) {
    const retry = h('button', { class: 'text-button', onclick: () => app.refreshDashboard() }, L.retry);
    el.replaceChildren(h('span', { title: s.error }, L.dashboard.failed), retry);
  } else el.replaceChildren(s.loading ? h('span', { class: 'dash-loading' }, L.loading) : '');
  el.hidden = s.error === undefined && !s.loading;
}

function stat(label: string, value: string, ...extra: HTMLElement[]): HTMLElement {
  return h('div', { class: 'dash-stat' }, h('span', { class: 'dash-stat-label' }, label), h('span', { class: 'dash-stat-value' }, value), ...extra);
}

function renderTotals(el: HTMLElement, s: dash.Snapshot): void {
  const d = dash.delta(s.last30DayDeltaPercent);
  const trend = h('span', { class: `dash-delta ${d.trend}`, title: L.dashboard.previous30(number(s.previous30DayCommits)) }, `${d.arrow} ${d.text}`);
  el.replaceChildren(
    stat(L.dashboard.total, number(s.totalCommits)),
    stat(L.dashboard.today, number(s.todaysCommits)),
    stat(L.dashboard.last30, number(s.last30DayCommits), trend, h('span', { class: 'dash-stat-note' }, L.dashboard.previous30(number(s.previous30DayCommits)))),
  );
}

function card(app: App, projectId: string): HTMLElement {
  const el = h('div', { class: 'dash-card', role: 'button', tabindex: 0 });
  const open = () => app.openProjectFromDashboard(projectId);
  el.addEventListener('click', open);
  el.addEventListener('keydown', (ev) => {
    if (ev.key !== 'Enter' && ev.key !== ' ') return;
    ev.preventDefault();
    open();
  });
  return el;
}

function fillCard(el: HTMLElement, p: dash.ProjectSummary, now: number): void {
  el.title = L.dashboard.openProject(p.projectName);
  const last = p.lastCommitAt !== undefined ? L.dashboard.lastCommit(dash.relativeTime(p.lastCommitAt, now)) : L.dashboard.noCommits;
  const bar = dash.languageBar(p.languages);
  const segments = bar.named.map((l, i) =>
    h('span', { class: 'dash-lang', style: `width:${(l.ratio * 100).toFixed(2)}%;background:${colour(l.name, i)}`, title: `${l.name} ${(l.ratio * 100).toFixed(1)}%` }),
  );
  if (bar.named.length > 0 && bar.rest > 0.0005) segments.push(h('span', { class: 'dash-lang rest', style: `width:${(bar.rest * 100).toFixed(2)}%`, title: `${L.dashboard.otherLanguages} ${(bar.rest * 100).toFixed(1)}%` }));
  const legend = bar.named.map((l, i) => h('span', { class: 'dash-legend-item' }, h('i', { style: `background:${colour(l.name, i)}` }), `${l.name} ${(l.ratio * 100).toFixed(1)}%`));
  el.replaceChildren(
    h('div', { class: 'dash-card-head' }, h('span', { class: 'dash-card-name' }, p.projectName), h('span', { class: 'dash-card-branch' }, `⎇ ${p.branch}`)),
    h('div', { class: 'dash-card-meta' }, h('span', {}, last), h('span', {}, L.dashboard.commits(number(p.commitCount)))),
    bar.named.length > 0 ? h('div', { class: 'dash-lang-bar' }, ...segments) : h('div', { class: 'dash-lang-bar empty', title: L.dashboard.noLanguages }),
    h('div', { class: 'dash-legend' }, ...(legend.length > 0 ? legend : [L.dashboard.noLanguages])),
    heatmap(p.heatmap, now),
  );
}

/** Four weeks of shaded cells, oldest first, one week a row. */
function heatmap(cells: readonly dash.HeatCell[], now: number): HTMLElement {
  const max = Math.max(0, ...cells.map((c) => c.count));
  const today = dash.localDay(now);
  const grid = h('div', { class: 'dash-heatmap', role: 'img', 'aria-label': L.dashboard.heatmap });
  const caption = h('div', { class: 'dash-heat-caption' });
  for (const c of cells) {
    const weekday = WEEKDAYS[new Date(`${c.day}T00:00:00Z`).getUTCDay()] ?? '';
    const label = `${c.day.replaceAll('-', '/')} (${weekday}) · ${L.dashboard.commits(number(c.count))}`;
    grid.append(h('span', { class: `heat-cell level-${dash.heatLevel(c.count, max)}${c.day === today ? ' today' : ''}`, title: label, 'data-day': c.day, 'data-count': c.count }));
  }
  // The hovered day in words beside the grid; the tooltip alone comes late and small.
  grid.addEventListener('mouseover', (ev) => setText(caption, (ev.target as HTMLElement).closest<HTMLElement>('.heat-cell')?.title ?? ''));
  grid.addEventListener('mouseleave', () => setText(caption, ''));
  return h('div', { class: 'dash-heat' }, grid, caption);
}
