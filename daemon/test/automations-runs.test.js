// Runs of automations through the engine, with a real /bin/sh for shell
// steps: guards, placeholders and the shell's environment, the ask, retries,
// budgets, outputs, and runs kept across a restart; the run routes mounted
// on a listener as the service mounts its own.

import assert from 'node:assert/strict';
import fs from 'node:fs';
import path from 'node:path';
import test from 'node:test';

import { skipReason } from '../src/automations/guards.js';
import { fillText, OWN_WORDS, shellEnv, twoSentences } from '../src/automations/placeholders.js';
import { MAX_QUEUED } from '../src/automations/run-engine.js';
import { addRunRoutes } from '../src/automations/run-routes.js';
import { RUNS_FILE } from '../src/automations/run-store.js';
import { NO_FAULTS, PendingTimers } from '../src/faults.js';
import { closeListener, createListener, listen } from '../src/listener.js';
import { Log } from '../src/log.js';
import { Router } from '../src/router.js';
import { eventually, request } from './helpers.js';
import { engineParts, NO_VOICE } from './support/run-parts.js';

const done = { state: 'done', result: 'All good. Tests pass.' };
const GUARDS = [
  { name: 'the first step always runs', guard: null, before: null, whole: '', skip: null },
  { name: 'no guard runs after a step that went fine', guard: null, before: done, skip: null },
  { name: 'no guard skips after a failure', guard: null, before: { state: 'failed' }, skip: 'failed_before' },
  { name: 'ok holds after done', guard: { on: 'ok' }, before: done, skip: null },
  { name: 'ok fails after a failure', guard: { on: 'ok' }, before: { state: 'failed' }, skip: 'guard' },
  { name: 'failed holds after a failure', guard: { on: 'failed' }, before: { state: 'failed' }, skip: null },
  { name: 'failed holds after a stop', guard: { on: 'failed' }, before: { state: 'stopped', reason: 'budget' }, skip: null },
  { name: 'failed fails after done', guard: { on: 'failed' }, before: done, skip: 'guard' },
  { name: 'quiet holds after nothing new', guard: { on: 'quiet' }, before: { ...done, quiet: true }, skip: null },
  { name: 'quiet fails after news', guard: { on: 'quiet' }, before: done, skip: 'guard' },
  { name: 'not_quiet holds after news', guard: { on: 'not_quiet' }, before: done, skip: null },
  { name: 'not_quiet fails after nothing new', guard: { on: 'not_quiet' }, before: { ...done, quiet: true }, skip: 'guard' },
  { name: 'contains finds words in any case past the short result', guard: { on: 'contains', text: ' Deploy FAILED ' }, before: done, whole: 'a\nlong\nlog … the deploy failed at 3', skip: null },
  { name: 'contains is plain words, not a pattern', guard: { on: 'contains', text: 'fail.*' }, before: done, whole: 'it failed', skip: 'guard' },
  { name: 'contains with blank words never holds', guard: { on: 'contains', text: '  ' }, before: done, whole: 'anything', skip: 'guard' },
  { name: 'answer holds for that answer', guard: { on: 'answer', text: 'Ship' }, before: { state: 'done', answer: { text: 'Ship' } }, skip: null },
  { name: 'answer fails for another', guard: { on: 'answer', text: 'Ship' }, before: { state: 'done', answer: { text: 'Skip' } }, skip: 'guard' },
  { name: 'an unknown guard never holds', guard: { on: 'tomorrow' }, before: done, skip: 'guard' },
];

test('a step runs or is skipped by its guard and the step before:', async (t) => {
  for (const row of GUARDS) {
    await t.test(row.name, () => assert.equal(skipReason(row.guard, row.before, row.whole ?? ''), row.skip));
  }
});

const words = {
  project: 'shop',
  time: '9:00',
  battery: '81%',
  week: 'unknown',
  session: 'Fix login',
  result: 'It works.',
  ask: 'Bash: git push',
  prev: 'Step said.',
  prevWhole: 'Step said. All of it.',
  exit: '0',
  output: 'ok',
  answer: 'Ship',
  payload: '$(touch pwned)',
  steps: { 'st-a': { short: 'Short.', whole: 'Short. And long.' } },
};
const FILLS = [
  { name: 'every placeholder of a prompt', text: '{project} {time} {battery} {week} {session} {result} {ask} {prev} {exit} {output} {answer} {payload} {step:st-a}', want: 'shop 9:00 81% unknown Fix login It works. Bash: git push Step said. 0 ok Ship $(touch pwned) Short.' },
  { name: 'a prompt that asks nobody keeps outside words out', text: '{project} {payload} {result} {answer}', only: OWN_WORDS, want: 'shop {payload} {result} Ship' },
  { name: 'a step that isn’t there is empty', text: '[{step:st_gone}]', want: '[]' },
  { name: 'braces that aren’t a placeholder stay', text: '{nope} {step:} {project', want: '{nope} {step:} {project' },
];

test('texts are filled, and a prompt that asks nobody only with own words:', async (t) => {
  for (const row of FILLS) await t.test(row.name, () => assert.equal(fillText(row.text, words, row.only ?? null), row.want));
  await t.test('two sentences of a long reply', () => assert.equal(twoSentences('One.  Two!\nThree? Four.'), 'One. Two!'));
  await t.test('the variables of a shell step', () =>
    assert.deepEqual(shellEnv(words), {
      TIDEWATCH_PROJECT: 'shop',
      TIDEWATCH_TIME: '9:00',
      TIDEWATCH_BATTERY: '81%',
      TIDEWATCH_EXIT: '0',
      TIDEWATCH_ANSWER: 'Ship',
      TIDEWATCH_PREV: 'Step said. All of it.',
      TIDEWATCH_PAYLOAD: '$(touch pwned)',
      TIDEWATCH_OUTPUT: 'ok',
      TIDEWATCH_STEP_st_a: 'Short. And long.',
    }));
});

const shell = (id, command, more = {}) => ({ id, kind: 'shell', if: null, command, timeoutSec: 30, ...more });
const automation = (folder, steps, more = {}) => ({
  id: 'au_1',
  name: 'Nightly',
  trigger: { kind: 'webhook' },
  steps: steps.map((step) => (step.kind === 'shell' ? { projectPath: path.join(folder, 'shop'), ...step } : step)),
  outputs: [],
  ...more,
});
const ended = (engine, id) => eventually(() => {
  const run = engine.runsOf('au_1').runs.find((each) => each.id === id);
  return run && ['done', 'failed', 'stopped', 'skipped'].includes(run.state) && run;
}, 'the run’s end');

async function setUp(t, steps, more = {}, options = {}) {
  const parts = await engineParts(t, options);
  fs.mkdirSync(path.join(parts.folder, 'shop'));
  const made = automation(parts.folder, steps, more);
  parts.book.set(made.id, made);
  return { ...parts, automation: made };
}

test('words from outside reach a command only through its environment, and texts get them filled', async (t) => {
  const { engine, automation: made, folder, notified } = await setUp(t, [
    shell('st-a', 'printf "built shop. all green. third"'),
    shell('st_b', 'printf "%s|%s|%s|%s|%s|%s" "$TIDEWATCH_PREV" "$TIDEWATCH_PAYLOAD" "$TIDEWATCH_STEP_st_a" {project} "{exit}" {payload}'),
    { id: 'st_c', kind: 'notify', if: { on: 'ok' }, text: '{prev} / {step:st-a} / {payload} / {battery} on {project}' },
  ]);
  const hostile = '$(touch pwned); `touch pwned`';
  const run = engine.fire(made, { by: 'webhook', at: 1, payload: hostile });
  const after = await ended(engine, run.id);
  assert.equal(after.state, 'done');
  assert.equal(after.steps[1].result, `built shop. all green. third|${hostile}|built shop. all green. third|shop|0|{payload}`);
  assert.equal(fs.existsSync(path.join(folder, 'shop', 'pwned')), false, 'nothing from outside ran');
  assert.deepEqual(notified, [
    { title: 'Nightly', text: `${after.steps[1].result} / built shop. all green. third / ${hostile} / 81% on shop` },
  ]);
  assert.deepEqual(after.fired, { by: 'webhook', at: 1 }, 'the payload stays in the engine');
});

test('how a run ends, by its steps:', async (t) => {
  const ROWS = [
    {
      name: 'a failed command skips the rest and fails the run with its exit',
      steps: [shell('st_a', 'echo boom >&2; exit 3'), { id: 'st_b', kind: 'notify', if: null, text: 'x' }],
      want: { state: 'failed', reason: 'exit', steps: [['failed', 'exit', 3], ['skipped', 'failed_before']] },
    },
    {
      name: 'a step guarded on failure mends the run',
      steps: [shell('st_a', 'exit 1'), { id: 'st_b', kind: 'notify', if: { on: 'failed' }, text: 'it broke' }],
      want: { state: 'done', steps: [['failed', 'exit', 1], ['done']] },
    },
    {
      name: 'a failure reaches past a step its guard skipped',
      steps: [shell('st_a', 'exit 2'), { id: 'st_b', kind: 'notify', if: { on: 'ok' }, text: 'x' }, { id: 'st_c', kind: 'notify', if: null, text: 'x' }],
      want: { state: 'failed', reason: 'exit', steps: [['failed', 'exit', 2], ['skipped', 'guard'], ['skipped', 'failed_before']] },
    },
    {
      name: 'a command with nothing to say is quiet, and the quiet guard follows it',
      steps: [shell('st_a', 'true'), { id: 'st_b', kind: 'notify', if: { on: 'not_quiet' }, text: 'news' }],
      want: { state: 'done', quiet: true, steps: [['done', undefined, 0], ['skipped', 'guard']] },
    },
    {
      name: 'a command past its time fails with timeout',
      steps: [shell('st_a', 'sleep 30', { timeoutSec: 1 })],
      want: { state: 'failed', reason: 'timeout', steps: [['failed', 'timeout']] },
    },
    {
      name: 'a project that is gone fails before anything runs',
      steps: [shell('st_a', 'true', { projectPath: '/nowhere/at/all' })],
      want: { state: 'failed', reason: 'no_project', steps: [['failed', 'no_project']] },
    },
    {
      name: 'a project outside the projects folder is refused',
      steps: [shell('st_a', 'true', { projectPath: '/tmp' })],
      want: { state: 'failed', reason: 'outside_projects', steps: [['failed', 'outside_projects']] },
    },
    {
      name: 'reading aloud without a voice fails with its sentence',
      steps: [{ id: 'st_a', kind: 'say', if: null, text: 'hi' }],
      want: { state: 'failed', reason: 'error', result: NO_VOICE, steps: [['failed', 'error']] },
    },
    {
      name: 'a kind the engine doesn’t know fails, not pretends',
      steps: [{ id: 'st_a', kind: 'teleport', if: null }],
      want: { state: 'failed', reason: 'error', steps: [['failed', 'error']] },
    },
  ];
  for (const row of ROWS) {
    await t.test(row.name, async (t) => {
      const { engine, automation: made } = await setUp(t, row.steps);
      const run = await ended(engine, engine.runNow(made).id);
      assert.equal(run.state, row.want.state);
      assert.equal(run.reason, row.want.reason);
      assert.equal(run.quiet, row.want.quiet);
      if (row.want.result) assert.equal(run.result, row.want.result);
      assert.deepEqual(
        run.steps.map((step) => [step.state, step.reason, step.exit].slice(0, row.want.steps[run.steps.indexOf(step)].length)),
        row.want.steps,
      );
    });
  }
});

const ASK = { id: 'st_q', kind: 'ask', if: null, question: 'Ship it?', answers: ['Ship', 'Skip'], default: 'Skip', timeoutMin: 10 };
const AFTER_ASK = [
  ASK,
  { id: 'st_s', kind: 'notify', if: { on: 'answer', text: 'Ship' }, text: 'Shipping: {answer}' },
  { id: 'st_k', kind: 'notify', if: { on: 'answer', text: 'Skip' }, text: 'Skipped: {answer}' },
];

test('an ask waits for the first answer, or takes its default when the time runs out', async (t) => {
  await t.test('answered: the answer counts once, and a second is told it was answered', async (t) => {
    const { engine, automation: made, clock, notified } = await setUp(t, AFTER_ASK);
    const run = engine.runNow(made);
    const asking = engine.runsOf('au_1').runs[0];
    assert.equal(asking.state, 'needs_you');
    assert.deepEqual(asking.ask, { stepId: 'st_q', question: 'Ship it?', answers: ['Ship', 'Skip'], default: 'Skip', until: clock.now() + 600000 });
    assert.throws(() => engine.answer(run.id, 'st_q', 'Maybe'), { code: 'bad_answer', field: 'answer' });
    assert.throws(() => engine.answer(run.id, 'st_other', 'Ship'), { code: 'not_asking' });
    engine.answer(run.id, 'st_q', 'Ship', 'glasses');
    assert.throws(
      () => engine.answer(run.id, 'st_q', 'Skip', 'mac'),
      (error) => error.code === 'not_asking' && error.status === 409 && error.run.steps[0].answer.by === 'glasses',
    );
    const after = await ended(engine, run.id);
    assert.deepEqual([after.state, after.steps[0].answer.text, after.ask], ['done', 'Ship', undefined]);
    assert.deepEqual(notified.map((each) => each.text), ['Shipping: Ship']);
    assert.deepEqual(after.steps[2].reason, 'guard');
  });
  await t.test('timed out: the default is taken, by timeout, and the answer guard follows it', async (t) => {
    const { engine, automation: made, clock, notified } = await setUp(t, AFTER_ASK);
    const run = engine.runNow(made);
    clock.t += 599_999;
    engine.tick();
    assert.equal(engine.runsOf('au_1').runs[0].state, 'needs_you');
    clock.t += 1;
    engine.tick();
    const after = await ended(engine, run.id);
    assert.deepEqual(after.steps[0].answer, { text: 'Skip', by: 'timeout', at: clock.now() });
    assert.deepEqual(after.steps[1].reason, 'guard');
    assert.deepEqual(notified.map((each) => each.text), ['Skipped: Skip'], 'the answer reaches past the step it chose against');
  });
});

test('a retry keeps the steps before with what they said, and is refused when it can’t', async (t) => {
  const { engine, automation: made, book } = await setUp(t, [
    shell('st_a', 'echo first'),
    shell('st_b', 'test -f go || exit 4; echo "$TIDEWATCH_PREV"'),
  ]);
  const first = await ended(engine, engine.runNow(made).id);
  assert.deepEqual([first.state, first.steps[1].exit], ['failed', 4]);

  await t.test('active while a run works', async () => {
    book.set('au_1', { ...made, steps: [ASK] });
    const asking = engine.runNow(book.get('au_1'));
    assert.throws(() => engine.retry(asking.id), { status: 409, code: 'active' });
    engine.answer(asking.id, 'st_q', 'Skip');
    await ended(engine, asking.id);
  });
  await t.test('from a failed step, the mended step runs with the step before reused', async () => {
    book.set('au_1', { ...made, steps: [made.steps[0], { ...made.steps[1], command: 'echo "again: $TIDEWATCH_PREV"' }] });
    const retried = await ended(engine, engine.retry(first.id, 'st_b').id);
    assert.deepEqual([retried.state, retried.retryOf, retried.retryFrom], ['done', first.id, 'st_b']);
    assert.deepEqual(retried.steps[0], { ...first.steps[0], reused: true });
    assert.equal(retried.steps[1].result, 'again: first');
  });
  await t.test('steps_changed when a step before it changed', () => {
    book.set('au_1', { ...made, steps: [shell('st_a', 'echo other', { projectPath: made.steps[0].projectPath }), made.steps[1]] });
    assert.throws(() => engine.retry(first.id, 'st_b'), { status: 400, code: 'steps_changed', field: 'fromStep' });
    book.set('au_1', { ...made, steps: [made.steps[1], made.steps[0]] });
    assert.throws(() => engine.retry(first.id, 'st_b'), { code: 'steps_changed' });
  });
  await t.test('from the start always goes', async () => {
    const again = await ended(engine, engine.retry(first.id).id);
    assert.deepEqual([again.retryOf, again.retryFrom, again.steps[0].reused], [first.id, undefined, undefined]);
  });
  await t.test('a run or automation that is gone is 404', () => {
    assert.throws(() => engine.retry('ru_nothing'), { status: 404 });
    book.delete('au_1');
    assert.throws(() => engine.retry(first.id), { status: 404 });
  });
});

test('a run past its budget is stopped, its command ended and the rest not reached:', async (t) => {
  const ROWS = [
    { name: 'minutes at work', budget: { minutes: 1, windowPct: null }, spend: (parts) => (parts.clock.t += 60_000) },
    { name: 'points of the 5-hour window', budget: { minutes: null, windowPct: 10 }, spend: (parts) => (parts.usage.value = { fiveHour: { pct: 40 } }) },
  ];
  for (const row of ROWS) {
    await t.test(row.name, async (t) => {
      const parts = await setUp(t, [shell('st_a', 'sleep 60'), { id: 'st_b', kind: 'notify', if: null, text: 'x' }], { budget: row.budget }, { usage: { fiveHour: { pct: 30 } } });
      const run = parts.engine.runNow(parts.automation);
      parts.engine.tick();
      assert.equal(parts.engine.runsOf('au_1').runs[0].state, 'running', 'within its budget');
      row.spend(parts);
      parts.engine.tick();
      const after = await ended(parts.engine, run.id);
      assert.deepEqual([after.state, after.reason], ['stopped', 'budget']);
      assert.deepEqual(after.steps.map((step) => [step.state, step.reason]), [['stopped', 'budget'], ['skipped', 'not_reached']]);
    });
  }
  await t.test('time waiting for an answer isn’t time at work', async (t) => {
    const parts = await setUp(t, [ASK], { budget: { minutes: 1, windowPct: null } });
    const run = parts.engine.runNow(parts.automation);
    parts.clock.t += 5 * 60_000;
    parts.engine.tick();
    assert.equal(parts.engine.runsOf('au_1').runs[0].state, 'needs_you');
    parts.engine.answer(run.id, 'st_q', 'Ship');
    assert.equal((await ended(parts.engine, run.id)).state, 'done');
  });
});

test('the outputs are told the run’s words at the end, and not when there’s nothing new', async (t) => {
  const outputs = [{ id: 'ou_1', kind: 'webhook', preset: 'slack', text: '' }, { id: 'ou_2', kind: 'notify', text: '{project}: {prev}' }];
  await t.test('told', async (t) => {
    const { engine, automation: made, delivered } = await setUp(t, [shell('st_a', 'echo deployed')], { outputs });
    const run = await ended(engine, engine.runNow(made).id);
    assert.deepEqual(delivered.map((each) => [each.output.id, each.secret, each.message.text, each.message.automation]), [
      ['ou_1', 'secret-of-ou_1', 'deployed', { id: 'au_1', name: 'Nightly' }],
      ['ou_2', 'secret-of-ou_2', 'shop: deployed', { id: 'au_1', name: 'Nightly' }],
    ]);
    await eventually(() => engine.runsOf('au_1').runs[0].outputs.every((each) => each.state === 'sent'), 'both sent');
    assert.equal(run.id, engine.runsOf('au_1').runs[0].id);
  });
  await t.test('nothing new', async (t) => {
    const { engine, automation: made, delivered } = await setUp(t, [shell('st_a', 'true')], { outputs });
    const run = await ended(engine, engine.runNow(made).id);
    assert.deepEqual(run.outputs.map((each) => each.state), ['skipped', 'skipped']);
    assert.deepEqual(delivered, []);
  });
});

test('paused, nothing fires but a run asked for; runs wait in line one per automation', async (t) => {
  const { engine, automation: made } = await setUp(t, [ASK]);
  engine.setPaused(true);
  assert.equal(engine.fire(made, { by: 'cron', at: 1 }), null);
  const asked = engine.runNow(made);
  assert.equal(asked.state, 'needs_you');
  engine.setPaused(false);
  const line = Array.from({ length: MAX_QUEUED }, () => engine.fire(made, { by: 'cron', at: 2 }));
  assert.deepEqual(line.map((each) => each.state), Array(MAX_QUEUED).fill('queued'));
  const beyond = engine.fire(made, { by: 'cron', at: 3 });
  assert.equal(beyond.state, 'skipped');
  engine.answer(asked.id, 'st_q', 'Ship');
  await eventually(() => engine.runsOf('au_1').runs.find((each) => each.id === line[0].id).state === 'needs_you', 'the next in line started');
});

test('a run at work when the service stops is stopped, ended, after the restart; the runs are kept', async (t) => {
  const parts = await setUp(t, [shell('st_a', 'echo one'), ASK, { id: 'st_n', kind: 'notify', if: null, text: 'x' }]);
  const run = parts.engine.runNow(parts.automation);
  await eventually(() => parts.engine.runsOf('au_1').runs[0].state === 'needs_you', 'the ask');
  parts.engine.close();
  const file = path.join(parts.support, RUNS_FILE);
  assert.equal(fs.statSync(file).mode & 0o777, 0o600);

  const again = parts.make();
  again.restore();
  const { runs, total } = again.runsOf('au_1');
  assert.equal(total, 1);
  assert.deepEqual([runs[0].id, runs[0].state, runs[0].reason, runs[0].ask], [run.id, 'stopped', 'ended', undefined]);
  assert.deepEqual(runs[0].steps.map((step) => [step.state, step.reason ?? null]), [['done', null], ['stopped', 'ended'], ['skipped', 'not_reached']]);
  assert.throws(() => again.answer(run.id, 'st_q', 'Ship'), { code: 'not_asking' });
  const retried = again.retry(run.id, 'st_q');
  assert.deepEqual([retried.state, retried.steps[0].reused, retried.ask.stepId], ['needs_you', true, 'st_q'], 'asks again where it stopped');
});

test('the run routes, mounted on a listener as the service mounts its own', async (t) => {
  const parts = await setUp(t, [ASK]);
  const { engine, book, automation: made } = parts;
  const router = new Router();
  addRunRoutes(router, { engine, store: { get: (id) => book.get(id) ?? null } });
  const token = 'test-admin-token';
  const server = createListener({ router, faults: NO_FAULTS, pending: new PendingTimers(), log: new Log(parts.folder), token });
  const port = await listen(server, 0);
  t.after(() => closeListener(server));
  const call = (method, target, body) => request(port, method, target, { body, headers: { Authorization: `Bearer ${token}` } });

  const started = await call('POST', '/v1/automations/au_1/run');
  assert.equal(started.status, 200);
  const { run } = started.json;
  assert.deepEqual([run.state, run.fired.by, run.ask.stepId], ['needs_you', 'mac', 'st_q']);

  const REFUSALS = [
    { name: 'no token', call: () => request(port, 'POST', '/v1/automations/au_1/run'), status: 401 },
    { name: 'an unknown automation', call: () => call('POST', '/v1/automations/au_9/run'), status: 404 },
    { name: 'a limit out of range', call: () => call('GET', '/v1/automations/au_1/runs?limit=21'), status: 400, field: 'limit' },
    { name: 'an answer that isn’t one', call: () => call('POST', `/v1/automations/runs/${run.id}/answer`, { stepId: 'st_q', answer: 'Maybe' }), status: 400, code: 'bad_answer', field: 'answer' },
    { name: 'an answer too long', call: () => call('POST', `/v1/automations/runs/${run.id}/answer`, { stepId: 'st_q', answer: 'x'.repeat(25) }), status: 400, field: 'answer' },
    { name: 'no step', call: () => call('POST', `/v1/automations/runs/${run.id}/answer`, { answer: 'Ship' }), status: 400, field: 'stepId' },
    { name: 'a retry of a run at work', call: () => call('POST', `/v1/automations/runs/${run.id}/retry`, {}), status: 409, code: 'active' },
    { name: 'a body over 4 KiB', call: () => call('POST', `/v1/automations/runs/${run.id}/retry`, { fromStep: 'x'.repeat(5000) }), status: 413 },
  ];
  for (const row of REFUSALS) {
    await t.test(`refused: ${row.name}`, async () => {
      const reply = await row.call();
      assert.equal(reply.status, row.status);
      if (row.code) assert.equal(reply.json.error.code, row.code);
      if (row.field) assert.equal(reply.json.error.field, row.field);
    });
  }
  await t.test('answered once, then not_asking with the run', async () => {
    const answered = await call('POST', `/v1/automations/runs/${run.id}/answer`, { stepId: 'st_q', answer: 'Ship' });
    assert.equal(answered.status, 200);
    assert.deepEqual(answered.json.run.steps[0].answer.by, 'mac');
    const twice = await call('POST', `/v1/automations/runs/${run.id}/answer`, { stepId: 'st_q', answer: 'Skip' });
    assert.deepEqual([twice.status, twice.json.error.code, twice.json.error.run.steps[0].answer.text], [409, 'not_asking', 'Ship']);
  });
  await t.test('the runs, newest first, with their count', async () => {
    await ended(engine, run.id);
    await call('POST', `/v1/automations/runs/${run.id}/retry`, {});
    const reply = await call('GET', '/v1/automations/au_1/runs?limit=1');
    assert.equal(reply.status, 200);
    assert.deepEqual([reply.json.runs.length, reply.json.total, reply.json.skipped, reply.json.runs[0].retryOf], [1, 2, 0, run.id]);
    assert.equal(JSON.stringify(reply.json).includes('"plan"'), false, 'the engine’s own notes stay behind');
  });
  assert.equal(made.id, 'au_1');
});
