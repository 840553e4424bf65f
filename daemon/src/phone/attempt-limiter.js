// Failed attempts at the phone's doors (a wrong pairing code, a token that
// isn't a device's), counted per remote address: past the limit, that
// address is refused outright until its oldest failure is a minute old.

import { isIP } from 'node:net';

import { HttpError } from '../http-reply.js';

/** Failures an address may make within {@link WINDOW_MS}. */
export const MAX_FAILURES = 10;

export const WINDOW_MS = 60 * 1000;

/** Addresses followed at once; past it the longest quiet one is forgotten. */
export const MAX_ADDRESSES = 10_000;

/**
 * Failures that all the phones behind this machine's own proxy (Tailscale's
 * serve) may make together within {@link WINDOW_MS}: a local program could
 * claim any forwarded address, so the proxy as a whole has a ceiling too.
 */
export const MAX_FORWARDED_FAILURES = 10 * MAX_FAILURES;

export const TOO_MANY =
  'Too many tries that didn’t work came from this address; wait a minute, then pair with a fresh code.';

const LOOPBACK = /^(127\.|::1$|::ffff:127\.)/;

/**
 * Who a request's failures count against. A phone that comes through the
 * Tailscale app's serve reaches the service from loopback, and the proxy
 * names its tailnet address last in X-Forwarded-For: each phone then has
 * a count of its own, under the proxy's shared ceiling.
 *
 * @param {http.IncomingMessage} req
 * @return {Array<{key: string, max: number}>}
 */
export function attemptSources(req) {
  const peer = req.socket.remoteAddress ?? '';
  const forwarded = req.headers['x-forwarded-for'];
  const client = typeof forwarded === 'string' ? forwarded.split(',').at(-1).trim() : '';
  if (!LOOPBACK.test(peer) || isIP(client) === 0) return [{ key: peer, max: MAX_FAILURES }];
  return [
    { key: `${client} through ${peer}`, max: MAX_FAILURES },
    { key: `anyone through ${peer}`, max: MAX_FORWARDED_FAILURES },
  ];
}

export class AttemptLimiter {
  #now;
  #failures = new Map();

  /** @param {{now: function(): number}} clock */
  constructor(clock) {
    this.#now = () => clock.now();
  }

  /**
   * @param {string|Array<{key: string, max: number}>} sources An address, or what {@link attemptSources} gives
   * @throws {HttpError} 429 while any of them is over its limit
   */
  check(sources) {
    if (sourcesOf(sources).some(({ key, max }) => this.#recent(key).length >= max)) {
      throw new HttpError(429, 'too_many_attempts', TOO_MANY, { headers: { 'Retry-After': String(WINDOW_MS / 1000) } });
    }
  }

  /** Counts one failure against each source. */
  fail(sources) {
    for (const { key, max } of sourcesOf(sources)) {
      const times = this.#recent(key);
      times.push(this.#now());
      // Re-inserted last, so that the first key is the one quiet longest.
      this.#failures.delete(key);
      this.#failures.set(key, times.slice(-max));
      if (this.#failures.size > MAX_ADDRESSES) this.#failures.delete(this.#failures.keys().next().value);
    }
  }

  #recent(address) {
    const since = this.#now() - WINDOW_MS;
    const times = (this.#failures.get(address) ?? []).filter((at) => at > since);
    if (times.length === 0) this.#failures.delete(address);
    return times;
  }
}

function sourcesOf(sources) {
  return typeof sources === 'string' ? [{ key: sources, max: MAX_FAILURES }] : sources;
}
