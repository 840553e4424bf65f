// Phone access through Tailscale: the app and the built-in node read on a
// steady pace and on demand, their routes on the local port, and the choice
// between them kept across a restart.

import { HttpError } from '../http-reply.js';
import { readJsonObject } from '../request-body.js';

/** How often both are read again, in milliseconds. */
export const REFRESH_EVERY_MS = 20_000;

/** Why a test copy turns nothing on: its route would stay in the tailnet after it. */
export const TEST_COPY_SERVE = 'nothing (a test copy leaves phone access to the real install)';

/** Keeps the `tailscale` and `tsnet` parts current. */
export class PhoneAccess {
  #app;
  #node;
  #everyMs;
  #timer = null;

  /**
   * @param {Object} parts
   * @param {TailscaleApp} parts.app
   * @param {BuiltInNode} parts.node
   * @param {number} [parts.everyMs=REFRESH_EVERY_MS]
   */
  constructor({ app, node, everyMs = REFRESH_EVERY_MS }) {
    this.#app = app;
    this.#node = node;
    this.#everyMs = everyMs;
  }

  /** @return {TailscaleApp} */
  get app() {
    return this.#app;
  }

  /** @return {BuiltInNode} */
  get node() {
    return this.#node;
  }

  /** Reads both now, then on the pace. */
  start() {
    if (this.#timer !== null) return;
    this.refresh();
    this.#timer = setInterval(() => this.refresh(), this.#everyMs);
    this.#timer.unref?.();
  }

  close() {
    clearInterval(this.#timer);
    this.#timer = null;
  }

  /** Reads the app, then the node, whose `mode` depends on whether the app is there. */
  async refresh() {
    await this.#app.refresh();
    await this.#node.refresh();
  }
}

/**
 * @param {Router} router
 * @param {Object} parts
 * @param {ServiceState} parts.state
 * @param {PhoneAccess} parts.access
 * @param {boolean} parts.testCopy Turns nothing on in the tailnet
 */
export function addPhoneAccessRoutes(router, { state, access, testCopy }) {
  router
    .add('POST', '/local/tailscale/serve', async ({ req }) => {
      await readJsonObject(req);
      if (testCopy) throw new HttpError(403, 'test_copy', TEST_COPY_SERVE);
      return access.app.serve();
    })
    .add('POST', '/local/tsnet/logout', async ({ req }) => {
      await readJsonObject(req);
      await access.node.logout();
      return state.localStatus();
    });
}
