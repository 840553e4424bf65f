// The routes of the API port. Health needs no token, so that anyone on this
// machine can tell whether the service runs; the feed joins it later.

import os from 'node:os';

import { Router } from './router.js';

/** The version of the service's interface that the app checks. */
export const PROTOCOL = 1;

/** @return {Router} */
export function apiRoutes() {
  return new Router().add('GET', '/v1/health', () => ({ ok: true, protocol: PROTOCOL, name: os.hostname() }));
}
