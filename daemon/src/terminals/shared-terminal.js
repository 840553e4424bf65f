// One agent's terminal as the service holds it: who runs it and where, and a
// screen model of what it shows now (a headless terminal emulator), so that
// a client that comes later sees the screen, not a replay of everything.

import path from 'node:path';

import xterm from '@xterm/headless';

import { isObject } from '../json.js';
import { TermChannelError } from './term-frames.js';

/** Lines kept above the screen. */
export const SCROLLBACK_LINES = 2000;

/** The agents a terminal may be shared for. */
export const SHARED_AGENTS = ['claude', 'codex'];

const MAX_SIDE = 1000;
const MAX_PATH_CHARS = 4096;
const MAX_TTY_CHARS = 256;

/** A terminal's id, as the relay makes it: 16 random bytes in hex. */
export const TERM_ID = /^[0-9a-f]{32}$/;

const positive = (value) => Number.isSafeInteger(value) && value > 0;
const side = (value) => Number.isInteger(value) && value >= 1 && value <= MAX_SIDE;

/**
 * Checks the relay's first word: who it runs and where.
 *
 * @param {Buffer} payload JSON
 * @return {{id, agent, pid, child, cwd, tty, cols, rows}}
 * @throws {TermChannelError}
 */
export function checkHello(payload) {
  let hello;
  try {
    hello = JSON.parse(payload.toString('utf8'));
  } catch {
    throw new TermChannelError('A terminal’s first word must be JSON.');
  }
  if (!isObject(hello) || hello.v !== 1) throw new TermChannelError('A terminal must speak version 1 of the channel.');
  const { id, agent, pid, child, cwd, tty = '', cols, rows } = hello;
  if (typeof id !== 'string' || !TERM_ID.test(id)) throw new TermChannelError('A terminal’s id must be 32 hex digits.');
  if (!SHARED_AGENTS.includes(agent)) throw new TermChannelError('Only Claude Code and Codex terminals are shared.');
  if (!positive(pid) || !positive(child)) throw new TermChannelError('A terminal must name its processes.');
  if (typeof cwd !== 'string' || cwd.length > MAX_PATH_CHARS || !path.isAbsolute(cwd))
    throw new TermChannelError('A terminal’s folder must be an absolute path.');
  if (typeof tty !== 'string' || tty.length > MAX_TTY_CHARS) throw new TermChannelError('A terminal’s tty must be a short path.');
  if (!side(cols) || !side(rows)) throw new TermChannelError(`A terminal’s size must be 1 to ${MAX_SIDE} on each side.`);
  return { id, agent, pid, child, cwd, tty, cols, rows };
}

/** @return {{cols, rows}} from a size frame. @throws {TermChannelError} */
export function checkSize(payload) {
  let size;
  try {
    size = JSON.parse(payload.toString('utf8'));
  } catch {
    size = null;
  }
  if (!isObject(size) || !side(size.cols) || !side(size.rows))
    throw new TermChannelError(`A terminal’s size must be 1 to ${MAX_SIDE} on each side.`);
  return { cols: size.cols, rows: size.rows };
}

export class SharedTerminal {
  #screen;

  /** @param {ReturnType<typeof checkHello>} hello */
  constructor(hello) {
    Object.assign(this, hello);
    this.#screen = new xterm.Terminal({
      cols: hello.cols,
      rows: hello.rows,
      scrollback: SCROLLBACK_LINES,
      allowProposedApi: true,
    });
  }

  /** What the agent printed, as it printed it. */
  output(bytes) {
    this.#screen.write(bytes);
  }

  resize({ cols, rows }) {
    this.cols = cols;
    this.rows = rows;
    this.#screen.resize(cols, rows);
  }

  /** @return {Promise<string[]>} The screen's lines now, trailing blanks cut, once every write is in. */
  screenLines() {
    return new Promise((resolve) =>
      this.#screen.write('', () => {
        const buffer = this.#screen.buffer.active;
        const lines = [];
        for (let row = 0; row < this.#screen.rows; row += 1)
          lines.push(buffer.getLine(buffer.viewportY + row)?.translateToString(true) ?? '');
        resolve(lines);
      }),
    );
  }

  dispose() {
    this.#screen.dispose();
  }
}
