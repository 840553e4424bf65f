// The testing checklist: a small page, opened in a browser from the app, of
// what a tester should try on this install, each thing ticked once the
// service can tell it is done. It carries no secret (no token, no path, no
// name), so it answers without the admin token; it takes no input.

import { send } from './http-reply.js';

export const CHECKLIST_PATH = '/checklist';

const HTML_TYPE = 'text/html; charset=utf-8';
// Nothing but the page's own style runs or loads.
const PAGE_HEADERS = {
  'Content-Security-Policy': "default-src 'none'; style-src 'unsafe-inline'",
  'X-Content-Type-Options': 'nosniff',
};

/**
 * What to try, in order, and whether the state says it is done.
 *
 * @param {ServiceState} state
 * @param {Object} [options]
 * @param {string} [options.platform=process.platform] "darwin" names the machine "this Mac"
 * @return {Array<{title: string, hint: string, done: boolean}>}
 */
export function checklistItems(state, { platform = process.platform } = {}) {
  const machine = platform === 'darwin' ? 'this Mac' : 'this computer';
  const status = state.localStatus();
  const codex = status.codex ?? {};
  const devices = Array.isArray(status.devices) ? status.devices : [];
  const sessions = Array.isArray(status.sessions) ? status.sessions : [];
  return [
    {
      title: 'The background service runs',
      hint: 'This page comes from it, so it does.',
      done: true,
    },
    {
      title: 'Claude Code is connected',
      hint: 'Connect it in Setup; its sessions then show in the panel.',
      done: status.hooks?.installed === true,
    },
    {
      title: 'Codex is found',
      hint: `Install Codex on ${machine}; the service looks for it by itself.`,
      done: codex.available === true || typeof codex.path === 'string',
    },
    {
      title: 'Phone access is on',
      hint: `Turn it on in Setup, so your phone reaches ${machine}.`,
      done: status.tailscale?.serveOn === true || status.tsnet?.enabled === true,
    },
    {
      title: 'A phone is paired',
      hint: 'Scan a pairing code with Tidewatch for Android.',
      done: devices.length > 0,
    },
    {
      title: 'A session shows in the panel',
      hint: 'Type claude or codex in a terminal, then open the panel.',
      done: sessions.length > 0,
    },
    {
      title: 'An approval was answered',
      hint: 'Ask a session for something that needs your yes, then answer it in the panel or on your phone.',
      done: state.decisions().length > 0,
    },
  ];
}

const escapeHtml = (text) =>
  String(text).replace(/[&<>"']/g, (c) => ({ '&': '&amp;', '<': '&lt;', '>': '&gt;', '"': '&quot;', "'": '&#39;' })[c]);

/**
 * @param {Array<{title: string, hint: string, done: boolean}>} items
 * @return {string} The whole page
 */
export function checklistPage(items) {
  const done = items.filter((item) => item.done).length;
  const rows = items
    .map(
      (item) =>
        `<li class="${item.done ? 'done' : 'todo'}"><span class="mark">${item.done ? '✓' : '○'}</span>` +
        `<span class="what"><strong>${escapeHtml(item.title)}</strong><br>${escapeHtml(item.hint)}</span></li>`,
    )
    .join('\n');
  return `<!doctype html>
<html lang="en">
<head>
<meta charset="utf-8">
<title>Tidewatch testing checklist</title>
<style>
body { background: #14110E; color: #F5F2EB; font: 15px/1.5 Manrope, system-ui, sans-serif; margin: 2em auto; max-width: 36em; }
h1 { font-size: 1.3em; } p { color: #B5B0A6; } ul { list-style: none; padding: 0; }
li { display: flex; gap: 0.8em; margin: 0.8em 0; } .mark { width: 1.2em; } .done .mark { color: #7FFFA0; }
.what { color: #B5B0A6; } .what strong { color: #F5F2EB; }
</style>
</head>
<body>
<h1>Tidewatch testing checklist</h1>
<p>${done} of ${items.length} done. Each thing is ticked once the background service can tell; reload to look again.</p>
<ul>
${rows}
</ul>
</body>
</html>
`;
}

/**
 * @param {Router} router The local port's
 * @param {Object} parts
 * @param {ServiceState} parts.state
 */
export function addChecklistRoute(router, { state }) {
  router.add(
    'GET',
    CHECKLIST_PATH,
    ({ res }) => {
      send(res, 200, checklistPage(checklistItems(state)), HTML_TYPE, PAGE_HEADERS);
      return undefined;
    },
    { open: true },
  );
}
