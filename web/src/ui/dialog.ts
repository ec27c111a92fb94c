// A modal question with two buttons. Focus moves into the dialog and back to
// where it was when it closes, so the keyboard never ends up on nothing.

import { L } from '../labels';
import { h } from './dom';

export interface DialogOptions {
  title: string;
  body: string;
  confirm: string;
  cancel?: string;
  danger?: boolean;
}

export function showDialog(options: DialogOptions): Promise<boolean> {
  const previous = document.activeElement as HTMLElement | null;
  return new Promise((resolve) => {
    const ok = h('button', { class: options.danger ? 'danger-button' : 'primary-button', 'data-action': 'confirm' }, options.confirm);
    const cancel = h('button', { class: 'secondary-button', 'data-action': 'cancel' }, options.cancel ?? L.cancel);
    const box = h(
      'div',
      { class: 'dialog', role: 'dialog', 'aria-modal': 'true', 'aria-label': options.title },
      h('h2', {}, options.title),
      h('p', {}, options.body),
      h('div', { class: 'dialog-buttons' }, cancel, ok),
    );
    const overlay = h('div', { class: 'dialog-overlay' }, box);
    const close = (answer: boolean) => {
      overlay.remove();
      if (previous && previous.isConnected) previous.focus();
      resolve(answer);
    };
    ok.addEventListener('click', () => close(true));
    cancel.addEventListener('click', () => close(false));
    overlay.addEventListener('keydown', (ev) => {
      if (ev.key === 'Escape') {
        ev.preventDefault();
        close(false);
      } else if (ev.key === 'Tab') {
        // Keep Tab inside the dialog.
        ev.preventDefault();
        (document.activeElement === ok ? cancel : ok).focus();
      }
      ev.stopPropagation();
    });
    document.body.append(overlay);
    ok.focus();
  });
}
