// The power lock on Linux: a logind block inhibitor, held by a child
// `systemd-inhibit … tail --pid=<service> -f /dev/null` and released by ending
// it, with `handle-lid-switch` added while a closed lid must not suspend. Its
// command ends by itself when the service does, however it ends, so that a
// crash never leaves the machine held.

import { runTool } from './holder.js';

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

/** Linux's side of {@link PowerLock}. */
export class LinuxLock {
  /** systemd-inhibit runs its command only once logind granted the lock. */
  grantedBy = 'tail';
  #tools;
  #env;

  /** @param {{tools: Object, env: Object}} lock The lock's tools and their environment */
  constructor({ tools, env }) {
    this.#tools = tools;
    this.#env = env;
  }

  get holdTool() {
    return this.#tools.systemdInhibit;
  }

  // The lid is part of what the inhibitor holds, so moving to or from it takes a new holder.
  holdWhat(lid) {
    return lid ? INHIBIT_BACKPACK : INHIBIT_WORKING;
  }

  holdArgs(what, pid) {
    const why = what === INHIBIT_BACKPACK ? WHY_BACKPACK : WHY_WORKING;
    return [`--what=${what}`, '--who=Tidewatch', `--why=${why}`, '--mode=block', 'tail', `--pid=${pid}`, '-f', '/dev/null'];
  }

  ask(what) {
    return `hold ${what}`;
  }

  lidOk(holding, what) {
    return holding && what === INHIBIT_BACKPACK;
  }

  async setLid() {}

  closeNow() {}

  async findOther(ours) {
    if (!this.#tools.systemdInhibit) return null;
    const listing = await runTool(this.#tools.systemdInhibit, ['--list'], this.#env);
    const other = parseInhibitorList(listing.ok ? listing.stdout : null).find(
      (row) => row.mode === 'block' && row.what.split(':').includes('sleep') && row.pid !== ours,
    );
    return other ? { app: other.who || other.comm || null } : null;
  }
}
