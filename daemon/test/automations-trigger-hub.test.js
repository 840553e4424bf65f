// The trigger hub with an injected clock: a moment missed in sleep fires
// once, paused and disabled automations fire nothing, and what the service
// hears fires the triggers that wait for it, at most once a minute per session.

import assert from 'node:assert/strict';
import fs from 'node:fs';
import path from 'node:path';
import test from 'node:test';

import { FileWatch } from '../src/automations/file-watch.js';
import { TriggerHub } from '../src/automations/trigger-hub.js';
import { eventually, scratchFolder } from './helpers.js';

const START = Date.parse('2026-05-04T08:58:00Z');
const HOUR = 3_600_000;

// A hub whose runs are kept in a list, on a clock the test moves.
function hubWith(t, options = {}) {
  const clock = { at: START, now() { return this.at; } };
  const fired = [];
  const hub = new TriggerHub({ clock, timeZone: 'UTC', fire: (automation, moment) => fired.push({ id: automation.id, ...moment }), ...options });
  t.after(() => hub.close());
  return { hub, clock, fired };
}

const automation = (id, trigger, more = {}) => ({ id, name: id, enabled: true, trigger, ...more });
const CRON = automation('au_cron', { kind: 'cron', expr: '0 9 * * *' });

test('a moment missed while the machine slept fires once when it wakes, and the next is from then', (t) => {
  const { hub, clock, fired } = hubWith(t);
  hub.sync([CRON], false);
  assert.equal(hub.nextAt('au_cron'), Date.parse('2026-05-04T09:00:00Z'));
  clock.at += 3 * 24 * HOUR + HOUR;
  hub.check();
  hub.check();
  assert.equal(fired.length, 1);
  assert.equal(fired[0].by, 'cron');
  assert.equal(fired[0].dueAt, Date.parse('2026-05-04T09:00:00Z'));
  assert.equal(fired[0].detail, 'Its time came while the Mac slept or Tidewatch was off');
  assert.equal(hub.nextAt('au_cron'), Date.parse('2026-05-08T09:00:00Z'));
});

test('the hub’s own timer fires a due moment without being asked', async (t) => {
  const { hub, clock, fired } = hubWith(t, { recheckMs: 20 });
  hub.sync([CRON], false);
  clock.at = Date.parse('2026-05-04T09:00:01Z');
  await eventually(() => fired.length === 1, 'the timer’s firing');
  assert.equal(fired[0].detail, 'Its time came');
});

const QUIET_ONES = [
  { name: 'a disabled automation fires nothing and has no next time', list: [{ ...CRON, enabled: false }], paused: false },
  { name: 'everything paused fires nothing and has no next time', list: [CRON], paused: true },
];

for (const row of QUIET_ONES) {
  test(row.name, (t) => {
    const { hub, clock, fired } = hubWith(t);
    hub.sync(row.list, row.paused);
    clock.at += HOUR;
    hub.check();
    hub.hook({ hook_event_name: 'Stop', session_id: 's1' });
    assert.equal(hub.nextAt('au_cron'), null);
    assert.deepEqual(fired, []);
  });
}

test('a due time kept across a restart fires once; a changed trigger starts afresh', (t) => {
  const first = hubWith(t);
  first.hub.sync([CRON, automation('au_other', { kind: 'time', at: '09:00' })], false);
  const saved = JSON.parse(JSON.stringify(first.hub.saved()));
  const second = hubWith(t);
  second.clock.at = START + 2 * HOUR;
  second.hub.restore(saved);
  second.hub.sync([CRON, automation('au_other', { kind: 'time', at: '12:00' })], false);
  second.hub.check();
  assert.deepEqual(second.fired.map((each) => each.id), ['au_cron']);
  assert.equal(second.hub.nextAt('au_other'), Date.parse('2026-05-04T12:00:00Z'));
});

test('one that runs only once fires once', (t) => {
  const { hub, clock, fired } = hubWith(t);
  hub.sync([automation('au_1', { kind: 'cron', expr: '*/5 * * * *' }, { onlyOnce: true })], false);
  for (let i = 0; i < 3; i += 1) {
    clock.at += 10 * 60_000;
    hub.check();
  }
  assert.equal(fired.length, 1);
  assert.equal(hub.nextAt('au_1'), null);
});

test('a hook fires at most once a minute per session, and by whose session it was', (t) => {
  const { hub, clock, fired } = hubWith(t);
  hub.sync(
    [
      automation('au_mine', { kind: 'hook', event: 'Stop', from: 'mine' }),
      automation('au_auto', { kind: 'hook', event: 'Stop', from: 'automated' }),
      automation('au_bash', { kind: 'hook', event: 'PostToolUseFailure', tool: 'Bash', from: 'any', projectPath: '/p/shop' }),
    ],
    false,
  );
  hub.session({ id: 'ran', state: 'working', cwd: '/p/shop', origin: 'automation' });
  const stop = (session) => hub.hook({ hook_event_name: 'Stop', session_id: session, cwd: '/p/shop' });
  stop('s1');
  stop('s1');
  stop('s2');
  stop('ran');
  clock.at += 61_000;
  stop('s1');
  hub.hook({ hook_event_name: 'PostToolUseFailure', session_id: 's1', tool_name: 'Bash', cwd: '/p/shop/src' });
  hub.hook({ hook_event_name: 'PostToolUseFailure', session_id: 's2', tool_name: 'Edit', cwd: '/p/shop' });
  hub.hook({ hook_event_name: 'PostToolUseFailure', session_id: 's3', tool_name: 'Bash', cwd: '/p/shopping' });
  assert.deepEqual(
    fired.map((each) => `${each.id} ${each.sessionId}`),
    ['au_mine s1', 'au_mine s2', 'au_auto ran', 'au_mine s1', 'au_bash s1'],
  );
  assert.equal(JSON.parse(fired.at(-1).payload).tool_name, 'Bash');
});

const HEARD = [
  {
    name: 'a session that comes to need the person fires, one first seen that way does not',
    trigger: { kind: 'session', event: 'needs_you' },
    hear: (hub) => {
      hub.session({ id: 'a', state: 'needs_you' });
      hub.session({ id: 'b', state: 'working', title: 'Fix the cart' });
      hub.session({ id: 'b', state: 'needs_you', title: 'Fix the cart' });
    },
    details: ['Fix the cart needs you'],
  },
  {
    name: 'a session whose work ends fires, an idle one that ends does not',
    trigger: { kind: 'session', event: 'finished' },
    hear: (hub) => {
      hub.session({ id: 'a', state: 'idle', projectName: 'shop' });
      hub.session({ id: 'a', state: 'ended', projectName: 'shop' });
      hub.session({ id: 'b', state: 'working', projectName: 'shop' });
      hub.session({ id: 'b', state: 'idle', projectName: 'shop' });
    },
    details: ['shop finished'],
  },
  {
    name: 'the battery falling under the line on battery power fires once',
    trigger: { kind: 'power', event: 'low', below: 20 },
    hear: (hub) => {
      hub.power({ percent: 15, onAC: false });
      hub.power({ percent: 25, onAC: false });
      hub.power({ percent: 19, onAC: false });
      hub.power({ percent: 18, onAC: false });
      hub.power({ percent: 17, onAC: true });
    },
    details: ['The battery is at 19%'],
  },
  {
    name: 'plugging in fires, staying plugged in does not',
    trigger: { kind: 'power', event: 'plugged' },
    hear: (hub) => {
      hub.power({ percent: 50, onAC: false });
      hub.power({ percent: 50, onAC: true });
      hub.power({ percent: 51, onAC: true });
    },
    details: ['The Mac was plugged in'],
  },
  {
    name: 'a window reaching its limit fires once',
    trigger: { kind: 'limit', window: 'five_hour' },
    hear: (hub) => {
      hub.usage({ fiveHour: { pct: 90, resetsAt: START + HOUR }, sevenDay: { pct: 10 } });
      hub.usage({ fiveHour: { pct: 100, resetsAt: START + HOUR }, sevenDay: { pct: 100 } });
      hub.usage({ fiveHour: { pct: 100, resetsAt: START + HOUR }, sevenDay: { pct: 100 } });
    },
    details: ['The 5-hour window reached its limit'],
  },
];

for (const row of HEARD) {
  test(row.name, (t) => {
    const { hub, fired } = hubWith(t);
    hub.sync([automation('au_x', row.trigger)], false);
    row.hear(hub);
    assert.deepEqual(fired.map((each) => each.detail), row.details);
  });
}

test('a window’s reset is due at its time, after a limit when asked, and fires once', (t) => {
  const { hub, clock, fired } = hubWith(t);
  hub.sync([automation('au_reset', { kind: 'reset', window: 'five_hour', afterLimit: true, from: '08:00', to: '20:00' })], false);
  hub.usage({ fiveHour: { pct: 40, resetsAt: START + HOUR } });
  assert.equal(hub.nextAt('au_reset'), null, 'not at its limit');
  hub.usage({ fiveHour: { pct: 100, resetsAt: START + HOUR } });
  assert.equal(hub.nextAt('au_reset'), START + HOUR);
  clock.at += 5 * HOUR;
  hub.usage({ fiveHour: { pct: 3, resetsAt: clock.at + 4 * HOUR } });
  hub.check();
  assert.deepEqual(fired.map((each) => each.detail), ['The 5-hour window reset']);
  assert.equal(hub.nextAt('au_reset'), null);
});

test('a trigger of a kind it doesn’t know is a sentence on the automation', (t) => {
  const { hub } = hubWith(t);
  const changed = [];
  hub.onChange((id) => changed.push(id));
  hub.sync([automation('au_q', { kind: 'quantum' }), automation('au_c', { kind: 'cron', expr: 'every day' })], false);
  assert.equal(hub.problemOf('au_q'), 'That moment isn’t one your Mac can watch for.');
  assert.match(hub.problemOf('au_c'), /^That isn’t a schedule/);
  assert.deepEqual(changed, ['au_q', 'au_c']);
});

test('a file trigger fires through the hub with its files as the payload, and not for its own runs’ changes', async (t) => {
  const folder = await scratchFolder(t);
  const watches = [];
  const watch = (options) => watches[watches.push(new FileWatch({ ...options, quietMs: 50 })) - 1];
  const { hub, fired } = hubWith(t, { watch, home: folder, clock: { now: Date.now } });
  const problems = [];
  hub.onChange((id) => problems.push(hub.problemOf(id)));
  hub.sync([automation('au_f', { kind: 'file', path: '~/shop', glob: '*.md', event: 'created' })], false);
  fs.mkdirSync(path.join(folder, 'shop'));
  hub.sync([automation('au_f', { kind: 'file', path: '~/shop', glob: '*.md', event: 'created' }, { name: 'again' })], false);
  await eventually(() => problems.includes('That project folder isn’t there.'), 'the missing folder’s sentence');
  hub.sync([], false);
  hub.sync([automation('au_f', { kind: 'file', path: '~/shop', glob: '*.md', event: 'created' })], false);
  await watches.at(-1).settled();
  assert.equal(hub.problemOf('au_f'), null);
  hub.ignore('au_f', [path.join(folder, 'shop', 'out')], Date.now() + 60_000);
  fs.mkdirSync(path.join(folder, 'shop', 'out'));
  fs.writeFileSync(path.join(folder, 'shop', 'out', 'made.md'), 'x');
  fs.writeFileSync(path.join(folder, 'shop', 'new.md'), 'x');
  await eventually(() => fired.length === 1, 'the file moment');
  assert.deepEqual(
    { by: fired[0].by, detail: fired[0].detail, payload: fired[0].payload },
    { by: 'file', detail: 'new.md was added', payload: 'new.md' },
  );
});
