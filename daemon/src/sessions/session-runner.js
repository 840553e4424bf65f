// The sessions the service starts itself (for the Mac, the phone or an
// automation): at most a few run at once, the others wait in line with the
// reason on their record, and each turn's messages become its session record.
// A session goes on with a new turn in the same conversation when continued.
// The environment a request brings (a provider's keys) is held in memory only.

import { randomUUID } from 'node:crypto';
import path from 'node:path';

import { HttpError } from '../http-reply.js';
import { ClaudeRun } from '../claude/claude-run.js';
import { titleFrom } from '../claude/hook-event.js';
import { sessionAfterMessage } from '../claude/sdk-messages.js';
import { CodexRun, sessionAfterCodexEvent } from '../codex/codex-run.js';

/** Sessions the service runs at once; more wait in line. */
export const MAX_RUNNING = 4;

/** Sessions remembered for continuing; the oldest that isn't running is let go. */
export const MAX_KEPT = 200;

/** What a session waiting for its turn is doing, as its row shows it. */
export const IN_LINE = `waiting in line: ${MAX_RUNNING} sessions are running`;
export const STILL_RUNNING = 'This session is still at work; it can be continued once its turn is done.';
export const FULL = 'Tidewatch keeps as many sessions as it can show, and none of them has ended.';
export const BUSY_FOR_TERMINAL =
  'This session is at work in Tidewatch; it can be opened in a terminal once its turn is done.';
export const IN_TERMINAL = 'This session’s terminal window is still opening; it goes on there.';

/** After a session is handed to a terminal, no turn of the service's starts until the terminal shows, or for this long, in milliseconds. */
export const HAND_OFF_MS = 60 * 1000;

/**
 * @typedef {Object} AgentRun One turn of an agent
 * @property {function(): Promise<void>} run To its end; throws with a sentence
 * @property {function(): void} stop
 * @property {function(): Promise<boolean>} usesSdk Its requests wait on the SDK's callback
 */

export class SessionRunner {
  #state;
  #claude;
  #log;
  #now;
  #env;
  #programs;
  #sdk;
  #kept = new Map();
  #running = new Map();
  /** session id → when a terminal was opened on it */
  #handedOff = new Map();
  #line = [];
  #closed = false;

  /**
   * @param {Object} options
   * @param {ServiceState} options.state
   * @param {ClaudeAgent} options.claude Holds the approvals
   * @param {{claude: function(): (string|null), codex: function(): (string|null)}} options.programs
   *     The agents' programs as found now
   * @param {Object<string, string>} [options.env=process.env] What a request's
   *     environment is added to
   * @param {function(): Promise<Object|null>} [options.sdk] Loads the agent SDK (see ClaudeRun)
   * @param {Log} [options.log]
   * @param {function(): number} [options.now=Date.now]
   */
  constructor({ state, claude, programs, env = process.env, sdk, log = null, now = Date.now }) {
    this.#state = state;
    this.#claude = claude;
    this.#programs = programs;
    this.#env = env;
    this.#sdk = sdk;
    this.#log = log;
    this.#now = now;
    this.#state.on('change', this.#onChange);
  }

  /** @return {boolean} Whether the service runs this session. */
  owns(sessionId) {
    return this.#kept.has(sessionId);
  }

  /**
   * Starts a session, or puts it in line.
   *
   * @param {SessionRequest} request Checked
   * @return {Object} The new session's record
   * @throws {HttpError} 503 when no more sessions can be kept
   */
  start(request) {
    const id = randomUUID();
    const now = this.#now();
    const session = {
      id,
      title: titleFrom(request.prompt),
      cwd: request.project,
      projectName: path.basename(request.project) || request.project,
      origin: request.origin,
      state: 'starting',
      permissionMode: request.permissionMode,
      createdAt: now,
      lastActivityAt: now,
    };
    if (request.agent === 'codex') Object.assign(session, { agent: 'codex', providerId: 'codex' });
    if (!this.#state.upsertSession(session)) throw new HttpError(503, 'full', FULL);
    this.#keep(id, request);
    this.#line.push({ id, prompt: request.prompt, resume: false });
    this.#next();
    return this.#state.session(id);
  }

  /**
   * Gives a session it ran to a terminal: what the terminal needs to resume
   * its conversation. No turn of the service's starts on it for a while, so
   * that the terminal's agent and the service never write it at once.
   *
   * @return {{agent: string, project: string, program: (string|null), env: Object<string, string>,
   *     own: Object<string, string>, threadId: (string|null)}}
   * @throws {HttpError} 409 while a turn is at work or in line
   */
  handOff(sessionId) {
    // A turn whose result is in may still be closing, and writing the conversation.
    if (this.#busy(sessionId) || this.#running.has(sessionId)) throw new HttpError(409, 'busy', BUSY_FOR_TERMINAL);
    if (this.#heldByTerminal(sessionId)) throw new HttpError(409, 'opening', IN_TERMINAL);
    const request = this.#kept.get(sessionId);
    this.#handedOff.set(sessionId, this.#now());
    const agent = request.agent ?? 'claude';
    return {
      agent,
      project: request.project,
      program: this.#programs[agent](),
      env: { ...this.#env, ...request.env },
      own: request.env,
      threadId: this.#state.session(sessionId)?.codexThreadId ?? null,
    };
  }

  /** A terminal couldn't be opened on the session after all: the service may go on with it. */
  takeBack(sessionId) {
    this.#handedOff.delete(sessionId);
  }

  /**
   * A new turn of a session it ran, in the same conversation.
   *
   * @throws {HttpError} 409 while it is at work or in line, or just given to a terminal
   */
  continue(sessionId, prompt) {
    if (this.#heldByTerminal(sessionId)) throw new HttpError(409, 'opening', IN_TERMINAL);
    // A turn whose result is in may still be closing: the new one waits for it.
    if (this.#busy(sessionId)) throw new HttpError(409, 'busy', STILL_RUNNING);
    this.#state.patchSession(sessionId, (it) => ({ ...it, state: 'starting', lastActivityAt: this.#now() }));
    this.#line.push({ id: sessionId, prompt, resume: true });
    this.#next();
  }

  /** Stops the session's turn, at work or in line; the session stays. */
  stop(sessionId) {
    this.#line = this.#line.filter((turn) => turn.id !== sessionId);
    this.#running.get(sessionId)?.stop();
  }

  /** Stops every turn; the sessions stay as they are. */
  close() {
    this.#state.off('change', this.#onChange);
    this.#closed = true;
    this.#line = [];
    for (const run of this.#running.values()) run.stop();
  }

  #busy(id) {
    const state = this.#state.session(id)?.state;
    return ['starting', 'working', 'needs_you'].includes(state) || this.#line.some((turn) => turn.id === id);
  }

  // Once the terminal shows on the session it holds it, and when it leaves, its agent has ended.
  #onChange = ({ item }) => {
    if (item?.kind === 'session' && item.value?.term !== undefined) this.#handedOff.delete(item.value.id);
  };

  #heldByTerminal(id) {
    const at = this.#handedOff.get(id);
    if (at === undefined) return false;
    if (this.#now() - at < HAND_OFF_MS) return true;
    this.#handedOff.delete(id);
    return false;
  }

  #keep(id, request) {
    this.#kept.set(id, request);
    if (this.#kept.size <= MAX_KEPT) return;
    const idle = [...this.#kept.keys()].find((each) => !this.#running.has(each) && !this.#line.some((t) => t.id === each));
    if (idle === undefined) return;
    this.#kept.delete(idle);
    this.#handedOff.delete(idle);
    this.#claude.drive(idle, false);
  }

  #next() {
    while (!this.#closed && this.#running.size < MAX_RUNNING) {
      const next = this.#line.findIndex((turn) => !this.#running.has(turn.id));
      if (next < 0) break;
      this.#begin(this.#line.splice(next, 1)[0]);
    }
    for (const turn of this.#line.filter((each) => !this.#running.has(each.id))) {
      this.#state.patchSession(turn.id, (it) => ({ ...it, state: 'starting', activity: IN_LINE }));
    }
  }

  #runOf({ id, request, prompt, resume }) {
    const env = { ...this.#env, ...request.env };
    const update = (after) => (each) => this.#state.patchSession(id, (it) => after(it, each, this.#now()));
    if (request.agent === 'codex') {
      const resumeThread = resume ? (this.#state.session(id)?.codexThreadId ?? null) : null;
      const program = this.#programs.codex();
      return new CodexRun({ request, prompt, resumeThread, program, env, message: update(sessionAfterCodexEvent) });
    }
    const options = { sessionId: id, request, prompt, resume, env, claude: this.#claude };
    if (this.#sdk) options.sdk = this.#sdk;
    return new ClaudeRun({ ...options, program: this.#programs.claude(), message: update(sessionAfterMessage) });
  }

  #begin({ id, prompt, resume }) {
    const request = this.#kept.get(id);
    const run = this.#runOf({ id, request, prompt, resume });
    this.#running.set(id, run);
    this.#state.patchSession(id, (it) => {
      const { activity, ...rest } = it;
      return { ...rest, state: 'working', lastActivityAt: this.#now() };
    });
    const turn = async () => {
      this.#claude.drive(id, await run.usesSdk());
      await run.run();
    };
    turn()
      .catch((error) => {
        this.#log?.warn(`A session Tidewatch started stopped: ${error.message}`);
        this.#state.patchSession(id, (it) => ({ ...it, state: 'error', lastText: error.message }));
      })
      .finally(() => {
        this.#running.delete(id);
        this.#claude.runEnded(id);
        // A turn that ended without its result message ended badly.
        this.#state.patchSession(id, (it) => (['working', 'needs_you'].includes(it.state) ? { ...it, state: 'error' } : it));
        this.#next();
      });
  }
}
