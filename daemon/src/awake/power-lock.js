// Keeping the machine awake with the system's own means, and giving it back.
//
// Linux: a logind block inhibitor, held by a child `systemd-inhibit … tail
// --pid=<service> -f /dev/null` and released by ending it (with
// `handle-lid-switch` added while a closed lid must not suspend). Its
// command ends by itself when the service does, however it ends, so that a
// crash never leaves the machine held, as `caffeinate -w` does on macOS. macOS: a child `caffeinate -i -w <pid>`,
// and for the closed lid `sudo -n pmset -a disablesleep 1`, undone to the
// value found, which is saved first so that it can be undone even after a
// crash. A tool that is missing or refuses is a failure the caller reports;
// nothing here throws for it.

import { execFile, execFileSync, spawn } from 'node:child_process';
import { once } from 'node:events';
import fs from 'node:fs';
import { setTimeout as sleep } from 'node:timers/promises';

/**
 * A holder that is still running after this long, in milliseconds, counts
 * as holding: a refused inhibitor or a tool that can't run exits at once.
 */
export const SETTLE_MS = 250;

/**
 * systemd-inhibit starts its command only once logind has granted the lock,
 * so its child is the sign that it holds. It is waited for this long at
 * most; a holder still running then counts as holding all the same.
 */
export const GRANT_LIMIT_MS = 5000;

/** After a failure, the same request is tried again this much later (service time). */
export const RETRY_MS = 30_000;

/** A one-shot tool (pmset, the listing) gets this long, in milliseconds. */
export const TOOL_TIMEOUT_MS = 10_000;

/** How long an ended holder gets to go before it is killed outright. */
const END_GRACE_MS = 1000;

/** Requests kept for /qa, newest last. */
export const MAX_ASKED = 100;

/** What the inhibitor is held for: "--what" as systemd-inhibit takes it. */
export const INHIBIT_WORKING = 'idle:sleep';
export const INHIBIT_BACKPACK = 'idle:sleep:handle-lid-switch';

const WHY_WORKING = 'Agents are working';
const WHY_BACKPACK = 'Backpack mode: agents keep working with the lid closed';

/**
 * The rows of `systemd-inhibit --list`. The table's columns start where
 * their headings start; WHO and WHY may hold blanks.
 *
 * @param {string|null} text
 * @return {Array<{who: string, uid: string, user: string, pid: number, comm: string, what: string, why: string, mode: string}>}
 */
export function parseInhibitorList(text) {
  if (typeof text !== 'string') return [];
  const lines = text.split('\n');
  const head = lines.findIndex((line) => /^\s*WHO\s+UID\s+USER\s+PID\s+COMM\s+WHAT\s+WHY\s+MODE\s*$/.test(line));
  if (head < 0) return [];
  const names = ['WHO', 'UID', 'USER', 'PID', 'COMM', 'WHAT', 'WHY', 'MODE'];
  const starts = [];
  for (const name of names) starts.push(lines[head].indexOf(name, starts.at(-1) ?? 0));
  const rows = [];
  for (const line of lines.slice(head + 1)) {
    if (line.trim() === '') break;
    const cells = starts.map((start, i) => line.slice(start, starts[i + 1]).trim());
    const [who, uid, user, pid, comm, what, why, mode] = cells;
    if (!/^\d+$/.test(pid)) continue;
    rows.push({ who, uid, user, pid: Number(pid), comm, what, why, mode });
  }
  return rows;
}

/**
 * SleepDisabled from `pmset -g`: 1 or 0; a listing without the line is 0.
 *
 * @param {string|null} text
 * @return {number|null} Null when there is no listing at all
 */
export function parseSleepDisabled(text) {
  if (typeof text !== 'string' || text.trim() === '') return null;
  const match = /^\s*SleepDisabled\s+(\d+)\s*$/m.exec(text);
  return match ? Number(match[1]) : 0;
}

/**
 * The assertions by owning process in `pmset -g assertions`.
 *
 * @param {string|null} text
 * @return {Array<{pid: number, process: string, type: string, name: string}>}
 */
export function parseAssertions(text) {
  if (typeof text !== 'string') return [];
  const rows = [];
  const pattern = /^\s*pid (\d+)\(([^)]*)\):\s*\[[^\]]*\]\s*\S+\s+(\w+)\s+named:\s*"(.*)"/;
  for (const line of text.split('\n')) {
    const match = pattern.exec(line);
    if (match) rows.push({ pid: Number(match[1]), process: match[2], type: match[3], name: match[4] });
  }
  return rows;
}

/**
 * Whether a process has a child running this program, from /proc: the
 * kernel's list of children where it keeps one, else every process's parent.
 *
 * @param {number} pid
 * @param {string} command The child's program name, as /proc's `comm` gives it
 * @param {string} [proc='/proc']
 */
export function hasChild(pid, command, proc = '/proc') {
  const read = (file) => {
    try {
      return fs.readFileSync(file, 'utf8');
    } catch {
      return null;
    }
  };
  const runs = (child) => read(`${proc}/${child}/comm`)?.trim() === command;
  const listed = read(`${proc}/${pid}/task/${pid}/children`);
  if (listed !== null) return listed.split(/\s+/).filter(Boolean).some(runs);
  return fs
    .readdirSync(proc)
    .filter((entry) => /^\d+$/.test(entry))
    .some((child) => {
      const stat = read(`${proc}/${child}/stat`);
      return stat !== null && Number(stat.slice(stat.lastIndexOf(')') + 2).split(' ')[1]) === pid && runs(child);
    });
}

function runTool(file, args, env) {
  return new Promise((resolve) => {
    execFile(file, args, { timeout: TOOL_TIMEOUT_MS, maxBuffer: 1024 * 1024, env }, (error, stdout, stderr) => {
      const output = `${stderr}`.trim() || `${stdout}`.trim() || error?.message || '';
      resolve({ ok: !error, stdout: `${stdout}`, output: output.slice(0, 1000) });
    });
  });
}

/** A child that holds something for as long as it runs, in a process group of its own. */
class Holder {
  /**
   * @param {string} file
   * @param {Array<string>} args
   * @param {Object} env
   * @param {function(Holder): void} onLost Called when it ends without being asked
   * @param {string|null} [grantedBy=null] It holds once it runs a child of
   *     this program (see {@link GRANT_LIMIT_MS}), rather than after {@link SETTLE_MS}
   * @return {Promise<Holder>} Whether it holds is `alive`
   */
  static async start(file, args, env, onLost, grantedBy = null) {
    const holder = new Holder();
    // A group of its own, so that ending it ends what it started too: a
    // killed systemd-inhibit leaves its command running otherwise.
    const child = spawn(file, args, { detached: true, stdio: ['ignore', 'ignore', 'pipe'], env });
    holder.child = child;
    holder.stderr = '';
    holder.exited = new Promise((resolve) => child.once('close', resolve));
    child.stderr.setEncoding('utf8');
    child.stderr.on('data', (chunk) => {
      if (holder.stderr.length < 1000) holder.stderr += chunk;
    });
    child.on('error', (error) => {
      holder.stderr ||= error.message;
      // A tool that never started has no exit, only this.
      if (child.pid === undefined) holder.alive = false;
    });
    holder.alive = true;
    holder.wanted = true;
    child.once('exit', () => {
      holder.alive = false;
      if (holder.wanted && holder.settled) onLost(holder);
    });
    const granted = async () => {
      await once(child, 'spawn');
      if (grantedBy === null) return sleep(SETTLE_MS);
      const deadline = Date.now() + GRANT_LIMIT_MS;
      while (holder.alive && !hasChild(child.pid, grantedBy) && Date.now() < deadline) await sleep(20);
    };
    await Promise.race([granted(), holder.exited]).catch(() => {});
    holder.settled = true;
    // Its complaint is whole only once its output has closed.
    if (!holder.alive) await holder.exited;
    return holder;
  }

  get pid() {
    return this.child.pid;
  }

  /** Ends the whole group; resolves once the leader is gone. */
  async end() {
    this.wanted = false;
    if (this.child.pid === undefined) return;
    this.#signal('SIGTERM');
    const gone = await Promise.race([this.exited.then(() => true), sleep(END_GRACE_MS).then(() => false)]);
    if (!gone) this.#signal('SIGKILL');
    await this.exited;
    // What the leader started may outlive it by a moment.
    this.#signal('SIGKILL');
  }

  /** For the process's last moments, when nothing can be awaited. */
  killNow() {
    this.wanted = false;
    if (this.child.pid !== undefined) this.#signal('SIGKILL');
  }

  #signal(signal) {
    try {
      process.kill(-this.child.pid, signal);
    } catch {
      // the group is gone already
    }
  }
}

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
  #tools;
  #env;
  #pid;
  #log;
  #save;
  #onLost;
  #idle;
  #pretendIdle;
  #failures;
  #backpack;
  #pretendLid;
  #lastNow;
  #asked;
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
    this.#idle = null;
    this.#pretendIdle = null;
    this.#pretendLid = false;
    this.#failures = new Map();
    this.#lastNow = 0;
    this.#asked = [];
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
    const what = this.#pretendIdle ?? this.#idle?.what;
    let lidOk;
    if (this.#platform === 'linux') lidOk = holding && what === INHIBIT_BACKPACK;
    else lidOk = this.#pretendLid || this.#backpack?.applied === true;
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
    if (this.#platform === 'linux') {
      await this.#hold(hold ? (lid ? INHIBIT_BACKPACK : INHIBIT_WORKING) : null, now);
    } else if (this.#platform === 'darwin') {
      await this.#hold(hold ? 'idle' : null, now);
      if (hold && lid) await this.#disableSleep(now);
      else await this.#restoreSleep(now);
    }
    return this.state;
  }

  /**
   * Another program that keeps the machine from sleeping, best effort.
   *
   * @return {Promise<{app: (string|null)}|null>}
   */
  async findOther() {
    const ours = this.#idle?.holder.alive ? this.#idle.holder.pid : null;
    if (this.#platform === 'linux' && this.#tools.systemdInhibit) {
      const listing = await runTool(this.#tools.systemdInhibit, ['--list'], this.#env);
      const other = parseInhibitorList(listing.ok ? listing.stdout : null).find(
        (row) => row.mode === 'block' && row.what.split(':').includes('sleep') && row.pid !== ours,
      );
      return other ? { app: other.who || other.comm || null } : null;
    }
    if (this.#platform === 'darwin' && this.#tools.pmset) {
      const settings = await runTool(this.#tools.pmset, ['-g'], this.#env);
      const assertions = await runTool(this.#tools.pmset, ['-g', 'assertions'], this.#env);
      const holder = parseAssertions(assertions.ok ? assertions.stdout : null).find(
        (row) => row.type === 'PreventSystemSleep' && row.pid !== ours && row.process !== 'powerd',
      );
      const disabled = parseSleepDisabled(settings.ok ? settings.stdout : null) === 1;
      // Set before Backpack came, or by someone else since: not ours to count.
      const ourDoing = this.#backpack?.applied === true && this.#backpack.prev === 0;
      if (disabled && !ourDoing) return { app: holder?.process ?? null };
      return holder ? { app: holder.process } : null;
    }
    return null;
  }

  /** Gives everything back. */
  async close() {
    process.off('exit', this.#exitHook);
    await this.#hold(null, this.#lastNow);
    await this.#restoreSleep(this.#lastNow);
  }

  /**
   * Gives everything back at once, for a process that is exiting: holders
   * are killed and SleepDisabled is restored synchronously.
   */
  closeNow() {
    this.#idle?.holder.killNow();
    this.#idle = null;
    const backpack = this.#backpack;
    if (this.#platform !== 'darwin' || !this.#tools.pmset || backpack?.applied !== true) return;
    if (backpack.prev !== 0 && backpack.prev !== 1) return;
    const [file, args] = this.#pmsetCommand(['-a', 'disablesleep', String(backpack.prev)]);
    try {
      execFileSync(file, args, { timeout: TOOL_TIMEOUT_MS, stdio: 'ignore', env: this.#env });
      this.#remember({ prev: backpack.prev, applied: false });
    } catch {
      // the saved record still says applied; the next start or the app undoes it
    }
  }

  // Holds the idle lock as `what` (null lets go). On Linux `what` is the
  // inhibitor's --what, so moving to or from the lid takes a new holder,
  // started before the old one ends so that there is no gap.
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

    const linux = this.#platform === 'linux';
    const tool = linux ? this.#tools.systemdInhibit : this.#tools.caffeinate;
    if (!tool) {
      this.#pretendIdle = what;
      return;
    }
    const failedAt = this.#failures.get('hold');
    if (failedAt !== undefined && now - failedAt < RETRY_MS && now >= failedAt) return;

    const args = linux
      ? [
          `--what=${what}`,
          '--who=Tidewatch',
          `--why=${what === INHIBIT_BACKPACK ? WHY_BACKPACK : WHY_WORKING}`,
          '--mode=block',
          'tail',
          `--pid=${this.#pid}`,
          '-f',
          '/dev/null',
        ]
      : ['-i', '-w', String(this.#pid)];
    const holder = await Holder.start(tool, args, this.#env, (lost) => this.#lost(lost), linux ? 'tail' : null);
    const ask = linux ? `hold ${what}` : 'hold idle';
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

  async #disableSleep(now) {
    if (!this.#tools.pmset) {
      this.#pretendLid = true;
      return;
    }
    if (this.#backpack?.applied) return;
    const failedAt = this.#failures.get('lid');
    if (failedAt !== undefined && now - failedAt < RETRY_MS && now >= failedAt) return;

    const found = parseSleepDisabled((await runTool(this.#tools.pmset, ['-g'], this.#env)).stdout);
    if (found === null) {
      this.#failures.set('lid', now);
      this.#note('read SleepDisabled', false, 'pmset -g gave nothing');
      return;
    }
    // Written before the change: should the service die right after it,
    // the next start (or the app's removal) knows what to put back.
    this.#remember({ prev: found, applied: true });
    const done = await runTool(...this.#pmsetCommand(['-a', 'disablesleep', '1']), this.#env);
    this.#note('disablesleep 1', done.ok, done.ok ? undefined : done.output);
    if (done.ok) {
      this.#failures.delete('lid');
      return;
    }
    this.#remember({ prev: found, applied: false });
    this.#failures.set('lid', now);
    this.#log?.warn(`Couldn’t keep the machine awake with the lid closed: ${done.output}`);
  }

  async #restoreSleep(now) {
    this.#pretendLid = false;
    const backpack = this.#backpack;
    if (!this.#tools.pmset || backpack?.applied !== true) return;
    // A value pmset never wrote is nothing to put back.
    if (backpack.prev !== 0 && backpack.prev !== 1) {
      this.#remember({ prev: backpack.prev, applied: false });
      return;
    }
    const failedAt = this.#failures.get('restore');
    if (failedAt !== undefined && now - failedAt < RETRY_MS && now >= failedAt) return;
    const done = await runTool(...this.#pmsetCommand(['-a', 'disablesleep', String(backpack.prev)]), this.#env);
    this.#note(`disablesleep ${backpack.prev}`, done.ok, done.ok ? undefined : done.output);
    if (done.ok) {
      this.#failures.delete('restore');
      this.#remember({ prev: backpack.prev, applied: false });
      return;
    }
    this.#failures.set('restore', now);
    this.#log?.warn(`Couldn’t give SleepDisabled back (${backpack.prev}): ${done.output}`);
  }

  #pmsetCommand(args) {
    const { pmset, sudo } = this.#tools;
    return sudo ? [sudo, ['-n', pmset, ...args]] : [pmset, args];
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
