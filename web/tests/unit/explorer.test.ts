import { describe, expect, it } from 'vitest';
import * as ex from '../../src/state/explorer';
import { P1, P2 } from './ids';

const file = (path: string) => ({ name: path.split('/').pop()!, path, type: 'file' });
const folder = (path: string) => ({ name: path.split('/').pop()!, path, type: 'folder' });

function answer(state: ex.ExplorerState, requestId: string, dirs: { path: string; nodes?: unknown[]; error?: string }[], projectId = P1) {
  return ex.applyDirectories(state, { projectId, requestId, directories: dirs.map((d) => ({ nodes: [], ...d })) });
}

/** A tree with root loaded, `src` expanded and loaded, `docs` loaded but collapsed. */
function loadedTree(): ex.ExplorerState {
  let s = ex.ensureRoot(ex.initialExplorer, P1).state;
  s = ex.markRequested(s, P1, [''], 'r1');
  s = answer(s, 'r1', [{ path: '', nodes: [folder('docs'), folder('src'), file('README.md')] }]);
  s = ex.toggleFolder(s, P1, 'src').state;
  s = ex.markRequested(s, P1, ['src'], 'r2');
  s = answer(s, 'r2', [{ path: 'src', nodes: [file('src/a.ts')] }]);
  s = ex.toggleFolder(s, P1, 'docs').state;
  s = ex.markRequested(s, P1, ['docs'], 'r3');
  s = answer(s, 'r3', [{ path: 'docs', nodes: [file('docs/x.md')] }]);
  return ex.toggleFolder(s, P1, 'docs').state;
}

describe('explorer listings', () => {
  it('takes only answers to our own requests', () => {
    let s = ex.markRequested(ex.ensureRoot(ex.initialExplorer, P1).state, P1, [''], 'mine');
    const cases: { name: string; payload: unknown }[] = [
      { name: 'unknown request id', payload: { projectId: P1, requestId: 'other', directories: [{ path: '', nodes: [file('x')] }] } },
      { name: 'no request id', payload: { projectId: P1, directories: [{ path: '', nodes: [file('x')] }] } },
      { name: 'other project', payload: { projectId: P2, requestId: 'mine', directories: [{ path: '', nodes: [file('x')] }] } },
      { name: 'garbage', payload: [1, 2] },
    ];
    for (const c of cases) expect(ex.applyDirectories(s, c.payload), c.name).toBe(s);
    s = answer(s, 'mine', [{ path: '', nodes: [file('a'), { name: 'bad', type: 'socket', path: 'bad' }, folder('b')] }]);
    expect(s.trees[P1]!.dirs['']!.nodes.map((n) => n.path)).toEqual(['a', 'b']);
    expect(s.trees[P1]!.loading).toEqual([]);
    // The same request id is not taken twice.
    expect(answer(s, 'mine', [{ path: '', nodes: [] }])).toBe(s);
  });

  it('asks for a folder on first expand only, and keeps error listings', () => {
    let s = loadedTree();
    expect(ex.toggleFolder(s, P1, 'src').request).toEqual([]);
    const t = ex.toggleFolder(s, P1, 'lib');
    expect(t.request).toEqual(['lib']);
    s = answer(ex.markRequested(t.state, P1, ['lib'], 'r9'), 'r9', [{ path: 'lib', error: 'unreadable' }]);
    expect(s.trees[P1]!.dirs['lib']).toEqual({ nodes: [], error: 'unreadable' });
    expect(ex.visibleRows(s.trees[P1]!).map((r) => `${r.depth}:${r.node.path}`)).toEqual(['0:docs', '0:src', '1:src/a.ts', '0:README.md']);
  });
});

describe('explorer invalidation', () => {
  it.each([
    { name: 'a visible folder is reloaded', paths: ['src'], resync: false, request: ['src'], forgotten: [] },
    { name: 'the root is reloaded', paths: [''], resync: false, request: [''], forgotten: [] },
    { name: 'a hidden loaded folder is forgotten, not reloaded', paths: ['docs'], resync: false, request: [], forgotten: ['docs'] },
    { name: 'an unknown folder asks for nothing', paths: ['nowhere'], resync: false, request: [], forgotten: [] },
    { name: 'exactly the named directories', paths: ['src', 'docs'], resync: false, request: ['src'], forgotten: ['docs'] },
    { name: 'resync reloads all that is shown and forgets the rest', paths: [], resync: true, request: ['', 'src'], forgotten: ['docs'] },
  ])('$name', ({ paths, resync, request, forgotten }) => {
    const s = loadedTree();
    const t = ex.applyChanged(s, { projectId: P1, directoryPaths: paths, requiresResync: resync });
    expect([...t.request].sort()).toEqual([...request].sort());
    for (const p of forgotten) expect(t.state.trees[P1]!.dirs[p]).toBeUndefined();
    for (const p of request) expect(t.state.trees[P1]!.dirs[p]).toBeDefined();
  });

  it('ignores changes of projects it has no tree for and malformed batches', () => {
    const s = loadedTree();
    expect(ex.applyChanged(s, { projectId: P2, directoryPaths: [''], requiresResync: true }).request).toEqual([]);
    expect(ex.applyChanged(s, { projectId: P1, directoryPaths: 'src' }).request).toEqual([]);
    expect(ex.applyChanged(s, null).state).toBe(s);
  });
});
