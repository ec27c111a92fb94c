// Where the commit graph's nodes and edges are drawn. Row i holds node i;
// a node sits on its lane. An edge leaves its child, bends onto its own lane
// within the first half row, runs down that lane, and bends into the parent
// within the last half row (a parent another child claimed later sits on
// that child's lane). An edge whose parent is not listed runs off the bottom.

import { laneColor, type GraphEdge, type GraphNode } from '../../state/graph';

export const GRAPH_ROW = 36;
export const GRAPH_LANE = 14;
export const GRAPH_PAD = 10;

export type Point = readonly [number, number];

export interface GraphGeometry {
  width: number;
  height: number;
  nodes: { oid: string; x: number; y: number; color: string; merge: boolean }[];
  edges: { from: string; to: string; color: string; points: Point[]; offBottom: boolean }[];
}

const laneX = (lane: number) => GRAPH_PAD + lane * GRAPH_LANE;
const rowY = (row: number) => row * GRAPH_ROW + GRAPH_ROW / 2;

export function graphGeometry(nodes: readonly GraphNode[], edges: readonly GraphEdge[]): GraphGeometry {
  const rowOf = new Map<string, number>();
  nodes.forEach((n, i) => {
    if (!rowOf.has(n.oid)) rowOf.set(n.oid, i);
  });
  const colorOf = new Map<number, string>();
  for (const n of nodes) if (!colorOf.has(n.lane)) colorOf.set(n.lane, n.color);
  const parents = new Map<string, number>();
  for (const e of edges) parents.set(e.from, (parents.get(e.from) ?? 0) + 1);

  const height = nodes.length * GRAPH_ROW;
  let maxLane = 0;
  const out: GraphGeometry['edges'] = [];
  for (const e of edges) {
    const from = rowOf.get(e.from);
    if (from === undefined) continue;
    const child = nodes[from]!;
    const to = rowOf.get(e.to);
    // A parent listed above its child is not a parent this list can draw; it is left off-screen like an unlisted one.
    const parent = to !== undefined && to > from ? nodes[to]! : undefined;
    maxLane = Math.max(maxLane, e.lane);
    const x = laneX(e.lane);
    const points: Point[] = [[laneX(child.lane), rowY(from)]];
    if (child.lane !== e.lane) points.push([x, rowY(from) + GRAPH_ROW / 2]);
    if (parent) {
      if (parent.lane !== e.lane) points.push([x, rowY(to!) - GRAPH_ROW / 2]);
      points.push([laneX(parent.lane), rowY(to!)]);
    } else {
      points.push([x, height]);
    }
    out.push({ from: e.from, to: e.to, color: colorOf.get(e.lane) ?? laneColor(e.lane), points, offBottom: !parent });
  }
  for (const n of nodes) maxLane = Math.max(maxLane, n.lane);
  return {
    width: laneX(maxLane) + GRAPH_PAD,
    height,
    nodes: nodes.map((n, i) => ({ oid: n.oid, x: laneX(n.lane), y: rowY(i), color: n.color, merge: (parents.get(n.oid) ?? 0) > 1 })),
    edges: out,
  };
}

/** An SVG path through the points: straight down a lane, an S-curve where it changes lanes. */
export function pathData(points: readonly Point[]): string {
  let d = `M${points[0]![0]} ${points[0]![1]}`;
  for (let i = 1; i < points.length; i += 1) {
    const [x0, y0] = points[i - 1]!;
    const [x1, y1] = points[i]!;
    if (x0 === x1) d += ` L${x1} ${y1}`;
    else {
      const my = (y0 + y1) / 2;
      d += ` C${x0} ${my} ${x1} ${my} ${x1} ${y1}`;
    }
  }
  return d;
}
