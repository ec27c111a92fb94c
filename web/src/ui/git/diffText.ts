// The patch text of a diff, coloured by line, as both the changes view and
// the history view show it.

import { L } from '../../labels';
import { classifyPatch } from '../../state/git';
import { h } from '../dom';

export interface PatchFile {
  additions: number;
  deletions: number;
  isBinary: boolean;
  patch: string;
}

export function diffContent(loading: boolean, files: readonly PatchFile[]): HTMLElement {
  if (loading) return h('div', { class: 'empty-note inline' }, L.loading);
  if (files.length === 0 || files.every((f) => !f.isBinary && f.patch.trim() === '' && f.additions === 0 && f.deletions === 0)) {
    return h('div', { class: 'empty-note inline' }, L.noDiff);
  }
  const pre = h('pre', { class: 'diff-text' });
  for (const file of files) {
    if (file.isBinary) {
      pre.append(h('div', { class: 'diff-line meta' }, L.binaryDiff));
      continue;
    }
    pre.append(h('div', { class: 'diff-line meta' }, `+${file.additions} −${file.deletions}`));
    for (const line of classifyPatch(file.patch)) pre.append(h('div', { class: `diff-line ${line.kind}` }, line.text || ' '));
  }
  return pre;
}
