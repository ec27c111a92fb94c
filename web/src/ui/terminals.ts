// Terminal column: one xterm.js instance per session, kept alive while the
// session exists (hidden when its project is not active), so output of
// background projects is never lost. Tabs show status, exit code and the
// codex marker.

import { Terminal, type ITheme } from '@xterm/xterm';
import { FitAddon } from '@xterm/addon-fit';
import '@xterm/xterm/css/xterm.css';
import type { App } from '../app';
import { L } from '../labels';
import { acceptsInput, sessionsForProject, type TerminalSession } from '../state/terminals';
import { binaryStringToBase64 } from '../terminal/base64';
import { dropPaths, shellQuote } from '../terminal/paths';
import { h, reconcile, setText } from './dom';

const THEME: ITheme = {
  background: '#05060a',
  foreground: '#d7dae0',
  cursor: '#8ab4ff',
  cursorAccent: '#05060a',
  selectionBackground: '#2a3b5c',
  black: '#1b1e26',
  red: '#ef6b73',
  green: '#8bd49c',
  yellow: '#e6c07b',
  blue: '#6ea8fe',
  magenta: '#c49bf0',
  cyan: '#5fd1e0',
  white: '#c8ccd4',
  brightBlack: '#5c6370',
  brightRed: '#ff8a92',
  brightGreen: '#a7e9b5',
  brightYellow: '#f5d79e',
  brightBlue: '#94c1ff',
  brightMagenta: '#dbb8ff',
  brightCyan: '#8de6f0',
  brightWhite: '#ffffff',
};

interface Pane {
  term: Terminal;
  fit: FitAddon;
  host: HTMLElement;
  opened: boolean;
  /** The size of the shell's PTY as its output stream last said; the view keeps it while the shell runs. */
  pty?: { cols: number; rows: number };
  resizeTimer?: number;
}

const EMPTY = new Uint8Array(0);

export interface TerminalsView {
  /** Focuses the visible terminal; false when there is none. */
  focusActive(): boolean;
  setFontSize(size: number): void;
  /** The xterm.js instance of a session, for checks in test builds. */
  terminal(sessionId: string): Terminal | undefined;
  /** The session's screen and scrollback as text, one line per row. */
  text(sessionId: string): string | undefined;
}

export function mountTerminals(app: App, column: HTMLElement): TerminalsView {
  const tabs = h('div', { class: 'session-tabs', role: 'tablist', 'aria-label': L.terminal });
  // A terminal the user asked for is shown (and focused) as soon as it appears.
  let awaitingCreated = false;
  const add = h('button', {
    class: 'icon-button',
    title: L.newTerminal,
    'aria-label': L.newTerminal,
    onclick: () => {
      awaitingCreated = true;
      app.createTerminal();
    },
  }, '+');
  const interrupt = h('button', { class: 'text-button', title: L.interrupt, onclick: () => activeId && app.interrupt(activeId) }, L.interruptShort);
  const header = h('div', { class: 'column-header' }, h('span', { class: 'column-title' }, L.terminal), tabs, interrupt, add);
  const bannerText = h('span', { class: 'banner-text' });
  const restart = h('button', { class: 'text-button', onclick: () => add.click() }, L.newTerminal);
  const banner = h('div', { class: 'session-banner', hidden: true }, bannerText, restart);
  const body = h('div', { class: 'terminal-stack' });
  const empty = h('div', { class: 'empty-note' }, L.noTerminals);
  column.append(header, banner, body, empty);

  const panes = new Map<string, Pane>();
  /** The session shown per project ('' for no project). */
  const chosen = new Map<string, string>();
  let activeId: string | undefined;
  /** The project whose terminals were last on screen, to notice a switch. */
  let shownProject: string | undefined;
  let fontSize = 13;

  const makePane = (s: TerminalSession): Pane => {
    const host = h('div', { class: 'term-host', 'data-session': s.id });
    body.append(host);
    const term = new Terminal({
      theme: THEME,
      fontFamily: '"DejaVu Sans Mono", "Noto Sans Mono", "Liberation Mono", monospace',
      fontSize,
      scrollback: 10000,
      allowProposedApi: false,
      cursorBlink: true,
      convertEol: false,
    });
    const fit = new FitAddon();
    term.loadAddon(fit);
    const id = s.id;
    term.onData((data) => {
      app.sendInput(id, data);
      // The byte interrupts raw-mode programs; the signal reaches the shell itself.
      if (data === '\x03') app.interrupt(id);
    });
    term.onBinary((data) => app.sendInput(id, binaryStringToBase64(data), 'base64'));
    term.parser.registerOscHandler(633, (data) => app.codexMarker(id, data));
    term.attachCustomKeyEventHandler((ev) => {
      // Ctrl+Shift+C copies the selection instead of reaching the shell.
      if (ev.type === 'keydown' && ev.ctrlKey && ev.shiftKey && ev.code === 'KeyC') {
        const text = term.getSelection();
        if (text) void navigator.clipboard?.writeText(text).catch(() => undefined);
        return false;
      }
      // Ctrl+Shift+V pastes (bracketed if the program asked for it); Ctrl+V stays a control key.
      if (ev.type === 'keydown' && ev.ctrlKey && ev.shiftKey && ev.code === 'KeyV') {
        void navigator.clipboard?.readText().then((text) => text && term.paste(text)).catch(() => undefined);
        return false;
      }
      return true;
    });
    const pane: Pane = { term, fit, host, opened: false };
    panes.set(id, pane);
    app.output.attach(id, {
      write: (bytes, done) => term.write(bytes, done),
      // Queued behind the bytes already written, so they are parsed at the old size.
      resize: (cols, rows) =>
        term.write(EMPTY, () => {
          pane.pty = { cols, rows };
          if (term.cols !== cols || term.rows !== rows) term.resize(cols, rows);
          fitPane(id, pane);
        }),
    });
    return pane;
  };

  const openIfVisible = (id: string, pane: Pane) => {
    if (pane.opened || pane.host.hidden) return;
    pane.term.open(pane.host);
    pane.opened = true;
    const ta = pane.term.textarea;
    ta?.addEventListener('focus', () => app.focusTerminal(id, true));
    ta?.addEventListener('blur', () => app.focusTerminal(id, false));
    fitPane(id, pane);
  };

  /**
   * Matches the view to its place on screen. While the shell runs, the view
   * keeps the shell's size and asks the native side for the new one; the
   * answer comes back in the output stream (see `resize` above). Without a
   * running shell the view simply takes the space.
   */
  const fitPane = (id: string, pane: Pane) => {
    if (!pane.opened || pane.host.hidden || pane.host.clientWidth === 0) return;
    let dims: { cols: number; rows: number } | undefined;
    try {
      dims = pane.fit.proposeDimensions();
    } catch {
      return;
    }
    if (!dims || !(dims.cols > 0) || !(dims.rows > 0)) return;
    const { cols, rows } = dims;
    const s = app.terminals.get().sessions.find((x) => x.id === id);
    const running = s !== undefined && (s.status === 'booting' || s.status === 'ready');
    if (!running || !pane.pty) {
      if (pane.term.cols !== cols || pane.term.rows !== rows) pane.term.resize(cols, rows);
    }
    if (!running) return;
    const shellSize = pane.pty ?? (s.cols && s.rows ? { cols: s.cols, rows: s.rows } : undefined);
    if (shellSize && shellSize.cols === cols && shellSize.rows === rows) {
      window.clearTimeout(pane.resizeTimer);
      return;
    }
    // Dragging a column resizes continuously; the shell only needs the size it ends at.
    window.clearTimeout(pane.resizeTimer);
    pane.resizeTimer = window.setTimeout(() => app.resizeTerminal(id, cols, rows), 60);
  };

  const disposePane = (id: string) => {
    const pane = panes.get(id);
    if (!pane) return;
    app.output.detach(id);
    window.clearTimeout(pane.resizeTimer);
    pane.term.dispose();
    pane.host.remove();
    panes.delete(id);
  };

  const render = () => {
    const state = app.terminals.get();
    const projectId = app.workspace.get().activeProjectId;
    const visible = sessionsForProject(state, projectId);
    const key = projectId ?? '';

    for (const id of [...panes.keys()]) if (!state.sessions.some((s) => s.id === id)) disposePane(id);
    let created: string | undefined;
    for (const s of state.sessions) {
      if (panes.has(s.id)) continue;
      makePane(s);
      if (awaitingCreated && visible.some((v) => v.id === s.id)) created = s.id;
    }
    if (created) {
      awaitingCreated = false;
      chosen.set(key, created);
    }

    let current = chosen.get(key);
    if (!current || !visible.some((s) => s.id === current)) current = visible[visible.length - 1]?.id;
    if (current) chosen.set(key, current);
    else chosen.delete(key);
    const hadFocus = activeId !== undefined && panes.get(activeId)?.host.contains(document.activeElement);
    activeId = current;
    app.sessionShown(current);
    const unseen = app.unseen.get();

    reconcile(
      tabs,
      visible,
      (s) => s.id,
      (s) => {
        const label = h('span', { class: 'session-title' });
        const badge = h('span', { class: 'status-badge' });
        const codex = h('span', { class: 'codex-badge', hidden: true });
        const close = h('button', { class: 'tab-close', title: L.closeTerminal, 'aria-label': L.closeTerminal, tabindex: -1 }, '×');
        const tab = h('div', { class: 'session-tab', role: 'tab', tabindex: 0 }, label, badge, codex, close);
        tab.addEventListener('click', () => {
          chosen.set(app.workspace.get().activeProjectId ?? '', s.id);
          render();
          focusActive();
        });
        close.addEventListener('click', (ev) => {
          ev.stopPropagation();
          app.closeTerminal(s.id);
        });
        return tab;
      },
      (el, s) => {
        el.classList.toggle('active', s.id === current);
        el.setAttribute('aria-selected', String(s.id === current));
        el.dataset.status = s.status;
        el.classList.toggle('has-activity', unseen.has(s.id));
        setText(el.querySelector('.session-title')!, s.title || L.terminal);
        setText(el.querySelector('.status-badge')!, statusText(s));
        el.title = [s.workingDirectory, s.errorMessage].filter(Boolean).join('\n');
        const codex = el.querySelector<HTMLElement>('.codex-badge')!;
        const codexText = s.codexRunning ? L.codexRunning : s.codexExitStatus !== undefined && s.codexExitStatus !== 0 ? L.codexEnded(s.codexExitStatus) : '';
        codex.hidden = codexText === '';
        codex.classList.toggle('running', s.codexRunning);
        setText(codex, codexText);
      },
    );

    for (const [id, pane] of panes) {
      pane.host.hidden = id !== current;
      openIfVisible(id, pane);
    }
    const cur = current ? state.sessions.find((s) => s.id === current) : undefined;
    banner.hidden = !cur || (cur.status !== 'failed' && cur.status !== 'terminated' && !cur.errorMessage);
    if (cur && !banner.hidden) {
      setText(bannerText, [statusText(cur), cur.errorMessage].filter(Boolean).join(' — '));
      banner.dataset.status = cur.status;
    }
    empty.hidden = visible.length > 0;
    interrupt.toggleAttribute('disabled', !cur || !acceptsInput(cur));
    if (current) {
      const pane = panes.get(current);
      if (pane) requestAnimationFrame(() => fitPane(current!, pane));
      // A project brought forward (by its tab, a key or at start) is there to be typed into.
      const focusIdle = !document.activeElement || document.activeElement === document.body || document.activeElement.closest('.topbar') !== null;
      if (hadFocus || created || (key !== shownProject && focusIdle)) focusActive();
      shownProject = key;
    }
  };

  const focusActive = (): boolean => {
    const pane = activeId ? panes.get(activeId) : undefined;
    if (!pane || !pane.opened) return false;
    pane.term.focus();
    return true;
  };

  new ResizeObserver(() => {
    if (!activeId) return;
    const pane = panes.get(activeId);
    if (pane) fitPane(activeId, pane);
  }).observe(body);

  // Files dropped on the window arrive as paths; like other terminals, drop them onto the command line.
  window.addEventListener('velko:native-drop', (ev) => {
    const paths = dropPaths((ev as CustomEvent).detail);
    const pane = activeId ? panes.get(activeId) : undefined;
    if (!pane || paths.length === 0) return;
    pane.term.paste(paths.map(shellQuote).join(' ') + ' ');
    pane.term.focus();
  });

  app.terminals.subscribe(render);
  app.unseen.subscribe(render);
  app.workspace.subscribe((s, prev) => {
    if (s.activeProjectId !== prev.activeProjectId || s.cliSessions !== prev.cliSessions) render();
  });
  render();

  return {
    focusActive,
    terminal: (id) => panes.get(id)?.term,
    text(id) {
      const buffer = panes.get(id)?.term.buffer.active;
      if (!buffer) return undefined;
      const lines: string[] = [];
      for (let i = 0; i < buffer.length; i++) lines.push(buffer.getLine(i)?.translateToString(true) ?? '');
      while (lines.length > 0 && lines[lines.length - 1] === '') lines.pop();
      return lines.join('\n');
    },
    setFontSize(size: number) {
      fontSize = size;
      for (const [id, pane] of panes) {
        pane.term.options.fontSize = size;
        fitPane(id, pane);
      }
    },
  };
}

function statusText(s: TerminalSession): string {
  const base = L.status[s.status] ?? s.status;
  if (s.status === 'terminated' && s.exitCode !== undefined) return `${base} · ${L.exitCode(s.exitCode)}`;
  return base;
}
