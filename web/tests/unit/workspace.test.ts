import { describe, expect, it } from 'vitest';
import { applyActivation, applyConfig, initialWorkspace, reorderIds } from '../../src/state/workspace';
import { fakeApp } from './fakeApp';
import { P1, P2, P3, S1, project } from './ids';


describe('app/config', () => {
  it('replaces the whole workspace, so nothing of an earlier snapshot survives', () => {
    const first = applyConfig(initialWorkspace, {
      projects: [project(P1, 'a'), project(P2, 'b')],
      activeProjectId: P2,
      columnLayout: ['explorer', 'terminal', 'git'],
      cliSessions: [{ id: S1, title: 'CLI #1', workingDirectory: '/x', projectId: P2, status: 'pending' }],
      hasSavedWorkspace: true,
      resumeProjects: [project(P1, 'a'), project(P2, 'b')],
    });
    expect(first.columnLayout).toEqual(['explorer', 'terminal', 'git']);

    // Last project closed: empty list, no active id, the layout falls back to the default.
    const second = applyConfig(first, { projects: [], columnLayout: [], cliSessions: [], features: [], hasSavedWorkspace: true, resumeProjects: [project(P2, 'b')] });
    expect(second.projects).toEqual([]);
    expect(second.activeProjectId).toBeUndefined();
    expect(second.cliSessions).toEqual([]);
    expect(second.columnLayout).toEqual(['explorer', 'preview', 'editor', 'terminal']);
    expect(second.resumeProjects.map((p) => p.id)).toEqual([P2]);

    const third = applyConfig(second, { projects: [project(P3, 'c')], columnLayout: ['terminal'], cliSessions: [], features: [], hasSavedWorkspace: false });
    expect(third.resumeProjects).toEqual([]);
    expect(third.hasSavedWorkspace).toBe(false);
  });

  it('drops malformed parts and ignores payloads that are not snapshots', () => {
    const cases: { name: string; payload: unknown; projects: string[]; active?: string }[] = [
      { name: 'not an object', payload: 'x', projects: [P1] },
      { name: 'projects missing', payload: { activeProjectId: P1 }, projects: [P1] },
      { name: 'project without uuid', payload: { projects: [{ id: 'nope', name: 'x' }, project(P2, 'b')] }, projects: [P2] },
      { name: 'active id of no project', payload: { projects: [project(P2, 'b')], activeProjectId: P3 }, projects: [P2] },
      { name: 'lower-case ids are canonicalised', payload: { projects: [project(P2.toLowerCase(), 'b')], activeProjectId: P2.toLowerCase() }, projects: [P2], active: P2 },
    ];
    const base = applyConfig(initialWorkspace, { projects: [project(P1, 'a')], activeProjectId: P1 });
    for (const c of cases) {
      const next = applyConfig(base, c.payload);
      expect(next.projects.map((p) => p.id), c.name).toEqual(c.projects);
      if (c.active) expect(next.activeProjectId, c.name).toBe(c.active);
    }
    expect(applyConfig(base, { projects: [], columnLayout: ['bogus', 'git', 'git'] }).columnLayout).toEqual(['git']);
  });

  it('project/activate moves the active project only to a known project', () => {
    const base = applyConfig(initialWorkspace, { projects: [project(P1, 'a'), project(P2, 'b')], activeProjectId: P1 });
    expect(applyActivation(base, { id: P2, name: 'b', rootPath: '~/b' }).activeProjectId).toBe(P2);
    expect(applyActivation(base, { id: P3 })).toBe(base);
    expect(applyActivation(base, { projectId: P2 })).toBe(base);
  });
});

describe('reorderIds', () => {
  it.each([
    { dragged: 'c', target: 'a', after: false, out: ['c', 'a', 'b'] },
    { dragged: 'a', target: 'c', after: true, out: ['b', 'c', 'a'] },
    { dragged: 'a', target: 'b', after: true, out: ['b', 'a', 'c'] },
    { dragged: 'b', target: 'b', after: true, out: ['a', 'b', 'c'] },
    { dragged: 'x', target: 'a', after: false, out: ['a', 'b', 'c'] },
  ])('$dragged onto $target (after=$after)', ({ dragged, target, after, out }) => {
    expect(reorderIds(['a', 'b', 'c'], dragged, target, after)).toEqual(out);
  });
});

describe('resuming the workspace', () => {
  it.each([
    { name: 'a project brought back without a shell gets a new terminal', sessions: [], creates: [{ projectId: P1 }] },
    { name: 'one whose shell is configured starts nothing', sessions: [{ id: S1, title: 'CLI #1', workingDirectory: '/x', projectId: P1, status: 'pending' }], creates: [] },
  ])('$name', ({ sessions, creates }) => {
    const { app, send, take } = fakeApp();
    send('app/config', { projects: [], hasSavedWorkspace: true, resumeProjects: [project(P1, 'a')] });
    app.resumeWorkspace();
    send('app/config', { projects: [project(P1, 'a')], activeProjectId: P1, cliSessions: sessions });
    expect(take('terminal/create')).toEqual(creates);
  });
});
