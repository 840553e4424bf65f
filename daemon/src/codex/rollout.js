// Codex's own session records, read: each session is one JSON-lines file,
// ~/.codex/sessions/YYYY/MM/DD/rollout-<time>-<uuid>.jsonl, where every line
// is {timestamp, type, payload}. The first line is `session_meta`; after it
// come `turn_context`, `response_item` (what went to and came from the
// model) and `event_msg` (user and agent messages, turn starts and ends,
// token counts with the rate-limit windows). A session is followed line by
// line into a small plain record, the track, which is what the service keeps
// and persists; nothing here touches the disk.

import path from 'node:path';
import { isObject } from '../json.js';

/** A title is cut here; it is one line of a menu. */
export const MAX_TITLE_CHARS = 200;

/** The last words kept of a session. */
export const MAX_TEXT_CHARS = 4000;

/** What a session is doing now, in a few words. */
export const MAX_ACTIVITY_CHARS = 160;

/** A window of at least this many minutes is the weekly one; below, the five-hour one. */
const WEEK_WINDOW_FROM_MINUTES = 24 * 60;

/** The rate-limit bucket of Codex's own plan; other buckets (per model) are not its windows. */
const PLAN_LIMIT_ID = 'codex';

const UUID_AT_END = /([0-9a-f]{8}-[0-9a-f]{4}-[0-9a-f]{4}-[0-9a-f]{4}-[0-9a-f]{12})\.jsonl$/i;

// Codex puts these before the person's own words: the environment, the
// project's instructions. They are context, never a title.
const INJECTED = [/^<[a-z_]+>/i, /^# AGENTS\.md instructions/i];

// Older versions wrapped the request in a preamble ending with this line.
const REQUEST_MARKER = '## My request for Codex:';

const text = (value) => (typeof value === 'string' ? value : undefined);

/** @return {number|null} Epoch milliseconds of an ISO time, or null. */
export function timeOf(value) {
  if (typeof value !== 'string') return null;
  const ms = Date.parse(value);
  return Number.isFinite(ms) ? ms : null;
}

function cut(value, limit) {
  return value.length > limit ? `${value.slice(0, limit - 1)}…` : value;
}

// One line of a menu: white space folded, cut.
function oneLine(value, limit) {
  return cut(value.replace(/\s+/g, ' ').trim(), limit);
}

/**
 * The session id carried by a rollout file's name.
 *
 * @param {string} file
 * @return {string|null}
 */
export function idFromFileName(file) {
  const match = UUID_AT_END.exec(path.basename(file));
  return match ? match[1].toLowerCase() : null;
}

/**
 * Reads one line of a rollout file.
 *
 * @param {string} line Without its newline
 * @return {{time: (number|null), type: string, payload: Object}|null} null
 *     for a line that isn't a record: not JSON, no type, no payload object
 */
export function parseRolloutLine(line) {
  let record;
  try {
    record = JSON.parse(line);
  } catch {
    return null;
  }
  if (!isObject(record) || typeof record.type !== 'string' || !isObject(record.payload)) return null;
  return { time: timeOf(record.timestamp), type: record.type, payload: record.payload };
}

/**
 * @typedef {Object} RolloutTrack What is known of one session file, plain
 *     data (kept across restarts)
 * @property {string|null} id
 * @property {boolean} hidden A sub-agent's file: part of another session
 * @property {boolean} metaSeen The file's own `session_meta` was read
 * @property {string} [cwd]
 * @property {string} [source] Codex's word for where it runs: "cli", "exec", "vscode", …
 * @property {string} [version] The Codex that wrote it
 * @property {string} [title]
 * @property {string} [lastText]
 * @property {string} state "starting", "working", "idle" or "error"
 * @property {string} [activity]
 * @property {string} [model]
 * @property {string} [permissionMode]
 * @property {number|null} createdAt Epoch ms
 * @property {number|null} lastAt Epoch ms of the last line with a time
 */

/**
 * @param {string} file The rollout file
 * @return {RolloutTrack}
 */
export function freshTrack(file) {
  return { id: idFromFileName(file), hidden: false, metaSeen: false, state: 'starting', createdAt: null, lastAt: null };
}

// The text of a response item's content list: input_text, output_text and
// plain text parts, in order.
function contentText(content) {
  if (typeof content === 'string') return content;
  if (!Array.isArray(content)) return '';
  return content
    .filter((part) => isObject(part) && typeof part.text === 'string')
    .map((part) => part.text)
    .join('\n');
}

function titleFrom(message) {
  let words = message;
  const marker = words.lastIndexOf(REQUEST_MARKER);
  if (marker >= 0) words = words.slice(marker + REQUEST_MARKER.length);
  words = words.trim();
  if (words === '' || INJECTED.some((pattern) => pattern.test(words))) return undefined;
  return oneLine(words, MAX_TITLE_CHARS);
}

function parseArguments(value) {
  if (isObject(value)) return value;
  if (typeof value !== 'string') return {};
  try {
    const parsed = JSON.parse(value);
    return isObject(parsed) ? parsed : {};
  } catch {
    return {};
  }
}

// A command as Codex gives it: a list such as ["bash","-lc","npm test"], or
// one string. The shell wrapper says nothing a person wants to read.
function commandText(command) {
  if (typeof command === 'string') return command;
  if (!Array.isArray(command) || !command.every((part) => typeof part === 'string')) return '';
  if (command.length === 3 && /(^|\/)(ba|z|)sh$/.test(command[0]) && /^-l?c$/.test(command[1])) return command[2];
  return command.join(' ');
}

// The first file a patch touches, from apply_patch's own envelope.
function patchTarget(patch) {
  if (typeof patch !== 'string') return '';
  const match = /^\*\*\* (?:Add|Update|Delete) File: (.+)$/m.exec(patch);
  return match ? path.basename(match[1].trim()) : '';
}

/**
 * What a tool call says the session is doing, in the words of the session
 * rows: the tool, a colon and its subject.
 *
 * @param {Object} payload A response item: function_call, custom_tool_call,
 *     local_shell_call or web_search_call
 * @return {string|undefined}
 */
export function activityOf(payload) {
  let name;
  let subject = '';
  switch (payload.type) {
    case 'local_shell_call':
      name = 'Shell';
      subject = commandText(payload.action?.command);
      break;
    case 'web_search_call':
      name = 'Web search';
      subject = text(payload.action?.query) ?? '';
      break;
    case 'function_call':
    case 'custom_tool_call': {
      const tool = text(payload.name) ?? '';
      const input = payload.type === 'custom_tool_call' ? payload.input : payload.arguments;
      if (tool === 'shell' || tool === 'container.exec' || tool === 'exec_command' || tool === 'shell_command') {
        const args = parseArguments(input);
        name = 'Shell';
        subject = commandText(args.command ?? args.cmd);
      } else if (tool === 'apply_patch') {
        name = 'Edit';
        subject = patchTarget(payload.type === 'custom_tool_call' ? input : parseArguments(input).input);
      } else if (tool === 'update_plan') {
        name = 'Plan';
      } else {
        name = tool;
      }
      break;
    }
    default:
      return undefined;
  }
  if (!name) return undefined;
  return oneLine(subject ? `${name}: ${subject}` : name, MAX_ACTIVITY_CHARS);
}

function sandboxWord(policy) {
  if (typeof policy === 'string') return policy;
  if (!isObject(policy)) return undefined;
  // Newer versions tag the policy with `type`, older ones with `mode`.
  return text(policy.type) ?? text(policy.mode);
}

/**
 * The rate-limit windows of one token count, as the `Codex.Limits` record.
 *
 * @param {*} limits The payload's `rate_limits`
 * @param {number|null} lineTime When the line was written (epoch ms): the
 *     reading's time, and the base of the older relative `resets_in_seconds`
 * @return {Object|null} {fiveHour, sevenDay, limited, observedAt} with only
 *     the windows present; null when there is no reading of Codex's plan
 */
export function readRateLimits(limits, lineTime) {
  if (!isObject(limits)) return null;
  if (typeof limits.limit_id === 'string' && limits.limit_id !== PLAN_LIMIT_ID) return null;

  const windows = [];
  for (const [position, key] of [
    [0, 'primary'],
    [1, 'secondary'],
  ]) {
    const window = limits[key];
    if (!isObject(window) || typeof window.used_percent !== 'number' || !Number.isFinite(window.used_percent)) continue;
    const reading = { pct: Math.min(100, Math.max(0, window.used_percent)) };
    if (typeof window.resets_at === 'number' && window.resets_at > 0) {
      reading.resetsAt = Math.round(window.resets_at * 1000);
    } else if (typeof window.resets_in_seconds === 'number' && window.resets_in_seconds >= 0 && lineTime !== null) {
      reading.resetsAt = lineTime + Math.round(window.resets_in_seconds * 1000);
    }
    const minutes = typeof window.window_minutes === 'number' ? window.window_minutes : null;
    windows.push({ position, minutes, reading, spent: window.used_percent >= 100 });
  }
  if (windows.length === 0) return null;

  // The window's length says which it is; where it doesn't, the order does.
  const slots = {};
  const byLength = (window) =>
    window.minutes === null ? null : window.minutes >= WEEK_WINDOW_FROM_MINUTES ? 'sevenDay' : 'fiveHour';
  for (const window of windows) {
    const wanted = byLength(window) ?? (window.position === 0 ? 'fiveHour' : 'sevenDay');
    const slot = slots[wanted] === undefined ? wanted : wanted === 'fiveHour' ? 'sevenDay' : 'fiveHour';
    if (slots[slot] === undefined) slots[slot] = window;
  }

  const record = {};
  if (slots.fiveHour) record.fiveHour = slots.fiveHour.reading;
  if (slots.sevenDay) record.sevenDay = slots.sevenDay.reading;
  const reached = typeof limits.rate_limit_reached_type === 'string' && limits.rate_limit_reached_type !== '';
  record.limited = reached || windows.some((window) => window.spent);
  if (lineTime !== null) record.observedAt = lineTime;
  return record;
}

function applyEvent(track, payload) {
  switch (payload.type) {
    case 'user_message': {
      const message = text(payload.message);
      if (message !== undefined && track.title === undefined) track.title = titleFrom(message);
      track.state = 'working';
      delete track.activity;
      return;
    }
    case 'task_started':
    case 'turn_started':
    case 'entered_review_mode':
      track.state = 'working';
      return;
    case 'agent_message': {
      const message = text(payload.message);
      if (message !== undefined && message.trim() !== '') track.lastText = cut(message.trim(), MAX_TEXT_CHARS);
      // A commentary between tool calls is not the end of the turn.
      if (payload.phase !== 'commentary') {
        track.state = 'idle';
        delete track.activity;
      }
      return;
    }
    case 'task_complete':
    case 'turn_complete': {
      const message = text(payload.last_agent_message);
      if (message !== undefined && message.trim() !== '') track.lastText = cut(message.trim(), MAX_TEXT_CHARS);
      track.state = 'idle';
      delete track.activity;
      return;
    }
    case 'turn_aborted':
      track.state = 'idle';
      delete track.activity;
      return;
    case 'error': {
      const message = text(payload.message);
      if (message !== undefined && message.trim() !== '') track.lastText = cut(message.trim(), MAX_TEXT_CHARS);
      track.state = 'error';
      delete track.activity;
      return;
    }
    default:
  }
}

function applyItem(track, payload) {
  switch (payload.type) {
    case 'message': {
      const words = contentText(payload.content);
      if (payload.role === 'user') {
        // The typed request also comes as a user_message event; this is the
        // same words, and the only copy in versions that don't write it.
        const title = titleFrom(words);
        if (title !== undefined) {
          if (track.title === undefined) track.title = title;
          track.state = 'working';
          delete track.activity;
        }
      } else if (payload.role === 'assistant' && words.trim() !== '') {
        track.lastText = cut(words.trim(), MAX_TEXT_CHARS);
        if (payload.phase !== 'commentary') {
          track.state = 'idle';
          delete track.activity;
        }
      }
      return;
    }
    case 'function_call':
    case 'custom_tool_call':
    case 'local_shell_call':
    case 'web_search_call': {
      track.state = 'working';
      const activity = activityOf(payload);
      if (activity !== undefined) track.activity = activity;
      return;
    }
    case 'reasoning':
    case 'function_call_output':
    case 'custom_tool_call_output':
      track.state = 'working';
      return;
    default:
  }
}

/**
 * Follows one line of a session file.
 *
 * @param {RolloutTrack} track Changed in place
 * @param {{time: (number|null), type: string, payload: Object}} line As
 *     {@link parseRolloutLine} gave it
 * @return {Object|null} The rate-limit reading the line carries, if any
 *     (see {@link readRateLimits})
 */
export function applyLine(track, line) {
  const { time, type, payload } = line;
  if (time !== null) track.lastAt = Math.max(track.lastAt ?? time, time);

  switch (type) {
    case 'session_meta':
      // A forked session repeats its parent's history, first line included;
      // only the file's own first meta counts.
      if (track.metaSeen) return null;
      track.metaSeen = true;
      if (track.id === null && typeof payload.id === 'string') track.id = payload.id.toLowerCase();
      if (typeof payload.cwd === 'string') track.cwd = payload.cwd;
      if (typeof payload.cli_version === 'string') track.version = payload.cli_version;
      if (typeof payload.source === 'string') track.source = payload.source;
      else if (isObject(payload.source) && 'subagent' in payload.source) track.hidden = true;
      track.createdAt = timeOf(payload.timestamp) ?? time ?? track.createdAt;
      return null;
    case 'turn_context':
      if (typeof payload.cwd === 'string') track.cwd = payload.cwd;
      if (typeof payload.model === 'string') track.model = payload.model;
      if (sandboxWord(payload.sandbox_policy) !== undefined) track.permissionMode = sandboxWord(payload.sandbox_policy);
      return null;
    case 'event_msg':
      if (payload.type === 'token_count') return readRateLimits(payload.rate_limits, time);
      applyEvent(track, payload);
      return null;
    case 'response_item':
      applyItem(track, payload);
      return null;
    default:
      return null;
  }
}

// Codex's word for where a session runs, in the words of `Session.origin`:
// the interactive program is the one with a terminal window.
const ORIGINS = { cli: 'terminal', exec: 'exec', vscode: 'vscode', mcp: 'mcp' };

/**
 * The `Session` record of a track.
 *
 * @param {RolloutTrack} track
 * @param {Object} options
 * @param {boolean} options.ended The file has been quiet long enough that
 *     its Codex is taken to be gone
 * @return {Object|null} null while the session has no id
 */
export function sessionRecord(track, { ended }) {
  if (!track.id) return null;
  const record = { id: track.id, agent: 'codex', providerId: 'codex' };
  if (track.title !== undefined) record.title = track.title;
  if (track.cwd !== undefined) {
    record.cwd = track.cwd;
    record.projectName = path.basename(track.cwd) || track.cwd;
  }
  if (track.source !== undefined) record.origin = ORIGINS[track.source] ?? track.source;
  record.state = ended ? 'ended' : track.state;
  if (track.model !== undefined) record.model = track.model;
  if (track.permissionMode !== undefined) record.permissionMode = track.permissionMode;
  if (track.createdAt !== null) record.createdAt = track.createdAt;
  if (track.lastAt !== null) record.lastActivityAt = track.lastAt;
  if (track.activity !== undefined && record.state === 'working') record.activity = track.activity;
  if (track.lastText !== undefined) record.lastText = track.lastText;
  return record;
}
