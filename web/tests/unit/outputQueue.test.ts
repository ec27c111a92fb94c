import { describe, expect, it } from 'vitest';
import { OutputQueue } from '../../src/terminal/outputQueue';
import { decodeBase64, encodeBase64, binaryStringToBase64 } from '../../src/terminal/base64';

function harness() {
  const flushes: (() => void)[] = [];
  const queue = new OutputQueue((f) => flushes.push(f));
  const writes: string[] = [];
  const pendingDone: (() => void)[] = [];
  const sink = { write: (b: Uint8Array, done: () => void) => { writes.push(new TextDecoder().decode(b)); pendingDone.push(done); } };
  const runFlushes = () => { while (flushes.length) flushes.shift()!(); };
  return { queue, writes, sink, runFlushes, pendingDone };
}

describe('OutputQueue', () => {
  it('joins chunks of a frame into one write, in order, per session', () => {
    const { queue, writes, sink, runFlushes } = harness();
    queue.attach('s', sink);
    for (const part of ['a', 'b', 'c']) queue.push('s', new TextEncoder().encode(part));
    runFlushes();
    queue.push('s', new TextEncoder().encode('d'));
    runFlushes();
    expect(writes).toEqual(['abc', 'd']);
  });

  it('holds output for a session until its terminal exists', () => {
    const { queue, writes, sink, runFlushes } = harness();
    queue.push('s', new TextEncoder().encode('early '));
    runFlushes();
    expect(writes).toEqual([]);
    queue.push('s', new TextEncoder().encode('bytes'));
    queue.attach('s', sink);
    runFlushes();
    expect(writes).toEqual(['early bytes']);
  });

  it('waits while the terminal is far behind, then resumes', () => {
    const { queue, writes, sink, runFlushes, pendingDone } = harness();
    queue.attach('s', sink);
    queue.push('s', new Uint8Array(5 * 1024 * 1024).fill(65));
    runFlushes();
    queue.push('s', new TextEncoder().encode('tail'));
    runFlushes();
    expect(writes).toHaveLength(1);
    expect(queue.queued('s')).toBe(4);
    pendingDone.shift()!();
    runFlushes();
    expect(writes[1]).toBe('tail');
  });
});

describe('base64', () => {
  it('round-trips bytes and rejects invalid text', () => {
    const bytes = new Uint8Array([0, 1, 127, 128, 255, 0x1b, 0x5d]);
    expect(decodeBase64(encodeBase64(bytes))).toEqual(bytes);
    expect(decodeBase64('@@@')).toBeUndefined();
    expect(decodeBase64(binaryStringToBase64('\x1b[M\xff'))).toEqual(new Uint8Array([0x1b, 0x5b, 0x4d, 0xff]));
  });
});
