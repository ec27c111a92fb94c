// The GitHub account as the account control shows it. The native side owns
// the token and reports its state with "github/oauth/status"; the only
// state of the page's own is "pending": a sign-in was asked for and the
// user is finishing it in the browser. No event says the browser was
// abandoned, so the user can cancel the wait here; a later start replaces
// the flow on the native side.

import { isObject, str } from '../json';

export type AccountStatus = 'disconnected' | 'pending' | 'connected';

export interface AccountState {
  status: AccountStatus;
  login?: string;
  avatarUrl?: string;
}

export const initialAccount: AccountState = { status: 'disconnected' };

export interface AccountNotice {
  kind: 'info' | 'error';
  message: string;
}

export interface AccountStep {
  state: AccountState;
  notice?: AccountNotice;
}

/** Why the native side disconnected, in the user's words. */
const REASONS: Record<string, AccountNotice> = {
  userLogout: { kind: 'info', message: 'サインアウトしました' },
  refreshFailed: { kind: 'error', message: 'トークンの更新に失敗しました。再度サインインしてください' },
  tokenInvalid: { kind: 'error', message: 'GitHub がトークンを拒否しました。再度サインインしてください' },
};

/** Only an https picture is loaded; anything else shows the initial. */
function avatar(url: string | undefined): string | undefined {
  if (!url) return undefined;
  try {
    return new URL(url).protocol === 'https:' ? url : undefined;
  } catch {
    return undefined;
  }
}

/** "github/oauth/status". */
export function applyStatus(state: AccountState, payload: unknown): AccountStep {
  if (!isObject(payload)) return { state };
  const status = str(payload, 'status');
  if (status === 'connected') {
    const next: AccountState = { status: 'connected' };
    const account = payload.account;
    if (isObject(account)) {
      const login = str(account, 'login');
      const url = avatar(str(account, 'avatarUrl'));
      if (login) next.login = login;
      if (login && url) next.avatarUrl = url;
    }
    return { state: next };
  }
  if (status !== 'disconnected') return { state };
  const reason = str(payload, 'reason');
  const notice = reason !== undefined ? REASONS[reason] : undefined;
  // Every "app/config" is followed by a plain disconnected status; that says nothing about a sign-in still open in the browser.
  if (state.status === 'pending' && !reason) return { state };
  return notice ? { state: initialAccount, notice } : { state: initialAccount };
}

/** "github/oauth/error": the flow is over; a connected account stays connected. */
export function applyError(state: AccountState, payload: unknown): AccountStep {
  const message = isObject(payload) ? str(payload, 'message') : undefined;
  const next = state.status === 'pending' ? initialAccount : state;
  return message ? { state: next, notice: { kind: 'error', message } } : { state: next };
}

export function signInStarted(state: AccountState): AccountState {
  return state.status === 'connected' ? state : { status: 'pending' };
}

export function signInCancelled(state: AccountState): AccountState {
  return state.status === 'pending' ? initialAccount : state;
}

/** The letter shown when there is no picture. */
export function initial(login: string | undefined): string {
  const first = login ? [...login][0] : undefined;
  return first ? first.toUpperCase() : '?';
}
