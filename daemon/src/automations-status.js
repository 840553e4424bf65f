// The short form of the automations that the local status carries, derived
// from the snapshot's full list: paused, how many, the next run, the runs at
// work. Anything may have been planted in the list, so every field is read
// by itself and an odd element is passed over.

import { isObject } from './json.js';

/**
 * A date as the service's records carry it, in milliseconds: epoch seconds,
 * epoch milliseconds (above 1e11), or an ISO 8601 text.
 *
 * @param {*} value
 * @return {number|null}
 */
export function dateMs(value) {
  if (typeof value === 'number' && Number.isFinite(value)) return value > 1e11 ? value : value * 1000;
  if (typeof value === 'string' && value.trim() !== '') {
    const ms = Date.parse(value);
    return Number.isNaN(ms) ? null : ms;
  }
  return null;
}

// Copies the keys that are present, and only those.
function pick(source, keys) {
  const out = {};
  for (const [from, to] of keys) if (source[from] !== undefined) out[to] = source[from];
  return out;
}

/**
 * @param {*} automations The snapshot's `automations` part: {paused, list, features}
 * @return {Object|undefined} {paused, count, next, running}; undefined when
 *     the part is no object
 */
export function automationsStatus(automations) {
  if (!isObject(automations)) return undefined;
  const list = Array.isArray(automations.list) ? automations.list.filter(isObject) : [];

  let next = null;
  let nextMs = Infinity;
  for (const automation of list) {
    if (automation.enabled === false) continue;
    const ms = dateMs(automation.nextAt);
    if (ms !== null && ms < nextMs) {
      nextMs = ms;
      next = pick(automation, [
        ['id', 'id'],
        ['name', 'name'],
        ['nextAt', 'at'],
      ]);
    }
  }

  const running = [];
  for (const automation of list) {
    const run = automation.lastRun;
    if (!isObject(run) || (run.state !== 'running' && run.state !== 'needs_you')) continue;
    const entry = pick(automation, [
      ['id', 'id'],
      ['name', 'name'],
    ]);
    if (Array.isArray(run.sessionIds) && run.sessionIds.length > 0) entry.sessionId = run.sessionIds.at(-1);
    if (run.startedAt !== undefined) entry.startedAt = run.startedAt;
    running.push(entry);
  }

  return { paused: automations.paused === true, count: list.length, next, running };
}
