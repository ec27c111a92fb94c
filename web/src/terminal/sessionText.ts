// The words a terminal tab and its banner show for a session.

import { L } from '../labels';
import type { TerminalSession } from '../state/terminals';

export function statusText(s: TerminalSession): string {
  const base = L.status[s.status] ?? s.status;
  if (s.status === 'terminated' && s.exitCode !== undefined) return `${base} · ${L.exitCode(s.exitCode)}`;
  return base;
}

/** The codex badge: shown while codex runs, and after it ended with a failure. Empty hides it. */
export function codexText(s: TerminalSession): string {
  if (s.codexRunning) return L.codexRunning;
  if (s.codexExitStatus !== undefined && s.codexExitStatus !== 0) return L.codexEnded(s.codexExitStatus);
  return '';
}

/** The line above a session that ended or failed; undefined while it runs without trouble. */
export function bannerText(s: TerminalSession): string | undefined {
  if (s.status !== 'failed' && s.status !== 'terminated' && !s.errorMessage) return undefined;
  return [statusText(s), s.errorMessage].filter(Boolean).join(' — ');
}
