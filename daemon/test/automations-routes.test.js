// Pausing every automation and answering a run that waits at an ask.

import assert from 'node:assert/strict';
import test from 'node:test';

import { MAX_ANSWER_LENGTH, MAX_ID_LENGTH } from '../src/automations-routes.js';
import { startScratchService } from './helpers.js';

const ask = { stepId: 'st_q', question: 'Ship it?', answers: ['Ship', 'Skip'], default: 'Skip', until: 4102444800000 };
const waiting = {
  id: 'ru_1',
  state: 'needs_you',
  sessionIds: ['s1'],
  startedAt: 1760000000000,
  steps: [
    { id: 'st_a', kind: 'shell', state: 'done', exit: 0 },
    { id: 'st_q', kind: 'ask', state: 'needs_you' },
  ],
  ask,
};
const automations = (lastRun) => ({
  paused: false,
  features: ['steps', 'ask'],
  list: [
    { id: 'au_0', name: 'Other', lastRun: { id: 'ru_0', state: 'done' } },
    { id: 'au_1', name: 'Nightly tidy', lastRun },
  ],
});

test('pausing and resuming every automation', async (t) => {
  const { local, post, snapshot, feed } = await startScratchService(t);
  await post('/qa/snapshot', { automations: automations(waiting) });
  const client = await feed();
  await client.next('snapshot'); // the one every client gets as it joins

  await t.test('the stored automations are paused, the rest stays, and the feed tells it', async () => {
    const reply = await post('/v1/automations/paused', { paused: true });
    assert.deepEqual([reply.status, reply.json], [200, { paused: true }]);
    assert.deepEqual((await snapshot()).automations, { ...automations(waiting), paused: true });
    assert.equal((await client.next('snapshot')).snapshot.automations.paused, true);
    assert.equal((await local('GET', '/local/status')).json.automations.paused, true);
    // Resuming answers false and stores it.
    assert.deepEqual((await post('/v1/automations/paused', { paused: false })).json, { paused: false });
    assert.equal((await snapshot()).automations.paused, false);
  });

  await t.test('anything but a boolean is refused and changes nothing', async () => {
    for (const body of [{}, { paused: 'yes' }, { paused: 1 }, { paused: null }]) {
      const reply = await post('/v1/automations/paused', body);
      assert.equal(reply.status, 400, JSON.stringify(body));
      assert.equal(reply.json.error.field, 'paused');
    }
    assert.equal((await snapshot()).automations.paused, false);
  });

  await t.test('a service that holds no automations part yet starts one', async () => {
    await post('/qa/snapshot', { automations: null });
    assert.deepEqual((await post('/v1/automations/paused', { paused: true })).json, { paused: true });
    assert.deepEqual((await snapshot()).automations, { paused: true, list: [], features: [] });
  });
});

test('answering a run that waits at an ask', async (t) => {
  const { post, snapshot, feed } = await startScratchService(t);
  await post('/qa/snapshot', { automations: automations(waiting) });
  const client = await feed();
  await client.next('snapshot'); // the one every client gets as it joins

  await t.test('the answer is the Mac’s, kept on its step, and the run works on', async () => {
    const before = Date.now();
    const reply = await post('/v1/automations/runs/ru_1/answer', { stepId: 'st_q', answer: 'Ship' });
    const { run } = reply.json;
    assert.deepEqual([reply.status, run.state, run.ask], [200, 'running', undefined]);
    assert.deepEqual(run.steps[0], waiting.steps[0], 'the other steps stay');
    const { answer, ...step } = run.steps[1];
    assert.deepEqual(step, { id: 'st_q', kind: 'ask', state: 'done', result: 'Ship' });
    assert.deepEqual([answer.text, answer.by], ['Ship', 'mac']);
    assert.ok(answer.at >= before && answer.at <= Date.now());

    const kept = (await snapshot()).automations;
    assert.deepEqual(kept.list[1].lastRun, run);
    assert.deepEqual(kept.list[0], automations(waiting).list[0], 'the other automation stays');
    assert.deepEqual((await client.next('snapshot')).snapshot.automations.list[1].lastRun, run);
  });

  await t.test('a second answer finds it answered, and the error carries the run', async () => {
    const reply = await post('/v1/automations/runs/ru_1/answer', { stepId: 'st_q', answer: 'Skip' });
    assert.deepEqual([reply.status, reply.json.error.code], [409, 'not_asking']);
    assert.equal(reply.json.error.run.steps[1].answer.text, 'Ship');
    assert.match(reply.json.error.message, /^[A-Z].*\.$/);
  });

  await t.test('a run without steps gets the answered step', async () => {
    const { steps, ...bare } = waiting;
    await post('/qa/snapshot', { automations: automations(bare) });
    const { run } = (await post('/v1/automations/runs/ru_1/answer', { stepId: 'st_q', answer: 'Skip' })).json;
    assert.deepEqual(
      run.steps.map(({ id, kind, state, answer }) => [id, kind, state, answer.text, answer.by]),
      [['st_q', 'ask', 'done', 'Skip', 'mac']],
    );
  });

  await t.test('what is not asking, or not asked, is refused and changes nothing', async () => {
    const rows = [
      ['another step', { ...waiting }, 'ru_1', { stepId: 'st_a', answer: 'Ship' }, 409, 'not_asking'],
      ['a run without its ask', { ...waiting, ask: null }, 'ru_1', { stepId: 'st_q', answer: 'Ship' }, 409, 'not_asking'],
      ['an answer it doesn’t offer', waiting, 'ru_1', { stepId: 'st_q', answer: 'Maybe' }, 400, 'bad_answer'],
      ['a run that isn’t the last of any automation', waiting, 'ru_9', { stepId: 'st_q', answer: 'Ship' }, 404, 'not_found'],
      ['a finished run of another automation', waiting, 'ru_0', { stepId: 'st_q', answer: 'Ship' }, 409, 'not_asking'],
      ['no step', waiting, 'ru_1', { answer: 'Ship' }, 400, 'invalid'],
      ['a step id too long', waiting, 'ru_1', { stepId: 'x'.repeat(MAX_ID_LENGTH + 1), answer: 'Ship' }, 400, 'invalid'],
      ['a blank answer', waiting, 'ru_1', { stepId: 'st_q', answer: '  ' }, 400, 'invalid'],
      ['an answer too long', waiting, 'ru_1', { stepId: 'st_q', answer: 'y'.repeat(MAX_ANSWER_LENGTH + 1) }, 400, 'invalid'],
      ['a run id too long', waiting, 'r'.repeat(MAX_ID_LENGTH + 1), { stepId: 'st_q', answer: 'Ship' }, 400, 'invalid'],
    ];
    for (const [name, lastRun, runId, body, status, code] of rows) {
      await post('/qa/snapshot', { automations: automations(lastRun) });
      const reply = await post(`/v1/automations/runs/${encodeURIComponent(runId)}/answer`, body);
      assert.deepEqual([reply.status, reply.json.error.code], [status, code], name);
      assert.match(reply.json.error.message, /^[A-Z].*\.$/, `${name}: a sentence`);
      if (code === 'not_asking') assert.deepEqual(reply.json.error.run, automations(lastRun).list.find((a) => a.lastRun.id === runId).lastRun, name);
      assert.deepEqual((await snapshot()).automations, automations(lastRun), `${name}: nothing changed`);
    }
  });

  await t.test('an answer as long as allowed is taken', async () => {
    const long = 'z'.repeat(MAX_ANSWER_LENGTH);
    await post('/qa/snapshot', { automations: automations({ ...waiting, ask: { ...ask, answers: ['Ship', long] } }) });
    assert.equal((await post('/v1/automations/runs/ru_1/answer', { stepId: 'st_q', answer: long })).status, 200);
  });
});
