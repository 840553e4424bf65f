// The Stay awake decision as a table, and the saved state's file.

import assert from 'node:assert/strict';
import test from 'node:test';

import {
  awakeFileText,
  awakeRecord,
  BACKPACK_MS,
  decideAwake,
  freshPlan,
  readAwakeFile,
  runningThings,
} from '../src/awake/awake.js';

const NOW = Date.UTC(2027, 0, 15, 9, 0, 0);
const MIN = 60_000;
const UNTIL = NOW + 3 * 60 * MIN;

const world = (patch = {}) => ({
  now: NOW,
  busy: false,
  battery: null,
  temperature: null,
  hotAt: 90,
  backpackReady: true,
  ...patch,
});
const backpack = (patch = {}) => ({ ...freshPlan('backpack'), until: UNTIL, ...patch });
const onBattery = (percent) => ({ percent, onAC: false });
const warnedAt = (sleepAt) => ({ reason: 'battery', sleepAt });

test('the decision, case by case', () => {
  // name, plan, world, what follows: hold, lid, reason, sleepAt, mode and released after
  const rows = [
    ['working holds while something runs', freshPlan('working'), world({ busy: true }), { hold: true, lid: false }],
    ['working lets go when nothing runs', freshPlan('working'), world(), { hold: false }],
    ['working pays no mind to a flat battery', freshPlan('working'), world({ busy: true, battery: onBattery(3) }), { hold: true }],
    ['off never holds', freshPlan('off'), world({ busy: true }), { hold: false, mode: 'off' }],
    ['backpack holds with nothing running', backpack(), world(), { hold: true, lid: true }],
    ['backpack without a way to hold the lid', backpack(), world({ backpackReady: false }), { hold: true, lid: false, reason: 'setup' }],
    ['backpack on mains power at 3%', backpack(), world({ battery: { percent: 3, onAC: true } }), { hold: true, lid: true }],
    ['backpack above the level', backpack(), world({ battery: onBattery(16) }), { hold: true }],
    ['backpack at the level warns', backpack(), world({ battery: onBattery(15) }), { hold: true, reason: 'battery', sleepAt: NOW + 2 * MIN }],
    ['a chosen level counts, not the default', backpack({ minBattery: 30 }), world({ battery: onBattery(29) }), { hold: true, reason: 'battery', sleepAt: NOW + 2 * MIN }],
    ['a warning keeps its moment', backpack({ warning: warnedAt(NOW + MIN) }), world({ battery: onBattery(14) }), { hold: true, reason: 'battery', sleepAt: NOW + MIN }],
    ['a warning whose moment came lets go', backpack({ warning: warnedAt(NOW) }), world({ battery: onBattery(14) }), { hold: false, lid: false, reason: 'battery', released: 'battery' }],
    ['a warning ends when its cause does', backpack({ warning: warnedAt(NOW) }), world({ battery: { percent: 14, onAC: true } }), { hold: true, lid: true }],
    ['let go stays let go while the battery is low', backpack({ released: 'battery' }), world({ battery: onBattery(14) }), { hold: false, reason: 'battery', released: 'battery' }],
    ['let go holds again once plugged in', backpack({ released: 'battery' }), world({ battery: { percent: 14, onAC: true } }), { hold: true, lid: true }],
    ['hot at the threshold warns', backpack(), world({ temperature: 90 }), { hold: true, reason: 'hot', sleepAt: NOW + 2 * MIN }],
    ['just under the threshold is fine', backpack(), world({ temperature: 89 }), { hold: true }],
    ['once hot, a little cooler is still hot', backpack({ released: 'hot' }), world({ temperature: 81 }), { hold: false, reason: 'hot', released: 'hot' }],
    ['ten degrees under, it is cool again', backpack({ released: 'hot' }), world({ temperature: 80 }), { hold: true }],
    ['a low battery goes before heat', backpack(), world({ battery: onBattery(5), temperature: 99 }), { hold: true, reason: 'battery', sleepAt: NOW + 2 * MIN }],
    ['let go for heat, then the battery: still let go, for the battery', backpack({ released: 'hot' }), world({ battery: onBattery(5) }), { hold: false, reason: 'battery', released: 'battery' }],
    ['eleven minutes before the end', backpack({ until: NOW + 11 * MIN }), world(), { hold: true, extendable: false }],
    ['ten minutes before the end it can be extended', backpack({ until: NOW + 10 * MIN }), world(), { hold: true, extendable: true }],
    ['two minutes before the end it warns', backpack({ until: NOW + 2 * MIN }), world(), { hold: true, reason: 'time', sleepAt: NOW + 2 * MIN, extendable: true }],
    ['a battery warning near the end lets go no later than the end', backpack({ until: NOW + MIN }), world({ battery: onBattery(10) }), { hold: true, reason: 'battery', sleepAt: NOW + MIN, extendable: true }],
    ['at the end it is While working again', backpack({ until: NOW }), world({ busy: true }), { hold: true, lid: false, mode: 'working', ended: 'time' }],
    ['past the end, with nothing running, it lets go', backpack({ until: NOW - 5 * MIN }), world(), { hold: false, mode: 'working', ended: 'time' }],
    ['a Backpack without an end gets 8 hours', backpack({ until: null }), world(), { hold: true, until: NOW + BACKPACK_MS }],
  ];
  for (const [name, plan, situation, expected] of rows) {
    const decision = decideAwake(plan, situation);
    const { hold, lid, reason, sleepAt, extendable, ended, plan: after } = decision;
    const seen = { hold, lid, reason, sleepAt, extendable, mode: after.mode, released: after.released, ended, until: after.until };
    const wanted = {
      // Backpack holds the lid whenever it holds at all, where it can.
      lid: expected.hold && (expected.mode ?? plan.mode) === 'backpack' && situation.backpackReady,
      reason: null,
      sleepAt: null,
      extendable: false,
      mode: plan.mode,
      released: null,
      ended: null,
      until: seen.mode === 'backpack' ? (plan.until ?? NOW + BACKPACK_MS) : null,
      ...expected,
    };
    assert.deepEqual(seen, wanted, name);
  }
});

test('the next look is due at the first moment that changes the decision', () => {
  const rows = [
    ['hours before the end: the ten minutes', backpack(), world(), UNTIL - 10 * MIN],
    ['within the ten minutes: the warning', backpack({ until: NOW + 5 * MIN }), world(), NOW + 3 * MIN],
    ['during a warning for the battery: its moment', backpack(), world({ battery: onBattery(9) }), NOW + 2 * MIN],
    ['While working waits on nothing', freshPlan('working'), world({ busy: true }), null],
  ];
  for (const [name, plan, situation, nextAt] of rows) assert.equal(decideAwake(plan, situation).nextAt, nextAt, name);
});

test('what runs: working sessions, sub-agents, automation runs, connected devices', () => {
  const things = runningThings({
    sessions: [
      { id: 's1', state: 'working' },
      { id: 's2', state: 'idle' },
      { id: 's3', state: 'needs_you', agentsRunning: 1 },
      { id: 's4', state: 'starting' },
      'junk',
      { id: 's5', state: 'ended', agentsRunning: 'two' },
    ],
    automations: {
      list: [
        { id: 'au_1', lastRun: { state: 'running' } },
        { id: 'au_2', lastRun: { state: 'needs_you' } },
        { id: 'au_3', lastRun: { state: 'failed' } },
        { id: 'au_4' },
      ],
    },
    devices: [{ id: 'd1', connected: true }, { id: 'd2' }, { id: 'd3', connected: 'yes' }],
  });
  assert.deepEqual(things, ['session s1', 'session s3', 'session s4', 'automation au_1', 'automation au_2', 'device d1']);
  assert.deepEqual(runningThings({ sessions: 'odd', automations: [], devices: null }), []);
});

test('the record carries what the lock achieved, and says when it fell short', () => {
  const decision = decideAwake(backpack(), world());
  const rows = [
    ['all held', { holding: true, lidOk: true }, { holding: true, lidClosedOk: true, reason: undefined }],
    ['the lid refused', { holding: true, lidOk: false }, { holding: true, lidClosedOk: false, reason: 'failed' }],
    ['nothing held', { holding: false, lidOk: false }, { holding: false, lidClosedOk: false, reason: 'failed' }],
  ];
  for (const [name, lock, expected] of rows) {
    const record = awakeRecord({ decision, lock, backpackReady: true, lidClosed: null, laptop: true, other: null });
    assert.deepEqual({ holding: record.holding, lidClosedOk: record.lidClosedOk, reason: record.reason }, expected, name);
  }
  const warned = decideAwake(backpack(), world({ battery: onBattery(4) }));
  const record = awakeRecord({ decision: warned, lock: { holding: false, lidOk: false }, backpackReady: true, lidClosed: true, laptop: true, other: { app: null } });
  assert.equal(record.reason, 'battery', 'a warning says more than a failure');
});

test('the saved state reads back what was written, and survives damage', () => {
  const plan = { ...backpack({ minBattery: 25 }), warning: { reason: 'battery', sleepAt: NOW } };
  const text = awakeFileText(plan, { prev: 1, applied: true }, { note: 'kept' });
  assert.deepEqual(JSON.parse(text), { note: 'kept', mode: 'backpack', minBattery: 25, until: UNTIL, backpack: { prev: 1, applied: true } });
  const back = readAwakeFile(text);
  assert.deepEqual(back.plan, backpack({ minBattery: 25 }), 'a warning is never saved');
  assert.deepEqual(back.backpack, { prev: 1, applied: true });
  assert.deepEqual(back.extra, { note: 'kept' });

  const rows = [
    ['no file', null, freshPlan('working'), null],
    ['not JSON', '{"mode":', freshPlan('working'), null],
    ['a list', '[1]', freshPlan('working'), null],
    ['an unknown mode and level', '{"mode":"sleepy","minBattery":99}', freshPlan('working'), null],
    ['an end for a mode without one', '{"mode":"off","until":5}', freshPlan('off'), null],
    ['the app’s edit: mode back, until and backpack gone', '{"mode":"working","minBattery":20}', freshPlan('working', 20), null],
    ['a prev that isn’t a number', '{"backpack":{"prev":"1","applied":true}}', freshPlan('working'), null],
    ['applied not quite true', '{"backpack":{"prev":0,"applied":"yes"}}', freshPlan('working'), { prev: 0, applied: false }],
  ];
  for (const [name, saved, expectedPlan, expectedBackpack] of rows) {
    const read = readAwakeFile(saved);
    assert.deepEqual(read.plan, expectedPlan, name);
    assert.deepEqual(read.backpack, expectedBackpack, name);
  }
});
