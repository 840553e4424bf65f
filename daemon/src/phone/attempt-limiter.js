// Failed attempts at the phone's doors (a wrong pairing code, a token that
// isn't a device's), counted per remote address: past the limit, that
// address is refused outright until its oldest failure is a minute old.

import { HttpError } from '../http-reply.js';

/** Failures an address may make within {@link WINDOW_MS}. */
export const MAX_FAILURES = 10;

export const WINDOW_MS = 60 * 1000;

/** Addresses followed at once; past it the longest quiet one is forgotten. */
export const MAX_ADDRESSES = 10_000;

export const TOO_MANY =
  'Too many tries that didn’t work came from this address; wait a minute, then pair with a fresh code.';

export class AttemptLimiter {
  #now;
  #failures = new Map();

  /** @param {{now: function(): number}} clock */
  constructor(clock) {
    this.#now = () => clock.now();
  }

  /**
   * @param {string} address
   * @throws {HttpError} 429 while the address is over the limit
   */
  check(address) {
    if (this.#recent(address).length >= MAX_FAILURES) {
      throw new HttpError(429, 'too_many_attempts', TOO_MANY, { headers: { 'Retry-After': String(WINDOW_MS / 1000) } });
    }
  }

  /** Counts one failure of the address. */
  fail(address) {
    const times = this.#recent(address);
    times.push(this.#now());
    // Re-inserted last, so that the first key is the address quiet longest.
    this.#failures.delete(address);
    this.#failures.set(address, times.slice(-MAX_FAILURES));
    if (this.#failures.size > MAX_ADDRESSES) this.#failures.delete(this.#failures.keys().next().value);
  }

  #recent(address) {
    const since = this.#now() - WINDOW_MS;
    const times = (this.#failures.get(address) ?? []).filter((at) => at > since);
    if (times.length === 0) this.#failures.delete(address);
    return times;
  }
}
