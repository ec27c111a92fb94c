// The GitHub account control at the right end of the top bar: a sign-in
// button, the wait for the browser with a way out, or the signed-in account
// with its picture (its initial when the picture does not load) and sign-out.

import type { App } from '../app';
import { L } from '../labels';
import { initial, type AccountState } from '../state/account';
import { h, setText } from './dom';

export function mountAccount(app: App, root: HTMLElement): void {
  const signIn = h('button', { class: 'secondary-button account-sign-in', onclick: () => app.signIn() }, L.account.signIn);
  const waiting = h('span', { class: 'account-waiting' }, L.account.continueInBrowser);
  const cancel = h('button', { class: 'text-button account-cancel', onclick: () => app.cancelSignIn() }, L.cancel);
  const picture = h('span', { class: 'account-avatar', 'aria-hidden': 'true' });
  const login = h('span', { class: 'account-login' });
  const signOut = h('button', { class: 'text-button account-sign-out', onclick: () => app.signOut() }, L.account.signOut);
  const box = h('div', { class: 'account', 'data-status': 'disconnected' }, signIn, waiting, cancel, picture, login, signOut);
  root.append(box);

  let shownUrl: string | undefined;
  const showInitial = (s: AccountState) => {
    shownUrl = undefined;
    picture.replaceChildren(h('span', { class: 'account-initial' }, initial(s.login)));
  };

  const render = () => {
    const s = app.account.get();
    box.dataset.status = s.status;
    signIn.hidden = s.status !== 'disconnected';
    waiting.hidden = cancel.hidden = s.status !== 'pending';
    picture.hidden = login.hidden = signOut.hidden = s.status !== 'connected';
    if (s.status !== 'connected') return;
    setText(login, s.login ? `@${s.login}` : L.account.connected);
    box.title = s.login ? L.account.signedInAs(s.login) : L.account.connected;
    if (!s.avatarUrl) showInitial(s);
    else if (s.avatarUrl !== shownUrl) {
      shownUrl = s.avatarUrl;
      // No referrer: the picture's host learns nothing about the page that shows it.
      const img = h('img', { src: s.avatarUrl, alt: '', referrerpolicy: 'no-referrer', width: 20, height: 20 });
      img.addEventListener('error', () => {
        if (shownUrl === img.getAttribute('src')) showInitial(app.account.get());
      });
      picture.replaceChildren(img);
    }
  };
  app.account.subscribe(render);
  render();
}
