// The Tailscale app on this machine, through its `tailscale` command line:
// its state read into the local status's `tailscale` part, and phone access
// turned on with `tailscale serve`.

import path from 'node:path';

import { findProgram } from '../codex/codex-binary.js';
import { HttpError } from '../http-reply.js';
import { parseAnswer, runTool, ToolError } from './command-line.js';
import { serveTarget, tailscaleStatus } from './tailscale-status.js';

/** How long a status read may take, in milliseconds. */
export const STATUS_TIMEOUT_MS = 4000;

/** How long `tailscale serve` may take, in milliseconds; the app waits 45 s for the whole call. */
export const SERVE_TIMEOUT_MS = 30_000;

/** The macOS app's own copy of the command line, when none is on PATH. */
const MAC_APP_CLI = '/Applications/Tailscale.app/Contents/MacOS/Tailscale';

/**
 * Where the command line is looked for when the service's PATH (launchd
 * gives it a short one) doesn't lead to it.
 *
 * @param {string} platform
 * @return {Array<string>}
 */
export function usualTailscaleFolders(platform) {
  return platform === 'darwin' ? ['/usr/local/bin', '/opt/homebrew/bin'] : ['/usr/bin', '/usr/local/bin'];
}

/** Reads and drives the Tailscale app, keeping the state's `tailscale` part. */
export class TailscaleApp {
  #state;
  #where;
  #env;
  #log;
  #reading = null;

  /**
   * @param {Object} options
   * @param {ServiceState} options.state
   * @param {Object} [options.program] Where `tailscale` is looked for:
   *     `named`, `searchPath`, `folders` (see findProgram), and `app`, the
   *     macOS app's executable tried last
   * @param {Object<string, string>} [options.env=process.env] Its environment
   * @param {Log} [options.log]
   */
  constructor({ state, program = {}, env = process.env, log = null }) {
    this.#state = state;
    this.#where = {
      searchPath: (env.PATH ?? '').split(path.delimiter),
      folders: usualTailscaleFolders(process.platform),
      app: process.platform === 'darwin' ? MAC_APP_CLI : null,
      ...program,
    };
    this.#env = env;
    this.#log = log;
  }

  /** @return {string|null} The command line to run, looked for anew each time (it may come or go). */
  program() {
    const { app, ...where } = this.#where;
    return findProgram('tailscale', where) ?? (app ? findProgram('tailscale', { named: app, searchPath: [] }) : null);
  }

  /**
   * Reads the app's state now into the `tailscale` part; reads asked for
   * while one runs share it.
   *
   * @return {Promise<Object>} The `TailscaleStatus` record
   */
  refresh() {
    this.#reading ??= this.#read().finally(() => (this.#reading = null));
    return this.#reading;
  }

  async #read() {
    const cliPath = this.program();
    const apiPort = this.#state.apiPort;
    let status;
    let serve = null;
    if (cliPath !== null) {
      status = await this.#json(cliPath, ['status', '--json']);
      if (status !== undefined) serve = (await this.#json(cliPath, ['serve', 'status', '--json'])) ?? null;
    }
    const record = tailscaleStatus({ cliPath, status, serve, apiPort });
    this.#state.setLocalParts({ tailscale: record });
    return record;
  }

  // The tool's JSON answer, or undefined when it has none: a stopped app
  // answers with a failure, which is what "not running" means here.
  async #json(cliPath, args) {
    try {
      return parseAnswer(await runTool(cliPath, args, { timeoutMs: STATUS_TIMEOUT_MS, env: this.#env }));
    } catch (error) {
      if (!(error instanceof ToolError)) throw error;
      return undefined;
    }
  }

  /**
   * Serves the API port on the tailnet at https port 443, in the background,
   * then reads the state again.
   *
   * @return {Promise<Object>} The `TailscaleStatus` record after it
   * @throws {HttpError} 409 without Tailscale, 502 with Tailscale's reason when it refuses
   */
  async serve() {
    const cliPath = this.program();
    if (cliPath === null) {
      await this.refresh();
      throw new HttpError(409, 'no_tailscale', 'Tailscale isn’t installed, so phone access can’t be turned on through it.');
    }
    const args = ['serve', '--bg', '--https=443', serveTarget(this.#state.apiPort)];
    try {
      await runTool(cliPath, args, { timeoutMs: SERVE_TIMEOUT_MS, env: this.#env });
    } catch (error) {
      if (!(error instanceof ToolError)) throw error;
      this.#log?.warn(`tailscale serve refused: ${error.reason}`);
      await this.refresh();
      throw new HttpError(502, 'tailscale_refused', `Tailscale couldn’t turn on phone access (${error.reason}).`);
    }
    this.#log?.info('Phone access is served through Tailscale.');
    return this.refresh();
  }
}
