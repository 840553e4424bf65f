// Codex as the service sees it: the program (found, its version, too old or
// not), its sessions from its own session files, and its rate-limit windows
// from the token counts in them. It writes the `codex` record and the Codex
// sessions into the state, and follows the files only while the user has
// Codex switched on.

import fs from 'node:fs';
import os from 'node:os';
import path from 'node:path';

import { binaryFields, findCodex, MIN_CODEX_VERSION, readCodexVersion, usualFolders } from './codex-binary.js';
import { RolloutWatcher } from './rollout-watcher.js';
import { isObject } from '../json.js';

/** How often the program is looked for again, in milliseconds. */
export const DETECT_EVERY_MS = 5 * 60 * 1000;

/** How often a limit is checked for having reset without a new reading, in milliseconds. */
const TICK_MS = 60 * 1000;

/** The fields of the `codex` record in the order they are sent; others follow. */
const CODEX_KEYS = ['available', 'enabled', 'connected', 'version', 'min', 'path', 'problem', 'account', 'usage'];

/** The fields this agent writes; it leaves every other one as it finds it. */
const OWN_FIELDS = ['available', 'connected', 'version', 'min', 'path', 'problem', 'usage'];

function ordered(record) {
  const entries = [];
  for (const key of CODEX_KEYS) if (record[key] !== undefined) entries.push([key, record[key]]);
  for (const [key, value] of Object.entries(record)) {
    if (!CODEX_KEYS.includes(key) && value !== undefined) entries.push([key, value]);
  }
  return Object.fromEntries(entries);
}

/** Whether a reading's windows have all reset since, so a limit it showed is over. */
function limitOver(reading, now) {
  const windows = [reading.fiveHour, reading.sevenDay].filter((window) => window && window.pct >= 100);
  return windows.length > 0 && windows.every((window) => typeof window.resetsAt === 'number' && window.resetsAt <= now);
}

export class CodexAgent {
  #state;
  #log;
  #now;
  #named;
  #searchPath;
  #folders;
  #versionTimeoutMs;
  #detectEveryMs;
  #onProgress;
  #watcher;
  #binary = { path: null, version: null, mtimeMs: null, size: null };
  #written = {};
  #usage = null;
  #enabled = false;
  #detecting = null;
  #detectedAt = -Infinity;
  #tick = null;
  #closed = false;
  #onChange;

  /**
   * @param {Object} options
   * @param {ServiceState} options.state
   * @param {Log} [options.log]
   * @param {string|null} options.home Codex's home folder (where `sessions`
   *     is); null follows no files at all
   * @param {string|null} [options.named] The `codex` program to use, chosen
   *     by configuration; otherwise it is looked for
   * @param {Array<string>} [options.searchPath] Folders to look in first
   *     (PATH's, by default)
   * @param {Array<string>|null} [options.folders] The usual folders, after
   *     them; null for those of {@link usualFolders}
   * @param {string} [options.userHome=os.homedir()] Where the usual folders are
   * @param {function(): number} [options.now=Date.now]
   * @param {number} [options.versionTimeoutMs]
   * @param {number} [options.detectEveryMs=DETECT_EVERY_MS]
   * @param {function(): void} [options.onProgress] Called when what is worth
   *     keeping across a restart moved on (a file was read further)
   * @param {Object} [options.watch] Timing and limits for {@link RolloutWatcher}
   */
  constructor({
    state,
    log = null,
    home,
    named = null,
    searchPath = (process.env.PATH ?? '').split(path.delimiter),
    folders = null,
    userHome = os.homedir(),
    now = Date.now,
    versionTimeoutMs,
    detectEveryMs = DETECT_EVERY_MS,
    onProgress = () => {},
    watch = {},
  }) {
    this.#state = state;
    this.#log = log;
    this.#now = now;
    this.#named = named;
    this.#searchPath = searchPath;
    // Looked at anew each time: an nvm folder may come later.
    this.#folders = folders ?? (() => usualFolders(userHome));
    this.#versionTimeoutMs = versionTimeoutMs;
    this.#detectEveryMs = detectEveryMs;
    this.#onProgress = onProgress;
    this.#watcher =
      home === null
        ? null
        : new RolloutWatcher({
            root: path.join(home, 'sessions'),
            now,
            log,
            onSession: (record) => this.#putSession(record),
            onReading: (reading) => this.#takeReading(reading),
            onProgress: () => this.#onProgress(),
            ...watch,
          });
    this.#onChange = (change) => this.#stateChanged(change);
  }

  /** What to keep across a restart: where each session file was read to. */
  saved() {
    return this.#watcher?.saved() ?? { files: [] };
  }

  /** Takes back what {@link saved} gave; call before {@link start}. */
  restore(saved) {
    this.#watcher?.restore(saved);
  }

  /**
   * Looks for the program and, with Codex switched on, starts following its
   * session files.
   *
   * @return {Promise<void>} When the first look is done
   */
  async start() {
    const codex = this.#state.part('codex');
    // A reading kept from before a restart is the one to beat.
    if (isObject(codex) && isObject(codex.usage)) this.#usage = codex.usage;
    this.#state.on('change', this.#onChange);
    this.#tick = setInterval(() => {
      if (this.#now() - this.#detectedAt >= this.#detectEveryMs) this.detect();
      else this.#write();
    }, Math.min(TICK_MS, this.#detectEveryMs));
    this.#tick.unref?.();
    const detected = this.detect();
    const followed = this.#follow(isObject(codex) && codex.enabled === true);
    await Promise.all([detected, followed]);
  }

  /** Stops following files and looking; the state keeps what it has. */
  close() {
    this.#closed = true;
    clearInterval(this.#tick);
    this.#state.off('change', this.#onChange);
    this.#watcher?.stop();
  }

  /**
   * Looks at the program and the session files again now.
   *
   * @return {Promise<Object>} The `codex` record after the look
   */
  async refresh() {
    await this.detect({ force: true });
    if (this.#enabled && this.#watcher) await this.#watcher.lookOver();
    this.#write();
    return this.#state.part('codex') ?? null;
  }

  /**
   * Finds the program and asks its version, when it may have changed: a
   * different file, or the same one rewritten. Overlapping calls share one look.
   *
   * @param {Object} [options]
   * @param {boolean} [options.force=false] Ask the version even when the file looks the same
   * @return {Promise<void>}
   */
  detect({ force = false } = {}) {
    this.#detecting ??= this.#detectOnce(force).finally(() => {
      this.#detecting = null;
    });
    return this.#detecting;
  }

  async #detectOnce(force) {
    this.#detectedAt = this.#now();
    const folders = typeof this.#folders === 'function' ? this.#folders() : this.#folders;
    const found = findCodex({ named: this.#named, searchPath: this.#searchPath, folders });
    let stat = null;
    try {
      if (found) stat = fs.statSync(found);
    } catch {
      stat = null;
    }
    const same =
      found === this.#binary.path && stat?.mtimeMs === this.#binary.mtimeMs && stat?.size === this.#binary.size;
    if (!same || force) {
      const version = found ? await readCodexVersion(found, { timeoutMs: this.#versionTimeoutMs }) : null;
      if (this.#closed) return;
      if (found !== this.#binary.path || version !== this.#binary.version) {
        this.#log?.info(found ? `Codex ${version ?? '(version unknown)'} found at ${found}.` : 'No Codex program found.');
      }
      this.#binary = { path: found, version, mtimeMs: stat?.mtimeMs ?? null, size: stat?.size ?? null };
    }
    this.#write();
  }

  #stateChanged(change) {
    if (this.#closed) return;
    if (change.whole) {
      // Back to a fresh start: nothing written before counts, and the
      // program is what it is.
      this.#written = {};
      this.#usage = null;
      this.#watcher?.forgetAnnounced();
    }
    if (change.whole || change.snapshot.includes('codex')) {
      const codex = this.#state.part('codex');
      this.#follow(isObject(codex) && codex.enabled === true);
      if (change.whole) this.#write();
    }
  }

  // Starts or stops following the files as the switch says.
  async #follow(on) {
    if (on === this.#enabled) return;
    this.#enabled = on;
    if (!this.#watcher) {
      this.#write();
      return;
    }
    if (on) {
      this.#watcher.forgetAnnounced();
      await this.#watcher.start();
    } else {
      this.#watcher.stop();
      // Its sessions leave with it; they come back when it is switched on.
      for (const id of this.#watcher.announcedIds()) this.#state.removeSession(id);
      this.#watcher.forgetAnnounced();
    }
    this.#write();
  }

  #putSession(record) {
    if (!this.#enabled || this.#closed) return;
    // Fields others put on the session (such as approvals waiting on it)
    // stay; what the file says replaces the rest.
    if (!this.#state.patchSession(record.id, (session) => this.#merge(session, record))) {
      this.#state.upsertSession(record);
    }
    this.#write();
  }

  #merge(session, record) {
    const merged = { ...session, ...record };
    // A field the file no longer gives (no activity once idle) goes.
    for (const key of ['activity', 'title', 'lastText', 'model', 'permissionMode']) {
      if (!(key in record)) delete merged[key];
    }
    return merged;
  }

  #takeReading(reading) {
    if (this.#usage !== null && (reading.observedAt ?? 0) < (this.#usage.observedAt ?? 0)) return;
    this.#usage = reading;
    this.#write();
  }

  /** @return {string|null} The `codex` found, when it is one the service can work with. */
  get program() {
    return binaryFields(this.#binary, MIN_CODEX_VERSION).available ? this.#binary.path : null;
  }

  // The fields this agent knows now.
  #fields() {
    const fields = binaryFields(this.#binary, MIN_CODEX_VERSION);
    fields.connected = this.#enabled && fields.available && (this.#watcher?.following ?? false);
    if (this.#usage !== null) {
      const over = this.#usage.limited && limitOver(this.#usage, this.#now());
      fields.usage = over ? { ...this.#usage, limited: false } : this.#usage;
    }
    return fields;
  }

  // Writes the fields that changed since this agent last wrote them, and
  // only those, so that a record put in by someone else (/qa) stands until
  // there is news.
  #write() {
    if (this.#closed) return;
    const fields = this.#fields();
    const changed = OWN_FIELDS.filter((key) => JSON.stringify(fields[key]) !== JSON.stringify(this.#written[key]));
    if (changed.length === 0) return;
    const current = this.#state.part('codex');
    const next = isObject(current) ? { ...current } : { available: false, enabled: false, connected: false };
    for (const key of changed) {
      if (fields[key] === undefined) delete next[key];
      else next[key] = fields[key];
    }
    this.#written = Object.fromEntries(OWN_FIELDS.map((key) => [key, fields[key]]));
    this.#state.setSnapshotParts({ codex: ordered(next) });
  }
}
