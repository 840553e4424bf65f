// The runs of automations: a run takes an automation's steps in order, each
// one only when its guard holds, waits where a step waits (an ask, a usage
// limit, a busy session), is stopped when it passes its budget, and tells
// its outputs at the end. At most MAX_AT_WORK runs work at once and one per
// automation; the others wait in line. Every change is kept (RunStore) and
// told (`publish`), so the app, the phone and a restart see the same run.

import { randomBytes } from 'node:crypto';
import fs from 'node:fs/promises';
import path from 'node:path';

import { LOCAL_DECIDER } from '../action-routes.js';
import { HttpError, notFound } from '../http-reply.js';
import { isObject } from '../json.js';
import { skipReason } from './guards.js';
import { commandText, fillText, lastLines, MAX_VALUE_CHARS, shellEnv, twoSentences } from './placeholders.js';
import { RunStore } from './run-store.js';
import { sessionStep } from './session-steps.js';

/** Runs at work at once, across all automations. */
export const MAX_AT_WORK = 4;

/** Runs of one automation waiting in line; one fired beyond that is skipped. */
export const MAX_QUEUED = 2;

/** How often waits, asks and budgets are looked at, in milliseconds. */
export const TICK_MS = 1000;

/** An ask waits this long when its step doesn't say, in minutes. */
export const DEFAULT_ASK_MIN = 10;

/** A shell step's limit when its step doesn't say, in seconds. */
export const DEFAULT_SHELL_SEC = 60;

/** The states of a run at work. */
export const AT_WORK = Object.freeze(['queued', 'waiting', 'running', 'needs_you']);

export const NOT_ASKING = 'That run isn’t waiting for an answer at that step.';
export const BAD_ANSWER = 'That isn’t one of the answers the step offers.';
export const STEPS_CHANGED = 'Its steps changed since that run. Retry it from the start.';
export const ACTIVE = 'That run is still at work.';
export const NO_AUTOMATION = 'The automation of that run is gone.';
export const LINE_FULL = 'Its runs before it were still waiting in line.';
export const UNKNOWN_STEP = 'Tidewatch can’t run this kind of step.';
export const NO_STEP = 'That run has no step with that id.';

/** What an output says of a run that said nothing itself. */
export const ENDED_WORDS = Object.freeze({ done: 'Done.', failed: 'It failed.', stopped: 'It was stopped.' });

const STOPPED = Symbol('stopped');
const newId = (prefix) => `${prefix}_${randomBytes(4).toString('hex')}`;
const stepSignature = (step) => JSON.stringify(step);
const pct = (window) => (isObject(window) && Number.isFinite(window.pct) ? window.pct : null);

/** A run as the wire carries it: what only the engine needs stays behind. */
export function wireRun(run) {
  const { payload, plan, ...rest } = run;
  return { ...rest, steps: run.steps.map(({ whole, ...step }) => step) };
}

// The clock text of a moment, such as "9:00", on the machine's own clock.
function clockText(ms) {
  const at = new Date(ms);
  return `${at.getHours()}:${String(at.getMinutes()).padStart(2, '0')}`;
}

// What an outcome of notifyDesktop, sayAloud or deliver says about failing: a sentence, or null.
function failureOf(outcome) {
  if (isObject(outcome) && (outcome.state === 'failed' || outcome.ok === false)) return String(outcome.error ?? 'It didn’t go.');
  return null;
}

export class RunEngine {
  #clock;
  #store;
  #steps;
  #outputs;
  #usage;
  #publish;
  #sessions;
  #facts;
  #projectsRoot;
  #log;
  #runs;
  /** run id → what a run at work needs: {run, automation, abort, waits, ...} */
  #work = new Map();
  #line = [];
  #paused = false;
  #closed = false;
  #timer;

  /**
   * @param {Object} options
   * @param {{now(): number}} options.clock
   * @param {{get(id: string): (Object|null), secretOf?: function(string, string): *}} options.store
   *     The automations; `secretOf` gives an output's kept address or token
   * @param {Object} options.steps The places steps reach: `runShell({command, cwd, env,
   *     timeoutSec, signal}) → {exit, output, timedOut}`, `notifyDesktop(title, text)`, `sayAloud(text)`
   * @param {{deliver: function(Object, *, Object): Promise<{state: string, error: (string|undefined), at: number}>}} options.outputs
   * @param {function(): (Object|null)} [options.usage] Claude Code's usage now (`fiveHour`, `sevenDay`)
   * @param {function(string, Object): void} [options.publish] Hears the automation id and its run (wire form) at each change
   * @param {string} options.support The support folder, where the runs are kept
   * @param {SessionRoad} [options.sessions] The service's sessions, for `start` and `continue`
   * @param {{battery?: function(): (number|null), week?: function(): (string|null)}} [options.facts]
   * @param {function(): string} options.projectsRoot The person's projects folder now
   * @param {number} [options.tickEveryMs=TICK_MS] 0 for none: a test calls tick()
   * @param {Log} [options.log]
   */
  constructor({ clock, store, steps, outputs, usage = () => null, publish = () => {}, support, sessions = null, facts = {}, projectsRoot, tickEveryMs = TICK_MS, log = null }) {
    this.#clock = clock;
    this.#store = store;
    this.#steps = steps;
    this.#outputs = outputs;
    this.#usage = usage;
    this.#publish = publish;
    this.#sessions = sessions;
    this.#facts = facts;
    this.#projectsRoot = projectsRoot;
    this.#log = log;
    this.#runs = new RunStore({ support });
    this.#runs.load();
    if (tickEveryMs > 0) {
      this.#timer = setInterval(() => this.tick(), tickEveryMs);
      this.#timer.unref();
    }
  }

  /** Marks what was at work when the service last stopped as stopped, `ended`. */
  restore() {
    for (const run of this.#runs.all().filter((each) => AT_WORK.includes(each.state))) {
      this.#stopSteps(run, 'ended');
      Object.assign(run, { state: 'stopped', reason: 'ended', endedAt: this.#now() });
      delete run.ask;
      delete run.until;
      delete run.step;
      this.#save(run);
    }
  }

  /**
   * An automation's moment came. Nothing starts while everything is paused.
   *
   * @param {Object} automation As stored
   * @param {{by: string, at: number, sessionId?: string, detail?: string, payload?: string}} fired
   * @return {Object|null} The run (wire form), or null when paused
   */
  fire(automation, fired) {
    if (this.#paused) return null;
    return this.#begin(automation, fired, {});
  }

  /** A run the person asked for, which starts even while everything is paused. */
  runNow(automation, by = LOCAL_DECIDER) {
    return this.#begin(automation, { by, at: this.#now() }, { manual: true });
  }

  /**
   * Runs a run again, from the start or from one of its steps, the steps
   * before that one kept with what they said.
   *
   * @param {string} runId
   * @param {string} [fromStepId]
   * @return {Object} The new run (wire form)
   * @throws {HttpError} 404 for no such run or automation, 409 `active` while
   *     the run works, 400 `steps_changed` when its steps moved since
   */
  retry(runId, fromStepId) {
    const old = this.#runs.find(runId);
    if (!old) throw notFound('run', runId);
    if (AT_WORK.includes(old.state)) throw new HttpError(409, 'active', ACTIVE, { run: wireRun(old) });
    const automation = this.#store.get(old.automationId);
    if (!automation) throw new HttpError(404, 'not_found', NO_AUTOMATION);
    const fired = { ...old.fired, payload: old.payload };
    if (fromStepId === undefined) return this.#begin(automation, fired, { manual: true, retryOf: old.id });
    const from = old.steps.findIndex((step) => step.id === fromStepId);
    if (from < 0) throw new HttpError(400, 'bad_step', NO_STEP, { field: 'fromStep' });
    const now = automation.steps ?? [];
    // The steps kept must be as they were; the one retried may have been mended.
    const same = (i) => now[i]?.id === old.steps[i].id && (i === from || stepSignature(now[i]) === old.plan?.[i]);
    if (![...Array(from + 1).keys()].every(same)) throw new HttpError(400, 'steps_changed', STEPS_CHANGED, { field: 'fromStep' });
    const reused = old.steps.slice(0, from).map((step) => ({ ...step, reused: true }));
    return this.#begin(automation, fired, { manual: true, retryOf: old.id, retryFrom: fromStepId, reused });
  }

  /**
   * The answer to a run waiting at an ask; the first one counts.
   *
   * @param {string} runId
   * @param {string} stepId
   * @param {string} text One of the step's answers
   * @param {string} [by=LOCAL_DECIDER] Where it was answered: "mac", "glasses", …
   * @return {Object} The run (wire form)
   * @throws {HttpError} 404, 409 `not_asking` with the run, 400 `bad_answer`
   */
  answer(runId, stepId, text, by = LOCAL_DECIDER) {
    const run = this.#runs.find(runId);
    if (!run) throw notFound('run', runId);
    const entry = this.#work.get(runId);
    if (!entry?.asking || run.ask?.stepId !== stepId) throw new HttpError(409, 'not_asking', NOT_ASKING, { run: wireRun(run) });
    if (!run.ask.answers.includes(text)) throw new HttpError(400, 'bad_answer', BAD_ANSWER, { field: 'answer' });
    entry.asking({ text, by, at: this.#now() });
    return wireRun(run);
  }

  /** Pauses or resumes: while paused nothing fires and nothing in line starts; runs at work finish. */
  setPaused(on) {
    this.#paused = on;
    if (!on) this.#next();
  }

  get paused() {
    return this.#paused;
  }

  /**
   * @return {{runs: Array<Object>, total: number}} The automation's last
   *     runs (wire form), newest first, and how many it ever had
   */
  runsOf(automationId, limit = 20) {
    return { runs: this.#runs.runs(automationId).slice(0, limit).map(wireRun), total: this.#runs.total(automationId) };
  }

  /** Lets a deleted automation's runs go; one at work is stopped first. */
  forget(automationId) {
    for (const entry of this.#work.values()) if (entry.run.automationId === automationId) this.#stop(entry, 'by_user');
    this.#line = this.#line.filter((entry) => entry.run.automationId !== automationId);
    this.#runs.forget(automationId);
  }

  /** Stops a run at work, as the person asked. */
  stop(runId) {
    const entry = this.#work.get(runId) ?? this.#line.find((each) => each.run.id === runId);
    if (!entry) throw new HttpError(409, 'not_active', 'That run isn’t at work.');
    if (this.#line.includes(entry)) {
      this.#line = this.#line.filter((each) => each !== entry);
      this.#finish(entry, 'by_user');
    } else this.#stop(entry, 'by_user');
  }

  /** Looks at every wait, ask and budget now; the timer calls it, and a test with its own clock. */
  tick() {
    for (const entry of [...this.#work.values()]) {
      this.#checkBudget(entry);
      for (const wait of [...entry.waits]) wait();
    }
  }

  /** Stops the timer and lets go of the runs at work, which a restart then marks as ended. */
  close() {
    this.#closed = true;
    clearInterval(this.#timer);
    for (const entry of this.#work.values()) {
      entry.abort.abort();
      entry.stopped = 'ended';
      entry.wake();
    }
    try {
      this.#runs.flush();
    } catch (error) {
      this.#log?.warn(`The automations’ runs couldn’t be kept as the service stopped: ${error.message}`);
    }
  }

  #now() {
    return this.#clock.now();
  }

  #save(run) {
    if (this.#closed) return;
    this.#runs.put(run);
    try {
      this.#publish(run.automationId, wireRun(run));
    } catch (error) {
      this.#log?.warn(`A run’s news couldn’t be told: ${error.message}`);
    }
  }

  #begin(automation, fired, { manual = false, retryOf, retryFrom, reused = [] }) {
    const steps = Array.isArray(automation.steps) ? automation.steps : [];
    const { payload = '', ...firedRest } = fired;
    const run = {
      id: newId('ru'),
      automationId: automation.id,
      name: automation.name,
      fired: firedRest,
      state: 'queued',
      sessionIds: [...new Set(reused.flatMap((step) => step.sessionIds ?? []))],
      steps: steps.map((step, i) => reused[i] ?? { id: step.id, kind: step.kind, state: 'pending' }),
      outputs: (automation.outputs ?? []).map((output) => ({ id: output.id, kind: output.kind, state: 'pending' })),
      plan: steps.map(stepSignature),
      payload: String(payload).slice(0, MAX_VALUE_CHARS),
    };
    if (retryOf) run.retryOf = retryOf;
    if (retryFrom) run.retryFrom = retryFrom;
    const waiting = this.#line.filter((entry) => entry.run.automationId === automation.id).length;
    const entry = { run, automation, manual, from: reused.length };
    if (waiting >= MAX_QUEUED) {
      this.#finish(entry, null, { state: 'skipped', result: LINE_FULL });
      return wireRun(run);
    }
    this.#save(run);
    this.#line.push(entry);
    this.#next();
    return wireRun(run);
  }

  #next() {
    while (!this.#closed && this.#work.size < MAX_AT_WORK) {
      const busy = new Set([...this.#work.values()].map((entry) => entry.run.automationId));
      const index = this.#line.findIndex((entry) => !busy.has(entry.run.automationId) && (entry.manual || !this.#paused));
      if (index < 0) return;
      const [entry] = this.#line.splice(index, 1);
      this.#work.set(entry.run.id, entry);
      this.#drive(entry).catch((error) => {
        this.#log?.error(`An automation’s run broke: ${error?.stack ?? error}`);
        this.#finish(entry, null, { state: 'failed', reason: 'error', result: String(error?.message ?? error) });
      });
    }
  }

  async #drive(entry) {
    const { run, automation } = entry;
    const now = this.#now();
    Object.assign(entry, {
      abort: new AbortController(),
      waits: new Set(),
      stopped: null,
      pausedMs: 0,
      pausedSince: null,
      lastPct: pct(this.#usage()?.fiveHour),
      spentPct: 0,
    });
    entry.halted = new Promise((resolve) => (entry.wake = () => resolve(STOPPED)));
    Object.assign(run, { state: 'running', startedAt: now });
    this.#save(run);
    const steps = automation.steps ?? [];
    for (let i = entry.from; i < steps.length && !entry.stopped; i++) {
      const record = run.steps[i];
      const before = run.steps.slice(0, i).findLast((step) => step.state !== 'skipped') ?? null;
      const reason = skipReason(steps[i].if, before, before?.whole ?? before?.result ?? '');
      if (reason) {
        Object.assign(record, { state: 'skipped', reason });
        this.#save(run);
        continue;
      }
      Object.assign(record, { state: 'running', startedAt: this.#now() });
      run.step = i;
      this.#save(run);
      const outcome = await Promise.race([this.#runStep(entry, steps[i], record, i), entry.halted]).catch((error) => ({
        state: 'failed',
        reason: 'error',
        result: String(error?.message ?? error),
      }));
      if (outcome === STOPPED || entry.stopped) break;
      Object.assign(record, outcome, { endedAt: this.#now() });
      this.#save(run);
    }
    if (this.#closed) return;
    await this.#finish(entry, entry.stopped);
  }

  // Ends a run: its state by its steps (or the stop), then its outputs told.
  async #finish(entry, stoppedBy, forced = null) {
    const { run, automation } = entry;
    this.#work.delete(run.id);
    delete run.ask;
    delete run.until;
    delete run.step;
    if (stoppedBy) {
      this.#stopSteps(run, stoppedBy);
      Object.assign(run, { state: 'stopped', reason: stoppedBy });
    } else if (forced) {
      Object.assign(run, forced);
      for (const step of run.steps) if (step.state === 'pending') Object.assign(step, { state: 'skipped', reason: 'not_reached' });
    } else {
      const last = run.steps.findLast((step) => step.state !== 'skipped' && step.state !== 'pending');
      Object.assign(run, { state: last?.state === 'done' || !last ? 'done' : last.state });
      if (last?.reason && run.state !== 'done') run.reason = last.reason;
      if (last?.result !== undefined) run.result = last.result;
      if (last?.quiet) run.quiet = true;
    }
    run.endedAt = this.#now();
    run.sessionIds = [...new Set(run.steps.flatMap((step) => step.sessionIds ?? []))];
    this.#save(run);
    this.#next();
    await this.#tell(run, automation);
  }

  // The step at work stops with the reason; those not reached are skipped.
  #stopSteps(run, reason) {
    for (const step of run.steps) {
      if (['running', 'waiting', 'needs_you'].includes(step.state)) Object.assign(step, { state: 'stopped', reason, endedAt: this.#now() });
      else if (step.state === 'pending') Object.assign(step, { state: 'skipped', reason: 'not_reached' });
    }
  }

  async #tell(run, automation) {
    const outputs = automation.outputs ?? [];
    for (const [i, output] of outputs.entries()) {
      const record = run.outputs[i];
      // A run with nothing new, or one skipped whole, has nothing to tell.
      if (run.quiet || run.state === 'skipped') {
        record.state = 'skipped';
        continue;
      }
      const text = fillText(output.text, this.#words(run, automation, run.steps.length)).trim() || run.result || ENDED_WORDS[run.state];
      const message = { automation: { id: automation.id, name: automation.name }, run: wireRun(run), text };
      const secret = this.#store.secretOf?.(automation.id, output.id) ?? null;
      const sent = await Promise.resolve()
        .then(() => this.#outputs.deliver(output, secret, message))
        .catch((error) => ({ state: 'failed', error: error.message }));
      Object.assign(record, { state: sent?.state ?? 'failed', at: sent?.at ?? this.#now() });
      if (sent?.error) record.error = String(sent.error).slice(0, 500);
      this.#save(run);
    }
    if (outputs.length > 0) this.#save(run);
  }

  #stop(entry, reason) {
    if (entry.stopped) return;
    entry.stopped = reason;
    entry.abort.abort();
    for (const id of entry.run.steps.find((step) => step.state === 'running' || step.state === 'needs_you')?.sessionIds ?? []) {
      try {
        this.#sessions?.stop(id);
      } catch {
        // a session the service doesn't run goes on by itself
      }
    }
    entry.wake();
  }

  #checkBudget(entry) {
    const budget = entry.automation.budget;
    if (!isObject(budget) || entry.stopped) return;
    const now = this.#now();
    if (Number.isFinite(budget.minutes) && budget.minutes > 0) {
      const worked = now - entry.run.startedAt - entry.pausedMs - (entry.pausedSince === null ? 0 : now - entry.pausedSince);
      if (worked >= budget.minutes * 60000) return this.#stop(entry, 'budget');
    }
    const reading = pct(this.#usage()?.fiveHour);
    // A window that reset starts counting again from its new reading.
    if (reading !== null && entry.lastPct !== null && reading > entry.lastPct) entry.spentPct += reading - entry.lastPct;
    if (reading !== null) entry.lastPct = reading;
    if (Number.isFinite(budget.windowPct) && budget.windowPct > 0 && entry.spentPct >= budget.windowPct) this.#stop(entry, 'budget');
  }

  // Waits until the test gives something, showing the step as `show` says meanwhile.
  #waitFor(entry, record, test, show = () => null) {
    const { run } = entry;
    return new Promise((resolve) => {
      const wait = () => {
        const value = test();
        const shown = value ? null : show();
        const state = shown?.state ?? 'running';
        if (record.state !== state || record.reason !== shown?.reason) {
          Object.assign(record, { state });
          if (shown?.reason) record.reason = shown.reason;
          else delete record.reason;
          if (record.kind !== 'ask') {
            run.state = state;
            if (shown?.until) run.until = shown.until;
            else delete run.until;
          }
          this.#pauseBudget(entry, state !== 'running');
          this.#save(run);
        }
        if (!value) return;
        entry.waits.delete(wait);
        resolve(value);
      };
      entry.waits.add(wait);
      wait();
    });
  }

  #pauseBudget(entry, paused) {
    const now = this.#now();
    if (paused && entry.pausedSince === null) entry.pausedSince = now;
    if (!paused && entry.pausedSince !== null) {
      entry.pausedMs += now - entry.pausedSince;
      entry.pausedSince = null;
    }
  }

  // What a text of step `index` may have filled in.
  #words(run, automation, index) {
    const fired = run.fired;
    const trigger = automation.trigger ?? {};
    const steps = automation.steps ?? [];
    const projectPath =
      steps[index]?.projectPath ?? steps.slice(0, index).findLast((step) => step.projectPath)?.projectPath ?? trigger.projectPath ?? trigger.path ?? trigger.repoPath ?? '';
    const session = fired.sessionId ? this.#sessions?.session(fired.sessionId) : null;
    const done = run.steps.slice(0, index).filter((step) => step.state !== 'pending' && step.state !== 'skipped');
    const prev = index > 0 ? run.steps[index - 1] : null;
    const shell = done.findLast((step) => step.kind === 'shell');
    const battery = this.#facts.battery?.();
    return {
      project: projectPath ? path.basename(projectPath) : '',
      time: clockText(run.startedAt ?? this.#now()),
      battery: Number.isFinite(battery) ? `${Math.round(battery)}%` : 'unknown',
      week: this.#facts.week?.() ?? 'unknown',
      session: session?.title ?? '',
      result: twoSentences(session?.lastText ?? ''),
      ask: fired.sessionId ? (this.#sessions?.asking(fired.sessionId) ?? '') : '',
      prev: prev ? (prev.result ?? prev.reason ?? '') : '',
      prevWhole: prev ? (prev.whole ?? prev.result ?? '') : '',
      exit: shell && Number.isInteger(shell.exit) ? String(shell.exit) : '',
      output: shell ? (shell.whole ?? shell.result ?? '') : '',
      answer: done.findLast((step) => step.answer)?.answer.text ?? '',
      payload: run.payload ?? '',
      steps: Object.fromEntries(done.map((step) => [step.id, { short: step.result ?? '', whole: step.whole ?? step.result ?? '' }])),
    };
  }

  // A project folder that is there and inside the projects folder, as a real path.
  async #project(folder) {
    if (typeof folder !== 'string' || folder === '') return { reason: 'no_project' };
    let real;
    try {
      real = await fs.realpath(folder);
      if (!(await fs.stat(real)).isDirectory()) return { reason: 'no_project' };
    } catch {
      return { reason: 'no_project' };
    }
    const root = await fs.realpath(this.#projectsRoot()).catch(() => null);
    const inside = root === null ? '..' : path.relative(root, real);
    if (inside.startsWith('..') || path.isAbsolute(inside)) return { reason: 'outside_projects' };
    return { path: real };
  }

  #limited() {
    const usage = this.#usage();
    const full = [usage?.fiveHour, usage?.sevenDay].filter((window) => pct(window) !== null && window.pct >= 100);
    if (full.length === 0) return null;
    return { until: Math.max(...full.map((window) => (Number.isFinite(window.resetsAt) ? window.resetsAt : 0))) || undefined };
  }

  async #runStep(entry, step, record, index) {
    const { run, automation } = entry;
    const words = this.#words(run, automation, index);
    const fill = (text, only = null) => fillText(text, words, only);
    switch (step.kind) {
      case 'start':
      case 'continue':
        if (!this.#sessions) return { state: 'failed', reason: 'no_session' };
        return sessionStep({
          step,
          run,
          fired: run.fired,
          automation,
          sessions: this.#sessions,
          fill,
          project: (folder) => this.#project(folder),
          waitFor: (test, show) => this.#waitFor(entry, record, test, show),
          freeOfLimits: () =>
            this.#waitFor(entry, record, () => this.#limited() === null, () => ({ state: 'waiting', reason: 'limited', until: this.#limited()?.until })),
          now: () => this.#now(),
          told: (ids) => {
            record.sessionIds = ids;
            run.sessionIds = [...new Set([...run.sessionIds, ...ids])];
            this.#save(run);
          },
        });
      case 'ask':
        return this.#ask(entry, step, record);
      case 'shell':
        return this.#shell(entry, step, words);
      case 'notify':
      case 'say':
        return this.#tellStep(step, fill(step.text), automation.name);
      default:
        return { state: 'failed', reason: 'error', result: UNKNOWN_STEP };
    }
  }

  #ask(entry, step, record) {
    const { run } = entry;
    const until = this.#now() + (Number.isFinite(step.timeoutMin) ? step.timeoutMin : DEFAULT_ASK_MIN) * 60000;
    const answers = Array.isArray(step.answers) ? step.answers : [];
    run.ask = { stepId: step.id, question: step.question ?? '', answers, default: step.default ?? answers[0] ?? '', until };
    Object.assign(run, { state: 'needs_you', until });
    record.state = 'needs_you';
    this.#pauseBudget(entry, true);
    this.#save(run);
    return new Promise((resolve) => {
      const timeout = () => {
        if (this.#now() >= until) settle({ text: run.ask.default, by: 'timeout', at: this.#now() });
      };
      // The first answer settles it; the ask is gone before a second can come.
      const settle = (answer) => {
        entry.asking = null;
        entry.waits.delete(timeout);
        delete run.ask;
        delete run.until;
        run.state = 'running';
        Object.assign(record, { state: 'done', answer, result: answer.text, whole: answer.text, endedAt: this.#now() });
        this.#pauseBudget(entry, false);
        this.#save(run);
        resolve({ state: 'done', answer, result: answer.text, whole: answer.text });
      };
      entry.asking = settle;
      entry.waits.add(timeout);
    });
  }

  async #shell(entry, step, words) {
    const project = await this.#project(step.projectPath);
    if (project.reason) return { state: 'failed', reason: project.reason };
    const { exit, output = '', timedOut } = await this.#steps.runShell({
      command: commandText(step.command),
      cwd: project.path,
      env: shellEnv(words),
      timeoutSec: Number.isFinite(step.timeoutSec) ? step.timeoutSec : DEFAULT_SHELL_SEC,
      signal: entry.abort.signal,
    });
    const said = { result: lastLines(output), whole: String(output).slice(-MAX_VALUE_CHARS) };
    if (timedOut) return { state: 'failed', reason: 'timeout', ...said, ...(Number.isInteger(exit) ? { exit } : {}) };
    if (!Number.isInteger(exit)) return { state: 'failed', reason: 'error', ...said };
    if (exit !== 0) return { state: 'failed', reason: 'exit', exit, ...said };
    return { state: 'done', exit, quiet: String(output).trim() === '', ...said };
  }

  async #tellStep(step, text, title) {
    const attempt = (send) => Promise.resolve().then(send).then(failureOf, (error) => error.message);
    const why = await attempt(() => (step.kind === 'say' ? this.#steps.sayAloud(text) : this.#steps.notifyDesktop(title, text)));
    if (why) return { state: 'failed', reason: 'error', result: why };
    const glasses = step.kind === 'notify' && step.glasses ? await attempt(() => this.#steps.sayAloud(text)) : null;
    // Told on the computer but not on the glasses is still told.
    return { state: 'done', result: glasses ? `${text} (not on your glasses: ${glasses})` : text, whole: text };
  }
}
