import { describe, expect, it } from 'vitest';
import { PaneRoster } from '../../src/terminal/paneRoster';
import { decideFit, type FitInput } from '../../src/terminal/fit';
import { connectInput, dropText, keyAction } from '../../src/terminal/input';
import { fakeApp } from './fakeApp';
import { S1 } from './ids';

describe('which terminal is on screen', () => {
  type Step =
    | { project: string; sessions: string[]; visible?: string[]; current: string | undefined; added?: string[]; removed?: string[]; created?: string }
    | { expect: true }
    | { choose: string; in: string };
  const cases: { name: string; steps: Step[] }[] = [
    {
      name: 'the last session by default, the chosen one per project after that',
      steps: [
        { project: 'A', sessions: ['a1', 'a2'], current: 'a2', added: ['a1', 'a2'] },
        { choose: 'a1', in: 'A' },
        { project: 'A', sessions: ['a1', 'a2'], current: 'a1', added: [] },
        { project: 'B', sessions: ['a1', 'a2', 'b1'], visible: ['b1'], current: 'b1', added: ['b1'] },
        { project: 'A', sessions: ['a1', 'a2', 'b1'], visible: ['a1', 'a2'], current: 'a1', added: [] },
      ],
    },
    {
      name: 'a closed choice falls back to the last session, and an empty project shows none',
      steps: [
        { project: 'A', sessions: ['a1', 'a2', 'a3'], current: 'a3' },
        { choose: 'a2', in: 'A' },
        { project: 'A', sessions: ['a1', 'a3'], current: 'a3', removed: ['a2'] },
        { project: 'A', sessions: [], current: undefined, removed: ['a1', 'a3'] },
      ],
    },
    {
      name: 'a terminal the user asked for is shown when it appears, but not one started elsewhere',
      steps: [
        { project: 'A', sessions: ['a1', 'a2'], current: 'a2' },
        { choose: 'a1', in: 'A' },
        { expect: true },
        // The configuration brings another project's session first: it is not the awaited one.
        { project: 'A', sessions: ['a1', 'a2', 'b1'], visible: ['a1', 'a2'], current: 'a1', added: ['b1'], created: undefined },
        { project: 'A', sessions: ['a1', 'a2', 'b1', 'a3'], visible: ['a1', 'a2', 'a3'], current: 'a3', added: ['a3'], created: 'a3' },
        // Only once: a later session does not steal the screen.
        { project: 'A', sessions: ['a1', 'a2', 'b1', 'a3', 'a4'], visible: ['a1', 'a2', 'a3', 'a4'], current: 'a3', created: undefined },
      ],
    },
  ];
  for (const c of cases) {
    it(c.name, () => {
      const roster = new PaneRoster();
      c.steps.forEach((step, i) => {
        if ('expect' in step) return roster.expectCreated();
        if ('choose' in step) return roster.choose(step.in, step.choose);
        const change = roster.update(step.project, step.sessions, step.visible ?? step.sessions);
        const what = `step ${i}`;
        expect(change.current, what).toBe(step.current);
        if (step.added) expect(change.added, what).toEqual(step.added);
        if (step.removed) expect(change.removed, what).toEqual(step.removed);
        if ('created' in step) expect(change.created, what).toBe(step.created);
      });
    });
  }
});

describe('fitting a terminal view to its box', () => {
  const s = (cols: number, rows: number) => ({ cols, rows });
  const base: FitInput = { fits: s(100, 30), view: s(80, 24), running: true, pty: s(80, 24), reported: s(80, 24) };
  it.each([
    { name: 'a running shell keeps its size and is asked for the new one', input: {}, out: { ask: s(100, 30), cancelAsk: false } },
    { name: 'a shell that has the fitting size cancels a pending ask', input: { pty: s(100, 30), view: s(100, 30) }, out: { cancelAsk: true } },
    { name: 'before the stream carries a size the view fits at once, the reported size decides the ask', input: { pty: undefined, reported: s(100, 30) }, out: { view: s(100, 30), cancelAsk: true } },
    { name: 'a reported size of zero counts as none', input: { pty: undefined, reported: s(0, 0) }, out: { view: s(100, 30), ask: s(100, 30), cancelAsk: false } },
    { name: 'without a running shell the view takes the space and asks nothing', input: { running: false }, out: { view: s(100, 30), cancelAsk: true } },
    { name: 'an unmeasurable box changes nothing', input: { fits: s(0, 30) }, out: { cancelAsk: false } },
  ] as { name: string; input: Partial<FitInput>; out: { view?: { cols: number; rows: number }; ask?: { cols: number; rows: number }; cancelAsk: boolean } }[])('$name', ({ input, out }) => {
    const d = decideFit({ ...base, ...input });
    expect(d.ask).toEqual(out.ask);
    expect(d.cancelAsk).toBe(out.cancelAsk);
    expect(d.view).toEqual(out.view);
  });
});

describe('terminal input', () => {
  // Ctrl+C as its byte is in the browser tests.
  it('sends binary input as base64', () => {
    const { app, posted } = fakeApp();
    const listeners: Record<string, (d: string) => void> = {};
    connectInput({ onData: (l) => (listeners.data = l), onBinary: (l) => (listeners.binary = l) }, app, S1);
    listeners.binary!('\x1b[M\xff');
    expect(posted).toEqual([
      { type: 'terminal/input', payload: { sessionId: S1, data: 'G1tN/w==', encoding: 'base64' } },
    ]);
  });

  it.each([
    { key: { ctrlKey: true, shiftKey: true, code: 'KeyC' }, action: 'copy' },
    { key: { ctrlKey: true, shiftKey: true, code: 'KeyV' }, action: 'paste' },
    { key: { ctrlKey: true, shiftKey: false, code: 'KeyC' }, action: 'terminal' },
    { key: { ctrlKey: true, shiftKey: true, code: 'KeyC', type: 'keyup' }, action: 'terminal' },
    { key: { ctrlKey: true, shiftKey: true, altKey: true, code: 'KeyC' }, action: 'terminal' },
  ])('$key.code ctrl=$key.ctrlKey shift=$key.shiftKey → $action', ({ key, action }) => {
    expect(keyAction({ type: 'keydown', altKey: false, metaKey: false, ...key })).toBe(action);
  });

  it.each([
    { detail: { paths: ['/home/u/My Files/a b.txt', '/tmp/b.txt'] }, text: "'/home/u/My Files/a b.txt' /tmp/b.txt " },
    { detail: { paths: ["/tmp/it's", '/tmp/$HOME;rm', '~/x', '=ls'] }, text: "'/tmp/it'\\''s' '/tmp/$HOME;rm' '~/x' '=ls' " },
    { detail: { paths: ['/a', 5, '', '/b'], timestamp: 1 }, text: '/a /b ' },
    { detail: { paths: '/a' }, text: undefined },
    { detail: { paths: [] }, text: undefined },
    { detail: null, text: undefined },
  ])('drop $detail', ({ detail, text }) => {
    expect(dropText(detail)).toBe(text);
  });
});
