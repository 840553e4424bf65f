// The Mac's settings, as the app changes them on the local port: Codex,
// the built-in Tailscale node, browsing outside the projects folder, the
// private-name service; signing the built-in node out. (Forgetting a device
// is pairing's: phone/phone-routes.js.)

import { HttpError, invalid } from './http-reply.js';
import { readJsonObject } from './request-body.js';
import { objectOr } from './json.js';

/**
 * Each setting the app may post, and where it lands: a snapshot part or a
 * local one, and the boolean field in it.
 */
export const SETTINGS = Object.freeze({
  codex: { snapshot: 'codex', field: 'enabled' },
  builtInTailscale: { local: 'tsnet', field: 'enabled' },
  browseOutsideProjects: { local: 'files', field: 'browseOutsideProjects' },
  nameService: { local: 'name', field: 'setting' },
});

const NAMES = Object.keys(SETTINGS);
const listed = `${NAMES.slice(0, -1).join(', ')} and ${NAMES.at(-1)}`;

/**
 * Checks a settings body whole before anything changes, so that a bad key
 * never leaves half of a body applied.
 *
 * @param {Object} body
 * @return {Array<[string, boolean]>}
 * @throws {HttpError} 400 naming the field at fault
 */
export function parseSettings(body) {
  const entries = Object.entries(body);
  if (entries.length === 0) throw new HttpError(400, 'invalid', `Give at least one setting: ${listed}.`);
  for (const [name, value] of entries) {
    if (!Object.hasOwn(SETTINGS, name)) throw invalid(name, `“${name}” isn’t a setting; the settings are ${listed}.`);
    if (typeof value !== 'boolean') throw invalid(name, `“${name}” must be true or false.`);
  }
  return entries;
}

/**
 * @param {Router} router
 * @param {Object} parts
 * @param {ServiceState} parts.state
 */
export function addSettingsRoutes(router, { state }) {
  router
    .add('POST', '/local/settings', async ({ req }) => {
      const entries = parseSettings(await readJsonObject(req));
      for (const [name, on] of entries) {
        const { snapshot, local, field } = SETTINGS[name];
        if (snapshot) state.setSnapshotParts({ [snapshot]: { ...objectOr(state.part(snapshot), {}), [field]: on } });
        else state.setLocalParts({ [local]: { ...objectOr(state.localPart(local), {}), [field]: on } });
      }
      // No private name is held yet, so turning the service off gives none up.
      return entries.some(([name]) => name === 'nameService') ? { nameRelease: { released: false } } : { ok: true };
    })
    .add('POST', '/local/tsnet/logout', async ({ req }) => {
      await readJsonObject(req);
      // The built-in node comes later; there is nothing to sign out of yet,
      // and the answer is the status as it stands.
      return state.localStatus();
    });
}
