// Whether Claude Code is signed in here, and on which plan, from its own
// files in the home the service runs under: the sign-in it keeps
// (`.credentials.json` in its folder; on a Mac the keychain, where only the
// account in `.claude.json` shows it) and the account it last read.
//
// The files are watched and looked over now and then; what they say is put
// on the `account` record only when it changes, so that a limit or a lost
// sign-in that a failed turn reported stands until the files say something
// new. Nothing of the token is kept: whether there is one, and a digest that
// tells a new sign-in from the old one.

import { createHash } from 'node:crypto';
import fs from 'node:fs';
import fsp from 'node:fs/promises';
import path from 'node:path';
import { isObject } from '../json.js';

/** The files are looked over this often, for changes a watch missed, in milliseconds. */
export const LOOK_OVER_MS = 30 * 1000;

/** A change is read this long after the last event about it, in milliseconds. */
export const SETTLE_MS = 200;

/** The largest `.claude.json` read; it grows with every project Claude Code remembers. */
export const MAX_CONFIG_BYTES = 64 * 1024 * 1024;

/** The largest `.credentials.json` read; Claude Code's own are a few hundred bytes. */
export const MAX_CREDENTIALS_BYTES = 1024 * 1024;

const PLANS = new Map([
  ['max', 'Max'],
  ['pro', 'Pro'],
  ['team', 'Team'],
  ['enterprise', 'Enterprise'],
]);

/** States the files can neither cause nor clear: they come from what the account's server said. */
const KEPT_STATES = new Set(['no_subscription', 'on_hold', 'no_credit']);

const digest = (text) => createHash('sha256').update(text).digest('hex').slice(0, 16);
const shortText = (value) =>
  typeof value === 'string' && value.trim() !== '' && value.length <= 60 ? value.trim() : null;

/**
 * Where Claude Code keeps its account and sign-in, for its folder.
 *
 * @param {string} claudeDir `~/.claude`, or the folder CLAUDE_CONFIG_DIR names
 * @return {{config: string, credentials: string}}
 */
export function accountFiles(claudeDir) {
  // ~/.claude's account sits beside it in ~/.claude.json; a folder of
  // another name holds its own.
  const config =
    path.basename(claudeDir) === '.claude'
      ? path.join(path.dirname(claudeDir), '.claude.json')
      : path.join(claudeDir, '.claude.json');
  return { config, credentials: path.join(claudeDir, '.credentials.json') };
}

/**
 * @param {*} subscriptionType Claude Code's word: "max", "pro", "team", "enterprise"
 * @param {*} [displayName] The plan's own name, when the account gave one
 * @return {string|null} The plan's name as it follows "Claude": "Max", "Pro"
 */
export function planName(subscriptionType, displayName) {
  const own = shortText(displayName);
  if (own) return own;
  const word = shortText(subscriptionType)?.toLowerCase();
  if (!word) return null;
  return PLANS.get(word) ?? word[0].toUpperCase() + word.slice(1);
}

/**
 * @typedef {Object} SignIn What Claude Code's files say
 * @property {string} kind "signed_in"; "expired" (the sign-in ran out and
 *     waits for a new one); "signed_out"; or "none" when they tell nothing
 *     (no files, or only a key in use)
 * @property {string|null} plan
 * @property {string} mark Tells one sign-in from another; "" without one
 */

/**
 * What the files say about the sign-in.
 *
 * @param {Object} files
 * @param {Object|null} files.config `.claude.json` parsed; null when absent
 * @param {Object|null} files.credentials `.credentials.json` parsed; null when absent
 * @param {boolean} [files.keychain] The sign-in may live in the keychain (a
 *     Mac), so an account without a credentials file is signed in
 * @return {SignIn}
 */
export function signInFrom({ config, credentials, keychain = false }) {
  const account = isObject(config?.oauthAccount) ? config.oauthAccount : null;
  const oauth = isObject(credentials?.claudeAiOauth) ? credentials.claudeAiOauth : null;
  if (oauth) {
    const plan = planName(oauth.subscriptionType, account?.planDisplayName);
    // Claude Code empties the tokens of a sign-in that can't be renewed.
    if (typeof oauth.accessToken === 'string' && oauth.accessToken !== '') {
      return { kind: 'signed_in', plan, mark: digest(oauth.accessToken) };
    }
    return { kind: 'expired', plan, mark: '' };
  }
  if (keychain && account && typeof account.accountUuid === 'string') {
    return {
      kind: 'signed_in',
      plan: planName(null, account.planDisplayName),
      mark: digest(`${account.accountUuid}/${account.organizationUuid ?? ''}`),
    };
  }
  if (!isObject(config)) return { kind: 'none', plan: null, mark: '' };
  // Someone on an API key was never signed in; nothing is wrong there.
  const approved = config.customApiKeyResponses?.approved;
  if (typeof config.primaryApiKey === 'string' || (Array.isArray(approved) && approved.length > 0)) {
    return { kind: 'none', plan: null, mark: '' };
  }
  return { kind: 'signed_out', plan: null, mark: '' };
}

/**
 * The account after the files said something new.
 *
 * @param {Object|undefined} account The record as it stands
 * @param {SignIn} signIn
 * @param {number} now Epoch ms
 * @return {Object} The new record
 */
export function accountAfterSignIn(account, signIn, now) {
  const current = isObject(account) ? account : { state: 'unknown' };
  if (signIn.kind === 'none') return current;
  if (KEPT_STATES.has(current.state)) {
    if (signIn.kind !== 'signed_in' || !signIn.plan) return current;
    return { ...current, plan: signIn.plan };
  }
  const limit = current.limit;
  const limitInForce = isObject(limit) && !(Number.isFinite(limit.resetsAt) && limit.resetsAt <= now);

  if (signIn.kind === 'signed_in') {
    // A sign-in that finished ends the one in progress and any sign-in trouble.
    const next = { ...current };
    for (const key of ['reason', 'text', 'since', 'login', 'limit', 'plan']) delete next[key];
    if (signIn.plan) next.plan = signIn.plan;
    if (limitInForce) {
      // A limit in force outlives a new sign-in: it belongs to the account.
      next.state = 'limited';
      next.limit = limit;
      next.since = current.state === 'limited' && current.since !== undefined ? current.since : now;
      if (current.state === 'limited' && current.text !== undefined) next.text = current.text;
    } else {
      next.state = 'ok';
    }
    return next;
  }

  // Signed out or expired: the limit, if any, waits for the next sign-in.
  const next = {
    ...current,
    state: 'logged_out',
    reason: signIn.kind === 'expired' ? 'expired' : 'not_logged_in',
    since: current.state === 'logged_out' && current.since !== undefined ? current.since : now,
  };
  delete next.text;
  if (!limitInForce) delete next.limit;
  if (signIn.kind === 'signed_out') delete next.plan;
  else if (signIn.plan) next.plan = signIn.plan;
  return next;
}

// A file's identity and size and time, to read it only when it changed.
async function stamp(file) {
  try {
    const stat = await fsp.stat(file);
    return `${stat.ino}:${stat.size}:${stat.mtimeMs}`;
  } catch {
    return 'absent';
  }
}

// A JSON object from a file: null when absent, undefined when it can't be
// read now (too large, half written, not JSON). The parse error is never
// passed on: its message can quote the file, and this one holds a token.
async function readJson(file, maxBytes) {
  let handle;
  try {
    handle = await fsp.open(file, 'r');
  } catch (error) {
    return error.code === 'ENOENT' || error.code === 'ENOTDIR' ? null : undefined;
  }
  try {
    const stat = await handle.stat();
    if (!stat.isFile() || stat.size > maxBytes) return undefined;
    const value = JSON.parse(await handle.readFile('utf8'));
    return isObject(value) ? value : undefined;
  } catch {
    return undefined;
  } finally {
    await handle.close();
  }
}

/** Follows Claude Code's sign-in files and keeps the `account` record with them. */
export class ClaudeAccount {
  #state;
  #files;
  #log;
  #now;
  #keychain;
  #lookOverMs;
  #settleMs;
  #stamps = null;
  #said = null;
  #saidKind = 'none';
  #watchers = new Map();
  #lookOver = null;
  #settle = null;
  #reading = null;
  #again = false;
  #running = false;

  /**
   * @param {Object} options
   * @param {ServiceState} options.state
   * @param {string} options.claudeDir Claude Code's folder (see accountFiles)
   * @param {Log} [options.log]
   * @param {function(): number} [options.now=Date.now]
   * @param {boolean} [options.keychain] Whether sign-ins may live in the
   *     keychain; true on a Mac
   * @param {number} [options.lookOverMs=LOOK_OVER_MS]
   * @param {number} [options.settleMs=SETTLE_MS]
   */
  constructor({
    state,
    claudeDir,
    log = null,
    now = Date.now,
    keychain = process.platform === 'darwin',
    lookOverMs = LOOK_OVER_MS,
    settleMs = SETTLE_MS,
  }) {
    this.#state = state;
    this.#files = accountFiles(claudeDir);
    this.#log = log;
    this.#now = now;
    this.#keychain = keychain;
    this.#lookOverMs = lookOverMs;
    this.#settleMs = settleMs;
  }

  /** @return {{config: string, credentials: string}} The files followed. */
  get files() {
    return { ...this.#files };
  }

  /** Starts following; the first look is done when the promise settles. */
  start() {
    if (this.#running) return this.#reading ?? Promise.resolve();
    this.#running = true;
    this.#watch();
    this.#lookOver = setInterval(() => {
      this.#watch();
      this.refresh();
    }, this.#lookOverMs);
    this.#lookOver.unref?.();
    return this.refresh();
  }

  close() {
    this.#running = false;
    clearInterval(this.#lookOver);
    clearTimeout(this.#settle);
    this.#lookOver = null;
    for (const watcher of this.#watchers.values()) watcher?.close();
    this.#watchers.clear();
  }

  /**
   * Looks at the files and reads them if they changed.
   *
   * @return {Promise<void>}
   */
  refresh() {
    if (this.#reading) {
      this.#again = true;
      return this.#reading;
    }
    this.#reading = (async () => {
      do {
        this.#again = false;
        await this.#look();
      } while (this.#again && this.#running);
    })().finally(() => {
      this.#reading = null;
    });
    return this.#reading;
  }

  async #look() {
    const stamps = `${await stamp(this.#files.config)}|${await stamp(this.#files.credentials)}`;
    if (stamps === this.#stamps) return;
    const config = await readJson(this.#files.config, MAX_CONFIG_BYTES);
    const credentials = await readJson(this.#files.credentials, MAX_CREDENTIALS_BYTES);
    // Caught half written, or unreadable for now: the next change or look-over tries again.
    if (config === undefined || credentials === undefined) return;
    this.#stamps = stamps;
    let signIn = signInFrom({ config, credentials, keychain: this.#keychain });
    // The files went quiet about a sign-in they showed: it is gone.
    if (signIn.kind === 'none' && this.#saidKind === 'signed_in') signIn = { kind: 'signed_out', plan: null, mark: '' };
    const said = `${signIn.kind}|${signIn.plan ?? ''}|${signIn.mark}`;
    if (said === this.#said || !this.#running) return;
    this.#said = said;
    if (signIn.kind !== this.#saidKind && signIn.kind !== 'none') {
      this.#log?.info(
        signIn.kind === 'signed_in'
          ? `Claude Code is signed in${signIn.plan ? ` (${signIn.plan})` : ''}.`
          : `Claude Code is signed out${signIn.kind === 'expired' ? ' (its sign-in ran out)' : ''}.`,
      );
    }
    this.#saidKind = signIn.kind;
    this.#state.setSnapshotParts({ account: accountAfterSignIn(this.#state.part('account'), signIn, this.#now()) });
  }

  // Watches the folders, not the files: Claude Code replaces its files
  // whole, and a watch on a replaced file hears nothing more. A folder not
  // there yet is tried again at the next look-over.
  #watch() {
    const wanted = new Map();
    for (const file of [this.#files.config, this.#files.credentials]) {
      const folder = path.dirname(file);
      if (!wanted.has(folder)) wanted.set(folder, new Set());
      wanted.get(folder).add(path.basename(file));
    }
    for (const [folder, names] of wanted) {
      if (this.#watchers.get(folder)) continue;
      try {
        const watcher = fs.watch(folder, { persistent: false }, (event, name) => {
          if (name === null || names.has(String(name))) this.#changed();
        });
        watcher.on('error', () => {
          watcher.close();
          this.#watchers.delete(folder);
        });
        this.#watchers.set(folder, watcher);
      } catch {
        this.#watchers.delete(folder);
      }
    }
  }

  #changed() {
    if (!this.#running) return;
    clearTimeout(this.#settle);
    this.#settle = setTimeout(() => this.refresh(), this.#settleMs);
    this.#settle.unref?.();
  }
}
