// Claude Code's status line input as the service reads it: the usage windows
// (for a subscription, after the first answer of a session), the model and
// the cost; and the pace of each window worked out from successive readings.

import { isObject } from '../json.js';

/** Readings kept to work out the pace. */
export const MAX_READINGS = 120;

/** The pace is worked out over at most this much of the recent past, in milliseconds. */
export const RATE_SPAN_MS = 30 * 60 * 1000;

/** Two readings closer than this say nothing about the pace, in milliseconds. */
export const MIN_RATE_SPAN_MS = 60 * 1000;

function windowOf(value) {
  if (!isObject(value)) return undefined;
  const pct = value.used_percentage;
  if (typeof pct !== 'number' || !Number.isFinite(pct) || pct < 0 || pct > 1000) return undefined;
  const window = { pct };
  const reset = value.resets_at;
  if (typeof reset === 'number' && Number.isFinite(reset) && reset > 0) {
    // Claude Code gives epoch seconds; the records carry milliseconds.
    window.resetsAt = reset > 1e11 ? reset : reset * 1000;
  }
  return window;
}

/**
 * The usage windows in a status line input.
 *
 * @param {Object} input
 * @return {{fiveHour: (Object|undefined), sevenDay: (Object|undefined)}|null}
 *     null when it carries none (an API key, or before the first answer)
 */
export function windowsFrom(input) {
  const limits = isObject(input) ? input.rate_limits : undefined;
  if (!isObject(limits)) return null;
  const fiveHour = windowOf(limits.five_hour);
  const sevenDay = windowOf(limits.seven_day);
  if (!fiveHour && !sevenDay) return null;
  return { fiveHour, sevenDay };
}

/**
 * What the status line says of its session.
 *
 * @param {Object} input
 * @return {{model: (string|undefined), costUsd: (number|undefined)}}
 */
export function sessionFieldsFrom(input) {
  const fields = {};
  const model = isObject(input?.model) ? input.model : undefined;
  const name = model?.display_name ?? model?.id;
  if (typeof name === 'string' && name.trim() !== '') fields.model = name.trim().slice(0, 100);
  const cost = input?.cost?.total_cost_usd;
  if (typeof cost === 'number' && Number.isFinite(cost) && cost >= 0) fields.costUsd = Math.round(cost * 1e6) / 1e6;
  return fields;
}

// Percent a minute of one window, from the readings within its current
// period (the same reset) over the recent past; undefined when they can't tell.
function paceOf(readings, key, now) {
  const latest = readings.at(-1)?.[key];
  if (!latest) return undefined;
  const same = readings.filter(
    (reading) => reading[key] && reading[key].resetsAt === latest.resetsAt && now - reading.at <= RATE_SPAN_MS,
  );
  if (same.length < 2) return undefined;
  const first = same[0];
  const last = same.at(-1);
  const minutes = (last.at - first.at) / 60000;
  if (last.at - first.at < MIN_RATE_SPAN_MS) return undefined;
  return Math.max(0, (last[key].pct - first[key].pct) / minutes);
}

/**
 * The pace of the windows: percent a minute, and when the limit comes at
 * that pace (only when it comes before the window resets).
 *
 * @param {Array<{at: number, fiveHour: (Object|undefined), sevenDay: (Object|undefined)}>} readings
 *     Oldest first
 * @param {number} now Epoch ms
 * @return {Object|undefined} A UsageRate record
 */
export function usageRate(readings, now) {
  const rate = {};
  for (const [key, name] of [
    ['fiveHour', 'fiveHour'],
    ['sevenDay', 'sevenDay'],
  ]) {
    const pace = paceOf(readings, key, now);
    if (pace === undefined) continue;
    rate[name] = Math.round(pace * 10000) / 10000;
    const window = readings.at(-1)[key];
    if (pace > 0 && window.pct < 100) {
      const etaMs = Math.round(((100 - window.pct) / pace) * 60000);
      if (window.resetsAt === undefined || now + etaMs < window.resetsAt) {
        rate[`${name}EtaMs`] = etaMs;
        rate[`${name}LimitAt`] = now + etaMs;
      }
    }
  }
  return Object.keys(rate).length > 0 ? rate : undefined;
}

/**
 * The line shown in Claude Code's status bar when the person had none of
 * their own: the model and the windows.
 *
 * @param {Object} input
 * @return {string}
 */
export function statusText(input) {
  const parts = [];
  const { model } = sessionFieldsFrom(input);
  if (model) parts.push(model);
  const windows = windowsFrom(input);
  if (windows?.fiveHour) parts.push(`5h ${Math.round(windows.fiveHour.pct)}%`);
  if (windows?.sevenDay) parts.push(`7d ${Math.round(windows.sevenDay.pct)}%`);
  return parts.length > 0 ? `Tidewatch · ${parts.join(' · ')}` : 'Tidewatch';
}
