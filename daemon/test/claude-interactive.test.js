// Real Claude Code's interactive program under tmux, offline, with the
// integration installed: a terminal session shows up as one, its permission
// prompt and Tidewatch's card race and the first answer wins, an answer
// typed in the terminal takes the card away, and the status line brings the
// usage windows. Slow tests; select them with --test-name-pattern='^slow:'.

import assert from 'node:assert/strict';
import fs from 'node:fs';
import path from 'node:path';
import { test } from 'node:test';

import { sleep, startScratchService } from './helpers.js';
import { claudeHome, claudeInteractive, missingClaude, missingTmux, standInFor } from './support/claude-code.js';
import { until } from './support/until.js';

const skip = missingClaude() ?? missingTmux() ?? false;

async function setUp(t, { subscription = false, limits = null, asks = true } = {}) {
  const service = await startScratchService(t);
  const { home, project } = claudeHome(service.folder, service.support);
  const target = path.join(project, 'made-by-claude');
  const standIn = await standInFor(t, {
    tool: asks ? { name: 'Bash', input: { command: `touch ${target}`, description: 'Make a file' } } : null,
    after: 'Done.',
    limits,
  });
  const claude = await claudeInteractive(t, { home, project, standIn, subscription });
  const snapshot = async () => (await service.local('GET', '/v1/snapshot')).json;
  return { service, target, standIn, claude, snapshot };
}

async function askToRun(setup) {
  await setup.claude.type('make a file please');
  const approval = await until(async () => (await setup.snapshot()).approvals[0], 'an approval', 30000);
  await setup.claude.waitFor(/Do you want to proceed\?/, 'Claude Code’s own prompt');
  // The prompt takes keys a moment after it is drawn.
  await sleep(1500);
  return approval;
}

const decisionsOf = async (service) =>
  (await service.local('GET', '/qa/state')).json.decisions.map(({ decision, by }) => ({ decision, by }));

test(
  'slow: interactive: the session is a terminal one, and an allow from Tidewatch closes the terminal’s prompt',
  { skip, timeout: 60000 },
  async (t) => {
    const setup = await setUp(t);
    const { service, target, claude, snapshot } = setup;
    const started = await until(async () => (await snapshot()).sessions[0], 'the session', 20000);
    assert.equal(started.origin, 'terminal');
    assert.equal(started.state, 'idle');

    const approval = await askToRun(setup);
    const waiting = (await snapshot()).sessions[0];
    assert.equal(waiting.state, 'needs_you');
    assert.equal(waiting.activity, `Bash: touch ${target}`);

    assert.equal(
      (await service.local('POST', `/v1/approvals/${approval.id}/decision`, { body: { decision: 'allow' } })).status,
      200,
    );
    await until(async () => fs.existsSync(target), 'the command ran', 20000);
    await claude.waitFor(/Done\./, 'the end of the turn');
    assert.doesNotMatch(claude.screen(), /Do you want to proceed\?/);
    await until(async () => (await snapshot()).sessions[0].state === 'idle', 'the session idle again');
    assert.deepEqual(await decisionsOf(service), [{ decision: 'allow', by: 'mac' }]);
  },
);

const terminalCases = [
  { name: 'allowed in the terminal', keys: ['1'], decision: 'allow', made: true },
  { name: 'refused in the terminal', keys: ['Escape'], decision: 'deny', made: false },
];

for (const { name, keys, decision, made } of terminalCases) {
  test(`slow: interactive: a request ${name} leaves Tidewatch by itself`, { skip, timeout: 60000 }, async (t) => {
    const setup = await setUp(t);
    const { service, target, claude, snapshot } = setup;
    const feed = await service.feed();
    const approval = await askToRun(setup);

    claude.keys(...keys);
    const resolved = await feed.next('approval.resolved', 15000).catch((error) => {
      throw new Error(`${error.message}\n${claude.screen()}\n${JSON.stringify(feed.messages().map((m) => m?.t))}`);
    });
    assert.deepEqual(resolved, {
      t: 'approval.resolved',
      id: approval.id,
      sessionId: approval.sessionId,
      decision,
      by: 'terminal',
    });
    assert.deepEqual((await snapshot()).approvals, []);
    assert.deepEqual(await decisionsOf(service), [{ decision, by: 'terminal' }]);
    assert.equal(fs.existsSync(target), made);
    // Claude Code runs on after the terminal's answer: the command, another turn, then Stop.
    let state;
    await until(
      async () => (state = (await snapshot()).sessions[0]?.state) === 'idle',
      () => `the session idle again (it stayed ${state})\n${claude.screen()}`,
      30000,
    );
    // The hook was let go without an answer of its own: an answer now is late.
    const late = await service.local('POST', `/v1/approvals/${approval.id}/decision`, { body: { decision: 'allow' } });
    assert.equal(late.status, 409);
  });
}

test(
  'slow: interactive: the status line brings the usage windows, the model and the cost',
  { skip, timeout: 60000 },
  async (t) => {
    const now = Math.floor(Date.now() / 1000);
    const limits = { fiveHour: 0.64, fiveHourReset: now + 3600, sevenDay: 0.2, sevenDayReset: now + 3 * 86400 };
    const setup = await setUp(t, { subscription: true, limits, asks: false });
    const { service, claude, snapshot } = setup;
    const feed = await service.feed();
    await claude.type('say hello');
    const usage = await until(
      async () => {
        const reading = (await snapshot()).usage;
        return reading.fiveHour ? reading : null;
      },
      'a usage reading',
      30000,
    );
    assert.equal(usage.source, 'official');
    assert.deepEqual(usage.fiveHour, { pct: 64, resetsAt: limits.fiveHourReset * 1000 });
    assert.deepEqual(usage.sevenDay, { pct: 20, resetsAt: limits.sevenDayReset * 1000 });
    assert.ok(Math.abs(usage.observedAt - Date.now()) < 60000);
    assert.ok(feed.ofType('usage').some((m) => m.usage.fiveHour?.pct === 64));
    const session = (await snapshot()).sessions[0];
    assert.match(session.model, /\S/);
    assert.equal(typeof session.costUsd, 'number');
    // Claude Code's status bar still shows a line.
    await claude.waitFor(/Tidewatch · .*5h 64%/, 'the status line');
  },
);
