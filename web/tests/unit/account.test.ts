import { describe, expect, it } from 'vitest';
import { fakeApp } from './fakeApp';

const connected = { status: 'connected', account: { login: 'octo', avatarUrl: 'https://avatars.example/u/1' }, expiresAt: '2030-01-01T00:00:00Z' };
const octo = { status: 'connected', login: 'octo', avatarUrl: 'https://avatars.example/u/1' };

interface Case {
  name: string;
  from: 'disconnected' | 'pending' | 'connected';
  event: [string, unknown];
  view: { status: string; login?: string; avatarUrl?: string };
  toast?: [string, string];
}

describe('account control state', () => {
  const cases: Case[] = [
    { name: 'connected with an account', from: 'pending', event: ['github/oauth/status', connected], view: octo },
    { name: 'a picture not on https is not loaded', from: 'disconnected', event: ['github/oauth/status', { status: 'connected', account: { login: 'octo', avatarUrl: 'http://x/a.png' } }], view: { status: 'connected', login: 'octo' } },
    { name: 'connected without a user (the user fetch failed)', from: 'disconnected', event: ['github/oauth/status', { status: 'connected' }], view: { status: 'connected' } },
    { name: 'a refresh keeps the account and says nothing', from: 'connected', event: ['github/oauth/status', { ...connected, refreshed: true }], view: octo },
    { name: 'sign-out', from: 'connected', event: ['github/oauth/status', { status: 'disconnected', reason: 'userLogout' }], view: { status: 'disconnected' }, toast: ['info', 'サインアウトしました'] },
    { name: 'refresh failed', from: 'connected', event: ['github/oauth/status', { status: 'disconnected', reason: 'refreshFailed' }], view: { status: 'disconnected' }, toast: ['error', 'トークンの更新に失敗しました。再度サインインしてください'] },
    { name: 'the status after each app/config leaves a sign-in waiting', from: 'pending', event: ['github/oauth/status', { status: 'disconnected' }], view: { status: 'pending' } },
    { name: 'a plain disconnected status ends a connection quietly', from: 'connected', event: ['github/oauth/status', { status: 'disconnected' }], view: { status: 'disconnected' } },
    { name: 'a failed sign-in ends the wait with its message', from: 'pending', event: ['github/oauth/error', { message: 'GitHub サインインに失敗しました: stateMismatch', recoverable: true }], view: { status: 'disconnected' }, toast: ['error', 'GitHub サインインに失敗しました: stateMismatch'] },
    { name: 'an error while connected keeps the account', from: 'connected', event: ['github/oauth/error', { message: 'キーリングがロックされています', recoverable: true }], view: octo, toast: ['error', 'キーリングがロックされています'] },
    { name: 'an unknown status is ignored', from: 'connected', event: ['github/oauth/status', { status: 'maybe', reason: 'userLogout' }], view: octo },
    { name: 'the old shape without status is ignored', from: 'pending', event: ['github/oauth/status', { signedIn: false }], view: { status: 'pending' } },
  ];
  for (const c of cases) {
    it(c.name, () => {
      const { app, send, take } = fakeApp();
      if (c.from === 'connected') send('github/oauth/status', connected);
      if (c.from === 'pending') app.signIn();
      take('github/oauth/start');
      send(...c.event);
      expect(app.account.get()).toEqual(c.view);
      expect(app.toasts.get().map((t) => [t.kind, t.message])).toEqual(c.toast ? [c.toast] : []);
    });
  }

  // Sign-in and sign-out from the control itself are in the browser tests.
  it('a second sign-in starts afresh, and cancelling posts nothing', () => {
    const { app, posted, take } = fakeApp();
    app.signIn();
    expect(app.account.get().status).toBe('pending');
    // A second start replaces the flow on the native side.
    app.signIn();
    expect(take('github/oauth/start')).toEqual([undefined, undefined]);
    app.cancelSignIn();
    expect(app.account.get().status).toBe('disconnected');
    expect(posted).toEqual([]);
  });
});
