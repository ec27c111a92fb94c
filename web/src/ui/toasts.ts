// Short notices in the corner (git results, save and rename failures).
// Errors stay longer; any notice can be clicked away.

import type { App, Toast } from '../app';
import { L } from '../labels';
import { h, reconcile } from './dom';

export function mountToasts(app: App, root: HTMLElement): void {
  const timers = new Map<number, number>();
  const render = () => {
    const toasts = app.toasts.get();
    reconcile(
      root,
      toasts,
      (t) => String(t.id),
      (t: Toast) => {
        const el = h('div', { class: `toast ${t.kind}`, role: t.kind === 'error' ? 'alert' : 'status', title: L.dismiss }, t.message);
        el.addEventListener('click', () => app.dismissToast(t.id));
        timers.set(t.id, window.setTimeout(() => app.dismissToast(t.id), t.kind === 'error' ? 8000 : 4000));
        return el;
      },
      () => undefined,
    );
    for (const [id, timer] of timers) {
      if (!toasts.some((t) => t.id === id)) {
        window.clearTimeout(timer);
        timers.delete(id);
      }
    }
  };
  app.toasts.subscribe(render);
}
