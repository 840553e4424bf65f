// Keeping the machine awake with the system's own means, and giving it back:
// one lock whose holder and closed-lid handling come from the side for this
// system (power-lock-linux.js, power-lock-mac.js), chosen once. A tool that
// is missing or refuses is a failure the caller reports; nothing here throws
// for it.

import { Holder } from './holder.js';
import { LinuxLock } from './power-lock-linux.js';
import { MacLock } from './power-lock-mac.js';

/** After a failure, the same request is tried again this much later (service time). */
export const RETRY_MS = 30_000;

/** Requests kept for /qa, newest last. */
export const MAX_ASKED = 100;

/** Any other system: nothing is held, and nothing is asked of it. */
class NoLock {
  #lock;

  constructor(lock) {
    this.#lock = lock;
  }

  lidOk() {
    return this.#lock.backpack()?.applied === true;
  }

  async setLid() {}

  closeNow() {}

  async findOther() {
    return null;
  }
}

const SIDES = { linux: LinuxLock, darwin: MacLock };

/**
 * @typedef {Object} LockState
 * @property {boolean} holding The machine is kept from sleeping
 * @property {boolean} lidOk A closed lid doesn't put it to sleep
 * @property {number|null} retryAt When a failed request is due again (service time)
 */

/**
 * The power lock. A null tool is pretended: its part counts as done and
 * nothing runs, which is how a test copy behaves unless tools are named.
 */
export class PowerLock {
  #platform;
  #side;
  #tools;
  #env;
  #pid;
  #log;
  #save;
  #onLost;
  #idle = null;
  #pretendIdle = null;
  #failures = new Map();
  #backpack;
  #lastNow = 0;
  #asked = [];
  #exitHook;

  /**
   * @param {Object} options
   * @param {string} options.platform "linux" or "darwin"; any other holds nothing
   * @param {Object} [options.tools]
   * @param {string|null} [options.tools.systemdInhibit] Linux
   * @param {string|null} [options.tools.caffeinate] macOS
   * @param {string|null} [options.tools.pmset] macOS, for disablesleep
   * @param {string|null} [options.tools.sudo] macOS: pmset runs through
   *     `sudo -n` with this; null runs pmset itself (a scratch stand-in)
   * @param {{prev: number, applied: boolean}|null} [options.backpack] What the
   *     saved state says Backpack found and did
   * @param {function({prev: number, applied: boolean}): void} [options.save]
   *     Keeps that record; called before pmset is asked to change anything
   * @param {function(): void} [options.onLost] A holder ended by itself
   * @param {Log} [options.log]
   * @param {Object} [options.env=process.env] The tools' environment
   * @param {number} [options.pid=process.pid] The process whose end ends the holders
   */
  constructor({
    platform,
    tools = {},
    backpack = null,
    save = () => {},
    onLost = () => {},
    log,
    env = process.env,
    pid = process.pid,
  }) {
    this.#platform = platform;
    this.#tools = { systemdInhibit: null, caffeinate: null, pmset: null, sudo: null, ...tools };
    this.#backpack = backpack;
    this.#save = save;
    this.#onLost = onLost;
    this.#log = log;
    this.#env = env;
    this.#pid = pid;
    const Side = Object.hasOwn(SIDES, platform) ? SIDES[platform] : NoLock;
    this.#side = new Side({
      tools: this.#tools,
      env,
      log,
      note: (ask, ok, detail) => this.#note(ask, ok, detail),
      due: (key, now) => this.#due(key, now),
      failed: (key, now) => this.#failures.set(key, now),
      cleared: (key) => this.#failures.delete(key),
      backpack: () => this.#backpack,
      remember: (record) => this.#remember(record),
    });
    this.#exitHook = () => this.closeNow();
    process.on('exit', this.#exitHook);
  }

  /** @return {{prev: number, applied: boolean}|null} */
  get backpack() {
    return this.#backpack === null ? null : { ...this.#backpack };
  }

  /** @return {Array<Object>} What the lock was asked lately, oldest first: {at, ask, ok, detail?} */
  get asked() {
    return this.#asked.map((entry) => ({ ...entry }));
  }

  /** @return {Object} The tools in use (paths, or null where pretended). */
  get tools() {
    return { platform: this.#platform, ...this.#tools };
  }

  /** @return {LockState} */
  get state() {
    const holding = this.#pretendIdle !== null || this.#idle?.holder.alive === true;
    const lidOk = this.#side.lidOk(holding, this.#pretendIdle ?? this.#idle?.what);
    const due = [...this.#failures.values()].map((at) => at + RETRY_MS);
    return { holding, lidOk, retryAt: due.length > 0 ? Math.min(...due) : null };
  }

  /**
   * Brings the lock to what is wanted. Never throws; what couldn't be done
   * shows in the state.
   *
   * @param {Object} want
   * @param {boolean} want.hold
   * @param {boolean} want.lid
   * @param {number} want.now Service time, which paces the retries
   * @return {Promise<LockState>}
   */
  async apply({ hold, lid, now }) {
    this.#lastNow = now;
    if (this.#side instanceof NoLock) return this.state;
    await this.#hold(hold ? this.#side.holdWhat(lid) : null, now);
    await this.#side.setLid(hold && lid, now);
    return this.state;
  }

  /**
   * Another program that keeps the machine from sleeping, best effort.
   *
   * @return {Promise<{app: (string|null)}|null>}
   */
  findOther() {
    return this.#side.findOther(this.#idle?.holder.alive ? this.#idle.holder.pid : null);
  }

  /** Gives everything back. */
  async close() {
    process.off('exit', this.#exitHook);
    await this.#hold(null, this.#lastNow);
    await this.#side.setLid(false, this.#lastNow);
  }

  /**
   * Gives everything back at once, for a process that is exiting: holders
   * are killed and SleepDisabled is restored synchronously.
   */
  closeNow() {
    this.#idle?.holder.killNow();
    this.#idle = null;
    this.#side.closeNow();
  }

  // Holds the idle lock as `what` (null lets go); a new holder starts before
  // the old one ends, so that there is no gap.
  async #hold(what, now) {
    const current = this.#idle;
    if (what === null) {
      this.#pretendIdle = null;
      this.#failures.delete('hold');
      if (current) {
        this.#idle = null;
        await current.holder.end();
        this.#note('release', true);
      }
      return;
    }
    if (current?.what === what && current.holder.alive) return;

    const tool = this.#side.holdTool;
    if (!tool) {
      this.#pretendIdle = what;
      return;
    }
    if (!this.#due('hold', now)) return;

    const args = this.#side.holdArgs(what, this.#pid);
    const holder = await Holder.start(tool, args, this.#env, (lost) => this.#lost(lost), this.#side.grantedBy);
    const ask = this.#side.ask(what);
    if (!holder.alive) {
      this.#failures.set('hold', now);
      const detail = holder.stderr.trim() || 'it ended at once';
      this.#note(ask, false, detail);
      this.#log?.warn(`Couldn’t keep the machine awake: ${detail}`);
      return;
    }
    this.#failures.delete('hold');
    this.#idle = { what, holder };
    this.#note(ask, true);
    if (current) await current.holder.end();
  }

  #lost(holder) {
    if (this.#idle?.holder !== holder) return;
    this.#idle = null;
    this.#failures.set('hold', this.#lastNow);
    const detail = holder.stderr.trim() || 'it ended by itself';
    this.#note('lost', false, detail);
    this.#log?.warn(`The awake lock ended by itself: ${detail}`);
    holder.end().catch(() => {});
    this.#onLost();
  }

  // A request that failed lately waits out RETRY_MS; a clock set back doesn't hold it up.
  #due(key, now) {
    const failedAt = this.#failures.get(key);
    return failedAt === undefined || now - failedAt >= RETRY_MS || now < failedAt;
  }

  #remember(backpack) {
    this.#backpack = backpack;
    try {
      this.#save({ ...backpack });
    } catch (error) {
      this.#log?.error(`Couldn’t save the awake state: ${error.message}`);
    }
  }

  #note(ask, ok, detail) {
    const entry = { at: Date.now(), ask, ok };
    if (detail !== undefined) entry.detail = detail;
    this.#asked.push(entry);
    if (this.#asked.length > MAX_ASKED) this.#asked.shift();
  }
}
