import { describe, expect, it } from 'vitest';
import * as hist from '../../src/state/history';
import { fakeApp } from './fakeApp';
import { P1, P2 } from './ids';

const edge = (oid: string, origin = 'remote') => ({ oid, messageHeadline: `m ${oid}`, author: { name: 'Ann' }, committedDate: '2024-05-01T00:00:00Z', files: [], origin });
const page = (requestId: string, oids: string[], more: boolean, cursor: string | null = `c-${requestId}`) => ({
  projectId: P1,
  requestId,
  edges: oids.map((o) => edge(o)),
  pageInfo: { hasNextPage: more },
  ...(cursor === null ? {} : { cursorPayload: cursor }),
});
const oids = (s: hist.HistoryState) => hist.projectHistory(s, P1).commits.map((c) => c.oid);

/** A walk whose first page (r1) showed a, b and has more. */
function walked(): hist.HistoryState {
  const s = hist.startWalk(hist.initialHistory, P1, 'r1').state;
  return hist.applyHistory(s, page('r1', ['a', 'b'], true)).state;
}

describe('history pages', () => {
  it('shows each commit once and asks again when a page brought nothing new', () => {
    const cases: { name: string; answer: object; want: string[]; follow?: string; more: boolean }[] = [
      { name: 'new and repeated commits', answer: page('r2', ['b', 'c', 'c', 'd'], true), want: ['a', 'b', 'c', 'd'], more: true },
      { name: 'only repeated commits', answer: page('r2', ['a', 'b'], true), want: ['a', 'b'], follow: 'more', more: true },
      { name: 'only repeated, at the end', answer: page('r2', ['a'], false), want: ['a', 'b'], more: false },
      { name: 'no commits at all', answer: page('r2', [], true), want: ['a', 'b'], more: true },
      { name: 'no cursor to go on from', answer: page('r2', ['c'], true, null), want: ['a', 'b', 'c'], more: false },
    ];
    for (const c of cases) {
      const asked = hist.nextPage(walked(), P1, 'r2');
      expect(asked.request, c.name).toEqual({ projectId: P1, pageSize: hist.HISTORY_PAGE_SIZE, requestId: 'r2', cursorPayload: 'c-r1' });
      const r = hist.applyHistory(asked.state, c.answer);
      expect(oids(r.state), c.name).toEqual(c.want);
      expect(r.follow, c.name).toBe(c.follow);
      expect(hist.projectHistory(r.state, P1).hasNextPage, c.name).toBe(c.more);
    }
  });

  it('takes only the answer to the request in flight, and sends one request at a time', () => {
    const s = hist.nextPage(walked(), P1, 'r2').state;
    expect(hist.nextPage(s, P1, 'r3').request).toBeUndefined();
    for (const stale of [page('r1', ['x'], true), { ...page('r2', ['x'], true), projectId: P2 }, { ...page('r2', ['x'], true), requestId: undefined }, 'junk']) {
      expect(hist.applyHistory(s, stale).state).toBe(s);
    }
    // A fresh walk waits for the page on its way, which it then discards.
    const queued = hist.startWalk(s, P1, 'r3');
    expect(queued.request).toBeUndefined();
    const r = hist.applyHistory(queued.state, page('r2', ['x'], true));
    expect(r.follow).toBe('fresh');
    expect(oids(r.state)).toEqual(['a', 'b']);
    const fresh = hist.startWalk(r.state, P1, 'r4');
    expect(fresh.request).toEqual({ projectId: P1, pageSize: hist.HISTORY_PAGE_SIZE, requestId: 'r4' });
    // The old rows stay until the fresh walk's first page replaces them.
    expect(oids(fresh.state)).toEqual(['a', 'b']);
    expect(oids(hist.applyHistory(fresh.state, page('r4', ['z', 'a'], false)).state)).toEqual(['z', 'a']);
  });

  it('keeps the rows on an error, asks no further page, and retries from the last cursor', () => {
    let s = hist.nextPage(walked(), P1, 'r2').state;
    s = hist.applyHistory(s, page('r2', ['c'], true)).state;
    expect(hist.applyHistoryError(s, { projectId: P1, requestId: 'r1', message: 'old' })).toBe(s);
    s = hist.applyHistoryError(s, { projectId: P1, requestId: 'r2', message: 'GitHub に接続できません' });
    expect(hist.projectHistory(s, P1)).toMatchObject({ error: 'GitHub に接続できません', hasNextPage: true });
    expect(oids(s)).toEqual(['a', 'b', 'c']);
    expect(hist.nextPage(s, P1, 'r3').request).toBeUndefined();
    const again = hist.retry(s, P1, 'r3');
    expect(again.request).toEqual({ projectId: P1, pageSize: hist.HISTORY_PAGE_SIZE, requestId: 'r3', cursorPayload: 'c-r2' });
    expect(hist.projectHistory(again.state, P1).error).toBeUndefined();
  });

  it('matches a commit diff to the file asked for, by its path after a rename', () => {
    const cases: { path: string; asked: string }[] = [
      { path: 'src/{a => b}/f.txt', asked: 'src/b/f.txt' },
      { path: 'old.txt => new.txt', asked: 'new.txt' },
      { path: 'src/{ => sub}/f.txt', asked: 'src/sub/f.txt' },
      { path: 'plain.txt', asked: 'plain.txt' },
    ];
    for (const c of cases) {
      // The history row names the file as git lists it; the diff is asked for by its new path.
      const { app, take } = fakeApp();
      app.showCommitDiff(P1, 'a', c.path);
      expect(take('git/commit/diff'), c.path).toEqual([{ projectId: P1, commit: 'a', path: c.asked }]);
      let s = hist.selectCommitDiff(walked(), P1, 'a', c.asked);
      const file = (commit: string, path: string) => ({ projectId: P1, commit, files: [{ commit, path, additions: 1, deletions: 0, isBinary: false, patch: '+x', resolved: true }] });
      expect(hist.applyCommitDiff(s, file('b', c.asked)), c.path).toBe(s);
      expect(hist.applyCommitDiff(s, file('a', 'other.txt')), c.path).toBe(s);
      s = hist.applyCommitDiff(s, file('a', c.asked));
      expect(hist.projectHistory(s, P1).diff, c.path).toMatchObject({ loading: false, files: [{ path: c.asked }] });
    }
  });
});
