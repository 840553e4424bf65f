// The calls the app makes when the user acts, against a running service,
// with the feed listening.

import assert from 'node:assert/strict';
import test from 'node:test';

import { CLAUDE, missingClaude } from './support/claude-code.js';
import { USAGE_STALE_MS } from '../src/action-routes.js';
import { NOT_SHARED, NOTHING_TO_RESUME } from '../src/sessions/continuer.js';
import { raiseWords } from '../src/windows/raise-error.js';
import { eventually, sleep, startScratchService } from './helpers.js';

const SETTLE_MS = 400;

async function withSession(t, session = { id: 's1', state: 'needs_you' }) {
  const started = await startScratchService(t);
  await started.local('POST', '/qa/sessions', { body: session });
  return started;
}

test('an answer takes the approval away once; a second answer is told it came too late', async (t) => {
  const { local, feed } = await withSession(t);
  await local('POST', '/qa/approvals', { body: { id: 'ap1', sessionId: 's1', kind: 'tool' } });
  const client = await feed();
  await client.next('snapshot');

  const first = await local('POST', '/v1/approvals/ap1/decision', { body: { decision: 'allow' } });
  assert.deepEqual([first.status, first.json], [200, { ok: true }]);
  const resolved = await client.next('approval.resolved');
  assert.deepEqual(resolved, { t: 'approval.resolved', id: 'ap1', sessionId: 's1', decision: 'allow', by: 'mac' });

  const again = await local('POST', '/v1/approvals/ap1/decision', { body: { decision: 'deny' } });
  assert.deepEqual([again.status, again.json.error.code], [409, 'already_resolved']);
  assert.match(again.json.error.message, /^[A-Z].*\.$/);

  const snapshot = (await local('GET', '/v1/snapshot')).json;
  assert.deepEqual(snapshot.approvals, []);
  assert.deepEqual(snapshot.sessions, [{ id: 's1', state: 'working', pendingApprovalIds: [] }]);
  await client.next('session');

  await sleep(SETTLE_MS);
  assert.equal(client.ofType('approval.resolved').length, 1, 'resolved exactly once');
  const [{ at, ...decided }, ...more] = (await local('GET', '/qa/state')).json.decisions;
  assert.deepEqual([decided, typeof at, more], [{ id: 'ap1', sessionId: 's1', decision: 'allow', by: 'mac' }, 'number', []]);
});

test('the decision must be one of the four words', async (t) => {
  const { local } = await withSession(t);
  const words = ['allow', 'deny', 'session', 'always'];
  for (const [index, decision] of [...words, 'Allow', 'yes', true, undefined].entries()) {
    await local('POST', '/qa/approvals', { body: { id: `ap${index}`, sessionId: 's1' } });
    const reply = await local('POST', `/v1/approvals/ap${index}/decision`, { body: { decision } });
    const wanted = words.includes(decision) ? [200, undefined] : [400, 'decision'];
    assert.deepEqual([reply.status, reply.json.error?.field], wanted, String(decision));
  }
  assert.deepEqual((await local('GET', '/qa/state')).json.decisions.map((entry) => entry.decision), words);
});

test('ids are single path segments, decoded one by one, never resolved as dots', async (t) => {
  const { local } = await withSession(t, { id: 's/1', state: 'idle' });
  await local('POST', '/qa/approvals', { body: { id: '..', sessionId: 's/1' } });
  const rows = [
    ['an id with a slash, encoded', 'POST', '/v1/sessions/s%2F1/continue', 409],
    ['an id made of dots is only an id', 'POST', '/v1/approvals/../decision', 200],
    ['encoded dots name nothing', 'POST', '/v1/sessions/%2E%2E/open', 404],
    ['one dot names nothing', 'POST', '/v1/sessions/./open', 404],
    ['an approval never seen', 'POST', '/v1/approvals/nobody/decision', 404],
    ['a device never paired', 'DELETE', '/local/devices/..', 404],
    ['dots can’t climb to another route', 'POST', '/v1/sessions/s1/../../snapshot', 404],
  ];
  for (const [name, method, target, status] of rows) {
    const reply = await local(method, target, { body: { decision: 'deny' } });
    assert.equal(reply.status, status, name);
  }
  const snapshot = (await local('GET', '/v1/snapshot')).json;
  assert.deepEqual(snapshot.approvals, [], '“..” was answered');
  assert.equal((await local('POST', '/v1/sessions/%2E%2E/open')).json.error.message, 'No session has the id “..”.');
});

test('a session outside a shared terminal can’t be continued or armed from here, and says why', async (t) => {
  const blocked = { kind: 'limit', text: 'You’ve hit your session limit', resetsAt: Date.now() + 3600000 };
  const { local } = await withSession(t, { id: 's1', state: 'idle', blocked });
  await local('POST', '/qa/sessions', { body: { id: 's2', state: 'idle' } });
  const session = async (id) => (await local('GET', '/v1/snapshot')).json.sessions.find((s) => s.id === id);
  const rows = [
    ['continue', '/v1/sessions/s1/continue', {}, 409, undefined, NOT_SHARED],
    ['arm', '/v1/sessions/s1/auto-continue', { on: true }, 409, undefined, NOT_SHARED],
    ['arm without a block', '/v1/sessions/s2/auto-continue', { on: true }, 409, undefined, NOTHING_TO_RESUME],
    ['open with no process known', '/v1/sessions/s1/open', {}, 409, undefined, raiseWords('this computer').unknown],
    ['open an unknown session', '/v1/sessions/nope/open', {}, 404],
    ['continue an unknown session', '/v1/sessions/nope/continue', {}, 404],
    ['arm an unknown session', '/v1/sessions/nope/auto-continue', { on: true }, 404],
    ['arm with a word', '/v1/sessions/s1/auto-continue', { on: 'true' }, 400, 'on'],
    ['arm with nothing', '/v1/sessions/s1/auto-continue', {}, 400, 'on'],
    ['a body that isn’t an object', '/v1/sessions/s1/open', '[1]', 400],
  ];
  for (const [name, target, body, status, field, sentence] of rows) {
    await t.test(name, async () => {
      const reply = await local('POST', target, { body });
      assert.deepEqual([reply.status, reply.json.error.field], [status, field]);
      if (sentence) assert.equal(reply.json.error.message, sentence);
    });
  }
  assert.deepEqual(await session('s1'), { id: 's1', state: 'idle', blocked });
  assert.deepEqual(await session('s2'), { id: 's2', state: 'idle' });
  await local('POST', '/v1/sessions/s1/auto-continue', { body: { on: false } });
  assert.deepEqual((await session('s1')).blocked.resume, { state: 'off', canArm: false, canCancel: false, why: 'cancelled' });
});

test('slow: Claude Code’s own sign-in: its page goes on the account, the code is typed into it, and offline it fails as it happened', { skip: missingClaude() ?? false, timeout: 60000 }, async (t) => {
  const { local, feed } = await startScratchService(t, { claudeProgram: { named: CLAUDE } });
  await local('POST', '/qa/snapshot', { body: { account: { state: 'logged_out', reason: 'not_logged_in', plan: 'Max' } } });
  const client = await feed();

  const early = await local('POST', '/v1/account/login/code', { body: { code: 'abc' } });
  assert.deepEqual([early.status, early.json.error.code], [409, 'no_sign_in']);
  for (const body of [{}, { where: 'x'.repeat(41) }, { where: 'mac; rm' }]) {
    assert.equal((await local('POST', '/v1/account/login', { body })).json.error.field, 'where', JSON.stringify(body));
  }

  const started = await local('POST', '/v1/account/login', { body: { where: 'mac' } });
  const { login } = started.json.account;
  assert.deepEqual([login.state, login.where], ['waiting_code', 'mac']);
  assert.match(login.url, /^https:\/\/claude\.ai\/oauth\/authorize\?\S+$/, 'the page Claude Code printed');
  assert.deepEqual((await client.next('account')).account, started.json.account);

  for (const body of [{}, { code: '  ' }, { code: 123456 }, { code: 'a\nb' }, { code: 'x'.repeat(3000) }]) {
    assert.equal((await local('POST', '/v1/account/login/code', { body })).json.error.field, 'code', JSON.stringify(body).slice(0, 40));
  }
  assert.deepEqual((await local('POST', '/v1/account/login/code', { body: { code: 'abc#123' } })).json, { ok: true });
  const failed = await eventually(async () => {
    const { account } = (await local('GET', '/v1/snapshot')).json;
    return account.login?.state === 'failed' && account;
  }, 'the offline exchange failed', 30000);
  assert.match(failed.login.error, /^The sign-in didn’t finish: \S/);
  assert.deepEqual([failed.state, failed.reason, failed.plan], ['logged_out', 'not_logged_in', 'Max'], 'the account untouched');
});

test('without Claude Code there is no sign-in to start', async (t) => {
  const { local } = await startScratchService(t);
  const reply = await local('POST', '/v1/account/login', { body: { where: 'mac' } });
  assert.deepEqual([reply.status, reply.json.error.code], [503, 'no_claude']);
});

test('refreshing usage never makes an old reading new: a fresh one stands, an old one turns stale', async (t) => {
  const { local, feed } = await startScratchService(t);
  const fiveHour = { pct: 42, resetsAt: 1760007200000 };
  const rows = [
    ['fresh', Date.now() - 1000, 'official'],
    ['old', Date.now() - USAGE_STALE_MS - 1000, 'stale'],
  ];
  for (const [name, observedAt, source] of rows) {
    await local('POST', '/qa/snapshot', { body: { usage: { fiveHour, source: 'official', observedAt } } });
    const client = await feed();
    const { usage } = (await local('POST', '/v1/usage/refresh')).json;
    assert.deepEqual(usage, { fiveHour, source, observedAt }, name);
    if (source === 'stale') assert.equal((await client.next('usage')).usage.source, 'stale');
  }
});
