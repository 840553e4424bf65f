// The rules of the triggers that fire on what the service hears: a Claude
// Code hook, a session's turn, the usage windows, the power. Each is a pure
// function of the trigger and the readings before and after, so that it
// tests without a hub; a first reading is a baseline and fires nothing,
// since a moment is a change.

import path from 'node:path';

import { isObject } from '../json.js';
import { inSpan, minutesOfDay } from './schedule.js';

/** The hook events a hook trigger can wait for. */
export const TRIGGER_HOOK_EVENTS = ['Stop', 'StopFailure', 'PostToolUseFailure', 'PreCompact', 'SessionEnd'];

/** A trigger's `window` word and the usage reading's key for it. */
export const USAGE_WINDOWS = { five_hour: 'fiveHour', seven_day: 'sevenDay' };

/** The longest last reply carried in a hook moment's payload. */
export const MAX_HOOK_TEXT_CHARS = 4000;

const WINDOW_WORDS = { fiveHour: 'The 5-hour window', sevenDay: 'The weekly window' };
const BUSY_STATES = new Set(['starting', 'working', 'needs_you']);

/** @return {boolean} An automation started this session. */
export function isAutomated(session) {
  return isObject(session) && (session.origin === 'automation' || isObject(session.automation));
}

/** @return {boolean} The trigger's `from` (mine, automated, any; mine when absent) takes this session. */
export function fromFits(from, session) {
  if (from === 'any') return true;
  return from === 'automated' ? isAutomated(session) : !isAutomated(session);
}

/** @return {boolean} A folder is the project or lies inside it; no project takes any folder. */
export function insideProject(folder, project) {
  if (project === null || project === undefined) return true;
  if (typeof folder !== 'string') return false;
  return folder === project || folder.startsWith(project.endsWith(path.sep) ? project : `${project}${path.sep}`);
}

const nameOf = (session, folder) =>
  (typeof session?.title === 'string' && session.title) ||
  (typeof session?.projectName === 'string' && session.projectName) ||
  (typeof folder === 'string' && path.basename(folder)) ||
  'A session';

/**
 * A hook trigger's moment in one hook event.
 *
 * @param {Object} trigger `event`, `tool`, `projectPath` (absolute), `from`
 * @param {Object} event A checked hook event
 * @param {Object|undefined} session Its session as last heard
 * @return {{sessionId: string, detail: string, payload: string}|null}
 */
export function hookMoment(trigger, event, session) {
  if (event.hook_event_name !== (trigger.event ?? 'Stop')) return null;
  if (typeof trigger.tool === 'string' && trigger.tool !== '' && event.tool_name !== trigger.tool) return null;
  const folder = typeof event.cwd === 'string' ? event.cwd : session?.cwd;
  if (!insideProject(folder, trigger.projectPath) || !fromFits(trigger.from, session)) return null;
  const told = {
    hook_event_name: event.hook_event_name,
    session_id: event.session_id,
    cwd: folder,
    tool_name: event.tool_name,
    error: event.error,
    last_assistant_message:
      typeof event.last_assistant_message === 'string' ? event.last_assistant_message.slice(0, MAX_HOOK_TEXT_CHARS) : undefined,
  };
  const tool = typeof event.tool_name === 'string' ? ` (${event.tool_name})` : '';
  return {
    sessionId: event.session_id,
    detail: `${event.hook_event_name}${tool} in ${nameOf(session, folder)}`,
    payload: JSON.stringify(told),
  };
}

/**
 * A session trigger's moment in one change of a session: it comes to need
 * the person (`needs_you`), or its work ends (any other event).
 *
 * @param {Object} trigger `event`, `projectPath` (absolute), `from`
 * @param {Object|undefined} before The session as last heard; undefined for one not seen yet
 * @param {Object} after The session now
 * @return {{sessionId: string, detail: string}|null}
 */
export function sessionMoment(trigger, before, after) {
  if (!isObject(before)) return null;
  const waits = trigger.event === 'needs_you';
  const moment = waits
    ? before.state !== 'needs_you' && after.state === 'needs_you'
    : BUSY_STATES.has(before.state) && (after.state === 'idle' || after.state === 'ended');
  if (!moment || !insideProject(after.cwd, trigger.projectPath) || !fromFits(trigger.from, after)) return null;
  return { sessionId: after.id, detail: `${nameOf(after, after.cwd)} ${waits ? 'needs you' : 'finished'}` };
}

/**
 * A power trigger's moment between two battery readings (the snapshot's
 * Battery record: `percent`, `onAC`): the battery falls under `below`
 * while on battery (`low`), or the mains comes (any other event).
 *
 * @param {Object} trigger `event`, `below`
 * @param {Object|null|undefined} before
 * @param {Object|null} after
 * @return {{detail: string}|null}
 */
export function powerMoment(trigger, before, after) {
  if (!isObject(before) || !isObject(after) || !Number.isFinite(after.percent)) return null;
  if (trigger.event === 'low') {
    const low = (battery) => battery.onAC !== true && Number.isFinite(battery.percent) && battery.percent < trigger.below;
    return low(after) && !low(before) ? { detail: `The battery is at ${Math.round(after.percent)}%` } : null;
  }
  return before.onAC !== true && after.onAC === true ? { detail: 'The Mac was plugged in' } : null;
}

const windowKeys = (trigger) =>
  USAGE_WINDOWS[trigger.window] ? [USAGE_WINDOWS[trigger.window]] : Object.values(USAGE_WINDOWS);

// A window past its reset has started over, whatever the last reading said.
function percentOf(usage, key, now) {
  const window = isObject(usage) ? usage[key] : undefined;
  if (!isObject(window) || !Number.isFinite(window.pct)) return null;
  return Number.isFinite(window.resetsAt) && window.resetsAt <= now ? 0 : window.pct;
}

/**
 * A limit trigger's moment between two usage readings: a window (the
 * trigger's, or either) reaches 100%.
 *
 * @param {Object} trigger `window`: "five_hour", "seven_day" or absent for either
 * @param {Object|undefined} before The Usage record
 * @param {Object} after
 * @param {number} now Epoch ms
 * @return {{detail: string}|null}
 */
export function limitMoment(trigger, before, after, now) {
  for (const key of windowKeys(trigger)) {
    const was = percentOf(before, key, now);
    const is = percentOf(after, key, now);
    if (was !== null && is !== null && was < 100 && is >= 100) return { detail: `${WINDOW_WORDS[key]} reached its limit` };
  }
  return null;
}

/**
 * When a reset trigger is next due, by the last usage reading: the soonest
 * reset ahead of a window it watches that falls in its span of the day
 * (`from`–`to`) and, with `afterLimit`, of a window at its limit.
 *
 * @param {Object} trigger `window`, `afterLimit`, `from`, `to`
 * @param {Object|undefined} usage The Usage record
 * @param {number} now Epoch ms
 * @param {string} [timeZone] For the span; the machine's when absent
 * @return {{at: number, detail: string}|null}
 */
export function resetDue(trigger, usage, now, timeZone) {
  let due = null;
  for (const key of windowKeys(trigger)) {
    const window = isObject(usage) ? usage[key] : undefined;
    if (!isObject(window) || !Number.isFinite(window.resetsAt) || window.resetsAt <= now) continue;
    if (trigger.afterLimit === true && !(window.pct >= 100)) continue;
    if (!inSpan(minutesOfDay(window.resetsAt, timeZone), trigger.from, trigger.to)) continue;
    if (due === null || window.resetsAt < due.at) due = { at: window.resetsAt, detail: `${WINDOW_WORDS[key]} reset` };
  }
  return due;
}
