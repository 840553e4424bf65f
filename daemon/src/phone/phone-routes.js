// The phone's interface, on the API port (where Tailscale forwards) and on
// the LAN route: registration with a pairing code, and behind a device's
// token the snapshot, the answers to approvals and the session actions.
// The app's side of pairing is on the local port, behind the admin token:
// making and withdrawing codes, and forgetting devices.

import { addActionRoutes } from '../action-routes.js';
import { HttpError, invalid, notFound } from '../http-reply.js';
import { readJsonObject } from '../request-body.js';
import { pairLink, phoneAddress } from './pair-link.js';
import { attemptSources } from './attempt-limiter.js';
import { MAX_DEVICES } from './device-book.js';

/** The prefix of the phone's routes. */
export const PHONE_PREFIX = '/phone';

/** The largest body a phone route reads (16 KiB): phones send small records. */
export const PHONE_BODY_BYTES = 16 * 1024;

/** The longest device name, model and app version kept, in characters. */
export const MAX_NAME_CHARS = 64;

/** Who a phone's answer to an approval is recorded as. */
export const PHONE_DECIDER = 'phone';

export const BAD_CODE =
  'That pairing code doesn’t work: it was used already, withdrawn or has lapsed. Show a fresh code in Tidewatch and scan it.';

// A short line of text for a record: control characters gone, trimmed, at most the limit.
function line(body, field, { required = false } = {}) {
  const value = body[field];
  if (value === undefined && !required) return undefined;
  // eslint-disable-next-line no-control-regex -- a name shown in a list must not carry control characters
  const text = typeof value === 'string' ? value.replace(/[\u0000-\u001f\u007f]/g, '').trim() : '';
  if (text === '' || text.length > MAX_NAME_CHARS) {
    throw invalid(field, `“${field}” must be a text of 1 to ${MAX_NAME_CHARS} characters.`);
  }
  return text;
}

/**
 * The registration's fields, checked whole.
 *
 * @param {Object} body
 * @return {{code: *, name: string, client: string, model: (string|undefined), appVersion: (string|undefined)}}
 * @throws {HttpError} 400 naming the field at fault
 */
export function readRegistration(body) {
  if (typeof body.code !== 'string') throw invalid('code', 'Send the pairing code as “code”.');
  if (body.client !== undefined && body.client !== 'phone') throw invalid('client', 'Only a phone pairs this way: “client” must be “phone”.');
  return {
    code: body.code,
    name: line(body, 'name', { required: true }),
    client: 'phone',
    model: line(body, 'model'),
    appVersion: line(body, 'appVersion'),
  };
}

/**
 * Adds the phone's routes.
 *
 * @param {Router} router
 * @param {Object} parts
 * @param {ServiceState} parts.state
 * @param {PairCodes} parts.codes
 * @param {DeviceBook} parts.devices
 * @param {AttemptLimiter} parts.limiter
 * @param {Object} parts.actions What addActionRoutes takes: `continuer`, `opener`
 */
export function addPhoneRoutes(router, { state, codes, devices, limiter, actions }) {
  router
    .add(
      'POST',
      `${PHONE_PREFIX}/pair`,
      async ({ req }) => {
        const sources = attemptSources(req);
        limiter.check(sources);
        const about = readRegistration(await readJsonObject(req, PHONE_BODY_BYTES));
        if (devices.count >= MAX_DEVICES) {
          throw new HttpError(409, 'too_many_devices', `${MAX_DEVICES} devices are paired already; forget one in Settings first.`);
        }
        if (!codes.take(about.code)) {
          limiter.fail(sources);
          throw new HttpError(403, 'bad_code', BAD_CODE);
        }
        return devices.register(about);
      },
      { open: true },
    )
    .add('GET', `${PHONE_PREFIX}/snapshot`, () => state.snapshot(), { device: true });
  addActionRoutes(router, { state, ...actions }, { prefix: PHONE_PREFIX, by: PHONE_DECIDER, device: true, limit: PHONE_BODY_BYTES });
}

/**
 * Adds the app's side of pairing to the local port's table.
 *
 * @param {Router} router
 * @param {Object} parts
 * @param {ServiceState} parts.state Its `tailscale`, `tsnet` and `lan` parts say where a phone can reach
 * @param {PairCodes} parts.codes
 * @param {DeviceBook} parts.devices
 * @param {string} parts.origin The pairing origin
 */
export function addPairingRoutes(router, { state, codes, devices, origin }) {
  router
    .add('POST', '/local/pair/start', async ({ req, url }) => {
      await readJsonObject(req);
      if (url.searchParams.get('name') === '1') {
        throw new HttpError(503, 'no_name_service', 'This service can’t claim a private name yet, so no code was made.');
      }
      const phoneUrl = phoneAddress(state.localPart('tailscale'), state.localPart('tsnet'));
      const lanPart = state.localPart('lan');
      const lan = lanPart?.addresses?.length > 0 ? { ...lanPart, address: lanPart.addresses[0] } : null;
      if (phoneUrl === null && lan === null) {
        throw new HttpError(409, 'no_route', 'No phone can reach Tidewatch yet: there’s no Tailscale address and no local network.');
      }
      const { code, expiresAt } = codes.start();
      const name = state.part('mac')?.name ?? state.about.hostname;
      return { code, link: pairLink({ origin, code, url: phoneUrl, name, lan }), expiresAt, url: phoneUrl };
    })
    .add('POST', '/local/pair/cancel', async ({ req }) => {
      const { code } = await readJsonObject(req);
      if (typeof code !== 'string') throw invalid('code', 'Send the code to withdraw as “code”.');
      // A code that lapsed or was used is gone already, which is what was asked.
      return { ok: true, withdrawn: codes.cancel(code) };
    })
    .add('DELETE', '/local/devices/:id', ({ params }) => {
      // A device planted through /qa has no token; it leaves the list alone.
      if (!devices.revoke(params.id) && !state.removeDevice(params.id)) throw notFound('device', params.id);
      return { ok: true };
    });
}
