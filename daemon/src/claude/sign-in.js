// Claude Code's own sign-in, driven from here: `claude auth login` runs
// under the service, the page address it prints goes on the account for
// the app to open, and a code pasted in the app is typed into it. Claude
// Code opens the browser itself where it can, and then finishes without a
// code. The account turns "ok" only when Claude Code's files say so (the
// account reader sees them change); a sign-in that breaks is told as it broke.

import { spawn } from 'node:child_process';
import path from 'node:path';

import { HttpError, invalid } from '../http-reply.js';
import { isObject, objectOr } from '../json.js';

/** How long Claude Code has to print its sign-in page, in milliseconds. */
export const PAGE_WAIT_MS = 20 * 1000;

/** How long a started sign-in waits for its code or its browser, in milliseconds. */
export const SIGN_IN_WAIT_MS = 10 * 60 * 1000;

/** The most of Claude Code's output read while it signs in. */
export const MAX_OUTPUT_BYTES = 64 * 1024;

/** The longest code taken; the page's codes are about a hundred characters. */
export const MAX_CODE_CHARS = 2048;

export const NO_CLAUDE = 'Claude Code isn’t installed here, so it can’t sign in.';
export const NO_PAGE = 'Claude Code didn’t show its sign-in page.';
export const NOT_WAITING = 'No sign-in is waiting for a code; start one first.';
export const BAD_CODE = 'The code must be the text the sign-in page showed, on one line.';
export const TIMED_OUT = 'The sign-in waited too long for its code.';
export const STILL_SIGNED_OUT = 'Claude Code finished, but its files don’t show a sign-in.';

// Claude Code's page address: the first line that is one.
const PAGE = /^https:\/\/\S+$/m;
// What Claude Code says when it gives up, after its own prefix.
const GAVE_UP = /Couldn['’]t log in:?\s*(.+)/;

// What Claude Code needs of the service's own environment to open a browser.
const PASSED = ['DISPLAY', 'WAYLAND_DISPLAY', 'XDG_RUNTIME_DIR', 'DBUS_SESSION_BUS_ADDRESS', 'BROWSER'];

/**
 * The environment that makes `claude` use the folder the service reads.
 *
 * @param {string} claudeDir
 * @param {Object} [options]
 * @param {boolean} [options.browser=true] Claude Code may open the browser; a test copy's never does
 * @param {Object} [options.env=process.env]
 */
export function claudeEnvFor(claudeDir, { browser = true, env = process.env } = {}) {
  const base = { PATH: env.PATH ?? '/usr/bin:/bin', LANG: env.LANG ?? 'C.UTF-8' };
  for (const name of browser ? PASSED : []) if (typeof env[name] === 'string') base[name] = env[name];
  if (!browser) base.BROWSER = 'true';
  if (path.basename(claudeDir) === '.claude') return { ...base, HOME: path.dirname(claudeDir) };
  return { ...base, HOME: env.HOME ?? path.dirname(claudeDir), CLAUDE_CONFIG_DIR: claudeDir };
}

export class ClaudeSignIn {
  #state;
  #claudeDir;
  #program;
  #log;
  #refreshAccount;
  #browser;
  #child = null;

  /**
   * @param {Object} options
   * @param {ServiceState} options.state
   * @param {string} options.claudeDir Claude Code's folder, as the account reader has it
   * @param {function(): Promise<string|null>} options.program The `claude` found, once looked for
   * @param {function(): Promise<void>} [options.refreshAccount] Reads the account files again
   * @param {boolean} [options.browser=true] Claude Code may open the browser
   * @param {Log} [options.log]
   */
  constructor({ state, claudeDir, program, refreshAccount = async () => {}, browser = true, log = null }) {
    this.#browser = browser;
    this.#state = state;
    this.#claudeDir = claudeDir;
    this.#program = program;
    this.#refreshAccount = refreshAccount;
    this.#log = log;
  }

  /**
   * Starts a sign-in (a running one gives way) and waits for its page.
   *
   * @param {string} where Who started it: "mac", "phone", …
   * @return {Promise<Object>} The account with its `login`
   * @throws {HttpError} 503 without Claude Code, 502 when it showed no page
   */
  async start(where) {
    const program = await this.#program();
    if (!program) throw new HttpError(503, 'no_claude', NO_CLAUDE);
    this.close();
    const child = spawn(program, ['auth', 'login'], {
      env: claudeEnvFor(this.#claudeDir, { browser: this.#browser }),
      stdio: ['pipe', 'pipe', 'pipe'],
    });
    this.#child = child;
    const run = { child, where, output: '' };
    const ended = new Promise((resolve) => {
      child.on('error', (error) => resolve({ code: null, error }));
      child.on('close', (code) => resolve({ code }));
    });
    const page = new Promise((resolve) => {
      const take = (chunk) => {
        if (run.output.length < MAX_OUTPUT_BYTES) run.output += chunk.toString('utf8');
        const found = PAGE.exec(run.output);
        if (found) resolve(found[0]);
      };
      child.stdout.on('data', take);
      child.stderr.on('data', take);
      ended.then(() => resolve(null));
      setTimeout(() => resolve(null), PAGE_WAIT_MS).unref();
    });
    const url = await page;
    if (url === null || this.#child !== child) {
      if (this.#child === child) this.close();
      const { error } = await ended;
      throw new HttpError(502, 'no_sign_in_page', error ? `${NO_PAGE} ${error.message}` : NO_PAGE);
    }
    const timer = setTimeout(() => this.#failed(child, TIMED_OUT), SIGN_IN_WAIT_MS);
    timer.unref();
    ended.then(({ code, error }) => {
      clearTimeout(timer);
      this.#finished(run, code, error);
    });
    return this.#setLogin({ state: 'waiting_code', where, url });
  }

  /**
   * Types the pasted code into the waiting sign-in.
   *
   * @throws {HttpError} 400 for a code that can't be one, 409 with nothing waiting
   */
  typeCode(code) {
    if (typeof code !== 'string' || code.trim() === '' || code.length > MAX_CODE_CHARS || /[\p{Cc}]/u.test(code)) {
      throw invalid('code', BAD_CODE);
    }
    const login = this.#state.part('account')?.login;
    if (this.#child === null || login?.state !== 'waiting_code') throw new HttpError(409, 'no_sign_in', NOT_WAITING);
    this.#child.stdin.write(`${code.trim()}\n`);
    this.#setLogin({ ...login, state: 'exchanging' });
  }

  close() {
    const child = this.#child;
    this.#child = null;
    if (child && child.exitCode === null) child.kill('SIGTERM');
  }

  async #finished(run, code, error) {
    if (this.#child !== run.child) return;
    this.#child = null;
    if (code === 0) {
      await this.#refreshAccount();
      const account = this.#state.part('account');
      if (account?.state === 'ok' && !isObject(account.login)) return;
      this.#setLogin({ state: 'failed', where: run.where, error: STILL_SIGNED_OUT });
      return;
    }
    const said = GAVE_UP.exec(run.output)?.[1]?.trim();
    const why = error?.message ?? said ?? `Claude Code’s sign-in ended with status ${code}.`;
    this.#log?.warn(`Claude Code’s sign-in didn’t finish: ${why}`);
    this.#setLogin({ state: 'failed', where: run.where, error: `The sign-in didn’t finish: ${why}` });
  }

  #failed(child, why) {
    if (this.#child !== child) return;
    this.#child = null;
    child.kill('SIGTERM');
    const where = this.#state.part('account')?.login?.where ?? 'mac';
    this.#setLogin({ state: 'failed', where, error: why });
  }

  // Only the sign-in's own field changes: the account's state stays what the files say.
  #setLogin(login) {
    const account = { ...objectOr(this.#state.part('account'), { state: 'unknown' }), login };
    this.#state.setSnapshotParts({ account });
    return account;
  }
}
