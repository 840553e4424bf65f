// The built-in Tailscale node: a helper program, named by the service's
// configuration, that runs a Tailscale node of the service's own. Its state
// becomes the local status's `tsnet` part. The helper answers two commands:
// `status --json` prints one JSON object (`state`, `loginUrl`, `dnsName`,
// `account`, `listening`, `tls`, `error`, and the node's `url` and
// `controlUrl`), and `logout` signs the node out.

import { findProgram } from '../codex/codex-binary.js';
import { HttpError } from '../http-reply.js';
import { isObject } from '../json.js';
import { parseAnswer, runTool, ToolError } from './command-line.js';

/** How long the helper may take to answer, in milliseconds. */
export const HELPER_TIMEOUT_MS = 4000;

/** The helper's fields that the local status carries, all strings. */
const HELPER_FIELDS = ['state', 'loginUrl', 'dnsName', 'account', 'listening', 'tls', 'error'];

/** Why each route serves the phone API, by `mode`. */
export const MODE_REASONS = Object.freeze({
  builtIn: 'Tidewatch’s built-in Tailscale node serves the phone API.',
  system: 'The Tailscale app serves the phone API.',
  off: 'Neither the Tailscale app nor the built-in node is here to serve the phone API.',
});

/** The helper's state while it can't be asked, with what keeps it. */
export const NO_HELPER = 'The built-in Tailscale node’s helper isn’t installed, so the node can’t start.';

/** The helper's answer, kept to the fields the status carries. */
function helperRecord(answer) {
  const helper = {};
  for (const field of HELPER_FIELDS) if (typeof answer[field] === 'string') helper[field] = answer[field];
  return helper;
}

/** Keeps the `tsnet` part from the setting and the helper. */
export class BuiltInNode {
  #state;
  #helper;
  #env;
  #log;
  #chosen = false;
  #answer = null;
  #reading = null;

  /**
   * @param {Object} options
   * @param {ServiceState} options.state
   * @param {string|null} [options.helper=null] The helper program
   * @param {Object<string, string>} [options.env=process.env] Its environment
   * @param {Log} [options.log]
   */
  constructor({ state, helper = null, env = process.env, log = null }) {
    this.#state = state;
    this.#helper = helper;
    this.#env = env;
    this.#log = log;
  }

  /** @return {boolean} Whether the built-in node is chosen over the Tailscale app. */
  get chosen() {
    return this.#chosen;
  }

  /** Chooses the built-in node (true) or the app (false), and tells the status. */
  choose(on) {
    this.#chosen = on;
    if (!on) this.#answer = null;
    this.publish();
  }

  /** @return {boolean} Whether the helper is there to run. */
  available() {
    return this.#helper !== null && findProgram('helper', { named: this.#helper, searchPath: [] }) !== null;
  }

  /**
   * Asks the helper again, when the node is chosen and the helper is there;
   * then tells the status.
   *
   * @return {Promise<Object>} The `TsnetStatus` record
   */
  refresh() {
    this.#reading ??= this.#read().finally(() => (this.#reading = null));
    return this.#reading;
  }

  async #read() {
    if (this.#chosen && this.available()) {
      try {
        const answer = parseAnswer(await runTool(this.#helper, ['status', '--json'], { timeoutMs: HELPER_TIMEOUT_MS, env: this.#env }));
        this.#answer = isObject(answer) ? answer : { error: 'The built-in Tailscale node’s helper answered with something other than a status.' };
      } catch (error) {
        if (!(error instanceof ToolError)) throw error;
        this.#answer = { error: `The built-in Tailscale node’s helper didn’t answer (${error.reason}).` };
      }
    }
    return this.publish();
  }

  /**
   * Signs the node out through the helper, then asks it again.
   *
   * @throws {HttpError} 409 without a helper, 502 with its reason when it fails
   */
  async logout() {
    if (!this.available()) throw new HttpError(409, 'no_helper', `${NO_HELPER} There’s nothing to sign out.`);
    try {
      await runTool(this.#helper, ['logout'], { timeoutMs: HELPER_TIMEOUT_MS, env: this.#env });
    } catch (error) {
      if (!(error instanceof ToolError)) throw error;
      throw new HttpError(502, 'helper_refused', `The built-in Tailscale node couldn’t sign out (${error.reason}).`);
    }
    this.#log?.info('The built-in Tailscale node signed out.');
    await this.refresh();
  }

  /**
   * Writes the `tsnet` part as things stand.
   *
   * @return {Object} The `TsnetStatus` record
   */
  publish() {
    const available = this.available();
    let mode = 'off';
    if (this.#chosen) mode = 'builtIn';
    else if (this.#state.localPart('tailscale')?.installed === true) mode = 'system';
    const record = { mode, reason: MODE_REASONS[mode], available, enabled: this.#chosen };
    if (this.#chosen) {
      const answer = available ? (this.#answer ?? {}) : { error: NO_HELPER };
      record.helper = { state: 'starting', ...helperRecord(answer) };
      if (typeof answer.url === 'string') record.url = answer.url;
      if (typeof answer.controlUrl === 'string') record.controlUrl = answer.controlUrl;
    }
    this.#state.setLocalParts({ tsnet: record });
    return record;
  }
}
