import assert from 'node:assert/strict';
import test from 'node:test';

import { automationsStatus, dateMs } from '../src/automations-status.js';

test('dates read in all three forms', () => {
  const rows = [
    ['milliseconds', 1760079600000, 1760079600000],
    ['seconds', 1760079600, 1760079600000],
    ['ISO text', '2025-10-10T07:00:00Z', 1760079600000],
    ['text that is no date', 'soon', null],
    ['null', null, null],
    ['not finite', Infinity, null],
  ];
  for (const [name, value, expected] of rows) assert.equal(dateMs(value), expected, name);
});

test('the short status follows the list', () => {
  const rows = [
    ['no automations part', undefined, undefined],
    ['a part that is no object', 'x', undefined],
    ['an empty list', { paused: false, list: [] }, { paused: false, count: 0, next: null, running: [] }],
    [
      'the soonest automation that is on is next, whatever form its date has',
      {
        paused: true,
        list: [
          { id: 'a', name: 'Later', nextAt: 1760079600000 },
          { id: 'b', name: 'Off', enabled: false, nextAt: 1 },
          { id: 'c', name: 'Sooner', nextAt: '2025-10-10T06:00:00Z' },
          { id: 'd', name: 'On an event' },
          7,
        ],
      },
      { paused: true, count: 4, next: { id: 'c', name: 'Sooner', at: '2025-10-10T06:00:00Z' }, running: [] },
    ],
    [
      'runs at work, also of one that is off, carry their last session',
      {
        paused: false,
        list: [
          { id: 'a', name: 'A', lastRun: { state: 'running', sessionIds: ['s1', 's2'], startedAt: 5 } },
          { id: 'b', enabled: false, lastRun: { state: 'needs_you' } },
          { id: 'c', name: 'C', lastRun: { state: 'done', sessionIds: ['s3'] } },
          { id: 'd', name: 'D', lastRun: 'running' },
        ],
      },
      {
        paused: false,
        count: 4,
        next: null,
        running: [{ id: 'a', name: 'A', sessionId: 's2', startedAt: 5 }, { id: 'b' }],
      },
    ],
    ['odd fields count as absent', { paused: 'yes', list: 'many' }, { paused: false, count: 0, next: null, running: [] }],
  ];
  for (const [name, input, expected] of rows) assert.deepEqual(automationsStatus(input), expected, name);
});
