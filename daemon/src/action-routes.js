// The calls the app makes when the user acts: answer an approval, open,
// continue or arm a session, sign in, refresh the usage and Codex readings.
// Each changes the state, and the feed tells every client.

import { HttpError, invalid, notFound } from './http-reply.js';
import { MAX_BODY_BYTES, readJsonObject, requireBoolean } from './request-body.js';
import { DECISIONS } from './state.js';
import { objectOr } from './json.js';
import { RaiseError } from './windows/raise-error.js';

/** A usage reading older than this is stale, in milliseconds. */
export const USAGE_STALE_MS = 10 * 60 * 1000;

/**
 * Only the Mac app holds the admin token, so an answer that comes this way
 * is the Mac's, whichever feed client the app named itself.
 */
export const LOCAL_DECIDER = 'mac';

// Who starts a sign-in is a short word, shown back on the account card.
const WHERE = /^[a-z]{1,40}$/;
const WHERE_SENTENCE = 'Say where the sign-in happens in one word of up to 40 small letters, such as “mac”.';

function requireText(body, field, message) {
  if (typeof body[field] !== 'string' || body[field].trim() === '') throw invalid(field, message);
  return body[field];
}

/**
 * Adds the action routes: on the local port the Mac's, all of them; on the
 * phone's routes the answers to approvals and the session actions, under
 * the phone's own prefix and answered as the phone.
 *
 * @param {Router} router
 * @param {Object} parts
 * @param {ServiceState} parts.state
 * @param {CodexAgent} [parts.codex] Looked at again on a Codex refresh
 * @param {Continuer} [parts.continuer] Carries sessions on; without it they can't be
 * @param {ClaudeSignIn} [parts.signIn] Claude Code's own sign-in; without it there is none
 * @param {SessionOpener} [parts.opener] Brings terminals forward; without it none can be
 * @param {Object} [who] Whose routes these are
 * @param {string} [who.prefix='/v1']
 * @param {string} [who.by=LOCAL_DECIDER] Who an answer to an approval is recorded as
 * @param {boolean} [who.device=false] A paired device's: its token and not the
 *     admin token opens them, and the Mac's account and readings are left out
 * @param {number} [who.limit=MAX_BODY_BYTES] The largest body read
 */
export function addActionRoutes(
  router,
  { state, codex = null, continuer = null, signIn = null, opener = null },
  { prefix = '/v1', by = LOCAL_DECIDER, device = false, limit = MAX_BODY_BYTES } = {},
) {
  const requireSession = (id) => {
    if (state.session(id) === undefined) throw notFound('session', id);
  };
  const requireContinuer = () => {
    if (continuer === null) throw new HttpError(503, 'no_terminals', 'This service can’t reach any terminal to continue a session in.');
    return continuer;
  };
  const requireSignIn = () => {
    if (signIn === null) throw new HttpError(503, 'no_sign_in', 'This service can’t sign Claude Code in.');
    return signIn;
  };

  const access = { device };
  router
    .add('POST', `${prefix}/approvals/:id/decision`, async ({ req, params }) => {
      const { decision } = await readJsonObject(req, limit);
      if (!DECISIONS.includes(decision)) {
        throw invalid('decision', 'The decision must be “allow”, “deny”, “session” or “always”.');
      }
      if (state.resolveApproval(params.id, { decision, by }) !== null) return { ok: true };
      // Answered already (on the phone, say) or withdrawn: the user's wish was
      // overtaken, which the app takes as done. An id never seen is an error.
      if (state.approvalLeft(params.id)) {
        throw new HttpError(409, 'already_resolved', 'That approval was already answered, or it’s no longer waiting.');
      }
      throw notFound('approval', params.id);
    }, access)
    .add('POST', `${prefix}/sessions/:id/open`, async ({ req, params }) => {
      await readJsonObject(req, limit);
      requireSession(params.id);
      if (opener === null) throw new HttpError(503, 'no_windows', 'This service can’t reach any terminal window.');
      try {
        return await opener.open(params.id);
      } catch (error) {
        if (error instanceof RaiseError) throw new HttpError(409, error.code, error.message);
        throw error;
      }
    }, access)
    .add('POST', `${prefix}/sessions/:id/continue`, async ({ req, params }) => {
      await readJsonObject(req, limit);
      requireSession(params.id);
      await requireContinuer().continueNow(params.id);
      return { ok: true };
    }, access)
    .add('POST', `${prefix}/sessions/:id/auto-continue`, async ({ req, params }) => {
      const on = requireBoolean(await readJsonObject(req, limit), 'on');
      requireSession(params.id);
      requireContinuer().arm(params.id, on);
      return { ok: true };
    }, access);
  if (device) return;
  router
    .add('POST', '/v1/account/login', async ({ req }) => {
      const where = requireText(await readJsonObject(req), 'where', WHERE_SENTENCE);
      if (!WHERE.test(where)) throw invalid('where', WHERE_SENTENCE);
      return { account: await requireSignIn().start(where) };
    })
    .add('POST', '/v1/account/login/code', async ({ req }) => {
      requireSignIn().typeCode((await readJsonObject(req)).code);
      return { ok: true };
    })
    .add('POST', '/v1/usage/refresh', async ({ req }) => {
      await readJsonObject(req);
      // The windows come with Claude Code's own replies; nothing here can ask
      // for them afresh without spending the person's usage. So the reading
      // held is given as it is, and called stale once it is old.
      const held = objectOr(state.part('usage'), null);
      if (held === null) return { usage: { source: 'none' } };
      const old = !Number.isFinite(held.observedAt) || Date.now() - held.observedAt > USAGE_STALE_MS;
      if (old && held.source !== 'stale') state.setSnapshotParts({ usage: { ...held, source: 'stale' } });
      return { usage: state.part('usage') };
    })
    .add('POST', '/v1/codex/refresh', async ({ req }) => {
      await readJsonObject(req);
      if (codex) await codex.refresh();
      return { codex: state.part('codex') ?? null };
    });
}
