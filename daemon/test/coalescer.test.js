import assert from 'node:assert/strict';
import test from 'node:test';

import { Coalescer } from '../src/coalescer.js';

// Runs a timeline of pushes on a mocked clock with a 100 ms window and gives
// what went out, as "<ms> <key>=<value>".
function run(t, pushes, { until = 1000, discardAt } = {}) {
  t.mock.timers.enable({ apis: ['setTimeout'] });
  let now = 0;
  const sent = [];
  const coalescer = new Coalescer({ windowMs: 100, send: ({ key, value }) => sent.push(`${now} ${key}=${value}`) });
  // One millisecond at a time, so that `now` is right when a timer fires.
  const advance = (to) => {
    while (now < to) {
      now += 1;
      t.mock.timers.tick(1);
    }
  };
  for (const [at, key, value] of pushes) {
    if (discardAt !== undefined && discardAt <= at && now < discardAt) {
      advance(discardAt);
      coalescer.discard((other) => other === 'a');
    }
    advance(at);
    coalescer.push(key, { key, value });
  }
  advance(until);
  coalescer.clear();
  return sent;
}

const rows = [
  ['a lone change goes out at once', [[0, 'a', 1]], ['0 a=1']],
  ['a burst gives the first now and the latest at the window’s end', [[0, 'a', 1], [10, 'a', 2], [50, 'a', 3], [99, 'a', 4]], ['0 a=1', '100 a=4']],
  ['a change after a quiet window goes out at once again', [[0, 'a', 1], [250, 'a', 2]], ['0 a=1', '250 a=2']],
  ['a long burst gives one frame per window, never two', [[0, 'a', 1], [60, 'a', 2], [120, 'a', 3], [180, 'a', 4], [240, 'a', 5]], ['0 a=1', '100 a=2', '200 a=4', '300 a=5']],
  ['keys have windows of their own', [[0, 'a', 1], [10, 'b', 1], [20, 'a', 2], [30, 'b', 2]], ['0 a=1', '10 b=1', '100 a=2', '110 b=2']],
  // a=2 was dropped at 50; the window ended empty at 100, so a=3 is new.
  ['a discarded entry never goes out, and its window still holds', [[0, 'a', 1], [10, 'a', 2], [150, 'a', 3]], ['0 a=1', '150 a=3'], { discardAt: 50 }],
];

test('coalescing', async (t) => {
  for (const [name, pushes, expected, options] of rows) await t.test(name, (t) => assert.deepEqual(run(t, pushes, options), expected));
});

test('coalescing: what must not wait goes at once, and drops the older entry it overtakes', (t) => {
  t.mock.timers.enable({ apis: ['setTimeout'] });
  const sent = [];
  const coalescer = new Coalescer({ windowMs: 100, send: (entry) => sent.push(entry) });
  coalescer.push('a', 'changed');
  coalescer.push('a', 'changed again');
  coalescer.pushNow('a', 'resolved');
  coalescer.pushNow('b', 'resolved');
  coalescer.push('b', 'back');
  t.mock.timers.tick(100);
  coalescer.push('c', 1);
  coalescer.push('c', 2);
  coalescer.clear();
  t.mock.timers.tick(500);
  assert.deepEqual(sent, ['changed', 'resolved', 'resolved', 'back', 1], 'clear stops what waits');
});
