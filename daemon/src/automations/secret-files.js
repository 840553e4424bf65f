// Files that hold secrets by their name: no automation may write to them,
// watch them or hand them to a session.

import path from 'node:path';

const SECRET_NAMES = [
  /^\.env(\..*)?$/i,
  /^\.(npmrc|netrc|pypirc|pgpass|git-credentials)$/i,
  /^id_(rsa|dsa|ecdsa|ed25519)(\.pub)?$/i,
  /\.(pem|key|p12|pfx|jks|keystore|kdbx|gpg|asc)$/i,
  /^(credentials|secrets?)(\..*)?$/i,
  /^admin-token$/,
];

const SECRET_FOLDERS = new Set(['.git', '.ssh', '.gnupg', '.aws']);

/**
 * @param {string} file A path, absolute or relative
 * @return {boolean} Whether the file's name, or a folder it lies in, marks it as holding secrets
 */
export function isSecretFile(file) {
  const parts = file.split(/[\\/]+/).filter(Boolean);
  if (parts.slice(0, -1).some((part) => SECRET_FOLDERS.has(part))) return true;
  const name = path.basename(file);
  return SECRET_FOLDERS.has(name) || SECRET_NAMES.some((pattern) => pattern.test(name));
}
