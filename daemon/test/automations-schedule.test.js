// The next moments of scheduled triggers, on a real named time zone across
// both of its DST changes, and the refusals of triggers that can't be read.

import assert from 'node:assert/strict';
import { execFile } from 'node:child_process';
import path from 'node:path';
import test from 'node:test';
import { pathToFileURL } from 'node:url';
import { promisify } from 'node:util';

import { MAX_NEXT_TIMES, nextAt, nextTimes } from '../src/automations/schedule.js';
import { DAEMON } from './helpers.js';

const BERLIN = 'Europe/Berlin';
const at = (iso) => Date.parse(iso);
const iso = (list) => list.map((ms) => new Date(ms).toISOString());

// Berlin's clocks go 02:00 → 03:00 on 2026-03-29 and 03:00 → 02:00 on 2026-10-25.
const MOMENTS = [
  {
    name: 'a daily time in the hour that spring skips runs once, right after the gap',
    trigger: { kind: 'time', at: '02:30' },
    from: '2026-03-28T12:00:00Z',
    next: ['2026-03-29T01:00:00.000Z', '2026-03-30T00:30:00.000Z'],
  },
  {
    name: 'a daily time in the hour that autumn repeats runs once',
    trigger: { kind: 'time', at: '02:30' },
    from: '2026-10-24T12:00:00Z',
    next: ['2026-10-25T00:30:00.000Z', '2026-10-26T01:30:00.000Z'],
  },
  {
    name: 'a daily time keeps its hour on the wall clock across the change',
    trigger: { kind: 'time', at: '09:00' },
    from: '2026-03-27T12:00:00Z',
    next: ['2026-03-28T08:00:00.000Z', '2026-03-29T07:00:00.000Z', '2026-03-30T07:00:00.000Z'],
  },
  {
    name: 'a time on listed weekdays only, 0 being Sunday',
    trigger: { kind: 'time', at: '08:00', days: [0] },
    from: '2026-03-30T12:00:00Z',
    next: ['2026-04-05T06:00:00.000Z', '2026-04-12T06:00:00.000Z'],
  },
  {
    name: 'every two hours keeps its wall-clock hours on the short day',
    trigger: { kind: 'every', hours: 2, from: '01:00', to: '05:00' },
    from: '2026-03-28T23:30:00Z',
    next: ['2026-03-29T00:00:00.000Z', '2026-03-29T01:00:00.000Z', '2026-03-29T03:00:00.000Z', '2026-03-29T23:00:00.000Z'],
  },
  {
    name: 'every hours stays inside its span, the end included',
    trigger: { kind: 'every', hours: 4, from: '09:30', to: '17:30', days: [1] },
    from: '2026-06-01T00:00:00Z',
    next: ['2026-06-01T07:30:00.000Z', '2026-06-01T11:30:00.000Z', '2026-06-01T15:30:00.000Z', '2026-06-08T07:30:00.000Z'],
  },
  {
    name: 'a weekday cron skips the weekend of the change',
    trigger: { kind: 'cron', expr: '0 9 * * 1-5' },
    from: '2026-03-27T12:00:00Z',
    next: ['2026-03-30T07:00:00.000Z', '2026-03-31T07:00:00.000Z'],
  },
  {
    name: 'a cron with steps runs in both of autumn’s repeated hours',
    trigger: { kind: 'cron', expr: '*/30 2 * * *' },
    from: '2026-10-24T23:00:00Z',
    next: ['2026-10-25T00:00:00.000Z', '2026-10-25T00:30:00.000Z', '2026-10-25T01:00:00.000Z', '2026-10-25T01:30:00.000Z'],
  },
  {
    name: 'once is its instant while it is ahead',
    trigger: { kind: 'once', at: at('2026-05-01T10:00:00Z') },
    from: '2026-04-30T00:00:00Z',
    next: ['2026-05-01T10:00:00.000Z'],
  },
  {
    name: 'once has nothing ahead once it has passed',
    trigger: { kind: 'once', at: at('2026-05-01T10:00:00Z') },
    from: '2026-05-01T10:00:00Z',
    next: [],
  },
  { name: 'a hook trigger has no moments of its own', trigger: { kind: 'hook', event: 'Stop' }, from: '2026-05-01T10:00:00Z', next: [] },
  { name: 'a webhook has none either', trigger: { kind: 'webhook' }, from: '2026-05-01T10:00:00Z', next: [] },
];

for (const row of MOMENTS) {
  test(row.name, () => {
    assert.deepEqual(iso(nextTimes(row.trigger, at(row.from), Math.max(1, row.next.length), { timeZone: BERLIN })), row.next);
  });
}

test('the machine’s own zone is the one TZ names', async () => {
  const module = pathToFileURL(path.join(DAEMON, 'src', 'automations', 'schedule.js')).href;
  const script = `import { nextTimes } from ${JSON.stringify(module)};
    console.log(JSON.stringify(nextTimes({ kind: 'time', at: '02:30' }, Date.parse('2026-03-28T12:00:00Z'), 2)));`;
  const { stdout } = await promisify(execFile)(process.execPath, ['--input-type=module', '-e', script], {
    env: { ...process.env, TZ: BERLIN },
  });
  assert.deepEqual(iso(JSON.parse(stdout)), MOMENTS[0].next);
});

test('nextAt is the first of the next times, and null when there is none', () => {
  const now = at('2026-03-28T12:00:00Z');
  assert.equal(nextAt({ kind: 'time', at: '02:30' }, now, { timeZone: BERLIN }), at('2026-03-29T01:00:00Z'));
  assert.equal(nextAt({ kind: 'power', event: 'low', below: 20 }, now), null);
  assert.equal(nextTimes({ kind: 'cron', expr: '*/5 * * * *' }, now, 1000).length, MAX_NEXT_TIMES);
});

const REFUSED = [
  { name: 'a cron of six fields', trigger: { kind: 'cron', expr: '0 * * * * *' }, code: 'bad_cron' },
  { name: 'a cron nickname', trigger: { kind: 'cron', expr: '@daily' }, code: 'bad_cron' },
  { name: 'a cron minute out of range', trigger: { kind: 'cron', expr: '61 * * * *' }, code: 'bad_cron' },
  { name: 'a cron that is no text', trigger: { kind: 'cron', expr: 5 }, code: 'bad_cron' },
  { name: 'a clock without its leading zero', trigger: { kind: 'time', at: '9:00' }, code: 'bad_trigger' },
  { name: 'a time at an instant', trigger: { kind: 'time', at: 1760000000000 }, code: 'bad_trigger' },
  { name: 'a weekday 7', trigger: { kind: 'time', at: '09:00', days: [7] }, code: 'bad_trigger' },
  { name: 'every zero hours', trigger: { kind: 'every', hours: 0 }, code: 'bad_trigger' },
  { name: 'a span that ends before it starts', trigger: { kind: 'every', hours: 1, from: '18:00', to: '09:00' }, code: 'bad_trigger' },
  { name: 'once at a clock time', trigger: { kind: 'once', at: '09:00' }, code: 'bad_trigger' },
  { name: 'no trigger at all', trigger: null, code: 'bad_trigger' },
];

for (const row of REFUSED) {
  test(`refused: ${row.name}`, () => {
    assert.throws(
      () => nextTimes(row.trigger, at('2026-05-01T00:00:00Z'), 3),
      (error) => error.status === 400 && error.code === row.code && error.field === 'trigger' && /\.$/.test(error.message),
    );
  });
}
