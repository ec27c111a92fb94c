import { describe, expect, it } from 'vitest';
import * as git from '../../src/state/git';
import { P1, P2 } from './ids';

const status = { projectId: P1, branch: 'main', ahead: 2, behind: 1, staged: [{ path: 'a', status: 'M ' }], unstaged: [{ path: 'b', status: ' M' }], untracked: [{ path: 'c', status: '?' }], pending: 3 };

describe('git status and diff', () => {
  it('keeps status per project and drops malformed entries', () => {
    const s = git.applyStatus(git.initialGit, { ...status, unstaged: [{ path: 'b', status: ' M' }, { status: 'x' }, 7] });
    expect(s.projects[P1]!.status).toMatchObject({ branch: 'main', ahead: 2, behind: 1, pending: 3 });
    expect(s.projects[P1]!.status!.unstaged).toEqual([{ path: 'b', status: ' M' }]);
    expect(git.applyStatus(s, { ...status, projectId: 'nope' })).toBe(s);
  });

  it('fills the selected diff only with the answer for it', () => {
    let s = git.selectDiff(git.applyStatus(git.initialGit, status), P1, 'b', 'unstaged');
    const other = git.applyDiff(s, { projectId: P1, files: [{ path: 'a', stage: 'staged', additions: 1, deletions: 0, isBinary: false, patch: 'x' }] });
    expect(other.projects[P1]!.diff!.loading).toBe(true);
    s = git.applyDiff(s, { projectId: P1, files: [{ path: 'b', stage: 'unstaged', additions: 1, deletions: 2, isBinary: false, patch: '@@ -1 +1 @@\n-x\n+y\n' }] });
    expect(s.projects[P1]!.diff).toMatchObject({ loading: false, files: [{ additions: 1, deletions: 2 }] });
    // A status in which the file is clean again drops the stale diff.
    s = git.applyStatus(s, { ...status, unstaged: [] });
    expect(s.projects[P1]!.diff).toBeUndefined();
  });

  it('classifies patch lines', () => {
    const lines = git.classifyPatch('diff --git a/x b/x\n--- a/x\n+++ b/x\n@@ -1,2 +1,2 @@\n ctx\n-old\n+new\n');
    expect(lines.map((l) => l.kind)).toEqual(['meta', 'meta', 'meta', 'hunk', 'context', 'del', 'add']);
  });
});

describe('git actions', () => {
  it.each([
    { name: 'successful commit empties the box', action: 'commit', results: [{ success: true, message: 'コミットしました' }], draft: '', missing: false },
    { name: 'failed commit keeps the message', action: 'commit', results: [{ success: false, message: 'git commit に失敗しました' }], draft: 'msg', missing: false },
    { name: 'push without remote shows the notice', action: 'push', results: [{ success: false, message: git.MISSING_REMOTE_MESSAGE }], draft: 'msg', missing: true },
    { name: 'the barrier alone ends an action that sent nothing', action: 'fetch', results: [], draft: 'msg', missing: false },
  ] as { name: string; action: git.GitAction; results: object[]; draft: string; missing: boolean }[])('$name', ({ action, results, draft, missing }) => {
    let s = git.setDraft(git.initialGit, P1, 'msg');
    s = git.actionStarted(s, P1, action, 'req-1');
    expect(git.isRunning(s, P1)).toBe(true);
    for (const r of results) s = git.applyResult(s, r, P2).state;
    expect(git.applyBarrier(s, { projectId: P1, requestId: 'other' })).toBe(s);
    s = git.applyBarrier(s, { projectId: P1, requestId: 'req-1' });
    expect(git.isRunning(s, P1)).toBe(false);
    expect(git.projectGit(s, P1).draft).toBe(draft);
    expect(git.projectGit(s, P1).missingRemote).toBe(missing);
  });

  it('attributes results outside an action to the active project and returns the toast', () => {
    const r = git.applyResult(git.initialGit, { success: false, message: git.MISSING_REMOTE_MESSAGE }, P2);
    expect(r.toast).toEqual({ success: false, message: git.MISSING_REMOTE_MESSAGE });
    expect(git.projectGit(r.state, P2).missingRemote).toBe(true);
    expect(git.applyResult(git.initialGit, { success: 'yes', message: 'x' }, P2).toast).toBeUndefined();
  });
});
