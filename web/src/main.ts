// Entry point: builds the page, lets every panel subscribe, then takes over
// the events that arrived while loading and asks for the configuration.

import './styles.css';
import { Bridge, type BridgeHost } from './bridge';
import { App } from './app';
import { frameScheduler } from './terminal/outputQueue';
import { h } from './ui/dom';
import { mountProjectTabs } from './ui/projectTabs';
import { mountLayout } from './ui/layout';
import { mountExplorer } from './ui/explorer';
import { mountTerminals } from './ui/terminals';
import { mountEditor, mountPreview } from './ui/editor';
import { mountGit } from './ui/git/column';
import { mountToasts } from './ui/toasts';
import { mountAccount } from './ui/account';
import { mountDashboard } from './ui/dashboard';
import { showDialog } from './ui/dialog';
import { L } from './labels';
import { installFonts } from './fonts';

function start(): void {
  const host = window as unknown as BridgeHost & Window;
  const bridge = new Bridge(host);
  window.addEventListener('error', (ev) => bridge.log('error', ev.message, { file: ev.filename, line: ev.lineno }));
  window.addEventListener('unhandledrejection', (ev) => bridge.log('error', `unhandled rejection: ${String(ev.reason)}`));

  installFonts(document.documentElement);
  const app = new App(bridge, frameScheduler(window));
  const root = document.getElementById('app')!;
  const topbar = h('header', { class: 'topbar' });
  const main = h('main', { class: 'columns' });
  const toasts = h('div', { class: 'toasts', 'aria-live': 'polite' });
  root.append(topbar, main, toasts);

  mountProjectTabs(app, topbar);
  topbar.append(h('span', { class: 'spacer' }));
  const dashboard = mountDashboard(app, topbar, root);
  mountAccount(app, topbar);
  const columns = mountLayout(app, main);
  const editor = mountEditor(app, columns.editor);
  mountPreview(app, columns.preview, editor.textOf);
  mountExplorer(app, columns.explorer, editor.focus);
  const terminals = mountTerminals(app, columns.terminal);
  mountGit(app, columns.git);
  mountToasts(app, toasts);
  keepFocus(dashboard.focus, terminals.focusActive, editor.focus);
  installZoom(terminals.setFontSize);
  // Commits and checkouts made in a terminal touch only .git, which nobody watches; catch up when the user returns.
  window.addEventListener('focus', () => {
    const id = app.activeProjectId;
    if (id) app.refreshGitSoon(id);
  });
  mountLargeFileDialog(app);
  // Tab changes wait a moment before they are stored; a page going away stores them now.
  window.addEventListener('pagehide', () => app.flushPersist());

  // Only now: every panel listens, so neither parked nor answered events are lost.
  bridge.install();
  bridge.post('app/config/request');
  bridge.log('info', 'page ready');
  // Only builds made for the browser tests and the benchmark carry this; the shipped page has no handle on window.
  if (__VELKO_TEST_HOOKS__) {
    const pane = (id: string) => terminals.pane(id);
    Object.assign(window, { __velkoTest: { app, terminal: (id: string) => pane(id)?.term, terminalText: (id: string) => pane(id)?.text() } });
  }
}

/**
 * When the focused element disappears (a closed tab, a re-rendered row) the
 * keyboard would land on nothing; give it to the terminal, else the editor.
 */
function keepFocus(...targets: (() => boolean)[]): void {
  document.addEventListener('focusout', () => {
    window.setTimeout(() => {
      if (!document.hasFocus()) return;
      const active = document.activeElement;
      if (active && active !== document.body) return;
      for (const focus of targets) if (focus()) return;
    }, 0);
  });
}

/** Ctrl/Cmd with +, - or 0 scales the code text, as the native window forwards those keys. */
function installZoom(setTerminalFont: (size: number) => void): void {
  const base = 13;
  let size = base;
  const apply = () => {
    document.documentElement.style.setProperty('--code-font-size', `${size}px`);
    setTerminalFont(size);
  };
  window.addEventListener('keydown', (ev) => {
    if (!(ev.metaKey || ev.ctrlKey) || ev.altKey) return;
    let next = size;
    if (ev.key === '+' || ev.key === '=' || ev.code === 'NumpadAdd') next = Math.min(size + 1, 32);
    else if (ev.key === '-' || ev.code === 'NumpadSubtract') next = Math.max(size - 1, 8);
    else if (ev.key === '0' || ev.code === 'Numpad0') next = base;
    else return;
    ev.preventDefault();
    if (next !== size) {
      size = next;
      apply();
    }
  }, true);
}

function mountLargeFileDialog(app: App): void {
  let showing = false;
  app.editor.subscribe((s) => {
    if (!s.confirm || showing) return;
    const c = s.confirm;
    showing = true;
    const mib = (n: number) => (n / 1048576).toFixed(n / 1048576 < 100 ? 1 : 0);
    const name = c.path.slice(c.path.lastIndexOf('/') + 1);
    void showDialog({ title: L.largeFileTitle, body: L.largeFileBody(name, mib(c.sizeBytes), mib(c.softLimitBytes)), confirm: L.openAnyway }).then((ok) => {
      showing = false;
      app.confirmLargeFile(ok);
    });
  });
}

start();
