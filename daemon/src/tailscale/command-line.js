// Running a command-line tool of Tailscale's (the app's `tailscale`, or the
// built-in node's helper): an argument array, never a shell line, within a
// time limit, and its own words when it fails.

import { execFile } from 'node:child_process';

import { cut } from '../json.js';

/** The most of a tool's output that is read, in bytes. */
export const MAX_OUTPUT_BYTES = 1024 * 1024;

/** The most of a tool's complaint carried into a sentence, in characters. */
const MAX_REASON_CHARS = 300;

/** A tool that failed, with `reason`: its own words, or what went wrong with it. */
export class ToolError extends Error {
  constructor(reason) {
    super(reason);
    this.reason = reason;
  }
}

/**
 * @param {string} program
 * @param {Array<string>} args
 * @param {Object} options
 * @param {number} options.timeoutMs
 * @param {Object<string, string>} options.env
 * @return {Promise<string>} What it printed on its standard output
 * @throws {ToolError}
 */
export function runTool(program, args, { timeoutMs, env }) {
  return new Promise((resolve, reject) => {
    const child = execFile(program, args, { timeout: timeoutMs, maxBuffer: MAX_OUTPUT_BYTES, env }, (error, stdout, stderr) => {
      if (!error) return resolve(stdout);
      const said = `${stderr}`.trim() || `${stdout}`.trim();
      let reason = said.replace(/\s+/g, ' ');
      if (error.killed) {
        const waited = `it didn’t finish within ${Math.round(timeoutMs / 1000)} seconds`;
        reason = reason === '' ? waited : `${reason}; ${waited}`;
      } else if (reason === '') {
        reason = typeof error.code === 'number' ? `it ended with status ${error.code}` : (error.code ?? error.message);
      }
      reject(new ToolError(cut(reason, MAX_REASON_CHARS)));
    });
    // Nothing is ever typed to it, so a prompt ends instead of waiting.
    child.stdin?.end();
  });
}

/**
 * Parses a tool's JSON answer.
 *
 * @param {string} text
 * @return {*}
 * @throws {ToolError} When it isn't JSON
 */
export function parseAnswer(text) {
  try {
    return JSON.parse(text);
  } catch {
    throw new ToolError('its answer isn’t JSON');
  }
}
