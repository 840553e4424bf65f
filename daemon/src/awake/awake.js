// Stay awake: what the service wants of the machine's power, decided from
// the chosen mode, the time, the battery, the heat and the work that runs.
// Everything here is a plain function of its inputs; the keeper feeds it the
// clock and the readings, and the power lock carries out what it decides.

import { arrayOr, isObject } from '../json.js';

/** The modes a person can choose. */
export const MODES = ['working', 'backpack', 'off'];

/** How long Backpack keeps the machine awake, in milliseconds (8 hours). */
export const BACKPACK_MS = 8 * 60 * 60 * 1000;

/** The warning before letting go for time, battery or heat (2 minutes). */
export const WARNING_MS = 2 * 60 * 1000;

/** Backpack offers more time in its last ten minutes. */
export const EXTEND_WINDOW_MS = 10 * 60 * 1000;

/** The battery percentage at which Backpack lets go, unless chosen otherwise. */
export const DEFAULT_MIN_BATTERY = 15;
export const MIN_BATTERY_RANGE = [5, 50];

/** Degrees Celsius at which the machine counts as running hot. */
export const DEFAULT_HOT_AT = 90;

/**
 * Once hot, it counts as cool again only this many degrees below the
 * threshold, so that a reading hovering at the line doesn't flap.
 */
export const COOL_MARGIN = 10;

/** Session states in which an agent is at work. */
const WORKING_STATES = new Set(['starting', 'working']);

/**
 * Automation run states that need the machine: a run waiting at an ask
 * still counts, because its default answer fires by itself at a deadline.
 */
const RUNNING_RUN_STATES = new Set(['running', 'needs_you']);

/**
 * @typedef {Object} AwakePlan What the service remembers between decisions
 * @property {string} mode One of {@link MODES}
 * @property {number} minBattery A whole percentage within {@link MIN_BATTERY_RANGE}
 * @property {number|null} until When Backpack ends (epoch ms); only in Backpack
 * @property {{reason: string, sleepAt: number}|null} warning The warning
 *     running: why, and when it lets go
 * @property {string|null} released Why Backpack let go ("battery", "hot"),
 *     until that condition passes
 */

/** @return {AwakePlan} */
export function freshPlan(mode = 'working', minBattery = DEFAULT_MIN_BATTERY) {
  return { mode, minBattery, until: null, warning: null, released: null };
}

/**
 * What is running that keeps the machine awake in the "working" mode, one
 * short description each, for the log and /qa.
 *
 * @param {Object} parts
 * @param {*} parts.sessions The snapshot's sessions, as stored
 * @param {*} parts.automations The snapshot's automations, as stored
 * @param {*} parts.devices The paired devices, as stored; one whose link
 *     is up has `connected` true
 * @return {Array<string>}
 */
export function runningThings({ sessions, automations, devices }) {
  const things = [];
  for (const session of arrayOr(sessions)) {
    if (!isObject(session)) continue;
    const agents = Number.isFinite(session.agentsRunning) ? session.agentsRunning : 0;
    if (WORKING_STATES.has(session.state) || agents > 0) things.push(`session ${session.id}`);
  }
  const list = isObject(automations) ? arrayOr(automations.list) : [];
  for (const automation of list) {
    if (isObject(automation) && isObject(automation.lastRun) && RUNNING_RUN_STATES.has(automation.lastRun.state)) {
      things.push(`automation ${automation.id}`);
    }
  }
  // A phone or the glasses reach the machine only while it is awake.
  for (const device of arrayOr(devices)) {
    if (isObject(device) && device.connected === true) things.push(`device ${device.id}`);
  }
  return things;
}

/**
 * Whether Backpack offers more time now: in its last ten minutes.
 *
 * @param {AwakePlan} plan
 * @param {number} now
 */
export function canExtend(plan, now) {
  return plan.mode === 'backpack' && plan.until !== null && now >= plan.until - EXTEND_WINDOW_MS && now < plan.until;
}

/**
 * @typedef {Object} AwakeWorld What the machine is like now
 * @property {number} now Epoch milliseconds
 * @property {boolean} busy Something runs (see {@link runningThings})
 * @property {{percent: number, onAC: boolean}|null} battery
 * @property {number|null} temperature Degrees Celsius, the hottest reading
 * @property {number} hotAt The threshold in degrees Celsius
 * @property {boolean} backpackReady The closed lid can be held on this machine
 */

/**
 * @typedef {Object} AwakeDecision
 * @property {AwakePlan} plan The plan to remember
 * @property {boolean} hold Keep the machine from sleeping
 * @property {boolean} lid Also with the lid closed
 * @property {string|null} reason What the record says: "time", "battery",
 *     "hot", "setup"; a failure of the lock is added by whoever runs it
 * @property {number|null} sleepAt The moment the warning lets go
 * @property {boolean} extendable
 * @property {number|null} nextAt The next moment at which, with nothing
 *     else changing, the decision changes; null when none is due
 * @property {string|null} ended "time" when Backpack just ran out
 */

/**
 * Decides once.
 *
 * @param {AwakePlan} plan
 * @param {AwakeWorld} world
 * @return {AwakeDecision}
 */
export function decideAwake(plan, world) {
  const { now } = world;
  const quiet = { hold: false, lid: false, reason: null, sleepAt: null, extendable: false, nextAt: null, ended: null };

  if (plan.mode === 'off') return { ...quiet, plan: freshPlan('off', plan.minBattery) };
  if (plan.mode !== 'backpack') {
    return { ...quiet, plan: freshPlan('working', plan.minBattery), hold: world.busy };
  }

  const until = plan.until ?? now + BACKPACK_MS;
  const ending = plan.warning?.reason === 'time' && now >= plan.warning.sleepAt;
  if (now >= until || ending) {
    return { ...decideAwake(freshPlan('working', plan.minBattery), world), ended: 'time' };
  }

  const { battery, temperature, hotAt } = world;
  const low = battery !== null && !battery.onAC && battery.percent <= plan.minBattery;
  const wasHot = plan.warning?.reason === 'hot' || plan.released === 'hot';
  const hot = temperature !== null && (temperature >= hotAt || (wasHot && temperature > hotAt - COOL_MARGIN));
  const condition = low ? 'battery' : hot ? 'hot' : null;

  let warning = null;
  let released = null;
  if (plan.released !== null && condition !== null) {
    released = condition;
  } else {
    const reason = condition ?? (now >= until - WARNING_MS ? 'time' : null);
    if (reason !== null) {
      // Backpack's end comes first, whatever the reason.
      const due = Math.min(until, now + WARNING_MS);
      // A warning under way keeps its moment: a second reason never buys time.
      warning = { reason, sleepAt: plan.warning ? Math.min(plan.warning.sleepAt, due) : due };
      if (now >= warning.sleepAt) {
        if (reason === 'time') return { ...decideAwake(freshPlan('working', plan.minBattery), world), ended: 'time' };
        released = reason;
        warning = null;
      }
    }
  }

  const moments = [until - EXTEND_WINDOW_MS, until - WARNING_MS, until, warning?.sleepAt ?? Infinity];
  const nextAt = Math.min(...moments.filter((moment) => moment > now));
  const holding = released === null;
  return {
    plan: { mode: 'backpack', minBattery: plan.minBattery, until, warning, released },
    hold: holding,
    lid: holding && world.backpackReady,
    reason: warning?.reason ?? released ?? (world.backpackReady ? null : 'setup'),
    sleepAt: warning?.sleepAt ?? null,
    extendable: canExtend({ mode: 'backpack', until }, now),
    nextAt: Number.isFinite(nextAt) ? nextAt : null,
    ended: null,
  };
}

/**
 * The Awake record as the app reads it, keys in the order of the record.
 *
 * @param {Object} parts
 * @param {AwakeDecision} parts.decision
 * @param {{holding: boolean, lidOk: boolean}} parts.lock What the lock achieved
 * @param {boolean} parts.backpackReady
 * @param {boolean|null} parts.lidClosed
 * @param {boolean} parts.laptop
 * @param {{app: (string|null)}|null} parts.other Another program that keeps
 *     the machine from sleeping, if one was seen
 * @return {Object}
 */
export function awakeRecord({ decision, lock, backpackReady, lidClosed, laptop, other }) {
  const { plan } = decision;
  // The lock not doing what was asked is the last reason to tell: a warning
  // or a missing permission says more.
  const fell = (decision.hold && !lock.holding) || (decision.lid && !lock.lidOk);
  const reason = decision.reason ?? (fell ? 'failed' : null);
  const record = {
    mode: plan.mode,
    holding: decision.hold && lock.holding,
    lidClosedOk: decision.lid && lock.lidOk,
    backpackReady,
  };
  if (plan.until !== null) record.until = plan.until;
  if (reason !== null) record.reason = reason;
  if (decision.sleepAt !== null) record.sleepAt = decision.sleepAt;
  if (lidClosed !== null) record.lidClosed = lidClosed;
  record.laptop = laptop;
  record.minBattery = plan.minBattery;
  if (other) {
    record.sleepDisabledBy = 'other';
    if (other.app) record.otherApp = other.app;
  }
  record.extendable = decision.extendable;
  return record;
}

/**
 * Reads the saved state (`awake.json`) tolerantly: what can't be read falls
 * back to its default, so that a damaged file never stops the service.
 *
 * @param {string|null} text The file's text; null when there is none
 * @return {{plan: AwakePlan, backpack: ({prev: number, applied: boolean}|null), extra: Object}}
 *     `extra` keeps the keys this version doesn't know, to write them back
 */
export function readAwakeFile(text) {
  let saved = {};
  try {
    const parsed = text === null ? {} : JSON.parse(text);
    if (isObject(parsed)) saved = parsed;
  } catch {
    // a damaged file is a fresh start
  }
  const { mode, minBattery, until, backpack, ...extra } = saved;
  const plan = freshPlan(
    MODES.includes(mode) ? mode : 'working',
    validMinBattery(minBattery) ? minBattery : DEFAULT_MIN_BATTERY,
  );
  if (plan.mode === 'backpack' && Number.isFinite(until)) plan.until = until;
  const prev = isObject(backpack) ? backpack.prev : undefined;
  const remembered =
    isObject(backpack) && Number.isInteger(prev) ? { prev, applied: backpack.applied === true } : null;
  return { plan, backpack: remembered, extra };
}

/**
 * The saved state's text: the mode, the battery level, Backpack's end and
 * what Backpack found of the system's setting (`prev`) and whether it has
 * changed it (`applied`).
 */
export function awakeFileText(plan, backpack, extra = {}) {
  const saved = { ...extra, mode: plan.mode, minBattery: plan.minBattery };
  if (plan.mode === 'backpack' && plan.until !== null) saved.until = plan.until;
  if (backpack) saved.backpack = { prev: backpack.prev, applied: backpack.applied };
  return `${JSON.stringify(saved, null, 2)}\n`;
}

/** @return {boolean} Whether this is a battery level a person may choose. */
export function validMinBattery(value) {
  return Number.isInteger(value) && value >= MIN_BATTERY_RANGE[0] && value <= MIN_BATTERY_RANGE[1];
}
