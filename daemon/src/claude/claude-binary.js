// Finding the `claude` program and its version, which decides how its hooks
// reach the service: Claude Code that takes HTTP hooks posts its reports
// straight to the local port; an older one runs the hook program for each.

import { compareVersions, findProgram, readVersion } from '../codex/codex-binary.js';

/**
 * The first Claude Code whose settings take `"type": "http"` hooks, with
 * `headers` and `allowedEnvVars`. Older releases refuse such an entry and
 * with it the settings file, so they keep the command hooks.
 */
export const MIN_HTTP_HOOKS_VERSION = '2.1.63';

/**
 * Reads the version out of `claude --version`'s answer, such as
 * "2.1.330 (Claude Code)": the first word of its first line.
 *
 * @param {string} output
 * @return {string|null}
 */
export function claudeVersionFromOutput(output) {
  const first = output.split(/\r?\n/).find((line) => line.trim() !== '');
  const word = first?.trim().split(/\s+/)[0].replace(/^v/, '');
  return word && /^\d+(\.\d+)+([-+][0-9A-Za-z.-]+)?$/.test(word) ? word : null;
}

/**
 * @param {string|null} version
 * @return {boolean} Whether this Claude Code takes HTTP hooks; an unknown one doesn't
 */
export function takesHttpHooks(version) {
  return typeof version === 'string' && compareVersions(version, MIN_HTTP_HOOKS_VERSION) >= 0;
}

/**
 * Finds `claude` and asks its version.
 *
 * @param {Object} where As for findProgram: `named`, `searchPath`, `folders`
 * @param {Object} [options] As for readVersion: `timeoutMs`, `env`
 * @return {Promise<{path: (string|null), version: (string|null)}>}
 */
export async function detectClaude(where, options = {}) {
  const found = findProgram('claude', where);
  const version = found ? await readVersion(found, { ...options, parse: claudeVersionFromOutput }) : null;
  return { path: found, version };
}
