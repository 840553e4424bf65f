// The power lock on macOS: a child `caffeinate -i -w <pid>`, and for the
// closed lid `sudo -n pmset -a disablesleep 1`, undone to the value found,
// which is saved first so that it can be undone even after a crash.

import { execFileSync } from 'node:child_process';

import { runTool, TOOL_TIMEOUT_MS } from './holder.js';

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

/** macOS's side of {@link PowerLock}. */
export class MacLock {
  /** caffeinate says nothing when it holds; still running after a moment is the sign. */
  grantedBy = null;
  #lock;
  #pretendLid = false;

  /**
   * @param {Object} lock What the lock shares: `tools`, `env`, `log`,
   *     `note(ask, ok, detail)`, `due(key, now)`, `failed(key, now)`,
   *     `cleared(key)`, `backpack()`, `remember(backpack)`
   */
  constructor(lock) {
    this.#lock = lock;
  }

  get holdTool() {
    return this.#lock.tools.caffeinate;
  }

  holdWhat() {
    return 'idle';
  }

  holdArgs(what, pid) {
    return ['-i', '-w', String(pid)];
  }

  ask() {
    return 'hold idle';
  }

  lidOk() {
    return this.#pretendLid || this.#lock.backpack()?.applied === true;
  }

  async setLid(closedLidHolds, now) {
    if (closedLidHolds) await this.#disableSleep(now);
    else await this.#restoreSleep(now);
  }

  closeNow() {
    const backpack = this.#lock.backpack();
    if (!this.#lock.tools.pmset || backpack?.applied !== true) return;
    if (backpack.prev !== 0 && backpack.prev !== 1) return;
    const [file, args] = this.#pmsetCommand(['-a', 'disablesleep', String(backpack.prev)]);
    try {
      execFileSync(file, args, { timeout: TOOL_TIMEOUT_MS, stdio: 'ignore', env: this.#lock.env });
      this.#lock.remember({ prev: backpack.prev, applied: false });
    } catch {
      // the saved record still says applied; the next start or the app undoes it
    }
  }

  async findOther(ours) {
    const { tools, env } = this.#lock;
    if (!tools.pmset) return null;
    const settings = await runTool(tools.pmset, ['-g'], env);
    const assertions = await runTool(tools.pmset, ['-g', 'assertions'], env);
    const holder = parseAssertions(assertions.ok ? assertions.stdout : null).find(
      (row) => row.type === 'PreventSystemSleep' && row.pid !== ours && row.process !== 'powerd',
    );
    const disabled = parseSleepDisabled(settings.ok ? settings.stdout : null) === 1;
    // Set before Backpack came, or by someone else since: not ours to count.
    const backpack = this.#lock.backpack();
    const ourDoing = backpack?.applied === true && backpack.prev === 0;
    if (disabled && !ourDoing) return { app: holder?.process ?? null };
    return holder ? { app: holder.process } : null;
  }

  async #disableSleep(now) {
    const lock = this.#lock;
    if (!lock.tools.pmset) {
      this.#pretendLid = true;
      return;
    }
    if (lock.backpack()?.applied || !lock.due('lid', now)) return;

    const found = parseSleepDisabled((await runTool(lock.tools.pmset, ['-g'], lock.env)).stdout);
    if (found === null) {
      lock.failed('lid', now);
      lock.note('read SleepDisabled', false, 'pmset -g gave nothing');
      return;
    }
    // Written before the change: should the service die right after it,
    // the next start (or the app's removal) knows what to put back.
    lock.remember({ prev: found, applied: true });
    const done = await runTool(...this.#pmsetCommand(['-a', 'disablesleep', '1']), lock.env);
    lock.note('disablesleep 1', done.ok, done.ok ? undefined : done.output);
    if (done.ok) {
      lock.cleared('lid');
      return;
    }
    lock.remember({ prev: found, applied: false });
    lock.failed('lid', now);
    lock.log?.warn(`Couldn’t keep the machine awake with the lid closed: ${done.output}`);
  }

  async #restoreSleep(now) {
    const lock = this.#lock;
    this.#pretendLid = false;
    const backpack = lock.backpack();
    if (!lock.tools.pmset || backpack?.applied !== true) return;
    // A value pmset never wrote is nothing to put back.
    if (backpack.prev !== 0 && backpack.prev !== 1) {
      lock.remember({ prev: backpack.prev, applied: false });
      return;
    }
    if (!lock.due('restore', now)) return;
    const done = await runTool(...this.#pmsetCommand(['-a', 'disablesleep', String(backpack.prev)]), lock.env);
    lock.note(`disablesleep ${backpack.prev}`, done.ok, done.ok ? undefined : done.output);
    if (done.ok) {
      lock.cleared('restore');
      lock.remember({ prev: backpack.prev, applied: false });
      return;
    }
    lock.failed('restore', now);
    lock.log?.warn(`Couldn’t give SleepDisabled back (${backpack.prev}): ${done.output}`);
  }

  #pmsetCommand(args) {
    const { pmset, sudo } = this.#lock.tools;
    return sudo ? [sudo, ['-n', pmset, ...args]] : [pmset, args];
  }
}
