// Records what the native side delivers so the gui tests can read it back:
// events (as their JSON text), synthetic zoom keys, native drops and what
// embedded frames report. Each event's type also goes to the web view log,
// which is how a test that runs the whole program sees the page.
(function () {
  const post = (message) => window.webkit.messageHandlers.velko.postMessage(message);
  const show = (line) => {
    const log = document.getElementById('log');
    if (log) log.textContent += line + '\n';
  };
  window.__received = [];
  window.__keys = [];
  window.__drops = [];
  window.__velko__ = {
    dispatch(event) {
      window.__received.push(JSON.stringify(event));
      show(event.type);
      post({ type: 'webview/log', source: 'test-page', message: 'event ' + event.type });
    },
  };
  const pending = window.__velkoPendingEvents || [];
  window.__velkoPendingEvents = [];
  pending.forEach((event) => window.__velko__.dispatch(event));

  for (const kind of ['keydown', 'keyup']) {
    window.addEventListener(kind, (e) => {
      window.__keys.push([e.type, e.key, e.code, e.metaKey, e.shiftKey, e.ctrlKey, e.altKey].join(' '));
    });
  }
  // What embedded frames report with window messaging.
  window.__frameReports = [];
  window.addEventListener('message', (e) => window.__frameReports.push(String(e.data)));
  window.addEventListener('velko:native-drop', (e) => {
    window.__drops.push(JSON.stringify(e.detail));
  });
  window.addEventListener('DOMContentLoaded', () => {
    post({ type: 'webview/log', source: 'test-page', level: 'debug', payload: { loaded: true } });
    post({ type: 'app/config/request' });
  });
})();
