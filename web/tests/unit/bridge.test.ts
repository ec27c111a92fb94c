import { describe, expect, it, vi } from 'vitest';
import { Bridge, type BridgeHost } from '../../src/bridge';

function host(pending?: unknown): BridgeHost & { posted: unknown[] } {
  const posted: unknown[] = [];
  return {
    posted,
    __velkoPendingEvents: pending,
    webkit: { messageHandlers: { velko: { postMessage: (m: unknown) => posted.push(m) } } },
    console: { debug: vi.fn(), info: vi.fn(), warn: vi.fn(), error: vi.fn() },
  };
}

describe('Bridge', () => {
  it('drains parked events once, in order, before later events', () => {
    const h = host([
      { type: 'a', payload: { n: 1 } },
      { type: 'b', payload: { n: 2 } },
      { type: 'a', payload: { n: 3 } },
    ]);
    const bridge = new Bridge(h);
    const seen: string[] = [];
    bridge.onAny((e) => seen.push(`${e.type}${String(e.payload.n)}`));
    bridge.install();
    h.__velko__!.dispatch({ type: 'b', payload: { n: 4 } });
    bridge.install();
    expect(seen).toEqual(['a1', 'b2', 'a3', 'b4']);
    expect(h.__velkoPendingEvents).toEqual([]);
  });

  it('ignores malformed events and keeps delivering the rest', () => {
    const h = host();
    const bridge = new Bridge(h);
    const got: unknown[] = [];
    bridge.on('x', (p) => got.push(p));
    bridge.install();
    const bad: unknown[] = [null, 'x', 42, [], { type: 5 }, { type: '' }, { payload: {} }, { type: ['x'] }];
    for (const e of bad) expect(() => h.__velko__!.dispatch(e)).not.toThrow();
    h.__velko__!.dispatch({ type: 'x', payload: 'not an object' });
    h.__velko__!.dispatch({ type: 'x', payload: { ok: true } });
    // A parked value that is not a list holds nothing to deliver.
    const parked = new Bridge(host({ type: 'x', payload: { parked: true } }));
    parked.on('x', (p) => got.push(p));
    parked.install();
    expect(got).toEqual([{}, { ok: true }]);
  });

  it('keeps delivering when a handler throws, and logs the fault natively', () => {
    const h = host();
    const bridge = new Bridge(h);
    const got: string[] = [];
    bridge.on('x', () => {
      throw new Error('boom');
    });
    bridge.on('x', () => got.push('second'));
    bridge.install();
    h.__velko__!.dispatch({ type: 'x', payload: {} });
    expect(got).toEqual(['second']);
    expect(h.posted).toContainEqual(expect.objectContaining({ type: 'webview/log', level: 'error', source: 'web' }));
  });

  // Posts are checked against the program's recorded answers in the browser tests; logs are not answered there.
  it('logs with top-level keys', () => {
    const h = host();
    new Bridge(h).log('warning', 'hello', { a: 1 });
    expect(h.posted).toEqual([{ type: 'webview/log', level: 'warning', source: 'web', message: 'hello', payload: { a: 1 } }]);
  });

  it('receives text with quotes, backslashes and line breaks byte for byte, parked or live', async () => {
    const { eventScript } = await import('../injectedScript.mjs');
    const w = window as unknown as BridgeHost & { __velkoEventHistory?: unknown[] };
    delete w.__velko__;
    w.__velkoPendingEvents = undefined;
    const tricky = `it's a "test" \\ with\nnewline and \u2028 ü`;
    const run = (script: string) => new Function(script)();
    run(eventScript('x', { text: tricky, n: 1 }));
    const bridge = new Bridge(w);
    const got: unknown[] = [];
    bridge.on('x', (p) => got.push(p));
    bridge.install();
    run(eventScript('x', { text: tricky, n: 2 }));
    expect(got).toEqual([
      { text: tricky, n: 1 },
      { text: tricky, n: 2 },
    ]);
    expect(w.__velkoEventHistory).toHaveLength(2);
    expect(w.__velkoPendingEvents).toEqual([]);
  });
});
