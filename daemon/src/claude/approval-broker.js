// Claude Code's permission requests held as approvals: opened once per
// request nonce, answered by the panel, the phone or the terminal, given up
// when nobody answers in time, and heard by the hook's long polls. What must
// survive a restart (the open requests and the answers given) is kept, and
// an answer is on disk before the hook hears it, so none is given twice.

import { createHash } from 'node:crypto';

import { arrayOr, isObject } from '../json.js';
import { DECISIONS } from '../state.js';
import { approvalFrom, callKey } from './permission.js';

/** An unanswered request is given up this long after it came, in milliseconds. */
export const APPROVAL_WAIT_MS = 10 * 60 * 1000;

/** One wait of the hook's long poll is at most this long, in milliseconds. */
export const MAX_POLL_MS = 25 * 1000;

/** How long a wait that reaches a request's time goes on past it, in milliseconds. */
const EXPIRY_GRACE_MS = 50;

/**
 * Requests held open at once. One more isn't held: its hook hears it
 * released, so Claude Code asks in its own prompt as it would without us.
 */
export const MAX_OPEN_APPROVALS = 100;

/** Answers remembered, so that a hook asking again after a restart hears the same one. */
export const MAX_ANSWERED = 500;

/** Recent tool calls remembered per session, to tie a request to its call. */
export const MAX_RECENT_CALLS = 20;

/** Who answered when the person answered in Claude Code's own prompt. */
export const TERMINAL = 'terminal';

/** @return {string} The approval id of a hook's request nonce. */
export function approvalIdFor(request) {
  return `ap_${createHash('sha256').update(request).digest('hex').slice(0, 20)}`;
}

/**
 * @typedef {Object} PermissionReply What the waiting hook hears
 * @property {string} state "pending" (ask again), "answered" (with
 *     `decision`), or "released" (answered elsewhere, given up or not held:
 *     say nothing)
 * @property {string} [id]
 * @property {number} [expiresAt] Epoch ms
 * @property {string} [decision]
 */

export class ApprovalBroker {
  #state;
  #log;
  #now;
  #waitMs;
  #saveSoon;
  #saveNow;
  #putSession;
  #pending = new Map();
  #answered = new Map();
  #waiters = new Map();
  #calls = new Map();
  #onChange = (change) => this.#stateChanged(change);

  /**
   * @param {Object} options
   * @param {ServiceState} options.state
   * @param {Log} [options.log]
   * @param {function(): number} options.now
   * @param {number} options.waitMs How long a request waits for an answer
   * @param {function(): void} options.saveSoon
   * @param {function(): void} options.saveNow Keeps the state before going on
   * @param {function(Object, number): void} options.sessionAsks Puts in the
   *     session of a new request (the event, now)
   */
  constructor({ state, log, now, waitMs, saveSoon, saveNow, sessionAsks }) {
    this.#state = state;
    this.#log = log;
    this.#now = now;
    this.#waitMs = waitMs;
    this.#saveSoon = saveSoon;
    this.#saveNow = saveNow;
    this.#putSession = sessionAsks;
  }

  /** @return {Set<string>} The sessions with a request open. */
  get waitingSessions() {
    return new Set([...this.#pending.values()].map((entry) => entry.sessionId));
  }

  /** @return {Object} What to keep across a restart (JSON data). */
  saved() {
    return {
      pending: [...this.#pending.values()].map(({ timer, ...entry }) => entry),
      answered: [...this.#answered.entries()].map(([id, answer]) => ({ id, ...answer })),
    };
  }

  /** Takes back what {@link saved} gave; call before {@link start}. */
  restore(saved) {
    for (const entry of arrayOr(saved.pending)) {
      if (isObject(entry) && typeof entry.id === 'string' && typeof entry.sessionId === 'string') {
        this.#pending.set(entry.id, { ...entry, timer: null });
      }
    }
    for (const answer of arrayOr(saved.answered).slice(-MAX_ANSWERED)) {
      if (isObject(answer) && typeof answer.id === 'string') {
        this.#answered.set(answer.id, {
          decision: DECISIONS.includes(answer.decision) ? answer.decision : null,
          by: answer.by ?? null,
        });
      }
    }
  }

  /** Takes up the requests that were open before a restart, and follows the answers. */
  start() {
    this.#state.on('change', this.#onChange);
    const open = new Set(this.#openApprovalIds());
    for (const [id, entry] of this.#pending) {
      if (open.has(id)) this.#schedule(entry);
      else this.#pending.delete(id);
    }
  }

  /** Stops; hooks waiting now hear nothing and ask again. */
  close() {
    this.#state.off('change', this.#onChange);
    for (const entry of this.#pending.values()) clearTimeout(entry.timer);
    for (const waiters of this.#waiters.values()) for (const wake of waiters) wake(null);
    this.#waiters.clear();
  }

  /**
   * A request asked or asked again: it becomes an approval the first time
   * (unless {@link MAX_OPEN_APPROVALS} are open), and its answer is waited for.
   *
   * @param {Object} event The checked PermissionRequest event
   * @param {Object} options
   * @param {string} options.request The hook's nonce for this request
   * @param {number} [options.waitMs=MAX_POLL_MS] The longest wait of this call
   * @param {AbortSignal} [options.signal] The hook went away
   * @param {function(): Promise<void>} [options.opened] Runs once after a new request opened
   * @return {Promise<PermissionReply>}
   */
  async ask(event, { request, waitMs = MAX_POLL_MS, signal, opened = async () => {} }) {
    const id = approvalIdFor(request);
    const known = this.#answerOf(id);
    if (known) return known;

    let entry = this.#pending.get(id);
    if (!entry) {
      if (this.#pending.size >= MAX_OPEN_APPROVALS) {
        this.#log?.warn(`${MAX_OPEN_APPROVALS} Claude Code requests are open already; this one is left to Claude Code.`);
        return { state: 'released', id };
      }
      entry = this.#open(id, event);
      await opened();
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

  /** A session ended: its requests go, and its calls are forgotten. */
  sessionEnded(sessionId) {
    for (const entry of this.#pending.values()) if (entry.sessionId === sessionId) this.#state.removeApproval(entry.id);
    this.#calls.delete(sessionId);
  }

  /**
   * A tool call was reported (its hook or its transcript line); a request
   * that came before the report is tied to it now.
   */
  rememberCall(sessionId, toolUseId, key) {
    if (typeof toolUseId !== 'string') return;
    const calls = this.#calls.get(sessionId) ?? [];
    if (calls.some((call) => call.id === toolUseId)) return;
    let claimed = false;
    for (const entry of this.#pending.values()) {
      if (entry.sessionId === sessionId && entry.toolUseId == null && entry.key === key) {
        entry.toolUseId = toolUseId;
        this.#saveSoon();
        claimed = true;
        break;
      }
    }
    calls.push({ id: toolUseId, key, claimed });
    this.#calls.set(sessionId, calls.slice(-MAX_RECENT_CALLS));
  }

  /** A call ended without us: the open request for it was answered in the terminal. */
  callEnded(sessionId, toolUseId, key, decision) {
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

  #openApprovalIds() {
    return arrayOr(this.#state.part('approvals'))
      .filter(isObject)
      .map((approval) => approval.id);
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
    const standing = arrayOr(this.#state.part('approvals')).find((each) => isObject(each) && each.id === id);
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
      this.#putSession(event, now);
      this.#state.upsertApproval(approvalFrom(event, { id, now, expiresAt: entry.expiresAt }));
    }
    this.#schedule(entry);
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
}
