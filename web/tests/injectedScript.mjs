// The script the native side evaluates for every event, built from the same
// two fixed pieces and the same escaping. Tests inject events only this way.

const FIRST = "(function() {\n  const event = JSON.parse('";
const SECOND = [
  "');",
  '  if (!Array.isArray(window.__velkoEventHistory)) {',
  '    window.__velkoEventHistory = [];',
  '  }',
  '  window.__velkoEventHistory.push(event);',
  '  if (window.__velkoEventHistory.length > 200) {',
  '    window.__velkoEventHistory.splice(0, window.__velkoEventHistory.length - 200);',
  '  }',
  "  if (window.__velko__ && typeof window.__velko__.dispatch === 'function') {",
  '    window.__velko__.dispatch(event);',
  '    return;',
  '  }',
  '  if (!Array.isArray(window.__velkoPendingEvents)) {',
  '    window.__velkoPendingEvents = [];',
  '  }',
  '  window.__velkoPendingEvents.push(event);',
  '})();',
].join('\n');

/** The script for one event whose envelope is `{type, payload}`. */
export function eventScript(type, payload) {
  const json = JSON.stringify({ type, payload });
  const escaped = json.replace(/\\/g, '\\\\').replace(/'/g, "\\'");
  return FIRST + escaped + SECOND;
}

/** The script the native side evaluates when files are dropped on the window. */
export function dropScript(paths, timestamp = 1700000000) {
  return (
    '(function() {\n  window.__velkoNativeDropPayload = ' +
    JSON.stringify({ paths, timestamp }) +
    ";\n  window.dispatchEvent(new CustomEvent('velko:native-drop', { detail: window.__velkoNativeDropPayload }));\n})();"
  );
}
