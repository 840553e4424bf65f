// The testing checklist's page on the local port: open without the token,
// ticked from the state, and carrying nothing secret.

import assert from 'node:assert/strict';
import test from 'node:test';

import { checklistItems, checklistPage } from '../src/checklist.js';
import { request, startScratchService } from './helpers.js';

const ticked = (text) => [...text.matchAll(/<li class="done">.*?<strong>(.*?)<\/strong>/g)].map((m) => m[1]);

test('the checklist page', async (t) => {
  const service = await startScratchService(t);
  const page = () => request(service.service.localPort, 'GET', '/checklist');

  await t.test('a fresh service answers without the token, ticks only itself and carries no secret', async () => {
    const reply = await page();
    assert.deepEqual([reply.status, reply.headers['content-type']], [200, 'text/html; charset=utf-8']);
    assert.match(reply.headers['content-security-policy'], /default-src 'none'/);
    assert.deepEqual(ticked(reply.text), ['The background service runs']);
    assert.match(reply.text, /1 of 7 done\./);
    assert.ok(!reply.text.includes(service.token), 'the admin token');
    assert.ok(!reply.text.includes(service.folder), 'a path of this machine');
  });

  await t.test('every other route of the port still needs the token', async () => {
    const port = service.service.localPort;
    assert.equal((await request(port, 'GET', '/v1/snapshot')).status, 401);
    assert.equal((await request(port, 'POST', '/checklist')).status, 401);
    assert.equal((await request(port, 'GET', '/checklist/x')).status, 401);
  });

  await t.test('each thing is ticked once the state says it is done', async () => {
    const rows = [
      ['Claude Code is connected', '/qa/local', { hooks: { installed: true } }],
      ['Codex is found', '/qa/snapshot', { codex: { available: true, enabled: false, path: '/usr/bin/codex' } }],
      ['Phone access is on', '/qa/local', { tailscale: { installed: true, running: true, serveOn: true } }],
      ['A phone is paired', '/qa/local', { devices: [{ id: 'd1', name: 'Pixel' }] }],
      ['A session shows in the panel', '/qa/sessions', { id: 's1', state: 'needs_you' }],
    ];
    for (const [title, path, body] of rows) {
      assert.ok(!ticked((await page()).text).includes(title), `${title}: not before`);
      assert.equal((await service.post(path, body)).status, 200, title);
      assert.ok(ticked((await page()).text).includes(title), `${title}: after`);
    }
    await service.post('/qa/approvals', { id: 'a1', sessionId: 's1', kind: 'tool', toolName: 'Bash' });
    assert.equal((await service.post('/v1/approvals/a1/decision', { decision: 'allow' })).status, 200);
    const { text } = await page();
    assert.ok(ticked(text).includes('An approval was answered'));
    assert.match(text, /7 of 7 done\./);
  });
});

test('the machine is named as the platform names it', () => {
  const state = { localStatus: () => ({}), decisions: () => [] };
  const hint = (platform) => checklistItems(state, { platform }).find((i) => i.title === 'Codex is found').hint;
  assert.equal(hint('darwin'), 'Install Codex on this Mac; the service looks for it by itself.');
  assert.equal(hint('linux'), 'Install Codex on this computer; the service looks for it by itself.');
});

test('the page escapes what it shows', () => {
  const text = checklistPage([{ title: '<b>&', hint: '"x\'', done: false }]);
  assert.ok(text.includes('<strong>&lt;b&gt;&amp;</strong><br>&quot;x&#39;'));
  assert.match(text, /0 of 1 done\./);
});
