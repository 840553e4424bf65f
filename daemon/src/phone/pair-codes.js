// One-time pairing codes: made on the app's request, alive ten minutes,
// good for one registration, and kept in memory only, so that a restart
// voids every code on show.

import { randomInt } from 'node:crypto';

/** Letters and digits a person can't mistake for one another (no 0/O, 1/I/L). */
export const CODE_ALPHABET = 'ABCDEFGHJKMNPQRSTUVWXYZ23456789';

export const CODE_LENGTH = 6;

/** A code lapses this long after it was made, in milliseconds. */
export const CODE_LIFE_MS = 10 * 60 * 1000;

/** Codes alive at once; a new one past it drops the oldest. */
export const MAX_CODES = 20;

/** @return {string} A fresh code from the system's random source. */
export function newCode() {
  let code = '';
  for (let i = 0; i < CODE_LENGTH; i++) code += CODE_ALPHABET[randomInt(CODE_ALPHABET.length)];
  return code;
}

/** @return {string|null} The code as the phone may have typed it, or null when it can't be one. */
export function normalCode(text) {
  if (typeof text !== 'string') return null;
  const code = text.trim().toUpperCase();
  return code.length === CODE_LENGTH && [...code].every((c) => CODE_ALPHABET.includes(c)) ? code : null;
}

export class PairCodes {
  #now;
  #codes = new Map();

  /** @param {{now: function(): number}} clock The service's clock, which /qa may move */
  constructor(clock) {
    this.#now = () => clock.now();
  }

  /** @return {{code: string, expiresAt: number}} A new code and when it lapses (epoch ms). */
  start() {
    this.#prune();
    let code;
    do code = newCode();
    while (this.#codes.has(code));
    const expiresAt = this.#now() + CODE_LIFE_MS;
    this.#codes.set(code, expiresAt);
    // A Map iterates in insertion order, so the first key is the oldest code.
    while (this.#codes.size > MAX_CODES) this.#codes.delete(this.#codes.keys().next().value);
    return { code, expiresAt };
  }

  /**
   * Spends a code: true once for a live code, false for anything else.
   *
   * @param {*} text
   * @return {boolean}
   */
  take(text) {
    this.#prune();
    const code = normalCode(text);
    return code !== null && this.#codes.delete(code);
  }

  /** @return {boolean} Whether a live code was withdrawn. */
  cancel(text) {
    return this.take(text);
  }

  /** @return {number} The codes alive now. */
  get count() {
    this.#prune();
    return this.#codes.size;
  }

  #prune() {
    const now = this.#now();
    for (const [code, expiresAt] of this.#codes) if (expiresAt <= now) this.#codes.delete(code);
  }
}
