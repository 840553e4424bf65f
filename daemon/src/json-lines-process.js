// A program run to its end whose standard output is JSON lines, each heard
// as it comes: how the agents the service starts tell what they do.

import { spawn } from 'node:child_process';
import readline from 'node:readline';

/** The last of what a program said on its standard error kept for its failure, in characters. */
const KEPT_ERROR_CHARS = 500;

/**
 * @param {string} program
 * @param {Array<string>} args
 * @param {Object} options
 * @param {string} options.cwd
 * @param {Object<string, string>} options.env
 * @param {string} options.input Written to its standard input, which then closes
 * @param {AbortSignal} options.signal Ends it
 * @param {function(*): void} options.line Hears each line's JSON value
 * @param {string} options.name What it is, for its failure sentence
 * @return {Promise<void>}
 * @throws {Error} With what it said last when it ended badly (not when stopped)
 */
export async function runJsonLines(program, args, { cwd, env, input, signal, line, name }) {
  const child = spawn(program, args, { cwd, env, stdio: ['pipe', 'pipe', 'pipe'], signal });
  let said = '';
  child.stderr.on('data', (chunk) => (said = (said + chunk).slice(-KEPT_ERROR_CHARS)));
  const ended = new Promise((resolve) => {
    child.on('error', (error) => resolve(error.code === 'ABORT_ERR' ? null : error.code));
    child.on('close', resolve);
  });
  child.stdin.on('error', () => {});
  child.stdin.end(input);
  for await (const text of readline.createInterface({ input: child.stdout })) {
    let value;
    try {
      value = JSON.parse(text);
    } catch {
      continue;
    }
    line(value);
  }
  const code = await ended;
  if (code !== 0 && !signal.aborted) throw new Error(said.trim() || `${name} ended with status ${code}.`);
}
