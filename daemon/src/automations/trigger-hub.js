// Every automation's moment in one place: the due times of the scheduled
// ones and of the usage resets, kept here and watched by one timer; the
// file and GitHub watches; and what the service hears (hooks, sessions,
// usage, power), matched against the triggers that wait for it.

import os from 'node:os';
import path from 'node:path';

import { isObject } from '../json.js';
import { hookMoment, limitMoment, powerMoment, resetDue, sessionMoment } from './event-triggers.js';
import { FileWatch } from './file-watch.js';
import { GithubWatch } from './github-watch.js';
import { nextAt, NOT_A_MOMENT, SCHEDULED_KINDS } from './schedule.js';

/**
 * The longest the timer waits before it looks at the clock again, in ms.
 * A sleeping machine stops the timers' clock but not the wall clock, so a
 * due time passed in sleep is seen at most this long after waking.
 */
export const RECHECK_MS = 30_000;

/** A hook or session trigger fires at most once in this long for one session, in ms. */
export const SESSION_EVERY_MS = 60_000;

/** The longest payload handed on, in characters. */
export const MAX_PAYLOAD_CHARS = 64 * 1024;

/** Sessions remembered for their last state; the oldest heard goes first. */
export const MAX_SESSIONS_HEARD = 1000;

/** A due time this far behind the clock was missed (asleep, or the service off), in ms. */
export const LATE_MS = 60_000;

const EVENT_KINDS = new Set(['hook', 'session', 'power', 'limit', 'webhook']);

/** @return {string|null} A path as the person typed it ("~/…" included), absolute; null for none. */
export function resolvePath(typed, home) {
  if (typeof typed !== 'string' || typed === '') return null;
  if (typed === '~') return home;
  return typed.startsWith('~/') ? path.join(home, typed.slice(2)) : path.resolve(typed);
}

/**
 * @typedef {Object} Fired What fired a run: WFFired with the payload for {payload}
 * @property {string} by The trigger's kind
 * @property {number} at Epoch ms
 * @property {string} [sessionId] The session that fired it
 * @property {string} detail One line on what happened
 * @property {string} [payload] What came with it (files, GitHub's news, a hook's event)
 * @property {number} [dueAt] A scheduled moment's own time, which a late one was missed at
 */

/**
 * Starts and stops each automation's watch as its trigger says, keeps the
 * next due time of each, and fires through `fire`. A disabled automation,
 * or all while paused, fires nothing.
 */
export class TriggerHub {
  #clock;
  #fire;
  #github;
  #watch;
  #log;
  #home;
  #timeZone;
  #recheckMs;
  #entries = new Map();
  #restored = new Map();
  #listeners = new Set();
  #sessions = new Map();
  #lastFired = new Map();
  #usage;
  #battery;
  #timer = null;
  #closed = false;

  /**
   * @param {Object} options
   * @param {function(Object, Fired): *} options.fire Starts a run of the automation
   * @param {{now: function(): number}} [options.clock]
   * @param {function(Object): GithubWatch} [options.github] Makes a GitHub watch from
   *     {repoPath, events, every, clock, onMoment, onProblem}
   * @param {function(Object): FileWatch} [options.watch] Makes a file watch from
   *     {folder, glob, event, clock, onMoment, onProblem}
   * @param {Log} [options.log]
   * @param {string} [options.home] Where "~" in a trigger's folder leads
   * @param {string} [options.timeZone] A named zone for the schedules; the machine's when absent
   * @param {number} [options.recheckMs=RECHECK_MS]
   */
  constructor({
    fire,
    clock = { now: Date.now },
    github = (options) => new GithubWatch(options),
    watch = (options) => new FileWatch(options),
    log = null,
    home = os.homedir(),
    timeZone,
    recheckMs = RECHECK_MS,
  }) {
    this.#fire = fire;
    this.#clock = clock;
    this.#github = github;
    this.#watch = watch;
    this.#log = log;
    this.#home = home;
    this.#timeZone = timeZone;
    this.#recheckMs = recheckMs;
  }

  /**
   * Takes the automations as they stand. A trigger that didn't change keeps
   * its due time and its watch; a changed one starts again.
   *
   * @param {Array<Object>} automations WFAutomation records
   * @param {boolean} paused Nothing fires while paused
   */
  sync(automations, paused) {
    if (this.#closed) return;
    const wanted = new Map();
    for (const automation of Array.isArray(automations) ? automations : []) {
      if (!isObject(automation) || typeof automation.id !== 'string' || !isObject(automation.trigger)) continue;
      if (automation.enabled !== false && !paused) wanted.set(automation.id, automation);
    }
    for (const [id, entry] of this.#entries) {
      const now = wanted.get(id);
      if (now === undefined || JSON.stringify(now.trigger) !== entry.key) this.#drop(id);
    }
    for (const [id, automation] of wanted) {
      const entry = this.#entries.get(id);
      if (entry) entry.automation = automation;
      else this.#begin(automation);
    }
    this.#arm();
  }

  /** @return {number|null} When this automation is next due; null for one that waits for an event. */
  nextAt(id) {
    return this.#entries.get(id)?.dueAt ?? null;
  }

  /** @return {string|null} Why this automation's trigger can't work as it stands. */
  problemOf(id) {
    return this.#entries.get(id)?.problem ?? null;
  }

  /**
   * Listens for changes of an automation's next time or problem.
   *
   * @param {function(string): void} listener Gets the automation's id
   * @return {function(): void} Stops listening
   */
  onChange(listener) {
    this.#listeners.add(listener);
    return () => this.#listeners.delete(listener);
  }

  /**
   * Changes the automation's own runs make to these paths don't fire its
   * file trigger until the given time.
   *
   * @param {string} id
   * @param {Array<string>} paths
   * @param {number} untilMs Epoch ms
   */
  ignore(id, paths, untilMs) {
    this.#entries.get(id)?.watcher?.ignore?.(paths, untilMs);
  }

  /**
   * Fires whatever is due by the clock now, each once however long ago it
   * was due, and sets each one's next time from now.
   */
  check() {
    if (this.#closed) return;
    const now = this.#clock.now();
    for (const [id, entry] of this.#entries) {
      if (entry.dueAt === null) continue;
      const kind = entry.automation.trigger.kind;
      if (entry.dueAt > now) {
        // A clock set back would otherwise hold a moment far off.
        const sooner = kind === 'reset' ? null : this.#next(entry, now);
        if (sooner !== null && sooner < entry.dueAt) this.#setDue(id, entry, sooner);
        continue;
      }
      const dueAt = entry.dueAt;
      const late = now - dueAt > LATE_MS;
      const detail =
        kind === 'reset'
          ? entry.resetDetail
          : late
            ? 'Its time came while the Mac slept or Tidewatch was off'
            : 'Its time came';
      this.#setDue(id, entry, kind === 'reset' ? null : this.#next(entry, now));
      this.#fireNow(entry, { detail, dueAt }, now);
    }
    this.#arm();
  }

  /**
   * One Claude Code hook event, checked; its session's origin is known from
   * what {@link session} was told.
   *
   * @param {Object} event
   */
  hook(event) {
    if (this.#closed || !isObject(event) || typeof event.session_id !== 'string') return;
    const session = this.#sessions.get(event.session_id);
    this.#match('hook', (trigger) => hookMoment(trigger, event, session), { perSession: true });
  }

  /**
   * One session record as it stands now (each time it changes).
   *
   * @param {Object} session A Session record with `id`, `state`, `cwd`, `origin`
   */
  session(session) {
    if (this.#closed || !isObject(session) || typeof session.id !== 'string') return;
    const before = this.#sessions.get(session.id);
    const after = {
      id: session.id,
      state: session.state,
      cwd: session.cwd,
      title: session.title,
      projectName: session.projectName,
      origin: session.origin,
      automation: isObject(session.automation) ? { id: session.automation.id } : undefined,
    };
    this.#sessions.delete(session.id);
    this.#sessions.set(session.id, after);
    if (this.#sessions.size > MAX_SESSIONS_HEARD) this.#sessions.delete(this.#sessions.keys().next().value);
    this.#match('session', (trigger) => sessionMoment(trigger, before, after), { perSession: true });
  }

  /**
   * The usage reading as it stands now (the snapshot's Usage record).
   *
   * @param {Object} usage
   */
  usage(usage) {
    if (this.#closed || !isObject(usage)) return;
    // A reset that passed before this reading is told with the reading it was due by.
    this.check();
    const before = this.#usage;
    this.#usage = usage;
    const now = this.#clock.now();
    this.#match('limit', (trigger) => limitMoment(trigger, before, usage, now));
    for (const [id, entry] of this.#entries) {
      if (entry.automation.trigger.kind === 'reset') this.#planReset(id, entry, now);
    }
    this.#arm();
  }

  /**
   * The battery as it stands now: the snapshot's Battery record
   * ({percent, charging, onAC}), null without a battery.
   *
   * @param {Object|null} battery
   */
  power(battery) {
    if (this.#closed) return;
    const before = this.#battery;
    this.#battery = isObject(battery) ? { percent: battery.percent, onAC: battery.onAC === true } : null;
    this.#match('power', (trigger) => powerMoment(trigger, before, this.#battery));
  }

  /** @return {Object} The due times worth keeping across a restart (JSON data). */
  saved() {
    const due = {};
    for (const [id, entry] of this.#entries) {
      if (entry.dueAt !== null && SCHEDULED_KINDS.includes(entry.automation.trigger.kind)) {
        due[id] = { at: entry.dueAt, trigger: entry.key };
      }
    }
    return { due };
  }

  /**
   * Takes back what {@link saved} gave, before the first {@link sync}: a
   * moment missed while the service was off then fires once.
   */
  restore(saved) {
    if (!isObject(saved) || !isObject(saved.due)) return;
    for (const [id, kept] of Object.entries(saved.due)) {
      if (isObject(kept) && Number.isSafeInteger(kept.at) && typeof kept.trigger === 'string') this.#restored.set(id, kept);
    }
  }

  /** Stops every watch and the timer; nothing fires after it. */
  close() {
    this.#closed = true;
    clearTimeout(this.#timer);
    for (const entry of this.#entries.values()) entry.watcher?.close();
    this.#entries.clear();
  }

  #begin(automation) {
    const { id, trigger } = automation;
    const entry = { automation, key: JSON.stringify(trigger), dueAt: null, problem: null, watcher: null, spent: false };
    this.#entries.set(id, entry);
    const now = this.#clock.now();
    const kind = trigger.kind;
    const kept = this.#restored.get(id);
    this.#restored.delete(id);
    if (SCHEDULED_KINDS.includes(kind)) {
      try {
        entry.dueAt = kept?.trigger === entry.key ? kept.at : nextAt(trigger, now, { timeZone: this.#timeZone });
      } catch (error) {
        entry.problem = error.message;
      }
    } else if (kind === 'reset') {
      this.#planReset(id, entry, now);
    } else if (kind === 'file' || kind === 'github') {
      this.#startWatch(id, entry);
    } else if (!EVENT_KINDS.has(kind)) {
      entry.problem = NOT_A_MOMENT;
    }
    if (entry.dueAt !== null || entry.problem !== null) this.#changed(id);
  }

  #startWatch(id, entry) {
    const trigger = entry.automation.trigger;
    const handlers = {
      clock: this.#clock,
      onMoment: (moment) => this.#fireNow(entry, moment, this.#clock.now()),
      onProblem: (problem) => {
        if (entry.problem === problem || this.#entries.get(id) !== entry) return;
        entry.problem = problem;
        this.#changed(id);
      },
    };
    try {
      entry.watcher =
        trigger.kind === 'file'
          ? this.#watch({ folder: resolvePath(trigger.path, this.#home), glob: trigger.glob ?? null, event: trigger.event, ...handlers })
          : this.#github({ repoPath: resolvePath(trigger.repoPath, this.#home), events: trigger.events, every: trigger.every, ...handlers });
      Promise.resolve(entry.watcher.start()).catch((error) => this.#log?.error(`A ${trigger.kind} watch failed: ${error?.stack ?? error}`));
    } catch (error) {
      handlers.onProblem(error.message);
    }
  }

  #drop(id) {
    const entry = this.#entries.get(id);
    entry.watcher?.close();
    this.#entries.delete(id);
    if (entry.dueAt !== null || entry.problem !== null) this.#changed(id);
  }

  #next(entry, now) {
    try {
      return nextAt(entry.automation.trigger, now, { timeZone: this.#timeZone });
    } catch {
      return null;
    }
  }

  #setDue(id, entry, dueAt) {
    if (entry.dueAt === dueAt) return;
    entry.dueAt = dueAt;
    this.#changed(id);
  }

  #planReset(id, entry, now) {
    const due = resetDue(entry.automation.trigger, this.#usage, now, this.#timeZone);
    entry.resetDetail = due?.detail;
    this.#setDue(id, entry, due?.at ?? null);
  }

  // Offers a moment to every live automation of one kind.
  #match(kind, momentOf, { perSession = false } = {}) {
    const now = this.#clock.now();
    for (const [id, entry] of this.#entries) {
      const trigger = entry.automation.trigger;
      if (trigger.kind !== kind) continue;
      const moment = momentOf({ ...trigger, projectPath: resolvePath(trigger.projectPath, this.#home) });
      if (moment === null) continue;
      if (perSession) {
        const key = `${id}\0${moment.sessionId}`;
        if (now - (this.#lastFired.get(key) ?? -Infinity) < SESSION_EVERY_MS) continue;
        this.#lastFired.set(key, now);
        this.#forgetOldFirings(now);
      }
      this.#fireNow(entry, moment, now);
    }
  }

  #forgetOldFirings(now) {
    if (this.#lastFired.size <= MAX_SESSIONS_HEARD) return;
    for (const [key, at] of this.#lastFired) if (now - at >= SESSION_EVERY_MS) this.#lastFired.delete(key);
  }

  #fireNow(entry, { detail, payload, sessionId, dueAt }, at) {
    const { automation } = entry;
    if (this.#closed || entry.spent || this.#entries.get(automation.id) !== entry) return;
    // One that runs once is finished by its first moment, even before the book says so.
    if (automation.onlyOnce === true) {
      entry.spent = true;
      this.#setDue(automation.id, entry, null);
    }
    const fired = { by: automation.trigger.kind, at, detail };
    if (sessionId !== undefined) fired.sessionId = sessionId;
    if (payload !== undefined) fired.payload = payload.slice(0, MAX_PAYLOAD_CHARS);
    if (dueAt !== undefined) fired.dueAt = dueAt;
    try {
      Promise.resolve(this.#fire(automation, fired)).catch((error) => this.#failedToFire(automation, error));
    } catch (error) {
      this.#failedToFire(automation, error);
    }
  }

  #failedToFire(automation, error) {
    this.#log?.error(`The automation “${automation.name ?? automation.id}” couldn’t start: ${error?.message ?? error}`);
  }

  #changed(id) {
    for (const listener of this.#listeners) listener(id);
  }

  #arm() {
    clearTimeout(this.#timer);
    this.#timer = null;
    if (this.#closed) return;
    let soonest = null;
    for (const entry of this.#entries.values()) {
      if (entry.dueAt !== null && (soonest === null || entry.dueAt < soonest)) soonest = entry.dueAt;
    }
    if (soonest === null) return;
    const wait = Math.min(this.#recheckMs, Math.max(0, soonest - this.#clock.now()));
    this.#timer = setTimeout(() => this.check(), wait);
    this.#timer.unref?.();
  }
}
