// What both fake native sides share: the messages the page posted, answered
// through `respond`, and waiting for one of them.

import { eventScript } from '../injectedScript.mjs';

export class NativeStandIn {
  messages = [];
  /** The page the events go to. */
  page = undefined;

  /** Delivers one event the way the native side does, through the event script. */
  send(type, payload) {
    return this.page.evaluate(eventScript(type, payload));
  }

  async handle(message) {
    this.messages.push(message);
    try {
      await this.respond(message);
    } catch (error) {
      if (!String(error).includes('closed')) console.error(`${this.constructor.name} failed on`, message.type, error);
    }
  }

  /** Resolves with the first posted message that `predicate` accepts, polling until `timeout` ms. */
  async waitFor(predicate, what, timeout = 5000) {
    const end = Date.now() + timeout;
    for (;;) {
      const hit = this.messages.find(predicate);
      if (hit) return hit;
      if (Date.now() > end) throw new Error(`no posted message: ${what}; got ${JSON.stringify(this.messages.map((m) => m.type))}`);
      await new Promise((r) => setTimeout(r, 20));
    }
  }
}
