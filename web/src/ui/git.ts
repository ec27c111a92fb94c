// The git panel of the active project: branch and distance to upstream, the
// changed files as the status groups them, a diff of the selected file, the
// commit box and push/pull/fetch. Buttons stay disabled while an action of
// this project runs.

import type { App } from '../app';
import { L } from '../labels';
import { classifyPatch, projectGit, setDraft, clearDiff, type DiffStage, type GitFile, type GitProjectState } from '../state/git';
import { h, reconcile, setText } from './dom';

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

export function mountGit(app: App, column: HTMLElement): void {
  const refresh = h('button', { class: 'icon-button', title: L.refresh, 'aria-label': L.refresh }, '⟳');
  const header = h('div', { class: 'column-header' }, h('span', { class: 'column-title' }, L.git), h('span', { class: 'spacer' }), refresh);
  const branch = h('div', { class: 'git-branch' });
  const actions = h('div', { class: 'git-actions' });
  const buttons = {
    pull: h('button', { class: 'secondary-button', 'data-action': 'pull' }, L.pull),
    push: h('button', { class: 'secondary-button', 'data-action': 'push' }, L.push),
    fetch: h('button', { class: 'secondary-button', 'data-action': 'fetch' }, L.fetch),
  };
  actions.append(buttons.fetch, buttons.pull, buttons.push);
  const notice = h('div', { class: 'git-notice', hidden: true }, L.missingRemote);
  const draft = h('textarea', { class: 'commit-message', rows: 3, placeholder: L.commitPlaceholder, 'aria-label': L.commitPlaceholder, spellcheck: 'false' });
  const commit = h('button', { class: 'primary-button commit-button' }, L.commit);
  const commitBox = h('div', { class: 'commit-box' }, draft, commit);
  const groups = h('div', { class: 'git-groups' });
  const diff = h('div', { class: 'git-diff', hidden: true });
  const body = h('div', { class: 'git-body' }, branch, actions, notice, commitBox, groups, diff);
  const none = h('div', { class: 'empty-note' }, L.noProjects);
  column.append(header, body, none);

  const project = () => app.activeProjectId;
  refresh.addEventListener('click', () => {
    const id = project();
    if (id) app.refreshGit(id);
  });
  for (const [action, button] of Object.entries(buttons)) {
    button.addEventListener('click', () => {
      const id = project();
      if (id) app.runGitAction(id, action as 'push' | 'pull' | 'fetch');
    });
  }
  draft.addEventListener('input', () => {
    const id = project();
    if (id) app.git.update((s) => setDraft(s, id, draft.value));
  });
  const doCommit = () => {
    const id = project();
    if (id) app.runGitAction(id, 'commit');
  };
  commit.addEventListener('click', doCommit);
  draft.addEventListener('keydown', (ev) => {
    if (ev.key === 'Enter' && (ev.ctrlKey || ev.metaKey)) {
      ev.preventDefault();
      doCommit();
    }
  });

  const render = () => {
    const id = project();
    body.hidden = !id;
    none.hidden = !!id;
    if (!id) return;
    const g = projectGit(app.git.get(), id);
    renderBranch(branch, g);
    const running = g.running?.action;
    for (const [action, button] of Object.entries(buttons)) {
      button.disabled = running !== undefined;
      setText(button, running === action ? L.running : L[action as 'push' | 'pull' | 'fetch']);
    }
    commit.disabled = running !== undefined;
    setText(commit, running === 'commit' ? L.running : L.commit);
    draft.disabled = running === 'commit';
    if (draft.value !== g.draft) draft.value = g.draft;
    notice.hidden = !g.missingRemote;
    renderGroups(app, groups, id, g);
    renderDiff(app, diff, id, g);
  };

  app.git.subscribe(render);
  app.workspace.subscribe((s, prev) => {
    if (s.activeProjectId !== prev.activeProjectId) render();
  });
  render();
}

function renderBranch(el: HTMLElement, g: GitProjectState): void {
  const s = g.status;
  const text = s ? `${L.branch}: ${s.branch}` : `${L.branch}: ${L.loading}`;
  const counts = s ? ` ↑${s.ahead} ↓${s.behind}` : '';
  setText(el, text + counts);
  el.title = s ? `${L.ahead} ${s.ahead} / ${L.behind} ${s.behind}` : '';
}

function renderGroups(app: App, container: HTMLElement, projectId: string, g: GitProjectState): void {
  const status = g.status;
  const visible = status ? GROUPS.filter((grp) => status[grp.id].length > 0) : [];
  if (status && visible.length === 0) {
    container.replaceChildren(h('div', { class: 'empty-note inline' }, L.noChanges));
    return;
  }
  if (container.querySelector('.empty-note')) container.replaceChildren();
  reconcile(
    container,
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
        (f: GitFile) => {
          const row = h('li', { class: 'git-file', tabindex: 0 }, h('span', { class: 'file-status' }), h('span', { class: 'file-path' }));
          const open = () => app.showDiff(projectId, f.path, grp.stage);
          row.addEventListener('click', open);
          // Deleted files have nothing to open.
          row.addEventListener('dblclick', () => {
            if (!f.status.includes('D')) app.openFile(projectId, f.path);
          });
          row.addEventListener('keydown', (ev) => {
            if (ev.key === 'Enter') open();
          });
          return row;
        },
        (row, f) => {
          setText(row.querySelector('.file-status')!, f.status.trim() || f.status);
          setText(row.querySelector('.file-path')!, f.path);
          row.title = `${f.path}\n${L.openInEditor}`;
          row.classList.toggle('selected', g.diff?.path === f.path && g.diff.stage === grp.stage);
        },
      );
    },
  );
}

function renderDiff(app: App, el: HTMLElement, projectId: string, g: GitProjectState): void {
  const sel = g.diff;
  el.hidden = !sel;
  if (!sel) {
    el.replaceChildren();
    delete el.dataset.key;
    return;
  }
  const key = `${sel.path}|${sel.stage}|${sel.loading}|${sel.files.map((f) => f.patch.length).join()}`;
  if (el.dataset.key === key) return;
  el.dataset.key = key;
  const close = h('button', { class: 'icon-button', title: L.closeDiff, 'aria-label': L.closeDiff, onclick: () => app.git.update((s) => clearDiff(s, projectId)) }, '×');
  const title = h('div', { class: 'diff-title' }, h('span', {}, `${L.diff}: ${sel.path}`), close);
  let content: Node;
  if (sel.loading) content = h('div', { class: 'empty-note inline' }, L.loading);
  else if (sel.files.length === 0) content = h('div', { class: 'empty-note inline' }, L.noDiff);
  else {
    const pre = h('pre', { class: 'diff-text' });
    for (const file of sel.files) {
      if (file.isBinary) {
        pre.append(h('div', { class: 'diff-line meta' }, L.binaryDiff));
        continue;
      }
      pre.append(h('div', { class: 'diff-line meta' }, `+${file.additions} −${file.deletions}`));
      for (const line of classifyPatch(file.patch)) pre.append(h('div', { class: `diff-line ${line.kind}` }, line.text || ' '));
    }
    content = pre;
  }
  el.replaceChildren(title, content);
}
