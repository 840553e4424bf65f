// The automations' routes: the book on the local port (list, save, delete,
// switch, token, check a schedule, pause all) and the webhook door on the
// API port, which only this computer may knock on, with the automation's
// own token.

import { bearerOf } from '../admin-token.js';
import { HttpError, notFound } from '../http-reply.js';
import { cut } from '../json.js';
import { readBody, readJsonObject, requireBoolean } from '../request-body.js';
import { nextTimes as scheduledTimes } from './schedule.js';
import { StatusPublisher } from './status-publisher.js';
import { FEATURES, validateInput, validateTrigger } from './validate.js';

/** The largest automation body read, in bytes: five steps of the longest prompt fit. */
export const MAX_AUTOMATION_BODY_BYTES = 256 * 1024;
/** The largest webhook payload taken, in bytes. */
export const MAX_PAYLOAD_BYTES = 64 * 1024;
/** Next times a schedule check gives. */
export const CHECK_COUNT = 5;
/** The longest `detail` of a fired run: the payload's first line, cut. */
export const MAX_DETAIL_CHARS = 80;

const LOOPBACK = new Set(['127.0.0.1', '::1', '::ffff:127.0.0.1']);

/**
 * Adds the book's routes to the local port's table.
 *
 * @param {Router} router
 * @param {Object} parts
 * @param {AutomationStore} parts.store
 * @param {Object} [parts.engine] Told of pausing (`setPaused(on)`); gives each
 *     automation's last run (`runsOf(id, 1)`)
 * @param {function(): Object} parts.validationContext The context of
 *     validateInput as it stands now, without `existing` and `now`
 * @param {function(Object): void} parts.publish Gets the snapshot's `automations` part on every change
 * @param {{now: function(): number}} parts.clock
 * @param {function(Object, number): (number|null)} [parts.nextAt] The next start of an
 *     automation (automation, now); by its schedule alone when not given
 * @param {function(string): (string|null)} [parts.problemOf] Why an automation can't run as it stands, by id
 * @return {StatusPublisher} Its refresh() publishes again, as after a run changed
 */
export function addAutomationRoutes(router, { store, engine = null, validationContext, publish, clock, nextAt, problemOf }) {
  const status = new StatusPublisher({ store, publish, clock, nextAt, problemOf, lastRun: (id) => engine?.runsOf?.(id, 1)?.runs?.[0] ?? null });
  const context = (existing = null) => ({ ...validationContext(), existing, now: clock.now() });
  const stored = (id) => store.get(id) ?? fail(notFound('automation', id));
  const shown = (id) => status.list().find((automation) => automation.id === id);
  const saved = ({ automation, token }) => (token === undefined ? { automation: shown(automation.id) } : { automation: shown(automation.id), token });

  router
    .add('GET', '/v1/automations', () => ({ automations: status.list(), paused: store.paused, features: [...FEATURES] }))
    .add('POST', '/v1/automations', async ({ req }) => {
      const body = await readJsonObject(req, MAX_AUTOMATION_BODY_BYTES);
      return saved(store.create(await validateInput(body, context())));
    })
    .add('POST', '/v1/automations/check', async ({ req }) => {
      const body = await readJsonObject(req, MAX_AUTOMATION_BODY_BYTES);
      const trigger = await validateTrigger(body.trigger, context());
      return { next: scheduledTimes(trigger, clock.now(), CHECK_COUNT) };
    })
    .add('POST', '/v1/automations/paused', async ({ req }) => {
      const paused = requireBoolean(await readJsonObject(req), 'paused');
      store.setPaused(paused);
      engine?.setPaused?.(paused);
      return { paused };
    })
    .add('PUT', '/v1/automations/:id', async ({ req, params }) => {
      const before = stored(params.id);
      const body = await readJsonObject(req, MAX_AUTOMATION_BODY_BYTES);
      return saved(store.update(params.id, await validateInput(body, context(before))));
    })
    .add('DELETE', '/v1/automations/:id', ({ params }) => {
      store.remove(params.id);
      return { removed: params.id };
    })
    .add('POST', '/v1/automations/:id/enabled', async ({ req, params }) => {
      stored(params.id);
      const enabled = requireBoolean(await readJsonObject(req), 'enabled');
      store.setEnabled(params.id, enabled);
      return { automation: shown(params.id) };
    })
    .add('POST', '/v1/automations/:id/token', ({ params }) => saved(store.newToken(params.id)));
  status.refresh();
  return status;
}

function fail(error) {
  throw error;
}

// Only this computer: not the LAN route (TLS), not a proxy that says whom it speaks for.
function fromThisComputer(req) {
  const proxied = req.headers['x-forwarded-for'] !== undefined || req.headers.forwarded !== undefined;
  return LOOPBACK.has(req.socket.remoteAddress) && !req.socket.encrypted && !proxied;
}

/**
 * Adds the webhook door to the API port's table: POST
 * /v1/automations/<id>/fire with that automation's token as a bearer token;
 * the body (at most MAX_PAYLOAD_BYTES) becomes the run's payload.
 *
 * @param {Router} router
 * @param {Object} parts
 * @param {AutomationStore} parts.store
 * @param {{fire: function(Object, Object): (Object|Promise<Object>)}} parts.engine
 * @param {{now: function(): number}} parts.clock
 */
export function addFireRoute(router, { store, engine, clock }) {
  router.add(
    'POST',
    '/v1/automations/:id/fire',
    async ({ req, params }) => {
      if (!fromThisComputer(req)) throw new HttpError(403, 'not_local', 'Only this computer can fire an automation.');
      // The same answer whether the id names nothing or the token is wrong: the door tells nobody what is behind it.
      if (!store.checkToken(params.id, bearerOf(req.headers.authorization))) {
        throw new HttpError(401, 'unauthorized', 'This needs the automation’s own token, sent as “Authorization: Bearer <token>”.', {
          headers: { 'WWW-Authenticate': 'Bearer' },
        });
      }
      const payload = (await readBody(req, MAX_PAYLOAD_BYTES)).toString('utf8');
      const automation = store.get(params.id);
      if (automation === null) throw notFound('automation', params.id);
      if (automation.enabled === false) throw new HttpError(409, 'disabled', 'It’s switched off, so it doesn’t run.');
      if (store.paused) throw new HttpError(409, 'paused', 'Automations are paused: nothing starts until you resume.');
      const detail = cut(payload.split('\n', 1)[0].trim(), MAX_DETAIL_CHARS);
      const run = await engine.fire(automation, { by: 'webhook', at: clock.now(), detail, payload });
      return { run };
    },
    { open: true },
  );
}
