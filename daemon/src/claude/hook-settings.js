// What goes into Claude Code's settings.json so that it tells the service what
// it does: one command hook per event that matters, and the status line. All
// pure: a settings object in, a settings object out. A person's own hooks are
// left as they stand, and a person's own status line command is wrapped (it
// keeps running and its line is the one shown) and put back on removal.
//
// Where Claude Code takes HTTP hooks, the events that only report are posted
// by Claude Code itself to the service's hook door, with no program started:
// all but SessionStart, whose hook looks at the controlling terminal, and the
// waiting PermissionRequest, whose hook outlives a restart of the service.
//
// Our entries are known by the hook program's file name in their command, or
// by the hook door's path on 127.0.0.1 in their URL, so an install over an
// older one replaces it instead of adding a second.

import { isObject } from '../json.js';

/** The hook program's file name, which marks our entries. */
export const HOOK_PROGRAM = 'tidewatch-hook.mjs';

/**
 * The events that only report: they run in the background (`async`), so
 * Claude Code never waits on them. Tool events are hooked for every tool.
 */
export const REPORT_EVENTS = [
  'SessionStart',
  'UserPromptSubmit',
  'PreToolUse',
  'PostToolUse',
  'PostToolUseFailure',
  'SubagentStart',
  'SubagentStop',
  'Notification',
  'Stop',
  'StopFailure',
  'PreCompact',
  'SessionEnd',
];

/** The one event that waits for an answer. */
export const WAITING_EVENT = 'PermissionRequest';

const TOOL_EVENTS = new Set(['PreToolUse', 'PostToolUse', 'PostToolUseFailure', 'PermissionRequest']);

/**
 * How long Claude Code lets the waiting hook run, in seconds. The service
 * gives up on an unanswered request before this (APPROVAL_WAIT_MS), so the
 * hook always ends by itself and Claude Code's own prompt decides.
 */
export const PERMISSION_HOOK_TIMEOUT_S = 630;

/** Report-only hooks are cut off after this, in seconds; they take milliseconds. */
export const REPORT_HOOK_TIMEOUT_S = 10;

/** The service's door for reports posted by Claude Code's HTTP hooks. */
export const HOOK_REPORT_PATH = '/claude/hooks/report';

/** The header that names the shared terminal a session runs in. */
export const TERM_HEADER = 'X-Tidewatch-Term';

/** The variable the terminal relay sets to its terminal's id. */
export const TERM_VARIABLE = 'TIDEWATCH_TERM';

/**
 * An HTTP report hook is cut off after this, in seconds. Claude Code waits
 * for it, so a service that hangs costs each tool call at most this.
 */
export const HTTP_HOOK_TIMEOUT_S = 2;

/** The events whose hooks post by HTTP where Claude Code can. */
export const HTTP_EVENTS = REPORT_EVENTS.filter((event) => event !== 'SessionStart');

/** Quotes one word for the POSIX shell that runs hook commands. */
export function shellQuote(word) {
  return `'${String(word).replace(/'/g, `'\\''`)}'`;
}

/**
 * @typedef {Object} HookPlace Where the hook program runs from
 * @property {string} node The Node.js the service runs on (absolute)
 * @property {string} program The hook program (absolute path of bin/tidewatch-hook.mjs)
 * @property {string} support The service's support folder, where the hook
 *     finds the token and the service's port; a path, never a secret
 * @property {{port: number, token: string}|null} [http] Where HTTP hooks post
 *     and the hook credential they carry; none when Claude Code can't
 */

/** @return {string} The command line of the event hooks. */
export function hookCommand({ node, program, support }) {
  return [node, program, '--support', support].map(shellQuote).join(' ');
}

/**
 * @param {HookPlace} place
 * @param {Object|null} [own] The person's status line entry to keep running
 * @return {string} The status line's command line
 */
export function statusLineCommand(place, own = null) {
  const words = [place.node, place.program, '--support', place.support, '--status-line'];
  if (isObject(own)) words.push('--then', Buffer.from(JSON.stringify(own)).toString('base64url'));
  return words.map(shellQuote).join(' ');
}

/** @return {boolean} Whether a command is one of ours. */
export function isOurCommand(command) {
  return typeof command === 'string' && command.includes(HOOK_PROGRAM);
}

/** @return {boolean} Whether a URL is our hook door, on any port. */
export function isOurUrl(url) {
  if (typeof url !== 'string') return false;
  try {
    const parsed = new URL(url);
    return parsed.protocol === 'http:' && parsed.hostname === '127.0.0.1' && parsed.pathname === HOOK_REPORT_PATH;
  } catch {
    return false;
  }
}

/** @return {boolean} Whether a hook entry is one of ours. */
export function isOurHook(hook) {
  return isObject(hook) && (isOurCommand(hook.command) || (hook.type === 'http' && isOurUrl(hook.url)));
}

/** @return {Object} The HTTP hook that posts one report to the service. */
export function httpHook({ port, token }) {
  return {
    type: 'http',
    url: `http://127.0.0.1:${port}${HOOK_REPORT_PATH}`,
    headers: { Authorization: `Bearer ${token}`, [TERM_HEADER]: `$${TERM_VARIABLE}` },
    allowedEnvVars: [TERM_VARIABLE],
    timeout: HTTP_HOOK_TIMEOUT_S,
  };
}

/**
 * The person's own status line entry that one of our commands wraps.
 *
 * @param {string} command
 * @return {Object|null}
 */
export function wrappedStatusLine(command) {
  if (!isOurCommand(command)) return null;
  const match = /'--then' '([A-Za-z0-9_-]+)'/.exec(command);
  if (!match) return null;
  try {
    const own = JSON.parse(Buffer.from(match[1], 'base64url').toString('utf8'));
    return isObject(own) ? own : null;
  } catch {
    return null;
  }
}

/**
 * The hooks block: every event with one command hook of ours.
 *
 * @param {HookPlace} place
 * @return {Object} Event name → list of matcher groups
 */
export function ourHooks(place) {
  const command = hookCommand(place);
  const hooks = {};
  for (const event of [...REPORT_EVENTS, WAITING_EVENT]) {
    const waiting = event === WAITING_EVENT;
    const hook = waiting
      ? { type: 'command', command, timeout: PERMISSION_HOOK_TIMEOUT_S }
      : place.http && HTTP_EVENTS.includes(event)
        ? httpHook(place.http)
        : { type: 'command', command, async: true, timeout: REPORT_HOOK_TIMEOUT_S };
    hooks[event] = [TOOL_EVENTS.has(event) ? { matcher: '*', hooks: [hook] } : { hooks: [hook] }];
  }
  return hooks;
}

// A hooks block without our entries; groups left empty go, and so do events
// left without groups.
function withoutOurHooks(hooks) {
  if (!isObject(hooks)) return hooks;
  const kept = {};
  for (const [event, groups] of Object.entries(hooks)) {
    if (!Array.isArray(groups)) {
      kept[event] = groups;
      continue;
    }
    const left = [];
    for (const group of groups) {
      if (!isObject(group) || !Array.isArray(group.hooks)) {
        left.push(group);
        continue;
      }
      const own = group.hooks.filter((hook) => !isOurHook(hook));
      if (own.length === group.hooks.length) left.push(group);
      else if (own.length > 0) left.push({ ...group, hooks: own });
    }
    if (left.length > 0) kept[event] = left;
  }
  return kept;
}

/**
 * Settings with our hooks and status line in: an older install of ours is
 * replaced, everything else is kept.
 *
 * @param {Object|null} settings As read from settings.json (null for none)
 * @param {HookPlace} place
 * @return {Object} The new settings
 */
export function installIntoSettings(settings, place) {
  const base = isObject(settings) ? settings : {};
  const hooks = withoutOurHooks(isObject(base.hooks) ? base.hooks : {});
  for (const [event, groups] of Object.entries(ourHooks(place))) {
    hooks[event] = Array.isArray(hooks[event]) ? [...hooks[event], ...groups] : groups;
  }
  const current = base.statusLine;
  // Ours already: keep what it wraps. Someone else's: wrap it.
  const own = isObject(current) && isOurCommand(current.command) ? wrappedStatusLine(current.command) : current;
  const statusLine = { type: 'command', command: statusLineCommand(place, isObject(own) ? own : null) };
  if (isObject(own) && own.padding !== undefined) statusLine.padding = own.padding;
  return { ...base, hooks, statusLine };
}

/**
 * Settings with our hooks taken out and the person's own status line back
 * (or none, if they had none).
 *
 * @param {Object|null} settings
 * @return {Object}
 */
export function removeFromSettings(settings) {
  if (!isObject(settings)) return {};
  const next = { ...settings };
  if (isObject(next.hooks)) {
    next.hooks = withoutOurHooks(next.hooks);
    if (Object.keys(next.hooks).length === 0) delete next.hooks;
  }
  if (isObject(next.statusLine) && isOurCommand(next.statusLine.command)) {
    const own = wrappedStatusLine(next.statusLine.command);
    if (own) next.statusLine = own;
    else delete next.statusLine;
  }
  return next;
}

/**
 * What of ours the settings hold.
 *
 * @param {Object|null} settings
 * @return {{hooks: boolean, statusLine: boolean}} `hooks` when every event
 *     has our hook
 */
export function integrationState(settings) {
  const hooks = isObject(settings) && isObject(settings.hooks) ? settings.hooks : {};
  const hooked = (event) =>
    Array.isArray(hooks[event]) &&
    hooks[event].some(
      (group) =>
        isObject(group) && Array.isArray(group.hooks) && group.hooks.some(isOurHook),
    );
  return {
    hooks: [...REPORT_EVENTS, WAITING_EVENT].every(hooked),
    statusLine: isObject(settings) && isObject(settings.statusLine) && isOurCommand(settings.statusLine.command),
  };
}

// Our hook entries, event by event, in the order the file holds them.
function ourEntries(settings) {
  const hooks = isObject(settings) && isObject(settings.hooks) ? settings.hooks : {};
  const entries = {};
  for (const [event, groups] of Object.entries(hooks)) {
    if (!Array.isArray(groups)) continue;
    const ours = groups.flatMap((group) =>
      isObject(group) && Array.isArray(group.hooks) ? group.hooks.filter(isOurHook).map((hook) => [group.matcher, hook]) : [],
    );
    if (ours.length > 0) entries[event] = ours;
  }
  return entries;
}

/**
 * The settings with our hooks brought up to date (the service's port, its
 * hook credential, the kind of hook this Claude Code takes), when our hooks
 * are installed and differ from what an install would put there now; the
 * rest of the file as it stands.
 *
 * @param {Object|null} settings
 * @param {HookPlace} place
 * @return {Object|null} The new settings, or null when nothing is to change
 */
export function refreshedSettings(settings, place) {
  if (!integrationState(settings).hooks) return null;
  // The hooks only: a status line taken out by hand stays out.
  const next = { ...settings, hooks: installIntoSettings(settings, place).hooks };
  return JSON.stringify(ourEntries(next)) === JSON.stringify(ourEntries(settings)) ? null : next;
}
