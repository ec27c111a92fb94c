import { App } from '../../src/app';
import { Bridge, type BridgeHost } from '../../src/bridge';

/** The real App on a bridge whose native side is a list: what the page posted, and a way to send it events. */
export function fakeApp() {
  const posted: { type: string; payload?: Record<string, unknown> }[] = [];
  const host: BridgeHost = { webkit: { messageHandlers: { velko: { postMessage: (m: unknown) => posted.push(m as (typeof posted)[number]) } } } };
  const bridge = new Bridge(host);
  const app = new App(bridge, (flush) => flush());
  const send = (type: string, payload: unknown) => bridge.dispatch({ type, payload });
  /** The posts of one type, and forgets them. */
  const take = (type: string) => {
    const hits = posted.filter((m) => m.type === type);
    posted.length = 0;
    return hits.map((m) => m.payload);
  };
  return { app, posted, send, take };
}
