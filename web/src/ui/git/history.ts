// The history view of the git column: the commits of the current branch,
// newest first, local ones marked. A commit opens its changed files, a file
// its diff below the list. The list can hold thousands of commits, so only
// the rows in and near the viewport exist in the DOM; the next page is asked
// for when the end of the list comes into view.

import type { App } from '../../app';
import { L } from '../../labels';
import { projectHistory, type CommitFile, type HistoryCommit, type ProjectHistory } from '../../state/history';
import { h, reconcile, setText } from '../dom';
import type { GitView } from './column';
import { diffContent } from './diffText';
import { formatDate, shortOid } from './format';

type Item =
  | { kind: 'commit'; key: string; commit: HistoryCommit }
  | { kind: 'file'; key: string; commit: HistoryCommit; file: CommitFile }
  | { kind: 'note'; key: string; text: string }
  | { kind: 'tail'; key: string };

const HEIGHT: Record<Item['kind'], number> = { commit: 44, file: 22, note: 22, tail: 34 };
/** Rows drawn beyond each edge of the viewport, so a fast scroll does not show blank space. */
const OVERSCAN = 400;

function itemsOf(p: ProjectHistory): Item[] {
  const items: Item[] = [];
  for (const commit of p.commits) {
    items.push({ kind: 'commit', key: commit.oid, commit });
    if (p.open !== commit.oid) continue;
    if (commit.files.length === 0) items.push({ kind: 'note', key: `${commit.oid}\n`, text: L.noFilesInCommit });
    for (const file of commit.files) items.push({ kind: 'file', key: `${commit.oid}\n${file.path}`, commit, file });
  }
  items.push({ kind: 'tail', key: '\ntail' });
  return items;
}

/** The index of the last item whose top is at or above `y`. */
function firstAt(tops: readonly number[], y: number): number {
  let lo = 0;
  let hi = tops.length - 1;
  while (lo < hi) {
    const mid = (lo + hi + 1) >> 1;
    if (tops[mid]! <= y) lo = mid;
    else hi = mid - 1;
  }
  return lo;
}

export function mountHistory(app: App): GitView {
  const error = h('span', { class: 'history-error-text' });
  const retry = h('button', { class: 'text-button', 'data-action': 'retry' }, L.retry);
  const status = h('div', { class: 'history-error', hidden: true, role: 'alert' }, error, retry);
  const canvas = h('div', { class: 'history-canvas' });
  const list = h('div', { class: 'history-list' }, canvas);
  const diff = h('div', { class: 'git-diff history-diff', hidden: true });
  const element = h('div', { class: 'git-history' }, status, list, diff);

  let shown: string | undefined;
  let drawn: ProjectHistory | undefined;
  let items: Item[] = [];
  let tops: number[] = [];
  let total = 0;
  let drawnDiff: unknown;
  const bound = new WeakMap<Element, Item>();

  retry.addEventListener('click', () => shown && app.retryHistory(shown));

  const activate = (item: Item | undefined) => {
    if (!shown || !item) return;
    if (item.kind === 'commit') app.toggleCommit(shown, item.commit.oid);
    else if (item.kind === 'file') app.showCommitDiff(shown, item.commit.oid, item.file.path);
    else if (item.kind === 'tail') app.moreHistory(shown);
  };
  const itemOf = (ev: Event) => {
    const row = (ev.target as Element | null)?.closest?.('.history-row');
    return row ? bound.get(row) : undefined;
  };
  canvas.addEventListener('click', (ev) => activate(itemOf(ev)));
  canvas.addEventListener('keydown', (ev) => {
    if (ev.key !== 'Enter') return;
    ev.preventDefault();
    activate(itemOf(ev));
  });

  const fill = (row: HTMLElement, item: Item, p: ProjectHistory) => {
    bound.set(row, item);
    if (item.kind === 'commit') {
      const c = item.commit;
      row.dataset.origin = c.origin;
      row.classList.toggle('open', p.open === c.oid);
      setText(row.querySelector('.history-headline')!, c.headline);
      setText(row.querySelector('.origin-badge')!, c.origin === 'local' ? L.local : L.remote);
      setText(row.querySelector('.history-author')!, c.login ? `@${c.login}` : c.authorName);
      setText(row.querySelector('.history-date')!, formatDate(c.date));
      setText(row.querySelector('.history-oid')!, shortOid(c.oid));
      setText(row.querySelector('.history-files')!, L.filesChanged(c.files.length));
      row.title = `${c.headline}\n${c.authorName}${c.login ? ` (@${c.login})` : ''}\n${c.oid}`;
    } else if (item.kind === 'file') {
      setText(row.querySelector('.adds')!, `+${item.file.additions}`);
      setText(row.querySelector('.dels')!, `−${item.file.deletions}`);
      setText(row.querySelector('.file-path')!, item.file.path);
      row.title = item.file.path;
      row.classList.toggle('selected', p.diff?.oid === item.commit.oid && p.diff.path === item.file.path);
    } else if (item.kind === 'note') {
      setText(row, item.text);
    } else {
      const text = p.inFlight ? L.loading : p.loaded && p.commits.length === 0 ? L.noHistory : p.hasNextPage && p.error === undefined ? L.loadMore : L.historyEnd(p.commits.length);
      setText(row, text);
      row.classList.toggle('more', !p.inFlight && p.hasNextPage && p.error === undefined);
    }
  };

  const create = (item: Item): HTMLElement => {
    const row = h('div', { class: `history-row ${item.kind}`, tabindex: item.kind === 'note' ? undefined : 0 });
    if (item.kind === 'commit') {
      row.append(
        h('div', { class: 'history-headline' }),
        h('div', { class: 'history-meta' }, h('span', { class: 'origin-badge' }), h('span', { class: 'history-author' }), h('span', { class: 'history-date' }), h('span', { class: 'history-oid' }), h('span', { class: 'history-files' })),
      );
    } else if (item.kind === 'file') {
      row.append(h('span', { class: 'adds' }), h('span', { class: 'dels' }), h('span', { class: 'file-path' }));
    }
    return row;
  };

  /** Draws the rows in and near the viewport. */
  const draw = () => {
    const p = drawn;
    if (!p) return;
    const top = list.scrollTop;
    const first = firstAt(tops, Math.max(0, top - OVERSCAN));
    const last = firstAt(tops, top + list.clientHeight + OVERSCAN);
    const visible = items.slice(first, last + 1).map((item, k) => ({ item, top: tops[first + k]! }));
    reconcile(canvas, visible, (v) => v.item.key, (v) => create(v.item), (row, v) => {
      row.style.top = `${v.top}px`;
      fill(row, v.item, p);
    });
  };

  /** Asks for the next page once the end of the list is in view. */
  const nearEnd = () => {
    if (shown && list.clientHeight > 0 && list.scrollTop + list.clientHeight >= total - 3 * HEIGHT.commit) app.moreHistory(shown);
  };

  list.addEventListener('scroll', () => {
    draw();
    nearEnd();
  });
  if (typeof ResizeObserver !== 'undefined') new ResizeObserver(() => draw()).observe(list);

  const renderDiff = (projectId: string, p: ProjectHistory) => {
    const sel = p.diff;
    diff.hidden = !sel;
    if (!sel) {
      drawnDiff = undefined;
      diff.replaceChildren();
      return;
    }
    if (drawnDiff === sel) return;
    drawnDiff = sel;
    const close = h('button', { class: 'icon-button', title: L.closeDiff, 'aria-label': L.closeDiff, onclick: () => app.closeCommitDiff(projectId) }, '×');
    diff.replaceChildren(h('div', { class: 'diff-title' }, h('span', {}, `${L.diff}: ${sel.path} (${shortOid(sel.oid)})`), close), diffContent(sel.loading, sel.files));
  };

  return {
    element,
    open(projectId) {
      app.showHistory(projectId);
    },
    close() {
      app.showHistory(undefined);
    },
    render(projectId) {
      const p = projectHistory(app.history.get(), projectId);
      const switched = projectId !== shown;
      shown = projectId;
      if (p === drawn && !switched) {
        // The view may just have come on screen: what was drawn while hidden covers no viewport.
        draw();
        return;
      }
      const grew = !switched && drawn !== undefined && p.commits.length > drawn.commits.length;
      drawn = p;
      status.hidden = p.error === undefined;
      setText(error, p.error ?? '');
      retry.disabled = p.inFlight !== undefined;
      items = itemsOf(p);
      tops = [];
      total = 0;
      for (const item of items) {
        tops.push(total);
        total += HEIGHT[item.kind];
      }
      canvas.style.height = `${total}px`;
      if (switched) {
        canvas.replaceChildren();
        list.scrollTop = 0;
      }
      draw();
      renderDiff(projectId, p);
      // A page that does not fill the viewport would leave no scrolling to ask for the next.
      if (grew) nearEnd();
    },
  };
}
