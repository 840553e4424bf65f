// The settings, devices and sign-out the app changes on the local port.

import assert from 'node:assert/strict';
import test from 'node:test';

import { startScratchService } from './helpers.js';

test('each setting lands on its part', async (t) => {
  const { local, feed } = await startScratchService(t);
  const client = await feed();
  const rows = [
    ['codex', true, (all) => all.snapshot.codex, { available: false, enabled: true, connected: false }],
    ['builtInTailscale', true, (all) => [all.local.tsnet.mode, all.local.tsnet.enabled], ['builtIn', true]],
    ['browseOutsideProjects', true, (all) => all.local.files, { browseOutsideProjects: true }],
    ['nameService', false, (all) => all.local.name, { setting: false }],
  ];
  for (const [name, on, read, expected] of rows) {
    const reply = await local('POST', '/local/settings', { body: { [name]: on } });
    assert.equal(reply.status, 200, name);
    assert.deepEqual(reply.json, name === 'nameService' ? { nameRelease: { released: false } } : { ok: true }, name);
    assert.deepEqual(read((await local('GET', '/qa/state')).json), expected, name);
  }
  // Codex is in the snapshot, so the feed tells it; and the local status mirrors it.
  assert.equal((await client.next('codex')).codex.enabled, true);
  assert.equal((await local('GET', '/local/status')).json.codex.enabled, true);
});

test('a settings body is checked whole before anything changes', async (t) => {
  const { local } = await startScratchService(t);
  const before = (await local('GET', '/qa/state')).json;
  const rows = [
    ['a word for a boolean', { codex: 'on' }, 'codex'],
    ['a number', { builtInTailscale: 1 }, 'builtInTailscale'],
    ['null', { browseOutsideProjects: null }, 'browseOutsideProjects'],
    ['an unknown key', { darkMode: true }, 'darkMode'],
    ['a good key before a bad one', { codex: true, nameService: 'x' }, 'nameService'],
    ['nothing to set', {}, undefined],
    ['not JSON', '{"builtInTailscale": tru', undefined],
    ['not an object', '[true]', undefined],
  ];
  for (const [name, body, field] of rows) {
    const reply = await local('POST', '/local/settings', { body });
    assert.equal(reply.status, 400, name);
    assert.equal(reply.json.error.field, field, name);
    assert.match(reply.json.error.message, /^[A-Z“].*\.$/, `${name}: a sentence`);
  }
  assert.deepEqual((await local('GET', '/qa/state')).json, before, 'nothing was applied');
});

test('forgetting a device tells the feed; an unknown one is 404', async (t) => {
  const { local, feed } = await startScratchService(t);
  await local('POST', '/qa/devices', { body: { id: 'd/1', name: 'Pixel 8' } });
  await local('POST', '/qa/devices', { body: { id: 'd2', name: 'Lens' } });
  const client = await feed();

  assert.deepEqual((await local('DELETE', '/local/devices/d%2F1')).json, { ok: true });
  assert.deepEqual(await client.next('devices'), { t: 'devices' });
  assert.deepEqual((await local('GET', '/local/devices')).json, [{ id: 'd2', name: 'Lens' }]);

  const gone = await local('DELETE', '/local/devices/d%2F1');
  assert.equal(gone.status, 404);
  assert.equal(gone.json.error.message, 'No device has the id “d/1”.');
  assert.equal((await local('POST', '/local/devices/d2')).status, 405);
});
