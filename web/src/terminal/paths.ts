// Paths dropped on the window become text on a zsh command line.

/** The paths of a "velko:native-drop" event's detail; anything malformed gives none. */
export function dropPaths(detail: unknown): string[] {
  if (typeof detail !== 'object' || detail === null) return [];
  const paths = (detail as { paths?: unknown }).paths;
  if (!Array.isArray(paths)) return [];
  return paths.filter((p): p is string => typeof p === 'string' && p !== '');
}

/**
 * Quotes a path for zsh unless it holds only characters that are never
 * special. A leading "~" or "=" would expand, so those are quoted too.
 */
export function shellQuote(path: string): string {
  if (/^[A-Za-z0-9_@%+:,./-]+$/.test(path)) return path;
  return `'${path.replace(/'/g, "'\\''")}'`;
}
