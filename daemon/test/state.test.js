import assert from 'node:assert/strict';
import test from 'node:test';

import { MAX_DECISIONS, MAX_SESSIONS, ServiceState } from '../src/state.js';

function makeState() {
  const state = new ServiceState({ hostname: 'studio', daemonVersion: '9.9.9', home: '/home/ada' });
  const changes = [];
  state.on('change', (change) => changes.push(change));
  return { state, changes };
}

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
  assert.deepEqual(changes.map((change) => change.snapshot.concat(change.local)), [['sessions'], ['sessions']]);
});

test('sessions are put in by id as copies, rewritten in place, and taken out by id', () => {
  const { state, changes } = makeState();
  state.setSnapshotParts({ sessions: [{ id: 's1' }, 7, { id: 's2' }] });
  const given = { id: 's1', state: 'idle', pendingApprovalIds: [] };
  state.upsertSession(given);
  given.pendingApprovalIds.push('x');
  const before = changes.length;
  assert.equal(state.patchSession('s1', ({ pendingApprovalIds, ...session }) => ({ ...session, state: 'working' })), true);
  assert.equal(state.patchSession('s1', (session) => session), true);
  assert.equal(changes.length, before + 1, 'a rewrite to the same value is no change');
  assert.equal(state.patchSession('nope', () => assert.fail('not called')), false);
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

test('past the most sessions kept, the ended one that came first makes room; with none ended, a new one is refused', async (t) => {
  const rows = [
    ['two ended', [3, 7], true, 's3'],
    ['none ended', [], false, null],
  ];
  for (const [name, endedAt, kept, evicted] of rows) {
    await t.test(name, () => {
      const { state } = makeState();
      for (let i = 0; i < MAX_SESSIONS; i++) {
        state.upsertSession({ id: `s${i}`, state: endedAt.includes(i) ? 'ended' : 'working' });
      }
      assert.equal(state.upsertSession({ id: 's0', state: 'idle' }), true, 'a kept one still changes');
      assert.equal(state.upsertSession({ id: 'new', state: 'working' }), kept);
      const ids = state.snapshot().sessions.map((session) => session.id);
      assert.deepEqual([ids.length, ids.includes('new'), ids.includes(evicted)], [MAX_SESSIONS, kept, false]);
    });
  }
});

test('an approval is listed on its session alone, and leaves it when answered', () => {
  const { state, changes } = makeState();
  state.setSnapshotParts({ sessions: [{ id: 's1' }, { id: 's2', pendingApprovalIds: ['other'] }, { id: 's3', pendingApprovalIds: 'odd' }] });
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
  assert.deepEqual(state.snapshot().sessions.map((session) => session.pendingApprovalIds), [[], ['other', 'ap2', 'ap1'], 'odd']);

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
  state.setLocalParts({ tsnet: { mode: 'builtIn' }, shell: null, automations: { paused: 'yes', count: 'x' }, daemonVersion: '0.0.1' });
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

// Taken out by id, and a 404 for an unknown one, is proven through the routes.
test('a device put in again is rewritten in its place', () => {
  const { state } = makeState();
  for (const device of [{ id: 'd1', name: 'Pixel' }, { id: 'd2' }, { id: 'd1', name: 'Pixel 8' }]) state.upsertDevice(device);
  assert.deepEqual(state.localStatus().devices, [{ id: 'd1', name: 'Pixel 8' }, { id: 'd2' }]);
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
  assert.deepEqual(changes, [{ snapshot: ['extra', 'mac'], local: ['devices', 'lan', 'usage'], whole: true }]);
});

test('an answered approval leaves, its session works again once nothing else waits, and it is remembered', () => {
  const { state, changes } = makeState();
  state.setSnapshotParts({ sessions: [{ id: 's1', state: 'needs_you' }, { id: 's2', state: 'needs_you' }, { id: 's3', state: 'ended' }] });
  for (const [id, sessionId] of [['ap1', 's1'], ['ap2', 's1'], ['ap3', 's2'], ['ap4', 's3']]) state.upsertApproval({ id, sessionId });
  const record = state.resolveApproval('ap1', { decision: 'allow', by: 'mac', at: 5 });
  assert.deepEqual(record, { id: 'ap1', sessionId: 's1', decision: 'allow', by: 'mac', at: 5 });
  assert.deepEqual(changes.at(-1), { snapshot: ['approvals', 'sessions'], local: [], item: { kind: 'approval', id: 'ap1', value: null, resolution: record } });
  state.resolveApproval('ap3', { decision: 'deny', by: 'phone', at: 6 });
  state.resolveApproval('ap4', { decision: 'deny', by: 'mac', at: 7 });
  const after = state.snapshot().sessions.map((session) => [session.state, session.pendingApprovalIds]);
  assert.deepEqual(after, [['needs_you', ['ap2']], ['working', []], ['ended', []]], 'another approval keeps s1 waiting; an ended session stays ended');
  assert.equal(state.resolveApproval('ap1', { decision: 'allow', by: 'mac' }), null);
  assert.deepEqual(state.decisions().map((decision) => decision.id), ['ap1', 'ap3', 'ap4']);

  // Approvals that left are remembered, however they left, until a reset.
  state.upsertApproval({ id: 'replaced' });
  state.removeApproval('ap2');
  state.setSnapshotParts({ approvals: [{ id: 'new' }] });
  for (const id of ['ap1', 'ap2', 'replaced']) assert.equal(state.approvalLeft(id), true, id);
  assert.deepEqual([state.approvalLeft('new'), state.approvalLeft('never')], [false, false]);
  state.reset();
  assert.deepEqual([state.approvalLeft('ap1'), state.decisions()], [false, []]);
});

test('only the last decisions are kept', () => {
  const { state } = makeState();
  for (let i = 0; i <= MAX_DECISIONS; i++) {
    state.upsertApproval({ id: `ap${i}` });
    state.resolveApproval(`ap${i}`, { decision: 'allow', by: 'mac' });
  }
  const ids = state.decisions().map((decision) => decision.id);
  assert.deepEqual([ids.length, ids[0], ids.at(-1)], [MAX_DECISIONS, 'ap1', `ap${MAX_DECISIONS}`]);
});
