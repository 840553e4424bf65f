// The next moments of a trigger that keeps time (cron, time, once, every), on
// the machine's local clock. croner is only the calculator here: nothing is
// scheduled by it.

import { Cron } from 'croner';

/** The most next times one question gets. */
export const MAX_COUNT = 10;

/** Days looked ahead for a `time` or `every` trigger: enough for the most times on one weekday, and a margin for a change of clocks. */
const DAYS_AHEAD = 7 * MAX_COUNT + 2;

/**
 * Reads a five-field cron expression.
 *
 * @param {string} expr
 * @return {Cron|null} A calculator, never started; null when it isn't five fields that read
 */
export function cronOf(expr) {
  if (typeof expr !== 'string' || expr.trim().split(/\s+/).length !== 5) return null;
  try {
    return new Cron(expr.trim(), { mode: '5-part' });
  } catch {
    return null;
  }
}

/**
 * Reads a clock time "HH:MM".
 *
 * @param {*} text
 * @return {{hour: number, minute: number}|null}
 */
export function clockOf(text) {
  const match = typeof text === 'string' ? /^([01]\d|2[0-3]):([0-5]\d)$/.exec(text) : null;
  return match ? { hour: Number(match[1]), minute: Number(match[2]) } : null;
}

// The local days from today on, as [year, month, day, weekday].
function daysFrom(now) {
  const start = new Date(now);
  return Array.from({ length: DAYS_AHEAD }, (_, offset) => {
    const day = new Date(start.getFullYear(), start.getMonth(), start.getDate() + offset);
    return [day.getFullYear(), day.getMonth(), day.getDate(), day.getDay()];
  });
}

// The moments of the day's clock times, on the listed weekdays (all when none are).
function onDays(trigger, now, count, clocks) {
  const days = Array.isArray(trigger.days) && trigger.days.length > 0 ? trigger.days : null;
  const found = [];
  for (const [year, month, date, weekday] of daysFrom(now)) {
    if (days && !days.includes(weekday)) continue;
    for (const { hour, minute } of clocks) {
      const at = new Date(year, month, date, hour, minute).getTime();
      if (at > now && !found.includes(at)) found.push(at);
    }
    if (found.length >= count) break;
  }
  return found.slice(0, count);
}

// The clock times of an `every` trigger: from `from`, each `hours`, to `to` or the day's end.
function everyClocks(trigger) {
  const from = clockOf(trigger.from) ?? { hour: 0, minute: 0 };
  const to = clockOf(trigger.to) ?? { hour: 23, minute: 59 };
  const clocks = [];
  for (let minutes = from.hour * 60 + from.minute; minutes <= to.hour * 60 + to.minute; minutes += trigger.hours * 60) {
    clocks.push({ hour: Math.floor(minutes / 60), minute: minutes % 60 });
  }
  return clocks;
}

/**
 * @param {Object} trigger A valid trigger
 * @param {number} now Epoch ms
 * @param {number} count At most MAX_COUNT
 * @return {Array<number>|null} The next times, soonest first, in epoch ms;
 *     null for a trigger that waits for an event instead
 */
export function nextTimes(trigger, now, count) {
  const wanted = Math.max(0, Math.min(count, MAX_COUNT));
  switch (trigger.kind) {
    case 'cron':
      return (cronOf(trigger.expr)?.nextRuns(wanted, new Date(now)) ?? []).map((date) => date.getTime());
    case 'once':
      return typeof trigger.at === 'number' && trigger.at > now && wanted > 0 ? [trigger.at] : [];
    case 'time': {
      const clock = clockOf(trigger.at);
      return clock ? onDays(trigger, now, wanted, [clock]) : [];
    }
    case 'every':
      return Number.isInteger(trigger.hours) && trigger.hours > 0 ? onDays(trigger, now, wanted, everyClocks(trigger)) : [];
    default:
      return null;
  }
}

/**
 * @param {Object} trigger
 * @param {number} now Epoch ms
 * @return {number|null} The next time, or null when there is none
 */
export function nextAt(trigger, now) {
  return nextTimes(trigger, now, 1)?.[0] ?? null;
}
