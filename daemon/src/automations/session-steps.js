// The steps that work through agent sessions: `start` opens a new one in a
// project, `continue` gives a prompt to sessions that exist. Both go through
// the service's own session road (the runner that starts Claude Code through
// the agent SDK and Codex with `codex exec`, or a shared terminal), and end
// when the session's turn ends, with what it said.

import { isObject } from '../json.js';
import { NOT_SHARED } from '../sessions/continuer.js';
import { OWN_WORDS, twoSentences } from './placeholders.js';

/** How long a prompt given to a session may wait for its turn to begin, in milliseconds. */
export const TURN_BEGIN_MS = 2 * 60 * 1000;

/** How long a `continue` waits for a busy session to be free, in milliseconds. */
export const TARGET_WAIT_MS = 30 * 60 * 1000;

/** The provider id of the built-in Claude Code sign-in. */
export const BUILT_IN_PROVIDER = 'anthropic';

const BUSY = ['starting', 'working', 'needs_you'];

// Codex's sandbox by the mode a request names (see codex-run.js).
const CODEX_MODES = { 'read-only': 'plan', 'workspace-write': 'default' };

/**
 * @typedef {Object} SessionRoad What the steps need of the service's sessions
 * @property {function(SessionRequest, Object): string} start Starts a session
 *     marked with the automation ({id, name, runId}); gives its id
 * @property {function(string, string): Promise<void>} continue A new turn with
 *     this prompt; throws with a sentence when the session can't take one
 * @property {function(string): (Object|null)} session The session's record now
 * @property {function(): Array<Object>} list Every session's record
 * @property {function(string): string} asking What the session asks now, such as "Bash: git push"
 * @property {function(string): void} stop Stops the session's turn, where the service runs it
 * @property {function(string): (Object<string, string>|null)} providerEnv A
 *     provider's environment; null when there is no such provider
 * @property {function(string): (string|null)} program The agent's program
 *     ("claude", "codex"), null when it isn't installed
 */

/**
 * The session road of a running service.
 *
 * @param {Object} parts
 * @param {ServiceState} parts.state
 * @param {SessionRunner} parts.runner
 * @param {TerminalHub} [parts.terminals] Where a session of a shared terminal is continued
 * @param {function(string): (Object<string, string>|null)} [parts.providerEnv] Providers other
 *     than the built-in one; none by default
 * @param {{claude: function(): (string|null), codex: function(): (string|null)}} parts.programs
 * @return {SessionRoad}
 */
export function serviceSessions({ state, runner, terminals = null, providerEnv = () => null, programs }) {
  return {
    start(request, automation) {
      const { id } = runner.start(request);
      state.patchSession(id, (it) => ({ ...it, automation }));
      return id;
    },
    async continue(sessionId, prompt) {
      if (runner.owns(sessionId)) return runner.continue(sessionId, prompt);
      if (await terminals?.type(sessionId, prompt, { submit: true })) return;
      throw new Error(NOT_SHARED);
    },
    session: (id) => state.session(id),
    list: () => state.part('sessions') ?? [],
    asking: (id) => {
      const approval = (state.part('approvals') ?? []).find((each) => each?.sessionId === id);
      if (!approval) return '';
      return approval.summary && approval.summary !== approval.toolName ? `${approval.toolName}: ${approval.summary}` : approval.toolName;
    },
    stop: (id) => runner.stop(id),
    providerEnv: (id) => (id === BUILT_IN_PROVIDER ? {} : providerEnv(id)),
    program: (agent) => programs[agent]?.() ?? null,
  };
}

/** The sessions a `continue` step's target names, or null when none is there. */
function targetsOf(step, run, fired, sessions) {
  const all = sessions.list().filter(isObject);
  const target = step.target ?? 'trigger';
  let ids;
  if (target === 'trigger') ids = fired.sessionId ? [fired.sessionId] : [];
  else if (target === 'working') ids = all.filter((each) => each.state === 'working').map((each) => each.id);
  else if (target === 'limited') ids = all.filter((each) => isObject(each.blocked)).map((each) => each.id);
  else if (target.startsWith('step:')) ids = run.steps.find((each) => each.id === target.slice(5))?.sessionIds ?? [];
  else ids = [];
  const there = ids.filter((id) => sessions.session(id) !== null && sessions.session(id)?.state !== 'ended');
  return there.length > 0 ? there : null;
}

/** The request a `start` step makes, or the reason it can't. */
function requestOf(step, project, prompt, sessions) {
  if (step.providerId === 'codex') {
    if (sessions.program('codex') === null) return { reason: 'no_provider' };
    const request = { agent: 'codex', permissionMode: CODEX_MODES[step.permissionMode] ?? 'plan', allowedTools: [], env: {} };
    if (typeof step.model === 'string' && step.model !== '') request.model = step.model;
    return { request: { ...request, project, prompt, origin: 'automation' } };
  }
  const env = sessions.providerEnv(step.providerId ?? BUILT_IN_PROVIDER);
  if (env === null) return { reason: 'no_provider' };
  const request = {
    agent: 'claude',
    permissionMode: step.permissionMode ?? 'dontAsk',
    allowedTools: Array.isArray(step.allowedTools) ? step.allowedTools : [],
    env,
  };
  return { request: { ...request, project, prompt, origin: 'automation' } };
}

/**
 * The prompt of a session step: a prompt that lets the session ask nobody
 * holds only the service's own words and the person's.
 */
export const promptOf = (step, fill) => fill(step.prompt, step.permissionMode === 'bypassPermissions' ? OWN_WORDS : null);

/**
 * How a turn ended, as the step's outcome.
 *
 * @param {Object|null} session Its record at the end
 */
export function turnOutcome(session) {
  const text = typeof session?.lastText === 'string' ? session.lastText : '';
  if (session === null) return { state: 'failed', reason: 'no_session' };
  if (isObject(session.blocked)) return { state: 'stopped', reason: 'limited', result: twoSentences(text), whole: text };
  if (session.state === 'error') {
    // Neither a model nor a thread: the agent never got going.
    const began = session.model !== undefined || session.codexThreadId !== undefined;
    return { state: 'failed', reason: began ? 'error' : 'start_failed', result: twoSentences(text), whole: text };
  }
  // A reply that says nothing, or says just that, is news of nothing.
  const quiet = text.trim() === '' || /^nothing new\.?$/i.test(text.trim());
  return { state: 'done', result: twoSentences(text), whole: text, quiet };
}

/**
 * Runs a `start` or `continue` step.
 *
 * @param {Object} at
 * @param {Object} at.step The configured step
 * @param {Object} at.run The run's record
 * @param {Object} at.fired What fired the run
 * @param {Object} at.automation
 * @param {SessionRoad} at.sessions
 * @param {function(string, Array<string>|null): string} at.fill Fills a text's placeholders
 * @param {function(string): Promise<{path: string}|{reason: string}>} at.project Checks a project folder
 * @param {function(function(): *, function(): (Object|null)=): Promise<*>} at.waitFor Waits for
 *     a test to give something; the second function tells how the step shows
 *     meanwhile (`{state, reason, until}`), null for at work
 * @param {function(): Promise<void>} at.freeOfLimits Waits while a usage limit holds
 * @param {function(): number} at.now
 * @param {function(Array<string>): void} at.told Notes the sessions the step works in
 * @return {Promise<Object>} The step's outcome
 */
export async function sessionStep(at) {
  const { step, sessions } = at;
  if (step.kind === 'start') {
    const project = await at.project(step.projectPath);
    if (project.reason) return { state: 'failed', reason: project.reason };
    const { request, reason } = requestOf(step, project.path, promptOf(step, at.fill), sessions);
    if (reason) return { state: 'failed', reason };
    await at.freeOfLimits();
    let id;
    try {
      id = sessions.start(request, { id: at.automation.id, name: at.automation.name, runId: at.run.id });
    } catch (error) {
      return { state: 'failed', reason: 'start_failed', result: error.message };
    }
    at.told([id]);
    return turn(at, id);
  }
  const targets = targetsOf(step, at.run, at.fired, sessions);
  if (targets === null) return { state: 'failed', reason: 'no_session' };
  at.told(targets);
  const prompt = promptOf(step, at.fill);
  let outcome = null;
  for (const id of targets) {
    const deadline = at.now() + TARGET_WAIT_MS;
    const free = await at.waitFor(
      () => (!BUSY.includes(sessions.session(id)?.state) ? 'free' : at.now() >= deadline ? 'busy' : null),
      () => ({ state: 'waiting', reason: 'target_busy', until: deadline }),
    );
    if (free === 'busy') return { state: 'failed', reason: 'target_busy' };
    await at.freeOfLimits();
    try {
      await sessions.continue(id, prompt);
    } catch (error) {
      return { state: 'failed', reason: 'no_session', result: error.message };
    }
    outcome = await turn(at, id);
    if (outcome.state !== 'done') return outcome;
  }
  return outcome;
}

// Waits for the session's turn: seen at work, then ended.
async function turn(at, id) {
  const { sessions } = at;
  const deadline = at.now() + TURN_BEGIN_MS;
  let busy = false;
  const ended = await at.waitFor(
    () => {
      const session = sessions.session(id);
      if (session === null) return 'gone';
      if (BUSY.includes(session.state)) {
        busy = true;
        return null;
      }
      if (busy) return 'ended';
      return at.now() >= deadline ? 'never' : null;
    },
    () => (sessions.session(id)?.state === 'needs_you' ? { state: 'needs_you' } : null),
  );
  if (ended === 'never') return { state: 'failed', reason: 'start_failed' };
  return turnOutcome(ended === 'gone' ? null : sessions.session(id));
}
