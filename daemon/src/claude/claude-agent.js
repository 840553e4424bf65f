// Claude Code as the service sees it through its hooks: sessions from the
// events, their transcripts read as they grow, permission requests held as
// approvals until someone answers (the panel, the phone, or the terminal
// itself), and the usage windows from the status line.
//
// A permission request is known by the nonce its hook made, so the same
// request asked again (the hook reconnecting after a restart) finds the same
// approval, and a new request for the same command is a new approval. What
// the service must not forget across a restart (the requests still open,
// the answers given, how far each transcript was read) goes into the kept
// state; an answer is on disk before the hook hears it.

import { createHash } from 'node:crypto';
import path from 'node:path';

import { writeFileAtomically } from '../private-files.js';
import { DECISIONS } from '../state.js';
import { ClaudeAccount } from './claude-account.js';
import { sessionAfter } from './hook-event.js';
import { approvalFrom, callKey } from './permission.js';
import { sessionFieldsFrom, usageRate, windowsFrom, MAX_READINGS } from './status-line.js';
import { TranscriptTail } from './transcript.js';
import { arrayOr, isObject, sameJson } from '../json.js';

/** An unanswered request is given up this long after it came, in milliseconds. */
export const APPROVAL_WAIT_MS = 10 * 60 * 1000;

/** One wait of the hook's long poll is at most this long, in milliseconds. */
export const MAX_POLL_MS = 25 * 1000;

/** How long a wait that reaches a request's time goes on past it, in milliseconds. */
const EXPIRY_GRACE_MS = 50;

/** While a request is open its transcript is looked at this often, in milliseconds. */
export const TRANSCRIPT_POLL_MS = 300;

/** Answers remembered, so that a hook asking again after a restart hears the same one. */
export const MAX_ANSWERED = 500;

/** Recent tool calls remembered per session, to tie a request to its call. */
export const MAX_RECENT_CALLS = 20;

/**
 * Transcripts followed at once; the least recently used is let go. Above the
 * sessions that may run together: one let go is read again from near its
 * end (up to a megabyte) at its next event.
 */
export const MAX_TAILS = 1000;

/** The file in the support folder that tells the hook where the service listens. */
export const ADDRESS_FILE = 'claude-hook.json';

/** Who answered when the person answered in Claude Code's own prompt. */
export const TERMINAL = 'terminal';

/** A usage reading that says nothing new is sent again at most this often, in milliseconds. */
const USAGE_REFRESH_MS = 30 * 1000;

/**
 * A failed turn found in a transcript counts only this soon after it was
 * written: a resumed session's old failure says nothing of now.
 */
export const FAILURE_NEWS_MS = 10 * 60 * 1000;

/** @return {string} The approval id of a hook's request nonce. */
export function approvalIdFor(request) {
  return `ap_${createHash('sha256').update(request).digest('hex').slice(0, 20)}`;
}

/**
 * @typedef {Object} PermissionReply What the waiting hook hears
 * @property {string} state "pending" (ask again), "answered" (with
 *     `decision`), or "released" (answered elsewhere or given up: say nothing)
 * @property {string} [id]
 * @property {number} [expiresAt] Epoch ms
 * @property {string} [decision]
 */

export class ClaudeAgent {
  #state;
  #log;
  #support;
  #now;
  #waitMs;
  #pollMs;
  #saveSoon;
  #saveNow;
  #pending = new Map();
  #answered = new Map();
  #waiters = new Map();
  #tails = new Map();
  #calls = new Map();
  #readings = [];
  #failures = new Map();
  #pollTimer = null;
  #polling = false;
  #started = false;
  #onChange;
  #account;
  #accountRead = Promise.resolve();

  /**
   * @param {Object} options
   * @param {ServiceState} options.state
   * @param {string} options.support The support folder
   * @param {Log} [options.log]
   * @param {function(): number} [options.now=Date.now]
   * @param {number} [options.approvalWaitMs=APPROVAL_WAIT_MS]
   * @param {number} [options.transcriptPollMs=TRANSCRIPT_POLL_MS]
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
    saveSoon = () => {},
    saveNow = () => {},
    claudeDir = null,
    account = {},
  }) {
    this.#state = state;
    this.#support = support;
    this.#log = log;
    this.#now = now;
    this.#waitMs = approvalWaitMs;
    this.#pollMs = transcriptPollMs;
    this.#saveSoon = saveSoon;
    this.#saveNow = saveNow;
    this.#onChange = (change) => this.#stateChanged(change);
    this.#account = claudeDir ? new ClaudeAccount({ state, claudeDir, log, now, ...account }) : null;
  }

  /** @return {Promise<void>} Settles when the first look at the sign-in files is done. */
  get accountRead() {
    return this.#accountRead;
  }

  /** @return {Object} What to keep across a restart (JSON data). */
  saved() {
    return {
      pending: [...this.#pending.values()].map(({ timer, ...entry }) => entry),
      answered: [...this.#answered.entries()].map(([id, answer]) => ({ id, ...answer })),
      tails: [...this.#tails.entries()].map(([sessionId, tail]) => ({ sessionId, file: tail.file, ...tail.saved() })),
      // A limit in force is known from a failed turn alone; nothing tells it again.
      limited: this.#limitInForce() ? this.#state.part('account') : undefined,
    };
  }

  /** Takes back what {@link saved} gave; call before {@link start}. */
  restore(saved) {
    if (!isObject(saved)) return;
    for (const entry of arrayOr(saved.pending)) {
      if (isObject(entry) && typeof entry.id === 'string' && typeof entry.sessionId === 'string') {
        this.#pending.set(entry.id, { ...entry, timer: null });
      }
    }
    for (const answer of Array.isArray(saved.answered) ? saved.answered.slice(-MAX_ANSWERED) : []) {
      if (isObject(answer) && typeof answer.id === 'string') {
        this.#answered.set(answer.id, {
          decision: DECISIONS.includes(answer.decision) ? answer.decision : null,
          by: answer.by ?? null,
        });
      }
    }
    for (const tail of Array.isArray(saved.tails) ? saved.tails.slice(-MAX_TAILS) : []) {
      if (isObject(tail) && typeof tail.sessionId === 'string' && typeof tail.file === 'string') {
        this.#tails.set(tail.sessionId, new TranscriptTail(tail.file, tail));
      }
    }
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
    this.#state.on('change', this.#onChange);
    if (this.#account) this.#accountRead = this.#account.start();
    const open = new Set(this.#openApprovalIds());
    for (const [id, entry] of this.#pending) {
      if (open.has(id)) this.#schedule(entry);
      else this.#pending.delete(id);
    }
    this.#ensurePolling();
  }

  /** Stops; hooks waiting now hear nothing and ask again. */
  close() {
    this.#started = false;
    this.#state.off('change', this.#onChange);
    this.#account?.close();
    clearInterval(this.#pollTimer);
    this.#pollTimer = null;
    for (const entry of this.#pending.values()) clearTimeout(entry.timer);
    for (const waiters of this.#waiters.values()) for (const wake of waiters) wake(null);
    this.#waiters.clear();
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
    const tail = this.#tailFor(sessionId, event.transcript_path);
    const told = tail ? await this.#readTranscript(sessionId, tail) : null;

    const name = event.hook_event_name;
    const failure = name === 'StopFailure' ? this.#failures.get(sessionId) : undefined;
    // One change for the event and what the transcript told: a second one
    // right after would wait out the feed's window before anyone saw it.
    this.#putSession(sessionId, (session) =>
      sessionAfter(session && told ? told(session) : session, event, {
        now: this.#now(),
        tty,
        usage: this.#state.part('usage'),
        failure,
      }),
    );

    if (name === 'PreToolUse') {
      this.#rememberCall(sessionId, event.tool_use_id, callKey(event.tool_name, event.tool_input));
    } else if (name === 'PostToolUse' || name === 'PostToolUseFailure') {
      // The call ran, so whoever was asked said yes: in the terminal, when
      // a request for it is still open here.
      this.#callEnded(sessionId, event.tool_use_id, callKey(event.tool_name, event.tool_input), 'allow');
    } else if (name === 'StopFailure') {
      this.#accountAfterFailure(event, failure);
    } else if (name === 'Stop') {
      this.#accountAfterSuccess();
    } else if (name === 'UserPromptSubmit') {
      this.#failures.delete(sessionId);
    } else if (name === 'SessionEnd') {
      for (const entry of this.#pending.values())
        if (entry.sessionId === sessionId) this.#state.removeApproval(entry.id);
      this.#tails.delete(sessionId);
      this.#calls.delete(sessionId);
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
  async permission(event, { request, waitMs = MAX_POLL_MS, signal } = {}) {
    const id = approvalIdFor(request);
    const known = this.#answerOf(id);
    if (known) return known;

    let entry = this.#pending.get(id);
    if (!entry) {
      entry = this.#open(id, event);
      const tail = this.#tailFor(event.session_id, event.transcript_path);
      if (tail) this.#state.patchSession(event.session_id, await this.#readTranscript(event.session_id, tail));
    }
    const pendingReply = () => ({ state: 'pending', id, expiresAt: entry.expiresAt });
    if (!this.#pending.has(id)) return this.#answerOf(id) ?? pendingReply();

    // A wait that reaches the request's time outlasts it a little, so that
    // the hook hears it given up, not "pending" from a timer that won the race.
    const wait = Math.max(0, Math.min(waitMs, MAX_POLL_MS, entry.expiresAt - this.#now() + EXPIRY_GRACE_MS));
    return new Promise((resolve) => {
      let timer = null;
      const done = (reply) => {
        clearTimeout(timer);
        signal?.removeEventListener('abort', abandon);
        this.#waiters.get(id)?.delete(wake);
        resolve(reply);
      };
      const wake = (answer) => done(answer ?? pendingReply());
      const abandon = () => done(pendingReply());
      timer = setTimeout(() => done(pendingReply()), wait);
      signal?.addEventListener('abort', abandon, { once: true });
      if (!this.#waiters.has(id)) this.#waiters.set(id, new Set());
      this.#waiters.get(id).add(wake);
    });
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

  #openApprovalIds() {
    const approvals = this.#state.part('approvals');
    return Array.isArray(approvals) ? approvals.filter(isObject).map((approval) => approval.id) : [];
  }

  // The answer already known for a request, as the hook hears it; null while open.
  #answerOf(id) {
    const answer = this.#answered.get(id);
    if (answer)
      return answer.decision ? { state: 'answered', id, decision: answer.decision } : { state: 'released', id };
    if (this.#pending.has(id) || !this.#state.approvalLeft(id)) return null;
    // Gone without our record of it (taken out, or answered while our part of
    // the kept state was lost): the service's own list of answers tells.
    const decided = this.#state.decisions().find((each) => each.id === id);
    if (decided && decided.by !== TERMINAL && DECISIONS.includes(decided.decision)) {
      return { state: 'answered', id, decision: decided.decision };
    }
    return { state: 'released', id };
  }

  #open(id, event) {
    const now = this.#now();
    const existing = this.#state.part('approvals');
    const standing = Array.isArray(existing) ? existing.find((each) => isObject(each) && each.id === id) : undefined;
    const key = callKey(event.tool_name, event.tool_input);
    const entry = {
      id,
      sessionId: event.session_id,
      key,
      toolUseId: this.#claimCall(event.session_id, key),
      expiresAt: typeof standing?.expiresAt === 'number' ? standing.expiresAt : now + this.#waitMs,
      timer: null,
    };
    this.#pending.set(id, entry);
    if (!standing) {
      this.#putSession(event.session_id, (session) =>
        sessionAfter(session, event, { now, usage: this.#state.part('usage') }),
      );
      this.#state.upsertApproval(approvalFrom(event, { id, now, expiresAt: entry.expiresAt }));
    }
    this.#schedule(entry);
    this.#ensurePolling();
    // Kept at once: a restart a moment from now must find the same request waiting.
    this.#saveNow();
    return entry;
  }

  #schedule(entry) {
    clearTimeout(entry.timer);
    // Nobody answered in time: the approval goes, and the hook lets Claude
    // Code's own prompt decide.
    entry.timer = setTimeout(
      () => this.#state.removeApproval(entry.id) || this.#finish(entry.id, null, null),
      Math.max(0, entry.expiresAt - this.#now()),
    );
    entry.timer.unref?.();
  }

  #stateChanged(change) {
    const item = change.item;
    if (item?.kind === 'approval' && item.value === null && this.#pending.has(item.id)) {
      const resolution = item.resolution;
      const decision =
        resolution && resolution.by !== TERMINAL && DECISIONS.includes(resolution.decision)
          ? resolution.decision
          : null;
      this.#finish(item.id, decision, resolution?.by ?? null);
    }
    if (change.whole || change.snapshot.includes('approvals')) {
      // A list replaced whole, or a reset: whatever left it is let go.
      const open = new Set(this.#openApprovalIds());
      for (const id of [...this.#pending.keys()]) if (!open.has(id)) this.#finish(id, null, null);
    }
  }

  #finish(id, decision, by) {
    const entry = this.#pending.get(id);
    if (!entry) return;
    clearTimeout(entry.timer);
    this.#pending.delete(id);
    this.#answered.set(id, { decision, by });
    if (this.#answered.size > MAX_ANSWERED) this.#answered.delete(this.#answered.keys().next().value);
    // On disk before the hook hears it, so that a restart right after can't
    // ask an answered request again.
    this.#saveNow();
    const reply = decision ? { state: 'answered', id, decision } : { state: 'released', id };
    for (const wake of this.#waiters.get(id) ?? []) wake(reply);
    this.#waiters.delete(id);
    if (this.#pending.size === 0) {
      clearInterval(this.#pollTimer);
      this.#pollTimer = null;
    }
  }

  #putSession(id, rewrite) {
    if (!this.#state.patchSession(id, rewrite)) this.#state.upsertSession(rewrite(undefined));
  }

  #tailFor(sessionId, file) {
    if (typeof file === 'string') {
      const known = this.#tails.get(sessionId);
      if (!known || known.file !== file) {
        this.#tails.set(sessionId, new TranscriptTail(file));
        if (this.#tails.size > MAX_TAILS) this.#tails.delete(this.#tails.keys().next().value);
      }
    }
    return this.#tails.get(sessionId) ?? null;
  }

  // Reads what the transcript added and acts on its calls and failures;
  // gives what it tells of the session, for the caller to put in.
  async #readTranscript(sessionId, tail) {
    const facts = await tail.read();
    if (!facts) return (session) => session;
    this.#saveSoon();
    for (const use of facts.toolUses) this.#rememberCall(sessionId, use.id, callKey(use.name, use.input));
    for (const { id, outcome } of facts.outcomes) {
      if (outcome === 'refused') this.#callEnded(sessionId, id, null, 'deny');
      else this.#callEnded(sessionId, id, null, 'allow');
    }
    if (facts.failure === null) this.#failures.delete(sessionId);
    else if (facts.failure) this.#turnFailed(sessionId, facts.failure);
    return (session) => {
      const next = { ...session };
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

  #rememberCall(sessionId, toolUseId, key) {
    if (typeof toolUseId !== 'string') return;
    const calls = this.#calls.get(sessionId) ?? [];
    if (calls.some((call) => call.id === toolUseId)) return;
    // A request that came before its call's report is tied now.
    for (const entry of this.#pending.values()) {
      if (entry.sessionId === sessionId && entry.toolUseId == null && entry.key === key) {
        entry.toolUseId = toolUseId;
        this.#saveSoon();
        calls.push({ id: toolUseId, key, claimed: true });
        this.#calls.set(sessionId, calls.slice(-MAX_RECENT_CALLS));
        return;
      }
    }
    calls.push({ id: toolUseId, key, claimed: false });
    this.#calls.set(sessionId, calls.slice(-MAX_RECENT_CALLS));
  }

  // The latest call of this session with this key that no request has yet.
  #claimCall(sessionId, key) {
    const calls = this.#calls.get(sessionId) ?? [];
    for (let i = calls.length - 1; i >= 0; i--) {
      if (!calls[i].claimed && calls[i].key === key) {
        calls[i].claimed = true;
        return calls[i].id;
      }
    }
    return null;
  }

  // A call ended without us: the open request for it was answered in the terminal.
  #callEnded(sessionId, toolUseId, key, decision) {
    for (const entry of this.#pending.values()) {
      if (entry.sessionId !== sessionId) continue;
      const tied = typeof toolUseId === 'string' && entry.toolUseId === toolUseId;
      const untied = entry.toolUseId == null && key !== null && entry.key === key;
      if (!tied && !untied) continue;
      this.#log?.info(`A Claude Code request was answered in the terminal (${decision}).`);
      this.#state.resolveApproval(entry.id, { decision, by: TERMINAL, at: this.#now() });
      return;
    }
  }

  #ensurePolling() {
    if (this.#pollTimer !== null || this.#pending.size === 0 || !this.#started) return;
    // No hook fires when the person refuses in the terminal; the transcript
    // is the only witness, so it is watched while a request is open.
    this.#pollTimer = setInterval(() => this.#pollTranscripts(), this.#pollMs);
    this.#pollTimer.unref?.();
  }

  async #pollTranscripts() {
    if (this.#polling) return;
    this.#polling = true;
    try {
      const sessions = new Set([...this.#pending.values()].map((entry) => entry.sessionId));
      for (const sessionId of sessions) {
        const tail = this.#tails.get(sessionId);
        if (tail) this.#state.patchSession(sessionId, await this.#readTranscript(sessionId, tail));
      }
    } finally {
      this.#polling = false;
    }
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
    const { observedAt: before, ...was } = current;
    const { observedAt: after, ...is } = next;
    if (sameJson(was, is) && typeof before === 'number' && now - before < USAGE_REFRESH_MS) return;
    this.#state.setSnapshotParts({ usage: next });
  }

  // A failed turn the transcript told of, which its StopFailure report may
  // never bring: `claude -p` can exit before its background hooks have run.
  #turnFailed(sessionId, failure) {
    const now = this.#now();
    if (Number.isFinite(failure.at) && now - failure.at > FAILURE_NEWS_MS) return;
    if (Number.isFinite(failure.resetsAt) && failure.resetsAt <= now) return;
    this.#failures.set(sessionId, failure);
    const event = { hook_event_name: 'StopFailure', session_id: sessionId, error: failure.error };
    if (failure.text !== undefined) event.last_assistant_message = failure.text;
    this.#putSession(sessionId, (session) => {
      const next = sessionAfter(session, event, { now, usage: this.#state.part('usage'), failure });
      return session?.state === 'ended' ? { ...next, state: 'ended' } : next;
    });
    this.#accountAfterFailure(event, failure);
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
