import { describe, expect, it } from 'vitest';
import { mountGit } from '../../src/ui/git/column';
import { fakeApp } from './fakeApp';
import { P1, P2, project } from './ids';

const status = (projectId: string) => ({ projectId, branch: 'main', ahead: 0, behind: 0, staged: [], unstaged: [{ path: 'README.md', status: ' M' }], untracked: [] });
const diff = (projectId: string, line: string) => ({ projectId, files: [{ path: 'README.md', stage: 'unstaged', additions: 1, deletions: 0, isBinary: false, patch: `@@ -1 +1 @@\n${line}\n` }] });

describe('git changes view', () => {
  it('binds a reused row and the diff to the project on screen', () => {
    const { app, send, take } = fakeApp();
    const column = document.createElement('section');
    mountGit(app, column);
    send('app/config', { projects: [project(P1, 'a'), project(P2, 'b')], activeProjectId: P1 });
    send('git/status', status(P1));
    send('git/status', status(P2));
    const row = () => column.querySelector<HTMLElement>('.git-file')!;
    const shownDiff = () => column.querySelector('.git-diff:not([hidden]) .diff-text')?.textContent ?? '';

    row().click();
    expect(take('git/diff')).toEqual([{ projectId: P1, targets: [{ path: 'README.md', stage: 'unstaged' }] }]);
    // Lines of the same length: a picture keyed by path, stage and size cannot tell them apart.
    send('git/diff', diff(P1, '+from A'));

    send('project/activate', { id: P2, name: 'b', rootPath: '~/b' });
    row().click();
    expect(take('git/diff')).toEqual([{ projectId: P2, targets: [{ path: 'README.md', stage: 'unstaged' }] }]);
    send('git/diff', diff(P2, '+from B'));
    expect(shownDiff()).toContain('+from B');
    row().dispatchEvent(new MouseEvent('dblclick', { bubbles: true }));
    expect(take('project/file/open')).toEqual([{ projectId: P2, path: 'README.md' }]);

    send('project/activate', { id: P1, name: 'a', rootPath: '~/a' });
    expect(shownDiff()).toContain('+from A');
    expect(shownDiff()).not.toContain('+from B');
  });
});
