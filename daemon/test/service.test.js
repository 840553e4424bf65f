// The service's two ports: who is let in, what /qa plants and refuses, the
// error shape and the body limits, planted faults, and what it keeps private.

import assert from 'node:assert/strict';
import fs from 'node:fs';
import os from 'node:os';
import path from 'node:path';
import test from 'node:test';

import { MAX_FAULT_DELAY_MS, MAX_FAULTS } from '../src/faults.js';
import { MAX_BODY_BYTES } from '../src/request-body.js';
import { refusedFeed, scratchFolder, sleep, startScratchService } from './helpers.js';

const JSON_TYPE = 'application/json; charset=utf-8';

test('health answers without a token; nothing else is on the API port', async (t) => {
  const { api, token } = await startScratchService(t);
  const health = await api('GET', '/v1/health');
  assert.deepEqual([health.status, health.headers['content-type'], health.json], [200, JSON_TYPE, { ok: true, protocol: 1, name: os.hostname() }]);
  const snapshot = await api('GET', '/v1/snapshot', { headers: { Authorization: `Bearer ${token}` } });
  assert.deepEqual([snapshot.status, snapshot.json.error.code], [404, 'not_found']);
  assert.equal((await api('POST', '/v1/health')).status, 405);
});

test('the local port lets in only the admin token', async (t) => {
  const { local, token } = await startScratchService(t);
  const rows = [
    ['no header', '', 401],
    ['a wrong token', `Bearer ${'0'.repeat(64)}`, 401],
    ['the token without its scheme', token, 401],
    ['the token', `Bearer ${token}`, 200],
  ];
  for (const [name, header, status] of rows) {
    for (const target of ['/v1/snapshot', '/local/status', '/local/devices', '/qa/state', '/qa']) {
      const reply = await local('GET', target, { headers: { Authorization: header } });
      assert.equal(reply.status, status, `${name}: ${target}`);
      if (status === 401) assert.match(reply.json.error.message, /^This request needs the admin token/);
    }
  }
  // Without the token, an unknown route is no different from a known one.
  assert.equal((await local('GET', '/nowhere', { headers: { Authorization: '' } })).status, 401);
});

test('a real install has no /qa: every /qa path is an unknown route, and no fault is taken', async (t) => {
  const { local, api } = await startScratchService(t, { testCopy: false });
  const unknown = async (method, target, body) => {
    const reply = await local(method, target, { body });
    return [reply.status, reply.json.error.code, reply.json.error.message.replace('/nowhere', '')];
  };
  const body = { route: '/v1/health', status: 502, answering: false };
  for (const [method, target] of [['GET', '/qa'], ['GET', '/qa/state'], ['POST', '/qa/faults'], ['POST', '/qa/power'], ['POST', '/qa/health'], ['DELETE', '/qa/sessions/s1']]) {
    assert.deepEqual(await unknown(method, target, body), await unknown(method, `/nowhere${target}`, body), `${method} ${target}`);
  }
  assert.equal((await api('GET', '/v1/health')).status, 200);
});

test('/qa puts state in, and the reads show it', async (t) => {
  const { local, post, snapshot } = await startScratchService(t);
  assert.equal((await post('/qa/snapshot', { sessions: [{ id: 's1' }, 7], account: null, projects: [] })).status, 200);
  await post('/qa/sessions', { id: 's2', state: 'needs_you' });
  await post('/qa/approvals', { id: 'ap1', sessionId: 's2', kind: 'tool' });
  await post('/qa/devices', { id: 'd/1', name: 'Pixel' });
  await post('/qa/local', { tsnet: { mode: 'builtIn' } });

  const planted = await snapshot();
  assert.deepEqual(planted.sessions, [{ id: 's1' }, 7, { id: 's2', state: 'needs_you', pendingApprovalIds: ['ap1'] }]);
  assert.deepEqual(['account' in planted, planted.projects], [false, []]);
  const status = (await local('GET', '/local/status')).json;
  assert.deepEqual([status.tsnet, status.devices], [{ mode: 'builtIn' }, [{ id: 'd/1', name: 'Pixel' }]]);
  assert.deepEqual((await local('GET', '/qa/state')).json, { snapshot: planted, local: status, feedClients: 0, decisions: [] });

  // Ids are one path segment, percent-encoded.
  assert.deepEqual((await local('DELETE', '/qa/devices/d%2F1')).json, { removed: 'd/1' });
  assert.equal((await local('DELETE', '/qa/approvals/ap1')).status, 200);
  assert.deepEqual((await snapshot()).sessions[2].pendingApprovalIds, []);
  assert.equal((await local('DELETE', '/qa/sessions/s1')).status, 200);
  const gone = await local('DELETE', '/qa/sessions/s1');
  assert.deepEqual([gone.status, gone.json.error.message], [404, 'No session has the id “s1”.']);

  const reset = (await post('/qa/reset')).json;
  assert.deepEqual([reset.snapshot.sessions, reset.local.devices, reset.snapshot.account], [[], [], { state: 'unknown' }]);
});

test('/qa refuses what it can’t store, naming the field', async (t) => {
  const { local, post } = await startScratchService(t);
  const rows = [
    ['a session without an id', '/qa/sessions', { state: 'working' }, 'id'],
    ['an approval whose id is a number', '/qa/approvals', { id: 7 }, 'id'],
    ['a device with an empty id', '/qa/devices', { id: '' }, 'id'],
    ['a fault without a route', '/qa/faults', { status: 500 }, 'route'],
    ['a fault on /qa itself', '/qa/faults', { route: 'GET /qa/state', status: 500 }, 'route'],
    ['a fault on a /qa path for any method', '/qa/faults', { route: '/qa/snapshot', status: 500 }, 'route'],
    ['a fault route without a path', '/qa/faults', { route: 'GET' }, 'route'],
    ['a fault route with two methods', '/qa/faults', { route: 'GET POST /x' }, 'route'],
    ['a fault status below 100', '/qa/faults', { route: '/x', status: 99 }, 'status'],
    ['a fault delay past the limit', '/qa/faults', { route: '/x', delayMs: MAX_FAULT_DELAY_MS + 1 }, 'delayMs'],
    ['a fault’s drop as text', '/qa/faults', { route: '/x', drop: 'yes' }, 'drop'],
    ['a fault for part of a time', '/qa/faults', { route: '/x', times: 1.5 }, 'times'],
    ['a fault content type that isn’t text', '/qa/faults', { route: '/x', contentType: 5 }, 'contentType'],
  ];
  for (const [name, target, body, field] of rows) {
    await t.test(name, async () => {
      const reply = await post(target, body);
      assert.deepEqual([reply.status, reply.json.error.field], [400, field]);
      assert.match(reply.json.error.message, /\.$/);
    });
  }
  assert.deepEqual((await local('GET', '/qa/faults')).json, { faults: [] }, 'nothing refused was stored');
  for (let i = 0; i < MAX_FAULTS; i++) await post('/qa/faults', { route: '/x', status: 500 });
  const full = await post('/qa/faults', { route: '/x', status: 500 });
  assert.deepEqual([full.status, full.json.error.code], [400, 'too_many_faults']);
});

test('wrong routes and methods, bad bodies and big ones get the error shape', async (t) => {
  const { local } = await startScratchService(t);
  const big = (size) => JSON.stringify({ pad: 'x'.repeat(size - 10) });
  assert.equal(Buffer.byteLength(big(MAX_BODY_BYTES)), MAX_BODY_BYTES);
  const rows = [
    ['an unknown route', 'GET', '/v2/snapshot', {}, 404, 'not_found'],
    ['a trailing slash is another route', 'GET', '/v1/snapshot/', {}, 404, 'not_found'],
    ['a write to a read', 'POST', '/v1/snapshot', {}, 405, 'method_not_allowed'],
    ['a read of a write', 'GET', '/qa/reset', {}, 405, 'method_not_allowed'],
    ['a body that isn’t JSON', 'POST', '/qa/snapshot', { body: '{"mac":' }, 400, 'bad_json'],
    ['a JSON array', 'POST', '/qa/snapshot', { body: '[1]' }, 400, 'bad_json'],
    ['a JSON string', 'POST', '/qa/local', { body: '"x"' }, 400, 'bad_json'],
    ['null', 'POST', '/qa/sessions', { body: 'null' }, 400, 'bad_json'],
    ['a body one byte over 1 MiB', 'POST', '/qa/snapshot', { body: big(MAX_BODY_BYTES + 1) }, 413, 'too_large'],
    ['the same, in chunks without a length', 'POST', '/qa/snapshot', { body: big(MAX_BODY_BYTES + 1), chunked: true }, 413, 'too_large'],
    ['a bad percent-encoding in an id', 'DELETE', '/qa/sessions/%E0%A4%A', {}, 400, 'bad_path'],
  ];
  for (const [name, method, target, options, status, code] of rows) {
    const reply = await local(method, target, options);
    assert.deepEqual([reply.status, reply.headers['content-type'], reply.json.error.code], [status, JSON_TYPE, code], name);
    assert.match(reply.json.error.message, /^[A-Z/].*\.$/, `${name}: a sentence`);
  }
  assert.equal((await local('GET', '/qa/reset')).headers.allow, 'POST');
  // A body of exactly the limit is read; an empty one is an empty object.
  assert.equal((await local('POST', '/qa/snapshot', { body: big(MAX_BODY_BYTES) })).status, 200);
  assert.equal((await local('POST', '/qa/reset', { body: '' })).status, 200);
});

test('faults answer verbatim before any token check, in order, as often as asked, or not at all', async (t) => {
  const { local, api, post } = await startScratchService(t);
  const text = 'x'.repeat(1000);
  await post('/qa/faults', { route: 'GET /v1/snapshot', status: 502, body: text, contentType: 'text/plain' });
  await post('/qa/faults', { route: 'get /v1/health?x=1', status: 200, body: { ok: false } });
  await post('/qa/faults', { route: 'GET /local/status', status: 500, times: 2 });
  await post('/qa/faults', { route: '/local/status', status: 503 });
  // Without a status the real answer comes, late, and still asks for the token.
  await post('/qa/faults', { route: 'GET /local/devices', delayMs: 50 });
  assert.deepEqual((await local('GET', '/qa/faults')).json.faults.map((f) => [f.route, f.times]).slice(2, 4), [['GET /local/status', 2], ['/local/status', 1]]);

  const faulted = await local('GET', '/v1/snapshot?any=query', { headers: { Authorization: '' } });
  assert.deepEqual([faulted.status, faulted.headers['content-type'], faulted.text], [502, 'text/plain', text]);
  assert.equal((await api('GET', '/v1/health')).text, '{"ok":false}');
  const statuses = [(await local('POST', '/local/status')).status];
  for (let i = 0; i < 3; i++) statuses.push((await local('GET', '/local/status')).status);
  assert.deepEqual(statuses, [503, 500, 500, 200], 'a path alone matches any method');
  assert.equal((await local('GET', '/local/devices', { headers: { Authorization: '' } })).status, 401);
  // Each was used up; the real answers are back.
  assert.equal((await local('GET', '/v1/snapshot')).status, 200);
  assert.deepEqual((await local('GET', '/qa/faults')).json, { faults: [] });

  await post('/qa/faults', { route: 'GET /v1/snapshot', drop: true });
  await post('/qa/faults', { route: '/v1/health', drop: true, delayMs: 100 });
  await assert.rejects(local('GET', '/v1/snapshot'), { code: 'ECONNRESET' });
  await assert.rejects(api('GET', '/v1/health'), { code: 'ECONNRESET' });
  await post('/qa/faults', { route: '/v1/snapshot', status: 500, times: 5 });
  assert.equal((await local('DELETE', '/qa/faults')).status, 200);
  assert.equal((await local('GET', '/v1/snapshot')).status, 200);
});

test('closing closes the feed’s clients with 1001 and ends what waits on a delayed fault, at once', { timeout: 10_000 }, async (t) => {
  const { post, local, service, token, feed } = await startScratchService(t);
  const clients = [await feed(), await feed()];
  await post('/qa/faults', { route: '/v1/snapshot', status: 200, delayMs: 60_000 });
  await post('/qa/faults', { route: 'GET /v1/ws', status: 500, delayMs: 60_000 });
  const cut = (promise) => promise.then(() => 'answered', () => 'cut off');
  const waiting = [cut(local('GET', '/v1/snapshot')), cut(refusedFeed(service.apiPort, { headers: { Authorization: `Bearer ${token}` } }))];
  await sleep(100);
  await service.close();
  for (const client of clients) assert.equal(await client.closed, 1001);
  assert.deepEqual([service.feed.count, ...(await Promise.all(waiting))], [0, 'cut off', 'cut off']);
});

test('the token survives a restart; folders and files are private, and the log never holds the token', async (t) => {
  const folder = await scratchFolder(t);
  const first = await startScratchService(t, { folder });
  await first.service.close();
  const second = await startScratchService(t, { folder });
  assert.equal(second.token, first.token);
  const log = fs.readFileSync(path.join(second.logs, 'daemon.log'), 'utf8');
  assert.equal(log.match(/Made a new admin token\./g).length, 1);
  assert.ok(!log.includes(first.token));
  const modes = [second.support, second.logs, path.join(second.support, 'admin-token'), path.join(second.logs, 'daemon.log')].map((file) => fs.statSync(file).mode & 0o777);
  assert.deepEqual(modes, [0o700, 0o700, 0o600, 0o600]);
});
