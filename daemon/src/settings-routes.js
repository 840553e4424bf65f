// The Mac's settings, as the app changes them on the local port: Codex,
// the built-in Tailscale node, browsing outside the projects folder, the
// private-name service. (Signing the built-in node out is phone access's:
// tailscale/phone-access.js; forgetting a device is pairing's:
// phone/phone-routes.js.)

import { HttpError, invalid } from './http-reply.js';
import { readJsonObject } from './request-body.js';
import { isObject, objectOr } from './json.js';

// One boolean field of a part, the rest of the part kept.
const withField = (part, field, on) => ({ ...objectOr(part, {}), [field]: on });

/**
 * Each setting the app may post, and how it acts: `apply(parts, on)` with
 * the parts given to addSettingsRoutes; `kept` ones are saved at once and
 * survive a restart.
 */
export const SETTINGS = Object.freeze({
  codex: {
    apply: ({ state }, on) => state.setSnapshotParts({ codex: withField(state.part('codex'), 'enabled', on) }),
    kept: true,
  },
  builtInTailscale: { apply: ({ node }, on) => node.choose(on), kept: true },
  browseOutsideProjects: {
    apply: ({ state }, on) => state.setLocalParts({ files: withField(state.localPart('files'), 'browseOutsideProjects', on) }),
    kept: true,
  },
  nameService: {
    apply: ({ state }, on) => state.setLocalParts({ name: withField(state.localPart('name'), 'setting', on) }),
    kept: true,
  },
});

/**
 * The settings kept in the service's file (a section of the persister's),
 * read from where they act and put back there at start.
 *
 * @param {Object} parts
 * @param {ServiceState} parts.state
 * @param {BuiltInNode} parts.node
 * @return {{save: function(): Object, restore: function(*): void}}
 */
export function keptSettings({ state, node }) {
  return {
    save: () => ({
      builtInTailscale: node.chosen,
      browseOutsideProjects: state.localPart('files')?.browseOutsideProjects === true,
      nameService: state.localPart('name')?.setting === true,
    }),
    restore: (saved) => {
      if (!isObject(saved)) return;
      for (const name of ['builtInTailscale', 'browseOutsideProjects', 'nameService']) {
        if (typeof saved[name] === 'boolean') SETTINGS[name].apply({ state, node }, saved[name]);
      }
    },
  };
}

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
 * @param {BuiltInNode} parts.node The built-in Tailscale node
 * @param {function(): void} parts.keep Writes the kept settings now
 */
export function addSettingsRoutes(router, { state, node, keep }) {
  router
    .add('POST', '/local/settings', async ({ req }) => {
      const entries = parseSettings(await readJsonObject(req));
      for (const [name, on] of entries) SETTINGS[name].apply({ state, node }, on);
      if (entries.some(([name]) => SETTINGS[name].kept)) keep();
      // The helper may have something to say as soon as the node is chosen.
      if (entries.some(([name, on]) => name === 'builtInTailscale' && on)) await node.refresh();
      // No private name is held yet, so turning the service off gives none up.
      return entries.some(([name]) => name === 'nameService') ? { nameRelease: { released: false } } : { ok: true };
    });
}
