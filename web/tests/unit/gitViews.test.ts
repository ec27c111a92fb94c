import { describe, expect, it } from 'vitest';
import { graphGeometry, GRAPH_LANE, GRAPH_PAD, GRAPH_ROW } from '../../src/ui/git/graphGeometry';
import type { GraphEdge, GraphNode } from '../../src/state/graph';
import { projectGraph } from '../../src/state/graph';
import { projectHistory } from '../../src/state/history';
import { fakeApp } from './fakeApp';
import { P1, project } from './ids';

const x = (lane: number) => GRAPH_PAD + lane * GRAPH_LANE;
const y = (row: number) => row * GRAPH_ROW + GRAPH_ROW / 2;
const node = (oid: string, lane: number): GraphNode => ({ oid, lane, color: `#00000${lane}`, headline: '', authorName: '', date: '' });

describe('graph geometry', () => {
  it('draws each edge on its lane', () => {
    const cases: { name: string; nodes: GraphNode[]; edge: GraphEdge; points: number[][]; color: string; offBottom: boolean }[] = [
      { name: 'linear', nodes: [node('a', 0), node('b', 0)], edge: { from: 'a', to: 'b', lane: 0 }, points: [[x(0), y(0)], [x(0), y(1)]], color: '#000000', offBottom: false },
      {
        name: 'second parent of a merge on the next lane',
        nodes: [node('m', 0), node('p1', 0), node('p2', 1)],
        edge: { from: 'm', to: 'p2', lane: 1 },
        points: [[x(0), y(0)], [x(1), y(0) + GRAPH_ROW / 2], [x(1), y(2)]],
        color: '#000001',
        offBottom: false,
      },
      {
        name: 'parent drawn on a later child\'s lane',
        nodes: [node('c1', 0), node('c2', 1), node('p', 1)],
        edge: { from: 'c1', to: 'p', lane: 0 },
        points: [[x(0), y(0)], [x(0), y(2) - GRAPH_ROW / 2], [x(1), y(2)]],
        color: '#000000',
        offBottom: false,
      },
      { name: 'unlisted parent', nodes: [node('a', 0), node('b', 0)], edge: { from: 'b', to: 'gone', lane: 2 }, points: [[x(0), y(1)], [x(2), y(1) + GRAPH_ROW / 2], [x(2), 2 * GRAPH_ROW]], color: '#81C784', offBottom: true },
    ];
    for (const c of cases) {
      const g = graphGeometry(c.nodes, [c.edge]);
      expect(g.edges, c.name).toEqual([{ from: c.edge.from, to: c.edge.to, color: c.color, points: c.points, offBottom: c.offBottom }]);
      expect(g.height, c.name).toBe(c.nodes.length * GRAPH_ROW);
      expect(g.width, c.name).toBe(x(Math.max(c.edge.lane, ...c.nodes.map((n) => n.lane))) + GRAPH_PAD);
    }
  });
});

describe('failures of the history and the graph', () => {
  it('belong to their views, not to a running action', () => {
    const { app, send, take } = fakeApp();
    send('app/config', { projects: [project(P1, 'a')], activeProjectId: P1 });
    app.showHistory(P1);
    app.loadGraph(P1);
    const [barrier] = take('git/refresh/barrier') as { requestId: string }[];
    app.git.update((s) => ({ projects: { ...s.projects, [P1]: { ...s.projects[P1]!, draft: 'msg' } } }));
    app.runGitAction(P1, 'commit');
    send('git/result', { success: false, message: 'コミットグラフの取得に失敗しました: 403' });
    send('git/result', { success: false, message: 'コミット履歴の取得に失敗しました: 403' });
    expect(app.git.get().projects[P1]!.running!.result).toBeUndefined();
    expect(app.toasts.get()).toEqual([]);
    send('git/refresh/barrier', { projectId: P1, requestId: barrier!.requestId });
    expect(projectGraph(app.graph.get(), P1).error).toBe('コミットグラフの取得に失敗しました: 403');
    // The commit's own success walks the history shown again, behind the page still on its way.
    send('git/result', { success: true, message: 'コミットしました' });
    expect(projectHistory(app.history.get(), P1).queuedFresh).toBe(true);
  });
});
