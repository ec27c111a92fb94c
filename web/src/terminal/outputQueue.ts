// Carries decoded terminal output to the xterm.js terminals. Output goes
// straight through while a terminal keeps up; during a flood it is held back
// once a terminal has more than a few MiB unparsed, and handed over in merged
// pieces as parsing catches up, so the page keeps answering clicks. Output for
// a session whose view does not exist yet waits here. Byte order per session
// is kept exactly; sessions are independent.
//
// Size changes of the shell's PTY travel in the same stream: output the shell
// wrote for 120 columns must be parsed at 120 columns, or its line wrapping
// (zsh's end-of-line mark, full-width redraws) lands in the wrong places.

export interface OutputSink {
  /** Writes bytes; calls `done` once the terminal has parsed them. */
  write(bytes: Uint8Array, done: () => void): void;
  /** Takes the new size after everything written before has been parsed, and before anything written after. */
  resize(cols: number, rows: number): void;
}

interface SizeMark {
  cols: number;
  rows: number;
}

type Item = Uint8Array | SizeMark;

const isBytes = (item: Item): item is Uint8Array => item instanceof Uint8Array;

export type Scheduler = (flush: () => void) => void;

/** Bytes handed to a terminal that it has not parsed yet; above this we wait before writing more. */
const HIGH_WATER = 4 * 1024 * 1024;
/**
 * Upper size of one write. xterm.js yields to the page between writes but not
 * inside one, so a single huge write would freeze clicks while it parses.
 */
const MAX_WRITE = 128 * 1024;
/** Output kept for a session that has no view yet; older bytes go first. */
const DETACHED_LIMIT = 8 * 1024 * 1024;

interface Lane {
  chunks: Item[];
  bytes: number;
  sink?: OutputSink;
  inFlight: number;
  idle: (() => void)[];
}

export class OutputQueue {
  private readonly lanes = new Map<string, Lane>();
  private scheduled = false;

  constructor(private readonly schedule: Scheduler) {}

  push(sessionId: string, bytes: Uint8Array): void {
    if (bytes.length === 0) return;
    const lane = this.lane(sessionId);
    lane.chunks.push(bytes);
    lane.bytes += bytes.length;
    if (!lane.sink) {
      this.trimDetached(lane);
      return;
    }
    // An idle terminal gets the bytes at once (a keystroke's echo must not
    // wait). A busy one gets what arrived meanwhile as merged pieces when
    // it finishes: xterm.js parses a few large writes much faster than
    // thousands of small ones, so the batches grow with the flood.
    if (lane.inFlight === 0) this.writeSome(lane, lane.sink);
  }

  /** The shell's terminal has this size from here on in the session's output. */
  resize(sessionId: string, cols: number, rows: number): void {
    const lane = this.lane(sessionId);
    lane.chunks.push({ cols, rows });
    if (lane.sink && lane.inFlight === 0) this.pump(lane, lane.sink);
  }

  attach(sessionId: string, sink: OutputSink): void {
    this.lane(sessionId).sink = sink;
    this.requestFlush();
  }

  detach(sessionId: string): void {
    this.lanes.delete(sessionId);
  }

  /** Calls `callback` once everything pushed so far for the session has been parsed by its terminal. */
  onIdle(sessionId: string, callback: () => void): void {
    const lane = this.lane(sessionId);
    if (lane.bytes === 0 && lane.inFlight === 0) callback();
    else lane.idle.push(callback);
  }

  /** Bytes waiting in the queue (not yet handed to a terminal). */
  queued(sessionId: string): number {
    return this.lanes.get(sessionId)?.bytes ?? 0;
  }

  flush(): void {
    this.scheduled = false;
    for (const lane of this.lanes.values()) {
      const sink = lane.sink;
      if (!sink) continue;
      this.pump(lane, sink);
    }
  }

  private pump(lane: Lane, sink: OutputSink): void {
    while (lane.chunks.length > 0 && lane.inFlight < HIGH_WATER) this.writeSome(lane, sink);
  }

  private writeSome(lane: Lane, sink: OutputSink): void {
    const head = lane.chunks[0]!;
    if (!isBytes(head)) {
      lane.chunks.shift();
      sink.resize(head.cols, head.rows);
      return;
    }
    let count = 0;
    let size = 0;
    while (count < lane.chunks.length) {
      const item = lane.chunks[count]!;
      if (!isBytes(item) || (count > 0 && size + item.length > MAX_WRITE)) break;
      size += item.length;
      count += 1;
    }
    const bytes = concat(lane.chunks.splice(0, count) as Uint8Array[], size);
    lane.bytes -= size;
    lane.inFlight += size;
    sink.write(bytes, () => {
      lane.inFlight -= size;
      // Refill at once: waiting for the next frame would leave the parser idle during a flood.
      if (lane.sink === sink) this.pump(lane, sink);
      if (lane.chunks.length === 0 && lane.inFlight === 0) for (const cb of lane.idle.splice(0)) cb();
    });
  }

  private requestFlush(): void {
    if (this.scheduled) return;
    this.scheduled = true;
    this.schedule(() => this.flush());
  }

  private lane(id: string): Lane {
    let lane = this.lanes.get(id);
    if (!lane) {
      lane = { chunks: [], bytes: 0, inFlight: 0, idle: [] };
      this.lanes.set(id, lane);
    }
    return lane;
  }

  private trimDetached(lane: Lane): void {
    let size: SizeMark | undefined;
    while (lane.bytes > DETACHED_LIMIT && lane.chunks.length > 1) {
      const dropped = lane.chunks.shift()!;
      if (isBytes(dropped)) lane.bytes -= dropped.length;
      else size = dropped;
    }
    // What is left was written at the last size given before it.
    if (size) lane.chunks.unshift(size);
  }
}

function concat(chunks: Uint8Array[], total: number): Uint8Array {
  if (chunks.length === 1) return chunks[0]!;
  const out = new Uint8Array(total);
  let offset = 0;
  for (const c of chunks) {
    out.set(c, offset);
    offset += c.length;
  }
  return out;
}

/** Next animation frame, or a short timer when frames are not running (hidden window). */
export function frameScheduler(win: Window): Scheduler {
  return (flush) => {
    let done = false;
    const run = () => {
      if (done) return;
      done = true;
      flush();
    };
    win.requestAnimationFrame(run);
    win.setTimeout(run, 32);
  };
}
