// Finding the `codex` program and asking its version, and what follows for
// the `codex` record: there, usable, or too old.

import { execFile } from 'node:child_process';
import fs from 'node:fs';
import path from 'node:path';

/**
 * The oldest Codex this service works with. Its session records carry the
 * rate-limit windows as `rate_limits.primary` / `secondary` from 0.40.0 on;
 * the sessions the phone starts and the shared terminal need 0.163.0.
 */
export const MIN_CODEX_VERSION = '0.163.0';

/** How long `codex --version` may take, in milliseconds. */
export const VERSION_TIMEOUT_MS = 8000;

/** The most of its answer that is read. */
const MAX_VERSION_OUTPUT = 4096;

/**
 * Where Codex is installed when the service's own PATH (launchd gives it a
 * short one) doesn't lead to it: npm's and Homebrew's folders, the user's.
 *
 * @param {string} home
 * @return {Array<string>}
 */
export function usualFolders(home) {
  const folders = [
    path.join(home, '.local', 'bin'),
    '/opt/homebrew/bin',
    '/usr/local/bin',
    path.join(home, '.npm-global', 'bin'),
    path.join(home, '.volta', 'bin'),
    path.join(home, '.bun', 'bin'),
  ];
  // nvm keeps one folder per Node.js; the newest first.
  try {
    const versions = path.join(home, '.nvm', 'versions', 'node');
    const names = fs.readdirSync(versions).sort(compareVersions).reverse();
    for (const name of names) folders.push(path.join(versions, name, 'bin'));
  } catch {
    // no nvm
  }
  return folders;
}

function isExecutableFile(file) {
  try {
    if (!fs.statSync(file).isFile()) return false;
    fs.accessSync(file, fs.constants.X_OK);
    return true;
  } catch {
    return false;
  }
}

/**
 * The `codex` to use: the one named, else the first on the search path,
 * else the first in the usual folders.
 *
 * @param {Object} options
 * @param {string|null} [options.named] A path chosen by configuration; when
 *     given, nothing else is looked at
 * @param {Array<string>} options.searchPath Folders of PATH, in order
 * @param {Array<string>} [options.folders=[]] The usual folders, after PATH
 * @return {string|null} An executable file, or null
 */
export function findCodex(options) {
  return findProgram('codex', options);
}

/**
 * A program by its name, found as `findCodex` finds `codex`.
 *
 * @param {string} name
 * @param {Object} options As for findCodex
 * @return {string|null}
 */
export function findProgram(name, { named = null, searchPath, folders = [] }) {
  if (named) return isExecutableFile(named) ? path.resolve(named) : null;
  for (const folder of [...searchPath, ...folders]) {
    if (!folder || !path.isAbsolute(folder)) continue;
    const file = path.join(folder, name);
    if (isExecutableFile(file)) return file;
  }
  return null;
}

/**
 * Reads a version out of `codex --version`'s answer, such as
 * "codex-cli 0.46.0": the last word of its first line.
 *
 * @param {string} output
 * @return {string|null}
 */
export function versionFromOutput(output) {
  const first = output.split(/\r?\n/).find((line) => line.trim() !== '');
  if (!first) return null;
  const word = first.trim().split(/\s+/).at(-1).replace(/^v/, '');
  return /^\d+(\.\d+)*([-+][0-9A-Za-z.-]+)?$/.test(word) ? word : null;
}

/**
 * Compares two versions by their numbers, part by part; a suffix such as
 * "-alpha.2" counts as the same release.
 *
 * @return {number} Negative, zero or positive, as for a sort
 */
export function compareVersions(a, b) {
  const numbers = (version) =>
    String(version)
      .replace(/^v/, '')
      .split(/[-+]/)[0]
      .split('.')
      .map((part) => Number.parseInt(part, 10) || 0);
  const x = numbers(a);
  const y = numbers(b);
  for (let i = 0; i < Math.max(x.length, y.length); i++) {
    const difference = (x[i] ?? 0) - (y[i] ?? 0);
    if (difference !== 0) return difference;
  }
  return 0;
}

/**
 * Runs `<binary> --version`, without a shell, within the time limit.
 *
 * @param {string} binary
 * @param {Object} [options]
 * @param {number} [options.timeoutMs=VERSION_TIMEOUT_MS]
 * @param {Object} [options.env=process.env]
 * @return {Promise<string|null>} The version, or null when it failed,
 *     took too long or said nothing readable
 */
export function readCodexVersion(binary, options = {}) {
  return readVersion(binary, options);
}

/**
 * Runs `<binary> --version` as readCodexVersion does.
 *
 * @param {string} binary
 * @param {Object} [options] As for readCodexVersion, and:
 * @param {function(string): (string|null)} [options.parse=versionFromOutput] Reads the answer
 * @return {Promise<string|null>}
 */
export function readVersion(binary, { timeoutMs = VERSION_TIMEOUT_MS, env = process.env, parse = versionFromOutput } = {}) {
  return new Promise((resolve) => {
    execFile(
      binary,
      ['--version'],
      { timeout: timeoutMs, killSignal: 'SIGKILL', maxBuffer: MAX_VERSION_OUTPUT, env, windowsHide: true },
      (error, stdout) => resolve(error ? null : parse(String(stdout))),
    );
  });
}

/**
 * What the `codex` record says of the program: found or not, its version,
 * and a sentence when it can't be used.
 *
 * @param {Object} found
 * @param {string|null} found.path
 * @param {string|null} found.version
 * @param {string} [min=MIN_CODEX_VERSION]
 * @return {Object} {available} alone when there is no Codex; otherwise
 *     {available, version?, min, path, problem?}
 */
export function binaryFields({ path: binary, version }, min = MIN_CODEX_VERSION) {
  // Without a Codex nothing else is said: a `min` alone would read as one
  // that is too old.
  if (!binary) return { available: false };
  if (version === null) {
    return {
      available: true,
      min,
      path: binary,
      problem: `Codex at ${binary} didn’t say which version it is, so Tidewatch can’t tell whether it can follow it.`,
    };
  }
  if (compareVersions(version, min) < 0) {
    return {
      available: false,
      version,
      min,
      path: binary,
      problem: `Codex ${version} is too old for Tidewatch, which needs ${min} or later.`,
    };
  }
  return { available: true, version, min, path: binary };
}
