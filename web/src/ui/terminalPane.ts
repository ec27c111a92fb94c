// One session's xterm.js view. It is created with the session and opened the
// first time it is shown (xterm.js cannot measure a hidden element); the
// decisions about its size and input live in src/terminal.

import { Terminal, type ITheme } from '@xterm/xterm';
import { FitAddon } from '@xterm/addon-fit';
import '@xterm/xterm/css/xterm.css';
import type { App } from '../app';
import { MONO_FONT } from '../fonts';
import { decideFit, type Size } from '../terminal/fit';
import { connectInput, keyAction } from '../terminal/input';
import { h } from './dom';

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

const EMPTY = new Uint8Array(0);
/** Dragging a column resizes continuously; the shell only needs the size it ends at. */
const ASK_DELAY_MS = 60;

export class TerminalPane {
  readonly host: HTMLElement;
  readonly term: Terminal;
  private readonly fitAddon = new FitAddon();
  private opened = false;
  /** The size of the shell's PTY as its output stream last said; the view keeps it while the shell runs. */
  private pty: Size | undefined;
  private askTimer: number | undefined;

  constructor(
    private readonly app: App,
    readonly sessionId: string,
    parent: HTMLElement,
    fontSize: number,
  ) {
    this.host = h('div', { class: 'term-host', 'data-session': sessionId, hidden: true });
    parent.append(this.host);
    const term = new Terminal({ theme: THEME, fontFamily: MONO_FONT, fontSize, scrollback: 10000, allowProposedApi: false, cursorBlink: true, convertEol: false });
    this.term = term;
    term.loadAddon(this.fitAddon);
    connectInput(term, app, sessionId);
    term.parser.registerOscHandler(633, (data) => app.codexMarker(sessionId, data));
    term.attachCustomKeyEventHandler((ev) => {
      const action = keyAction(ev);
      if (action === 'copy') {
        const text = term.getSelection();
        if (text) void navigator.clipboard?.writeText(text).catch(() => undefined);
      } else if (action === 'paste') {
        // Through xterm.js, which brackets the text if the program asked for it.
        void navigator.clipboard?.readText().then((text) => text && term.paste(text)).catch(() => undefined);
      }
      return action === 'terminal';
    });
    app.output.attach(sessionId, {
      write: (bytes, done) => term.write(bytes, done),
      // Queued behind the bytes already written, so they are parsed at the old size.
      resize: (cols, rows) =>
        term.write(EMPTY, () => {
          this.pty = { cols, rows };
          if (term.cols !== cols || term.rows !== rows) term.resize(cols, rows);
          this.fit();
        }),
    });
  }

  get isOpen(): boolean {
    return this.opened;
  }

  show(visible: boolean): void {
    this.host.hidden = !visible;
    if (!visible || this.opened) return;
    this.term.open(this.host);
    this.opened = true;
    const ta = this.term.textarea;
    ta?.addEventListener('focus', () => this.app.focusTerminal(this.sessionId, true));
    ta?.addEventListener('blur', () => this.app.focusTerminal(this.sessionId, false));
    this.fit();
  }

  /** Matches the view to its box (see src/terminal/fit.ts). */
  fit(): void {
    if (!this.opened || this.host.hidden || this.host.clientWidth === 0) return;
    let fits: Size | undefined;
    try {
      fits = this.fitAddon.proposeDimensions();
    } catch {
      return;
    }
    const s = this.app.terminals.get().sessions.find((x) => x.id === this.sessionId);
    const running = s !== undefined && (s.status === 'booting' || s.status === 'ready');
    const reported = s?.cols !== undefined && s.rows !== undefined ? { cols: s.cols, rows: s.rows } : undefined;
    const d = decideFit({ fits, view: { cols: this.term.cols, rows: this.term.rows }, running, pty: this.pty, reported });
    if (d.view) this.term.resize(d.view.cols, d.view.rows);
    if (d.cancelAsk || d.ask) window.clearTimeout(this.askTimer);
    const ask = d.ask;
    if (ask) this.askTimer = window.setTimeout(() => this.app.resizeTerminal(this.sessionId, ask.cols, ask.rows), ASK_DELAY_MS);
  }

  focus(): boolean {
    if (!this.opened) return false;
    this.term.focus();
    return true;
  }

  hasFocus(): boolean {
    return this.host.contains(document.activeElement);
  }

  paste(text: string): void {
    this.term.paste(text);
    this.term.focus();
  }

  setFontSize(size: number): void {
    this.term.options.fontSize = size;
    this.fit();
  }

  /** The screen and scrollback as text, one line per row. */
  text(): string {
    const buffer = this.term.buffer.active;
    const lines: string[] = [];
    for (let i = 0; i < buffer.length; i++) lines.push(buffer.getLine(i)?.translateToString(true) ?? '');
    while (lines.length > 0 && lines[lines.length - 1] === '') lines.pop();
    return lines.join('\n');
  }

  dispose(): void {
    this.app.output.detach(this.sessionId);
    window.clearTimeout(this.askTimer);
    this.term.dispose();
    this.host.remove();
  }
}
