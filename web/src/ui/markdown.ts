// Markdown rendered for the preview column. The text comes from a project
// file, so nothing in it may run: markdown-it parses with raw HTML off, and
// the page builds the elements from its tokens itself, never from markup.
// Only elements and attributes written here can appear: no scripts, no
// event handlers, no style; links keep an href only for http, https and
// mailto (the native side opens those in the browser), links to other files
// of the project open them in a tab, and everything else stays plain text.

import MarkdownIt from 'markdown-it';
import type Token from 'markdown-it/lib/token.mjs';

const md = new MarkdownIt({ html: false, linkify: true });

const TAGS = new Set(['p', 'h1', 'h2', 'h3', 'h4', 'h5', 'h6', 'ul', 'ol', 'li', 'blockquote', 'table', 'thead', 'tbody', 'tr', 'th', 'td', 'em', 'strong', 's', 'a']);

export interface MarkdownOptions {
  /** The file's path in the project, for links relative to it. */
  path: string;
  /** Opens another file of the project. */
  openPath(path: string): void;
}

/** A link target: on the web, in the project, or nothing that may be followed. */
export type LinkTarget = { kind: 'web'; href: string } | { kind: 'file'; path: string } | { kind: 'none' };

export function linkTarget(href: string, from: string): LinkTarget {
  const scheme = /^([a-zA-Z][a-zA-Z0-9+.-]*):/.exec(href);
  if (scheme) {
    const name = scheme[1]!.toLowerCase();
    return name === 'http' || name === 'https' || name === 'mailto' ? { kind: 'web', href } : { kind: 'none' };
  }
  if (href.startsWith('//') || href.startsWith('#')) return { kind: 'none' };
  let target: string;
  try {
    target = decodeURIComponent(href.replace(/[?#].*$/, ''));
  } catch {
    return { kind: 'none' };
  }
  const parts = target.startsWith('/') ? [] : from.split('/').slice(0, -1);
  for (const part of target.split('/')) {
    if (part === '' || part === '.') continue;
    if (part !== '..') parts.push(part);
    // Above the project's root is outside what the page may open.
    else if (parts.pop() === undefined) return { kind: 'none' };
  }
  return parts.length > 0 ? { kind: 'file', path: parts.join('/') } : { kind: 'none' };
}

export function renderMarkdown(text: string, options: MarkdownOptions): DocumentFragment {
  const out = document.createDocumentFragment();
  build(md.parse(text, {}), out, options);
  return out;
}

function build(tokens: Token[], root: Node, options: MarkdownOptions): void {
  const stack: Node[] = [root];
  for (const t of tokens) {
    const top = stack[stack.length - 1]!;
    if (t.type === 'inline') build(t.children ?? [], top, options);
    else if (t.nesting === 1) {
      const el = open(t, options);
      top.appendChild(el);
      stack.push(el);
    } else if (t.nesting === -1) {
      if (stack.length > 1) stack.pop();
    } else top.appendChild(leaf(t));
  }
}

function open(t: Token, options: MarkdownOptions): HTMLElement {
  // Tight list items wrap their text in hidden paragraphs.
  if (t.type === 'paragraph_open' && t.hidden) return document.createElement('span');
  const el = document.createElement(TAGS.has(t.tag) ? t.tag : 'div');
  if (t.tag === 'a') {
    const target = linkTarget(t.attrGet('href') ?? '', options.path);
    if (target.kind === 'web') el.setAttribute('href', target.href);
    else if (target.kind === 'file') {
      el.className = 'md-file-link';
      el.title = target.path;
      el.tabIndex = 0;
      el.addEventListener('click', () => options.openPath(target.path));
      el.addEventListener('keydown', (ev) => {
        if (ev.key === 'Enter') options.openPath(target.path);
      });
    } else el.className = 'md-dead-link';
  } else if (t.tag === 'ol') {
    const start = Number(t.attrGet('start'));
    if (Number.isInteger(start) && start !== 1) el.setAttribute('start', String(start));
  } else if (t.tag === 'th' || t.tag === 'td') {
    const align = /text-align:(left|right|center)/.exec(t.attrGet('style') ?? '')?.[1];
    if (align) el.className = `md-align-${align}`;
  }
  return el;
}

function leaf(t: Token): Node {
  switch (t.type) {
    case 'text':
      return document.createTextNode(t.content);
    case 'code_inline':
      return element('code', t.content);
    case 'softbreak':
      return document.createTextNode('\n');
    case 'hardbreak':
      return document.createElement('br');
    case 'fence':
    case 'code_block': {
      const pre = document.createElement('pre');
      pre.appendChild(element('code', t.content));
      return pre;
    }
    case 'hr':
      return document.createElement('hr');
    case 'image':
      return image(t);
    default:
      // Raw HTML is off, so this is text the parser did not give a meaning; it stays text.
      return document.createTextNode(t.content);
  }
}

function element(tag: string, text: string): HTMLElement {
  const el = document.createElement(tag);
  el.textContent = text;
  return el;
}

function image(t: Token): HTMLElement {
  const alt = t.children?.map((c) => c.content).join('') ?? t.content;
  const src = t.attrGet('src') ?? '';
  // Only pictures from the web are loaded, without telling their host where they were shown; a file of the project shows its description.
  if (!/^https:\/\//i.test(src)) {
    const note = element('span', alt ? `[${alt}]` : '[画像]');
    note.className = 'md-image-alt';
    return note;
  }
  const img = document.createElement('img');
  img.setAttribute('src', src);
  img.setAttribute('alt', alt);
  img.setAttribute('referrerpolicy', 'no-referrer');
  img.setAttribute('loading', 'lazy');
  return img;
}
