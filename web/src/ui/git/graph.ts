// The graph view of the git column: the default branch's commits from GitHub,
// each on its lane, edges drawn in SVG beside the commit texts.

import type { App } from '../../app';
import { L } from '../../labels';
import { projectGraph, type ProjectGraph } from '../../state/graph';
import { h, setText } from '../dom';
import type { GitView } from './column';
import { formatDate, shortOid } from './format';
import { GRAPH_ROW, graphGeometry, pathData } from './graphGeometry';

const SVG = 'http://www.w3.org/2000/svg';

function svg(tag: string, attrs: Record<string, string | number>): SVGElement {
  const el = document.createElementNS(SVG, tag);
  for (const [k, v] of Object.entries(attrs)) el.setAttribute(k, String(v));
  return el;
}

export function mountGraph(app: App): GitView {
  const note = h('div', { class: 'empty-note inline' });
  const body = h('div', { class: 'graph-body' });
  const element = h('div', { class: 'git-graph' }, note, body);
  let drawn: ProjectGraph | undefined;

  const draw = (g: ProjectGraph) => {
    const geo = graphGeometry(g.nodes, g.edges);
    const picture = svg('svg', { class: 'graph-lanes', width: geo.width, height: geo.height, viewBox: `0 0 ${geo.width} ${geo.height}` });
    for (const e of geo.edges) {
      const path = svg('path', { d: pathData(e.points), stroke: e.color, fill: 'none', 'stroke-width': 2, 'data-from': e.from, 'data-to': e.to });
      if (e.offBottom) path.setAttribute('data-off-bottom', '');
      picture.append(path);
    }
    for (const n of geo.nodes) {
      picture.append(svg('circle', { cx: n.x, cy: n.y, r: n.merge ? 5 : 4, fill: n.merge ? 'var(--bg)' : n.color, stroke: n.color, 'stroke-width': 2, 'data-oid': n.oid }));
    }
    const rows = g.nodes.map((n) =>
      h(
        'div',
        { class: 'graph-row', style: `height:${GRAPH_ROW}px;padding-left:${geo.width + 4}px`, title: `${n.headline}\n${n.authorName}\n${n.oid}`, 'data-oid': n.oid },
        h('div', { class: 'graph-headline' }, n.headline),
        h('div', { class: 'graph-meta' }, `${n.authorName} · ${formatDate(n.date)} · ${shortOid(n.oid)}`),
      ),
    );
    body.replaceChildren(picture, ...rows);
  };

  return {
    element,
    open(projectId) {
      app.loadGraph(projectId);
    },
    render(projectId) {
      const g = projectGraph(app.graph.get(), projectId);
      const text = g.error ?? (g.loading && g.nodes.length === 0 ? L.loading : g.loaded && g.nodes.length === 0 ? L.noGraph : '');
      setText(note, text);
      note.hidden = text === '';
      note.classList.toggle('error', g.error !== undefined);
      if (g.nodes === drawn?.nodes && g.edges === drawn.edges) return;
      drawn = g;
      draw(g);
    },
  };
}
