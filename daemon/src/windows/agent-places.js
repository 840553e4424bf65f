// Where each session's agent runs, as its hook events tell: the agent's
// process and its terminal. Kept in memory only: every hook event tells it
// again, and a process outlives no restart of the machine anyway.

import { startOf } from './process-tree.js';

/** Sessions whose place is kept; the oldest told goes first. */
export const MAX_PLACES = 1000;

export class AgentPlaces {
  /** session id → {pid, tty, start} */
  #places = new Map();
  #startOf;

  /** @param {Object} [options] @param {Function} [options.startOf] When a pid started; null where that can't be read */
  constructor({ startOf: start = process.platform === 'linux' ? startOf : () => null } = {}) {
    this.#startOf = start;
  }

  /**
   * A hook event told where a session's agent runs.
   *
   * @param {string} sessionId
   * @param {AgentPlace} place
   */
  note(sessionId, { pid, tty }) {
    this.#places.delete(sessionId);
    if (this.#places.size >= MAX_PLACES) this.#places.delete(this.#places.keys().next().value);
    this.#places.set(sessionId, { pid, tty, start: this.#startOf(pid) });
  }

  /** @return {AgentPlace|null} Where the session runs, unless its process was replaced by another of the same pid. */
  of(sessionId) {
    const place = this.#places.get(sessionId);
    if (place === undefined) return null;
    if (place.start !== null && this.#startOf(place.pid) !== place.start) return { pid: 0 };
    return place.tty === undefined ? { pid: place.pid } : { pid: place.pid, tty: place.tty };
  }
}
