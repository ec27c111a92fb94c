import { describe, expect, it } from 'vitest';
import { OutputQueue } from '../../src/terminal/outputQueue';

function harness() {
  const flushes: (() => void)[] = [];
  const queue = new OutputQueue((f) => flushes.push(f));
  const writes: string[] = [];
  const pendingDone: (() => void)[] = [];
  const sink = {
    write: (b: Uint8Array, done: () => void) => { writes.push(new TextDecoder().decode(b)); pendingDone.push(done); },
    resize: (cols: number, rows: number) => { writes.push(`<${cols}x${rows}>`); },
  };
  const runFlushes = () => { while (flushes.length) flushes.shift()!(); };
  return { queue, writes, sink, runFlushes, pendingDone };
}

describe('OutputQueue', () => {
  it('keeps sessions apart and their bytes in order', () => {
    const got: Record<string, string> = { s: '', t: '' };
    const queue = new OutputQueue((flush) => flush());
    for (const id of ['s', 't']) queue.attach(id, { write: (b, done) => ((got[id] += new TextDecoder().decode(b)), done()), resize: () => undefined });
    for (const part of ['a', 'b', 'c']) {
      queue.push('s', new TextEncoder().encode(part));
      queue.push('t', new TextEncoder().encode(part.toUpperCase()));
    }
    expect(got).toEqual({ s: 'abc', t: 'ABC' });
  });

  it('merges what arrives while the terminal is busy into bounded pieces, and reports idle', () => {
    const { queue, writes, sink, runFlushes, pendingDone } = harness();
    let idle = 0;
    queue.attach('s', sink);
    runFlushes();
    for (let i = 0; i < 1280; i++) queue.push('s', new Uint8Array(4096).fill(65));
    queue.push('s', new TextEncoder().encode('tail'));
    // The first chunk goes straight to the idle terminal; the rest waits for it.
    expect(writes.map((w) => w.length)).toEqual([4096]);
    expect(queue.queued('s')).toBe(1279 * 4096 + 4);
    pendingDone.shift()!();
    // Refilled in merged pieces up to the in-flight limit of 4 MiB.
    expect(writes.length).toBe(33);
    expect(Math.max(...writes.map((w) => w.length))).toBe(128 * 1024);
    queue.onIdle('s', () => idle++);
    while (pendingDone.length > 0) {
      pendingDone.shift()!();
      runFlushes();
    }
    expect(writes.join('')).toBe('A'.repeat(5 * 1024 * 1024) + 'tail');
    expect(idle).toBe(1);
  });

  // Output the shell wrote for one size must reach the terminal before the size changes, and never after.
  const enc = (t: string) => new TextEncoder().encode(t);
  type Step = ['out', string] | ['size', number, number] | ['attach'] | ['parsed'];
  const cases: { name: string; steps: Step[]; expected: string[] }[] = [
    { name: 'idle terminal takes the size at once', steps: [['attach'], ['size', 120, 40], ['out', 'a']], expected: ['<120x40>', 'a'] },
    {
      name: 'a size waits behind output the terminal is still parsing, and merging stops at it',
      steps: [['attach'], ['out', 'a'], ['out', 'b'], ['size', 80, 24], ['out', 'c'], ['out', 'd'], ['parsed'], ['parsed'], ['parsed']],
      expected: ['a', 'b', '<80x24>', 'cd'],
    },
    {
      name: 'sizes and output held before the view exists keep their order',
      steps: [['size', 120, 40], ['out', 'prompt'], ['size', 41, 52], ['out', 'redraw'], ['attach']],
      expected: ['<120x40>', 'prompt', '<41x52>', 'redraw'],
    },
  ];
  for (const c of cases) {
    it(c.name, () => {
      const { queue, writes, sink, runFlushes, pendingDone } = harness();
      for (const step of c.steps) {
        if (step[0] === 'out') queue.push('s', enc(step[1]));
        else if (step[0] === 'size') queue.resize('s', step[1], step[2]);
        else if (step[0] === 'attach') queue.attach('s', sink);
        else pendingDone.shift()?.();
        runFlushes();
      }
      while (pendingDone.length > 0) pendingDone.shift()!();
      expect(writes).toEqual(c.expected);
    });
  }

  it('keeps the size that applies to the output left after a flood for a missing view', () => {
    const { queue, writes, sink, runFlushes } = harness();
    queue.resize('s', 120, 40);
    for (let i = 0; i < 3; i++) queue.push('s', new Uint8Array(4 * 1024 * 1024).fill(66));
    queue.attach('s', sink);
    runFlushes();
    expect(writes[0]).toBe('<120x40>');
    expect(queue.queued('s') + writes.slice(1).join('').length).toBeLessThanOrEqual(8 * 1024 * 1024);
  });
});
