import { describe, expect, it } from 'vitest';
import * as dash from '../../src/state/dashboard';
import { P1 } from './ids';

const summary = {
  projectId: P1.toLowerCase(),
  projectName: 'velko',
  branch: '',
  commitCount: 12,
  lastCommitAt: '2024-05-01T09:30:00Z',
  techStack: { totalBytes: 10, languages: [{ name: 'TypeScript', bytes: 6, ratio: 0.6 }, { name: 'Bad', ratio: 'x' }] },
  heatmap: [{ date: '2024-04-30T00:00:00Z', count: 0 }, { date: 'garbage', count: 1 }, { date: '2024-05-01T00:00:00Z', count: 3 }],
};
const snapshot = { generatedAt: '2024-05-01T10:00:00Z', totalCommits: 12, todaysCommits: 3, last30DayCommits: 9, previous30DayCommits: 4, last30DayDeltaPercent: 125, projectSummaries: [summary, { projectName: 'no id' }] };

describe('dashboard state', () => {
  it('follows toggles, snapshots and errors, and ignores what is not one', () => {
    type Step = [string, Record<string, unknown>] | ['refresh'];
    const cases: { name: string; steps: Step[]; open: boolean; loading: boolean; error?: string; projects?: number }[] = [
      { name: 'opening waits for a snapshot', steps: [['dashboard.toggled', { open: true }]], open: true, loading: true },
      { name: 'the snapshot arrives', steps: [['dashboard.toggled', { open: true }], ['dashboard.metrics', snapshot]], open: true, loading: false, projects: 1 },
      { name: 'a failure shows its message', steps: [['dashboard.toggled', { open: true }], ['dashboard.metrics.error', { message: 'Failed to fetch dashboard metrics' }]], open: true, loading: false, error: 'Failed to fetch dashboard metrics' },
      { name: 'a refresh clears the failure', steps: [['dashboard.metrics.error', { message: 'x' }], ['refresh']], open: false, loading: true },
      { name: 'closing keeps the last snapshot', steps: [['dashboard.toggled', { open: true }], ['dashboard.metrics', snapshot], ['dashboard.toggled', { open: false }]], open: false, loading: false, projects: 1 },
      { name: 'a snapshot after closing is still kept', steps: [['dashboard.toggled', { open: true }], ['dashboard.toggled', { open: false }], ['dashboard.metrics', snapshot]], open: false, loading: false, projects: 1 },
      { name: 'malformed events change nothing', steps: [['dashboard.toggled', { open: 'yes' }], ['dashboard.metrics', { totalCommits: 3 }]], open: false, loading: false },
    ];
    for (const c of cases) {
      let s = dash.initialDashboard;
      for (const step of c.steps) s = step[0] === 'refresh' ? dash.refreshRequested(s) : dash.applyEvent(s, step[0], step[1] ?? {});
      expect({ open: s.open, loading: s.loading, error: s.error, projects: s.snapshot?.projects.length }, c.name).toEqual({ open: c.open, loading: c.loading, error: c.error, projects: c.projects });
    }
  });

  // Which cell is today in the user's zone is the browser test's, under a real time zone.
  it('reads a summary as sent, dropping malformed languages and days', () => {
    const p = dash.parseSnapshot(snapshot)!.projects[0]!;
    expect(p).toMatchObject({ projectId: P1, branch: 'HEAD', commitCount: 12, lastCommitAt: Date.parse(summary.lastCommitAt), languages: [{ name: 'TypeScript', ratio: 0.6 }] });
    expect(p.heatmap).toEqual([{ day: '2024-04-30', count: 0 }, { day: '2024-05-01', count: 3 }]);
  });

  it.each([
    { percent: 125, out: ['↑', '125.0%', 'up'] },
    { percent: 12.46, out: ['↑', '12.5%', 'up'] },
    { percent: -3, out: ['↓', '3.0%', 'down'] },
    { percent: 0, out: ['→', '0.0%', 'flat'] },
    { percent: -0.04, out: ['→', '0.0%', 'flat'] },
  ])('30 days against the 30 before: $percent', ({ percent, out }) => {
    const d = dash.delta(percent);
    expect([d.arrow, d.text, d.trend]).toEqual(out);
  });

  it.each([
    { ago: 30, text: 'たった今' },
    { ago: -3600, text: 'たった今' },
    { ago: 5 * 60, text: '5 分前' },
    { ago: 3 * 3600 + 59, text: '3 時間前' },
    { ago: 2 * 86400, text: '2 日前' },
    { ago: 45 * 86400, text: '1 か月前' },
    { ago: 400 * 86400, text: '1 年前' },
  ])('last commit $ago s ago reads "$text"', ({ ago, text }) => {
    const now = Date.parse('2024-05-01T12:00:00Z');
    expect(dash.relativeTime(now - ago * 1000, now)).toBe(text);
  });

  it('names five languages and greys the rest', () => {
    const six = ['a', 'b', 'c', 'd', 'e', 'f'].map((name, i) => ({ name, ratio: [0.4, 0.2, 0.1, 0.1, 0.1, 0.05][i]! }));
    const bar = dash.languageBar(six);
    expect(bar.named.map((l) => l.name)).toEqual(['a', 'b', 'c', 'd', 'e']);
    expect(bar.rest).toBeCloseTo(0.1);
    expect(dash.heatLevel(0, 5)).toBe(0);
    expect([1, 2, 5].map((n) => dash.heatLevel(n, 5))).toEqual([1, 2, 4]);
  });
});
