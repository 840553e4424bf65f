// Claude Code's side of the connection: the service's hooks and status line
// in Claude Code's user settings (~/.claude/settings.json of the home the
// service runs under), put in and taken out on the app's request, and what
// the file holds reported in the local status as it stands.
//
// The file is the person's: every key and hook of theirs is kept, the file
// is replaced in one step with its mode kept, and a file that isn't JSON is
// never touched.

import fs from 'node:fs';
import path from 'node:path';
import { fileURLToPath } from 'node:url';

import { HttpError } from './http-reply.js';
import { installIntoSettings, integrationState, refreshedSettings, removeFromSettings } from './claude/hook-settings.js';
import { writeFileAtomically } from './private-files.js';
import { changeProfile, profileBlock, ProfileError, profilesHold, withBlock, withoutBlock } from './shell-profile.js';
import { isObject } from './json.js';

/** The largest settings file read, in bytes; Claude Code's own are a few kilobytes. */
export const MAX_SETTINGS_BYTES = 4 * 1024 * 1024;

/** How often the file is looked at for changes made by hand, in milliseconds. */
export const WATCH_INTERVAL_MS = 2000;

/** The mode of a settings file the service creates; it may hold keys. */
const NEW_FILE_MODE = 0o600;

/** The hook program shipped beside the service's sources. */
export const HOOK_PROGRAM_PATH = fileURLToPath(new URL('../bin/tidewatch-hook.mjs', import.meta.url));

/** Why the settings can't be changed; the message is a sentence for a person. */
export class SettingsError extends Error {
  constructor(code, message) {
    super(message);
    this.code = code;
  }
}

/**
 * Reads the settings file.
 *
 * @param {string} file
 * @return {{settings: (Object|null), mode: (number|null)}} null settings when
 *     there is no file yet
 * @throws {SettingsError} when the file can't be read or isn't a JSON object
 */
export function readSettings(file) {
  let stat;
  try {
    stat = fs.statSync(file);
  } catch (error) {
    if (error.code === 'ENOENT') return { settings: null, mode: null };
    throw new SettingsError('settings_unreadable', `Claude Code’s settings (${file}) can’t be read: ${error.code}.`);
  }
  if (!stat.isFile() || stat.size > MAX_SETTINGS_BYTES) {
    throw new SettingsError('settings_unreadable', `Claude Code’s settings (${file}) aren’t a settings file Tidewatch can read.`);
  }
  let text;
  try {
    text = fs.readFileSync(file, 'utf8');
  } catch (error) {
    throw new SettingsError('settings_unreadable', `Claude Code’s settings (${file}) can’t be read: ${error.code}.`);
  }
  // An empty file is how some editors leave a new one.
  if (text.trim() === '') return { settings: null, mode: stat.mode & 0o7777 };
  let settings;
  try {
    settings = JSON.parse(text);
  } catch {
    settings = undefined;
  }
  if (!isObject(settings)) {
    throw new SettingsError(
      'settings_invalid',
      `Claude Code’s settings (${file}) aren’t valid JSON, so Tidewatch left them as they are. Fix the file, then connect again.`,
    );
  }
  return { settings, mode: stat.mode & 0o7777 };
}

/**
 * Keeps Claude Code's settings connected to the service, and the local
 * status's `hooks` and `statusLine` in step with the file.
 */
export class Integration {
  #state;
  #file;
  #place;
  #http = null;
  #log;
  #watching = false;
  #shell;
  #onFileChange = () => this.refresh();

  /**
   * @param {Object} parts
   * @param {ServiceState} parts.state
   * @param {string} parts.settingsFile Claude Code's user settings
   * @param {Object} parts.place Where the hook program runs from (see hook-settings.js):
   *     `node`, `program`, `support`
   * @param {Log} [parts.log]
   * @param {Object} [parts.shell] The shell integration: `files`, the start
   *     files to hold the block (none: the login shell has no block), and
   *     `relay`, the terminal relay the block runs the agents through
   */
  constructor({ state, settingsFile, place, log, shell = { files: [], relay: null } }) {
    this.#state = state;
    this.#file = settingsFile;
    this.#place = place;
    this.#log = log;
    this.#shell = shell;
  }

  get settingsFile() {
    return this.#file;
  }

  /**
   * What of ours the file holds now; an unreadable file holds nothing of ours.
   *
   * @return {{hooks: boolean, statusLine: boolean}}
   */
  status() {
    try {
      return integrationState(readSettings(this.#file).settings);
    } catch {
      return { hooks: false, statusLine: false };
    }
  }

  /** Puts what the files hold into the local status. */
  refresh() {
    this.#refreshShell();
    const { hooks, statusLine } = this.status();
    const statusLinePart = this.#state.localPart('statusLine');
    const supported = isObject(statusLinePart) && typeof statusLinePart.supported === 'boolean' ? statusLinePart.supported : true;
    const current = this.#state.localPart('hooks');
    if (isObject(current) && current.installed === hooks && isObject(statusLinePart) && statusLinePart.installed === statusLine) return;
    this.#state.setLocalParts({ hooks: { installed: hooks }, statusLine: { installed: statusLine, supported } });
  }

  // The block is offered where the login shell takes it and the relay is there to run.
  #shellSupported() {
    const { files, relay } = this.#shell;
    if (files.length === 0 || !relay) return false;
    try {
      fs.accessSync(relay, fs.constants.X_OK);
      return true;
    } catch {
      return false;
    }
  }

  #refreshShell() {
    const shell = { installed: profilesHold(this.#shell.files), supported: this.#shellSupported() };
    const current = this.#state.localPart('shell');
    if (!isObject(current) || current.installed !== shell.installed || current.supported !== shell.supported)
      this.#state.setLocalParts({ shell });
  }

  // Puts the block in every start file, or takes it out of every one.
  #rewriteShell(install) {
    const { files, relay } = this.#shell;
    if (install ? !this.#shellSupported() : files.length === 0) return;
    const block = install ? profileBlock(relay) : null;
    for (const file of files) changeProfile(file, (text) => (install ? withBlock(text, block) : withoutBlock(text)));
    this.#log?.info(`The shell integration is ${install ? 'in' : 'out of'} ${files.join(', ')}.`);
  }

  /** Starts following the file, so that a change by hand shows too. */
  start() {
    this.refresh();
    if (this.#watching) return;
    this.#watching = true;
    fs.watchFile(this.#file, { interval: WATCH_INTERVAL_MS, persistent: false }, this.#onFileChange);
  }

  close() {
    if (!this.#watching) return;
    this.#watching = false;
    fs.unwatchFile(this.#file, this.#onFileChange);
  }

  /**
   * Says where HTTP hooks post (none: Claude Code can't take them), and
   * brings hooks of ours already in the file up to date with it, so that a
   * service on another port, or a Claude Code updated, is still reached.
   *
   * @param {{port: number, token: string}|null} http
   */
  useHttp(http) {
    this.#http = http;
    try {
      this.#rewrite((current) => refreshedSettings(current, this.#hookPlace()), 'reconnected');
    } catch (error) {
      this.#log?.warn(`Claude Code’s hooks couldn’t be brought up to date: ${error.message}`);
    }
  }

  #hookPlace() {
    return { ...this.#place, http: this.#http };
  }

  /**
   * Adds the hooks and the status line; an older install of ours is replaced.
   *
   * @return {{hooks: boolean, statusLine: boolean}} What the file holds afterwards
   * @throws {SettingsError|ProfileError}
   */
  install() {
    const status = this.#rewrite((settings) => installIntoSettings(settings, this.#hookPlace()), 'connected');
    this.#rewriteShell(true);
    this.refresh();
    return status;
  }

  /**
   * Takes out exactly what install added; a person's own status line comes back.
   *
   * @return {{hooks: boolean, statusLine: boolean}}
   * @throws {SettingsError|ProfileError}
   */
  uninstall() {
    this.#rewriteShell(false);
    return this.#rewrite((settings) => removeFromSettings(settings), 'disconnected');
  }

  // `change` gives the settings to write, or null when they stand as they should.
  #rewrite(change, done) {
    const { settings, mode } = readSettings(this.#file);
    // Nothing to take out of a file that isn't there.
    if (settings === null && done === 'disconnected' && mode === null) {
      this.refresh();
      return this.status();
    }
    const next = change(settings);
    // The file says it all already.
    if (next === null) return this.status();
    const text = `${JSON.stringify(next, null, 2)}\n`;
    try {
      if (mode === null) {
        fs.mkdirSync(path.dirname(this.#file), { recursive: true, mode: 0o700 });
      }
      writeFileAtomically(this.#file, text, mode ?? NEW_FILE_MODE);
    } catch (error) {
      throw new SettingsError('settings_unwritable', `Claude Code’s settings (${this.#file}) can’t be written: ${error.code ?? error.message}.`);
    }
    this.#log?.info(`Claude Code ${done} (${this.#file}).`);
    this.refresh();
    return this.status();
  }
}

/**
 * Where the hooks run from for a service started from this folder.
 *
 * @param {string} support The support folder
 * @return {{node: string, program: string, support: string}}
 */
export function hookPlace(support) {
  return { node: process.execPath, program: HOOK_PROGRAM_PATH, support };
}

function asHttp(error) {
  if (error instanceof ProfileError) return new HttpError(500, 'profile_unwritable', error.message);
  if (error instanceof SettingsError) {
    return new HttpError(error.code === 'settings_invalid' ? 409 : 500, error.code, error.message);
  }
  return error;
}

/**
 * The integration's doors on the local port, and the release of the private
 * name that the uninstall asks for.
 *
 * @param {Router} router
 * @param {Object} parts
 * @param {Integration} parts.integration
 * @param {ServiceState} parts.state
 */
export function addIntegrationRoutes(router, { integration, state }) {
  router
    .add('POST', '/local/integration/install', () => {
      try {
        return { ok: true, ...integration.install() };
      } catch (error) {
        throw asHttp(error);
      }
    })
    .add('POST', '/local/integration/uninstall', () => {
      try {
        return { ok: true, ...integration.uninstall() };
      } catch (error) {
        throw asHttp(error);
      }
    })
    .add('POST', '/local/name/release', () => {
      const name = state.localPart('name');
      if (!isObject(name) || typeof name.host !== 'string' || name.host === '') {
        throw new HttpError(404, 'no_name', 'This Mac has no private name to give up.');
      }
      state.setLocalParts({ name: { ...name, host: null, inUse: false } });
      return { released: true, name: name.host };
    });
}
