// What both fake native sides share: waiting for a message the page posted.

/** Resolves with the first of `messages` that `predicate` accepts, polling until `timeout` ms. */
export async function waitForPosted(messages, predicate, what, timeout) {
  const end = Date.now() + timeout;
  for (;;) {
    const hit = messages.find(predicate);
    if (hit) return hit;
    if (Date.now() > end) throw new Error(`no posted message: ${what}; got ${JSON.stringify(messages.map((m) => m.type))}`);
    await new Promise((r) => setTimeout(r, 20));
  }
}
