// Claude Code as the service sees it through its hooks: sessions from the
// events, what their transcripts add (transcript-follower.js), permission
// requests held as approvals until someone answers (approval-broker.js), the
// account's limits and the usage windows from the status line.
//
// A permission request is known by the nonce its hook made, so the same
// request asked again (the hook reconnecting after a restart) finds the same
// approval, and a new request for the same command is a new approval.

import path from 'node:path';

import { arrayOr, isObject, sameJson } from '../json.js';
import { writeFileAtomically } from '../private-files.js';
import { MAX_SESSIONS } from '../state.js';
import { APPROVAL_WAIT_MS, ApprovalBroker, MAX_POLL_MS, approvalIdFor } from './approval-broker.js';
import { ClaudeAccount } from './claude-account.js';
import { blockedFrom, sessionAfter } from './hook-event.js';
import { callKey } from './permission.js';
import { sessionFieldsFrom, usageRate, windowsFrom, MAX_READINGS } from './status-line.js';
import { TRANSCRIPT_POLL_MS, TranscriptFollower } from './transcript-follower.js';


/** The file in the support folder that tells the hook where the service listens. */
export const ADDRESS_FILE = 'claude-hook.json';

/** A usage reading that says nothing new is sent again at most this often, in milliseconds. */
const USAGE_REFRESH_MS = 30 * 1000;

/**
 * A failed turn found in a transcript counts only this soon after it was
 * written: a resumed session's old failure says nothing of now.
 */
export const FAILURE_NEWS_MS = 10 * 60 * 1000;

/**
 * After a usage limit a session's transcript is looked at for this long, in
 * milliseconds: Claude Code writes whether it will go on by itself just
 * after the refusal, and no hook follows that.
 */
export const CARRY_ON_NEWS_MS = 10 * 1000;

/** A limit block with Claude Code's own plan after it put in. */
export function withCarryOn(blocked, plan) {
  const { autoResumeAt, resume, ...rest } = blocked;
  if (plan === 'off') return resume?.by === 'claude' ? rest : blocked;
  const at = Number.isFinite(blocked.resetsAt) ? blocked.resetsAt : null;
  return { ...rest, autoResumeAt: at, resume: { state: 'armed', at, by: 'claude', canCancel: false, canArm: false } };
}

export class ClaudeAgent {
  #state;
  #log;
  #support;
  #now;
  #saveSoon;
  #broker;
  #follower;
  #readings = [];
  #failures = new Map();
  #justLimited = new Map();
  /** session id → Claude Code's own plan after its last limit, "armed" or "off" */
  #plans = new Map();
  #carryOnNewsMs;
  #started = false;
  #account;
  #accountRead = Promise.resolve();
  #driven = new Set();

  /**
   * @param {Object} options
   * @param {ServiceState} options.state
   * @param {string} options.support The support folder
   * @param {Log} [options.log]
   * @param {function(): number} [options.now=Date.now]
   * @param {number} [options.approvalWaitMs=APPROVAL_WAIT_MS]
   * @param {number} [options.transcriptPollMs=TRANSCRIPT_POLL_MS]
   * @param {number} [options.carryOnNewsMs=CARRY_ON_NEWS_MS]
   * @param {function(): void} [options.saveSoon] Something worth keeping moved on
   * @param {function(): void} [options.saveNow] Keep it now, before going on
   * @param {string|null} [options.claudeDir=null] Claude Code's folder
   *     (~/.claude), whose sign-in files tell the account; null reads none
   * @param {Object} [options.account] For tests: `lookOverMs`, `settleMs`,
   *     `keychain` (see ClaudeAccount)
   */
  constructor({
    state,
    support,
    log = null,
    now = Date.now,
    approvalWaitMs = APPROVAL_WAIT_MS,
    transcriptPollMs = TRANSCRIPT_POLL_MS,
    carryOnNewsMs = CARRY_ON_NEWS_MS,
    saveSoon = () => {},
    saveNow = () => {},
    claudeDir = null,
    account = {},
  }) {
    this.#state = state;
    this.#support = support;
    this.#log = log;
    this.#now = now;
    this.#saveSoon = saveSoon;
    this.#carryOnNewsMs = carryOnNewsMs;
    this.#broker = new ApprovalBroker({
      state,
      log,
      now,
      waitMs: approvalWaitMs,
      saveSoon,
      saveNow,
      sessionAsks: (event, at) =>
        this.#putSession(event.session_id, (session) => sessionAfter(session, event, { now: at, usage: state.part('usage') })),
    });
    this.#follower = new TranscriptFollower({
      pollMs: transcriptPollMs,
      watched: () =>
        new Set([...this.#broker.waitingSessions, ...this.#stillLimitNews(), ...this.#carryingOnByThemselves()]),
      read: async (sessionId, tail) => this.#state.patchSession(sessionId, await this.#readTranscript(sessionId, tail)),
    });
    this.#account = claudeDir ? new ClaudeAccount({ state, claudeDir, log, now, ...account }) : null;
  }

  /** Reads the sign-in files again, at once. */
  refreshAccount() {
    return this.#account?.refresh() ?? Promise.resolve();
  }

  /** @return {Promise<void>} Settles when the first look at the sign-in files is done. */
  get accountRead() {
    return this.#accountRead;
  }

  /** @return {Object} What to keep across a restart (JSON data). */
  saved() {
    return {
      ...this.#broker.saved(),
      tails: this.#follower.saved(),
      // A limit in force is known from a failed turn alone; nothing tells it again.
      limited: this.#limitInForce() ? this.#state.part('account') : undefined,
    };
  }

  /** Takes back what {@link saved} gave; call before {@link start}. */
  restore(saved) {
    if (!isObject(saved)) return;
    this.#broker.restore(saved);
    this.#follower.restore(saved.tails);
    const limited = saved.limited;
    if (isObject(limited) && limited.state === 'limited' && isObject(limited.limit)) {
      const { resetsAt } = limited.limit;
      if (!(Number.isFinite(resetsAt) && resetsAt <= this.#now())) this.#state.setSnapshotParts({ account: limited });
    }
  }

  /**
   * Starts: tells the hook where to find the service, and takes up the
   * requests that were open before a restart.
   *
   * @param {Object} where
   * @param {number} where.localPort
   */
  start({ localPort }) {
    if (this.#started) return;
    this.#started = true;
    try {
      writeFileAtomically(
        path.join(this.#support, ADDRESS_FILE),
        `${JSON.stringify({ localPort, pid: process.pid })}\n`,
      );
    } catch (error) {
      this.#log?.warn(`Claude Code’s hooks can’t be told where the service listens (${error.code ?? error.message}).`);
    }
    if (this.#account) this.#accountRead = this.#account.start();
    this.#broker.start();
    this.#follower.start();
  }

  /** Stops; hooks waiting now hear nothing and ask again. */
  close() {
    this.#started = false;
    this.#account?.close();
    this.#follower.close();
    this.#broker.close();
  }

  /**
   * One report of a hook (any event but the waiting one's own request).
   *
   * @param {Object} event Checked
   * @param {Object} [context]
   * @param {boolean} [context.tty] The hook ran with a terminal
   */
  async hookEvent(event, { tty = false } = {}) {
    const sessionId = event.session_id;
    // The session's own stream tells the service all of it, first hand.
    if (this.#driven.has(sessionId)) return;
    const tail = this.#follower.tailFor(sessionId, event.transcript_path);
    const told = tail ? await this.#readTranscript(sessionId, tail) : null;

    const name = event.hook_event_name;
    // Claude Code may report a prompt after the turn it started has failed: the
    // block that failure put in stands.
    if (name === 'UserPromptSubmit' && tail?.turn?.failed === true && tail.turn.prompt === event.prompt) {
      if (told) this.#state.patchSession(sessionId, told);
      return;
    }
    const failure = name === 'StopFailure' ? this.#failures.get(sessionId) : undefined;
    // One change for the event and what the transcript told: a second one
    // right after would wait out the feed's window before anyone saw it.
    if (name === 'UserPromptSubmit' || name === 'SessionEnd') this.#plans.delete(sessionId);
    this.#putSession(sessionId, (session) =>
      this.#withPlan(
        sessionId,
        sessionAfter(session && told ? told(session) : session, event, {
          now: this.#now(),
          tty,
          usage: this.#state.part('usage'),
          failure,
        }),
      ),
    );

    if (name === 'PreToolUse') {
      this.#broker.rememberCall(sessionId, event.tool_use_id, callKey(event.tool_name, event.tool_input));
    } else if (name === 'PostToolUse' || name === 'PostToolUseFailure') {
      // The call ran, so whoever was asked said yes: in the terminal, when
      // a request for it is still open here.
      this.#broker.callEnded(sessionId, event.tool_use_id, callKey(event.tool_name, event.tool_input), 'allow');
    } else if (name === 'StopFailure') {
      // The transcript may not hold the refusal yet; its plan to carry on follows it.
      if (this.#state.session(sessionId)?.blocked?.kind === 'limit') this.#expectCarryOnNews(sessionId);
      this.#accountAfterFailure(event, failure);
    } else if (name === 'Stop') {
      this.#accountAfterSuccess();
    } else if (name === 'UserPromptSubmit') {
      this.#failures.delete(sessionId);
    } else if (name === 'SessionEnd') {
      this.#broker.sessionEnded(sessionId);
      this.#follower.forget(sessionId);
      this.#failures.delete(sessionId);
      this.#saveSoon();
    }
  }

  /**
   * A permission request, asked or asked again: it becomes an approval the
   * first time, and the answer is waited for.
   *
   * @param {Object} event The checked PermissionRequest event
   * @param {Object} options
   * @param {string} options.request The hook's nonce for this request
   * @param {number} [options.waitMs=MAX_POLL_MS] The longest wait of this call
   * @param {AbortSignal} [options.signal] The hook went away
   * @return {Promise<PermissionReply>}
   */
  permission(event, { request, waitMs, signal } = {}) {
    // Asked through the SDK's callback instead, which waits here too.
    if (this.#driven.has(event.session_id)) return Promise.resolve({ state: 'released', id: approvalIdFor(request) });
    return this.#broker.ask(event, {
      request,
      waitMs,
      signal,
      opened: async () => {
        this.#follower.watch();
        const tail = this.#follower.tailFor(event.session_id, event.transcript_path);
        if (tail) this.#state.patchSession(event.session_id, await this.#readTranscript(event.session_id, tail));
      },
    });
  }

  /**
   * Marks a session the service runs through the agent SDK, whose messages
   * and permission callback say what its hooks would: those are passed over.
   */
  drive(sessionId, on) {
    if (on) this.#driven.add(sessionId);
    else this.#driven.delete(sessionId);
  }

  /**
   * A permission request of a session the service runs, held as an approval
   * like a hook's, until it is answered, given up, or the run goes.
   *
   * @param {Object} call
   * @param {string} call.sessionId
   * @param {string} call.toolName
   * @param {Object} call.input
   * @param {string} call.toolUseId
   * @param {Array<Object>} [call.suggestions] Claude Code's suggested rules
   * @param {string} call.cwd
   * @param {AbortSignal} [call.signal]
   * @return {Promise<{decision: string, event: Object}|null>} The answer and
   *     the request as a hook would have sent it; null when none came
   */
  async decide({ sessionId, toolName, input, toolUseId, suggestions, cwd, signal }) {
    const event = {
      hook_event_name: 'PermissionRequest',
      session_id: sessionId,
      cwd,
      tool_name: toolName,
      tool_input: input,
      permission_suggestions: suggestions,
    };
    const request = `sdk-${toolUseId}`;
    this.#broker.rememberCall(sessionId, toolUseId, callKey(toolName, input));
    while (!signal?.aborted) {
      const reply = await this.#broker.ask(event, { request, waitMs: MAX_POLL_MS, signal });
      if (reply.state === 'answered') return { decision: reply.decision, event };
      if (reply.state === 'released') return null;
    }
    this.#state.removeApproval(approvalIdFor(request));
    return null;
  }

  /** A session the service ran ended: what waits on it goes. */
  runEnded(sessionId) {
    this.#broker.sessionEnded(sessionId);
  }

  /**
   * One status line input: the usage windows, the session's model and cost.
   *
   * @param {Object} input Checked to be an object with a valid or no session id
   */
  statusLine(input) {
    const now = this.#now();
    const windows = windowsFrom(input);
    if (windows) this.#takeReading(windows, now);
    if (typeof input.session_id === 'string') {
      const fields = sessionFieldsFrom(input);
      this.#putSession(input.session_id, (session) => {
        const next = session
          ? { ...session }
          : { id: input.session_id, state: 'idle', createdAt: now, lastActivityAt: now };
        if (next.cwd === undefined && typeof input.cwd === 'string') {
          next.cwd = input.cwd;
          next.projectName = path.basename(input.cwd) || input.cwd;
        }
        return { ...next, ...fields };
      });
    }
  }

  #putSession(id, rewrite) {
    if (this.#state.patchSession(id, rewrite) || this.#state.upsertSession(rewrite(undefined))) return;
    this.#log?.warn(`A new Claude Code session isn’t shown: ${MAX_SESSIONS} are kept and none of them has ended.`);
  }

  // Reads what the transcript added and acts on its calls and failures;
  // gives what it tells of the session, for the caller to put in.
  async #readTranscript(sessionId, tail) {
    const facts = await tail.read();
    if (!facts) return (session) => session;
    this.#saveSoon();
    for (const use of facts.toolUses) this.#broker.rememberCall(sessionId, use.id, callKey(use.name, use.input));
    for (const { id, outcome } of facts.outcomes) {
      this.#broker.callEnded(sessionId, id, null, outcome === 'refused' ? 'deny' : 'allow');
    }
    // Claude Code's notice of its plan may come before the refusal it follows:
    // it is held until the block is there, and an answer that went through ends it.
    if (facts.carryOn !== undefined) this.#plans.set(sessionId, facts.carryOn);
    if (facts.failure === null) {
      this.#failures.delete(sessionId);
      this.#plans.delete(sessionId);
    } else if (facts.failure) this.#turnFailed(sessionId, facts.failure);
    return (session) => {
      const next = this.#withPlan(sessionId, { ...session });
      if (facts.lastText !== undefined) next.lastText = facts.lastText.slice(0, 4000);
      if (facts.model !== undefined && next.model === undefined) next.model = facts.model;
      // Refused in the terminal: Claude Code stops and waits for the next prompt.
      if (facts.interrupted && next.state !== 'ended') {
        next.state =
          Array.isArray(next.pendingApprovalIds) && next.pendingApprovalIds.length > 0 ? 'needs_you' : 'idle';
        delete next.activity;
      }
      return next;
    };
  }

  #takeReading(windows, now) {
    this.#readings.push({ at: now, ...windows });
    if (this.#readings.length > MAX_READINGS) this.#readings.shift();
    const current = isObject(this.#state.part('usage')) ? this.#state.part('usage') : {};
    const next = { ...current, source: 'official', observedAt: now };
    for (const key of ['fiveHour', 'sevenDay']) {
      if (windows[key]) next[key] = windows[key];
    }
    const rate = usageRate(this.#readings, now);
    if (rate) next.rate = rate;
    else delete next.rate;
    this.#dateLimits(next);
    const { observedAt: before, ...was } = current;
    const { observedAt: after, ...is } = next;
    if (sameJson(was, is) && typeof before === 'number' && now - before < USAGE_REFRESH_MS) return;
    this.#state.setSnapshotParts({ usage: next });
  }

  // A limit told before any reading said when it lifts gets its time from
  // the reading that shows the full window.
  #dateLimits(usage) {
    const { resetsAt } = blockedFrom({ error: 'rate_limit' }, usage) ?? {};
    if (!Number.isFinite(resetsAt)) return;
    for (const session of this.#state.part('sessions') ?? []) {
      if (session?.blocked?.kind !== 'limit' || Number.isFinite(session.blocked.resetsAt)) continue;
      this.#state.patchSession(session.id, (it) => ({ ...it, blocked: { ...it.blocked, resetsAt } }));
    }
  }

  // A failed turn the transcript told of, which its StopFailure report may
  // never bring: `claude -p` can exit before its background hooks have run.
  #turnFailed(sessionId, failure) {
    const now = this.#now();
    if (Number.isFinite(failure.at) && now - failure.at > FAILURE_NEWS_MS) return;
    if (Number.isFinite(failure.resetsAt) && failure.resetsAt <= now) return;
    this.#failures.set(sessionId, failure);
    if (failure.error === 'rate_limit') this.#expectCarryOnNews(sessionId);
    const event = { hook_event_name: 'StopFailure', session_id: sessionId, error: failure.error };
    if (failure.text !== undefined) event.last_assistant_message = failure.text;
    this.#putSession(sessionId, (session) => {
      const next = this.#withPlan(sessionId, sessionAfter(session, event, { now, usage: this.#state.part('usage'), failure }));
      return session?.state === 'ended' ? { ...next, state: 'ended' } : next;
    });
    this.#accountAfterFailure(event, failure);
  }

  // The session with Claude Code's last told plan put into its limit block, if it has one.
  #withPlan(sessionId, session) {
    const plan = this.#plans.get(sessionId);
    if (plan === undefined || session?.blocked?.kind !== 'limit') return session;
    return { ...session, blocked: withCarryOn(session.blocked, plan) };
  }

  #expectCarryOnNews(sessionId) {
    this.#justLimited.set(sessionId, Date.now() + this.#carryOnNewsMs);
    this.#follower.watch();
  }

  // While Claude Code means to carry on by itself, an Esc in its terminal can
  // call that off at any moment, and only the transcript tells.
  #carryingOnByThemselves() {
    const sessions = arrayOr(this.#state.part('sessions'));
    return sessions.filter((it) => it?.state !== 'ended' && it?.blocked?.resume?.by === 'claude').map((it) => it.id);
  }

  // Sessions limited moments ago, by the real clock: their notices may follow.
  #stillLimitNews() {
    const now = Date.now();
    for (const [sessionId, until] of this.#justLimited) {
      if (until <= now) this.#justLimited.delete(sessionId);
    }
    return this.#justLimited.keys();
  }

  #limitInForce() {
    const account = this.#state.part('account');
    if (!isObject(account) || account.state !== 'limited' || !isObject(account.limit)) return false;
    return !(Number.isFinite(account.limit.resetsAt) && account.limit.resetsAt <= this.#now());
  }

  #accountAfterFailure(event, failure) {
    const account = isObject(this.#state.part('account')) ? this.#state.part('account') : { state: 'unknown' };
    const now = this.#now();
    if (event.error === 'rate_limit') {
      const usage = this.#state.part('usage');
      const sevenDayFull = isObject(usage?.sevenDay) && usage.sevenDay.pct >= 100;
      const window = sevenDayFull ? usage.sevenDay : usage?.fiveHour;
      const limit = { window: sevenDayFull ? 'seven_day' : 'five_hour' };
      if (typeof window?.resetsAt === 'number') limit.resetsAt = window.resetsAt;
      // The transcript's record of the refusal names its window and reset exactly.
      if (failure?.window) limit.window = failure.window;
      if (Number.isFinite(failure?.resetsAt)) limit.resetsAt = failure.resetsAt;
      if (typeof failure?.usingCredits === 'boolean') limit.usingCredits = failure.usingCredits;
      const next = { ...account, state: 'limited', limit, since: account.state === 'limited' ? account.since : now };
      if (typeof event.last_assistant_message === 'string') next.text = event.last_assistant_message.slice(0, 500);
      this.#state.setSnapshotParts({ account: next });
      this.#saveSoon();
    } else if (event.error === 'authentication_failed') {
      const { limit, ...rest } = account;
      this.#state.setSnapshotParts({
        account: {
          ...rest,
          state: 'logged_out',
          reason: 'not_logged_in',
          since: account.state === 'logged_out' ? account.since : now,
        },
      });
    }
  }

  // A turn that ended well means any limit or sign-in trouble we noted is over.
  #accountAfterSuccess() {
    const account = this.#state.part('account');
    if (!isObject(account) || !['limited', 'logged_out'].includes(account.state)) return;
    const { limit, reason, text, since, ...rest } = account;
    this.#state.setSnapshotParts({ account: { ...rest, state: 'ok' } });
  }
}
