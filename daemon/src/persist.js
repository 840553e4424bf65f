// Keeping the state that matters across a restart: the sessions, the
// approvals still waiting, the last usage readings and where each agent's
// files were read to. One private file in the support folder, replaced in
// one step a moment after each change, so a burst of changes costs one
// write. Ended sessions are dropped a day after they last did anything.

import fs from 'node:fs';
import path from 'node:path';

import { writeFileAtomically } from './private-files.js';
import { isObject } from './json.js';

/** The file in the support folder. */
export const STATE_FILE = 'state.json';

/** The layout of the file; another one is not read. */
export const STATE_FORMAT = 1;

/** A change is written this long after it, unless another comes first, in milliseconds. */
export const SAVE_DELAY_MS = 500;

/** A stream of changes is still written at least this often, in milliseconds. */
export const SAVE_MAX_DELAY_MS = 5000;

/** An ended session stays this long after its last activity, in milliseconds (a day). */
export const ENDED_KEPT_MS = 24 * 60 * 60 * 1000;

/** How often ended sessions are looked over, in milliseconds. */
export const SWEEP_EVERY_MS = 10 * 60 * 1000;

/** A larger file is not read: it can't be one this service wrote. */
export const MAX_STATE_FILE_BYTES = 64 * 1024 * 1024;

/** The snapshot parts whose changes are worth a write. */
const KEPT_PARTS = ['sessions', 'approvals', 'usage', 'codex'];

/**
 * Reads a date as the service's records carry them: epoch seconds, epoch
 * milliseconds (above 1e11) or ISO 8601.
 *
 * @return {number|null} Epoch milliseconds
 */
export function dateMs(value) {
  if (typeof value === 'number' && Number.isFinite(value) && value > 0) return value > 1e11 ? value : value * 1000;
  if (typeof value === 'string' && value.trim() !== '') {
    const ms = Date.parse(value);
    if (Number.isFinite(ms)) return ms;
    const number = Number(value);
    if (Number.isFinite(number) && number > 0) return number > 1e11 ? number : number * 1000;
  }
  return null;
}

/**
 * The ids of ended sessions whose day is over.
 *
 * @param {*} sessions The snapshot's sessions
 * @param {number} now Epoch ms
 * @param {Map<string, number>} endedSeen When each ended session without a
 *     date of its own was first seen ended; updated in place
 * @param {number} [keptMs=ENDED_KEPT_MS]
 * @return {Array<string>}
 */
export function expiredSessions(sessions, now, endedSeen, keptMs = ENDED_KEPT_MS) {
  if (!Array.isArray(sessions)) return [];
  const expired = [];
  const present = new Set();
  for (const session of sessions) {
    if (!isObject(session) || typeof session.id !== 'string' || session.state !== 'ended') continue;
    present.add(session.id);
    let since = dateMs(session.lastActivityAt) ?? dateMs(session.createdAt);
    if (since === null) {
      if (!endedSeen.has(session.id)) endedSeen.set(session.id, now);
      since = endedSeen.get(session.id);
    }
    if (now - since >= keptMs) expired.push(session.id);
  }
  for (const id of endedSeen.keys()) if (!present.has(id)) endedSeen.delete(id);
  return expired;
}

/**
 * Saves the state a moment after it changes, restores it at start, and
 * drops ended sessions after their day.
 */
export class StatePersister {
  #file;
  #state;
  #log;
  #now;
  #saveDelayMs;
  #saveMaxDelayMs;
  #sweepEveryMs;
  #sections = new Map();
  #loadedSections = {};
  #endedSeen = new Map();
  #dirtySince = null;
  #saveTimer = null;
  #sweepTimer = null;
  #running = false;
  #onChange;

  /**
   * @param {Object} options
   * @param {string} options.support The support folder
   * @param {ServiceState} options.state
   * @param {Log} [options.log]
   * @param {function(): number} [options.now=Date.now]
   * @param {number} [options.saveDelayMs=SAVE_DELAY_MS]
   * @param {number} [options.saveMaxDelayMs=SAVE_MAX_DELAY_MS]
   * @param {number} [options.sweepEveryMs=SWEEP_EVERY_MS]
   */
  constructor({
    support,
    state,
    log = null,
    now = Date.now,
    saveDelayMs = SAVE_DELAY_MS,
    saveMaxDelayMs = SAVE_MAX_DELAY_MS,
    sweepEveryMs = SWEEP_EVERY_MS,
  }) {
    this.#file = path.join(support, STATE_FILE);
    this.#state = state;
    this.#log = log;
    this.#now = now;
    this.#saveDelayMs = saveDelayMs;
    this.#saveMaxDelayMs = saveMaxDelayMs;
    this.#sweepEveryMs = sweepEveryMs;
    this.#onChange = (change) => {
      if (change.whole || change.snapshot.some((part) => KEPT_PARTS.includes(part))) this.markDirty();
    };
  }

  /** @return {string} The file it writes. */
  get file() {
    return this.#file;
  }

  /**
   * Reads the file, if there is one, into the state. A file that can't be
   * read, isn't JSON or isn't of this layout is set aside beside itself
   * (".broken"), said in the log, and the state starts fresh.
   *
   * @return {boolean} Whether anything was restored
   */
  load() {
    let text;
    try {
      const stat = fs.statSync(this.#file);
      if (stat.size > MAX_STATE_FILE_BYTES) throw new Error(`it is larger than ${MAX_STATE_FILE_BYTES} bytes`);
      text = fs.readFileSync(this.#file, 'utf8');
    } catch (error) {
      if (error.code === 'ENOENT') return false;
      this.#setAside(error.message);
      return false;
    }
    let saved;
    try {
      saved = JSON.parse(text);
    } catch {
      this.#setAside('it isn’t JSON');
      return false;
    }
    if (!isObject(saved) || saved.format !== STATE_FORMAT || !isObject(saved.state)) {
      this.#setAside('it isn’t of a layout this service reads');
      return false;
    }
    this.#state.restore(saved.state);
    this.#loadedSections = isObject(saved.sections) ? saved.sections : {};
    return true;
  }

  /**
   * Adds a part of the file kept by someone else, such as where an agent's
   * files were read to. What the file held for it is handed over at once.
   *
   * @param {string} name
   * @param {Object} section
   * @param {function(): *} section.save Gives the value to keep (JSON data)
   * @param {function(*): void} [section.restore] Gets the value kept
   */
  addSection(name, { save, restore }) {
    this.#sections.set(name, save);
    if (restore && Object.hasOwn(this.#loadedSections, name)) restore(this.#loadedSections[name]);
  }

  /** Starts following the state's changes and the sweep; drops what is due now. */
  start() {
    if (this.#running) return;
    this.#running = true;
    this.#state.on('change', this.#onChange);
    this.sweep();
    this.#sweepTimer = setInterval(() => this.sweep(), this.#sweepEveryMs);
    this.#sweepTimer.unref?.();
  }

  /** Stops, and writes what hasn't been written yet. */
  close() {
    if (!this.#running) return;
    this.#running = false;
    this.#state.off('change', this.#onChange);
    clearInterval(this.#sweepTimer);
    this.#sweepTimer = null;
    this.flush();
  }

  /** Asks for a write soon: something worth keeping changed. */
  markDirty() {
    if (!this.#running) return;
    const now = this.#now();
    this.#dirtySince ??= now;
    clearTimeout(this.#saveTimer);
    // Never later than the longest wait after the first unsaved change.
    const wait = Math.max(0, Math.min(this.#saveDelayMs, this.#dirtySince + this.#saveMaxDelayMs - now));
    this.#saveTimer = setTimeout(() => this.flush(), wait);
    this.#saveTimer.unref?.();
  }

  /** Writes now, when something is waiting to be written. */
  flush() {
    clearTimeout(this.#saveTimer);
    this.#saveTimer = null;
    if (this.#dirtySince === null) return;
    this.#dirtySince = null;
    this.save();
  }

  /** Writes the file now. A failure is said in the log; the service carries on. */
  save() {
    const sections = {};
    for (const [name, save] of this.#sections) sections[name] = save();
    const saved = { format: STATE_FORMAT, savedAt: this.#now(), state: this.#state.serialize(), sections };
    try {
      writeFileAtomically(this.#file, JSON.stringify(saved));
    } catch (error) {
      this.#log?.warn(`Couldn’t keep the state in ${this.#file} (${error.code ?? error.message}).`);
    }
  }

  /**
   * Drops the ended sessions whose day is over.
   *
   * @return {Array<string>} The ids dropped
   */
  sweep() {
    const expired = expiredSessions(this.#state.part('sessions'), this.#now(), this.#endedSeen);
    for (const id of expired) this.#state.removeSession(id);
    if (expired.length > 0) this.#log?.info(`Dropped ${expired.length} session(s) that ended more than a day ago.`);
    return expired;
  }

  #setAside(why) {
    const aside = `${this.#file}.broken`;
    try {
      fs.renameSync(this.#file, aside);
    } catch {
      // It stays where it is, and is replaced at the next write.
    }
    this.#log?.warn(
      `Started without the kept state: ${path.basename(this.#file)} couldn’t be read (${why}); ` +
        `it is now ${path.basename(aside)}.`,
    );
  }
}
