// Carries a session on: now, when the person asks (the resume card's
// "Continue"), or by itself once its limit lifts (armed with "Continue
// automatically"). Carrying on means typing the agent's continue prompt into
// its shared terminal; the session turns "working" only when the agent's own
// hook says a turn began.

import { HttpError } from '../http-reply.js';
import { isObject } from '../json.js';

/** What is typed to carry a session on. */
export const CONTINUE_PROMPT = 'continue';

/** How often armed sessions are looked at, in milliseconds. */
export const RESUME_CHECK_MS = 5000;

export const NOT_SHARED =
  'This session runs in a terminal Tidewatch doesn’t share, so it can only be continued there.';
export const NOTHING_TO_RESUME = 'Only a session held by a limit carries on by itself.';
export const NO_RESET = 'Tidewatch doesn’t know when this limit lifts, so it can’t carry on by itself.';
export const CLAUDE_CARRIES_ON =
  'Claude Code carries this session on by itself when the limit lifts; Esc in its terminal stops that.';

/** When the block on a session lifts: its own reset, else the account's. */
function liftsAt(session, account) {
  if (Number.isFinite(session.blocked?.resetsAt)) return session.blocked.resetsAt;
  return Number.isFinite(account?.limit?.resetsAt) ? account.limit.resetsAt : null;
}

const withResume = (session, resume) => ({ ...session, blocked: { ...session.blocked, resume } });

export class Continuer {
  #state;
  #terminals;
  #runner;
  #clock;
  #log;
  #checkEveryMs;
  #timer = null;
  #offering = false;

  /**
   * @param {Object} options
   * @param {ServiceState} options.state
   * @param {TerminalHub} options.terminals
   * @param {SessionRunner} [options.runner] Goes on with the sessions the service runs itself
   * @param {{now(): number}} options.clock The service's clock (/qa moves it in a test copy)
   * @param {Log} [options.log]
   * @param {number} [options.checkEveryMs=RESUME_CHECK_MS]
   */
  constructor({ state, terminals, runner = null, clock, log = null, checkEveryMs = RESUME_CHECK_MS }) {
    this.#state = state;
    this.#terminals = terminals;
    this.#runner = runner;
    this.#clock = clock;
    this.#log = log;
    this.#checkEveryMs = checkEveryMs;
  }

  start() {
    this.#state.on('change', this.#onChange);
    this.#timer = setInterval(() => this.check(), this.#checkEveryMs);
    this.#timer.unref();
  }

  close() {
    this.#state.off('change', this.#onChange);
    clearInterval(this.#timer);
  }

  /**
   * Types the continue prompt into the session's shared terminal, or gives
   * it as a new turn to a session the service runs itself.
   *
   * @throws {HttpError} 409 when the session is in no shared terminal, or
   *     the service's own can't take a turn now
   */
  async continueNow(sessionId) {
    // A session the service ran that a terminal took over goes on in that terminal.
    if (await this.#terminals.type(sessionId, CONTINUE_PROMPT, { submit: true })) return;
    if (this.#runner?.owns(sessionId)) return this.#runner.continue(sessionId, CONTINUE_PROMPT);
    throw new HttpError(409, 'not_shared', NOT_SHARED);
  }

  /**
   * Arms or cancels the carry-on at the reset.
   *
   * @throws {HttpError} 409 with the reason it can't be armed
   */
  arm(sessionId, on) {
    const session = this.#state.session(sessionId);
    // Claude Code's own plan stands: a second one would carry the session on twice.
    if (session?.blocked?.resume?.state === 'armed' && session.blocked.resume.by === 'claude') {
      if (on) return;
      throw new HttpError(409, 'armed_by_claude', CLAUDE_CARRIES_ON);
    }
    if (!on) {
      const canArm = this.#terminals.terminalOf(sessionId) !== null;
      if (isObject(session?.blocked))
        this.#state.patchSession(sessionId, (it) => withResume(it, { state: 'off', canArm, canCancel: false, why: 'cancelled' }));
      return;
    }
    if (!isObject(session?.blocked)) throw new HttpError(409, 'not_blocked', NOTHING_TO_RESUME);
    if (this.#terminals.terminalOf(sessionId) === null) throw new HttpError(409, 'not_shared', NOT_SHARED);
    const at = liftsAt(session, this.#state.part('account'));
    if (at === null) throw new HttpError(409, 'no_reset', NO_RESET);
    this.#state.patchSession(sessionId, (it) =>
      withResume(it, { state: 'armed', at, by: 'tidewatch', canCancel: true, canArm: false }),
    );
  }

  /** Carries on every armed session whose limit has lifted, once; marks the others ready. */
  async check() {
    const now = this.#clock.now();
    const account = this.#state.part('account');
    for (const session of this.#state.part('sessions') ?? []) {
      const resume = session?.blocked?.resume;
      if (!isObject(resume)) continue;
      const at = resume.state === 'armed' ? resume.at : liftsAt(session, account);
      if (!Number.isFinite(at) || at > now) continue;
      if (resume.state === 'off' && resume.canArm) {
        this.#state.patchSession(session.id, (it) => withResume(it, { ...resume, state: 'ready' }));
      } else if (resume.state === 'armed' && resume.by === 'tidewatch') {
        // Marked before typing, so that a slow terminal can't carry it on twice.
        this.#state.patchSession(session.id, (it) =>
          withResume(it, { state: 'off', at: now, by: 'tidewatch', canArm: false, canCancel: false, why: 'continuing' }),
        );
        const why = await this.continueNow(session.id).then(
          () => 'continued',
          (error) => {
            this.#log?.warn(`An armed session couldn’t carry on: ${error.message}`);
            return 'not_shared';
          },
        );
        this.#state.patchSession(session.id, (it) =>
          isObject(it.blocked) ? withResume(it, { ...it.blocked.resume, why }) : it,
        );
      }
    }
  }

  // A blocked session in a shared terminal is offered the carry-on.
  #onChange = ({ item }) => {
    if (this.#offering || item?.kind !== 'session' || !isObject(item.value?.blocked)) return;
    const session = item.value;
    if (isObject(session.blocked.resume) || this.#terminals.terminalOf(session.id) === null) return;
    this.#offering = true;
    try {
      this.#state.patchSession(session.id, (it) => withResume(it, { state: 'off', canArm: true, canCancel: false }));
    } finally {
      this.#offering = false;
    }
  };
}
