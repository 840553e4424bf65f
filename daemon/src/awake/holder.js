// A child process that holds something for as long as it runs (an
// inhibitor, caffeinate), and one-shot runs of the tools around it.

import { execFile, spawn } from 'node:child_process';
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

/** A one-shot tool (pmset, the listing) gets this long, in milliseconds. */
export const TOOL_TIMEOUT_MS = 10_000;

/** How long an ended holder gets to go before it is killed outright. */
const END_GRACE_MS = 1000;

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

/** @return {Promise<{ok: boolean, stdout: string, output: string}>} Never rejects; `output` is what to tell of a failure */
export function runTool(file, args, env) {
  return new Promise((resolve) => {
    execFile(file, args, { timeout: TOOL_TIMEOUT_MS, maxBuffer: 1024 * 1024, env }, (error, stdout, stderr) => {
      const output = `${stderr}`.trim() || `${stdout}`.trim() || error?.message || '';
      resolve({ ok: !error, stdout: `${stdout}`, output: output.slice(0, 1000) });
    });
  });
}

/** A child that holds something for as long as it runs, in a process group of its own. */
export class Holder {
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

