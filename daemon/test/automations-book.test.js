// The book of automations through its routes: secrets shown once and kept
// apart, the webhook door and its token, what survives a restart, the
// snapshot part it publishes, the schedule check and the limits.

import assert from 'node:assert/strict';
import fs from 'node:fs';
import path from 'node:path';
import test from 'node:test';

import { MAX_AUTOMATION_BODY_BYTES, MAX_PAYLOAD_BYTES } from '../src/automations/automation-routes.js';
import { AUTOMATIONS_FILE, SECRETS_FILE } from '../src/automations/automation-store.js';
import { FEATURES, LIMITS } from '../src/automations/validate.js';
import { startBook, TestClock } from './support/automation-book.js';

const SLACK = 'https://hooks.slack.com/services/T0AAAA/B0BBBB/secretpartXYZ1';
const BOT = `987654:${'Q'.repeat(30)}tokenEnd`;

const withPlaces = (outputs) => ({
  name: 'Morning brief',
  trigger: { kind: 'webhook' },
  steps: [{ id: 'st_n', kind: 'notify', text: 'Fired with {payload}.' }],
  outputs,
  budget: null,
});
const places = [
  { id: 'ou_s', kind: 'webhook', preset: 'slack', url: SLACK, text: null },
  { id: 'ou_t', kind: 'webhook', preset: 'telegram', botToken: BOT, chatId: '-1001234567890' },
];
const readFile = (book, name) => fs.readFileSync(path.join(book.support, name), 'utf8');

test('secrets are shown once and kept apart', async (t) => {
  const book = await startBook(t);
  const made = await book.local('POST', '/v1/automations', withPlaces(places));
  assert.equal(made.status, 200);
  const { automation, token } = made.json;
  const id = automation.id;

  await t.test('the reply that made them carries the token, and the outputs only host and last four', () => {
    assert.match(id, /^au_[0-9a-f]{8}$/);
    assert.match(token, /^[A-Za-z0-9_-]{43}$/, '32 random bytes, base64url');
    assert.deepEqual(automation.outputs, [
      { id: 'ou_s', kind: 'webhook', text: null, preset: 'slack', host: 'hooks.slack.com', last4: 'XYZ1' },
      { id: 'ou_t', kind: 'webhook', text: null, preset: 'telegram', host: 'api.telegram.org', last4: 'nEnd' },
    ]);
    const url = `http://127.0.0.1:${book.apiPort}/v1/automations/${id}/fire`;
    assert.deepEqual(automation.trigger, {
      kind: 'webhook',
      last4: token.slice(-4),
      createdAt: book.clock.now(),
      url,
      command: `curl -fsS -X POST -H "Authorization: Bearer $TIDEWATCH_TOKEN" --data-binary @- '${url}'`,
    });
  });

  await t.test('no later reply, nor the records’ file, holds a secret; the 0600 file beside it does', async () => {
    const secrets = [SLACK, BOT, '-1001234567890', token];
    const later = [
      await book.local('GET', '/v1/automations'),
      await book.local('POST', `/v1/automations/${id}/enabled`, { enabled: true }),
      await book.local('PUT', `/v1/automations/${id}`, withPlaces([{ id: 'ou_s', kind: 'webhook', preset: 'slack' }])),
    ];
    for (const reply of later) {
      assert.equal(reply.status, 200, reply.text);
      for (const secret of secrets) assert.ok(!reply.text.includes(secret), `${secret.slice(0, 12)}… stays out of ${reply.text.slice(0, 40)}`);
      assert.equal(reply.json.token, undefined);
    }
    for (const part of book.published) for (const secret of secrets) assert.ok(!JSON.stringify(part).includes(secret));
    const records = readFile(book, AUTOMATIONS_FILE);
    for (const secret of secrets) assert.ok(!records.includes(secret), 'the records’ file holds no secret');
    const kept = readFile(book, SECRETS_FILE);
    assert.ok(kept.includes(SLACK), 'the address kept without being typed again');
    assert.ok(!kept.includes(token), 'only the token’s hash is kept');
    for (const name of [AUTOMATIONS_FILE, SECRETS_FILE]) assert.equal(fs.statSync(path.join(book.support, name)).mode & 0o777, 0o600, name);
  });

  await t.test('an output saved without a new address keeps the one it had; the other went with its output', () => {
    assert.deepEqual(book.store.secretOf(id, 'ou_s'), { url: SLACK });
    assert.equal(book.store.secretOf(id, 'ou_t'), null);
    assert.ok(!readFile(book, SECRETS_FILE).includes(BOT));
  });

  await t.test('a kept output moved to another service needs its address', async () => {
    const moved = await book.local('PUT', `/v1/automations/${id}`, withPlaces([{ id: 'ou_s', kind: 'webhook', preset: 'discord' }]));
    assert.deepEqual([moved.status, moved.json.error.code, moved.json.error.field], [400, 'url_needed', 'outputs[0].url']);
  });

  await t.test('a kept Telegram output takes a new chat alone and keeps its token', async () => {
    await book.local('PUT', `/v1/automations/${id}`, withPlaces(places));
    const chat = await book.local('PUT', `/v1/automations/${id}`, withPlaces([{ id: 'ou_t', kind: 'webhook', preset: 'telegram', chatId: '@tidewatch_news' }]));
    assert.equal(chat.status, 200, chat.text);
    assert.deepEqual(book.store.secretOf(id, 'ou_t'), { botToken: BOT, chatId: '@tidewatch_news' });
  });
});

test('the webhook door', async (t) => {
  const book = await startBook(t);
  const make = async (name) => (await book.local('POST', '/v1/automations', { ...withPlaces([]), name })).json;
  const { automation, token } = await make('Door');
  const other = await make('Other door');
  const id = automation.id;

  await t.test('what isn’t this automation’s token gets 401 and starts nothing', async () => {
    const rows = [
      ['no token', id, undefined],
      ['a wrong token', id, `${token.slice(0, -1)}${token.endsWith('A') ? 'B' : 'A'}`],
      ['another automation’s token', id, other.token],
      ['the admin token', id, 'admin-token-of-the-test'],
      ['an automation that isn’t there', 'au_00000000', token],
    ];
    for (const [name, target, given] of rows) {
      const reply = await book.fire(target, { token: given, body: 'hello' });
      assert.deepEqual([reply.status, reply.json.error.code, reply.headers['www-authenticate']], [401, 'unauthorized', 'Bearer'], name);
    }
    assert.deepEqual(book.engine.runs, []);
  });

  await t.test('its token starts a run with the body as payload', async () => {
    book.clock.at += 60_000;
    const reply = await book.fire(id, { token, body: 'build 42 passed\nmore lines' });
    assert.equal(reply.status, 200, reply.text);
    assert.deepEqual(book.engine.runs, [
      {
        id: 'ru_1',
        automationId: id,
        state: 'queued',
        fired: { by: 'webhook', at: book.clock.now(), detail: 'build 42 passed' },
        payload: 'build 42 passed\nmore lines',
      },
    ]);
    assert.equal(reply.json.run.id, 'ru_1');
  });

  await t.test('a payload past 64 KiB is refused before any run', async () => {
    const reply = await book.fire(id, { token, body: 'p'.repeat(MAX_PAYLOAD_BYTES + 1) });
    assert.deepEqual([reply.status, reply.json.error.code], [413, 'too_large']);
    assert.equal((await book.fire(id, { token, body: 'p'.repeat(MAX_PAYLOAD_BYTES) })).status, 200);
    assert.equal(book.engine.runs.length, 2);
  });

  await t.test('a call passed on by a proxy is not this computer’s', async () => {
    const reply = await book.fire(id, { token, body: 'x', headers: { 'X-Forwarded-For': '100.64.0.2' } });
    assert.deepEqual([reply.status, reply.json.error.code], [403, 'not_local']);
  });

  await t.test('switched off or paused, it starts nothing', async () => {
    await book.local('POST', `/v1/automations/${id}/enabled`, { enabled: false });
    assert.deepEqual([(await book.fire(id, { token })).json.error.code], ['disabled']);
    await book.local('POST', `/v1/automations/${id}/enabled`, { enabled: true });
    await book.local('POST', '/v1/automations/paused', { paused: true });
    assert.equal(book.engine.paused, true, 'the engine is told');
    assert.deepEqual([(await book.fire(id, { token })).json.error.code], ['paused']);
    await book.local('POST', '/v1/automations/paused', { paused: false });
    assert.equal(book.engine.runs.length, 2);
  });

  await t.test('a new token ends the old one at once', async () => {
    const renewed = await book.local('POST', `/v1/automations/${id}/token`);
    assert.equal(renewed.status, 200);
    assert.notEqual(renewed.json.token, token);
    assert.equal(renewed.json.automation.trigger.last4, renewed.json.token.slice(-4));
    assert.equal((await book.fire(id, { token })).status, 401);
    assert.equal((await book.fire(id, { token: renewed.json.token })).status, 200);
  });

  await t.test('a trigger that stops being a webhook loses its token; one that becomes one gets a new', async () => {
    const cron = { ...withPlaces([]), trigger: { kind: 'cron', expr: '0 9 * * *' }, steps: [{ id: 'st_n', kind: 'notify', text: 'Nine.' }] };
    const moved = await book.local('PUT', `/v1/automations/${other.automation.id}`, cron);
    assert.deepEqual([moved.json.token, moved.json.automation.trigger], [undefined, { kind: 'cron', expr: '0 9 * * *' }]);
    assert.equal((await book.fire(other.automation.id, { token: other.token })).status, 401);
    assert.deepEqual((await book.local('POST', `/v1/automations/${other.automation.id}/token`)).json.error.code, 'bad_trigger');
    const back = await book.local('PUT', `/v1/automations/${other.automation.id}`, withPlaces([]));
    assert.equal((await book.fire(other.automation.id, { token: back.json.token })).status, 200);
  });
});

test('the book survives a restart', async (t) => {
  const first = await startBook(t);
  const { automation, token } = (await first.local('POST', '/v1/automations', withPlaces(places))).json;
  await first.local('POST', '/v1/automations/paused', { paused: true });

  const again = await startBook(t, { folder: first.folder, clock: new TestClock(first.clock.now() + 1000) });
  const listed = (await again.local('GET', '/v1/automations')).json;
  assert.equal(listed.paused, true);
  assert.deepEqual(
    listed.automations.map(({ trigger: { url, command, ...kept }, ...rest }) => ({ ...rest, trigger: kept })),
    [{ ...automation, trigger: { kind: 'webhook', last4: automation.trigger.last4, createdAt: automation.trigger.createdAt }, nextAt: null, lastRun: null }],
  );
  assert.equal(listed.automations[0].trigger.url, `http://127.0.0.1:${again.apiPort}/v1/automations/${automation.id}/fire`, 'the port in use now');
  assert.deepEqual(again.store.secretOf(automation.id, 'ou_s'), { url: SLACK });
  assert.equal(again.store.checkToken(automation.id, token), true);
  assert.equal(again.store.checkToken(automation.id, 'nope'), false);
});

test('a broken file is set aside and the book starts empty', async (t) => {
  const first = await startBook(t);
  fs.writeFileSync(path.join(first.support, AUTOMATIONS_FILE), '{"format":1,"automations":[');
  const again = await startBook(t, { folder: first.folder });
  assert.deepEqual(again.store.list(), []);
  assert.ok(fs.existsSync(path.join(first.support, `${AUTOMATIONS_FILE}.broken`)));
});

test('the routes of the book', async (t) => {
  const book = await startBook(t);
  const cron = (expr, name = 'Weekday brief') => ({
    name,
    trigger: { kind: 'cron', expr },
    steps: [{ id: 'st_n', kind: 'notify', text: 'Morning.' }],
    budget: { minutes: 30, windowPct: null },
  });
  const made = (await book.local('POST', '/v1/automations', cron('0 9 * * 1-5'))).json.automation;

  await t.test('the list carries the features, the next time and the last run', async () => {
    book.engine.fire(made, { by: 'now', at: book.clock.now() });
    const listed = (await book.local('GET', '/v1/automations')).json;
    assert.deepEqual(listed.features, FEATURES);
    assert.equal(listed.paused, false);
    const [one] = listed.automations;
    const next = new Date(book.clock.now());
    next.setHours(9, 0, 0, 0);
    while (next.getTime() <= book.clock.now() || [0, 6].includes(next.getDay())) next.setDate(next.getDate() + 1);
    assert.equal(one.nextAt, next.getTime());
    assert.deepEqual(one.lastRun, { id: 'ru_1', automationId: made.id, state: 'queued', fired: { by: 'now', at: book.clock.now() } });
    assert.deepEqual(one.budget, { minutes: 30, windowPct: null });
  });

  await t.test('the snapshot part follows every change', async () => {
    const before = book.published.length;
    await book.local('POST', `/v1/automations/${made.id}/enabled`, { enabled: false });
    const part = book.published.at(-1);
    assert.ok(book.published.length > before);
    assert.deepEqual([part.paused, part.features, part.list[0].enabled, part.list[0].nextAt], [false, FEATURES, false, null]);
    await book.local('POST', '/v1/automations/paused', { paused: true });
    assert.equal(book.published.at(-1).paused, true);
    const count = book.published.length;
    book.status.refresh();
    assert.equal(book.published.length, count, 'nothing new, nothing published');
  });

  await t.test('a schedule is checked without keeping anything', async () => {
    const rows = [
      ['a cron', { kind: 'cron', expr: '30 9 * * *' }, 200, 5],
      ['a time', { kind: 'time', at: '07:15', days: [1, 3] }, 200, 5],
      ['an event', { kind: 'webhook' }, 200, 0],
      ['too often', { kind: 'cron', expr: '* * * * *' }, 400, 'too_often'],
      ['no schedule', { kind: 'cron', expr: 'soon' }, 400, 'bad_cron'],
    ];
    for (const [name, trigger, status, expected] of rows) {
      const reply = await book.local('POST', '/v1/automations/check', { trigger });
      assert.equal(reply.status, status, name);
      if (status === 200) {
        assert.equal(reply.json.next.length, expected, name);
        assert.ok(reply.json.next.every((at, i) => at > (reply.json.next[i - 1] ?? book.clock.now())), `${name}: soonest first, after now`);
      } else assert.equal(reply.json.error.code, expected, name);
    }
    assert.equal(book.store.list().length, 1);
  });

  await t.test('what names nothing is 404; a body past its limit 413', async () => {
    const rows = [
      ['PUT', '/v1/automations/au_00000000', cron('0 9 * * *'), 404, 'not_found'],
      ['DELETE', '/v1/automations/au_00000000', undefined, 404, 'not_found'],
      ['POST', '/v1/automations/au_00000000/enabled', { enabled: true }, 404, 'not_found'],
      ['POST', '/v1/automations/au_00000000/token', undefined, 404, 'not_found'],
      ['POST', `/v1/automations/${made.id}/enabled`, { enabled: 'yes' }, 400, 'invalid'],
      ['POST', '/v1/automations', { ...cron('0 9 * * *'), pad: 'x'.repeat(MAX_AUTOMATION_BODY_BYTES) }, 413, 'too_large'],
    ];
    for (const [method, target, body, status, code] of rows) {
      const reply = await book.local(method, target, body);
      assert.deepEqual([reply.status, reply.json.error.code], [status, code], `${method} ${target}`);
    }
  });

  await t.test('at 50 automations the next is refused', async () => {
    const valid = { automation: { name: 'Filler', enabled: true, onlyOnce: false, trigger: { kind: 'webhook' }, steps: [], outputs: [], budget: null }, secrets: {} };
    while (book.store.list().length < LIMITS.automations) book.store.create(valid);
    const refused = await book.local('POST', '/v1/automations', cron('0 9 * * *'));
    assert.deepEqual([refused.status, refused.json.error.code], [409, 'too_many']);
    assert.equal(book.store.list().length, LIMITS.automations);
  });

  await t.test('a deleted automation is gone with its secrets', async () => {
    const id = book.store.list().at(-1).id;
    assert.deepEqual((await book.local('DELETE', `/v1/automations/${id}`)).json, { removed: id });
    assert.equal(book.store.get(id), null);
    assert.ok(!readFile(book, SECRETS_FILE).includes(id));
    assert.ok(!readFile(book, AUTOMATIONS_FILE).includes(id));
  });
});
