import { describe, expect, it } from 'vitest';
import {
  applyCodexMarker,
  applyConfiguredSessions,
  applyTerminalEvent,
  initialTerminals,
  parseCodexMarker,
  sessionsForProject,
  type TerminalsState,
} from '../../src/state/terminals';
import { P1, P2, S1, S2 } from './ids';

const configured = applyConfiguredSessions(initialTerminals, [
  { id: S1, title: 'CLI #1', workingDirectory: '/p', projectId: P1, status: 'pending' },
  { id: S2, title: 'CLI #1', workingDirectory: '/home', status: 'pending' },
]);

function run(events: [string, unknown][], state: TerminalsState = configured): TerminalsState {
  return events.reduce((s, [type, payload]) => applyTerminalEvent(s, type, payload), state);
}

describe('terminal status transitions', () => {
  it.each([
    { name: 'the life of a session', events: [['terminal/created', { sessionId: S1, pid: 42, cols: 120, rows: 40 }], ['terminal/status', { sessionId: S1, status: 'booting' }], ['terminal/status', { sessionId: S1, status: 'ready' }]], status: 'ready', pid: 42 },
    { name: 'exit keeps the code', events: [['terminal/status', { sessionId: S1, status: 'ready' }], ['terminal/status', { sessionId: S1, status: 'terminated', exitCode: 3 }], ['terminal/exit', { sessionId: S1, exitCode: 3 }]], status: 'terminated', exitCode: 3 },
    { name: 'failure keeps its message', events: [['terminal/status', { sessionId: S1, status: 'failed' }], ['terminal/error', { sessionId: S1, message: 'write_failed: EIO', recoverable: true }]], status: 'failed', error: 'write_failed: EIO' },
    { name: 'restart clears the old failure', events: [['terminal/status', { sessionId: S1, status: 'failed' }], ['terminal/error', { sessionId: S1, message: 'x', recoverable: true }], ['terminal/status', { sessionId: S1, status: 'booting' }]], status: 'booting' },
    { name: 'unknown status word is ignored', events: [['terminal/status', { sessionId: S1, status: 'ready' }], ['terminal/status', { sessionId: S1, status: 'exploded' }]], status: 'ready' },
    { name: 'feature off', events: [['terminal/status', { sessionId: S1, status: 'unavailable' }]], status: 'unavailable' },
    { name: 'malformed events change nothing', events: [['terminal/status', { sessionId: 'x', status: 'ready' }], ['terminal/status', null], ['terminal/exit', { sessionId: S1, exitCode: '1' }], ['terminal/error', { sessionId: S1 }]], status: 'pending' },
  ] as { name: string; events: [string, unknown][]; status: string; exitCode?: number; error?: string; pid?: number }[])('$name', ({ events, status, exitCode, error, pid }) => {
    const s = run(events).sessions.find((x) => x.id === S1)!;
    expect(s.status).toBe(status);
    expect(s.exitCode).toBe(exitCode);
    expect(s.errorMessage).toBe(error);
    if (pid !== undefined) expect(s.pid).toBe(pid);
  });

  it('a snapshot replaces the list and its statuses, while app/config keeps live statuses', () => {
    const live = run([['terminal/status', { sessionId: S1, status: 'ready' }]]);
    const snap = run([['terminal/snapshot', { sessions: [{ id: S1, title: 'CLI #1', workingDirectory: '/p', projectId: P1, status: 'terminated' }] }]], live);
    expect(snap.sessions.map((s) => [s.id, s.status])).toEqual([[S1, 'terminated']]);
    const reconfigured = applyConfiguredSessions(live, [{ id: S1, title: 'renamed', workingDirectory: '/p', projectId: P1, status: 'pending' }]);
    expect(reconfigured.sessions.map((s) => [s.title, s.status])).toEqual([['renamed', 'ready']]);
  });

  it('shows a project its own sessions and those of no project', () => {
    expect(sessionsForProject(configured, P1).map((s) => s.id)).toEqual([S1, S2]);
    expect(sessionsForProject(configured, P2).map((s) => s.id)).toEqual([S2]);
  });
});

describe('codex markers', () => {
  it.each([
    { data: 'velko-codex:start', marker: { kind: 'start' } },
    { data: 'velko-codex:end;status=0', marker: { kind: 'end', status: 0 } },
    { data: 'velko-codex:end;status=127', marker: { kind: 'end', status: 127 } },
    { data: 'velko-codex:end;status=', marker: { kind: 'end' } },
    { data: 'A', marker: undefined },
    { data: 'velko-codex:starts', marker: undefined },
  ])('$data', ({ data, marker }) => {
    expect(parseCodexMarker(data)).toEqual(marker);
  });

  it('runs between start and end, and a shell exit ends it', () => {
    let s = applyCodexMarker(configured, S1, { kind: 'start' });
    expect(s.sessions[0]!.codexRunning).toBe(true);
    s = applyCodexMarker(s, S1, { kind: 'end', status: 127 });
    expect(s.sessions[0]).toMatchObject({ codexRunning: false, codexExitStatus: 127 });
    s = applyCodexMarker(s, S1, { kind: 'start' });
    s = run([['terminal/status', { sessionId: S1, status: 'terminated', exitCode: 0 }]], s);
    expect(s.sessions[0]!.codexRunning).toBe(false);
  });
});
