// The routes of the runs, on the local port behind the admin token: the runs
// of an automation, run now, retry, and the answer to a run that asks.

import { LOCAL_DECIDER } from '../action-routes.js';
import { invalid, notFound } from '../http-reply.js';
import { readJsonObject } from '../request-body.js';
import { RUNS_KEPT } from './run-store.js';

/** The largest body these routes read, in bytes: ids and one answer fit easily. */
export const MAX_RUN_BODY_BYTES = 4 * 1024;

/** The longest id taken, in characters. */
export const MAX_ID_CHARS = 100;

/** The longest answer taken, in characters: an ask's answers are at most this long. */
export const MAX_ANSWER_CHARS = 24;

function idOf(value, field, what) {
  if (typeof value !== 'string' || value === '' || [...value].length > MAX_ID_CHARS) {
    throw invalid(field, `The ${what} must be an id of 1 to ${MAX_ID_CHARS} characters.`);
  }
  return value;
}

function limitOf(url) {
  const given = url.searchParams.get('limit');
  if (given === null) return RUNS_KEPT;
  const limit = Number(given);
  if (!/^\d+$/.test(given) || limit < 1 || limit > RUNS_KEPT) throw invalid('limit', `“limit” must be a whole number from 1 to ${RUNS_KEPT}.`);
  return limit;
}

/**
 * Adds the run routes.
 *
 * @param {Router} router The local port's
 * @param {Object} parts
 * @param {RunEngine} parts.engine
 * @param {{get(id: string): (Object|null)}} parts.store The automations
 */
export function addRunRoutes(router, { engine, store }) {
  const automationOf = (id) => {
    const automation = store.get(idOf(id, 'id', 'automation'));
    if (!automation) throw notFound('automation', id);
    return automation;
  };
  router
    .add('GET', '/v1/automations/:id/runs', ({ params, url }) => {
      const limit = limitOf(url);
      return { ...engine.runsOf(automationOf(params.id).id, limit), skipped: 0 };
    })
    .add('POST', '/v1/automations/:id/run', async ({ req, params }) => {
      await readJsonObject(req, MAX_RUN_BODY_BYTES);
      return { run: engine.runNow(automationOf(params.id), LOCAL_DECIDER) };
    })
    .add('POST', '/v1/automations/runs/:runId/retry', async ({ req, params }) => {
      const body = await readJsonObject(req, MAX_RUN_BODY_BYTES);
      const runId = idOf(params.runId, 'runId', 'run');
      const from = body.fromStep === undefined || body.fromStep === null ? undefined : idOf(body.fromStep, 'fromStep', 'step');
      return { run: engine.retry(runId, from) };
    })
    .add('POST', '/v1/automations/runs/:runId/answer', async ({ req, params }) => {
      const body = await readJsonObject(req, MAX_RUN_BODY_BYTES);
      const runId = idOf(params.runId, 'runId', 'run');
      const stepId = idOf(body.stepId, 'stepId', 'step');
      const { answer } = body;
      if (typeof answer !== 'string' || answer.trim() === '' || [...answer].length > MAX_ANSWER_CHARS) {
        throw invalid('answer', `The answer must be a text of 1 to ${MAX_ANSWER_CHARS} characters.`);
      }
      return { run: engine.answer(runId, stepId, answer, LOCAL_DECIDER) };
    });
}
