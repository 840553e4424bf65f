// Hostile calls on the running service's automations, beyond what the
// book's and the validation's suites send: the wrong port or token, bodies
// that aren't objects, runs and steps that aren't there, a project swapped
// for a link after it was saved, and secrets looked for everywhere the
// service writes or tells after a run whose places refused it.

import assert from 'node:assert/strict';
import fs from 'node:fs';
import path from 'node:path';
import test from 'node:test';

import { SECRETS_FILE } from '../src/automations/automation-store.js';
import { request, startScratchService } from './helpers.js';
import { automationCalls } from './support/automation-calls.js';
import { startReceivers } from './support/webhook-receivers.js';

const SLACK = 'https://hooks.slack.com/services/T0HOSTILE/B0HOSTILE/slackSecretPart';
const POST = 'https://hooks.example.com/postSecretPart';
const BOT = '987654321:AAHostileBotSecretPart_0123456789abc';

async function setUp(t, options = {}) {
  const running = await startScratchService(t, { automations: { recheckMs: 50, tickEveryMs: 50, ...options } });
  const project = path.join(running.folder, 'projects', 'app');
  fs.mkdirSync(project, { recursive: true });
  return { ...running, project, ...automationCalls(running, 15000) };
}

const shellOnly = (project, command, more = {}) => ({
  name: 'Hostile',
  trigger: { kind: 'webhook' },
  steps: [{ id: 'st_sh', kind: 'shell', if: null, projectPath: project, command, timeoutSec: 30 }],
  outputs: [],
  budget: null,
  confirmShell: true,
  ...more,
});

test('calls on the wrong port, with the wrong token or of things that aren’t there change nothing', async (t) => {
  const { service, local, token: admin, project, save, runs, ended } = await setUp(t);
  const { automation, token } = await save(shellOnly(project, 'echo ran'));
  const id = automation.id;
  const run = await ended(id, (await local('POST', `/v1/automations/${id}/run`, { body: {} })).json.run.id);
  const body = shellOnly(project, 'echo more');
  const api = (method, target, options) => request(service.apiPort, method, target, options);
  const bearer = (value) => ({ headers: { Authorization: `Bearer ${value}` } });

  const rows = [
    ['a save without the admin token', () => local('POST', '/v1/automations', { body, headers: { Authorization: '' } }), 401],
    ['a save with a webhook’s token as the admin token', () => local('POST', '/v1/automations', { body, ...bearer(token) }), 401],
    ['the book on the API port, even with the admin token', () => api('POST', '/v1/automations', { body, ...bearer(admin) }), 404],
    ['a run on the API port', () => api('POST', `/v1/automations/${id}/run`, { body: {}, ...bearer(admin) }), 404],
    ['the runs on the API port', () => api('GET', `/v1/automations/${id}/runs`, bearer(admin)), 404],
    ['the webhook door on the local port with the webhook’s token', () => local('POST', `/v1/automations/${id}/fire`, { body: 'x', ...bearer(token) }), 401],
    ['the webhook’s token in the address', () => api('POST', `/v1/automations/${id}/fire?token=${token}`, { body: 'x' }), 401],
    ['a body that isn’t JSON', () => local('POST', '/v1/automations', { body: 'name=Hostile&steps=rm' }), 400],
    ['a JSON list for an automation', () => local('POST', '/v1/automations', { body: [body] }), 400],
    ['a JSON text for a retry', () => local('POST', `/v1/automations/runs/${run.id}/retry`, { body: '"st_sh"' }), 400],
    ['a retry from a step the run doesn’t have', () => local('POST', `/v1/automations/runs/${run.id}/retry`, { body: { fromStep: 'st_gone' } }), 400, 'bad_step'],
    ['a retry of a run that isn’t there', () => local('POST', '/v1/automations/runs/ru_00000000/retry', { body: {} }), 404],
    ['an answer to a run that isn’t asking', () => local('POST', `/v1/automations/runs/${run.id}/answer`, { body: { stepId: 'st_sh', answer: 'Ship' } }), 409, 'not_asking'],
    ['an answer to a run that isn’t there', () => local('POST', '/v1/automations/runs/ru_00000000/answer', { body: { stepId: 'st_q', answer: 'Ship' } }), 404],
    ['a run id that climbs', () => local('POST', '/v1/automations/runs/..%2F..%2Fadmin-token/answer', { body: { stepId: 'st_q', answer: 'Ship' } }), 404],
    ['the runs of an id that climbs', () => local('GET', '/v1/automations/..%2Fautomations/runs'), 404],
  ];
  for (const [name, call, status, code] of rows) {
    await t.test(name, async () => {
      const reply = await call();
      assert.equal(reply.status, status, reply.text);
      assert.match(reply.json.error.message, /\S/, 'a sentence says why');
      if (code) assert.equal(reply.json.error.code, code);
    });
  }
  const list = (await local('GET', '/v1/automations')).json.automations;
  assert.deepEqual(list.map((each) => each.id), [id]);
  assert.deepEqual((await runs(id)).map((each) => each.id), [run.id]);
});

test('a project swapped for a link out of the projects after saving runs nothing there', async (t) => {
  const { local, folder, project, save, ended } = await setUp(t);
  const { automation } = await save(shellOnly(project, 'touch made-here'));
  const outside = path.join(folder, 'outside');
  fs.mkdirSync(outside);
  fs.rmSync(project, { recursive: true });
  fs.symlinkSync(outside, project);

  const run = await ended(automation.id, (await local('POST', `/v1/automations/${automation.id}/run`, { body: {} })).json.run.id);
  assert.deepEqual([run.state, run.reason, run.steps[0].reason], ['failed', 'outside_projects', 'outside_projects']);
  assert.deepEqual(fs.readdirSync(outside), []);
});

test('after a run whose places refused it, no secret is in a reply, the snapshot, the log or any file but the private one', async (t) => {
  const receivers = await startReceivers(t);
  const { service, local, snapshot, support, logs, project, save, ended } = await setUp(t, { resolve: receivers.resolve });
  const outputs = [
    { id: 'ou_s', kind: 'webhook', preset: 'slack', url: SLACK },
    { id: 'ou_p', kind: 'webhook', preset: 'post', url: POST },
  ];
  const first = await save(shellOnly(project, 'printf "%s" "$TIDEWATCH_PAYLOAD"', { outputs }));
  // Telegram's place is tried alone: an automation tells two places at most.
  const second = await save(shellOnly(project, 'echo told', { outputs: [{ id: 'ou_t', kind: 'webhook', preset: 'telegram', botToken: BOT, chatId: '42' }] }));
  receivers.slack.plan('no_service');
  receivers.post.plan('not_found');
  receivers.telegram.plan('chat_not_found');

  const fire = (made, payload) =>
    request(service.apiPort, 'POST', `/v1/automations/${made.automation.id}/fire`, { body: payload, headers: { Authorization: `Bearer ${made.token}` } });
  const firstFired = await fire(first, Buffer.from('ship\u0000it \xff', 'latin1'));
  assert.equal(firstFired.status, 200, firstFired.text);
  const run = await ended(first.automation.id, firstFired.json.run.id);
  const other = await ended(second.automation.id, (await fire(second, 'x')).json.run.id);

  assert.equal(run.steps[0].result, 'shipit \ufffd', 'a NUL never reaches the command; bytes that aren’t UTF-8 are words all the same');
  assert.deepEqual(run.outputs.map((output) => [output.state, output.error]), [
    ['failed', 'Slack answered 404: no_service'],
    ['failed', 'hooks.example.com answered 404: Cannot POST …'],
  ]);
  assert.deepEqual(other.outputs.map((output) => [output.state, output.error]), [['failed', 'Telegram answered 400: Bad Request: chat not found']]);

  const secrets = [first.token, second.token, 'slackSecretPart', 'postSecretPart', BOT, BOT.split(':')[1]];
  const told = [
    JSON.stringify(await snapshot()),
    (await local('GET', '/v1/automations')).text,
    (await local('GET', `/v1/automations/${first.automation.id}/runs`)).text,
    (await local('GET', `/v1/automations/${second.automation.id}/runs`)).text,
  ];
  await service.close();
  const files = (folderPath) =>
    fs.readdirSync(folderPath, { recursive: true, withFileTypes: true }).filter((entry) => entry.isFile() && entry.name !== SECRETS_FILE);
  for (const entry of [...files(support), ...files(logs)]) told.push(fs.readFileSync(path.join(entry.parentPath, entry.name), 'latin1'));
  for (const secret of secrets) assert.ok(told.every((text) => !text.includes(secret)), `${secret.slice(0, 8)}… is told nowhere`);
  assert.ok(fs.readFileSync(path.join(support, SECRETS_FILE), 'utf8').includes('slackSecretPart'), 'the private file keeps it');
});
