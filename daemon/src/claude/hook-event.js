// Claude Code's hook events: checking one that arrives, and what it does to
// its session. The session rules are a pure function of the session as it
// stands and the event, so that they test without a service.

import path from 'node:path';

import { REPORT_EVENTS, WAITING_EVENT } from './hook-settings.js';
import { activityOf } from './permission.js';
import { cut, isObject } from '../json.js';

/** The events the service understands, the ones it hooks; any other is refused. */
export const HOOK_EVENTS = [...REPORT_EVENTS, WAITING_EVENT];

/** Longest session id, tool name or tool call id taken. */
export const MAX_ID_CHARS = 200;

/** Longest path taken (working folder, transcript). */
export const MAX_PATH_CHARS = 4096;

/** A title is made of this much of the first prompt. */
export const MAX_TITLE_CHARS = 80;

/** The last words kept on a session. */
export const MAX_LAST_TEXT_CHARS = 4000;

const ID = /^[A-Za-z0-9._:-]+$/;

/** A hook payload that can't be taken; its message is a sentence naming the field. */
export class HookEventError extends Error {
  constructor(field, message) {
    super(message);
    this.field = field;
  }
}

function checkId(event, field, { required = false } = {}) {
  const value = event[field];
  if (value === undefined && !required) return;
  if (typeof value !== 'string' || value.length === 0 || value.length > MAX_ID_CHARS || !ID.test(value)) {
    throw new HookEventError(
      field,
      `“${field}” must be an id of letters, digits, “.”, “_”, “:” or “-”, at most ${MAX_ID_CHARS} long.`,
    );
  }
}

function checkPath(event, field) {
  const value = event[field];
  if (value === undefined) return;
  if (typeof value !== 'string' || value.length > MAX_PATH_CHARS || !path.isAbsolute(value) || value.includes('\0')) {
    throw new HookEventError(field, `“${field}” must be an absolute path of at most ${MAX_PATH_CHARS} characters.`);
  }
}

/**
 * Checks one hook payload as Claude Code sends it. Only the fields the
 * service reads are checked; others pass unread.
 *
 * @param {*} event The parsed JSON
 * @return {Object} The same event
 * @throws {HookEventError}
 */
export function checkHookEvent(event) {
  if (!isObject(event)) throw new HookEventError(null, 'A hook event must be a JSON object.');
  if (!HOOK_EVENTS.includes(event.hook_event_name)) {
    throw new HookEventError('hook_event_name', '“hook_event_name” must name an event the service follows.');
  }
  checkId(event, 'session_id', { required: true });
  checkId(event, 'tool_use_id');
  checkPath(event, 'cwd');
  checkPath(event, 'transcript_path');
  // The transcript is read by the service, so it must be this session's own
  // file and nothing else on the disk.
  if (event.transcript_path !== undefined && path.basename(event.transcript_path) !== `${event.session_id}.jsonl`) {
    throw new HookEventError('transcript_path', '“transcript_path” must be the session’s own transcript.');
  }
  for (const field of ['tool_name', 'permission_mode', 'source', 'reason', 'notification_type', 'error']) {
    const value = event[field];
    if (value !== undefined && (typeof value !== 'string' || value.length > MAX_ID_CHARS)) {
      throw new HookEventError(field, `“${field}” must be a short string.`);
    }
  }
  if (['PreToolUse', 'PermissionRequest', 'PostToolUse', 'PostToolUseFailure'].includes(event.hook_event_name)) {
    if (typeof event.tool_name !== 'string' || event.tool_name === '') {
      throw new HookEventError('tool_name', 'A tool event needs its “tool_name”.');
    }
  }
  for (const field of ['prompt', 'last_assistant_message', 'message']) {
    if (event[field] !== undefined && typeof event[field] !== 'string') {
      throw new HookEventError(field, `“${field}” must be a string.`);
    }
  }
  return event;
}

/** @return {string|undefined} A title from a prompt: its first line with words, cut short. */
export function titleFrom(prompt) {
  if (typeof prompt !== 'string') return undefined;
  const line = prompt.split('\n').find((each) => each.trim() !== '');
  if (line === undefined) return undefined;
  return cut(line.trim().replace(/\s+/g, ' '), MAX_TITLE_CHARS);
}

/**
 * The block a failed turn leaves, by Claude Code's word for the failure.
 *
 * @param {Object} event The StopFailure event
 * @param {Object} [usage] The last usage reading, for when a limit lifts
 * @param {TurnFailure} [failure] The same failure as the transcript tells
 *     it, which knows when its limit lifts
 * @return {Object|null} A Session.Blocked record, or null when the failure
 *     is an error rather than a wait
 */
export function blockedFrom(event, usage, failure) {
  const text =
    typeof event.last_assistant_message === 'string' ? cut(event.last_assistant_message.trim(), 500) : undefined;
  const withText = (record) => (text ? { ...record, text } : record);
  switch (event.error) {
    case 'rate_limit': {
      if (Number.isFinite(failure?.resetsAt)) return withText({ kind: 'limit', resetsAt: failure.resetsAt });
      // The window that is full is the one whose reset ends the wait.
      const full = [usage?.fiveHour, usage?.sevenDay].filter((window) => isObject(window) && window.pct >= 100);
      const resetsAt = full
        .map((window) => window.resetsAt)
        .filter(Number.isFinite)
        .sort((a, b) => b - a)[0];
      return withText(resetsAt === undefined ? { kind: 'limit' } : { kind: 'limit', resetsAt });
    }
    case 'authentication_failed':
      return withText({ kind: 'logged_out' });
    case 'billing_error':
      return withText({ kind: 'no_credit' });
    default:
      return null;
  }
}

/**
 * The session after one hook event.
 *
 * @param {Object|undefined} session As it stands; undefined for one not seen yet
 * @param {Object} event A checked hook event
 * @param {Object} context
 * @param {number} context.now Epoch ms
 * @param {boolean} [context.tty] The hook ran with a terminal (SessionStart)
 * @param {Object} [context.usage] The last usage reading
 * @param {TurnFailure} [context.failure] A StopFailure's failure as the
 *     transcript tells it
 * @return {Object} The new session
 */
export function sessionAfter(session, event, { now, tty = false, usage, failure } = {}) {
  const next = { ...(session ?? { id: event.session_id, state: 'idle', createdAt: now }) };
  next.lastActivityAt = now;
  if (typeof event.cwd === 'string' && next.cwd === undefined) {
    next.cwd = event.cwd;
    next.projectName = path.basename(event.cwd) || event.cwd;
  }
  if (typeof event.permission_mode === 'string') next.permissionMode = event.permission_mode;
  const waiting = Array.isArray(next.pendingApprovalIds) && next.pendingApprovalIds.length > 0;
  // An open approval holds the session on the user until it is answered.
  const busy = () => {
    next.state = waiting ? 'needs_you' : 'working';
  };

  switch (event.hook_event_name) {
    case 'SessionStart':
      if (tty) next.origin = 'terminal';
      if (next.state === 'ended' || session === undefined) next.state = 'idle';
      break;
    case 'UserPromptSubmit':
      next.title ??= titleFrom(event.prompt);
      if (next.title === undefined) delete next.title;
      delete next.blocked;
      delete next.activity;
      busy();
      break;
    case 'PreToolUse':
      next.activity = activityOf(event.tool_name, event.tool_input);
      busy();
      break;
    case 'PermissionRequest':
      next.activity = activityOf(event.tool_name, event.tool_input);
      next.state = 'needs_you';
      break;
    case 'PostToolUse':
    case 'PostToolUseFailure':
      delete next.activity;
      busy();
      break;
    case 'SubagentStart':
      next.agentsRunning = (Number.isInteger(next.agentsRunning) ? next.agentsRunning : 0) + 1;
      break;
    case 'SubagentStop':
      next.agentsRunning = Math.max(0, (Number.isInteger(next.agentsRunning) ? next.agentsRunning : 0) - 1);
      break;
    case 'Notification':
      // A permission prompt waits on the user; any other note means it is idle.
      if (event.notification_type === 'permission_prompt') {
        next.state = 'needs_you';
      } else if (!waiting) {
        next.state = 'idle';
        delete next.activity;
      }
      break;
    case 'Stop':
      next.state = waiting ? 'needs_you' : 'idle';
      delete next.activity;
      delete next.blocked;
      if (typeof event.last_assistant_message === 'string' && event.last_assistant_message.trim() !== '') {
        next.lastText = cut(event.last_assistant_message, MAX_LAST_TEXT_CHARS);
      }
      break;
    case 'StopFailure': {
      delete next.activity;
      const blocked = blockedFrom(event, usage, failure);
      if (blocked) {
        next.state = 'idle';
        // The same wait told twice (by the hook and by the transcript) keeps
        // the plan to carry on that was armed or offered for it; a spent one goes.
        const resume = session?.blocked?.kind === blocked.kind ? session.blocked.resume : undefined;
        const live = resume?.state === 'armed' || (resume?.state === 'off' && resume.canArm === true);
        const planned = resume?.by === 'claude' ? { autoResumeAt: session.blocked.autoResumeAt } : {};
        next.blocked = live ? { ...blocked, ...planned, resume } : blocked;
      } else {
        next.state = 'error';
        if (typeof event.last_assistant_message === 'string' && event.last_assistant_message.trim() !== '') {
          next.lastText = cut(event.last_assistant_message, MAX_LAST_TEXT_CHARS);
        }
      }
      break;
    }
    case 'SessionEnd':
      next.state = 'ended';
      delete next.activity;
      next.agentsRunning = 0;
      break;
    default:
      break;
  }
  return next;
}
