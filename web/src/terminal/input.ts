// What a terminal view sends for the user's keys, pastes and drops. Every key
// goes to the shell as the bytes xterm.js makes of it: Ctrl+C is the ETX
// byte, which the PTY's line discipline turns into SIGINT for the foreground
// job (and a raw-mode program reads as a key). Sending a signal as well would
// interrupt twice.

import { binaryStringToBase64 } from './base64';
import { dropPaths, shellQuote } from './paths';

export interface InputSink {
  sendInput(sessionId: string, data: string, encoding?: 'base64'): void;
}

/** The xterm.js events we listen to; a terminal or a test stand-in. */
export interface InputSource {
  onData(listener: (data: string) => void): unknown;
  onBinary(listener: (data: string) => void): unknown;
}

export function connectInput(source: InputSource, sink: InputSink, sessionId: string): void {
  source.onData((data) => sink.sendInput(sessionId, data));
  // Some mouse reports are bytes, not text: they travel as base64.
  source.onBinary((data) => sink.sendInput(sessionId, binaryStringToBase64(data), 'base64'));
}

export type KeyAction = 'copy' | 'paste' | 'terminal';

/** Ctrl+Shift+C and Ctrl+Shift+V are the clipboard; Ctrl+C and Ctrl+V stay control keys for the shell. */
export function keyAction(ev: Pick<KeyboardEvent, 'type' | 'ctrlKey' | 'shiftKey' | 'altKey' | 'metaKey' | 'code'>): KeyAction {
  if (ev.type !== 'keydown' || !ev.ctrlKey || !ev.shiftKey || ev.altKey || ev.metaKey) return 'terminal';
  if (ev.code === 'KeyC') return 'copy';
  if (ev.code === 'KeyV') return 'paste';
  return 'terminal';
}

/** Files dropped on the window become their quoted paths on the command line, as in other terminals. */
export function dropText(detail: unknown): string | undefined {
  const paths = dropPaths(detail);
  return paths.length === 0 ? undefined : paths.map(shellQuote).join(' ') + ' ';
}
