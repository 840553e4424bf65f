// Phone access through Tailscale, end to end: the service drives the
// stand-in `tailscale` (test/fakes) as it would the real command line; the
// built-in node's settings survive a restart; the connected count is live.

import assert from 'node:assert/strict';
import { execFileSync } from 'node:child_process';
import fs from 'node:fs';
import os from 'node:os';
import path from 'node:path';
import test from 'node:test';

import { MAX_FAILURES, TOO_MANY } from '../src/phone/attempt-limiter.js';
import { NO_HELPER } from '../src/tailscale/built-in-node.js';
import { TEST_COPY_SERVE } from '../src/tailscale/phone-access.js';
import { DAEMON, eventually, openFeed, request, scratchFolder, startScratchService } from './helpers.js';
import { PhoneClient } from './support/phone-client.mjs';

const FAKES = path.join(DAEMON, 'test', 'fakes');
const DNS = 'mac.tail1234.ts.net';

/**
 * A scratch folder for the stand-in, with the node given (null: tailscaled
 * isn't running), and the service's options that put it first in the way;
 * its proxy is stopped after the test, before the folder goes.
 */
async function standIn(t, node) {
  const dir = await fs.promises.mkdtemp(path.join(os.tmpdir(), 'tidewatch-tailscale-'));
  const proxy = () => JSON.parse(fs.readFileSync(path.join(dir, 'tailscale-proxy.json'), 'utf8'));
  t.after(() => {
    try {
      process.kill(proxy().pid);
    } catch {
      // none was started, or it has gone
    }
    fs.rmSync(dir, { recursive: true, force: true });
  });
  if (node !== null) fs.writeFileSync(path.join(dir, 'tailscale-state.json'), JSON.stringify(node));
  // The stand-in is a Node.js program; the service's PATH leads to this one.
  const env = { ...process.env, TIDEWATCH_FAKE_TOOLS: dir, PATH: `${path.dirname(process.execPath)}:${process.env.PATH}` };
  const calls = () => fs.readFileSync(path.join(dir, 'calls'), 'utf8').trim().split('\n');
  return { dir, env, calls, proxy, tailscale: { program: { searchPath: [FAKES] }, env } };
}

test('turning on phone access serves the API on the tailnet, and the status follows', async (t) => {
  const fake = await standIn(t, { backend: 'Running', https: true, dnsName: DNS, keyExpiry: '2026-12-01T00:00:00Z' });
  const { service, local, token } = await startScratchService(t, { testCopy: false, tailscale: fake.tailscale });
  const before = (await local('GET', '/local/status?fresh=1')).json;
  const cliPath = path.join(FAKES, 'tailscale');
  const ready = { installed: true, running: true, loggedIn: true, cliPath, dnsName: DNS, ip: '100.101.102.103', httpsEnabled: true };
  assert.deepEqual(before.tailscale, { ...ready, serveOn: false, keyExpiry: '2026-12-01T00:00:00Z' });
  assert.equal(before.tsnet.mode, 'system', 'the app is there and chosen');

  const reply = await local('POST', '/local/tailscale/serve');
  assert.equal(reply.status, 200, reply.text);
  assert.deepEqual(reply.json, { ...ready, serveOn: true, url: `https://${DNS}`, keyExpiry: '2026-12-01T00:00:00Z' });
  assert.ok(fake.calls().includes(`serve --bg --https=443 http://127.0.0.1:${service.apiPort}`), fake.calls().join('\n'));
  assert.equal((await local('GET', '/local/status')).json.tailscale.url, `https://${DNS}`);

  // The served port reaches the API, the feed included, which counts it with the rest.
  const { port } = fake.proxy();
  const health = await request(port, 'GET', '/v1/health');
  assert.deepEqual([health.status, health.json.ok], [200, true]);
  const first = await openFeed(t, service.apiPort, { token });
  await openFeed(t, port, { token, client: 'phone-through-tailscale' });
  await eventually(async () => (await local('GET', '/local/status')).json.connectedClients === 2, 'two clients counted');
  first.socket.close();
  await eventually(async () => (await local('GET', '/local/status')).json.connectedClients === 1, 'one left');

  // Turned off outside Tidewatch: the next fresh read says so.
  execFileSync(cliPath, ['serve', '--https=443', 'off'], { env: fake.env });
  const after = (await local('GET', '/local/status?fresh=1')).json.tailscale;
  assert.deepEqual([after.serveOn, after.url], [false, undefined]);
});

// Loopback addresses stand in for the phones' tailnet addresses: the stand-in serve forwards them as the real one does.
test('a phone away from home pairs at the link’s tailnet address, and each phone’s failed tries count on their own', async (t) => {
  const fake = await standIn(t, { backend: 'Running', https: true, dnsName: DNS });
  const { local, post } = await startScratchService(t, { testCopy: false, tailscale: fake.tailscale });
  assert.equal((await local('POST', '/local/tailscale/serve')).status, 200);
  const code = await post('/local/pair/start', {});
  assert.equal(code.json.url, `https://${DNS}`, code.text);
  const away = (localAddress) => PhoneClient.overTailnet(code.json.link, { host: '127.0.0.1', port: fake.proxy().port, localAddress });

  const guesser = away('127.0.0.2');
  for (let i = 0; i < MAX_FAILURES; i++) assert.equal((await guesser.pair({ code: 'ZZZZZZ' })).status, 403);
  const held = await guesser.pair();
  assert.deepEqual([held.status, held.json.error.message], [429, TOO_MANY]);

  const phone = away('127.0.0.3');
  const paired = await phone.pair({ name: 'Pixel 9' });
  assert.equal(paired.status, 200, paired.text);
  assert.deepEqual((await local('GET', '/local/devices')).json.map((device) => device.name), ['Pixel 9']);
  const feed = await phone.feed();
  assert.equal((await feed.next('snapshot')).t, 'snapshot');
  assert.equal((await phone.call('GET', '/phone/snapshot')).status, 200);
});

test('phone access is refused with a sentence when it can’t be turned on', async (t) => {
  const rows = [
    // name, test copy, the stand-in's node (undefined: no `tailscale` at all), status, code, message
    ['a test copy leaves Tailscale alone', true, { backend: 'Running', https: true }, 403, 'test_copy', TEST_COPY_SERVE],
    ['no Tailscale', false, undefined, 409, 'no_tailscale', 'Tailscale isn’t installed, so phone access can’t be turned on through it.'],
    [
      'tailscaled not running',
      false,
      null,
      502,
      'tailscale_refused',
      'Tailscale couldn’t turn on phone access (failed to connect to local tailscaled; it doesn\'t appear to be running (sudo systemctl start tailscaled ?)).',
    ],
    [
      'HTTPS off in the tailnet',
      false,
      { backend: 'Running', https: false },
      502,
      'tailscale_refused',
      'Tailscale couldn’t turn on phone access (Serve is not enabled on your tailnet. To enable, visit: https://login.tailscale.com/f/serve?node=nFAKE1CNTRL).',
    ],
    ['signed out', false, { backend: 'NeedsLogin' }, 502, 'tailscale_refused', 'Tailscale couldn’t turn on phone access (error getting serve config: backend state is NeedsLogin).'],
  ];
  for (const [name, testCopy, node, status, code, message] of rows) {
    const fake = await standIn(t, node ?? null);
    const tailscale = node === undefined ? {} : fake.tailscale;
    const { local } = await startScratchService(t, { testCopy, tailscale });
    const reply = await local('POST', '/local/tailscale/serve');
    assert.deepEqual([reply.status, reply.json.error], [status, { code, message }], name);
    const now = (await local('GET', '/local/status?fresh=1')).json.tailscale;
    assert.equal(now.serveOn ?? false, false, `${name}: nothing served`);
    assert.equal(now.installed, node !== undefined, `${name}: installed`);
    if (testCopy) assert.deepEqual(fake.calls().filter((call) => call.startsWith('serve --')), [], `${name}: serve never ran`);
  }
});

test('the phone-access settings act, and survive a restart', async (t) => {
  const folder = await scratchFolder(t);
  const start = async () => {
    const running = await startScratchService(t, { folder });
    return { ...running, status: async () => (await running.local('GET', '/local/status')).json };
  };
  const first = await start();
  const off = await first.status();
  assert.deepEqual([off.tsnet, off.files], [{ mode: 'off', reason: 'Neither the Tailscale app nor the built-in node is here to serve the phone API.', available: false, enabled: false }, { browseOutsideProjects: false }]);

  for (const body of [{ builtInTailscale: true }, { browseOutsideProjects: true }]) {
    assert.deepEqual((await first.local('POST', '/local/settings', { body })).json, { ok: true });
  }
  // No private name is held, so choosing it gives nothing up.
  assert.deepEqual((await first.local('POST', '/local/settings', { body: { nameService: true } })).json, { nameRelease: { released: false } });
  const builtIn = {
    mode: 'builtIn',
    reason: 'Tidewatch’s built-in Tailscale node serves the phone API.',
    available: false,
    enabled: true,
    helper: { state: 'starting', error: NO_HELPER },
  };
  assert.deepEqual([(await first.status()).tsnet, (await first.status()).files], [builtIn, { browseOutsideProjects: true }]);
  const file = path.join(first.support, 'state.json');
  assert.equal(fs.statSync(file).mode & 0o777, 0o600);
  await first.service.close();

  const second = await start();
  assert.deepEqual([(await second.status()).tsnet, (await second.status()).files], [builtIn, { browseOutsideProjects: true }], 'kept');
  assert.equal((await second.status()).name?.setting, true, 'the private name’s choice kept');
  await second.local('POST', '/local/settings', { body: { builtInTailscale: false, browseOutsideProjects: false, nameService: false } });
  await second.service.close();

  const third = await start();
  assert.deepEqual([(await third.status()).tsnet, (await third.status()).files], [off.tsnet, off.files], 'both off again');
  assert.equal((await third.status()).name?.setting ?? false, false, 'the private name’s choice off again');
});

test('the built-in node signs out through its helper, and without one refuses', async (t) => {
  const without = await startScratchService(t);
  const refused = await without.local('POST', '/local/tsnet/logout');
  assert.deepEqual([refused.status, refused.json.error.message], [409, `${NO_HELPER} There’s nothing to sign out.`]);

  const fake = await standIn(t, null);
  const running = { state: 'Running', dnsName: 'tidewatch.tail1234.ts.net', listening: '443', tls: 'pinned', url: 'https://tidewatch.tail1234.ts.net' };
  fs.writeFileSync(path.join(fake.dir, 'tsnet-state.json'), JSON.stringify(running));
  const { local } = await startScratchService(t, { tsnetHelper: path.join(FAKES, 'tsnet-helper'), tailscale: { env: fake.env } });
  await local('POST', '/local/settings', { body: { builtInTailscale: true } });
  const up = (await local('GET', '/local/status')).json.tsnet;
  assert.deepEqual([up.available, up.helper, up.url], [true, { state: 'Running', dnsName: 'tidewatch.tail1234.ts.net', listening: '443', tls: 'pinned' }, running.url]);

  const reply = await local('POST', '/local/tsnet/logout');
  assert.equal(reply.status, 200);
  assert.deepEqual([reply.json.tsnet.helper, reply.json.tsnet.url], [{ state: 'NeedsLogin', loginUrl: 'https://login.tailscale.com/a/stand-in' }, undefined]);
  assert.ok(fake.calls().includes('tsnet-helper logout'));
});
