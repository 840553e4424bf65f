// The service's end of the shared terminals: a Unix socket in the support
// folder, private to this user, where each relay (term/) registers its
// agent's terminal, mirrors the output and takes what is typed for it. A
// session learns its terminal from the hook events (the relay puts its id in
// the agent's environment) and shows it as `term` while the relay is there.
// Terminals end with their relay; what they show never reaches the log.

import fs from 'node:fs';
import net from 'node:net';
import path from 'node:path';

import { arrayOr, isObject } from '../json.js';
import { PRIVATE_FILE_MODE } from '../private-files.js';
import { SharedTerminal, TERM_ID, checkHello, checkSize } from './shared-terminal.js';
import { FRAME, FrameReader, TermChannelError, encodeFrame } from './term-frames.js';

/** The relay's program, which the installer puts in the support folder's bin/. */
export const RELAY_NAME = 'tidewatch-term';

/** The socket's name in the support folder; the relay knows it too. */
export const SOCKET_FILE = 'terminals.sock';

/** Terminals held at once; a relay beyond them runs on, unshared. */
export const MAX_TERMINALS = 64;

/** Links kept from terminals to the sessions they run. */
const MAX_LINKS = 1000;

/** A relay that hasn't said who it is by then is let go, in milliseconds. */
const HELLO_WITHIN_MS = 5000;

const REFUSAL_LOG_EVERY_MS = 60 * 1000;

/** Between the words typed and the Return that submits them, in milliseconds. */
const SUBMIT_AFTER_MS = 200;

function withoutTerm(session, termId) {
  if (session.term?.id !== termId) return session;
  const { term, ...rest } = session;
  return rest;
}

export class TerminalHub {
  #state;
  #log;
  #file;
  #server = null;
  /** id → {terminal, socket} */
  #open = new Map();
  /** terminal id → session id; outlives a restart through the sessions' `term` */
  #links = new Map();
  #refusalLoggedAt = -Infinity;

  /**
   * @param {Object} options
   * @param {ServiceState} options.state
   * @param {string} options.support The support folder (private, 0700)
   * @param {Log} [options.log]
   */
  constructor({ state, support, log = null }) {
    this.#state = state;
    this.#log = log;
    this.#file = path.join(support, SOCKET_FILE);
  }

  /** @return {string} Where relays connect. */
  get socketPath() {
    return this.#file;
  }

  /**
   * Opens the socket. Sessions kept from before a restart keep their link
   * but show no terminal until their relay comes back.
   */
  async start() {
    for (const session of arrayOr(this.#state.part('sessions'))) {
      if (!isObject(session?.term) || typeof session.term.id !== 'string') continue;
      this.#links.set(session.term.id, session.id);
      this.#state.patchSession(session.id, (it) => withoutTerm(it, session.term.id));
    }
    // Left by a service that ended without closing it; the ports prove no
    // other service runs on this support folder.
    fs.rmSync(this.#file, { force: true });
    this.#server = net.createServer((socket) => this.#accept(socket));
    await new Promise((resolve, reject) => {
      this.#server.once('error', reject);
      this.#server.listen(this.#file, () => {
        this.#server.off('error', reject);
        resolve();
      });
    });
    fs.chmodSync(this.#file, PRIVATE_FILE_MODE);
  }

  close() {
    for (const { socket } of this.#open.values()) socket.destroy();
    this.#open.clear();
    this.#server?.close();
    this.#server = null;
  }

  /**
   * A hook event told which terminal a session runs in.
   *
   * @param {string} sessionId
   * @param {string} termId
   */
  link(sessionId, termId) {
    const before = this.#links.get(termId);
    if (!TERM_ID.test(termId) || before === sessionId) return;
    // The agent moved on to a new session in the same terminal (/clear, say).
    if (before !== undefined) this.#state.patchSession(before, (session) => withoutTerm(session, termId));
    this.#links.delete(termId);
    if (this.#links.size >= MAX_LINKS) this.#links.delete(this.#links.keys().next().value);
    this.#links.set(termId, sessionId);
    this.#show(termId);
  }

  /** @return {SharedTerminal|null} The terminal a session runs in, while its relay is there. */
  terminalOf(sessionId) {
    for (const [termId, linked] of this.#links) {
      if (linked === sessionId && this.#open.has(termId)) return this.#open.get(termId).terminal;
    }
    return null;
  }

  /** @return {SharedTerminal[]} */
  terminals() {
    return [...this.#open.values()].map(({ terminal }) => terminal);
  }

  /**
   * Types into a session's terminal as a person would.
   *
   * @param {string} sessionId
   * @param {string} text
   * @param {Object} [options]
   * @param {boolean} [options.submit=false] Press Return after it
   * @return {Promise<boolean>} false when the session has no terminal here
   */
  async type(sessionId, text, { submit = false } = {}) {
    const terminal = this.terminalOf(sessionId);
    if (terminal === null) return false;
    const { socket } = this.#open.get(terminal.id);
    socket.write(encodeFrame(FRAME.input, text));
    if (!submit) return true;
    // Sent apart, so the agent's editor takes the words as typed and the
    // Return as a submit, not as part of a paste.
    await new Promise((resolve) => setTimeout(resolve, SUBMIT_AFTER_MS));
    if (socket.destroyed) return false;
    socket.write(encodeFrame(FRAME.input, '\r'));
    return true;
  }

  #accept(socket) {
    const reader = new FrameReader();
    let terminal = null;
    const hello = setTimeout(() => socket.destroy(), HELLO_WITHIN_MS);
    const refuse = (why) => {
      // Once a minute at most: a broken relay tries again every few seconds.
      const now = Date.now();
      if (now - this.#refusalLoggedAt >= REFUSAL_LOG_EVERY_MS) {
        this.#refusalLoggedAt = now;
        this.#log?.warn(`A terminal’s message was refused: ${why}`);
      }
      socket.destroy();
    };
    socket.on('data', (chunk) => {
      try {
        for (const { kind, payload } of reader.feed(chunk)) {
          if (terminal === null) {
            if (kind !== FRAME.hello) throw new TermChannelError('A terminal must say who it is first.');
            clearTimeout(hello);
            terminal = this.#register(checkHello(payload), socket);
            if (terminal === null) return;
          } else if (kind === FRAME.output) {
            terminal.output(payload);
          } else if (kind === FRAME.size) {
            terminal.resize(checkSize(payload));
          } else if (kind === FRAME.exit) {
            socket.end();
          } else {
            throw new TermChannelError('A terminal says who it is only once.');
          }
        }
      } catch (error) {
        if (!(error instanceof TermChannelError)) throw error;
        refuse(error.message);
      }
    });
    socket.on('error', () => {});
    socket.on('close', () => {
      clearTimeout(hello);
      if (terminal !== null && this.#open.get(terminal.id)?.socket === socket) this.#drop(terminal);
    });
  }

  #register(facts, socket) {
    const held = this.#open.get(facts.id);
    if (held !== undefined && held.terminal.pid !== facts.pid)
      throw new TermChannelError('That terminal is shared already.');
    if (held === undefined && this.#open.size >= MAX_TERMINALS) {
      this.#log?.warn(`A terminal isn’t shared: ${MAX_TERMINALS} are shared already.`);
      socket.destroy();
      return null;
    }
    // The same relay met again (it reconnected before its old socket closed here).
    if (held !== undefined) {
      held.socket.destroy();
      held.terminal.dispose();
    }
    const terminal = new SharedTerminal(facts);
    this.#open.set(facts.id, { terminal, socket });
    this.#log?.info(`A ${facts.agent} terminal is shared (process ${facts.child}).`);
    this.#show(facts.id);
    return terminal;
  }

  #drop(terminal) {
    this.#open.delete(terminal.id);
    terminal.dispose();
    this.#show(terminal.id);
    // Its process is gone, so nothing will ask for the link again.
    this.#links.delete(terminal.id);
  }

  // Puts the terminal on its session, or takes it off when the relay left.
  #show(termId) {
    const sessionId = this.#links.get(termId);
    if (sessionId === undefined) return;
    const open = this.#open.has(termId);
    this.#state.patchSession(sessionId, (session) =>
      open ? { ...session, term: { id: termId, mac: 1, phone: 0 } } : withoutTerm(session, termId),
    );
  }
}
