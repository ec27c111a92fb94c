// The branches view of the git column: every branch of the repository in the
// native side's order of urgency, with where it came from, how it stands
// against the base branch and its upstream, and which other branches touch
// the same files.

import type { App } from '../../app';
import { L } from '../../labels';
import { projectBranchMap, type BranchMap, type BranchNode, type ProjectBranchMap } from '../../state/branchMap';
import { h, setText } from '../dom';
import type { GitView } from './column';
import { formatDate, shortOid } from './format';

/** A label of an enumerated value; a value this page does not know is shown as sent. */
const word = (labels: Record<string, string>, value: string) => labels[value] ?? value;

const badge = (text: string, kind: string) => h('span', { class: `branch-badge ${kind}` }, text);

function nodeCard(n: BranchNode): HTMLElement {
  const badges = h('div', { class: 'branch-badges' });
  if (n.isCurrent) badges.append(badge(L.current, 'current'));
  if (n.isBase) badges.append(badge(L.base, 'base'));
  badges.append(badge(word(L.location, n.location), 'location'));
  badges.append(badge(n.pushState === 'unpushed' && n.unpushedCount !== undefined ? L.unpushed(n.unpushedCount) : word(L.pushState, n.pushState), `push ${n.pushState}`));
  // The base's own state says no more than its badge.
  if (n.mergeState !== 'base') {
    const merge = [word(L.mergeState, n.mergeState), n.undeterminedReason && word(L.undeterminedReason, n.undeterminedReason), n.integration && word(L.integration, n.integration)];
    badges.append(badge(merge.filter(Boolean).join(' · '), `merge ${n.mergeState}`));
  }
  if (n.isCleanupCandidate) badges.append(badge(L.cleanupCandidate, 'cleanup'));
  if (n.hasConflicts) badges.append(badge(L.conflicts, 'warn'));
  if (n.hasUncommittedChanges) badges.append(badge(L.uncommitted, 'warn'));
  if (n.inUseByOtherWorktree) badges.append(badge(L.otherWorktree, 'warn'));

  const facts = [
    n.aheadOfBase !== undefined || n.behindBase !== undefined ? L.againstBase(n.aheadOfBase ?? 0, n.behindBase ?? 0) : undefined,
    n.changedFileCount !== undefined ? L.changedFiles(n.changedFileCount) : undefined,
  ].filter((t) => t !== undefined);
  const lines: (HTMLElement | false)[] = [
    !!n.recentSubject && h('div', { class: 'branch-subject' }, n.recentSubject),
    !!n.parent && h('div', { class: 'branch-line' }, `${L.parentBranch}: ${n.parent}`, n.parentConfidence === 'estimated' ? badge(L.estimated, 'estimated') : null),
    facts.length > 0 && h('div', { class: 'branch-line' }, facts.join(' · ')),
    !!n.lastCommitDate && h('div', { class: 'branch-line' }, `${L.lastCommit}: ${formatDate(n.lastCommitDate)}`),
    !!n.worktreePath && h('div', { class: 'branch-line' }, `${L.worktree}: ${n.worktreePath}`),
  ];
  const overlaps = n.overlaps.length
    ? h(
        'div',
        { class: 'branch-overlaps' },
        h('div', {}, L.overlaps),
        ...n.overlaps.map((o) => h('div', { class: 'branch-overlap', title: o.samplePaths.join('\n') }, L.overlapWith(o.branch, o.fileCount), h('div', { class: 'branch-paths' }, o.samplePaths.join(', ')))),
      )
    : null;
  return h(
    'div',
    { class: `branch-node${n.isCurrent ? ' current' : ''}`, 'data-branch': n.name, 'data-priority': n.priority },
    h('div', { class: 'branch-name' }, h('span', {}, n.name), h('span', { class: 'branch-priority', title: `priority ${n.priority}` }, L.priority[n.priority] ?? String(n.priority))),
    badges,
    ...lines,
    overlaps,
  );
}

function notes(map: BranchMap): string[] {
  const out: string[] = [];
  if (map.repositoryState !== 'ready') out.push(word(L.repositoryState, map.repositoryState));
  if (map.isShallow) out.push(L.shallowNote);
  if (!map.hasRemote && map.repositoryState !== 'notARepository') out.push(L.noRemoteNote);
  return out;
}

export function mountBranchMap(app: App): GitView {
  const status = h('div', { class: 'empty-note inline' });
  const summary = h('div', { class: 'branch-summary' });
  const list = h('div', { class: 'branch-list' });
  const more = h('div', { class: 'branch-more', hidden: true });
  const element = h('div', { class: 'git-branches' }, status, summary, list, more);
  let shown: string | undefined;
  let drawn: BranchMap | undefined;

  const draw = (map: BranchMap | undefined) => {
    if (!map) {
      summary.replaceChildren();
      list.replaceChildren();
      more.hidden = true;
      return;
    }
    const facts = [
      map.baseBranch && `${L.baseBranch}: ${map.baseBranch}`,
      map.currentBranch && `${L.current}: ${map.currentBranch}`,
      map.headSha && `HEAD ${shortOid(map.headSha)}`,
      map.generatedAt && `${L.generatedAt} ${formatDate(map.generatedAt)}`,
    ].filter(Boolean) as string[];
    summary.replaceChildren(h('div', {}, facts.join(' · ')), ...notes(map).map((t) => h('div', { class: 'branch-note' }, t)));
    list.replaceChildren(...(map.nodes.length === 0 && map.repositoryState === 'ready' ? [h('div', { class: 'empty-note inline' }, L.noBranches)] : map.nodes.map(nodeCard)));
    more.hidden = map.truncatedCount <= 0;
    const ask = h('button', { class: 'text-button', 'data-action': 'show-all' }, L.showAll);
    ask.addEventListener('click', () => shown && app.loadBranchMap(shown, map.totalCount));
    more.replaceChildren(h('span', {}, L.truncated(map.truncatedCount)), ask);
  };

  return {
    element,
    open(projectId) {
      app.loadBranchMap(projectId);
    },
    render(projectId) {
      shown = projectId;
      const p: ProjectBranchMap = projectBranchMap(app.branchMap.get(), projectId);
      const text = p.error ?? (p.loading && !p.map ? L.loading : '');
      setText(status, text);
      status.hidden = text === '';
      status.classList.toggle('error', p.error !== undefined);
      for (const b of more.querySelectorAll('button')) b.disabled = p.loading !== undefined;
      if (p.map === drawn) return;
      drawn = p.map;
      draw(p.map);
    },
  };
}
