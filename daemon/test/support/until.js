// Waiting for a condition that has to be asked for over the wire.

import { setTimeout as sleep } from 'node:timers/promises';

/**
 * Polls an async test until it gives something truthy.
 *
 * @param {function(): Promise<*>} test
 * @param {string|function(): string} what Said when it never comes; a function says it as things stand then
 * @param {number} [timeoutMs=5000]
 * @return {Promise<*>} What the test gave
 */
export async function until(test, what, timeoutMs = 5000) {
  const deadline = Date.now() + timeoutMs;
  for (;;) {
    const value = await test();
    if (value) return value;
    if (Date.now() > deadline) throw new Error(`Never happened: ${typeof what === 'function' ? what() : what}.`);
    await sleep(20);
  }
}
