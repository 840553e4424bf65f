// The feed as the app meets it: a real WebSocket on the API port of a
// running service.

import assert from 'node:assert/strict';
import fs from 'node:fs';
import http from 'node:http';
import path from 'node:path';
import test from 'node:test';

import { MAX_CLIENT_FRAME_BYTES } from '../src/feed-server.js';
import { eventually, refusedFeed, request, sleep, startScratchService } from './helpers.js';

// Longer than the coalescing window, with room for a loaded machine.
const SETTLE_MS = 400;

test('the handshake needs the admin token on the feed’s path; then the snapshot the reads give comes first', async (t) => {
  const { service, token, feed, post, snapshot } = await startScratchService(t);
  const rows = [
    ['no header', {}, '/v1/ws?client=test', 401, 'unauthorized'],
    ['a wrong token', { Authorization: `Bearer ${'0'.repeat(64)}` }, '/v1/ws?client=test', 401, 'unauthorized'],
    ['the token without its scheme', { Authorization: token }, '/v1/ws?client=test', 401, 'unauthorized'],
    ['another path', { Authorization: `Bearer ${token}` }, '/v1/feed', 404, 'not_found'],
  ];
  for (const [name, headers, target, status, code] of rows) {
    const reply = await refusedFeed(service.apiPort, { target, headers });
    assert.deepEqual([reply.status, reply.headers['content-type'], reply.json.error.code], [status, 'application/json; charset=utf-8', code], name);
    assert.match(reply.json.error.message, /^[A-Z].*\.$/, `${name}: a sentence`);
  }
  // ws's own client resolves dot segments, so this one is sent by hand.
  const upgrade = { Connection: 'Upgrade', Upgrade: 'websocket', 'Sec-WebSocket-Version': '13', 'Sec-WebSocket-Key': 'dGhlIHNhbXBsZSBub25jZQ==' };
  const climbing = await request(service.apiPort, 'GET', '/v1/x/../ws', { headers: { Authorization: `Bearer ${token}`, ...upgrade } });
  assert.equal(climbing.status, 404, 'a dot segment is no way in');
  assert.equal(service.feed.count, 0);
  const plain = await request(service.apiPort, 'GET', '/v1/ws');
  assert.deepEqual([plain.status, plain.json.error.code], [426, 'upgrade_required']);

  await post('/qa/sessions', { id: 's1', state: 'working' });
  await post('/qa/approvals', { id: 'ap1', sessionId: 's1', kind: 'tool' });
  const client = await feed();
  const first = await client.next('snapshot');
  assert.deepEqual(client.messages()[0], first);
  assert.deepEqual(first.snapshot, await snapshot());
  assert.deepEqual(first.snapshot.sessions[0].pendingApprovalIds, ['ap1']);
});

test('every change of the state reaches the feed as its message', async (t) => {
  const { local, post, snapshot, feed } = await startScratchService(t);
  const client = await feed();
  await client.next('snapshot');
  const battery = { percent: 64, charging: true };
  const awake = { mode: 'backpack', holding: true };
  const provider = { id: 'p1', name: 'P', kind: 'openrouter' };
  const withMac = async (patch) => post('/qa/snapshot', { mac: { ...(await snapshot()).mac, ...patch } });
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
    ['devices', () => post('/qa/devices', { id: 'd1', name: 'Pixel 8' }), 'devices'],
    ['a session taken out', () => local('DELETE', '/qa/sessions/s1'), 'snapshot'],
    ['several parts at once', () => post('/qa/snapshot', { usage: {}, account: { state: 'ok' } }), 'snapshot'],
    ['a reset', () => post('/qa/reset'), 'snapshot'],
  ];
  for (const [name, act, type, payload] of rows) {
    const heard = client.next(type);
    assert.equal((await act()).status, 200, name);
    const message = await heard;
    if (type === 'devices') assert.deepEqual(message, { t: 'devices' }, name);
    else if (type === 'snapshot') assert.deepEqual(message.snapshot, await snapshot(), name);
    else assert.deepEqual(message[type], payload, name);
  }
  // The approval brought the session that now waits on it.
  assert.deepEqual(client.ofType('session').at(-1).session.pendingApprovalIds, ['ap1']);
});

test('a burst to one session gives two frames at most; a snapshot makes the frames waiting needless', async (t) => {
  const { service, feed } = await startScratchService(t);
  const client = await feed();
  await client.next('snapshot');
  for (let n = 0; n < 50; n++) service.state.upsertSession({ id: 's1', n });
  service.state.upsertSession({ id: 's2', n: 0 });
  await sleep(SETTLE_MS);
  const frames = client.ofType('session');
  assert.deepEqual(frames.filter((m) => m.session.id === 's1').map((m) => m.session.n), [0, 49], 'the first at once, the last at the window’s end');
  assert.equal(frames.filter((m) => m.session.id === 's2').length, 1, 'another session has its own window');

  service.state.upsertSession({ id: 's3', n: 1 });
  service.state.upsertSession({ id: 's3', n: 2 });
  service.state.removeSession('s3');
  await sleep(SETTLE_MS);
  assert.deepEqual(client.messages().slice(-2).map((m) => m.t), ['session', 'snapshot']);
  assert.equal(client.ofType('session').filter((m) => m.session.id === 's3').length, 1);
});

test('a client that joins mid-burst hears the current snapshot, then only later changes', async (t) => {
  // A long window, so that the join surely falls inside it.
  const { service, feed } = await startScratchService(t, { feed: { coalesceMs: 800 } });
  const early = await feed({ client: 'early' });
  await early.next('snapshot');
  service.state.upsertSession({ id: 's1', n: 1 });
  service.state.upsertSession({ id: 's1', n: 2 });
  const late = await feed({ client: 'late' });
  assert.deepEqual((await late.next('snapshot')).snapshot.sessions, [{ id: 's1', n: 2 }]);
  const ns = (client) => client.ofType('session').map((m) => m.session.n);
  await eventually(() => ns(early).length === 2, 'the frame at the window’s end');
  assert.deepEqual([ns(early), ns(late)], [[1, 2], []], 'the late client had n=2 already');
  // The next window opens on a change that both must hear.
  service.state.upsertSession({ id: 's1', n: 3 });
  await eventually(() => ns(late).length === 1 && ns(early).length === 3, 'n=3 on both');
  assert.deepEqual(ns(late), [3]);
});

test('the feed pings on its interval and takes pongs; nothing a client sends hurts it, and too much cuts it off', async (t) => {
  const { service, local, snapshot, feed } = await startScratchService(t, { feed: { pingIntervalMs: 100 } });
  const client = await feed();
  const bystander = await feed({ client: 'bystander' });
  await client.next('ping');
  assert.ok(client.texts.includes('{"t":"ping"}'), 'the ping is exactly {"t":"ping"}');
  for (const text of ['{"t":"pong"}', 'not json at all', '{"t":"snapshot","snapshot":{"sessions":[7]}}', '[]', '']) client.socket.send(text);
  client.socket.send(Buffer.from([0xff, 0x00, 0x13]), { binary: true });
  client.socket.send(Buffer.from([0xc3, 0x28]), { binary: false }); // a text frame that isn't UTF-8
  await client.next('ping');
  assert.equal(service.feed.count, 2);
  assert.deepEqual((await snapshot()).sessions, [], 'nothing a client says reaches the state');

  client.socket.send('x'.repeat(MAX_CLIENT_FRAME_BYTES + 1));
  assert.equal(await client.closed, 1009);
  await bystander.next('ping');
  await eventually(() => service.feed.count === 1, 'the oversized client is gone');
  const count = async () => (await local('GET', '/local/status')).json.connectedClients;
  assert.equal(await count(), 1);
  // A planted count stands until it is taken away.
  await local('POST', '/qa/local', { body: { connectedClients: 9 } });
  assert.equal(await count(), 9);
  await local('POST', '/qa/local', { body: { connectedClients: null } });
  assert.equal(await count(), 1);
});

test('/qa sends frames, drops and refuses clients, holds health and faults the handshake', async (t) => {
  const { service, token, local, post, feed } = await startScratchService(t);
  const clients = [await feed(), await feed()];
  for (const client of clients) await client.next('snapshot');
  const frames = ['not json at all', '', '{"t":"session","session":7}', 'ünïcode ✓'];
  for (const frame of frames) assert.deepEqual((await post('/qa/feed/frame', { frame })).json, { sent: 2 });
  assert.deepEqual((await post('/qa/feed/frame', { json: { t: 'battery', battery: null } })).json, { sent: 2 });
  for (const client of clients) {
    await eventually(() => client.texts.length === 6, 'every frame');
    assert.deepEqual(client.texts.slice(1), [...frames, '{"t":"battery","battery":null}']);
  }
  const refusals = [
    ['a frame of neither key', '/qa/feed/frame', {}, 'frame'],
    ['a frame of both keys', '/qa/feed/frame', { frame: 'x', json: 1 }, 'frame'],
    ['a frame that isn’t a string', '/qa/feed/frame', { frame: { t: 'x' } }, 'frame'],
    ['refusing by a word', '/qa/feed/refuse', { on: 'yes' }, 'on'],
    ['health by a word', '/qa/health', { answering: 'no' }, 'answering'],
  ];
  for (const [name, target, body, field] of refusals) {
    const reply = await post(target, body);
    assert.deepEqual([reply.status, reply.json.error.field], [400, field], name);
  }

  assert.deepEqual((await post('/qa/feed/drop')).json, { dropped: 2 });
  for (const client of clients) assert.equal(await client.closed, 1006, 'cut off without a close frame');

  const auth = { headers: { Authorization: `Bearer ${token}` } };
  assert.deepEqual((await post('/qa/feed/refuse', { on: true })).json, { refusing: true });
  const refused = await refusedFeed(service.apiPort, auth);
  assert.deepEqual([refused.status, refused.json.error.code], [503, 'unavailable']);
  await post('/qa/feed/refuse', { on: false });
  const kept = await feed();
  await kept.next('snapshot');

  assert.deepEqual((await post('/qa/health', { answering: false })).json, { answering: false });
  const held = await new Promise((resolve) => {
    const req = http.get({ host: '127.0.0.1', port: service.apiPort, path: '/v1/health', agent: false }, () => resolve('answered'));
    req.setTimeout(300, () => {
      req.destroy();
      resolve('held');
    });
    req.on('error', () => {});
  });
  assert.equal(held, 'held');
  assert.deepEqual((await post('/qa/feed/ping')).json, { sent: 1 }, 'while the feed lives on');
  await kept.next('ping');
  await post('/qa/health', { answering: true });
  assert.equal((await request(service.apiPort, 'GET', '/v1/health')).json.ok, true);

  await post('/qa/faults', { route: 'GET /v1/ws', status: 502, body: 'bad gateway', contentType: 'text/plain' });
  await post('/qa/faults', { route: '/v1/ws', drop: true });
  assert.deepEqual(await refusedFeed(service.apiPort, auth).then((reply) => [reply.status, reply.text]), [502, 'bad gateway']);
  await assert.rejects(refusedFeed(service.apiPort, auth));
  // Clearing the faults takes a refusal away too.
  await post('/qa/feed/refuse', { on: true });
  await local('DELETE', '/qa/faults');
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
  const log = fs.readFileSync(path.join(logs, 'daemon.log'), 'utf8');
  assert.match(log, /warn Feed client “stuck” fell more than 0\.25 MiB behind; its connection was closed\./);
  await eventually(() => reader.texts.length > 2, 'the reader hears the big frames');
  service.state.upsertSession({ id: 's1' });
  await reader.next('session');
});
