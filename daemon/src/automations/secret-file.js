// Files that hold secrets, which no automation reads or writes: keys,
// credentials, environment files, and the folders that keep them.

const SECRET_FOLDERS = new Set(['.git', '.ssh', '.gnupg', '.aws', '.kube', '.docker']);
const SECRET_NAMES = [
  /^\.env(\..*)?$/i,
  /^\.(npmrc|netrc|pypirc|pgpass|git-credentials)$/i,
  /^id_(rsa|dsa|ecdsa|ed25519)(\.pub)?$/i,
  /\.(pem|key|p12|pfx|jks|keystore|kdbx|asc|gpg)$/i,
  /^(credentials|secrets?)(\..*)?$/i,
  /^admin-token$/,
];

/**
 * Whether a path inside a project names a secret file, or a file in a folder of secrets.
 *
 * @param {string} relative The path from the project folder, with "/" between its parts
 * @return {boolean}
 */
export function isSecretFile(relative) {
  const parts = relative.split(/[/\\]+/).filter(Boolean);
  if (parts.slice(0, -1).some((part) => SECRET_FOLDERS.has(part))) return true;
  const name = parts.at(-1) ?? '';
  return SECRET_FOLDERS.has(name) || SECRET_NAMES.some((pattern) => pattern.test(name));
}
