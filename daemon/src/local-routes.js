// The routes of the local port, every one behind the admin token: the
// whole-state reads the app makes, and the /qa interface.

import { addQaRoutes } from './qa-routes.js';
import { Router } from './router.js';

/**
 * @param {Object} parts
 * @param {ServiceState} parts.state
 * @param {FaultBook} parts.faults
 * @return {Router}
 */
export function localRoutes({ state, faults }) {
  const router = new Router()
    .add('GET', '/v1/snapshot', () => state.snapshot())
    // `fresh=1` asks for a new look rather than the cache; everything here
    // is current already, so it changes nothing yet.
    .add('GET', '/local/status', ({ url }) => state.localStatus({ qr: url.searchParams.get('qr') === '1' }))
    .add('GET', '/local/devices', () => state.devices());
  addQaRoutes(router, { state, faults });
  return router;
}
