// When a scheduled automation is due: the next moments of a `cron`, `time`,
// `once` or `every` trigger on the machine's clock. croner is the
// calculator only; the trigger hub keeps its own timer and due times.

import { Cron } from 'croner';

import { HttpError } from '../http-reply.js';
import { isObject } from '../json.js';

/** The trigger kinds that have moments of their own. */
export const SCHEDULED_KINDS = ['cron', 'time', 'once', 'every'];

/** The most next times one question gives. */
export const MAX_NEXT_TIMES = 20;

/** The longest cron expression read. */
export const MAX_EXPR_CHARS = 200;

/** The sentences of a schedule that doesn't read; the book's refusals say the same. */
export const NOT_A_SCHEDULE = 'That isn’t a schedule: five fields, like */15 9-18 * * 1-5.';
export const NOT_A_MOMENT = 'That moment isn’t one your Mac can watch for.';
const CLOCK = /^([01]\d|2[0-3]):([0-5]\d)$/;

const refuse = (code, message) => new HttpError(400, code, message, { field: 'trigger' });

/** @return {number|null} The minutes since midnight of a clock "HH:MM", null for anything else. */
export function clockMinutes(text) {
  const match = typeof text === 'string' ? CLOCK.exec(text) : null;
  return match ? Number(match[1]) * 60 + Number(match[2]) : null;
}

/**
 * The minutes since midnight of an instant on the local clock.
 *
 * @param {number} at Epoch ms
 * @param {string} [timeZone] A named zone; the machine's (TZ honoured) when absent
 * @return {number}
 */
export function minutesOfDay(at, timeZone) {
  const parts = new Intl.DateTimeFormat('en-GB', { timeZone, hour: '2-digit', minute: '2-digit', hourCycle: 'h23' })
    .formatToParts(new Date(at));
  const part = (type) => Number(parts.find((each) => each.type === type).value);
  return part('hour') * 60 + part('minute');
}

/**
 * Whether minutes of the day fall in a span "from"–"to" (both included);
 * a missing end is the day's start or end.
 */
export function inSpan(minutes, from, to) {
  const start = clockMinutes(from) ?? 0;
  const end = clockMinutes(to) ?? 24 * 60 - 1;
  return minutes >= start && minutes <= end;
}

// No weekdays listed means every day, as the book keeps it.
function daysField(days) {
  if (days === undefined || days === null || (Array.isArray(days) && days.length === 0)) return '*';
  const valid = Array.isArray(days) && days.every((day) => Number.isInteger(day) && day >= 0 && day <= 6);
  if (!valid) throw refuse('bad_trigger', NOT_A_MOMENT);
  return [...new Set(days)].sort((a, b) => a - b).join(',');
}

function clockOf(text, { optional = false } = {}) {
  if (optional && (text === undefined || text === null)) return null;
  const minutes = clockMinutes(text);
  if (minutes === null) throw refuse('bad_trigger', NOT_A_MOMENT);
  return minutes;
}

/**
 * The five-field cron pattern that gives a `cron`, `time` or `every`
 * trigger's moments. `time` and `every` are wall-clock times, so a day
 * that DST makes shorter or longer keeps them at their hour.
 *
 * @param {Object} trigger
 * @return {string}
 * @throws {HttpError} 400 `bad_cron` or `bad_trigger`, field "trigger"
 */
export function cronPattern(trigger) {
  switch (trigger.kind) {
    case 'cron': {
      const expr = typeof trigger.expr === 'string' ? trigger.expr.trim() : '';
      if (expr.length === 0 || expr.length > MAX_EXPR_CHARS || expr.split(/\s+/).length !== 5) {
        throw refuse('bad_cron', NOT_A_SCHEDULE);
      }
      return expr;
    }
    case 'time': {
      const at = clockOf(trigger.at);
      return `${at % 60} ${Math.floor(at / 60)} * * ${daysField(trigger.days)}`;
    }
    case 'every': {
      const hours = trigger.hours ?? 1;
      if (!Number.isInteger(hours) || hours < 1 || hours > 24) throw refuse('bad_trigger', NOT_A_MOMENT);
      const from = clockOf(trigger.from, { optional: true }) ?? 0;
      const to = clockOf(trigger.to, { optional: true }) ?? 24 * 60 - 1;
      if (to < from) throw refuse('bad_trigger', NOT_A_MOMENT);
      const list = [];
      for (let at = from; at <= to; at += hours * 60) list.push(Math.floor(at / 60));
      return `${from % 60} ${list.join(',')} * * ${daysField(trigger.days)}`;
    }
    default:
      throw refuse('bad_trigger', NOT_A_MOMENT);
  }
}

/**
 * The next moments of a trigger, strictly after `now`, soonest first. A
 * trigger of another kind (an event, a watch, a webhook) has none.
 *
 * @param {Object} trigger A WFTrigger
 * @param {number} now Epoch ms
 * @param {number} count How many, 1 to {@link MAX_NEXT_TIMES}
 * @param {Object} [options]
 * @param {string} [options.timeZone] A named zone; the machine's (TZ honoured) when absent
 * @return {Array<number>} Epoch ms
 * @throws {HttpError} 400 `bad_cron` or `bad_trigger`, field "trigger", for one that can't be read
 */
export function nextTimes(trigger, now, count, { timeZone } = {}) {
  if (!isObject(trigger)) throw refuse('bad_trigger', NOT_A_MOMENT);
  const wanted = Math.min(MAX_NEXT_TIMES, Math.max(1, Math.trunc(count) || 1));
  if (trigger.kind === 'once') {
    if (!Number.isSafeInteger(trigger.at)) throw refuse('bad_trigger', NOT_A_MOMENT);
    return trigger.at > now ? [trigger.at] : [];
  }
  if (!SCHEDULED_KINDS.includes(trigger.kind)) return [];
  const cron = cronOf(cronPattern(trigger), { timeZone });
  if (cron === null) {
    throw refuse(trigger.kind === 'cron' ? 'bad_cron' : 'bad_trigger', trigger.kind === 'cron' ? NOT_A_SCHEDULE : NOT_A_MOMENT);
  }
  return cron.nextRuns(wanted, new Date(now)).map((date) => date.getTime());
}

/**
 * A calculator for a five-field pattern, never started.
 *
 * @param {string} pattern
 * @param {Object} [options]
 * @param {string} [options.timeZone] A named zone; the machine's (TZ honoured) when absent
 * @return {Cron|null} null for a pattern that doesn't read as five fields
 */
export function cronOf(pattern, { timeZone } = {}) {
  if (typeof pattern !== 'string' || pattern.trim().split(/\s+/).length !== 5) return null;
  try {
    // A list of hours is as fixed as a single one: it runs once when DST repeats an hour.
    return new Cron(pattern.trim(), { paused: true, mode: '5-part', fixedTimeRule: 'no-wildcard', timezone: timeZone });
  } catch {
    return null;
  }
}

/**
 * @param {Object} trigger
 * @param {number} now Epoch ms
 * @param {Object} [options] As for {@link nextTimes}
 * @return {number|null} The next moment, or null when it has none
 * @throws {HttpError} As {@link nextTimes}
 */
export function nextAt(trigger, now, options) {
  return nextTimes(trigger, now, 1, options)[0] ?? null;
}
