// The routes of the API port, which the LAN route serves too. Health needs
// no token, so that anyone can tell whether the service runs; the feed
// shares the port, on the listener's upgrade event; the phone's routes take
// a paired device's token.

import os from 'node:os';

import { HttpError } from './http-reply.js';
import { addPhoneRoutes } from './phone/phone-routes.js';
import { Router } from './router.js';

/** The version of the service's interface that the app checks. */
export const PROTOCOL = 1;

/**
 * @param {Object} parts
 * @param {{answering: boolean}} parts.health Switched by /qa: while
 *     `answering` is false, health requests are held without an answer, as a
 *     hung service would hold them, until the client gives up or the service
 *     closes
 * @param {Object} [parts.phone] What addPhoneRoutes takes; without it there are no phone routes
 * @param {Automations} [parts.automations] Whose webhook door answers here
 * @return {Router}
 */
export function apiRoutes({ health, phone = null, automations = null }) {
  const router = new Router()
    .add('GET', '/v1/health', () => (health.answering ? { ok: true, protocol: PROTOCOL, name: os.hostname() } : undefined))
    .add('GET', '/v1/ws', () => {
      throw new HttpError(426, 'upgrade_required', 'The feed is a WebSocket; connect to it with an upgrade request.', {
        headers: { Upgrade: 'websocket', Connection: 'Upgrade' },
      });
    });
  if (phone) addPhoneRoutes(router, phone);
  automations?.addApiRoutes(router);
  return router;
}
