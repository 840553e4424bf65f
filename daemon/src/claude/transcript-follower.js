// The transcripts of Claude Code's sessions, each read on from where it was
// left, also across a restart; while some sessions wait on the person, theirs
// are looked at on a timer, since no hook fires when a request is refused in
// the terminal.

import { arrayOr, isObject } from '../json.js';
import { TranscriptTail } from './transcript.js';

/** While a request is open its transcript is looked at this often, in milliseconds. */
export const TRANSCRIPT_POLL_MS = 300;

/**
 * Transcripts followed at once; the least recently used is let go. Above the
 * sessions that may run together: one let go is read again from near its
 * end (up to a megabyte) at its next event.
 */
export const MAX_TAILS = 1000;

export class TranscriptFollower {
  #tails = new Map();
  #pollMs;
  #watched;
  #read;
  #timer = null;
  #polling = false;
  #started = false;

  /**
   * @param {Object} options
   * @param {number} [options.pollMs=TRANSCRIPT_POLL_MS]
   * @param {function(): Set<string>} options.watched The sessions to look at on the timer
   * @param {function(string, TranscriptTail): Promise<void>} options.read Reads one on
   */
  constructor({ pollMs = TRANSCRIPT_POLL_MS, watched, read }) {
    this.#pollMs = pollMs;
    this.#watched = watched;
    this.#read = read;
  }

  /** @return {Array<Object>} What to keep across a restart (JSON data). */
  saved() {
    return [...this.#tails.entries()].map(([sessionId, tail]) => ({ sessionId, file: tail.file, ...tail.saved() }));
  }

  /** Takes back what {@link saved} gave. */
  restore(saved) {
    for (const tail of arrayOr(saved).slice(-MAX_TAILS)) {
      if (isObject(tail) && typeof tail.sessionId === 'string' && typeof tail.file === 'string') {
        this.#tails.set(tail.sessionId, new TranscriptTail(tail.file, tail));
      }
    }
  }

  /**
   * The session's transcript, followed from now on when a file is named
   * (a new file starts from its beginning).
   *
   * @param {string} sessionId
   * @param {string} [file]
   * @return {TranscriptTail|null}
   */
  tailFor(sessionId, file) {
    if (typeof file === 'string') {
      const known = this.#tails.get(sessionId);
      if (!known || known.file !== file) {
        this.#tails.set(sessionId, new TranscriptTail(file));
        if (this.#tails.size > MAX_TAILS) this.#tails.delete(this.#tails.keys().next().value);
      }
    }
    return this.#tails.get(sessionId) ?? null;
  }

  forget(sessionId) {
    this.#tails.delete(sessionId);
  }

  start() {
    this.#started = true;
    this.watch();
  }

  /** Looks on the timer while any session is watched; call when one may have become so. */
  watch() {
    if (this.#timer !== null || !this.#started || this.#watched().size === 0) return;
    this.#timer = setInterval(() => this.#poll(), this.#pollMs);
    this.#timer.unref?.();
  }

  close() {
    this.#started = false;
    clearInterval(this.#timer);
    this.#timer = null;
  }

  async #poll() {
    if (this.#polling) return;
    const sessions = this.#watched();
    if (sessions.size === 0) {
      clearInterval(this.#timer);
      this.#timer = null;
      return;
    }
    this.#polling = true;
    try {
      for (const sessionId of sessions) {
        const tail = this.#tails.get(sessionId);
        if (tail) await this.#read(sessionId, tail);
      }
    } finally {
      this.#polling = false;
    }
  }
}
