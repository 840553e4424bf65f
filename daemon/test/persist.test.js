// The state kept across a restart: what is kept, how it is written, what a
// restart resumes, and ended sessions dropped after their day.

import assert from 'node:assert/strict';
import fs from 'node:fs';
import path from 'node:path';
import test, { mock } from 'node:test';

import { ENDED_KEPT_MS, expiredSessions, STATE_FILE, StatePersister } from '../src/persist.js';
import { ServiceState } from '../src/state.js';
import { eventually, scratchFolder, startScratchService } from './helpers.js';
import { CodexStandIn } from './support/codex-standin.js';

const DAY = ENDED_KEPT_MS;

test('an ended session is dropped a day after its last activity', () => {
  const now = Date.parse('2026-03-10T12:00:00Z');
  const rows = [
    ['ended a day ago, in milliseconds', { state: 'ended', lastActivityAt: now - DAY }, true],
    ['ended a day ago, in seconds', { state: 'ended', lastActivityAt: (now - DAY) / 1000 }, true],
    ['ended a day ago, in ISO 8601', { state: 'ended', lastActivityAt: new Date(now - DAY - 1).toISOString() }, true],
    ['ended a minute short of a day', { state: 'ended', lastActivityAt: now - DAY + 60_000 }, false],
    ['working for a week is not ended', { state: 'working', lastActivityAt: now - 7 * DAY }, false],
    ['no activity date: its start counts', { state: 'ended', createdAt: now - 2 * DAY }, true],
    ['a date that doesn’t read: first seen now', { state: 'ended', lastActivityAt: 'soon' }, false],
  ];
  const sessions = rows.map(([name, fields]) => ({ id: name, ...fields }));
  const dropped = expiredSessions([...sessions, 'odd', null, { state: 'ended' }], now, new Map());
  for (const [name, , expected] of rows) assert.equal(dropped.includes(name), expected, name);

  // Without a date of its own, the day counts from when it was first seen ended.
  const seen = new Map();
  const undated = [{ id: 'u', state: 'ended' }];
  assert.deepEqual(expiredSessions(undated, now, seen), []);
  assert.deepEqual(expiredSessions(undated, now + DAY - 1, seen), []);
  assert.deepEqual(expiredSessions(undated, now + DAY, seen), ['u']);
  expiredSessions([], now, seen);
  assert.equal(seen.size, 0, 'a session gone is forgotten');
  assert.deepEqual(expiredSessions('not a list', now, seen), []);
});

// What a restart brings back is proven end to end below; here, what it doesn't.
test('what isn’t kept: the program Codex is, the account, the node, entries and states that don’t read', () => {
  const state = new ServiceState({ hostname: 'studio', daemonVersion: '9.9.9', home: '/home/ada' });
  state.upsertSession({ id: 's1', state: 'working' });
  state.setSnapshotParts({
    codex: { available: true, enabled: true, version: '0.46.0', usage: { limited: true } },
    account: { state: 'limited' },
  });
  state.setLocalParts({ tsnet: { mode: 'builtIn' } });
  const kept = JSON.parse(JSON.stringify(state.serialize()));

  const fresh = new ServiceState({ hostname: 'studio', daemonVersion: '9.9.9', home: '/home/ada' });
  fresh.restore({ ...kept, sessions: [...kept.sessions, { title: 'no id' }, 'odd'], goneApprovals: [7] });
  const snapshot = fresh.snapshot();
  assert.deepEqual(snapshot.sessions, [{ id: 's1', state: 'working' }]);
  // The program is looked at again at each start; only the switch and the reading are kept.
  assert.deepEqual(snapshot.codex, { available: false, enabled: true, connected: false, usage: { limited: true } });
  assert.deepEqual(snapshot.account, { state: 'unknown' }, 'the account is read again, not kept');
  assert.equal(fresh.localStatus().tsnet.mode, 'off');

  const untouched = new ServiceState({ hostname: 'studio', daemonVersion: '9.9.9', home: '/home/ada' });
  const before = JSON.stringify(untouched.snapshot());
  for (const odd of [null, 'text', [], { sessions: 'x', approvals: 3, usage: [], codex: { enabled: 'yes' } }]) {
    untouched.restore(odd);
  }
  assert.equal(JSON.stringify(untouched.snapshot()), before, 'a switch that isn’t a boolean isn’t taken either');
});

test('changes are written a moment later, once for a burst, and at least every few seconds in a stream', async (t) => {
  const support = await scratchFolder(t);
  mock.timers.enable({ apis: ['setTimeout', 'setInterval', 'Date'], now: 1_000_000 });
  t.after(() => mock.timers.reset());
  const state = new ServiceState({ hostname: 'studio', daemonVersion: '9.9.9', home: '/home/ada' });
  const persister = new StatePersister({ support, state, saveDelayMs: 500, saveMaxDelayMs: 5000 });
  persister.start();
  const file = path.join(support, STATE_FILE);
  const written = () => (fs.existsSync(file) ? JSON.parse(fs.readFileSync(file, 'utf8')).state.sessions.length : null);

  for (let i = 0; i < 20; i++) state.upsertSession({ id: `s${i}` });
  assert.equal(written(), null, 'nothing at once');
  mock.timers.tick(499);
  assert.equal(written(), null);
  mock.timers.tick(1);
  assert.equal(written(), 20, 'the burst in one write');

  // Something that isn't kept writes nothing.
  fs.rmSync(file);
  state.setLocalParts({ tsnet: { mode: 'system' } });
  state.setConnectedClients(3);
  mock.timers.tick(1000);
  assert.equal(written(), null);

  // A change every 400 ms would put the write off for ever; it comes 5 s
  // after the first, with the 13 changes made by then.
  for (let i = 20; i < 34; i++) {
    state.upsertSession({ id: `s${i}` });
    mock.timers.tick(400);
  }
  assert.equal(written(), 33);
  persister.close();
  assert.equal(written(), 34, 'closing writes what waited');
});

test('a kept state that can’t be read is set aside, and the start is a fresh one', async (t) => {
  const folder = await scratchFolder(t);
  const file = path.join(folder, 'support', STATE_FILE);
  fs.mkdirSync(path.dirname(file), { recursive: true });
  const rows = [
    ['not JSON', '{"format":1,"state":{"sessions":[{"id":"s1"'],
    ['another layout', JSON.stringify({ format: 99, state: { sessions: [{ id: 'x' }] } })],
    ['not an object', '[]'],
  ];
  for (const [name, text] of rows) {
    fs.writeFileSync(file, text, { mode: 0o600 });
    const { service, local, logs } = await startScratchService(t, { folder });
    assert.deepEqual((await local('GET', '/v1/snapshot')).json.sessions, [], `${name}: a fresh start`);
    assert.equal(fs.readFileSync(`${file}.broken`, 'utf8'), text, `${name}: set aside as it was`);
    assert.match(fs.readFileSync(path.join(logs, 'daemon.log'), 'utf8'), /Started without the kept state: state\.json couldn’t be read/);
    await service.close();
  }
});

test('a restart resumes from a private file: sessions, approvals and answers, readings, Codex read on from where it stood', async (t) => {
  const folder = await scratchFolder(t);
  const codexHome = path.join(folder, 'codex-home');
  fs.mkdirSync(path.join(codexHome, 'sessions'), { recursive: true });
  const codex = new CodexStandIn({ home: codexHome, cwd: '/home/ada/atlas' });
  const options = { folder, codexHome, codex: { watch: { lookOverMs: 100 } } };

  const first = await startScratchService(t, options);
  await first.local('POST', '/local/settings', { body: { codex: true } });
  codex.meta().prompt('Draw the map');
  codex.tokenCount({ primary: 30, secondary: 5 });
  await first.local('POST', '/qa/sessions', { body: { id: 'claude-1', title: 'Claude Code at work', state: 'working' } });
  await first.local('POST', '/qa/approvals', { body: { id: 'ap-waiting', sessionId: 'claude-1', kind: 'tool', toolName: 'Bash' } });
  await first.local('POST', '/qa/approvals', { body: { id: 'ap-answered', sessionId: 'claude-1', kind: 'tool' } });
  assert.equal((await first.local('POST', '/v1/approvals/ap-answered/decision', { body: { decision: 'deny' } })).status, 200);
  await first.local('POST', '/qa/snapshot', { body: { usage: { fiveHour: { pct: 64 }, source: 'official' } } });
  await eventually(async () => {
    const { json } = await first.local('GET', '/v1/snapshot');
    return json.codex.usage && json.sessions.some((s) => s.id === codex.id && s.state === 'working');
  }, 'Codex followed before the stop');
  const before = (await first.local('GET', '/v1/snapshot')).json;
  await first.service.close();
  const support = path.join(folder, 'support');
  assert.equal(fs.statSync(path.join(support, STATE_FILE)).mode & 0o777, 0o600);
  assert.deepEqual(fs.readdirSync(support).filter((name) => name.endsWith('.tmp')), [], 'replaced whole, nothing beside it');

  // While the service is down, Codex goes on; and the start of its file is
  // rewritten in place, which a reader that began again would see.
  codex.answer('The map is drawn.');
  const text = fs.readFileSync(codex.file, 'utf8');
  fs.writeFileSync(codex.file, text.replaceAll('Draw the map', 'Draw the MAP'));

  const second = await startScratchService(t, options);
  await second.service.codexReady;
  const after = await eventually(async () => {
    const { json } = await second.local('GET', '/v1/snapshot');
    return json.sessions.find((s) => s.id === codex.id)?.state === 'idle' && json;
  }, 'Codex’s session read on');
  const session = after.sessions.find((s) => s.id === codex.id);
  assert.equal(session.lastText, 'The map is drawn.', 'what was written while down is read');
  assert.equal(session.title, 'Draw the map', 'what was read before is not read again');
  assert.deepEqual(
    after.sessions.find((s) => s.id === 'claude-1'),
    before.sessions.find((s) => s.id === 'claude-1'),
  );
  assert.deepEqual(after.approvals, [{ id: 'ap-waiting', sessionId: 'claude-1', kind: 'tool', toolName: 'Bash' }]);
  assert.deepEqual(after.usage, { fiveHour: { pct: 64 }, source: 'official' });
  assert.equal(after.codex.enabled, true, 'the switch stays on');
  assert.deepEqual(after.codex.usage, before.codex.usage);

  const late = await second.local('POST', '/v1/approvals/ap-answered/decision', { body: { decision: 'allow' } });
  assert.equal(late.status, 409, 'an answer given before the restart isn’t asked twice');
  assert.deepEqual((await second.local('GET', '/qa/state')).json.decisions.map((d) => [d.id, d.decision]), [['ap-answered', 'deny']]);
});
