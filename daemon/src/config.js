// Where the service keeps its files and which ports it listens on, decided
// from the environment by the same rules the app uses, so that the app and
// the service it started always agree.

import os from 'node:os';
import path from 'node:path';

export const DEFAULT_API_PORT = 47321;
export const DEFAULT_LOCAL_PORT = 47322;
/** The LAN route's port: phones on the same network connect here over HTTPS. */
export const DEFAULT_LAN_PORT = 47323;
/** Where a pair link leads a phone that has no app yet; the fragment stays on the phone. */
export const DEFAULT_PAIR_ORIGIN = 'https://tidewatch.app';

const INT_MAX = 2 ** 31 - 1;

/**
 * Reads a port variable: decimal digits with one optional leading sign, no
 * white space, within a 32-bit int. There is no range check here; a port the
 * system refuses fails at listen time with its own sentence.
 *
 * @param {string|undefined} text The variable's value
 * @return {number|null} The port, or null when the text doesn't parse
 */
export function parsePort(text) {
  if (typeof text !== 'string') return null;
  const match = /^([+-]?)([0-9]+)$/.exec(text);
  if (!match) return null;
  const negative = match[1] === '-';
  const value = Number(match[2]);
  if (!Number.isSafeInteger(value) || value > INT_MAX + (negative ? 1 : 0)) return null;
  return negative ? -value : value;
}

/**
 * Reads the pairing origin: an https origin (http only for the loopback, for
 * trying a page out), without path, query or fragment.
 *
 * @param {string|undefined} text
 * @return {string|null} The origin, or null when the text isn't one
 */
export function parseOrigin(text) {
  if (typeof text !== 'string') return null;
  let url;
  try {
    url = new URL(text);
  } catch {
    return null;
  }
  const loopback = ['127.0.0.1', 'localhost', '[::1]'].includes(url.hostname);
  const bare = (url.pathname === '/' || url.pathname === '') && url.search === '' && url.hash === '' && url.username === '';
  return bare && (url.protocol === 'https:' || (url.protocol === 'http:' && loopback)) ? url.origin : null;
}

// An XDG variable counts only when it holds an absolute path, as the
// base-directory rules say.
function xdgFolder(env, name, fallback) {
  const value = env[name];
  return value && path.isAbsolute(value) ? value : fallback;
}

/**
 * The service's configuration.
 *
 * @param {Object} [env=process.env] The environment
 * @param {Object} [system] The system, replaceable by tests
 * @param {string} [system.platform=process.platform]
 * @param {string} [system.home=os.homedir()]
 * @return {{support: string, logs: string, shellHome: string, shell: string, apiPort: number,
 *     localPort: number, lanPort: number, pairOrigin: string, testCopy: boolean, codexHome: string,
 *     codexPath: (string|null), claudeSettings: string, tsnetHelper: (string|null), projects: string}} `lanPort` is
 *     `TIDEWATCH_LAN_PORT`, else 47323 (a test copy: any free port); `pairOrigin` is
 *     `TIDEWATCH_PAIR_ORIGIN` when it is an origin, else the default; `shellHome` holds the start files the shell integration changes `codexHome` is Codex's
 *     own folder, `CODEX_HOME` as Codex reads it, else ~/.codex (a test copy
 *     without `CODEX_HOME` gets an empty one in its support folder, so that it
 *     never reads the person's sessions); `codexPath` is the program named
 *     by `TIDEWATCH_CODEX`, else null for looking it up; `tsnetHelper` is
 *     the built-in Tailscale node's helper program named by
 *     `TIDEWATCH_TSNET_HELPER`, else null: no built-in node can start; `projects`, where every
 *     automation's project lies, is `TIDEWATCH_PROJECTS`, else ~/Programming (a test copy's is
 *     in its support folder, so that its automations never reach the person's projects)
 */
// launchd and systemd start services without SHELL; the account knows.
function loginShell() {
  try {
    return os.userInfo().shell ?? '/bin/sh';
  } catch {
    return '/bin/sh';
  }
}

export function readConfig(env = process.env, { platform = process.platform, home = os.homedir() } = {}) {
  const given = (name) => (typeof env[name] === 'string' && env[name] !== '' ? env[name] : null);
  const testCopy = ['TIDEWATCH_SUPPORT', 'TIDEWATCH_LOGS', 'TIDEWATCH_API_PORT', 'TIDEWATCH_LOCAL_PORT'].some(
    (name) => given(name) !== null,
  );

  const mac = platform === 'darwin';
  const realSupport = mac
    ? path.join(home, 'Library', 'Application Support', 'Tidewatch')
    : path.join(xdgFolder(env, 'XDG_DATA_HOME', path.join(home, '.local', 'share')), 'Tidewatch');
  const realLogs = mac
    ? path.join(home, 'Library', 'Logs', 'Tidewatch')
    : path.join(xdgFolder(env, 'XDG_STATE_HOME', path.join(home, '.local', 'state')), 'Tidewatch', 'logs');

  const support = given('TIDEWATCH_SUPPORT') !== null ? path.resolve(given('TIDEWATCH_SUPPORT')) : realSupport;
  let logs = realLogs;
  if (given('TIDEWATCH_LOGS') !== null) logs = path.resolve(given('TIDEWATCH_LOGS'));
  else if (testCopy) logs = path.join(support, 'logs');

  let codexHome = testCopy ? path.join(support, 'codex-home') : path.join(home, '.codex');
  if (given('CODEX_HOME') !== null) codexHome = path.resolve(given('CODEX_HOME'));

  // Claude Code's user settings, where the integration goes: the same rule,
  // so a test copy never connects the person's own Claude Code.
  let claudeSettings = testCopy
    ? path.join(support, 'claude-home', '.claude', 'settings.json')
    : path.join(home, '.claude', 'settings.json');
  if (given('CLAUDE_CONFIG_DIR') !== null) claudeSettings = path.join(path.resolve(given('CLAUDE_CONFIG_DIR')), 'settings.json');

  // The login shell's start files get the shell integration; a test copy's
  // live in its own folder.
  const shellHome = testCopy ? path.join(support, 'shell-home') : home;
  let projects = testCopy ? path.join(support, 'projects') : path.join(home, 'Programming');
  if (given('TIDEWATCH_PROJECTS') !== null) projects = path.resolve(given('TIDEWATCH_PROJECTS'));

  return {
    support,
    logs,
    shellHome,
    shell: given('SHELL') ?? loginShell(),
    apiPort: parsePort(given('TIDEWATCH_API_PORT')) ?? DEFAULT_API_PORT,
    localPort: parsePort(given('TIDEWATCH_LOCAL_PORT')) ?? DEFAULT_LOCAL_PORT,
    lanPort: parsePort(given('TIDEWATCH_LAN_PORT')) ?? (testCopy ? 0 : DEFAULT_LAN_PORT),
    pairOrigin: parseOrigin(given('TIDEWATCH_PAIR_ORIGIN')) ?? DEFAULT_PAIR_ORIGIN,
    testCopy,
    codexHome,
    claudeSettings,
    codexPath: given('TIDEWATCH_CODEX') !== null ? path.resolve(given('TIDEWATCH_CODEX')) : null,
    tsnetHelper: given('TIDEWATCH_TSNET_HELPER') !== null ? path.resolve(given('TIDEWATCH_TSNET_HELPER')) : null,
    projects,
  };
}
