// Pairing a phone end to end, as a phone app does it (support/phone-client.mjs):
// the code from the app's route, the LAN route with the certificate pinned,
// the device token on the phone's routes and feed, an approval answered on
// the phone, and a device forgotten for good, also across a restart.

import assert from 'node:assert/strict';
import { spawn } from 'node:child_process';
import { createHash, X509Certificate } from 'node:crypto';
import fs from 'node:fs';
import os from 'node:os';
import path from 'node:path';
import readline from 'node:readline';
import { test } from 'node:test';

import { TOO_MANY, WINDOW_MS } from '../src/phone/attempt-limiter.js';
import { DEVICES_FILE } from '../src/phone/device-book.js';
import { KEY_FILE, CERT_FILE } from '../src/phone/lan-certificate.js';
import { lanAddresses } from '../src/phone/lan-route.js';
import { CODE_LIFE_MS } from '../src/phone/pair-codes.js';
import { BAD_CODE } from '../src/phone/phone-routes.js';
import { NOT_PAIRED } from '../src/listener.js';
import { DEFAULT_PAIR_ORIGIN } from '../src/config.js';
import { claudeFixture, DAEMON, eventually, refusedFeed, startScratchService } from './helpers.js';
import { PhoneClient } from './support/phone-client.mjs';

const modeOf = (file) => fs.statSync(file).mode & 0o777;

// A machine with no network gives its loopback as the network, so that the link still has a LAN route.
const interfaces = lanAddresses(os.networkInterfaces()).length > 0 ? undefined : () => ({ lo: [{ address: '127.0.0.1', family: 'IPv4', internal: false }] });

async function setUp(t, options = {}) {
  const service = await startScratchService(t, { interfaces, ...options });
  const start = async () => (await service.post('/local/pair/start', {})).json;
  const devices = async () => (await service.local('GET', '/local/devices')).json;
  const clock = (offsetMs) => service.post('/qa/power', { offsetMs });
  return { service, start, devices, clock };
}

async function pairedPhone(t, options) {
  const parts = await setUp(t, options);
  const phone = PhoneClient.fromLink((await parts.start()).link);
  assert.equal((await phone.pair({ name: 'Pixel 8' })).status, 200);
  return { ...parts, phone };
}

test('a code pairs a phone over the LAN route with the pin, and another pin is refused', async (t) => {
  const { service, start, devices } = await setUp(t);
  const pair = await start();
  const { lan } = (await service.local('GET', '/local/status')).json;
  const der = new X509Certificate(fs.readFileSync(path.join(service.support, CERT_FILE))).raw;
  assert.equal(lan.fingerprint, createHash('sha256').update(der).digest('hex'));
  assert.equal(modeOf(path.join(service.support, KEY_FILE)), 0o600);
  assert.match(pair.code, /^[A-HJ-NP-Z2-9]{6}$/);
  assert.equal(pair.url, null);
  const name = encodeURIComponent(os.hostname());
  assert.equal(
    pair.link,
    `${DEFAULT_PAIR_ORIGIN}/pair#v=1&u=&c=${pair.code}&n=${name}&fp=${lan.fingerprint}&lan=${lan.addresses[0]}&lp=${lan.port}`,
  );

  const impostor = PhoneClient.fromLink(pair.link, { fingerprint: 'ab'.repeat(32) });
  await assert.rejects(impostor.pair(), /isn’t the one this phone paired with/);

  const mac = await service.feed();
  const phone = PhoneClient.fromLink(pair.link);
  const reply = await phone.pair({ name: 'Pixel 8', model: 'Pixel 8' });
  assert.equal(reply.status, 200);
  await mac.next('devices');
  const [device] = await devices();
  assert.deepEqual([device.id, device.name, device.client, device.model], [reply.json.device.id, 'Pixel 8', 'phone', 'Pixel 8']);
  assert.ok(Number.isFinite(device.createdAt) && Number.isFinite(device.lastSeenAt));
  const file = path.join(service.support, DEVICES_FILE);
  assert.equal(modeOf(file), 0o600);
  const kept = fs.readFileSync(file, 'utf8');
  assert.ok(!kept.includes(phone.token) && kept.includes(createHash('sha256').update(phone.token).digest('hex')));
  assert.equal((await phone.call('GET', '/phone/snapshot')).json.mac.name, os.hostname());
});

test('each token opens its own doors only', async (t) => {
  const { service, phone } = await pairedPhone(t);
  const device = { Authorization: `Bearer ${phone.token}` };
  const rows = [
    ['the device token on the local status', () => service.local('GET', '/local/status', { headers: device }), 401],
    ['the device token on /qa', () => service.local('GET', '/qa/state', { headers: device }), 401],
    ['the device token on the Mac’s answer route', () => service.local('POST', '/v1/approvals/x/decision', { headers: device, body: { decision: 'allow' } }), 401],
    ['the admin token on a phone route', () => phone.call('GET', '/phone/snapshot', { token: service.token }), 401],
    ['the admin token on the phone route of the API port', () => service.api('GET', '/phone/snapshot', { headers: { Authorization: `Bearer ${service.token}` } }), 401],
    ['the device token on the API port', () => service.api('GET', '/phone/snapshot', { headers: device }), 200],
  ];
  for (const [name, call, status] of rows) assert.equal((await call()).status, status, name);
  const feeds = [
    ['the device token as the Mac', `/v1/ws?client=mac`, phone.token],
    ['the admin token as a phone', `/v1/ws?client=phone`, service.token],
  ];
  for (const [name, target, token] of feeds) {
    assert.equal((await refusedFeed(service.service.apiPort, { target, headers: { Authorization: `Bearer ${token}` } })).status, 401, name);
  }
  await assert.rejects(phone.feed({ token: service.token }), (error) => error.status === 401);
});

test('the phone hears an approval, answers it, and a later answer from the Mac is too late', async (t) => {
  const { service, phone } = await pairedPhone(t);
  const asked = claudeFixture('permission-request-bash.json');
  const transcript = path.join(service.folder, `${asked.session_id}.jsonl`);
  fs.writeFileSync(transcript, '');
  const event = { ...asked, cwd: path.join(service.folder, 'project'), transcript_path: transcript };
  const feed = await phone.feed();
  const mac = await service.feed();
  const { id, state } = (await service.post('/claude/permission?request=request-one&wait=0', event)).json;
  assert.equal(state, 'pending');
  // A new session and its approval at once come as one snapshot.
  const heardOf = (message) => message.approval?.id === id || message.snapshot?.approvals.some((each) => each.id === id);
  await eventually(() => feed.messages.some(heardOf), 'the approval on the phone’s feed');
  assert.deepEqual((await phone.answer(id, 'allow')).json, { ok: true });
  const resolved = await mac.next('approval.resolved');
  assert.deepEqual([resolved.id, resolved.by, resolved.decision], [id, 'phone', 'allow']);
  const heard = (await service.post('/claude/permission?request=request-one&wait=0', event)).json;
  assert.equal(heard.output.hookSpecificOutput.decision.behavior, 'allow');
  const late = await service.post(`/v1/approvals/${id}/decision`, { decision: 'deny' });
  assert.deepEqual([late.status, late.json.error.code], [409, 'already_resolved']);
});

test('a forgotten device is cut off at once and stays out after a restart', async (t) => {
  const { service, phone, start } = await pairedPhone(t);
  const other = PhoneClient.fromLink((await start()).link);
  await other.pair({ name: 'Tablet' });
  const feed = await phone.feed();
  await feed.next('snapshot');
  assert.deepEqual((await service.local('DELETE', `/local/devices/${phone.device.id}`)).json, { ok: true });
  assert.equal(await Promise.race([feed.closed, new Promise((resolve) => setTimeout(() => resolve('still open'), 1000))]), 1008);
  const refused = await phone.call('GET', '/phone/snapshot');
  assert.deepEqual([refused.status, refused.json.error.message], [401, NOT_PAIRED]);
  await assert.rejects(phone.feed(), (error) => error.status === 401);

  await service.service.close();
  const again = await startScratchService(t, { folder: service.folder, interfaces });
  assert.deepEqual((await again.local('GET', '/local/devices')).json.map((each) => each.name), ['Tablet']);
  const lp = String(again.service.lanPort);
  const reach = (client) => Object.assign(client.route, { port: Number(lp) });
  reach(phone);
  reach(other);
  assert.equal((await phone.call('GET', '/phone/snapshot')).status, 401);
  assert.equal((await other.call('GET', '/phone/snapshot')).status, 200);
  assert.equal((await again.local('DELETE', `/local/devices/${phone.device.id}`)).status, 404);
});

test('a reset of a test copy forgets the paired phones, tokens and all', async (t) => {
  const { service, phone, devices } = await pairedPhone(t);
  const feed = await phone.feed();
  await feed.next('snapshot');
  assert.equal((await service.post('/qa/reset', {})).status, 200);
  assert.equal(await feed.closed, 1008);
  assert.deepEqual([(await phone.call('GET', '/phone/snapshot')).status, await devices()], [401, []]);
});

// Every refusal leaves nothing registered.
test('codes and bodies that don’t pair are refused with their sentence', async (t) => {
  const spend = (phone) => phone.pair();
  const rows = [
    ['a guessed code', (phone) => phone.pair({ code: phone.keys.c === 'ABCDEF' ? 'ABCDEG' : 'ABCDEF' }), 403, BAD_CODE],
    ['a code used already', async (phone) => (await spend(phone), phone.pair()), 403, BAD_CODE],
    ['a code past its ten minutes', async (phone, { clock }) => (await clock(CODE_LIFE_MS + 1000), phone.pair()), 403, BAD_CODE],
    ['a withdrawn code', async (phone, { service }) => (await service.post('/local/pair/cancel', { code: phone.keys.c }), phone.pair()), 403, BAD_CODE],
    ['a body over 16 KiB', (phone) => phone.pair({ note: 'x'.repeat(17 * 1024) }), 413, 'The request body is larger than 16 KiB, the most this service reads.'],
    ['broken JSON', (phone) => phone.call('POST', '/phone/pair', { raw: '{"code":' }), 400, 'The request body isn’t valid JSON.'],
    ['a name too long', (phone) => phone.pair({ name: 'n'.repeat(65) }), 400, '“name” must be a text of 1 to 64 characters.'],
    ['a client that isn’t a phone', (phone) => phone.pair({ client: 'lens' }), 400, 'Only a phone pairs this way: “client” must be “phone”.'],
  ];
  for (const [name, attempt, status, message] of rows) {
    await t.test(name, async (t) => {
      const parts = await setUp(t);
      const phone = PhoneClient.fromLink((await parts.start()).link);
      const before = name === 'a code used already' ? 1 : 0;
      const reply = await attempt(phone, parts);
      assert.deepEqual([reply.status, reply.json.error.message], [status, message]);
      assert.equal((await parts.devices()).length, before);
    });
  }
});

test('a flood of failures from one address is held off for a minute', async (t) => {
  const rows = [
    ['wrong codes', (phone) => phone.pair({ code: 'ZZZZZZ' }), 403],
    ['wrong tokens', (phone) => phone.call('GET', '/phone/snapshot', { token: 'nope' }), 401],
  ];
  for (const [name, fail, status] of rows) {
    await t.test(name, async (t) => {
      const { start, devices, clock } = await setUp(t);
      const phone = PhoneClient.fromLink((await start()).link);
      for (let i = 0; i < 10; i++) assert.equal((await fail(phone)).status, status);
      const held = await phone.pair();
      assert.deepEqual([held.status, held.json.error.message], [429, TOO_MANY]);
      assert.deepEqual(await devices(), []);
      await clock(WINDOW_MS + 1000);
      assert.equal((await phone.pair()).status, 200);
    });
  }
});

test('a pair link carries the phone address when there is one, and no route gives no code', async (t) => {
  const rows = [
    ['the Tailscale app’s address, its slash trimmed', { tailscale: { url: 'https://mac.tail1.ts.net/' } }, interfaces, 'https://mac.tail1.ts.net'],
    ['the built-in node’s address', { tsnet: { mode: 'builtIn', url: 'https://tw.tail1.ts.net' } }, interfaces, 'https://tw.tail1.ts.net'],
    ['neither, and no network', {}, () => ({}), null],
  ];
  for (const [name, local, reach, url] of rows) {
    await t.test(name, async (t) => {
      const { service } = await setUp(t, { interfaces: reach });
      await service.post('/qa/local', local);
      const reply = await service.post('/local/pair/start', {});
      if (url === null) return assert.deepEqual([reply.status, reply.json.error.code], [409, 'no_route']);
      assert.equal(reply.json.url, url);
      assert.equal(PhoneClient.fromLink(reply.json.link).keys.u, url);
    });
  }
});

// The program form, as a test in another language drives it.
test('the phone client pairs and listens as a program speaking JSON lines', async (t) => {
  const { start, devices } = await setUp(t);
  const host = interfaces ? ['--host', '127.0.0.1'] : [];
  const child = spawn(process.execPath, [path.join(DAEMON, 'test', 'support', 'phone-client.mjs'), ...host], { stdio: ['pipe', 'pipe', 'inherit'] });
  t.after(() => child.kill());
  const lines = readline.createInterface({ input: child.stdout })[Symbol.asyncIterator]();
  const next = async () => JSON.parse((await lines.next()).value);
  const ask = (command) => {
    child.stdin.write(`${JSON.stringify(command)}\n`);
    return next();
  };
  assert.deepEqual(await ask({ do: 'call', path: '/phone/snapshot' }), { event: 'error', message: 'Pair first.' });
  const paired = await ask({ do: 'pair', link: (await start()).link, name: 'Pixel 8' });
  assert.deepEqual([paired.event, paired.device.id], ['paired', (await devices())[0].id]);
  assert.deepEqual(await ask({ do: 'feed' }), { event: 'open' });
  assert.equal((await next()).message.t, 'snapshot');
  const reply = await ask({ do: 'answer', id: 'ap_none', decision: 'allow' });
  assert.deepEqual([reply.event, reply.status], ['reply', 404]);
  child.stdin.end(`${JSON.stringify({ do: 'end' })}\n`);
});
