// Stay awake end to end on Linux: the real service, its power read from a
// scratch tree, held by the stand-in systemd-inhibit, driven through the
// app's route and /qa.

import assert from 'node:assert/strict';
import { spawn } from 'node:child_process';
import fs from 'node:fs';
import path from 'node:path';
import test from 'node:test';

import {
  allGone,
  FAKES,
  fakeTools,
  HOUR,
  inhibitorRow,
  MINUTE,
  readUntil,
  startAwakeService,
  T0,
} from './awake-support.js';
import { eventually, request, scratchFolder } from './helpers.js';

const LID = 'idle:sleep:handle-lid-switch';
const IDLE = 'idle:sleep';

// The --what of the inhibitors the stand-in holds now.
const heldWhat = (tools) => tools.held().map((row) => row.split(/\s{2,}|\s(?=\S)/).find((cell) => cell.startsWith('idle')));

test('each mode holds the machine as the work asks, and lets go when the last of it ends', async (t) => {
  const rows = [
    // mode, [what runs → holding, the inhibitor held]
    ['working', [['nothing', false, []], ['a session working', true, [IDLE]], ['the session idle', false, []]]],
    ['backpack', [['nothing', true, [LID]], ['a session working', true, [LID]], ['the session idle', true, [LID]]]],
    ['off', [['nothing', false, []], ['a session working', false, []], ['the session idle', false, []]]],
  ];
  for (const [mode, steps] of rows) {
    const { local, change, awake, tools, feed } = await startAwakeService(t);
    const client = await feed({ client: 'mac' });
    await client.next('snapshot');
    assert.equal((await change({ mode })).status, 200, mode);
    const acts = {
      nothing: () => {},
      'a session working': () => local('POST', '/qa/sessions', { body: { id: 's1', state: 'working' } }),
      'the session idle': () => local('POST', '/qa/sessions', { body: { id: 's1', state: 'idle' } }),
    };
    for (const [step, holding, held] of steps) {
      await acts[step]();
      const record = await awake();
      assert.equal(record.mode, mode, `${mode}, ${step}`);
      assert.equal(record.holding, holding, `${mode}, ${step}: holding`);
      assert.equal(record.lidClosedOk, held.includes(LID), `${mode}, ${step}: the lid`);
      assert.equal('reason' in record, false, `${mode}, ${step}: no reason`);
      assert.deepEqual(heldWhat(tools), held, `${mode}, ${step}: the inhibitors held`);
    }
    // The feed and the snapshot tell the app the same record.
    const last = JSON.stringify(await awake());
    await eventually(() => JSON.stringify(client.ofType('awake').at(-1)?.awake) === last, `${mode}: the feed`);
    const snapshot = (await local('GET', '/v1/snapshot')).json;
    assert.equal(JSON.stringify(snapshot.mac.awake), last, `${mode}: the snapshot has the record`);
    if (mode === 'off') assert.deepEqual(tools.calls(), [], 'off never asks the system');
    if (mode === 'working') await allGone(tools);
  }
});

test('agents, automations at work or waiting at an ask, and a connected phone each keep it awake', async (t) => {
  const { local, awake } = await startAwakeService(t);
  const rows = [
    ['an idle session with sub-agents running', '/qa/sessions', { id: 's1', state: 'idle', agentsRunning: 2 }, true],
    ['an idle session without', '/qa/sessions', { id: 's1', state: 'idle', agentsRunning: 0 }, false],
    ['a session waiting on the user', '/qa/sessions', { id: 's1', state: 'needs_you' }, false],
    ['a session starting', '/qa/sessions', { id: 's1', state: 'starting' }, true],
    ['a session that ended', '/qa/sessions', { id: 's1', state: 'ended' }, false],
    ['a phone paired but away', '/qa/devices', { id: 'd1', name: 'Pixel 8' }, false],
    ['the phone connected', '/qa/devices', { id: 'd1', name: 'Pixel 8', connected: true }, true],
    ['the phone gone again', '/qa/devices', { id: 'd1', name: 'Pixel 8', connected: false }, false],
  ];
  for (const [name, route, body, holding] of rows) {
    await local('POST', route, { body });
    assert.equal((await awake()).holding, holding, name);
  }
  const automations = (state) => ({ automations: { paused: false, list: [{ id: 'au_1', name: 'Nightly', lastRun: { state } }] } });
  for (const [state, holding] of [['running', true], ['needs_you', true], ['done', false]]) {
    await local('POST', '/qa/snapshot', { body: automations(state) });
    assert.equal((await awake()).holding, holding, `an automation run ${state}`);
  }
});

test('Backpack runs 8 hours: more time in the last ten minutes, a warning, then back to While working', async (t) => {
  const { local, change, awake, power, tools, support } = await startAwakeService(t);
  const until = T0 + 8 * HOUR;
  const at = (moment) => power({ now: moment });
  const extend = () => change({ extend: true });

  const first = await change({ mode: 'backpack' });
  assert.equal(first.status, 200);
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
  const early = await extend();
  assert.equal(early.status, 409);
  assert.equal(early.json.error.code, 'not_extendable');
  assert.equal((await awake()).until, until, 'a refused extension changes nothing');

  const steps = [
    // moment, then what the record says
    ['an hour in', T0 + HOUR, { holding: true, extendable: false }],
    ['ten minutes before the end', until - 10 * MINUTE, { holding: true, extendable: true }],
    ['two minutes before', until - 2 * MINUTE, { holding: true, extendable: true, reason: 'time', sleepAt: until }],
    ['a minute before', until - MINUTE, { holding: true, extendable: true, reason: 'time', sleepAt: until }],
  ];
  for (const [name, moment, expected] of steps) {
    await at(moment);
    const record = await awake();
    for (const [key, value] of Object.entries(expected)) assert.deepEqual(record[key], value, `${name}: ${key}`);
    if (!('sleepAt' in expected)) assert.equal('sleepAt' in record, false, `${name}: no warning`);
  }

  // Extending a minute before the end gives a fresh 8 hours, and the warning goes.
  const extended = await extend();
  assert.equal(extended.status, 200);
  const later = until - MINUTE + 8 * HOUR;
  assert.equal(extended.json.awake.until, later);
  assert.equal(extended.json.awake.extendable, false);
  assert.equal('sleepAt' in extended.json.awake, false);
  assert.equal('reason' in extended.json.awake, false);
  assert.equal(JSON.parse(fs.readFileSync(path.join(support, 'awake.json'), 'utf8')).until, later, 'saved');

  await at(later - 2 * MINUTE);
  assert.equal((await awake()).sleepAt, later);
  await at(later);
  const after = await awake();
  assert.equal(after.mode, 'working');
  assert.equal(after.holding, false);
  assert.equal('until' in after, false);
  assert.equal('sleepAt' in after, false);
  assert.deepEqual(tools.held(), [], 'the inhibitor is given back');
  await allGone(tools);
  const saved = JSON.parse(fs.readFileSync(path.join(support, 'awake.json'), 'utf8'));
  assert.deepEqual(saved, { mode: 'working', minBattery: 15 });

  // While working, with the 8 hours over, a session keeps it awake again, lid or not.
  await local('POST', '/qa/sessions', { body: { id: 's1', state: 'working' } });
  assert.equal((await awake()).holding, true);
  assert.deepEqual(heldWhat(tools), [IDLE]);
});

test('Backpack lets go for a low battery or heat after two minutes’ warning, and holds again when that passes', async (t) => {
  const { change, awake, power, tools } = await startAwakeService(t);
  await change({ mode: 'backpack' });
  let now = T0;
  const rows = [
    // name, /qa/power body (the clock moves by `later` minutes), what the record says
    ['on battery, well charged', { battery: { percent: 40, onAC: false } }, { holding: true }],
    ['down to the level', { battery: { percent: 15, onAC: false } }, { holding: true, reason: 'battery', sleepAt: 2 }],
    ['plugged in during the warning', { battery: { percent: 15, onAC: true, charging: true } }, { holding: true }],
    ['unplugged below it', { battery: { percent: 12, onAC: false } }, { holding: true, reason: 'battery', sleepAt: 2 }],
    ['a minute on, the warning keeps its moment', { later: 1, battery: { percent: 11, onAC: false } }, { holding: true, reason: 'battery', sleepAt: 1 }],
    ['the warning is over', { later: 1 }, { holding: false, reason: 'battery' }],
    ['still low, still let go', { later: 5, battery: { percent: 10, onAC: false } }, { holding: false, reason: 'battery' }],
    ['plugged in again', { battery: { percent: 10, onAC: true } }, { holding: true }],
    ['hot', { temperature: 95 }, { holding: true, reason: 'hot', sleepAt: 2 }],
    ['a little cooler is still hot', { temperature: 85 }, { holding: true, reason: 'hot', sleepAt: 2 }],
    ['cool again', { temperature: 70 }, { holding: true }],
    ['hot once more', { temperature: 91 }, { holding: true, reason: 'hot', sleepAt: 2 }],
    ['too hot for too long', { later: 2 }, { holding: false, reason: 'hot' }],
    ['a lower threshold keeps it let go', { temperature: 60, hotAt: 65 }, { holding: false, reason: 'hot' }],
    ['cooled well below', { temperature: 50 }, { holding: true }],
  ];
  for (const [name, { later = 0, ...body }, expected] of rows) {
    now += later * MINUTE;
    await power({ ...body, now });
    const record = await awake();
    assert.equal(record.holding, expected.holding, `${name}: holding`);
    assert.equal(record.lidClosedOk, expected.holding, `${name}: the lid`);
    assert.equal(record.reason, expected.reason, `${name}: reason`);
    assert.equal(record.sleepAt, expected.sleepAt === undefined ? undefined : now + expected.sleepAt * MINUTE, `${name}: sleepAt`);
    assert.deepEqual(heldWhat(tools), expected.holding ? [LID] : [], `${name}: the inhibitor`);
  }
  const snapshot = await power({});
  assert.equal(snapshot.reading.laptop, true);
});

test('the battery level can be chosen from 5 to 50, and a lower one ends a battery warning', async (t) => {
  const { change, awake, power } = await startAwakeService(t);
  await change({ mode: 'backpack' });
  await power({ battery: { percent: 14, onAC: false } });
  assert.equal((await awake()).reason, 'battery');
  const lower = await change({ minBattery: 10 });
  assert.equal(lower.json.awake.minBattery, 10);
  assert.equal('reason' in lower.json.awake, false);
  assert.equal('sleepAt' in lower.json.awake, false);

  const rows = [
    ['below the range', { minBattery: 4 }, 'minBattery'],
    ['above the range', { minBattery: 51 }, 'minBattery'],
    ['not whole', { minBattery: 12.5 }, 'minBattery'],
    ['a string', { minBattery: '20' }, 'minBattery'],
    ['an unknown mode', { mode: 'asleep' }, 'mode'],
    ['extend false', { extend: false }, 'extend'],
    ['an unknown key', { mode: 'off', lid: true }, 'lid'],
  ];
  for (const [name, body, field] of rows) {
    const reply = await change(body);
    assert.equal(reply.status, 400, name);
    assert.equal(reply.json.error.field, field, name);
    assert.match(reply.json.error.message, /^[A-Z“].*\.$/, `${name}: a sentence`);
  }
  const empty = await change({});
  assert.equal(empty.status, 400);
  assert.equal((await awake()).mode, 'backpack', 'a refused change changes nothing');
  assert.equal((await awake()).minBattery, 10);
});

test('a refused or missing inhibitor is the reason “failed”, tried again half a minute later', async (t) => {
  const { change, awake, power, tools, service } = await startAwakeService(t);
  tools.plant('refuse', '');
  const refused = await change({ mode: 'backpack' });
  assert.equal(refused.status, 200);
  assert.equal(refused.json.awake.holding, false);
  assert.equal(refused.json.awake.reason, 'failed');
  const { lock } = await power({ now: T0 + 10_000 });
  assert.deepEqual(
    lock.asked.map(({ ask, ok }) => [ask, ok]),
    [[`hold ${LID}`, false]],
    'not asked again within the half minute',
  );
  assert.match(lock.asked[0].detail, /Access denied/);

  tools.remove('refuse');
  await power({ now: T0 + 31_000 });
  const held = await awake();
  assert.equal(held.holding, true);
  assert.equal('reason' in held, false);
  assert.deepEqual(heldWhat(tools), [LID]);
  assert.match(fs.readFileSync(path.join(service.log.file), 'utf8'), /Access denied/);

  const missing = await startAwakeService(t, { tools: { systemdInhibit: path.join(tools.folder, 'no-such-tool') } });
  const reply = await missing.change({ mode: 'backpack' });
  assert.equal(reply.status, 200);
  assert.equal(reply.json.awake.reason, 'failed');
  assert.equal(reply.json.awake.holding, false);
});

test('an inhibitor that dies is noticed and taken again after the pause', async (t) => {
  const { change, awake, power, tools } = await startAwakeService(t);
  await change({ mode: 'backpack' });
  const leader = await eventually(() => tools.pids()[0], 'the holder’s pid');
  process.kill(leader, 'SIGTERM');
  const record = await readUntil(awake, (seen) => !seen.holding, 'the lock noticed gone');
  assert.equal(record.reason, 'failed');
  await power({ now: T0 + 31_000 });
  assert.equal((await awake()).holding, true);
  assert.equal(tools.held().length, 1);
});

test('another program’s block on sleep is named in Backpack', async (t) => {
  const { change, awake, power, tools } = await startAwakeService(t);
  // Its own inhibitor, a block on sleep listed all the while, never counts.
  const rows = [
    ['a delay lock is no hold', inhibitorRow({ who: 'NetworkManager', pid: 700, what: 'sleep', mode: 'delay' }), undefined],
    ['an idle block is no hold on sleep', inhibitorRow({ who: 'Videos', pid: 701, what: 'idle' }), undefined],
    ['a block on sleep is', inhibitorRow({ who: 'Steam Big Picture', pid: 702, what: 'shutdown:sleep' }), 'Steam Big Picture'],
  ];
  await change({ mode: 'backpack' });
  for (const [name, row, app] of rows) {
    tools.plant('others', row);
    await power({});
    const record = await awake();
    assert.equal(record.otherApp, app, name);
    assert.equal(record.sleepDisabledBy, app ? 'other' : undefined, name);
  }
  assert.ok(tools.calls().includes('systemd-inhibit --list'));
});

test('battery, lid and heat are read from the system folders', async (t) => {
  const { power, awake, sys, local } = await startAwakeService(t);
  const write = (file, text) => {
    fs.mkdirSync(path.dirname(file), { recursive: true });
    fs.writeFileSync(file, `${text}\n`);
  };
  write(path.join(sys.powerSupply, 'BAT0', 'type'), 'Battery');
  write(path.join(sys.powerSupply, 'BAT0', 'capacity'), '37');
  write(path.join(sys.powerSupply, 'BAT0', 'status'), 'Discharging');
  write(path.join(sys.powerSupply, 'AC', 'type'), 'Mains');
  write(path.join(sys.powerSupply, 'AC', 'online'), '0');
  write(path.join(sys.lidFolder, 'LID0', 'state'), 'state:      closed');
  write(path.join(sys.thermal, 'thermal_zone0', 'temp'), '97000');
  const { reading } = await power({});
  assert.deepEqual(reading, {
    battery: { percent: 37, charging: false, onAC: false },
    lidClosed: true,
    temperature: 97,
    laptop: true,
    backpackReady: true,
  });
  const record = await awake();
  assert.equal(record.laptop, true);
  assert.equal(record.lidClosed, true);
  const { mac } = (await local('GET', '/v1/snapshot')).json;
  assert.deepEqual(mac.battery, { percent: 37, charging: false, onAC: false }, 'the battery joins the snapshot');

  // What /qa sets wins over the system until given back.
  await power({ battery: false, lidClosed: false });
  assert.equal((await awake()).laptop, false);
  assert.equal((await awake()).lidClosed, false);
  const { reading: back } = await power({ battery: null, lidClosed: null });
  assert.equal(back.battery.percent, 37);

  // The clock can run ahead rather than stand.
  const { now, clock } = await power({ offsetMs: 5 * HOUR });
  assert.equal(clock.fixed, null);
  assert.ok(Math.abs(now - (Date.now() + 5 * HOUR)) < 60_000);
  assert.equal((await local('POST', '/qa/power', { body: { battery: { percent: 140 } } })).json.error.field, 'battery');
});

test('without logind Backpack needs its setup; /qa can stand in for it', async (t) => {
  const { change, awake, power } = await startAwakeService(t, { ready: false });
  const refused = await change({ mode: 'backpack' });
  assert.equal(refused.status, 409);
  assert.equal(refused.json.error.code, 'needs_setup');
  assert.equal((await awake()).backpackReady, false);
  assert.equal((await awake()).mode, 'working');
  await power({ backpackReady: true });
  assert.equal((await change({ mode: 'backpack' })).status, 200);
  // Should it go away while Backpack runs, the record says so and the lid isn't held.
  await power({ backpackReady: false });
  const record = await awake();
  assert.equal(record.reason, 'setup');
  assert.equal(record.holding, true);
  assert.equal(record.lidClosedOk, false);
});

/**
 * The real entry, as the installer starts it, as a test copy in the folder
 * with the stand-in inhibitor named in the environment.
 */
async function startMain(t, folder, tools) {
  const support = path.join(folder, 'support');
  const env = {
    ...tools.env,
    TIDEWATCH_SUPPORT: support,
    TIDEWATCH_API_PORT: '0',
    TIDEWATCH_LOCAL_PORT: '0',
    TIDEWATCH_SYSTEMD_INHIBIT: path.join(FAKES, 'systemd-inhibit'),
  };
  const daemon = path.join(FAKES, '..', '..');
  const child = spawn(process.execPath, ['src/main.js'], { cwd: daemon, env, stdio: ['ignore', 'pipe', 'pipe'] });
  t.after(() => child.kill('SIGKILL'));
  const exited = new Promise((resolve) => child.once('exit', (code, signal) => resolve(code ?? signal)));
  let out = '';
  child.stdout.on('data', (chunk) => (out += chunk));
  const line = await eventually(() => /\(API\) and 127\.0\.0\.1:(\d+) \(local\)/.exec(out), 'the start line');
  const port = Number(line[1]);
  const token = fs.readFileSync(path.join(support, 'admin-token'), 'utf8').trim();
  const call = (method, target, body) => request(port, method, target, { body, headers: { Authorization: `Bearer ${token}` } });
  return { child, call, exited, support };
}

// Stopped mid-Backpack, the service gives the lock back, and started again
// it picks Backpack up where it was.
test('a restart mid-Backpack gives the lock back and resumes with the same end', async (t) => {
  const folder = await scratchFolder(t);
  const tools = fakeTools(path.join(folder, 'fakes'));
  const support = path.join(folder, 'support');
  const start = () => startMain(t, folder, tools);

  const first = await start();
  // Logind's seats can't be planted for the real entry, so /qa stands in.
  await first.call('POST', '/qa/power', { backpackReady: true });
  const { awake } = (await first.call('POST', '/v1/mac/awake', { mode: 'backpack' })).json;
  assert.equal(awake.holding, true);
  assert.deepEqual(heldWhat(tools), [LID]);
  const file = path.join(support, 'awake.json');
  assert.equal(fs.statSync(file).mode & 0o777, 0o600);
  assert.deepEqual(JSON.parse(fs.readFileSync(file, 'utf8')), { mode: 'backpack', minBattery: 15, until: awake.until });
  assert.deepEqual(fs.readdirSync(support).filter((name) => name.endsWith('.tmp')), [], 'no file left beside it');

  first.child.kill('SIGTERM');
  assert.equal(await first.exited, 0);
  assert.deepEqual(tools.held(), [], 'stopped, it holds nothing');
  await allGone(tools);

  const second = await start();
  await second.call('POST', '/qa/power', { backpackReady: true });
  const resumed = (await second.call('GET', '/v1/mac/awake')).json.awake;
  assert.equal(resumed.mode, 'backpack');
  assert.equal(resumed.until, awake.until);
  assert.equal(resumed.holding, true);
  assert.deepEqual(heldWhat(tools), [LID]);
  assert.equal(tools.calls().filter((call) => call.startsWith(`systemd-inhibit --what=${LID}`)).length, 2);
  second.child.kill('SIGTERM');
  assert.equal(await second.exited, 0);
  await allGone(tools);
});

test('a service that dies without stopping leaves no lock behind', async (t) => {
  const folder = await scratchFolder(t);
  const tools = fakeTools(path.join(folder, 'fakes'));
  const service = await startMain(t, folder, tools);
  await service.call('POST', '/qa/sessions', { id: 's1', state: 'working' });
  assert.equal((await service.call('GET', '/v1/mac/awake')).json.awake.holding, true);
  assert.deepEqual(heldWhat(tools), [IDLE]);
  service.child.kill('SIGKILL');
  assert.equal(await service.exited, 'SIGKILL');
  // The inhibitor's command follows the service within its poll of a second.
  await allGone(tools);
  assert.deepEqual(tools.held(), []);
});
