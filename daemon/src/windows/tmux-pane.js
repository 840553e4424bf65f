// A session that runs inside tmux: its pane is found from the process tree
// (the pane's first process is the child of the tmux server), the server
// is reached on the socket it listens on, and the pane is made the one shown.

import { execFile } from 'node:child_process';
import { promisify } from 'node:util';

import { commOf, socketPathsOf } from './process-tree.js';

const run = promisify(execFile);

/** One tmux command may take this long, in milliseconds. */
const TMUX_TIMEOUT_MS = 3000;

/** The most of a tmux answer read, in bytes. */
const MAX_ANSWER_BYTES = 256 * 1024;

const PANE_ID = /^%\d+$/;
const SESSION_ID = /^\$\d+$/;

/**
 * Selects the tmux pane a process runs in, and its window.
 *
 * @param {number[]} chain The process and its parents, nearest first
 * @return {Promise<{pane: string, clients: number[]}|null>} The pane and the
 *     pids of the tmux clients showing its session; null when the process
 *     isn't in tmux, or its server can't be reached
 */
export async function selectPaneOf(chain) {
  const at = chain.findIndex((pid, index) => index > 0 && commOf(pid)?.startsWith('tmux') === true);
  if (at < 0) return null;
  const panePid = chain[at - 1];
  for (const socket of socketPathsOf(chain[at])) {
    const tmux = async (...args) =>
      (await run('tmux', ['-S', socket, ...args], { timeout: TMUX_TIMEOUT_MS, maxBuffer: MAX_ANSWER_BYTES })).stdout;
    let panes;
    try {
      panes = await tmux('list-panes', '-a', '-F', '#{pane_pid} #{pane_id} #{session_id}');
    } catch {
      continue;
    }
    const found = panes
      .split('\n')
      .map((line) => line.split(' '))
      .find(([pid, pane, session]) => Number(pid) === panePid && PANE_ID.test(pane) && SESSION_ID.test(session));
    if (found === undefined) continue;
    const [, pane, session] = found;
    await tmux('select-window', '-t', pane);
    await tmux('select-pane', '-t', pane);
    const clients = await tmux('list-clients', '-t', session, '-F', '#{client_pid}');
    return { pane, clients: clients.split('\n').map(Number).filter((pid) => Number.isSafeInteger(pid) && pid > 0) };
  }
  return null;
}
