// The automations as the running service has them: saved through its routes,
// fired at its webhook door or by its clock, run by its engine, and told on
// its feed, all in one test copy.

import assert from 'node:assert/strict';
import fs from 'node:fs';
import path from 'node:path';
import test from 'node:test';

import { claudeFixture, eventually, request, startScratchService } from './helpers.js';
import { missingClaude } from './support/claude-code.js';
import { setUp as sessionsSetUp } from './support/service-sessions.js';

async function setUp(t, options = {}) {
  const running = await startScratchService(t, { automations: { recheckMs: 50, tickEveryMs: 50 }, ...options });
  const project = path.join(running.folder, 'projects', 'app');
  fs.mkdirSync(project, { recursive: true });
  const runs = async (id) => (await running.local('GET', `/v1/automations/${id}/runs?limit=20`)).json.runs;
  const ended = async (id) => {
    let last = null;
    await eventually(async () => {
      [last] = await runs(id);
      return ['done', 'failed', 'stopped', 'skipped'].includes(last?.state);
    }, 'a run that ended');
    return last;
  };
  return { ...running, project, runs, ended };
}

function body(project, trigger, command) {
  const step = { id: 'st_sh', kind: 'shell', if: null, projectPath: project, command, timeoutSec: 30 };
  return { name: 'Shout it', trigger, steps: [step], outputs: [], budget: null, confirmShell: true };
}

test('a webhook fires its automation, whose command reads the payload from its environment', async (t) => {
  const { local, service, project, ended, snapshot } = await setUp(t);
  const made = await local('POST', '/v1/automations', { body: body(project, { kind: 'webhook' }, 'printf "%s" "$TIDEWATCH_PAYLOAD" | tr a-z A-Z') });
  assert.equal(made.status, 200, made.text);
  const { automation, token } = made.json;
  assert.equal(automation.trigger.url, `http://127.0.0.1:${service.apiPort}/v1/automations/${automation.id}/fire`);

  const fire = (headers) => request(service.apiPort, 'POST', `/v1/automations/${automation.id}/fire`, { body: 'ship $(rm -rf ~) now', headers });
  assert.equal((await fire({ Authorization: 'Bearer nope' })).status, 401);
  assert.equal((await fire({ Authorization: `Bearer ${token}` })).status, 200);

  const run = await ended(automation.id);
  assert.deepEqual([run.state, run.fired.by, run.steps[0].state], ['done', 'webhook', 'done']);
  assert.match(run.steps[0].result, /SHIP \$\(RM -RF ~\) NOW/, 'the payload is words, never a command');
  await eventually(async () => (await snapshot()).automations.list[0]?.lastRun?.state === 'done', 'the snapshot tells the run');
});

test('a cron automation fires when the clock passes its moment, and pausing holds the next', async (t) => {
  const { local, post, project, runs, ended } = await setUp(t);
  const made = await local('POST', '/v1/automations', { body: body(project, { kind: 'cron', expr: '*/5 * * * *' }, 'echo tick') });
  assert.equal(made.status, 200, made.text);
  const { id, nextAt } = made.json.automation;
  assert.ok(nextAt > Date.now(), 'its next moment is in the list');

  await post('/qa/power', { offsetMs: nextAt - Date.now() + 1000 });
  const run = await ended(id);
  assert.deepEqual([run.state, run.fired.by], ['done', 'cron']);

  assert.equal((await post('/v1/automations/paused', { paused: true })).status, 200);
  await post('/qa/power', { offsetMs: nextAt - Date.now() + 6 * 60 * 1000 });
  // The hub looks every 50 ms here; several looks go by with nothing fired.
  await new Promise((resolve) => setTimeout(resolve, 500));
  assert.equal((await runs(id)).length, 1);
});

test('automations and their runs come back after a restart', async (t) => {
  const first = await setUp(t);
  const made = await first.local('POST', '/v1/automations', { body: body(first.project, { kind: 'webhook' }, 'echo kept') });
  const { automation } = made.json;
  assert.equal((await first.post(`/v1/automations/${automation.id}/run`, {})).status, 200);
  assert.equal((await first.ended(automation.id)).state, 'done');
  await first.service.close();

  const again = await setUp(t, { folder: first.folder });
  const list = (await again.local('GET', '/v1/automations')).json;
  assert.deepEqual(list.automations.map((each) => [each.id, each.lastRun?.state]), [[automation.id, 'done']]);
  assert.equal((await again.runs(automation.id))[0].steps[0].result.trim(), 'kept');
});

test('a Claude Code hook the service hears fires the automation that waits for it', async (t) => {
  const { transcript_path: _, ...stop } = claudeFixture('stop.json');
  const rows = [
    ['a turn ends', 'Stop', stop],
    ['its context is about to compact', 'PreCompact', { ...stop, hook_event_name: 'PreCompact', trigger: 'auto', custom_instructions: '' }],
  ];
  for (const [name, hookEvent, event] of rows) {
    await t.test(name, async (t) => {
      const { local, post, project, ended, folder } = await setUp(t);
      const made = await local('POST', '/v1/automations', { body: body(project, { kind: 'hook', event: hookEvent, from: 'any' }, 'echo heard') });
      assert.equal(made.status, 200, made.text);
      assert.equal((await post('/claude/hook', { ...event, cwd: folder })).status, 200);
      const run = await ended(made.json.automation.id);
      assert.deepEqual([run.state, run.fired.by, run.fired.sessionId], ['done', 'hook', event.session_id]);
    });
  }
});

test('a reset of a test copy forgets the automations and their runs', async (t) => {
  const { local, post, project, snapshot } = await setUp(t);
  const { automation } = (await local('POST', '/v1/automations', { body: body(project, { kind: 'webhook' }, 'echo gone') })).json;
  await post('/v1/automations/paused', { paused: true });
  assert.equal((await post('/qa/reset', {})).status, 200);
  assert.deepEqual((await local('GET', '/v1/automations')).json.automations, []);
  const { automations } = await snapshot();
  assert.deepEqual([automations.paused, automations.list, automations.features.length > 0], [false, [], true]);
  assert.equal((await local('GET', `/v1/automations/${automation.id}/runs`)).status, 404);
});

test('an automation that runs only once is finished when its moment’s run ends, but not by a run from the Mac', async (t) => {
  const { local, post, service, project, ended, runs } = await setUp(t);
  const { automation, token } = (await local('POST', '/v1/automations', { body: { ...body(project, { kind: 'webhook' }, 'echo once'), onlyOnce: true } })).json;
  const get = async () => (await local('GET', '/v1/automations')).json.automations[0];
  assert.equal((await post(`/v1/automations/${automation.id}/run`, {})).status, 200);
  await ended(automation.id);
  assert.notEqual((await get()).enabled, false, 'a run from the Mac leaves it on');

  const fired = await request(service.apiPort, 'POST', `/v1/automations/${automation.id}/fire`, { headers: { Authorization: `Bearer ${token}` } });
  assert.equal(fired.status, 200, fired.text);
  await eventually(async () => (await runs(automation.id)).length === 2 && (await get()).enabled === false, 'finished after its moment');
});

// Sessions the service runs itself send no hooks: the end of their turn stands in for Stop.
test('slow: the end of a turn of a session the service runs fires a Stop hook automation', { skip: missingClaude() ?? false, timeout: 90000 }, async (t) => {
  const { service, start } = await sessionsSetUp(t, { tool: null }, { automations: { recheckMs: 50, tickEveryMs: 50 } });
  const shell = path.join(service.folder, 'projects', 'app');
  fs.mkdirSync(shell, { recursive: true });
  const made = await service.local('POST', '/v1/automations', { body: body(shell, { kind: 'hook', event: 'Stop', from: 'any' }, 'echo after') });
  assert.equal(made.status, 200, made.text);
  const session = (await start()).json.session;
  let run;
  await eventually(async () => {
    [run] = (await service.local('GET', `/v1/automations/${made.json.automation.id}/runs`)).json.runs;
    return run?.state === 'done';
  }, 'the run the turn’s end fired', 60000);
  assert.deepEqual([run.fired.by, run.fired.sessionId], ['hook', session.id]);
});

test('what a file automation’s own run writes doesn’t fire it again', async (t) => {
  const { local, project, runs, ended } = await setUp(t, { automations: { recheckMs: 50, tickEveryMs: 50, quietMs: 100 } });
  const trigger = { kind: 'file', path: project, glob: '*.md', event: 'created' };
  const made = await local('POST', '/v1/automations', { body: body(project, trigger, 'sleep 0.3; echo made > "made-$(date +%s%N).md"') });
  assert.equal(made.status, 200, made.text);
  const { id } = made.json.automation;
  // A file made as the watch starts may count as there before it: a new one each look until one is heard.
  let looks = 0;
  await eventually(async () => {
    if (looks++ % 20 === 0) fs.writeFileSync(path.join(project, `note-${looks}.md`), 'one');
    return (await runs(id)).length > 0;
  }, 'the watch at work', 15000);
  await ended(id);
  // Several quiet periods go by: a run of its own making would have come.
  await new Promise((resolve) => setTimeout(resolve, 800));
  assert.equal((await runs(id)).length, 1);
});
