// A file trigger's watch: one folder and everything under it, a pattern,
// and the kind of change it waits for. Events only say that something
// happened to a path; what happened is told by comparing each file's stats
// with those seen before, once the folder has been quiet for a while, so
// that a burst of writes (a save, a checkout) is one moment.

import fs from 'node:fs';
import path from 'node:path';

import picomatch from 'picomatch';

import { isSecretFile } from './secret-file.js';

/** The folder must be this quiet, in ms, before the changes count. */
export const QUIET_MS = 10_000;

/** A folder that never goes quiet is looked at after this many quiet periods all the same. */
export const MAX_WAIT_QUIET_PERIODS = 6;

/** The most files whose stats are kept for one watch. */
export const MAX_KNOWN_FILES = 20_000;

/** The most files named in one moment's payload. */
export const MAX_PAYLOAD_FILES = 200;

/** The changes a file trigger waits for. */
export const FILE_EVENTS = ['created', 'changed', 'deleted'];

const EXCLUDED_FOLDERS = new Set(['.git', 'node_modules']);
// What editors write beside a file while it is saved.
const EDITOR_LEFTOVERS = [/\.sw[a-p]$/, /~$/, /^\.#/, /^4913$/];

const SPACE_SENTENCE =
  'The system can’t watch more folders: raise its limit of file watches (fs.inotify.max_user_watches), then switch this automation off and on.';
const TOO_MANY_SENTENCE = `That folder holds more than ${MAX_KNOWN_FILES.toLocaleString('en-US')} files to watch; pick a smaller one.`;
const NO_FOLDER_SENTENCE = 'That project folder isn’t there.';

const DONE_WORDS = { created: 'was added', changed: 'changed', deleted: 'was deleted' };
const DONE_MANY_WORDS = { created: 'were added', changed: 'changed', deleted: 'were deleted' };

/**
 * Whether a change to this path may fire a file trigger: never inside
 * `.git` or `node_modules`, never a secret file or an editor's leftover,
 * and only what the pattern matches.
 *
 * @param {string} relative "/"-separated, relative to the watched folder
 * @param {function(string): boolean|null} matches The trigger's pattern, null for any file
 * @return {boolean}
 */
export function isWatchedPath(relative, matches) {
  const parts = relative.split('/');
  if (parts.some((part) => EXCLUDED_FOLDERS.has(part))) return false;
  if (isSecretFile(relative) || EDITOR_LEFTOVERS.some((pattern) => pattern.test(parts.at(-1)))) return false;
  return matches === null || matches(relative);
}

/** @return {function(string): boolean|null} A glob such as "*.md" (any folder) or "docs/**"; null for none. */
export function globMatcher(glob) {
  if (typeof glob !== 'string' || glob.trim() === '') return null;
  const pattern = glob.trim();
  // picomatch's name matching would also bend a pattern that names folders.
  return picomatch(pattern, { basename: !pattern.includes('/'), dot: true });
}

const statOf = async (file) => {
  try {
    const stats = await fs.promises.stat(file);
    return stats.isFile() ? { size: stats.size, mtimeMs: stats.mtimeMs, ino: stats.ino } : null;
  } catch {
    return null;
  }
};

const sameStat = (a, b) => a.size === b.size && a.mtimeMs === b.mtimeMs && a.ino === b.ino;

function problemOf(error) {
  if (error?.code === 'ENOSPC') return SPACE_SENTENCE;
  if (error?.code === 'ENOENT' || error?.code === 'ENOTDIR') return NO_FOLDER_SENTENCE;
  if (error?.code === 'EACCES' || error?.code === 'EPERM') return 'Tidewatch isn’t allowed to read that folder.';
  return `That folder can’t be watched (${error?.code ?? error?.message ?? 'unknown'}).`;
}

/**
 * What a moment of changed files says: a detail line and the payload, the
 * files one a line.
 *
 * @param {string} event One of {@link FILE_EVENTS}
 * @param {Array<string>} files Relative paths
 * @return {{detail: string, payload: string}}
 */
export function filesMoment(event, files) {
  const detail = files.length === 1 ? `${files[0]} ${DONE_WORDS[event]}` : `${files.length} files ${DONE_MANY_WORDS[event]}`;
  const listed = files.slice(0, MAX_PAYLOAD_FILES);
  if (files.length > listed.length) listed.push(`and ${files.length - listed.length} more`);
  return { detail, payload: listed.join('\n') };
}

/**
 * Watches one folder for one kind of change. Nothing fires for what was
 * there when it started; `onMoment` gets each quiet period's changes of
 * its kind, and `onProblem` a sentence when it can't watch (null when it can).
 */
export class FileWatch {
  #folder;
  #event;
  #matches;
  #quietMs;
  #now;
  #onMoment;
  #onProblem;
  #watchFolder;
  #watcher = null;
  #known = new Map();
  #pending = new Set();
  #ignored = [];
  #quietTimer = null;
  #burstStartedAt = null;
  #work = Promise.resolve();
  #closed = false;

  /**
   * @param {Object} options
   * @param {string} options.folder Absolute
   * @param {string|null} [options.glob] Null or empty for any file
   * @param {string} options.event One of {@link FILE_EVENTS}
   * @param {function({detail: string, payload: string}): void} options.onMoment
   * @param {function(string|null): void} [options.onProblem]
   * @param {{now: function(): number}} [options.clock] For {@link ignore}'s ends
   * @param {number} [options.quietMs=QUIET_MS]
   * @param {Function} [options.watch=fs.watch] The system's watch, for tests of its failures
   */
  constructor({ folder, glob = null, event, onMoment, onProblem = () => {}, clock = { now: Date.now }, quietMs = QUIET_MS, watch = fs.watch }) {
    this.#folder = folder;
    this.#event = FILE_EVENTS.includes(event) ? event : 'created';
    this.#matches = globMatcher(glob);
    this.#quietMs = quietMs;
    this.#now = () => clock.now();
    this.#onMoment = onMoment;
    this.#onProblem = onProblem;
    this.#watchFolder = watch;
  }

  /**
   * Starts watching, then learns what is there.
   *
   * @return {Promise<void>} When the first look is done: changes from then on count
   */
  start() {
    try {
      this.#watcher = this.#watchFolder(this.#folder, { recursive: true, persistent: false }, (type, name) => this.#heard(name));
      this.#watcher.on('error', (error) => this.#failed(error));
    } catch (error) {
      this.#failed(error);
      return Promise.resolve();
    }
    this.#work = this.#look().then((found) => {
      this.#known = found;
      if (!this.#closed) this.#onProblem(found.size >= MAX_KNOWN_FILES ? TOO_MANY_SENTENCE : null);
    });
    return this.#work;
  }

  /**
   * Changes to these paths (files, or folders and all under them) do not
   * count until the given time: what the automation's own runs write.
   *
   * @param {Array<string>} paths Absolute, or relative to the folder
   * @param {number} untilMs Epoch ms
   */
  ignore(paths, untilMs) {
    const now = this.#now();
    this.#ignored = this.#ignored.filter((entry) => entry.until > now);
    for (const each of paths) {
      const relative = path.relative(this.#folder, path.resolve(this.#folder, each)).split(path.sep).join('/');
      if (relative.startsWith('..')) continue;
      // The newest word on a path stands: a run that ends shortens its hold.
      this.#ignored = this.#ignored.filter((entry) => entry.path !== relative);
      this.#ignored.push({ path: relative, until: untilMs });
    }
  }

  /** Stops; nothing fires after it. */
  close() {
    this.#closed = true;
    clearTimeout(this.#quietTimer);
    this.#watcher?.close();
    this.#watcher = null;
  }

  /** @return {Promise<void>} When what was heard so far has been looked at. */
  settled() {
    return this.#work;
  }

  #failed(error) {
    this.close();
    this.#onProblem(problemOf(error));
  }

  #isIgnored(relative) {
    const now = this.#now();
    return this.#ignored.some(
      (entry) => entry.until > now && (entry.path === '' || relative === entry.path || relative.startsWith(`${entry.path}/`)),
    );
  }

  #heard(name) {
    if (this.#closed) return;
    // No name means the system lost track: everything is compared.
    const relative = name === null || name === undefined ? '' : String(name).split(path.sep).join('/');
    if (relative !== '' && relative.split('/').some((part) => EXCLUDED_FOLDERS.has(part))) return;
    if (relative !== '' && this.#isIgnored(relative)) return;
    this.#pending.add(relative);
    const now = this.#now();
    this.#burstStartedAt ??= now;
    clearTimeout(this.#quietTimer);
    const longest = this.#quietMs * MAX_WAIT_QUIET_PERIODS - (now - this.#burstStartedAt);
    this.#quietTimer = setTimeout(() => this.#quiet(), Math.max(0, Math.min(this.#quietMs, longest)));
  }

  #quiet() {
    const pending = [...this.#pending];
    this.#pending.clear();
    this.#burstStartedAt = null;
    this.#work = this.#work.then(() => this.#compare(pending));
  }

  // Every watched file under a relative folder ('' for all), with its stats.
  async #look(under = '') {
    const found = new Map();
    const walk = async (relative) => {
      let folder;
      try {
        folder = await fs.promises.opendir(path.join(this.#folder, relative));
      } catch {
        return;
      }
      for await (const entry of folder) {
        if (this.#closed) return;
        const child = relative === '' ? entry.name : `${relative}/${entry.name}`;
        if (entry.isDirectory()) {
          if (!EXCLUDED_FOLDERS.has(entry.name)) await walk(child);
        } else if (isWatchedPath(child, this.#matches) && found.size < MAX_KNOWN_FILES) {
          const stats = await statOf(path.join(this.#folder, child));
          if (stats) found.set(child, stats);
        }
      }
    };
    await walk(under);
    return found;
  }

  async #compare(pending) {
    if (this.#closed) return;
    const candidates = new Set();
    // A lost track (no name) compares everything.
    for (const relative of pending.includes('') ? [''] : pending) {
      if (relative !== '' && isWatchedPath(relative, this.#matches)) candidates.add(relative);
      for (const known of this.#known.keys()) {
        if (relative === '' || known.startsWith(`${relative}/`)) candidates.add(known);
      }
      for (const found of (await this.#look(relative)).keys()) candidates.add(found);
    }
    const changed = [];
    for (const relative of [...candidates].sort()) {
      const before = this.#known.get(relative);
      const after = isWatchedPath(relative, this.#matches) ? await statOf(path.join(this.#folder, relative)) : null;
      let what = null;
      if (!before && after) what = 'created';
      else if (before && !after) what = 'deleted';
      else if (before && after && !sameStat(before, after)) what = 'changed';
      if (after && (before || this.#known.size < MAX_KNOWN_FILES)) this.#known.set(relative, after);
      else if (!after) this.#known.delete(relative);
      if (what === this.#event) changed.push(relative);
    }
    if (changed.length > 0 && !this.#closed) this.#onMoment(filesMoment(this.#event, changed));
  }
}
