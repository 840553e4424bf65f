import assert from 'node:assert/strict';
import test from 'node:test';

import { DEFAULT_AWAKE, ServiceState } from '../src/state.js';

function makeState() {
  const state = new ServiceState({ hostname: 'studio', daemonVersion: '9.9.9', home: '/home/ada' });
  const changes = [];
  state.on('change', (change) => changes.push(change));
  return { state, changes };
}

test('a fresh state has every part with its default', () => {
  const { state } = makeState();
  state.setApiPort(47321);
  const snapshot = state.snapshot();
  assert.deepEqual(Object.keys(snapshot), [
    'mac',
    'usage',
    'sessions',
    'approvals',
    'account',
    'providers',
    'automations',
    'codex',
    'claude',
  ]);
  assert.equal(snapshot.mac.name, 'studio');
  assert.equal(snapshot.mac.daemonVersion, '9.9.9');
  assert.match(snapshot.mac.id, /^mac_[0-9a-f]{8}$/);
  assert.deepEqual(snapshot.mac.awake, DEFAULT_AWAKE);
  assert.deepEqual(snapshot.account, { state: 'unknown' });

  const local = state.localStatus();
  assert.equal(local.daemonVersion, '9.9.9');
  assert.equal(local.apiPort, 47321);
  assert.deepEqual(local.hooks, { installed: false });
  assert.deepEqual(local.devices, []);
  assert.deepEqual(local.automations, { paused: false, count: 0, next: null, running: [] });
  assert.equal('qr' in local, false);
  assert.equal(state.localStatus({ qr: true }).qr, null);
});

test('snapshot parts are replaced whole, removed by null, and mirrored into the local status', () => {
  const { state, changes } = makeState();
  state.setSnapshotParts({ usage: { fiveHour: { pct: 42 } }, account: null, projects: [1], codex: 'odd' });
  const snapshot = state.snapshot();
  assert.deepEqual(snapshot.usage, { fiveHour: { pct: 42 } });
  assert.equal('account' in snapshot, false);
  assert.deepEqual(snapshot.projects, [1]);
  assert.equal(snapshot.codex, 'odd');
  assert.equal(Object.keys(snapshot).at(-1), 'projects', 'unknown parts follow the known ones');

  const local = state.localStatus();
  assert.deepEqual(local.usage, { fiveHour: { pct: 42 } });
  assert.equal('account' in local, false);
  assert.equal(local.codex, 'odd');
  assert.deepEqual(changes, [{ snapshot: ['usage', 'account', 'projects', 'codex'], local: [] }]);

  // Removed parts come back in their own place.
  state.setSnapshotParts({ account: { state: 'ok' } });
  assert.deepEqual(Object.keys(state.snapshot()).slice(4, 5), ['account']);
});

test('a write of what is already there is no change', () => {
  const { state, changes } = makeState();
  state.setSnapshotParts({ account: { state: 'unknown' }, nothing: null });
  state.setLocalParts({ hooks: { installed: false } });
  state.upsertSession({ id: 's1' });
  state.upsertSession({ id: 's1' });
  state.reset();
  state.reset();
  assert.deepEqual(
    changes.map((change) => change.snapshot.concat(change.local)),
    [['sessions'], ['sessions']],
  );
});

test('stored values are copies: changing what was given changes nothing', () => {
  const { state } = makeState();
  const session = { id: 's1', pendingApprovalIds: [] };
  state.upsertSession(session);
  session.pendingApprovalIds.push('x');
  assert.deepEqual(state.snapshot().sessions, [{ id: 's1', pendingApprovalIds: [] }]);
});

test('sessions are put in by id, in place, and taken out by id', () => {
  const { state, changes } = makeState();
  state.setSnapshotParts({ sessions: [{ id: 's1' }, 7, { id: 's2' }] });
  state.upsertSession({ id: 's1', state: 'working' });
  state.upsertSession({ id: 's3' });
  assert.deepEqual(state.snapshot().sessions, [{ id: 's1', state: 'working' }, 7, { id: 's2' }, { id: 's3' }]);
  assert.equal(state.removeSession('s2'), true);
  assert.equal(state.removeSession('s2'), false);
  assert.deepEqual(state.snapshot().sessions, [{ id: 's1', state: 'working' }, 7, { id: 's3' }]);
  assert.deepEqual(changes.at(-1), { snapshot: ['sessions'], local: [], item: { kind: 'session', id: 's2', value: null } });

  // A list planted in an odd shape, or removed, starts again from the one session.
  state.setSnapshotParts({ sessions: 'none' });
  state.upsertSession({ id: 's9' });
  assert.deepEqual(state.snapshot().sessions, [{ id: 's9' }]);
});

test('an approval is listed on its session alone, and leaves it when answered', () => {
  const { state, changes } = makeState();
  state.setSnapshotParts({
    sessions: [{ id: 's1' }, { id: 's2', pendingApprovalIds: ['other'] }, { id: 's3', pendingApprovalIds: 'odd' }],
  });
  state.upsertApproval({ id: 'ap1', sessionId: 's1' });
  state.upsertApproval({ id: 'ap2', sessionId: 's2' });
  assert.deepEqual(state.snapshot().sessions, [
    { id: 's1', pendingApprovalIds: ['ap1'] },
    { id: 's2', pendingApprovalIds: ['other', 'ap2'] },
    { id: 's3', pendingApprovalIds: 'odd' },
  ]);
  assert.deepEqual(changes.at(-1).snapshot, ['approvals', 'sessions']);

  // Moved to another session, it leaves the first.
  state.upsertApproval({ id: 'ap1', sessionId: 's2' });
  assert.deepEqual(
    state.snapshot().sessions.map((session) => session.pendingApprovalIds),
    [[], ['other', 'ap2', 'ap1'], 'odd'],
  );

  assert.equal(state.removeApproval('ap1'), true);
  assert.equal(state.removeApproval('ap1'), false);
  assert.deepEqual(state.snapshot().approvals, [{ id: 'ap2', sessionId: 's2' }]);
  assert.deepEqual(state.snapshot().sessions[1].pendingApprovalIds, ['other', 'ap2']);

  // An approval for a session nobody knows is kept all the same.
  state.upsertApproval({ id: 'ap3', sessionId: 'ghost' });
  assert.equal(state.snapshot().approvals.length, 2);
});

test('local parts are replaced and removed; mirrored keys are overridden until cleared', () => {
  const { state, changes } = makeState();
  state.setSnapshotParts({ automations: { paused: true, list: [{ id: 'a' }] } });
  state.setLocalParts({
    tsnet: { mode: 'builtIn' },
    shell: null,
    automations: { paused: 'yes', count: 'x' },
    daemonVersion: '0.0.1',
  });
  let local = state.localStatus();
  assert.deepEqual(local.tsnet, { mode: 'builtIn' });
  assert.equal('shell' in local, false);
  assert.deepEqual(local.automations, { paused: 'yes', count: 'x' });
  assert.equal(local.daemonVersion, '0.0.1');
  assert.deepEqual(changes.at(-1), { snapshot: [], local: ['tsnet', 'shell', 'automations', 'daemonVersion'] });

  state.setLocalParts({ automations: null, daemonVersion: null });
  local = state.localStatus();
  assert.deepEqual(local.automations, { paused: true, count: 1, next: null, running: [] });
  assert.equal(local.daemonVersion, '9.9.9');
});

test('devices are put in and taken out by id, and shown in the local status', () => {
  const { state } = makeState();
  state.upsertDevice({ id: 'd1', name: 'Pixel' });
  state.upsertDevice({ id: 'd2' });
  state.upsertDevice({ id: 'd1', name: 'Pixel 8' });
  assert.deepEqual(state.devices(), [{ id: 'd1', name: 'Pixel 8' }, { id: 'd2' }]);
  assert.deepEqual(state.localStatus().devices, state.devices());
  assert.equal(state.removeDevice('d1'), true);
  assert.equal(state.removeDevice('nope'), false);
  state.setLocalParts({ devices: null });
  assert.deepEqual(state.devices(), []);
});

test('reset brings back the defaults and says what changed', () => {
  const { state, changes } = makeState();
  const before = { snapshot: state.snapshot(), local: state.localStatus() };
  state.setSnapshotParts({ mac: null, extra: 1 });
  state.setLocalParts({ lan: { port: 1 }, usage: {} });
  state.upsertDevice({ id: 'd1' });
  changes.length = 0;
  state.reset();
  assert.deepEqual({ snapshot: state.snapshot(), local: state.localStatus() }, before);
  assert.deepEqual(changes, [{ snapshot: ['extra', 'mac'], local: ['devices', 'lan', 'usage'] }]);
});
