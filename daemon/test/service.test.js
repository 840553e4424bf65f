import assert from 'node:assert/strict';
import fs from 'node:fs/promises';
import os from 'node:os';
import path from 'node:path';
import test from 'node:test';

import { MAX_FAULT_DELAY_MS, MAX_FAULTS } from '../src/faults.js';
import { MAX_BODY_BYTES } from '../src/request-body.js';
import { startService } from '../src/service.js';
import { scratchFolder, startScratchService } from './helpers.js';

const JSON_TYPE = 'application/json; charset=utf-8';

test('health answers without a token; nothing else is on the API port', async (t) => {
  const { api, token } = await startScratchService(t);
  const health = await api('GET', '/v1/health');
  assert.equal(health.status, 200);
  assert.equal(health.headers['content-type'], JSON_TYPE);
  assert.deepEqual(health.json, { ok: true, protocol: 1, name: os.hostname() });

  const snapshot = await api('GET', '/v1/snapshot', { headers: { Authorization: `Bearer ${token}` } });
  assert.equal(snapshot.status, 404);
  assert.equal(snapshot.json.error.code, 'not_found');
  assert.equal((await api('POST', '/v1/health')).status, 405);
});

test('the local port lets in only the admin token', async (t) => {
  const { local, token } = await startScratchService(t);
  const rows = [
    ['no header', {}, 401],
    ['a wrong token', { Authorization: `Bearer ${'0'.repeat(64)}` }, 401],
    ['the token without its scheme', { Authorization: token }, 401],
    ['the token', { Authorization: `Bearer ${token}` }, 200],
  ];
  for (const [name, headers, status] of rows) {
    for (const target of ['/v1/snapshot', '/local/status', '/local/devices', '/qa/state', '/qa']) {
      const reply = await local('GET', target, { headers: { Authorization: '', ...headers } });
      assert.equal(reply.status, status, `${name}: ${target}`);
      if (status === 401) {
        assert.equal(reply.json.error.code, 'unauthorized', name);
        assert.match(reply.json.error.message, /^This request needs the admin token/);
      }
    }
  }
  // Without the token, an unknown route is no different from a known one.
  assert.equal((await local('GET', '/nowhere', { headers: { Authorization: '' } })).status, 401);
});

test('a real install has no /qa: every /qa path is an unknown route, and no fault is taken', { timeout: 10_000 }, async (t) => {
  const { local, api } = await startScratchService(t, { testCopy: false });
  const unknown = async (method, target, body) => {
    const reply = await local(method, target, { body });
    return [reply.status, reply.json.error.code, reply.json.error.message];
  };
  for (const [method, target] of [
    ['GET', '/qa'],
    ['GET', '/qa/state'],
    ['POST', '/qa/faults'],
    ['POST', '/qa/power'],
    ['POST', '/qa/health'],
    ['DELETE', '/qa/sessions/s1'],
  ]) {
    await t.test(`${method} ${target}`, async () => {
      const body = method === 'POST' ? { route: '/v1/health', status: 502, answering: false } : undefined;
      assert.deepEqual(await unknown(method, target, body), await unknown(method, `/nowhere${target}`, body).then(
        ([status, code, message]) => [status, code, message.replace('/nowhere', '')],
      ));
    });
  }
  assert.equal((await api('GET', '/v1/health')).status, 200);
});

test('the reads give the record shapes the app decodes', async (t) => {
  const { local, service } = await startScratchService(t);
  const snapshot = await local('GET', '/v1/snapshot');
  assert.equal(snapshot.headers['content-type'], JSON_TYPE);
  const parts = ['mac', 'usage', 'sessions', 'approvals', 'account', 'providers', 'automations', 'codex', 'claude'];
  assert.deepEqual(Object.keys(snapshot.json), parts);
  assert.equal(snapshot.json.mac.name, os.hostname());
  assert.equal(snapshot.json.mac.awake.mode, 'working');

  const status = await local('GET', '/local/status?fresh=1&qr=1');
  assert.equal(status.status, 200);
  assert.equal(status.json.apiPort, service.apiPort);
  assert.equal(status.json.daemonVersion, snapshot.json.mac.daemonVersion);
  assert.deepEqual(status.json.claude, { path: null, version: null });
  assert.deepEqual(status.json.hooks, { installed: false });
  assert.equal(status.json.qr, null);
  for (const key of ['sessions', 'approvals', 'usage', 'account', 'codex']) {
    assert.deepEqual(status.json[key], snapshot.json[key], key);
  }

  const devices = await local('GET', '/local/devices');
  assert.deepEqual(devices.json, []);
});

test('/qa puts state in, and the reads show it', async (t) => {
  const { local } = await startScratchService(t);
  const post = (target, body) => local('POST', target, { body });

  assert.equal((await post('/qa/snapshot', { sessions: [{ id: 's1' }, 7], account: null, projects: [] })).status, 200);
  assert.equal((await post('/qa/sessions', { id: 's2', state: 'needs_you' })).status, 200);
  assert.equal((await post('/qa/approvals', { id: 'ap1', sessionId: 's2', kind: 'tool' })).status, 200);
  assert.equal((await post('/qa/devices', { id: 'd/1', name: 'Pixel' })).status, 200);
  assert.equal((await post('/qa/local', { tsnet: { mode: 'builtIn' }, lan: { port: 47323 } })).status, 200);

  const snapshot = (await local('GET', '/v1/snapshot')).json;
  assert.deepEqual(snapshot.sessions, [
    { id: 's1' },
    7,
    { id: 's2', state: 'needs_you', pendingApprovalIds: ['ap1'] },
  ]);
  assert.equal('account' in snapshot, false);
  assert.deepEqual(snapshot.projects, []);

  const status = (await local('GET', '/local/status')).json;
  assert.deepEqual(status.tsnet, { mode: 'builtIn' });
  assert.deepEqual(status.lan, { port: 47323 });
  assert.deepEqual(status.devices, [{ id: 'd/1', name: 'Pixel' }]);
  assert.deepEqual(status.approvals, snapshot.approvals);

  const state = (await local('GET', '/qa/state')).json;
  assert.deepEqual(state, { snapshot, local: status, feedClients: 0, decisions: [] });

  // Ids are one path segment, percent-encoded.
  assert.deepEqual((await local('DELETE', '/qa/devices/d%2F1')).json, { removed: 'd/1' });
  assert.deepEqual((await local('GET', '/local/devices')).json, []);
  assert.equal((await local('DELETE', '/qa/approvals/ap1')).status, 200);
  assert.deepEqual((await local('GET', '/v1/snapshot')).json.sessions[2].pendingApprovalIds, []);
  assert.equal((await local('DELETE', '/qa/sessions/s1')).status, 200);

  const gone = await local('DELETE', '/qa/sessions/s1');
  assert.equal(gone.status, 404);
  assert.equal(gone.json.error.message, 'No session has the id “s1”.');

  const reset = await post('/qa/reset');
  assert.equal(reset.status, 200);
  assert.deepEqual(reset.json.snapshot.sessions, []);
  assert.deepEqual(reset.json.local.devices, []);
  assert.deepEqual(reset.json.snapshot.account, { state: 'unknown' });
});

test('/qa refuses what it can’t store, naming the field', async (t) => {
  const { local } = await startScratchService(t);
  const rows = [
    ['a session without an id', 'POST', '/qa/sessions', { state: 'working' }, 400, 'id'],
    ['an approval whose id is a number', 'POST', '/qa/approvals', { id: 7 }, 400, 'id'],
    ['a device with an empty id', 'POST', '/qa/devices', { id: '' }, 400, 'id'],
    ...[
      ['a fault without a route', { status: 500 }, 'route'],
      ['a fault on /qa itself', { route: 'GET /qa/state', status: 500 }, 'route'],
      ['a fault on the /qa page', { route: '/qa' }, 'route'],
      ['a fault route without a path', { route: 'GET' }, 'route'],
      ['a fault route with two methods', { route: 'GET POST /x' }, 'route'],
      ['a fault status below 100', { route: '/x', status: 99 }, 'status'],
      ['a fault status as text', { route: '/x', status: '500' }, 'status'],
      ['a negative fault delay', { route: '/x', delayMs: -1 }, 'delayMs'],
      ['a fault delay past the limit', { route: '/x', delayMs: MAX_FAULT_DELAY_MS + 1 }, 'delayMs'],
      ['a fault’s drop as text', { route: '/x', drop: 'yes' }, 'drop'],
      ['a fault for no times', { route: '/x', times: 0 }, 'times'],
      ['a fault for part of a time', { route: '/x', times: 1.5 }, 'times'],
      ['a fault content type that isn’t text', { route: '/x', contentType: 5 }, 'contentType'],
    ].map(([name, body, field]) => [name, 'POST', '/qa/faults', body, 400, field]),
  ];
  for (const [name, method, target, body, status, field] of rows) {
    await t.test(name, async () => {
      const reply = await local(method, target, { body });
      assert.equal(reply.status, status);
      assert.equal(reply.json.error.field, field);
      assert.match(reply.json.error.message, /\.$/);
    });
  }
  assert.deepEqual((await local('GET', '/qa/faults')).json, { faults: [] }, 'nothing refused was stored');
  for (let i = 0; i < MAX_FAULTS; i++) await local('POST', '/qa/faults', { body: { route: '/x', status: 500 } });
  const full = await local('POST', '/qa/faults', { body: { route: '/x', status: 500 } });
  assert.deepEqual([full.status, full.json.error.code], [400, 'too_many_faults']);
});

test('the /qa page lists the routes', async (t) => {
  const { local } = await startScratchService(t);
  const page = await local('GET', '/qa');
  assert.equal(page.status, 200);
  assert.equal(page.headers['content-type'], 'text/html; charset=utf-8');
  for (const route of ['POST /qa/snapshot', 'DELETE /qa/sessions/:id', 'POST /qa/faults', 'POST /qa/reset']) {
    assert.ok(page.text.includes(route), route);
  }
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
    [
      'the same, sent in chunks without a length',
      'POST',
      '/qa/snapshot',
      { body: big(MAX_BODY_BYTES + 1), chunked: true },
      413,
      'too_large',
    ],
    ['a bad percent-encoding in an id', 'DELETE', '/qa/sessions/%E0%A4%A', {}, 400, 'bad_path'],
  ];
  for (const [name, method, target, options, status, code] of rows) {
    const reply = await local(method, target, options);
    assert.equal(reply.status, status, name);
    assert.equal(reply.headers['content-type'], JSON_TYPE, name);
    assert.equal(reply.json.error.code, code, name);
    assert.match(reply.json.error.message, /^[A-Z/].*\.$/, `${name}: a sentence`);
  }
  assert.equal((await local('GET', '/qa/reset')).headers.allow, 'POST');

  // A body of exactly the limit is read; an empty one is an empty object.
  assert.equal((await local('POST', '/qa/snapshot', { body: big(MAX_BODY_BYTES) })).status, 200);
  assert.equal((await local('POST', '/qa/reset', { body: '' })).status, 200);
});

test('a fault answers with its status and body, verbatim, before any token check', async (t) => {
  const { local, api } = await startScratchService(t);
  const text = 'x'.repeat(1000);
  await local('POST', '/qa/faults', {
    body: { route: 'GET /v1/snapshot', status: 502, body: text, contentType: 'text/plain' },
  });
  await local('POST', '/qa/faults', { body: { route: 'get /v1/health?x=1', status: 200, body: { ok: false } } });
  await local('POST', '/qa/faults', { body: { route: 'GET /local/devices', status: 404 } });

  const faulted = await local('GET', '/v1/snapshot?any=query', { headers: { Authorization: '' } });
  assert.equal(faulted.status, 502);
  assert.equal(faulted.headers['content-type'], 'text/plain');
  assert.equal(faulted.text, text);

  const health = await api('GET', '/v1/health');
  assert.equal(health.text, '{"ok":false}');

  const empty = await local('GET', '/local/devices');
  assert.equal(empty.status, 404);
  assert.equal(empty.text, '');

  // Each was used once; the real answers are back.
  assert.equal((await local('GET', '/v1/snapshot')).status, 200);
  assert.deepEqual((await api('GET', '/v1/health')).json.ok, true);
  assert.deepEqual((await local('GET', '/qa/faults')).json, { faults: [] });
});

test('faults are consumed in order, as often as asked, and a path alone matches any method', async (t) => {
  const { local } = await startScratchService(t);
  await local('POST', '/qa/faults', { body: { route: '/qa/snapshot', status: 500 } }).then((reply) =>
    assert.equal(reply.status, 400, 'a /qa path is refused'),
  );
  await local('POST', '/qa/faults', { body: { route: 'GET /local/status', status: 500, times: 2 } });
  await local('POST', '/qa/faults', { body: { route: '/local/status', status: 503 } });
  const left = await local('GET', '/qa/faults');
  assert.deepEqual(
    left.json.faults.map((fault) => [fault.route, fault.times]),
    [
      ['GET /local/status', 2],
      ['/local/status', 1],
    ],
  );

  const statuses = [];
  statuses.push((await local('POST', '/local/status')).status);
  for (let i = 0; i < 3; i++) statuses.push((await local('GET', '/local/status')).status);
  assert.deepEqual(statuses, [503, 500, 500, 200]);

  await local('POST', '/qa/faults', { body: { route: '/v1/snapshot', status: 500, times: 5 } });
  assert.equal((await local('DELETE', '/qa/faults')).status, 200);
  assert.equal((await local('GET', '/v1/snapshot')).status, 200);
});

test('a delayed fault answers late; without a status the real answer comes late', async (t) => {
  const { local } = await startScratchService(t);
  await local('POST', '/qa/faults', { body: { route: 'GET /v1/snapshot', status: 200, body: '{}', delayMs: 300 } });
  await local('POST', '/qa/faults', { body: { route: 'GET /local/devices', delayMs: 300 } });

  let started = Date.now();
  const late = await local('GET', '/v1/snapshot');
  assert.ok(Date.now() - started >= 250, 'the answer waited');
  assert.equal(late.text, '{}');

  started = Date.now();
  const real = await local('GET', '/local/devices', { headers: { Authorization: '' } });
  assert.ok(Date.now() - started >= 250, 'the real answer waited');
  assert.equal(real.status, 401, 'the real road still asks for the token');
});

test('a dropped request gets no answer at all', async (t) => {
  const { local, api } = await startScratchService(t);
  await local('POST', '/qa/faults', { body: { route: 'GET /v1/snapshot', drop: true } });
  await local('POST', '/qa/faults', { body: { route: '/v1/health', drop: true, delayMs: 100 } });
  await assert.rejects(local('GET', '/v1/snapshot'), (error) => error.code === 'ECONNRESET');
  await assert.rejects(api('GET', '/v1/health'), (error) => error.code === 'ECONNRESET');
  assert.equal((await local('GET', '/v1/snapshot')).status, 200);
});

test('closing ends a request waiting on a delayed fault at once', { timeout: 10_000 }, async (t) => {
  const { local, service } = await startScratchService(t);
  await local('POST', '/qa/faults', { body: { route: '/v1/snapshot', status: 200, delayMs: 60_000 } });
  const waiting = local('GET', '/v1/snapshot').then(
    () => 'answered',
    () => 'cut off',
  );
  await new Promise((resolve) => setTimeout(resolve, 100));
  const started = Date.now();
  await service.close();
  assert.equal(await waiting, 'cut off');
  assert.ok(Date.now() - started < 2000, 'close didn’t wait for the delay');
});

test('the token survives a restart, and the log never holds it', async (t) => {
  const folder = await scratchFolder(t);
  const first = await startScratchService(t, { folder });
  await first.service.close();
  const second = await startScratchService(t, { folder });
  assert.equal(second.token, first.token);
  assert.equal((await second.local('GET', '/v1/snapshot')).status, 200);

  const log = await fs.readFile(path.join(second.logs, 'daemon.log'), 'utf8');
  assert.equal(log.match(/Made a new admin token\./g).length, 1);
  assert.match(log, /^\S+Z info Tidewatch service \S+ is listening on 127\.0\.0\.1:\d+ \(API\) and 127\.0\.0\.1:\d+ \(local\)/m);
  assert.ok(!log.includes(first.token));
});

test('a port in use is one clear sentence, in the error and the log', async (t) => {
  const { service } = await startScratchService(t);
  const folder = await scratchFolder(t);
  const logs = path.join(folder, 'logs');
  for (const ports of [
    { apiPort: service.apiPort, localPort: 0 },
    { apiPort: 0, localPort: service.localPort },
  ]) {
    const taken = ports.apiPort || ports.localPort;
    await assert.rejects(startService({ support: path.join(folder, 'support'), logs, ...ports }), {
      code: 'TIDEWATCH_PORT',
      message: `Port ${taken} is already in use.`,
    });
    const log = await fs.readFile(path.join(logs, 'daemon.log'), 'utf8');
    assert.match(log, new RegExp(`error Port ${taken} is already in use\\.\\n$`));
  }
});

test('folders and the token file are private', async (t) => {
  const { support, logs } = await startScratchService(t);
  const mode = async (file) => (await fs.stat(file)).mode & 0o777;
  assert.equal(await mode(support), 0o700);
  assert.equal(await mode(logs), 0o700);
  assert.equal(await mode(path.join(support, 'admin-token')), 0o600);
  assert.equal(await mode(path.join(logs, 'daemon.log')), 0o600);
});
