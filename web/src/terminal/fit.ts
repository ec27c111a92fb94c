// How a terminal view follows its place on screen. While the shell runs the
// view keeps the shell's PTY size and asks the native side for the size that
// fits; the answer comes back in the output stream, so output written for the
// old size is still parsed at the old size. Without a running shell the view
// simply takes the space.

export interface Size {
  cols: number;
  rows: number;
}

export interface FitInput {
  /** What fits the view's box; undefined while it cannot be measured. */
  fits: Size | undefined;
  /** The view's present size. */
  view: Size;
  running: boolean;
  /** The PTY size the output stream last carried. */
  pty: Size | undefined;
  /** The size the session list last reported, used until the stream carries one. */
  reported: Size | undefined;
}

export interface FitDecision {
  /** Resize the view to this now. */
  view?: Size;
  /** Ask the shell for this size (once the drag settles). */
  ask?: Size;
  /** Drop a pending ask: the shell has the size that fits, or no shell runs. */
  cancelAsk: boolean;
}

const same = (a: Size | undefined, b: Size) => a !== undefined && a.cols === b.cols && a.rows === b.rows;
const valid = (s: Size | undefined): s is Size => s !== undefined && s.cols > 0 && s.rows > 0 && Number.isFinite(s.cols) && Number.isFinite(s.rows);

export function decideFit({ fits, view, running, pty, reported }: FitInput): FitDecision {
  if (!valid(fits)) return { cancelAsk: false };
  const decision: FitDecision = { cancelAsk: !running };
  if ((!running || !pty) && !same(view, fits)) decision.view = fits;
  if (!running) return decision;
  const shell = pty ?? (valid(reported) ? reported : undefined);
  if (same(shell, fits)) decision.cancelAsk = true;
  else decision.ask = fits;
  return decision;
}
