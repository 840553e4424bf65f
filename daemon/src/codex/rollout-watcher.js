// Following Codex's session files as they grow: a watch on the sessions
// folder tree says which file changed, and that file is read from where the
// last read stopped; a slow look over the whole tree catches what the watch
// missed (a platform without recursive watching, a folder made later, a
// burst of events dropped) and notices sessions that went quiet.

import fs from 'node:fs';
import fsp from 'node:fs/promises';
import path from 'node:path';

import { freshCursor, MAX_LINE_BYTES, MAX_READ_BYTES, readNewLines } from './line-tail.js';
import { applyLine, freshTrack, parseRolloutLine, sessionRecord } from './rollout.js';

/** The slow look over every followed file, in milliseconds. */
export const LOOK_OVER_MS = 30_000;

/**
 * A session whose file has had nothing new for this long is taken to have
 * ended: Codex writes no line when it quits, and an open session that waits
 * on its person this long is as good as closed.
 */
export const ENDED_AFTER_QUIET_MS = 2 * 60 * 60 * 1000;

/**
 * Files last written longer ago than this are not taken up: ended sessions
 * stay visible for a day, so older ones would only come to go again.
 */
export const FOLLOW_FOR_MS = 24 * 60 * 60 * 1000;

/** The most files a look-over considers, newest day folders first. */
export const MAX_SCANNED_FILES = 5000;

/** The most files whose reading position is kept; the oldest go first. */
export const MAX_FOLLOWED_FILES = 1000;

/** Changes to one file within this time are read once, in milliseconds. */
const CHANGE_DELAY_MS = 30;

const ROLLOUT_NAME = /^rollout-.*\.jsonl$/;
const YEAR = /^\d{4}$/;
const TWO_DIGITS = /^\d{2}$/;

async function sortedFolders(folder, pattern) {
  try {
    const entries = await fsp.readdir(folder, { withFileTypes: true });
    return entries
      .filter((entry) => entry.isDirectory() && pattern.test(entry.name))
      .map((entry) => entry.name)
      .sort()
      .reverse();
  } catch {
    return [];
  }
}

/**
 * The rollout files under the sessions folder (YYYY/MM/DD/rollout-*.jsonl),
 * newest day first, at most `limit`.
 *
 * @param {string} root
 * @param {number} limit
 * @return {Promise<{files: Array<string>, complete: boolean}>} `complete`
 *     is false when the limit cut the list short
 */
export async function listRolloutFiles(root, limit = MAX_SCANNED_FILES) {
  const files = [];
  for (const year of await sortedFolders(root, YEAR)) {
    for (const month of await sortedFolders(path.join(root, year), TWO_DIGITS)) {
      for (const day of await sortedFolders(path.join(root, year, month), TWO_DIGITS)) {
        const folder = path.join(root, year, month, day);
        let names;
        try {
          names = await fsp.readdir(folder);
        } catch {
          continue;
        }
        for (const name of names.filter((each) => ROLLOUT_NAME.test(each)).sort().reverse()) {
          if (files.length >= limit) return { files, complete: false };
          files.push(path.join(folder, name));
        }
      }
    }
  }
  return { files, complete: true };
}

/**
 * @typedef {Object} FollowedFile What is known of one file (plain data)
 * @property {string} file
 * @property {RolloutTrack} track
 * @property {TailCursor} cursor
 * @property {number} size
 * @property {number} mtimeMs
 * @property {boolean} gone The file was deleted or moved away
 * @property {string|null} announced The record last handed on, as JSON text
 */

/**
 * Follows the rollout files of one Codex home and hands on what changed.
 */
export class RolloutWatcher {
  #root;
  #now;
  #onSession;
  #onReading;
  #onProgress;
  #log;
  #lookOverMs;
  #endedAfterMs;
  #followForMs;
  #limits;
  #files = new Map();
  #reads = new Map();
  #waiting = new Map();
  #watch = null;
  #timer = null;
  #running = false;
  #rootFound = false;
  #lookingOver = null;

  /**
   * @param {Object} options
   * @param {string} options.root The sessions folder, such as ~/.codex/sessions
   * @param {function(Object): void} options.onSession Gets each `Session`
   *     record that changed
   * @param {function(Object): void} options.onReading Gets the newest
   *     rate-limit reading of each read that found one
   * @param {function(): void} [options.onProgress] Called after a read moved on
   * @param {Log} [options.log]
   * @param {function(): number} [options.now=Date.now]
   * @param {number} [options.lookOverMs=LOOK_OVER_MS]
   * @param {number} [options.endedAfterMs=ENDED_AFTER_QUIET_MS]
   * @param {number} [options.followForMs=FOLLOW_FOR_MS]
   * @param {Object} [options.limits] {maxLineBytes, maxReadBytes, maxScannedFiles, maxFollowedFiles}
   */
  constructor({
    root,
    onSession,
    onReading,
    onProgress = () => {},
    log = null,
    now = Date.now,
    lookOverMs = LOOK_OVER_MS,
    endedAfterMs = ENDED_AFTER_QUIET_MS,
    followForMs = FOLLOW_FOR_MS,
    limits = {},
  }) {
    this.#root = root;
    this.#onSession = onSession;
    this.#onReading = onReading;
    this.#onProgress = onProgress;
    this.#log = log;
    this.#now = now;
    this.#lookOverMs = lookOverMs;
    this.#endedAfterMs = endedAfterMs;
    this.#followForMs = followForMs;
    this.#limits = {
      maxLineBytes: MAX_LINE_BYTES,
      maxReadBytes: MAX_READ_BYTES,
      maxScannedFiles: MAX_SCANNED_FILES,
      maxFollowedFiles: MAX_FOLLOWED_FILES,
      ...limits,
    };
  }

  /** Whether it runs and the sessions folder is there to follow. */
  get following() {
    return this.#running && this.#rootFound;
  }

  /** @return {Array<string>} The ids of the sessions it has handed on. */
  announcedIds() {
    return [...this.#files.values()].filter((entry) => entry.announced !== null).map((entry) => entry.track.id);
  }

  /** @return {{files: Array<FollowedFile>}} What to keep across a restart. */
  saved() {
    return { files: [...this.#files.values()].map((entry) => structuredClone(entry)) };
  }

  /**
   * Takes back what {@link saved} gave, before {@link start}: reading goes
   * on from where it stood, and what was announced isn't announced again.
   *
   * @param {*} saved
   */
  restore(saved) {
    const files = Array.isArray(saved?.files) ? saved.files : [];
    for (const entry of files.slice(0, this.#limits.maxFollowedFiles)) {
      if (typeof entry?.file !== 'string' || typeof entry.track !== 'object' || entry.track === null) continue;
      if (typeof entry.cursor?.offset !== 'number') continue;
      this.#files.set(entry.file, {
        file: entry.file,
        track: entry.track,
        cursor: { ino: entry.cursor.ino ?? null, offset: entry.cursor.offset, skipping: entry.cursor.skipping === true },
        size: Number(entry.size) || 0,
        mtimeMs: Number(entry.mtimeMs) || 0,
        gone: entry.gone === true,
        announced: typeof entry.announced === 'string' ? entry.announced : null,
      });
    }
  }

  /** Makes every followed session count as not yet announced, so the next look hands them all on. */
  forgetAnnounced() {
    for (const entry of this.#files.values()) entry.announced = null;
  }

  /**
   * Starts watching and the look-overs; the first look-over runs now.
   *
   * @return {Promise<void>} When the first look-over is done
   */
  start() {
    if (this.#running) return this.lookOver();
    this.#running = true;
    this.#timer = setInterval(() => this.lookOver(), this.#lookOverMs);
    this.#timer.unref?.();
    return this.lookOver();
  }

  /** Stops watching; reads under way finish, and hand on nothing more. */
  stop() {
    this.#running = false;
    clearInterval(this.#timer);
    this.#timer = null;
    this.#closeWatch();
    for (const timer of this.#waiting.values()) clearTimeout(timer);
    this.#waiting.clear();
  }

  /**
   * Looks over the whole tree: new files, grown ones, gone ones, and
   * sessions gone quiet. Overlapping calls share one look.
   *
   * @return {Promise<void>}
   */
  lookOver() {
    this.#lookingOver ??= this.#lookOverOnce().finally(() => {
      this.#lookingOver = null;
    });
    return this.#lookingOver;
  }

  async #lookOverOnce() {
    if (!this.#running) return;
    this.#rootFound = fs.existsSync(this.#root);
    if (this.#rootFound) this.#ensureWatch();
    const { files, complete } = this.#rootFound
      ? await listRolloutFiles(this.#root, this.#limits.maxScannedFiles)
      : { files: [], complete: true };
    const now = this.#now();
    const seen = new Set(files);

    const stats = await Promise.all(
      files.map(async (file) => {
        try {
          return [file, await fsp.stat(file)];
        } catch {
          return [file, null];
        }
      }),
    );
    // Newest first, so that when there are more files than can be followed
    // the ones left out are the oldest, and stay left out until written to.
    stats.sort((a, b) => (b[1]?.mtimeMs ?? 0) - (a[1]?.mtimeMs ?? 0));
    for (const [file, stat] of stats) {
      if (!this.#running) return;
      if (stat === null) continue;
      const entry = this.#files.get(file);
      if (entry) {
        if (entry.gone || stat.size !== entry.size || stat.mtimeMs !== entry.mtimeMs || stat.ino !== entry.cursor.ino) {
          entry.gone = false;
          await this.#read(file);
        }
      } else if (now - stat.mtimeMs <= this.#followForMs && this.#hasRoomFor(stat.mtimeMs)) {
        await this.#read(file);
        this.#trim();
      }
    }
    if (complete && this.#rootFound) {
      for (const entry of this.#files.values()) {
        if (!seen.has(entry.file) && !entry.gone) entry.gone = true;
      }
    }
    for (const entry of this.#files.values()) this.#announce(entry);
    this.#trim();
  }

  /**
   * Reads what a file gained; calls for one file run one after another.
   *
   * @param {string} file
   * @return {Promise<void>}
   */
  read(file) {
    return this.#read(file);
  }

  #read(file) {
    const previous = this.#reads.get(file) ?? Promise.resolve();
    const next = previous.then(() => this.#readOnce(file));
    this.#reads.set(file, next);
    next.finally(() => {
      if (this.#reads.get(file) === next) this.#reads.delete(file);
    });
    return next;
  }

  async #readOnce(file) {
    if (!this.#running) return;
    let entry = this.#files.get(file);
    const fresh = entry === undefined;
    if (fresh) {
      entry = { file, track: freshTrack(file), cursor: freshCursor(), size: 0, mtimeMs: 0, gone: false, announced: null };
    }
    let reading = null;
    let broken = 0;
    let skipped = 0;
    let moved = false;
    let read = false;
    for (;;) {
      let result;
      try {
        result = await readNewLines(file, entry.cursor, this.#limits);
      } catch (error) {
        if (error.code === 'ENOENT') entry.gone = true;
        else this.#log?.warn(`Couldn’t read the Codex session file ${file} (${error.code ?? error.message}).`);
        break;
      }
      read = true;
      if (result.restarted) entry.track = freshTrack(file);
      for (const line of result.lines) {
        const parsed = parseRolloutLine(line);
        if (parsed === null) {
          broken += 1;
          continue;
        }
        const found = applyLine(entry.track, parsed);
        if (found !== null && (reading === null || (found.observedAt ?? 0) >= (reading.observedAt ?? 0))) reading = found;
      }
      moved ||= result.cursor.offset !== entry.cursor.offset || result.restarted;
      skipped += result.skipped;
      entry.cursor = result.cursor;
      entry.size = result.size;
      entry.mtimeMs = result.mtimeMs;
      entry.gone = false;
      if (!result.more || !this.#running) break;
    }
    if (!this.#running) return;
    if (fresh && !read) return;
    if (fresh) this.#files.set(file, entry);
    if (broken > 0 || skipped > 0) {
      const count = broken + skipped;
      this.#log?.info(`Passed over ${count} unreadable line(s) in the Codex session file ${path.basename(file)}.`);
    }
    if (reading !== null) this.#onReading(reading);
    this.#announce(entry);
    if (moved) this.#onProgress();
  }

  // Hands the session on when its record changed since it was last handed on.
  #announce(entry) {
    if (entry.track.hidden) return;
    const quietSince = Math.max(entry.track.lastAt ?? 0, entry.mtimeMs);
    const ended = entry.gone || this.#now() - quietSince >= this.#endedAfterMs;
    const record = sessionRecord(entry.track, { ended });
    if (record === null) return;
    const text = JSON.stringify(record);
    if (text === entry.announced) return;
    entry.announced = text;
    this.#onSession(record);
  }

  // Whether a file last written then is among the newest that can be followed.
  #hasRoomFor(mtimeMs) {
    if (this.#files.size < this.#limits.maxFollowedFiles) return true;
    let oldest = Infinity;
    for (const entry of this.#files.values()) oldest = Math.min(oldest, entry.mtimeMs);
    return mtimeMs > oldest;
  }

  // Keeps the newest files within the limit.
  #trim() {
    const over = this.#files.size - this.#limits.maxFollowedFiles;
    if (over <= 0) return;
    const oldest = [...this.#files.values()].sort((a, b) => a.mtimeMs - b.mtimeMs).slice(0, over);
    for (const entry of oldest) this.#files.delete(entry.file);
  }

  #ensureWatch() {
    if (this.#watch !== null) return;
    try {
      this.#watch = fs.watch(this.#root, { recursive: true, persistent: false }, (event, name) => this.#changed(name));
      this.#watch.on('error', () => this.#closeWatch());
    } catch (error) {
      // Without recursive watching the look-overs carry it alone.
      const why = error.code ?? error.message;
      this.#log?.info(`Can’t watch ${this.#root} (${why}); looking over it every ${this.#lookOverMs / 1000} s.`);
      this.#watch = false;
    }
  }

  #closeWatch() {
    if (this.#watch) this.#watch.close();
    this.#watch = null;
  }

  #changed(name) {
    if (!this.#running) return;
    if (typeof name !== 'string' || name === '') {
      this.lookOver();
      return;
    }
    const file = path.join(this.#root, name);
    if (!ROLLOUT_NAME.test(path.basename(file))) {
      // A new day folder: the files in it come with their own events, but a
      // folder made with files already inside is only seen by a look.
      if (!path.extname(name)) this.#soon('look-over', () => this.lookOver());
      return;
    }
    this.#soon(file, () => this.#read(file));
  }

  #soon(key, work) {
    if (this.#waiting.has(key)) return;
    const timer = setTimeout(() => {
      this.#waiting.delete(key);
      work();
    }, CHANGE_DELAY_MS);
    this.#waiting.set(key, timer);
  }
}
