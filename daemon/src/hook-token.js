// The hook credential: what Claude Code's HTTP hooks carry in the settings
// file instead of the admin token. It opens one door, the one that takes
// reported hook events, and nothing else; it can't answer an approval.

import { loadToken } from './admin-token.js';

export const HOOK_TOKEN_FILE = 'hook-token';

/**
 * Gives the support folder's hook credential, made when missing; kept as
 * the admin token is, in a private file written in one step.
 *
 * @param {string} support The support folder, which must exist
 * @return {{token: string, created: boolean, tightened: boolean}}
 */
export function loadHookToken(support) {
  return loadToken(support, HOOK_TOKEN_FILE);
}
