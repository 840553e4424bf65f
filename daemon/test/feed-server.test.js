// The feed as the app meets it: a real WebSocket on the API port of a
// running service.

import assert from 'node:assert/strict';
import fs from 'node:fs/promises';
import http from 'node:http';
import path from 'node:path';
import test from 'node:test';

import { MAX_CLIENT_FRAME_BYTES } from '../src/feed-server.js';
import { eventually, refusedFeed, request, sleep, startScratchService } from './helpers.js';

// Longer than the coalescing window, with room for a loaded machine.
const SETTLE_MS = 400;

test('the handshake needs the admin token on the feed’s path', async (t) => {
  const { service, token, feed } = await startScratchService(t);
  const rows = [
    ['no header', {}, '/v1/ws?client=test', 401, 'unauthorized'],
    ['a wrong token', { Authorization: `Bearer ${'0'.repeat(64)}` }, '/v1/ws?client=test', 401, 'unauthorized'],
    ['the token without its scheme', { Authorization: token }, '/v1/ws?client=test', 401, 'unauthorized'],
    ['another path', { Authorization: `Bearer ${token}` }, '/v1/feed', 404, 'not_found'],
  ];
  for (const [name, headers, target, status, code] of rows) {
    const reply = await refusedFeed(service.apiPort, { target, headers });
    assert.equal(reply.status, status, name);
    assert.equal(reply.headers['content-type'], 'application/json; charset=utf-8', name);
    assert.equal(reply.json.error.code, code, name);
    assert.match(reply.json.error.message, /^[A-Z].*\.$/, `${name}: a sentence`);
  }
  // ws's own client resolves dot segments, so this one is sent by hand.
  const climbing = await request(service.apiPort, 'GET', '/v1/x/../ws', {
    headers: {
      Authorization: `Bearer ${token}`,
      Connection: 'Upgrade',
      Upgrade: 'websocket',
      'Sec-WebSocket-Version': '13',
      'Sec-WebSocket-Key': 'dGhlIHNhbXBsZSBub25jZQ==',
    },
  });
  assert.equal(climbing.status, 404, 'a dot segment is no way in');
  assert.equal(service.feed.count, 0);

  // The right token is let in, and the snapshot is the first thing heard.
  const client = await feed();
  const first = await client.next('snapshot');
  assert.deepEqual(client.messages()[0], first);

  // A plain GET of the feed's address says what it is.
  const plain = await request(service.apiPort, 'GET', '/v1/ws');
  assert.equal(plain.status, 426);
  assert.equal(plain.json.error.code, 'upgrade_required');
});

test('a new client hears the snapshot the reads give, at once', async (t) => {
  const { local, feed } = await startScratchService(t);
  await local('POST', '/qa/sessions', { body: { id: 's1', title: 'Fix the tests', state: 'working' } });
  await local('POST', '/qa/approvals', { body: { id: 'ap1', sessionId: 's1', kind: 'tool' } });
  const client = await feed();
  const { snapshot } = await client.next('snapshot');
  assert.deepEqual(snapshot, (await local('GET', '/v1/snapshot')).json);
  assert.deepEqual(snapshot.sessions[0].pendingApprovalIds, ['ap1']);
});

test('every change of the state reaches the feed as its message', async (t) => {
  const { local, feed } = await startScratchService(t);
  const client = await feed();
  await client.next('snapshot');
  const post = (target, body) => local('POST', target, { body });
  const battery = { percent: 64, charging: true };
  const awake = { mode: 'backpack', holding: true };
  const provider = { id: 'p1', name: 'P', kind: 'openrouter' };
  const withMac = async (patch) => post('/qa/snapshot', { mac: { ...(await local('GET', '/v1/snapshot')).json.mac, ...patch } });

  // Each row waits for its frame; one that falls in its key's window comes at the window's end.
  const rows = [
    ['a session', () => post('/qa/sessions', { id: 's1', state: 'working' }), 'session', { id: 's1', state: 'working' }],
    ['an approval', () => post('/qa/approvals', { id: 'ap1', sessionId: 's1' }), 'approval', { id: 'ap1', sessionId: 's1' }],
    ['usage', () => post('/qa/snapshot', { usage: { fiveHour: { pct: 42 } } }), 'usage', { fiveHour: { pct: 42 } }],
    ['account', () => post('/qa/snapshot', { account: { state: 'limited' } }), 'account', { state: 'limited' }],
    ['providers', () => post('/qa/snapshot', { providers: [provider] }), 'providers', [provider]],
    ['codex', () => post('/qa/snapshot', { codex: { available: true } }), 'codex', { available: true }],
    ['codex cleared', () => post('/qa/snapshot', { codex: null }), 'codex', null],
    ['battery', () => withMac({ battery }), 'battery', battery],
    ['battery cleared', () => withMac({ battery: null }), 'battery', null],
    ['awake', () => withMac({ awake }), 'awake', awake],
    ['devices', () => post('/qa/devices', { id: 'd1', name: 'Pixel 8' }), 'devices', undefined],
    ['a session taken out', () => local('DELETE', '/qa/sessions/s1'), 'snapshot', undefined],
    ['several parts at once', () => post('/qa/snapshot', { usage: {}, account: { state: 'ok' } }), 'snapshot', undefined],
    ['a reset', () => post('/qa/reset'), 'snapshot', undefined],
  ];
  for (const [name, act, type, payload] of rows) {
    const heard = client.next(type);
    assert.equal((await act()).status, 200, name);
    const message = await heard;
    if (type !== 'snapshot' && type !== 'devices') assert.deepEqual(message[type], payload, name);
    if (type === 'devices') assert.deepEqual(message, { t: 'devices' }, name);
    if (type === 'snapshot') assert.deepEqual(message.snapshot, (await local('GET', '/v1/snapshot')).json, name);
  }

  // The approval brought the session that now waits on it.
  const sessions = client.ofType('session');
  assert.deepEqual(sessions.at(-1).session.pendingApprovalIds, ['ap1']);
});

test('a burst of changes to one session gives two frames at most, the last one current', async (t) => {
  const { service, feed } = await startScratchService(t);
  const client = await feed();
  await client.next('snapshot');
  for (let n = 0; n < 50; n++) service.state.upsertSession({ id: 's1', n });
  service.state.upsertSession({ id: 's2', n: 0 });
  await sleep(SETTLE_MS);
  const frames = client.ofType('session');
  const ofS1 = frames.filter((message) => message.session.id === 's1').map((message) => message.session.n);
  assert.deepEqual(ofS1, [0, 49], 'the first change at once, the last at the window’s end');
  assert.equal(frames.filter((message) => message.session.id === 's2').length, 1, 'another session has its own window');
});

test('a client that joins mid-burst hears the current snapshot, then only later changes', async (t) => {
  // A long window, so that the join surely falls inside it.
  const { service, feed } = await startScratchService(t, { feed: { coalesceMs: 800 } });
  const early = await feed({ client: 'early' });
  await early.next('snapshot');
  service.state.upsertSession({ id: 's1', n: 1 });
  service.state.upsertSession({ id: 's1', n: 2 });

  const late = await feed({ client: 'late' });
  const { snapshot } = await late.next('snapshot');
  assert.deepEqual(snapshot.sessions, [{ id: 's1', n: 2 }]);

  await eventually(() => early.ofType('session').length === 2, 'the frame at the window’s end');
  assert.deepEqual(
    early.ofType('session').map((message) => message.session.n),
    [1, 2],
  );
  assert.deepEqual(late.ofType('session'), [], 'the late client had n=2 already');

  // The next window opens on a change that both must hear.
  service.state.upsertSession({ id: 's1', n: 3 });
  await eventually(() => late.ofType('session').length === 1 && early.ofType('session').length === 3, 'n=3 on both');
  assert.equal(late.ofType('session')[0].session.n, 3);
});

test('a snapshot makes the frames waiting in their windows needless', async (t) => {
  const { service, feed } = await startScratchService(t);
  const client = await feed();
  await client.next('snapshot');
  service.state.upsertSession({ id: 's1', n: 1 });
  service.state.upsertSession({ id: 's1', n: 2 });
  service.state.removeSession('s1');
  await sleep(SETTLE_MS);
  assert.deepEqual(
    client.messages().map((message) => message.t),
    ['snapshot', 'session', 'snapshot'],
  );
  assert.deepEqual(client.messages().at(-1).snapshot.sessions, []);
});

test('the feed pings on its interval and takes pongs; nothing a client sends hurts it', async (t) => {
  const { service, local, feed } = await startScratchService(t, { feed: { pingIntervalMs: 100 } });
  const client = await feed();
  const bystander = await feed({ client: 'bystander' });
  await client.next('ping');
  assert.ok(client.texts.includes('{"t":"ping"}'), 'the ping is exactly {"t":"ping"}');

  client.socket.send('{"t":"pong"}');
  client.socket.send('not json at all');
  client.socket.send('{"t":"snapshot","snapshot":{"sessions":[7]}}');
  client.socket.send('[]');
  client.socket.send('');
  client.socket.send(Buffer.from([0xff, 0x00, 0x13]), { binary: true });
  client.socket.send(Buffer.from([0xc3, 0x28]), { binary: false }); // a text frame that isn't UTF-8
  await client.next('ping');
  assert.equal(service.feed.count, 2);
  assert.deepEqual((await local('GET', '/v1/snapshot')).json.sessions, [], 'nothing a client says reaches the state');

  // A frame over the limit closes that client alone.
  client.socket.send('x'.repeat(MAX_CLIENT_FRAME_BYTES + 1));
  assert.equal(await client.closed, 1009);
  await bystander.next('ping');
  await eventually(() => service.feed.count === 1, 'the oversized client is gone');
  assert.equal((await local('GET', '/local/status')).json.connectedClients, 1);
});

test('/qa/feed/frame sends any text as it stands, or a value as JSON', async (t) => {
  const { local, feed } = await startScratchService(t);
  const clients = [await feed(), await feed()];
  for (const client of clients) await client.next('snapshot');

  const frames = ['not json at all', '', '{"t":"session","session":7}', '{"t":"event","sessionId":"s1"}', 'ünïcode ✓'];
  for (const frame of frames) {
    assert.deepEqual((await local('POST', '/qa/feed/frame', { body: { frame } })).json, { sent: 2 });
  }
  assert.deepEqual((await local('POST', '/qa/feed/frame', { body: { json: { t: 'battery', battery: null } } })).json, {
    sent: 2,
  });
  assert.deepEqual((await local('POST', '/qa/feed/frame', { body: { json: null } })).json, { sent: 2 });
  const expected = [...frames, '{"t":"battery","battery":null}', 'null'];
  for (const client of clients) {
    await eventually(() => client.texts.length === 1 + expected.length, 'every frame');
    assert.deepEqual(client.texts.slice(1), expected);
  }

  const rows = [
    ['neither key', {}],
    ['both keys', { frame: 'x', json: 1 }],
    ['a frame that isn’t a string', { frame: { t: 'x' } }],
  ];
  for (const [name, body] of rows) {
    const reply = await local('POST', '/qa/feed/frame', { body });
    assert.equal(reply.status, 400, name);
    assert.equal(reply.json.error.field, 'frame', name);
  }
});

test('/qa/feed/drop cuts every client off without a close frame; new ones are still taken', async (t) => {
  const { service, local, feed } = await startScratchService(t);
  const clients = [await feed(), await feed()];
  assert.deepEqual((await local('POST', '/qa/feed/drop')).json, { dropped: 2 });
  for (const client of clients) assert.equal(await client.closed, 1006);
  assert.equal((await local('GET', '/qa/state')).json.feedClients, 0);

  const again = await feed();
  await again.next('snapshot');
  assert.equal(service.feed.count, 1);
});

test('/qa/feed/refuse turns new connections away with 503 until it is turned off', async (t) => {
  const { service, token, local, feed } = await startScratchService(t);
  const kept = await feed();
  assert.deepEqual((await local('POST', '/qa/feed/refuse', { body: { on: true } })).json, { refusing: true });
  const refused = await refusedFeed(service.apiPort, { headers: { Authorization: `Bearer ${token}` } });
  assert.equal(refused.status, 503);
  assert.equal(refused.json.error.code, 'unavailable');

  // The client already there still hears changes.
  await local('POST', '/qa/sessions', { body: { id: 's1' } });
  await kept.next('session');

  assert.equal((await local('POST', '/qa/feed/refuse', { body: { on: 'yes' } })).json.error.field, 'on');
  await local('POST', '/qa/feed/refuse', { body: { on: false } });
  await (await feed()).next('snapshot');

  // Clearing the faults takes the refusal away too.
  await local('POST', '/qa/feed/refuse', { body: { on: true } });
  await local('DELETE', '/qa/faults');
  await (await feed()).next('snapshot');
});

test('/qa/health holds health requests unanswered while the feed lives on', async (t) => {
  const { service, local, feed } = await startScratchService(t);
  const client = await feed();
  assert.deepEqual((await local('POST', '/qa/health', { body: { answering: false } })).json, { answering: false });

  // A client that gives up after 300 ms gets nothing at all.
  const held = await new Promise((resolve) => {
    const req = http.get({ host: '127.0.0.1', port: service.apiPort, path: '/v1/health', agent: false }, () =>
      resolve('answered'),
    );
    req.setTimeout(300, () => {
      req.destroy();
      resolve('held');
    });
    req.on('error', () => {});
  });
  assert.equal(held, 'held');

  assert.deepEqual((await local('POST', '/qa/feed/ping')).json, { sent: 1 });
  await client.next('ping');

  assert.equal((await local('POST', '/qa/health', { body: { answering: 'no' } })).json.error.field, 'answering');
  await local('POST', '/qa/health', { body: { answering: true } });
  assert.equal((await request(service.apiPort, 'GET', '/v1/health')).json.ok, true);
});

test('faults apply to the feed’s handshake too', async (t) => {
  const { service, token, local, feed } = await startScratchService(t);
  await local('POST', '/qa/faults', { body: { route: 'GET /v1/ws', status: 502, body: 'bad gateway', contentType: 'text/plain' } });
  await local('POST', '/qa/faults', { body: { route: '/v1/ws', drop: true } });
  const faulted = await refusedFeed(service.apiPort, { headers: { Authorization: `Bearer ${token}` } });
  assert.equal(faulted.status, 502);
  assert.equal(faulted.text, 'bad gateway');
  await assert.rejects(refusedFeed(service.apiPort, { headers: { Authorization: `Bearer ${token}` } }));
  await (await feed()).next('snapshot');
});

test('a client that falls too far behind is cut off; the others carry on', async (t) => {
  const { service, logs, feed } = await startScratchService(t, { feed: { maxBufferedBytes: 256 * 1024 } });
  const stuck = await feed({ client: 'stuck' });
  const reader = await feed({ client: 'reader' });
  await stuck.next('snapshot');
  // The stuck client stops reading; the kernel's buffers fill first, then the service's.
  stuck.socket.pause();
  const big = JSON.stringify({ t: 'event', pad: 'x'.repeat(1024 * 1024) });
  for (let i = 0; i < 64 && service.feed.count === 2; i++) {
    service.feed.sendText(big);
    await sleep(5);
  }
  assert.equal(service.feed.count, 1, 'the stuck client was cut off');
  const log = await fs.readFile(path.join(logs, 'daemon.log'), 'utf8');
  assert.match(log, /warn Feed client “stuck” fell more than 0\.25 MiB behind; its connection was closed\./);
  await eventually(() => reader.texts.length > 2, 'the reader hears the big frames');
  service.state.upsertSession({ id: 's1' });
  await reader.next('session');
});

test('the local status counts the feed’s clients', async (t) => {
  const { service, local, feed } = await startScratchService(t);
  const count = async () => (await local('GET', '/local/status')).json.connectedClients;
  assert.equal(await count(), 0);
  const first = await feed();
  await feed({ client: 'phone' });
  assert.equal(await count(), 2);
  assert.equal((await local('GET', '/qa/state')).json.feedClients, 2);
  first.socket.close();
  await first.closed;
  await eventually(() => service.feed.count === 1, 'the server saw the close');
  assert.equal(await count(), 1);

  // A planted count stands until it is taken away.
  await local('POST', '/qa/local', { body: { connectedClients: 9 } });
  assert.equal(await count(), 9);
  await local('POST', '/qa/local', { body: { connectedClients: null } });
  assert.equal(await count(), 1);
});

test('closing the service closes the feed’s clients with 1001, at once', { timeout: 10_000 }, async (t) => {
  const { service, token, local, feed } = await startScratchService(t, { feed: { pingIntervalMs: 50 } });
  const clients = [await feed(), await feed()];
  // A handshake held by a delayed fault must not hold the close either.
  await local('POST', '/qa/faults', { body: { route: 'GET /v1/ws', status: 500, delayMs: 60_000 } });
  const held = refusedFeed(service.apiPort, { headers: { Authorization: `Bearer ${token}` } }).then(
    () => 'answered',
    () => 'cut off',
  );
  await sleep(100);
  const started = Date.now();
  await service.close();
  assert.ok(Date.now() - started < 2000, 'close didn’t wait');
  for (const client of clients) assert.equal(await client.closed, 1001);
  assert.equal(service.feed.count, 0);
  assert.equal(await held, 'cut off');
});
