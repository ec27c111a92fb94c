// Plays back what the real program answered (fixtures/recorded.json, written
// by scripts/record.mjs from `velko --headless`). When the page posts a
// message, the recorded answer to the same message is sent through the
// native event script, so the page's decoders meet the program's exact
// payloads: a renamed key or a changed type there breaks these tests.

import fs from 'node:fs';
import path from 'node:path';
import { fileURLToPath } from 'node:url';
import { NativeStandIn } from './postedMessages.mjs';

const here = path.dirname(fileURLToPath(import.meta.url));

export function loadFixture(name) {
  return JSON.parse(fs.readFileSync(path.join(here, 'fixtures', name), 'utf8'));
}

const sameList = (a, b) => Array.isArray(a) && Array.isArray(b) && a.length === b.length && a.every((x, i) => x === b[i]);

/** Whether the recorded message answers what the page asked; requests may ask for a part of what was recorded. */
function answers(recorded, posted) {
  if (recorded.type !== posted.type) return false;
  const r = recorded.payload ?? {};
  const p = posted.payload ?? {};
  switch (posted.type) {
    case 'project/explorer/directories/request':
      return r.projectId === p.projectId && Array.isArray(p.paths) && p.paths.every((x) => r.paths.includes(x));
    case 'git/diff':
      return r.projectId === p.projectId && Array.isArray(p.targets) && p.targets.every((t) => r.targets.some((x) => x.path === t.path && x.stage === t.stage));
    case 'project/file/open':
    case 'project/file/rename':
      return r.projectId === p.projectId && r.path === p.path && (r.allowLargeFile ?? false) === (p.allowLargeFile ?? false);
    case 'project/file/save':
      return r.projectId === p.projectId && r.path === p.path;
    case 'git/refresh/barrier':
      return r.projectId === p.projectId;
    case 'git/history':
      // A page is asked for by where it starts; the request id is the page's own.
      return r.projectId === p.projectId && (r.cursorPayload ?? null) === (p.cursorPayload ?? null) && (r.pageSize ?? 20) === (p.pageSize ?? 20);
    case 'terminal/resize':
      // The program confirms every size it gives a shell; any size is answered like the recorded one.
      return true;
    case 'terminal/input':
    case 'terminal/focus':
      // Input is matched as a whole line in `handle`.
      return false;
    default:
      return JSON.stringify(r) === JSON.stringify(p) || (r.projectId !== undefined && r.projectId === p.projectId && Object.keys(p).length === 1);
  }
}

/** The recorded events, cut down to what the posted request asked and carrying its request id. */
function tailor(events, posted) {
  const p = posted.payload ?? {};
  return events.map((e) => {
    if (e.type === 'project/explorer/directories' && Array.isArray(p.paths)) {
      return { ...e, payload: { ...e.payload, requestId: p.requestId, directories: e.payload.directories.filter((d) => p.paths.includes(d.path)) } };
    }
    if (e.type === 'git/refresh/barrier' || e.type === 'git/history' || e.type === 'git/history/error') return { ...e, payload: { ...e.payload, requestId: p.requestId } };
    if (posted.type === 'terminal/resize') {
      // The confirmation, and the shell's redraw, belong to the session that was resized.
      return e.payload?.sessionId === undefined ? e : { ...e, payload: { ...e.payload, sessionId: p.sessionId, ...(e.type === 'terminal/resize' ? { cols: p.cols, rows: p.rows } : {}) } };
    }
    if (e.type === 'git/diff' && Array.isArray(p.targets)) {
      return { ...e, payload: { ...e.payload, files: e.payload.files.filter((f) => p.targets.some((t) => t.path === f.path && t.stage === f.stage)) } };
    }
    return e;
  });
}

export class RecordedNative extends NativeStandIn {
  constructor(recording) {
    super();
    this.recording = recording;
    this.used = new Set();
    /** Typed input per session not yet answered. */
    this.typed = new Map();
    this.unanswered = [];
  }

  async replay(events) {
    for (const e of events) await this.send(e.type, e.payload);
  }

  async respond(message) {
    const steps = this.recording.steps;
    if (message.type === 'webview/log') return undefined;
    if (message.type === 'terminal/input') {
      const id = message.payload?.sessionId;
      const text = (this.typed.get(id) ?? '') + (message.payload?.data ?? '');
      const i = steps.findIndex((s, n) => !this.used.has(n) && s.message.type === 'terminal/input' && s.message.payload.sessionId === id && s.message.payload.data === text);
      if (i >= 0) {
        this.typed.delete(id);
        this.used.add(i);
        return this.replay(steps[i].events);
      }
      this.typed.set(id, text);
      return undefined;
    }
    // The first unused recorded answer, or for a repeated question the last one given.
    let i = steps.findIndex((s, n) => !this.used.has(n) && answers(s.message, message));
    if (i < 0) i = steps.findLastIndex((s) => answers(s.message, message));
    if (i < 0) {
      this.unanswered.push(message.type);
      return undefined;
    }
    this.used.add(i);
    return this.replay(tailor(steps[i].events, message));
  }
}
