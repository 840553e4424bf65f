// The automations' calls a test makes of a running service: save one, read
// its runs, and wait for a run to reach a state or its end.

import assert from 'node:assert/strict';

import { eventually } from '../helpers.js';

const ENDED = ['done', 'failed', 'stopped', 'skipped'];

/**
 * @param {{local: function(string, string, Object=): Promise<Object>}} running What startScratchService gave
 * @param {number} [waitMs=120000] The longest wait for a run
 */
export function automationCalls({ local }, waitMs = 120000) {
  const save = async (body) => {
    const made = await local('POST', '/v1/automations', { body });
    assert.equal(made.status, 200, made.text);
    return made.json;
  };
  const runs = async (id) => (await local('GET', `/v1/automations/${id}/runs?limit=20`)).json.runs;
  const runOf = (id, runId, test, what) =>
    eventually(async () => {
      const run = (await runs(id)).find((each) => each.id === runId);
      return run && test(run) ? run : null;
    }, what, waitMs);
  // A run has ended once its outputs were told too.
  const ended = (id, runId) =>
    runOf(id, runId, (run) => ENDED.includes(run.state) && run.outputs.every((each) => each.state !== 'pending'), 'the run’s end');
  return { save, runs, runOf, ended };
}
