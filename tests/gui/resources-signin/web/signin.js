// Asks for a sign-in as soon as the page is up, and writes the type of each
// event the native side delivers to the web view log.
(function () {
  const post = (message) => window.webkit.messageHandlers.velko.postMessage(message);
  window.__velko__ = {
    dispatch(event) {
      post({ type: 'webview/log', source: 'signin-page', message: 'event ' + event.type });
    },
  };
  const pending = window.__velkoPendingEvents || [];
  window.__velkoPendingEvents = [];
  pending.forEach((event) => window.__velko__.dispatch(event));
  window.addEventListener('DOMContentLoaded', () => post({ type: 'github/oauth/start' }));
})();
