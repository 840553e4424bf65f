// Each part's own message reaching a client is tabled in feed-server.test.js;
// here are the orders and the cases only the reader decides.

import assert from 'node:assert/strict';
import test from 'node:test';

import { FeedMessages } from '../src/feed-messages.js';
import { ServiceState } from '../src/state.js';

// A state with two sessions, one approval on s1, and a battery; then the
// row's writes, and the messages they gave, as "<key> <t>" lines plus the
// messages themselves.
function messagesOf(write, { sessions } = {}) {
  const state = new ServiceState({ hostname: 'studio', daemonVersion: '9.9.9', home: '/home/ada' });
  state.setSnapshotParts({
    sessions: sessions ?? [
      { id: 's1', state: 'needs_you' },
      { id: 's2', state: 'working' },
    ],
  });
  state.upsertApproval({ id: 'ap1', sessionId: 's1', kind: 'tool' });
  state.setSnapshotParts({ mac: { ...state.part('mac'), battery: { percent: 80 } } });

  const reader = new FeedMessages(state.snapshot());
  const entries = [];
  state.on('change', (change) => {
    entries.push(...reader.read(change, change.snapshot.length > 0 ? state.snapshot() : null));
  });
  write(state);
  return { keys: entries.map(({ key, message }) => `${key} ${message?.t ?? '(snapshot)'}`), entries };
}

const mac = (state, patch) => ({ ...state.part('mac'), ...patch });

const rows = [
  ['one session changed is that session', (s) => s.upsertSession({ id: 's2', state: 'idle' }), ['session:s2 session']],
  ['a new session last is that session', (s) => s.upsertSession({ id: 's3' }), ['session:s3 session']],
  [
    'sessions in a new order are a snapshot',
    (s) => s.setSnapshotParts({ sessions: [...s.part('sessions')].reverse() }),
    ['snapshot (snapshot)'],
  ],
  [
    'a new approval comes before the session that now waits',
    (s) => s.upsertApproval({ id: 'ap2', sessionId: 's2' }),
    ['approval:ap2 approval', 'session:s2 session'],
  ],
  [
    'an answered approval is resolved, and its session follows',
    (s) => s.resolveApproval('ap1', { decision: 'allow', by: 'mac' }),
    ['approval:ap1 approval.resolved', 'session:s1 session'],
  ],
  [
    'an approval taken out is resolved too',
    (s) => s.removeApproval('ap1'),
    ['approval:ap1 approval.resolved', 'session:s1 session'],
  ],
  ['an account taken out has no message of its own', (s) => s.setSnapshotParts({ account: null }), ['snapshot (snapshot)']],
  [
    'battery and awake together are two messages',
    (s) => s.setSnapshotParts({ mac: mac(s, { battery: { percent: 1 }, awake: { mode: 'off' } }) }),
    ['battery battery', 'awake awake'],
  ],
  ['an awake state that isn’t a record is a snapshot', (s) => s.setSnapshotParts({ mac: mac(s, { awake: 'x' }) }), ['snapshot (snapshot)']],
  ['another field of the Mac is a snapshot', (s) => s.setSnapshotParts({ mac: mac(s, { name: 'M' }) }), ['snapshot (snapshot)']],
  ['automations have no message', (s) => s.setSnapshotParts({ automations: { paused: true } }), ['snapshot (snapshot)']],
  ['an unknown part has no message', (s) => s.setSnapshotParts({ projects: [] }), ['snapshot (snapshot)']],
  ['other local parts say nothing', (s) => s.setLocalParts({ tsnet: { mode: 'builtIn' } }), []],
  ['the count of feed clients says nothing', (s) => s.setConnectedClients(3), []],
  ['a write of what is there says nothing', (s) => s.upsertSession({ id: 's2', state: 'working' }), []],
];

for (const [name, write, expected] of rows) {
  test(`feed messages: ${name}`, () => {
    assert.deepEqual(messagesOf(write).keys, expected);
  });
}

test('feed messages carry the whole record, and a resolution what is known of it', () => {
  const { entries } = messagesOf((s) => {
    s.resolveApproval('ap1', { decision: 'session', by: 'phone' });
    s.upsertApproval({ id: 'ap2', sessionId: 's2', kind: 'plan' });
    s.removeApproval('ap2');
  });
  assert.deepEqual(
    entries.map(({ message }) => message),
    [
      { t: 'approval.resolved', id: 'ap1', sessionId: 's1', decision: 'session', by: 'phone' },
      { t: 'session', session: { id: 's1', state: 'working', pendingApprovalIds: [] } },
      { t: 'approval', approval: { id: 'ap2', sessionId: 's2', kind: 'plan' } },
      { t: 'session', session: { id: 's2', state: 'working', pendingApprovalIds: ['ap2'] } },
      { t: 'approval.resolved', id: 'ap2', sessionId: 's2', decision: null, by: null },
      { t: 'session', session: { id: 's2', state: 'working', pendingApprovalIds: [] } },
    ],
  );
});

test('feed messages: a list that can’t be told item by item always gives a snapshot', () => {
  const odd = [
    ['an element that isn’t a record', [{ id: 's1' }, 7]],
    ['an id twice', [{ id: 's1' }, { id: 's1', state: 'x' }]],
    ['an element without an id', [{ id: 's1' }, { title: 'T' }]],
  ];
  for (const [name, sessions] of odd) {
    const { keys } = messagesOf((s) => s.patchSession('s1', (session) => ({ ...session, title: 'New' })), {
      sessions,
    });
    assert.deepEqual(keys, ['snapshot (snapshot)'], name);
  }
});
