// Batches terminal output so that a flood of small events becomes a few large
// writes per frame, and holds output for sessions whose view does not exist
// yet. Byte order per session is kept exactly; sessions are independent.

export interface OutputSink {
  /** Writes bytes; calls `done` once the terminal has parsed them. */
  write(bytes: Uint8Array, done: () => void): void;
}

export type Scheduler = (flush: () => void) => void;

/** Bytes handed to a terminal that it has not parsed yet; above this we wait before writing more. */
const HIGH_WATER = 4 * 1024 * 1024;
/** Output kept for a session that has no view yet; older bytes go first. */
const DETACHED_LIMIT = 8 * 1024 * 1024;

interface Lane {
  chunks: Uint8Array[];
  bytes: number;
  sink?: OutputSink;
  inFlight: number;
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
    if (!lane.sink) this.trimDetached(lane);
    this.requestFlush();
  }

  attach(sessionId: string, sink: OutputSink): void {
    this.lane(sessionId).sink = sink;
    this.requestFlush();
  }

  detach(sessionId: string): void {
    this.lanes.delete(sessionId);
  }

  /** Bytes waiting in the queue (not yet handed to a terminal). */
  queued(sessionId: string): number {
    return this.lanes.get(sessionId)?.bytes ?? 0;
  }

  flush(): void {
    this.scheduled = false;
    for (const lane of this.lanes.values()) {
      const sink = lane.sink;
      if (!sink || lane.chunks.length === 0 || lane.inFlight >= HIGH_WATER) continue;
      const bytes = concat(lane.chunks, lane.bytes);
      lane.chunks = [];
      lane.bytes = 0;
      lane.inFlight += bytes.length;
      sink.write(bytes, () => {
        lane.inFlight -= bytes.length;
        if (lane.chunks.length > 0) this.requestFlush();
      });
    }
  }

  private requestFlush(): void {
    if (this.scheduled) return;
    this.scheduled = true;
    this.schedule(() => this.flush());
  }

  private lane(id: string): Lane {
    let lane = this.lanes.get(id);
    if (!lane) {
      lane = { chunks: [], bytes: 0, inFlight: 0 };
      this.lanes.set(id, lane);
    }
    return lane;
  }

  private trimDetached(lane: Lane): void {
    while (lane.bytes > DETACHED_LIMIT && lane.chunks.length > 1) {
      const dropped = lane.chunks.shift()!;
      lane.bytes -= dropped.length;
    }
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
