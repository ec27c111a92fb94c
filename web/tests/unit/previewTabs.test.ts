import { afterEach, beforeEach, describe, expect, it, vi } from 'vitest';
import * as ed from '../../src/state/editor';
import { fakeApp } from './fakeApp';
import { P1, P2, project } from './ids';

const tab = (id: string, path: string, viewMode = 'source', lastOpenedAt = 1) => ({ id, path, title: path.split('/').pop(), isDirty: false, viewMode, lastOpenedAt });

function workspace(projects = [project(P1, 'a'), project(P2, 'b')], active = P1) {
  const f = fakeApp();
  f.send('app/config', { projects, activeProjectId: active });
  f.posted.length = 0;
  const persisted = () => f.posted.filter((m) => m.type === 'previewTabs/persist').map((m) => m.payload as { projectId: string; snapshot: { activeTabId?: string; tabs: { path: string; viewMode: string; isDirty: boolean }[] } });
  const opened = () => f.posted.filter((m) => m.type === 'project/file/open').map((m) => m.payload!.path);
  return { ...f, persisted, opened };
}

describe('preview tabs', () => {
  beforeEach(() => vi.useFakeTimers({ now: 1000 }));
  afterEach(() => vi.useRealTimers());

  it('are stored once changes settle: order, active tab, view mode and unsaved edits', () => {
    const { app, posted, persisted } = workspace();
    app.openFile(P1, 'README.md');
    app.openFile(P1, 'logo.png');
    app.openFile(P1, 'src/a.ts');
    expect(persisted()).toEqual([]);
    vi.advanceTimersByTime(400);
    const first = persisted();
    expect(first.map((p) => p.projectId)).toEqual([P1]);
    expect(first[0]!.snapshot.tabs.map((t) => [t.path, t.viewMode])).toEqual([['README.md', 'markdown'], ['logo.png', 'rendered'], ['src/a.ts', 'source']]);
    const ids = app.editor.get().docs.map((d) => d.tabId);
    expect(first[0]!.snapshot).toMatchObject({ activeTabId: ids[2], version: 1 });

    posted.length = 0;
    const key = (path: string) => ed.docKey(P1, path);
    app.reorderTab(key('src/a.ts'), key('README.md'), false);
    app.editor.update((s) => ed.applyFileEvent(s, 'project/file/content', { projectId: P1, path: 'src/a.ts', content: 'x' }));
    app.editor.update((s) => ed.edited(s, key('src/a.ts')));
    app.setViewMode(key('README.md'), 'source');
    vi.advanceTimersByTime(400);
    const second = persisted();
    expect(second).toHaveLength(1);
    expect(second[0]!.snapshot.tabs.map((t) => [t.path, t.viewMode, t.isDirty])).toEqual([['src/a.ts', 'source', true], ['README.md', 'source', false], ['logo.png', 'rendered', false]]);

    // Nothing changed since: nothing is sent.
    posted.length = 0;
    app.editor.update((s) => ({ ...s }));
    vi.advanceTimersByTime(400);
    expect(persisted()).toEqual([]);
  });

  it('are stored before the project changes, and a closed project keeps what it stored', () => {
    const { app, send, posted, persisted } = workspace();
    app.openFile(P1, 'a.ts');
    app.activateProject(P2);
    expect(posted.map((m) => m.type).filter((t) => t !== 'project/file/open')).toEqual(['previewTabs/persist', 'project/activate']);
    posted.length = 0;
    // The project closes and its tabs go with it; no empty list replaces what is stored.
    send('app/config', { projects: [project(P2, 'b')], activeProjectId: P2 });
    vi.advanceTimersByTime(400);
    expect(persisted()).toEqual([]);
    expect(app.editor.get().docs).toEqual([]);
  });

  it(`stop at ${ed.PREVIEW_TAB_LIMIT} per project and tell the native side`, () => {
    const { app, posted, take, opened } = workspace();
    for (let i = 0; i < ed.PREVIEW_TAB_LIMIT; i += 1) app.openFile(P1, `f${i}.ts`);
    expect(opened()).toHaveLength(ed.PREVIEW_TAB_LIMIT);
    posted.length = 0;
    app.openFile(P1, 'one-more.ts');
    app.openFile(P1, 'f3.ts');
    expect(take('previewTabs/limitReached')).toEqual([{ projectId: P1 }]);
    expect(app.toasts.get().map((t) => t.message)).toEqual([`タブは ${ed.PREVIEW_TAB_LIMIT} 個までです。ほかのタブを閉じてから開いてください`]);
    expect(ed.activeDoc(app.editor.get(), P1)!.path).toBe('f3.ts');
  });

  it('come back once per page load, unread except the active one, and are not sent back', () => {
    const { app, send, posted, persisted, opened } = workspace();
    const snapshot = { activeTabId: 't2', tabs: [tab('t1', 'a.ts'), tab('t2', 'docs/b.md', 'markdown', 5), tab('t3', 'c.png', 'rendered'), tab('t4', 'bad', 'sideways'), tab('t1', 'dup.ts')], version: 1 };
    send('previewTab:hydrate', { projectId: P1, snapshot });
    send('previewTab:hydrate', { projectId: P2, snapshot: { activeTabId: 'x', tabs: [tab('x', 'x.ts')], version: 1 } });
    const docs = ed.projectDocs(app.editor.get(), P1);
    expect(docs.map((d) => [d.path, d.kind])).toEqual([['a.ts', 'unloaded'], ['docs/b.md', 'loading'], ['c.png', 'unloaded']]);
    expect(ed.projectDocs(app.editor.get(), P2).map((d) => d.kind)).toEqual(['unloaded']);
    expect(opened()).toEqual(['docs/b.md']);
    vi.advanceTimersByTime(400);
    expect(persisted()).toEqual([]);

    // The native side repeats it on every activation; the page's own changes stand.
    app.editor.update((s) => ed.closeDoc(s, docs[0]!.key));
    send('previewTab:hydrate', { projectId: P1, snapshot });
    expect(ed.projectDocs(app.editor.get(), P1).map((d) => d.path)).toEqual(['docs/b.md', 'c.png']);
    // A tab is read when it comes on screen.
    posted.length = 0;
    app.activateTab(ed.docKey(P1, 'c.png'));
    expect(opened()).toEqual(['c.png']);
    posted.length = 0;
    send('app/config', { projects: [project(P1, 'a'), project(P2, 'b')], activeProjectId: P2 });
    expect(opened()).toEqual(['x.ts']);
  });

  it('merge with tabs opened before they came back, and the merge is stored', () => {
    const { app, send, persisted } = workspace();
    app.openFile(P1, 'mine.ts');
    send('previewTab:hydrate', { projectId: P1, snapshot: { activeTabId: 't1', tabs: [tab('t1', 'old.ts'), tab('t2', 'mine.ts')], version: 1 } });
    expect(ed.projectDocs(app.editor.get(), P1).map((d) => d.path)).toEqual(['old.ts', 'mine.ts']);
    expect(ed.activeDoc(app.editor.get(), P1)!.path).toBe('mine.ts');
    vi.advanceTimersByTime(400);
    expect(persisted().map((p) => p.snapshot.tabs.map((t) => t.path))).toEqual([['old.ts', 'mine.ts']]);
  });

  it('named in a warning stay, marked as gone', () => {
    const { app, send } = workspace();
    send('previewTab:hydrate', { projectId: P1, snapshot: { tabs: [tab('t1', 'a.ts'), tab('t2', 'gone.ts')], version: 1 } });
    send('previewTab:warning', { projectId: P1, tabs: [{ tabId: 't2', path: 'gone.ts', code: 'file_missing', message: 'ファイルが見つかりません' }, { tabId: 'nope', path: 'x', code: 'file_missing', message: 'x' }] });
    send('previewTab:warning', { projectId: P2, tabs: [{ tabId: 't1', path: 'a.ts', code: 'file_missing', message: 'x' }] });
    expect(ed.projectDocs(app.editor.get(), P1).map((d) => [d.path, d.missing])).toEqual([['a.ts', undefined], ['gone.ts', 'ファイルが見つかりません']]);
  });
});
