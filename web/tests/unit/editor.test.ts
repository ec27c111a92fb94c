import { describe, expect, it } from 'vitest';
import * as ed from '../../src/state/editor';
import { P1 } from './ids';

const key = ed.docKey(P1, 'src/a.ts');
const loaded = ed.applyFileEvent(ed.openRequested(ed.initialEditor, P1, 'src/a.ts'), 'project/file/content', { projectId: P1, path: 'src/a.ts', content: 'x' });
const doc = (s: ed.EditorState) => s.docs.find((d) => d.key === key)!;

type Step = ['edit'] | ['save'] | ['event', string, Record<string, unknown>?];

describe('editor dirty state', () => {
  const saved = { projectId: P1, path: 'src/a.ts' };
  it.each([
    { name: 'fresh load is clean', steps: [], dirty: false },
    { name: 'an edit makes it dirty', steps: [['edit']], dirty: true },
    { name: 'acknowledged save cleans it', steps: [['edit'], ['save'], ['event', 'project/file/saved', saved]], dirty: false },
    { name: 'an edit during the save stays dirty', steps: [['edit'], ['save'], ['edit'], ['event', 'project/file/saved', saved]], dirty: true },
    { name: 'a failed save stays dirty', steps: [['edit'], ['save'], ['event', 'project/file/error', { ...saved, message: '保存に失敗しました: x' }]], dirty: true },
    { name: 'a saved event without our save changes nothing', steps: [['edit'], ['event', 'project/file/saved', saved]], dirty: true },
    { name: 'a saved event for another file changes nothing', steps: [['edit'], ['save'], ['event', 'project/file/saved', { projectId: P1, path: 'b' }]], dirty: true },
    { name: 'a reload replaces the text and is clean', steps: [['edit'], ['event', 'project/file/content', { ...saved, content: 'y' }]], dirty: false },
  ] as { name: string; steps: Step[]; dirty: boolean }[])('$name', ({ steps, dirty }) => {
    let s = loaded;
    for (const step of steps) {
      if (step[0] === 'edit') s = ed.edited(s, key);
      else if (step[0] === 'save') s = ed.saveRequested(s, key);
      else s = ed.applyFileEvent(s, step[1], step[2]);
    }
    expect(ed.isDirty(doc(s))).toBe(dirty);
  });
});

describe('opening files', () => {
  // Text, images and a missing file, as the program sends them, are in the recorded browser journeys.
  it('leaves open documents alone on a rename failure and drops content nobody asked for', () => {
    const opening = ed.openRequested(ed.initialEditor, P1, 'src/a.ts');
    expect(ed.applyFileEvent(opening, 'project/file/error', { projectId: P1, path: 'src/a.ts', message: 'x', code: 'rename_conflict' })).toBe(opening);
    expect(ed.applyFileEvent(ed.initialEditor, 'project/file/content', { projectId: P1, path: 'z', content: 'q' })).toBe(ed.initialEditor);
  });

  it('asks before a large file and forgets it when declined', () => {
    const opening = ed.openRequested(ed.initialEditor, P1, 'big.log');
    const asked = ed.applyFileEvent(opening, 'project/file/confirm', { projectId: P1, path: 'big.log', sizeBytes: 40 * 1048576, softLimitBytes: 31457280, hardLimitBytes: 314572800 });
    expect(asked.confirm).toMatchObject({ path: 'big.log', sizeBytes: 40 * 1048576 });
    expect(ed.dismissConfirm(asked).docs).toEqual([]);
    const accepted = ed.acceptConfirm(asked);
    expect(accepted.confirm).toBeUndefined();
    expect(accepted.docs).toHaveLength(1);
  });

  it('follows renames of the file and of its folder', () => {
    let s = ed.applyRenamed(loaded, { projectId: P1, path: 'src', nextPath: 'lib', entityType: 'folder' });
    expect(s.docs[0]!.path).toBe('lib/a.ts');
    expect(s.active[P1]).toBe(ed.docKey(P1, 'lib/a.ts'));
    s = ed.applyRenamed(s, { projectId: P1, path: 'lib/a.ts', nextPath: 'lib/b.ts', entityType: 'file' });
    expect(s.docs[0]!.path).toBe('lib/b.ts');
    expect(ed.applyRenamed(s, { projectId: P1, path: 'lib/b', nextPath: 'x', entityType: 'file' })).toBe(s);
  });
});
