// The one owner of the native channel. Outbound: every message is a
// `{type, payload}` object posted to the "velko" script message handler.
// Inbound: the native side evaluates a small script per event that hands
// the parsed envelope to `window.__velko__.dispatch`, or parks it in
// `window.__velkoPendingEvents` while the page is still loading. Features
// never touch those globals; they subscribe to event types here.

import { isObject, type JsonObject } from './json';

export interface BridgeEvent {
  type: string;
  payload: JsonObject;
}

export type EventHandler = (payload: JsonObject, event: BridgeEvent) => void;

export type LogLevel = 'debug' | 'info' | 'warning' | 'error';

interface MessageHandler {
  postMessage(message: unknown): void;
}

/** The parts of `window` the bridge uses, so tests can hand in a plain object. */
export interface BridgeHost {
  webkit?: { messageHandlers?: { velko?: MessageHandler } };
  __velko__?: { dispatch: (event: unknown) => void };
  __velkoPendingEvents?: unknown;
  console?: Pick<Console, 'debug' | 'info' | 'warn' | 'error'>;
}

export class Bridge {
  private readonly handlers = new Map<string, Set<EventHandler>>();
  private readonly anyHandlers = new Set<(event: BridgeEvent) => void>();
  private installed = false;

  constructor(private readonly host: BridgeHost) {}

  /** Posts one message to the native side. Without a native side (a plain browser) it only logs. */
  post(type: string, payload?: JsonObject): void {
    const message = payload === undefined ? { type } : { type, payload };
    const channel = this.host.webkit?.messageHandlers?.velko;
    if (!channel || typeof channel.postMessage !== 'function') {
      this.host.console?.debug('[velko] no native channel; dropped', message);
      return;
    }
    try {
      channel.postMessage(message);
    } catch (error) {
      this.host.console?.error('[velko] postMessage failed', error);
    }
  }

  /** Writes a line to the native web view log (and the console). */
  log(level: LogLevel, message: string, payload?: unknown): void {
    const sink = this.host.console;
    if (sink) {
      const fn = level === 'error' ? sink.error : level === 'warning' ? sink.warn : level === 'debug' ? sink.debug : sink.info;
      fn.call(sink, `[velko] ${message}`, ...(payload === undefined ? [] : [payload]));
    }
    const channel = this.host.webkit?.messageHandlers?.velko;
    if (!channel || typeof channel.postMessage !== 'function') return;
    const record: JsonObject = { type: 'webview/log', level, source: 'web', message };
    if (payload !== undefined) record.payload = toJsonSafe(payload);
    try {
      channel.postMessage(record);
    } catch {
      // Logging must never take the page down.
    }
  }

  on(type: string, handler: EventHandler): () => void {
    let set = this.handlers.get(type);
    if (!set) {
      set = new Set();
      this.handlers.set(type, set);
    }
    set.add(handler);
    return () => set?.delete(handler);
  }

  /** Sees every well-formed event, after the typed handlers. */
  onAny(handler: (event: BridgeEvent) => void): () => void {
    this.anyHandlers.add(handler);
    return () => this.anyHandlers.delete(handler);
  }

  /**
   * Delivers one event as the injected script hands it over. Anything that is
   * not an object with a text `type` is ignored; a missing or non-object
   * payload becomes an empty object so handlers can read keys uniformly.
   */
  dispatch(raw: unknown): void {
    if (!isObject(raw) || typeof raw.type !== 'string' || raw.type === '') return;
    const event: BridgeEvent = { type: raw.type, payload: isObject(raw.payload) ? raw.payload : {} };
    // Sets iterate live: a handler removed during delivery is skipped, which is what unsubscribing means.
    const set = this.handlers.get(event.type);
    if (set) for (const handler of set) this.invoke(handler, event);
    for (const handler of this.anyHandlers) this.invokeAny(handler, event);
  }

  /**
   * Installs `window.__velko__.dispatch` and delivers, in order and exactly
   * once, the events that arrived before it. Call it after every feature has
   * subscribed, or the parked events reach nobody.
   */
  install(): void {
    if (this.installed) return;
    this.installed = true;
    const pending = this.host.__velkoPendingEvents;
    this.host.__velkoPendingEvents = [];
    this.host.__velko__ = { dispatch: (event: unknown) => this.dispatch(event) };
    if (Array.isArray(pending)) {
      for (const event of pending) this.dispatch(event);
    }
  }

  // Two small variants instead of a closure per call: this runs for every terminal output chunk.
  private invoke(handler: EventHandler, event: BridgeEvent): void {
    try {
      handler(event.payload, event);
    } catch (error) {
      // One faulty handler must not starve the others or the next events.
      this.log('error', `handler for ${event.type} failed: ${describe(error)}`);
    }
  }

  private invokeAny(handler: (event: BridgeEvent) => void, event: BridgeEvent): void {
    try {
      handler(event);
    } catch (error) {
      this.log('error', `handler for ${event.type} failed: ${describe(error)}`);
    }
  }
}

function describe(error: unknown): string {
  return error instanceof Error ? `${error.name}: ${error.message}` : String(error);
}

function toJsonSafe(value: unknown): unknown {
  if (value instanceof Error) return { name: value.name, message: value.message, stack: value.stack };
  try {
    return JSON.parse(JSON.stringify(value)) as unknown;
  } catch {
    return String(value);
  }
}
