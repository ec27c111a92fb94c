// The changes view of the git column: branch and distance to upstream, the
// changed files as the status groups them, a diff of the selected file, the
// commit box and push/pull/fetch. Buttons stay disabled while an action of
// the project runs.
//
// Rows are reused across renders and across projects, so nothing about a
// file is captured when its row is created: every click reads the row's
// current binding, which each render sets.

import type { App } from '../../app';
import { L } from '../../labels';
import { clearDiff, projectGit, setDraft, type DiffSelection, type DiffStage, type GitFile, type GitProjectState } from '../../state/git';
import { h, reconcile, setText } from '../dom';
import type { GitView } from './column';
import { diffContent } from './diffText';

interface Group {
  id: 'staged' | 'unstaged' | 'untracked';
  label: string;
  stage: DiffStage;
}

const GROUPS: Group[] = [
  { id: 'staged', label: L.staged, stage: 'staged' },
  { id: 'unstaged', label: L.unstaged, stage: 'unstaged' },
  { id: 'untracked', label: L.untracked, stage: 'unstaged' },
];

type RemoteAction = 'push' | 'pull' | 'fetch';

interface RowBinding {
  projectId: string;
  file: GitFile;
  stage: DiffStage;
}

export function mountChanges(app: App): GitView {
  const branch = h('div', { class: 'git-branch' });
  const buttons: Record<RemoteAction, HTMLButtonElement> = {
    fetch: h('button', { class: 'secondary-button', 'data-action': 'fetch' }, L.fetch),
    pull: h('button', { class: 'secondary-button', 'data-action': 'pull' }, L.pull),
    push: h('button', { class: 'secondary-button', 'data-action': 'push' }, L.push),
  };
  const actions = h('div', { class: 'git-actions' }, buttons.fetch, buttons.pull, buttons.push);
  const notice = h('div', { class: 'git-notice', hidden: true }, L.missingRemote);
  const draft = h('textarea', { class: 'commit-message', rows: 3, placeholder: L.commitPlaceholder, 'aria-label': L.commitPlaceholder, spellcheck: 'false' });
  const commit = h('button', { class: 'primary-button commit-button' }, L.commit);
  const groups = h('div', { class: 'git-groups' });
  const diff = h('div', { class: 'git-diff', hidden: true });
  const element = h('div', { class: 'git-changes' }, branch, actions, notice, h('div', { class: 'commit-box' }, draft, commit), groups, diff);

  /** The project the view shows; every control acts on it. */
  let shown: string | undefined;
  const rows = new WeakMap<Element, RowBinding>();
  let drawnDiff: { projectId: string; sel: DiffSelection } | undefined;

  for (const [action, button] of Object.entries(buttons) as [RemoteAction, HTMLButtonElement][]) {
    button.addEventListener('click', () => shown && app.runGitAction(shown, action));
  }
  const doCommit = () => shown && app.runGitAction(shown, 'commit');
  commit.addEventListener('click', doCommit);
  draft.addEventListener('input', () => {
    const id = shown;
    if (id) app.git.update((s) => setDraft(s, id, draft.value));
  });
  draft.addEventListener('keydown', (ev) => {
    if (ev.key === 'Enter' && (ev.ctrlKey || ev.metaKey)) {
      ev.preventDefault();
      doCommit();
    }
  });

  const rowOf = (ev: Event) => {
    const row = (ev.target as Element | null)?.closest?.('.git-file');
    return row ? rows.get(row) : undefined;
  };
  const showDiff = (b: RowBinding) => app.showDiff(b.projectId, b.file.path, b.stage);
  groups.addEventListener('click', (ev) => {
    const b = rowOf(ev);
    if (b) showDiff(b);
  });
  groups.addEventListener('keydown', (ev) => {
    const b = rowOf(ev);
    if (b && ev.key === 'Enter') showDiff(b);
  });
  groups.addEventListener('dblclick', (ev) => {
    const b = rowOf(ev);
    // Deleted files have nothing to open.
    if (b && !b.file.status.includes('D')) app.openFile(b.projectId, b.file.path);
  });

  const renderGroups = (projectId: string, g: GitProjectState) => {
    const status = g.status;
    const visible = status ? GROUPS.filter((grp) => status[grp.id].length > 0) : [];
    if (status && visible.length === 0) {
      groups.replaceChildren(h('div', { class: 'empty-note inline' }, L.noChanges));
      return;
    }
    if (groups.querySelector('.empty-note')) groups.replaceChildren();
    reconcile(
      groups,
      visible,
      (grp) => grp.id,
      () => h('section', { class: 'git-group' }, h('h3', {}), h('ul', { class: 'git-files' })),
      (el, grp) => {
        const files = status![grp.id];
        setText(el.querySelector('h3')!, `${grp.label} (${files.length})`);
        reconcile(
          el.querySelector('ul')!,
          files,
          (f) => f.path,
          () => h('li', { class: 'git-file', tabindex: 0 }, h('span', { class: 'file-status' }), h('span', { class: 'file-path' })),
          (row, f) => {
            rows.set(row, { projectId, file: f, stage: grp.stage });
            setText(row.querySelector('.file-status')!, f.status.trim() || f.status);
            setText(row.querySelector('.file-path')!, f.path);
            row.title = `${f.path}\n${L.openInEditor}`;
            row.classList.toggle('selected', g.diff?.path === f.path && g.diff.stage === grp.stage);
          },
        );
      },
    );
  };

  const renderDiff = (projectId: string, sel: DiffSelection | undefined) => {
    diff.hidden = !sel;
    if (!sel) {
      diff.replaceChildren();
      drawnDiff = undefined;
      return;
    }
    // Selections are replaced, never changed in place: the same object is the same picture.
    if (drawnDiff?.projectId === projectId && drawnDiff.sel === sel) return;
    drawnDiff = { projectId, sel };
    const close = h('button', { class: 'icon-button', title: L.closeDiff, 'aria-label': L.closeDiff, onclick: () => shown && app.git.update((s) => clearDiff(s, shown!)) }, '×');
    const title = h('div', { class: 'diff-title' }, h('span', {}, `${L.diff}: ${sel.path}`), close);
    diff.replaceChildren(title, diffContent(sel.loading, sel.files));
  };

  return {
    element,
    render(projectId) {
      shown = projectId;
      const g = projectGit(app.git.get(), projectId);
      const s = g.status;
      setText(branch, `${L.branch}: ${s ? s.branch : L.loading}${s ? ` ↑${s.ahead} ↓${s.behind}` : ''}`);
      branch.title = s ? `${L.ahead} ${s.ahead} / ${L.behind} ${s.behind}` : '';
      const running = g.running?.action;
      for (const [action, button] of Object.entries(buttons) as [RemoteAction, HTMLButtonElement][]) {
        button.disabled = running !== undefined;
        setText(button, running === action ? L.running : L[action]);
      }
      commit.disabled = running !== undefined;
      setText(commit, running === 'commit' ? L.running : L.commit);
      draft.disabled = running === 'commit';
      if (draft.value !== g.draft) draft.value = g.draft;
      notice.hidden = !g.missingRemote;
      renderGroups(projectId, g);
      renderDiff(projectId, g.diff);
    },
  };
}
