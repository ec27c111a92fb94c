// The columns in the configuration's order. The git panel is not part of the
// default layout, but without it there is no way to commit, so a layout
// that leaves it out still gets it as the last column.

import type { App } from '../app';
import { num, str } from '../json';
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
  const widths = loadWidths();
  for (const [kind, width] of Object.entries(widths)) applyWidth(columns[kind as ColumnKind], width);

  const render = () => {
    const order = columnOrder(app.workspace.get().columnLayout);
    const current = Array.from(root.children)
      .map((c) => (c as HTMLElement).dataset.column)
      .filter(Boolean);
    if (current.join() === order.join()) return;
    root.replaceChildren();
    order.forEach((kind, i) => {
      if (i > 0) {
        // The splitter sizes the column on its left, except before the last column, which it sizes instead.
        const target = i === order.length - 1 ? order[i] : order[i - 1];
        root.append(splitter(columns[target!], target!, i === order.length - 1, widths));
      }
      root.append(columns[kind]);
    });
  };
  app.workspace.subscribe((s, prev) => {
    if (s.columnLayout !== prev.columnLayout) render();
  });
  render();

  // A finished pinch on the touchpad widens (spread) or narrows (pinch) the column under the fingers.
  app.bridge.on('layout/column-pinch', (p) => {
    const direction = str(p, 'direction');
    const x = num(p, 'normalizedX');
    if ((direction !== 'expand' && direction !== 'collapse') || x === undefined || x < 0 || x > 1) return;
    const box = root.getBoundingClientRect();
    const at = box.left + x * box.width;
    const kind = columnOrder(app.workspace.get().columnLayout).find((k) => {
      const r = columns[k].getBoundingClientRect();
      return at >= r.left && at <= r.right;
    });
    if (!kind) return;
    const width = pinchedWidth(columns[kind].getBoundingClientRect().width, direction, box.width);
    widths[kind] = width;
    applyWidth(columns[kind], width);
    saveWidths(widths);
  });
  return columns;
}

const PINCH_STEP = 1.25;

/** The column's width after one pinch: a step wider or narrower, never below the minimum or beyond most of the window. */
export function pinchedWidth(current: number, direction: 'expand' | 'collapse', available: number): number {
  const next = direction === 'expand' ? current * PINCH_STEP : current / PINCH_STEP;
  const max = Math.max(MIN_WIDTH, available * 0.8);
  return Math.round(Math.min(max, Math.max(MIN_WIDTH, next)));
}

const STORAGE_KEY = 'velko.columnWidths';
const MIN_WIDTH = 160;

function loadWidths(): Record<string, number> {
  try {
    const parsed = JSON.parse(window.localStorage.getItem(STORAGE_KEY) ?? '{}') as unknown;
    if (typeof parsed !== 'object' || parsed === null) return {};
    return Object.fromEntries(Object.entries(parsed).filter(([, v]) => typeof v === 'number' && v >= MIN_WIDTH));
  } catch {
    // Storage may be unavailable for the app's own URL scheme; widths then last for the session.
    return {};
  }
}

function saveWidths(widths: Record<string, number>): void {
  try {
    window.localStorage.setItem(STORAGE_KEY, JSON.stringify(widths));
  } catch {
    // See loadWidths.
  }
}

function applyWidth(column: HTMLElement, width: number | undefined): void {
  column.style.flex = width === undefined ? '' : `0 0 ${width}px`;
}

function splitter(column: HTMLElement, kind: ColumnKind, growsLeft: boolean, widths: Record<string, number>): HTMLElement {
  const el = h('div', { class: 'splitter', role: 'separator', 'aria-orientation': 'vertical', title: 'ドラッグで幅を変更（ダブルクリックで元に戻す）' });
  el.addEventListener('pointerdown', (down) => {
    down.preventDefault();
    el.setPointerCapture(down.pointerId);
    const startX = down.clientX;
    const startWidth = column.getBoundingClientRect().width;
    el.classList.add('dragging');
    const move = (ev: PointerEvent) => {
      const delta = ev.clientX - startX;
      const width = Math.max(MIN_WIDTH, Math.round(startWidth + (growsLeft ? -delta : delta)));
      widths[kind] = width;
      applyWidth(column, width);
    };
    const up = () => {
      el.classList.remove('dragging');
      el.removeEventListener('pointermove', move);
      el.removeEventListener('pointerup', up);
      el.removeEventListener('pointercancel', up);
      saveWidths(widths);
    };
    el.addEventListener('pointermove', move);
    el.addEventListener('pointerup', up);
    el.addEventListener('pointercancel', up);
  });
  el.addEventListener('dblclick', () => {
    delete widths[kind];
    applyWidth(column, undefined);
    saveWidths(widths);
  });
  return el;
}
