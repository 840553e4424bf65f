// Pausing every automation and answering a run that waits at an ask, on the
// automations part the state holds: both change only that part, which the
// feed tells every client. The book's own routes (automations/
// automation-routes.js) pause the kept automations instead.

import { HttpError, invalid, notFound } from './http-reply.js';
import { LOCAL_DECIDER } from './action-routes.js';
import { readJsonObject, requireBoolean } from './request-body.js';
import { arrayOr, isObject, objectOr } from './json.js';

/** The longest run or step id taken, in characters. */
export const MAX_ID_LENGTH = 100;

/** The longest answer taken, in characters: an ask's answers are at most this long. */
export const MAX_ANSWER_LENGTH = 24;

const EMPTY = Object.freeze({ paused: false, list: [], features: [] });

const length = (text) => [...text].length;

function requireId(value, field, what) {
  if (typeof value !== 'string' || value === '' || length(value) > MAX_ID_LENGTH) {
    throw invalid(field, `The ${what} must be an id of 1 to ${MAX_ID_LENGTH} characters.`);
  }
  return value;
}

function requireAnswer(value) {
  if (typeof value !== 'string' || value.trim() === '' || length(value) > MAX_ANSWER_LENGTH) {
    throw invalid('answer', `The answer must be a text of 1 to ${MAX_ANSWER_LENGTH} characters.`);
  }
  return value;
}

// The run waiting at this step, with the step's answer kept on it and the ask gone.
function answered(run, stepId, text, at) {
  const answer = { text, by: LOCAL_DECIDER, at };
  const steps = arrayOr(run.steps);
  const index = steps.findIndex((step) => isObject(step) && step.id === stepId);
  const step = { ...(index < 0 ? { id: stepId, kind: 'ask' } : steps[index]), state: 'done', result: text, answer };
  const { ask, ...rest } = run;
  return {
    ...rest,
    state: 'running',
    steps: index < 0 ? [...steps, step] : steps.map((each, i) => (i === index ? step : each)),
  };
}

const automationsOf = (state) => objectOr(state.part('automations'), EMPTY);

/**
 * Adds the pause route and the answer route to the local port's table.
 *
 * @param {Router} router
 * @param {Object} parts
 * @param {ServiceState} parts.state
 */
export function addAutomationsRoutes(router, { state }) {
  router.add('POST', '/v1/automations/paused', async ({ req }) => {
    const paused = requireBoolean(await readJsonObject(req), 'paused');
    state.setSnapshotParts({ automations: { ...automationsOf(state), paused } });
    return { paused };
  });
  addAnswerRoute(router, { state });
}

/**
 * Adds the answer to a run that waits at an ask, kept on the state's part.
 *
 * @param {Router} router
 * @param {Object} parts
 * @param {ServiceState} parts.state
 */
export function addAnswerRoute(router, { state }) {
  const automations = () => automationsOf(state);

  router
    .add('POST', '/v1/automations/runs/:runId/answer', async ({ req, params }) => {
      const body = await readJsonObject(req);
      const runId = requireId(params.runId, 'runId', 'run');
      const stepId = requireId(body.stepId, 'stepId', 'step');
      const text = requireAnswer(body.answer);

      const kept = automations();
      const list = arrayOr(kept.list);
      const index = list.findIndex((each) => isObject(each) && isObject(each.lastRun) && each.lastRun.id === runId);
      if (index < 0) throw notFound('run', runId);
      const run = list[index].lastRun;
      const { ask } = run;
      if (run.state !== 'needs_you' || !isObject(ask) || ask.stepId !== stepId) {
        throw new HttpError(409, 'not_asking', 'That run isn’t waiting for an answer at that step.', { run });
      }
      if (!arrayOr(ask.answers).includes(text)) {
        throw new HttpError(400, 'bad_answer', 'That isn’t one of the answers the step offers.', { field: 'answer' });
      }

      const after = answered(run, stepId, text, Date.now());
      const changed = list.map((each, i) => (i === index ? { ...each, lastRun: after } : each));
      state.setSnapshotParts({ automations: { ...kept, list: changed } });
      return { run: after };
    });
}
