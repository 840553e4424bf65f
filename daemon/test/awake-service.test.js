// Stay awake end to end on Linux: the real service, its power read from a
// scratch tree, held by the stand-in systemd-inhibit, driven through the
// app's route and /qa. The decision itself is tabled in awake.test.js; here
// is what only the running keeper shows: the inhibitor, time passing, restarts.

import assert from 'node:assert/strict';
import fs from 'node:fs';
import path from 'node:path';
import test from 'node:test';

import {
  allGone, FAKES, fakeTools, HOUR, inhibitorRow, MINUTE, savedState, startAwakeService, T0, tree,
} from './awake-support.js';
import { eventually, scratchFolder, spawnMain } from './helpers.js';

const LID = 'idle:sleep:handle-lid-switch';
const IDLE = 'idle:sleep';

// The --what of the inhibitors the stand-in holds now.
const heldWhat = (tools) => tools.held().map((row) => row.split(/\s{2,}|\s(?=\S)/).find((cell) => cell.startsWith('idle')));

test('each mode holds the machine as the work asks, and lets go when the last of it ends', async (t) => {
  const rows = [
    // mode, then for nothing running, a session working, the session idle: the inhibitors held
    ['working', [[], [IDLE], []]],
    ['backpack', [[LID], [LID], [LID]]],
    ['off', [[], [], []]],
  ];
  for (const [mode, held] of rows) {
    await t.test(mode, async (t) => {
      const { post, snapshot, change, awake, tools, feed } = await startAwakeService(t);
      const client = await feed({ client: 'mac' });
      assert.equal((await change({ mode })).status, 200);
      const acts = [() => {}, () => post('/qa/sessions', { id: 's1', state: 'working' }), () => post('/qa/sessions', { id: 's1', state: 'idle' })];
      for (const [step, act] of acts.entries()) {
        await act();
        const record = await awake();
        assert.deepEqual([record.mode, record.holding, record.lidClosedOk, 'reason' in record], [mode, held[step].length > 0, held[step].includes(LID), false], `step ${step}`);
        assert.deepEqual(heldWhat(tools), held[step], `step ${step}: the inhibitors held`);
      }
      // The feed and the snapshot tell the app the same record.
      const last = JSON.stringify(await awake());
      await eventually(() => JSON.stringify(client.ofType('awake').at(-1)?.awake) === last, 'the feed');
      assert.equal(JSON.stringify((await snapshot()).mac.awake), last);
      if (mode === 'off') assert.deepEqual(tools.calls(), [], 'off never asks the system');
      if (mode === 'working') await allGone(tools);
    });
  }
});

// Which states count is tabled in awake.test.js; here, that each source reaches the keeper.
test('sub-agents, a connected phone and an automation at work each keep it awake', async (t) => {
  const { post, awake } = await startAwakeService(t);
  const automation = (state) => ({ automations: { paused: false, list: [{ id: 'au_1', name: 'Nightly', lastRun: { state } }] } });
  const rows = [
    ['an idle session with sub-agents running', '/qa/sessions', { id: 's1', state: 'idle', agentsRunning: 2 }, true],
    ['an idle session without', '/qa/sessions', { id: 's1', state: 'idle', agentsRunning: 0 }, false],
    ['the phone connected', '/qa/devices', { id: 'd1', name: 'Pixel 8', connected: true }, true],
    ['the phone gone again', '/qa/devices', { id: 'd1', name: 'Pixel 8', connected: false }, false],
    ['an automation running', '/qa/snapshot', automation('running'), true],
    ['an automation done', '/qa/snapshot', automation('done'), false],
  ];
  for (const [name, route, body, holding] of rows) {
    await post(route, body);
    assert.equal((await awake()).holding, holding, name);
  }
});

test('Backpack runs 8 hours: more time in the last ten minutes, a warning, then back to While working', async (t) => {
  const { post, change, awake, power, tools, support } = await startAwakeService(t);
  const until = T0 + 8 * HOUR;
  const first = await change({ mode: 'backpack' });
  assert.deepEqual(first.json.awake, {
    mode: 'backpack',
    holding: true,
    lidClosedOk: true,
    backpackReady: true,
    until,
    laptop: false,
    minBattery: 15,
    extendable: false,
  });
  const early = await change({ extend: true });
  assert.deepEqual([early.status, early.json.error.code, (await awake()).until], [409, 'not_extendable', until]);

  await power({ now: until - 10 * MINUTE });
  assert.equal((await awake()).extendable, true, 'ten minutes before the end');
  await power({ now: until - MINUTE });
  assert.deepEqual([(await awake()).reason, (await awake()).sleepAt], ['time', until], 'a minute before: the warning');

  // Extending gives a fresh 8 hours from now, and the warning goes.
  const extended = (await change({ extend: true })).json.awake;
  const later = until - MINUTE + 8 * HOUR;
  assert.deepEqual([extended.until, extended.extendable, 'sleepAt' in extended, 'reason' in extended], [later, false, false, false]);
  assert.equal(savedState(support).until, later, 'saved');

  await power({ now: later });
  const after = await awake();
  assert.deepEqual([after.mode, after.holding, 'until' in after, 'sleepAt' in after], ['working', false, false, false]);
  assert.deepEqual(tools.held(), [], 'the inhibitor is given back');
  await allGone(tools);
  assert.deepEqual(savedState(support), { mode: 'working', minBattery: 15 });

  // While working, a session keeps it awake again, lid or not.
  await post('/qa/sessions', { id: 's1', state: 'working' });
  assert.equal((await awake()).holding, true);
  assert.deepEqual(heldWhat(tools), [IDLE]);
});

test('Backpack lets go for a low battery or heat after two minutes’ warning, and holds again when that passes', async (t) => {
  const { change, awake, power, tools } = await startAwakeService(t);
  await change({ mode: 'backpack' });
  let now = T0;
  const rows = [
    // name, /qa/power body (the clock moves by `later` minutes), holding, reason, minutes to sleepAt
    ['down to the level', { battery: { percent: 15, onAC: false } }, true, 'battery', 2],
    ['the warning is over', { later: 2 }, false, 'battery'],
    ['plugged in again', { battery: { percent: 10, onAC: true } }, true],
    ['hot', { temperature: 95 }, true, 'hot', 2],
    ['too hot for too long', { later: 2 }, false, 'hot'],
    ['cooled well below', { temperature: 50 }, true],
  ];
  for (const [name, { later = 0, ...body }, holding, reason, sleepIn] of rows) {
    now += later * MINUTE;
    await power({ ...body, now });
    const record = await awake();
    const sleepAt = sleepIn === undefined ? undefined : now + sleepIn * MINUTE;
    assert.deepEqual([record.holding, record.lidClosedOk, record.reason, record.sleepAt], [holding, holding, reason, sleepAt], name);
    assert.deepEqual(heldWhat(tools), holding ? [LID] : [], `${name}: the inhibitor`);
  }
});

test('the battery level can be chosen from 5 to 50, and a lower one ends a battery warning', async (t) => {
  const { change, awake, power } = await startAwakeService(t);
  await change({ mode: 'backpack' });
  await power({ battery: { percent: 14, onAC: false } });
  assert.equal((await awake()).reason, 'battery');
  const lower = (await change({ minBattery: 10 })).json.awake;
  assert.deepEqual([lower.minBattery, 'reason' in lower, 'sleepAt' in lower], [10, false, false]);

  const rows = [
    ['below the range', { minBattery: 4 }, 'minBattery'],
    ['above the range', { minBattery: 51 }, 'minBattery'],
    ['a string', { minBattery: '20' }, 'minBattery'],
    ['an unknown mode', { mode: 'asleep' }, 'mode'],
    ['extend false', { extend: false }, 'extend'],
    ['an unknown key', { mode: 'off', lid: true }, 'lid'],
    ['nothing', {}, undefined],
  ];
  for (const [name, body, field] of rows) {
    const reply = await change(body);
    assert.deepEqual([reply.status, reply.json.error.field], [400, field], name);
    assert.match(reply.json.error.message, /^[A-Z“].*\.$/, `${name}: a sentence`);
  }
  assert.deepEqual([(await awake()).mode, (await awake()).minBattery], ['backpack', 10], 'a refused change changes nothing');
});

test('a refused, missing or dying inhibitor is the reason “failed”, tried again half a minute later', async (t) => {
  const { change, awake, power, tools, service } = await startAwakeService(t);
  tools.plant('refuse', '');
  const refused = (await change({ mode: 'backpack' })).json.awake;
  assert.deepEqual([refused.holding, refused.reason], [false, 'failed']);
  const { lock } = await power({ now: T0 + 10_000 });
  assert.deepEqual(lock.asked.map(({ ask, ok }) => [ask, ok]), [[`hold ${LID}`, false]], 'not asked again within the half minute');
  assert.match(fs.readFileSync(service.log.file, 'utf8'), /Access denied/);

  tools.remove('refuse');
  await power({ now: T0 + 31_000 });
  assert.deepEqual([(await awake()).holding, 'reason' in (await awake()), heldWhat(tools)], [true, false, [LID]]);

  // Killed from outside, it is noticed, and taken again after the pause.
  process.kill(tools.pids()[0], 'SIGTERM');
  await eventually(async () => (await awake()).reason === 'failed', 'the lock noticed gone');
  await power({ now: T0 + 62_000 });
  assert.deepEqual([(await awake()).holding, tools.held().length], [true, 1]);

  const missing = await startAwakeService(t, { tools: { systemdInhibit: path.join(tools.folder, 'no-such-tool') } });
  const reply = (await missing.change({ mode: 'backpack' })).json.awake;
  assert.deepEqual([reply.holding, reply.reason], [false, 'failed']);
});

test('another program’s block on sleep is named in Backpack', async (t) => {
  const { change, awake, power, tools } = await startAwakeService(t);
  // Its own inhibitor, a block on sleep listed all the while, never counts; WHO and WHY hold blanks.
  const rows = [
    ['a delay lock is no hold', inhibitorRow({ who: 'NetworkManager', pid: 700, what: 'sleep', mode: 'delay' }), undefined],
    ['an idle block is no hold on sleep', inhibitorRow({ who: 'Videos', pid: 701, what: 'idle' }), undefined],
    ['a block on sleep is', inhibitorRow({ who: 'Steam Big Picture', pid: 702, what: 'shutdown:sleep', why: 'Game in progress' }), 'Steam Big Picture'],
  ];
  await change({ mode: 'backpack' });
  for (const [name, row, app] of rows) {
    tools.plant('others', row);
    await power({});
    const record = await awake();
    assert.deepEqual([record.otherApp, record.sleepDisabledBy], [app, app ? 'other' : undefined], name);
  }
});

test('battery, lid and heat are read from the system folders until /qa says otherwise', async (t) => {
  const { power, awake, sys, snapshot } = await startAwakeService(t);
  tree(sys.powerSupply, { 'BAT0/type': 'Battery', 'BAT0/capacity': 37, 'BAT0/status': 'Discharging' });
  tree(sys.powerSupply, { 'AC/type': 'Mains', 'AC/online': 0 });
  tree(sys.lidFolder, { 'LID0/state': 'state:      closed' });
  tree(sys.thermal, { 'thermal_zone0/temp': 97000 });
  const battery = { percent: 37, charging: false, onAC: false };
  assert.deepEqual((await power({})).reading, { battery, lidClosed: true, temperature: 97, laptop: true, backpackReady: true });
  assert.deepEqual([(await awake()).laptop, (await awake()).lidClosed], [true, true]);
  assert.deepEqual((await snapshot()).mac.battery, battery, 'the battery joins the snapshot');

  await power({ battery: false, lidClosed: false });
  assert.deepEqual([(await awake()).laptop, (await awake()).lidClosed], [false, false]);
  assert.equal((await power({ battery: null, lidClosed: null })).reading.battery.percent, 37, 'given back');
  const { now, clock } = await power({ offsetMs: 5 * HOUR });
  assert.equal(clock.fixed, null, 'the clock runs ahead rather than stands');
  assert.ok(Math.abs(now - (Date.now() + 5 * HOUR)) < 60_000);
});

test('without logind Backpack needs its setup; /qa can stand in for it', async (t) => {
  const { change, awake, power } = await startAwakeService(t, { ready: false });
  const refused = await change({ mode: 'backpack' });
  assert.deepEqual([refused.status, refused.json.error.code], [409, 'needs_setup']);
  assert.deepEqual([(await awake()).backpackReady, (await awake()).mode], [false, 'working']);
  await power({ backpackReady: true });
  assert.equal((await change({ mode: 'backpack' })).status, 200);
  // Should it go away while Backpack runs, the record says so and the lid isn't held.
  await power({ backpackReady: false });
  const record = await awake();
  assert.deepEqual([record.reason, record.holding, record.lidClosedOk], ['setup', true, false]);
});

// The real entry, with the stand-in inhibitor named in the environment.
const startMain = (t, folder, tools) =>
  spawnMain(t, folder, { TIDEWATCH_FAKE_TOOLS: tools.folder, TIDEWATCH_SYSTEMD_INHIBIT: path.join(FAKES, 'systemd-inhibit') });

test('a restart mid-Backpack gives the lock back and resumes with the same end', async (t) => {
  const folder = await scratchFolder(t);
  const tools = fakeTools(path.join(folder, 'fakes'));
  const support = path.join(folder, 'support');
  let until;
  for (const round of [1, 2]) {
    const main = startMain(t, folder, tools);
    const { post, local } = await main.started();
    // Logind's seats can't be planted for the real entry, so /qa stands in.
    await post('/qa/power', { backpackReady: true });
    const awake = round === 1 ? (await post('/v1/mac/awake', { mode: 'backpack' })).json.awake : (await local('GET', '/v1/mac/awake')).json.awake;
    until ??= awake.until;
    assert.deepEqual([awake.mode, awake.until, awake.holding, heldWhat(tools)], ['backpack', until, true, [LID]], `round ${round}`);
    assert.equal(fs.statSync(path.join(support, 'awake.json')).mode & 0o777, 0o600);
    assert.deepEqual(savedState(support), { mode: 'backpack', minBattery: 15, until });
    main.child.kill('SIGTERM');
    assert.equal((await main.exited).code, 0);
    assert.deepEqual(tools.held(), [], 'stopped, it holds nothing');
    await allGone(tools);
  }
  assert.deepEqual(fs.readdirSync(support).filter((name) => name.endsWith('.tmp')), [], 'no file left beside it');
});

test('a service that dies without stopping leaves no lock behind', async (t) => {
  const folder = await scratchFolder(t);
  const tools = fakeTools(path.join(folder, 'fakes'));
  const main = startMain(t, folder, tools);
  const { post, local } = await main.started();
  await post('/qa/sessions', { id: 's1', state: 'working' });
  assert.equal((await local('GET', '/v1/mac/awake')).json.awake.holding, true);
  assert.deepEqual(heldWhat(tools), [IDLE]);
  main.child.kill('SIGKILL');
  assert.equal((await main.exited).signal, 'SIGKILL');
  // The inhibitor's command follows the service within its poll of a second.
  await allGone(tools);
  assert.deepEqual(tools.held(), []);
});
