// The Mac's side of the window raiser: Terminal and iTerm2 are asked, by
// AppleScript through osascript, for the tab on the session's tty, which is
// selected, its window brought to the front and the app activated. The tty
// goes to the script as its argument, never into the script's text.

import { execFile } from 'node:child_process';
import { promisify } from 'node:util';

import { RaiseError, raiseWords } from './raise-error.js';
import { shellLine } from './terminal-command.js';

const run = promisify(execFile);

/** osascript may take this long, in milliseconds (an app asked the first time may be slow). */
const OSASCRIPT_TIMEOUT_MS = 10000;

const WORDS = raiseWords('this Mac');

/** A terminal device as `ps` names it, made a path. */
export const TTY = /^\/dev\/tty[A-Za-z0-9]{1,16}$/;

/** The script, one line for each -e; it prints the app that had the tab, or nothing. */
export const RAISE_SCRIPT = [
  'on run argv',
  'set wanted to item 1 of argv',
  'if application "iTerm2" is running then',
  'tell application "iTerm2"',
  'repeat with aWindow in windows',
  'repeat with aTab in tabs of aWindow',
  'repeat with aSession in sessions of aTab',
  'if tty of aSession is wanted then',
  'select aWindow',
  'tell aTab to select',
  'tell aSession to select',
  'activate',
  'return "iTerm2"',
  'end if',
  'end repeat',
  'end repeat',
  'end repeat',
  'end tell',
  'end if',
  'if application "Terminal" is running then',
  'tell application "Terminal"',
  'repeat with aWindow in windows',
  'repeat with aTab in tabs of aWindow',
  'if tty of aTab is wanted then',
  'set selected tab of aWindow to aTab',
  'set index of aWindow to 1',
  'activate',
  'return "Terminal"',
  'end if',
  'end repeat',
  'end repeat',
  'end tell',
  'end if',
  'return ""',
  'end run',
];

/** Opens a Terminal window running the shell line given as the script's argument. */
export const NEW_WINDOW_SCRIPT = [
  'on run argv',
  'tell application "Terminal"',
  'do script (item 1 of argv)',
  'activate',
  'end tell',
  'return "Terminal"',
  'end run',
];

/** Terminal's shell starts with the person's own environment, so a session's own can't go with it. */
export const OWN_ENV =
  'This session runs with settings of its own (a provider’s keys), which Tidewatch can’t hand to a Terminal window safely.';

export class MacRaiser {
  #env;

  /** @param {Object} [options] @param {Object} [options.env=process.env] Where osascript is looked for (PATH) */
  constructor({ env = process.env } = {}) {
    this.#env = env;
  }

  /**
   * Opens a new Terminal window whose shell runs the command in the folder.
   *
   * @param {{cwd: string, command: string[], exported: Object<string, string>, own: Object<string, string>}} launch
   *     `exported`: variables that are no secret, set in the shell line;
   *     `own`: the session's own environment, which can't be carried
   * @return {Promise<{app: string, already: boolean}>}
   * @throws {RaiseError}
   */
  async openNew({ cwd, command, exported = {}, own = {} }) {
    if (Object.keys(own).length > 0) throw new RaiseError('own_env', OWN_ENV);
    // The line is the run handler's argument: AppleScript never parses it, the shell does.
    const line = shellLine(cwd, exported, command);
    try {
      await run('osascript', [...NEW_WINDOW_SCRIPT.flatMap((each) => ['-e', each]), line], {
        timeout: OSASCRIPT_TIMEOUT_MS,
        env: this.#env,
      });
    } catch {
      throw new RaiseError('not_opened', WORDS.notOpened);
    }
    return { app: 'Terminal', already: false };
  }

  async raise({ tty }) {
    if (typeof tty !== 'string' || !TTY.test(tty)) throw new RaiseError('unknown', WORDS.unknown);
    let stdout;
    try {
      ({ stdout } = await run('osascript', [...RAISE_SCRIPT.flatMap((line) => ['-e', line]), tty], {
        timeout: OSASCRIPT_TIMEOUT_MS,
        env: this.#env,
      }));
    } catch {
      throw new RaiseError('no_screen', WORDS.noScreen);
    }
    const app = stdout.trim();
    if (app === '') throw new RaiseError('no_window', WORDS.noWindow);
    return { app, already: false };
  }
}
