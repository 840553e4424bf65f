// Stay awake on macOS, run here: the service takes the macOS road by
// option, with stand-ins for caffeinate, pmset and sudo. Backpack switches
// SleepDisabled through `sudo -n pmset` and gives back exactly what it found.

import assert from 'node:assert/strict';
import fs from 'node:fs';
import path from 'node:path';
import test from 'node:test';

import { allGone, FAKES, savedState, startAwakeService, T0 } from './awake-support.js';
import { scratchFolder } from './helpers.js';

const pmset = path.join(FAKES, 'pmset');
const sudoPmset = (value) => `sudo -n ${pmset} -a disablesleep ${value}`;

test('Backpack turns SleepDisabled on through sudo and back to the value it found', async (t) => {
  const rows = [
    // SleepDisabled found, whether another program counts as holding it
    ['found off', '0', undefined],
    ['found on, set by someone else', '1', 'other'],
  ];
  for (const [name, found, by] of rows) {
    const { change, awake, tools, support } = await startAwakeService(t, { platform: 'darwin' });
    tools.plant('disablesleep', `${found}\n`);
    const { awake: held } = (await change({ mode: 'backpack' })).json;
    assert.deepEqual([held.holding, held.lidClosedOk, held.sleepDisabledBy], [true, true, by], name);
    assert.equal(tools.read('disablesleep').trim(), '1', `${name}: switched`);
    assert.deepEqual(savedState(support).backpack, { prev: Number(found), applied: true }, `${name}: saved`);
    const caffeinate = tools.calls().find((call) => call.startsWith('caffeinate'));
    assert.equal(caffeinate, `caffeinate -i -w ${process.pid}`, `${name}: held for as long as the service lives`);
    assert.ok(tools.calls().includes(sudoPmset(1)), `${name}: through sudo -n`);

    await change({ mode: 'working' });
    const after = await awake();
    assert.deepEqual([after.holding, after.lidClosedOk], [false, false], name);
    assert.equal(tools.read('disablesleep').trim(), found, `${name}: given back`);
    assert.equal(tools.calls().at(-1), `pmset ${['-a', 'disablesleep', found].join(' ')}`, `${name}: pmset ran last`);
    assert.deepEqual(savedState(support).backpack, { prev: Number(found), applied: false }, `${name}: saved`);
    await allGone(tools);
  }
});

test('a record left switched by a stop that never finished is undone at the next start', async (t) => {
  // What was saved, then SleepDisabled (1 before the start), `applied`, and what pmset was asked.
  const rows = [
    ['switched from 0', { mode: 'working', backpack: { prev: 0, applied: true } }, '0', false, [sudoPmset(0)]],
    ['switched from 1', { mode: 'working', backpack: { prev: 1, applied: true } }, '1', false, [sudoPmset(1)]],
    ['a value pmset never wrote is left alone', { mode: 'working', backpack: { prev: 7, applied: true } }, '1', false, []],
    ['not switched', { mode: 'working', backpack: { prev: 0, applied: false } }, '1', false, []],
    ['Backpack still on keeps it', { mode: 'backpack', until: T0 + 3_600_000, backpack: { prev: 0, applied: true } }, '1', true, []],
  ];
  for (const [name, saved, expected, applied, asked] of rows) {
    const folder = await scratchFolder(t);
    fs.mkdirSync(path.join(folder, 'support'), { recursive: true });
    fs.writeFileSync(path.join(folder, 'support', 'awake.json'), JSON.stringify(saved));
    fs.mkdirSync(path.join(folder, 'fakes'));
    fs.writeFileSync(path.join(folder, 'fakes', 'disablesleep'), '1\n');
    const { tools, support, awake } = await startAwakeService(t, { platform: 'darwin', folder });
    await awake();
    assert.equal(tools.read('disablesleep').trim(), expected, name);
    assert.equal(savedState(support).backpack.applied, applied, name);
    assert.deepEqual(tools.calls().filter((call) => call.startsWith('sudo')), asked, name);
  }
});

test('without the sudoers rule Backpack needs its setup, and a rule gone mid-way is said', async (t) => {
  const { change, awake, power, tools, sudoers } = await startAwakeService(t, { platform: 'darwin', ready: false });
  const refused = await change({ mode: 'backpack' });
  assert.deepEqual([refused.status, refused.json.error.code], [409, 'needs_setup']);
  assert.match(refused.json.error.message, /^Backpack mode needs its one-time setup/);
  assert.equal(tools.calls().some((call) => call.includes('disablesleep')), false);

  fs.writeFileSync(sudoers, 'rule\n');
  assert.equal((await change({ mode: 'backpack' })).json.awake.lidClosedOk, true);
  fs.rmSync(sudoers);
  await power({ now: T0 + 1000 });
  const record = await awake();
  assert.deepEqual([record.reason, record.backpackReady, record.lidClosedOk], ['setup', false, false]);
  // sudo refuses without the rule, so SleepDisabled stays as the record says: applied.
  assert.equal(tools.read('disablesleep').trim(), '1');
  assert.ok(tools.calls().includes(sudoPmset(0)), 'it tried to give it back');
});

test('pmset refusing is the reason “failed”; nothing is left marked as switched', async (t) => {
  const { change, power, tools, support } = await startAwakeService(t, { platform: 'darwin' });
  tools.plant('refuse', '');
  const { json } = await change({ mode: 'backpack' });
  // caffeinate still holds the idle sleep.
  assert.deepEqual([json.awake.reason, json.awake.holding, json.awake.lidClosedOk], ['failed', true, false]);
  assert.deepEqual(savedState(support).backpack, { prev: 0, applied: false });

  tools.remove('refuse');
  const { awake } = await power({ now: T0 + 31_000 });
  assert.deepEqual([awake.lidClosedOk, 'reason' in awake], [true, false]);
});

test('pmset’s battery and other programs’ assertions are read', async (t) => {
  const { change, awake, power, tools, local } = await startAwakeService(t, { platform: 'darwin' });
  tools.plant(
    'batt',
    "Now drawing from 'Battery Power'\n -InternalBattery-0 (id=4653155)\t12%; discharging; 1:05 remaining present: true\n",
  );
  tools.plant(
    'assertions',
    '   pid 321(Amphetamine): [0x0000a1b200019c3d] 00:10:00 PreventSystemSleep named: "Amphetamine session"\n\tDetails: held\n' +
      '   pid 99(powerd): [0x0000a1b200019c3e] 00:30:00 PreventSystemSleep named: "Powerd - Prevent sleep while display is on"\n',
  );
  // Readings that cost a process are kept a while; /qa asks for fresh ones.
  await power({});
  await change({ mode: 'backpack' });
  const record = await awake();
  assert.deepEqual(
    [record.laptop, record.reason, record.sleepAt, record.sleepDisabledBy, record.otherApp],
    [true, 'battery', T0 + 120_000, 'other', 'Amphetamine'],
  );
  const { mac } = (await local('GET', '/v1/snapshot')).json;
  assert.deepEqual(mac.battery, { percent: 12, charging: false, onAC: false, minutesLeft: 65 });

  await power({ now: T0 + 120_000 });
  const released = await awake();
  // The other program still keeps the machine awake.
  assert.deepEqual([released.holding, released.reason, released.otherApp], [false, 'battery', 'Amphetamine']);
  assert.equal(tools.read('disablesleep').trim(), '0', 'Backpack gave SleepDisabled back');
});
