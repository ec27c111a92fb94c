// Terminal output throughput of the page in chromium. 20 MiB of terminal
// output go through the page the way the native side delivers them: one
// "terminal/output" event script per 4 KiB, each evaluated as its own task.
// The baseline writes the same 4 KiB chunks, already decoded, straight to an
// xterm.js terminal of the same size. Only the ratio means anything.
//
// Also reported: how late the page handles clicks made every 100 ms during
// the flood (input event creation to handler).

import { randomUUID } from 'node:crypto';
import { serve, launch, installChannel } from '../tests/browser/harness.mjs';
import { eventScript } from '../tests/injectedScript.mjs';
import { ensureTestBuild, testBuild } from './builds.mjs';

const TOTAL = 20 * 1024 * 1024;
const CHUNK = 4096;
const ROUNDS = Number(process.env.BENCH_ROUNDS ?? 5);

// The test build: the same page, plus the handle on its terminals that the measurement needs.
if (!ensureTestBuild()) process.exit(1);

const { server, url } = await serve(testBuild);
const browser = await launch();
const page = await browser.context.newPage();
await installChannel(page, () => undefined);
await page.goto(url);
await page.waitForSelector('.topbar');

const projectId = randomUUID().toUpperCase();
const sessionId = randomUUID().toUpperCase();
await page.evaluate(
  eventScript('app/config', {
    projects: [{ id: projectId, name: 'bench', rootPath: '/tmp/bench', explorerExcludedPaths: [] }],
    activeProjectId: projectId,
    columnLayout: ['explorer', 'preview', 'editor', 'terminal'],
    cliSessions: [{ id: sessionId, title: 'bench', workingDirectory: '/tmp', projectId, status: 'pending' }],
    features: ['terminal.v2'],
    hasSavedWorkspace: true,
  }),
);
await page.waitForFunction((id) => window.__velkoTest?.terminal(id)?.element !== undefined, sessionId);

// Base64 holds neither quote nor backslash, so a chunk can be spliced into the native script as is.
const [scriptHead, scriptTail] = eventScript('terminal/output', { sessionId, chunk: '@CHUNK@', encoding: 'base64' }).split('@CHUNK@');

await page.evaluate(
  ({ total, chunkSize, sessionId, scriptHead, scriptTail }) => {
    // Terminal-like text: coloured prompts, paths, numbers, CRLF line ends.
    const enc = new TextEncoder();
    const lines = [];
    for (let i = 0; lines.join('').length < 64 * 1024; i++) {
      lines.push(`\x1b[32muser@host\x1b[0m:\x1b[34m~/src/project/module${i % 17}\x1b[0m$ ls -la file_${i}.txt  ${'x'.repeat(i % 40)} ${i * 7919}\r\n`);
    }
    const pattern = enc.encode(lines.join(''));
    const data = new Uint8Array(total);
    for (let off = 0; off < total; off += pattern.length) data.set(pattern.subarray(0, Math.min(pattern.length, total - off)), off);
    const chunks = [];
    const scripts = [];
    for (let off = 0; off < total; off += chunkSize) {
      const c = data.subarray(off, off + chunkSize);
      chunks.push(c);
      scripts.push(scriptHead + c.toBase64() + scriptTail);
    }

    const debug = window.__velkoTest;
    const term = debug.terminal(sessionId);
    const channel = new MessageChannel();
    // Each event is its own task, as with the web view's script evaluation.
    const eachTask = (count, step) =>
      new Promise((resolve) => {
        let i = 0;
        channel.port1.onmessage = () => {
          step(i++);
          if (i < count) channel.port2.postMessage(0);
          else resolve();
        };
        channel.port2.postMessage(0);
      });
    const settle = () => new Promise((r) => setTimeout(r, 300));
    const reset = () => new Promise((r) => term.write('\x1bc', r));

    // How late a click is handled: from the input event's creation to its handler.
    window.__clickDelays = [];
    document.querySelector('.add-project').addEventListener('click', (ev) => window.__clickDelays.push(performance.now() - ev.timeStamp));

    window.__bench = {
      async viaEvents() {
        await reset();
        await settle();
        window.__clickDelays = [];
        const t0 = performance.now();
        await eachTask(scripts.length, (i) => (0, eval)(scripts[i]));
        await new Promise((r) => debug.app.output.onIdle(sessionId, r));
        return { ms: performance.now() - t0, clicks: window.__clickDelays };
      },
      async direct() {
        await reset();
        await settle();
        window.__clickDelays = [];
        const t0 = performance.now();
        let done;
        const finished = new Promise((r) => (done = r));
        await eachTask(chunks.length, (i) => (i === chunks.length - 1 ? term.write(chunks[i], done) : term.write(chunks[i])));
        await finished;
        return { ms: performance.now() - t0, clicks: window.__clickDelays };
      },
      // Where the per-event time goes: the same loop of tasks doing only one part of the work.
      async parts() {
        const envelopes = scripts.map((sc) => sc.slice(scriptHead.indexOf("JSON.parse('") + 12, sc.length - scriptTail.length + scriptTail.indexOf("');")));
        const payloads = envelopes.map((e) => JSON.parse(e).payload.chunk);
        const once = async (step) => {
          const t0 = performance.now();
          await eachTask(scripts.length, step);
          return performance.now() - t0;
        };
        const steps = {
          tasks: () => undefined,
          evalScript: (i) => (0, eval)(scripts[i]),
          jsonParse: (i) => JSON.parse(envelopes[i]),
          base64: (i) => Uint8Array.fromBase64(payloads[i]),
        };
        const real = window.__velko__.dispatch;
        window.__velko__.dispatch = () => undefined;
        // Interleaved rounds, best of each: on a shared machine one round alone says little.
        const best = {};
        for (let round = 0; round < 3; round++) {
          for (const [name, step] of Object.entries(steps)) best[name] = Math.min(best[name] ?? Infinity, await once(step));
        }
        window.__velko__.dispatch = real;
        return {
          tasks: best.tasks,
          evalScript: best.evalScript - best.tasks,
          jsonParse: best.jsonParse - best.tasks,
          base64: best.base64 - best.tasks,
        };
      },
      // The floor the event protocol sets: the same scripts, each decoded and
      // written straight to the terminal by a dispatcher with no page logic.
      async protocolFloor() {
        const real = window.__velko__.dispatch;
        window.__velko__.dispatch = (event) => term.write(Uint8Array.fromBase64(event.payload.chunk));
        await reset();
        await settle();
        window.__clickDelays = [];
        const t0 = performance.now();
        await eachTask(scripts.length, (i) => (0, eval)(scripts[i]));
        await new Promise((r) => term.write('', r));
        window.__velko__.dispatch = real;
        return { ms: performance.now() - t0, clicks: window.__clickDelays };
      },
    };
  },
  { total: TOTAL, chunkSize: CHUNK, sessionId, scriptHead, scriptTail },
);

const box = await page.locator('.add-project').boundingBox();
/** Runs one measurement while clicking the page every 100 ms. */
async function measure(name) {
  let running = true;
  const clicking = (async () => {
    await new Promise((r) => setTimeout(r, 400));
    while (running) {
      await page.mouse.click(box.x + box.width / 2, box.y + box.height / 2);
      await new Promise((r) => setTimeout(r, 100));
    }
  })();
  const r = await page.evaluate((n) => window.__bench[n](), name);
  running = false;
  await clicking;
  return r;
}

const result = { events: [], baseline: [], floor: [] };
await measure('direct'); // warm-up: first fill of the scrollback, JIT
await measure('viaEvents');
for (let r = 0; r < ROUNDS; r++) {
  result.baseline.push(await measure('direct'));
  result.events.push(await measure('viaEvents'));
  result.floor.push(await measure('protocolFloor'));
}

const parts = await page.evaluate(() => window.__bench.parts());
await browser.close();
server.close();

const median = (xs) => [...xs].sort((a, b) => a - b)[Math.floor(xs.length / 2)];
const worstClick = (runs) => {
  const all = runs.flatMap((r) => r.clicks).sort((a, b) => a - b);
  const p95 = all.length > 0 ? all[Math.min(all.length - 1, Math.floor(all.length * 0.95))] : 0;
  return `${Math.max(0, ...all).toFixed(0)} ms (95% within ${p95.toFixed(0)})`;
};
const clickCount = (runs) => runs.reduce((n, r) => n + r.clicks.length, 0);
const ev = median(result.events.map((r) => r.ms));
const base = median(result.baseline.map((r) => r.ms));
const mib = TOTAL / 1048576;
console.log(`events:   ${ev.toFixed(0)} ms (${(mib / (ev / 1000)).toFixed(1)} MiB/s); slowest click ${worstClick(result.events)} of ${clickCount(result.events)}`);
console.log(`baseline: ${base.toFixed(0)} ms (${(mib / (base / 1000)).toFixed(1)} MiB/s); slowest click ${worstClick(result.baseline)} of ${clickCount(result.baseline)}`);
const floor = median(result.floor.map((r) => r.ms));
console.log(`protocol floor (same scripts, decode + write, no page logic): ${floor.toFixed(0)} ms, ratio ${(floor / base).toFixed(2)}`);
const perEvent = (ms) => `${((ms * 1000) / (TOTAL / CHUNK)).toFixed(0)} µs/event`;
console.log(`per event: task ${perEvent(parts.tasks)}, script eval incl. its JSON.parse ${perEvent(parts.evalScript)}, JSON.parse alone ${perEvent(parts.jsonParse)}, base64 ${perEvent(parts.base64)}`);
console.log(`ratio events/baseline: ${(ev / base).toFixed(2)} (goal <= 1.5; median of ${ROUNDS} rounds after a warm-up)`);
