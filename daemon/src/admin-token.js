// The admin token: the one secret that lets a local program use the local
// port. It lives in the support folder, readable by this user alone, and is
// never written to a log or a command line.

import { createHash, randomBytes, timingSafeEqual } from 'node:crypto';
import fs from 'node:fs';
import path from 'node:path';

import { PRIVATE_FILE_MODE, writeFileAtomically } from './private-files.js';

export const ADMIN_TOKEN_FILE = 'admin-token';

/** Random bytes in a new token; it is written as twice as many hex digits. */
export const ADMIN_TOKEN_BYTES = 32;

/**
 * Gives the token of the support folder, making one when the file is missing
 * or holds only white space. An existing token is kept, so that a restart
 * doesn't lock out the app that already read it.
 *
 * @param {string} support The support folder, which must exist
 * @return {{token: string, created: boolean, tightened: boolean}} `tightened`
 *     tells that an existing file had looser permissions than 0600 and was
 *     set back to 0600
 */
export function loadAdminToken(support) {
  return loadToken(support, ADMIN_TOKEN_FILE);
}

/**
 * Gives a token kept in a private file of the support folder, as
 * loadAdminToken does.
 *
 * @param {string} support
 * @param {string} name The file's name
 * @return {{token: string, created: boolean, tightened: boolean}}
 */
export function loadToken(support, name) {
  const file = path.join(support, name);
  let existing = '';
  try {
    existing = fs.readFileSync(file, 'utf8').trim();
  } catch (error) {
    if (error.code !== 'ENOENT') throw error;
  }
  if (existing !== '') {
    const mode = fs.statSync(file).mode & 0o777;
    if (mode !== PRIVATE_FILE_MODE) fs.chmodSync(file, PRIVATE_FILE_MODE);
    return { token: existing, created: false, tightened: mode !== PRIVATE_FILE_MODE };
  }
  const token = randomBytes(ADMIN_TOKEN_BYTES).toString('hex');
  writeFileAtomically(file, token, PRIVATE_FILE_MODE);
  return { token, created: true, tightened: false };
}

const digest = (text) => createHash('sha256').update(text, 'utf8').digest();

/**
 * @param {string|undefined} header The Authorization header as received
 * @return {string|null} The bearer credential it carries
 */
export function bearerOf(header) {
  if (typeof header !== 'string') return null;
  return /^Bearer[ \t]+([^ \t]+)[ \t]*$/i.exec(header)?.[1] ?? null;
}

/**
 * Whether an Authorization header carries the token. The comparison takes
 * the same time wherever the first difference lies, and whatever the length
 * of the guess, since both sides are hashed to one length first.
 *
 * @param {string|undefined} header The Authorization header as received
 * @param {string} token
 * @return {boolean}
 */
export function bearerMatches(header, token) {
  const given = bearerOf(header);
  if (given === null || !token) return false;
  return timingSafeEqual(digest(given), digest(token));
}
