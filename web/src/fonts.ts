// The page's font stacks. On a fresh Debian machine the generic families
// resolve to fonts without Japanese glyphs, so the CJK faces of
// fonts-noto-cjk are named before them; otherwise every Japanese label is a
// row of empty boxes. Latin code text keeps DejaVu Sans Mono.

export const UI_FONT = '"Noto Sans CJK JP", "Noto Sans JP", system-ui, sans-serif';
export const MONO_FONT = '"DejaVu Sans Mono", "Noto Sans Mono CJK JP", "Noto Sans Mono", "Liberation Mono", monospace';

/** Hands the stacks to the style sheet, which reads them as --ui-font and --mono-font. */
export function installFonts(root: HTMLElement): void {
  root.style.setProperty('--ui-font', UI_FONT);
  root.style.setProperty('--mono-font', MONO_FONT);
}
