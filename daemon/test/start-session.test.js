// Sessions the service starts itself (POST /v1/sessions): real Claude Code
// through the agent SDK, offline against the Messages API stand-in, with the
// integration's hooks installed too. Its permission request waits as an
// approval answered by the app's route, continuing goes on in the same
// conversation, and a request past the limit waits in line. Refusals first.

import assert from 'node:assert/strict';
import fs from 'node:fs';
import path from 'node:path';
import { test } from 'node:test';

import { DENY_MESSAGE } from '../src/claude/permission.js';
import { CONTINUE_PROMPT } from '../src/sessions/continuer.js';
import { IN_LINE, MAX_RUNNING } from '../src/sessions/session-runner.js';
import { MAX_ALLOWED_TOOLS, MAX_ENV_VARS, MAX_PROMPT_CHARS } from '../src/sessions/session-request.js';
import { eventually } from './helpers.js';
import { missingClaude } from './support/claude-code.js';
import { prompts, setUp } from './support/service-sessions.js';

const long = (n) => 'x'.repeat(n);

// Each row a body (over a valid one) that is refused, and the field named.
const REFUSALS = [
  { name: 'no prompt', body: { prompt: undefined }, field: 'prompt' },
  { name: 'a blank prompt', body: { prompt: '  \n ' }, field: 'prompt' },
  { name: 'a prompt over the limit', body: { prompt: long(MAX_PROMPT_CHARS + 1) }, field: 'prompt' },
  { name: 'no project', body: { project: undefined }, field: 'project' },
  { name: 'a relative project', body: { project: 'project' }, field: 'project' },
  { name: 'a project that isn’t there', body: ({ project }) => ({ project: `${project}-gone` }), field: 'project' },
  { name: 'a project that is a file', body: ({ folder }) => ({ project: path.join(folder, 'home', '.claude.json') }), field: 'project' },
  { name: 'a project outside the home', body: ({ folder }) => ({ project: path.dirname(folder) }), field: 'project' },
  {
    name: 'a link in the home to a folder outside',
    body: ({ folder }) => {
      fs.symlinkSync(path.dirname(folder), path.join(folder, 'outside'));
      return { project: path.join(folder, 'outside') };
    },
    field: 'project',
  },
  { name: 'an unknown agent', body: { agent: 'gemini' }, field: 'agent' },
  { name: 'Codex where none is installed', body: { agent: 'codex' }, field: 'agent', said: /Codex isn’t installed/ },
  { name: 'a mode the SDK doesn’t take', body: { permissionMode: 'yolo' }, field: 'permissionMode' },
  { name: 'tools that aren’t a list', body: { allowedTools: 'Bash' }, field: 'allowedTools' },
  { name: 'too many tools', body: { allowedTools: Array(MAX_ALLOWED_TOOLS + 1).fill('Read') }, field: 'allowedTools' },
  { name: 'an environment that sets PATH', body: { env: { PATH: '/tmp' } }, field: 'env' },
  { name: 'a loader variable', body: { env: { LD_PRELOAD: '/tmp/x.so' } }, field: 'env' },
  { name: 'a name that isn’t a variable’s', body: { env: { 'A-B': '1' } }, field: 'env' },
  { name: 'a value that isn’t text', body: { env: { API_KEY: 1 } }, field: 'env' },
  {
    name: 'too many variables',
    body: { env: Object.fromEntries(Array.from({ length: MAX_ENV_VARS + 1 }, (_, i) => [`V${i}`, '1'])) },
    field: 'env',
  },
  { name: 'an unknown origin', body: { origin: 'watch' }, field: 'origin' },
];

test('a request to start a session is refused, naming the field, for', async (t) => {
  const setup = await setUp(t);
  for (const { name, body, field, said } of REFUSALS) {
    await t.test(name, async () => {
      const reply = await setup.start(typeof body === 'function' ? body(setup) : body);
      assert.equal(reply.status, 400);
      assert.equal(reply.json.error.field, field);
      assert.match(reply.json.error.message, said ?? /\.$/);
    });
  }
  assert.deepEqual((await setup.snapshot()).sessions, [], 'nothing started');
  assert.equal((await setup.service.local('POST', '/v1/sessions', { body: {}, headers: { Authorization: 'Bearer wrong' } })).status, 401);
});

// Without the SDK, `claude -p` runs the session and its request reaches the approvals through the hooks.
const WITHOUT_SDK = { agentSdk: async () => null };

const ANSWERS = [
  { name: 'allowed from Tidewatch, the command runs', decision: 'allow', made: true },
  { name: 'denied from Tidewatch, nothing is done', decision: 'deny', made: false },
  { name: 'without the SDK, allowed through the hook', decision: 'allow', made: true, more: WITHOUT_SDK },
];

for (const { name, decision, made, more } of ANSWERS) {
  test(`slow: a session the service starts asks through an approval: ${name}`, { skip: missingClaude() ?? false, timeout: 60000 }, async (t) => {
    const { start, snapshot, service, target, standIn, project } = await setUp(t, undefined, more);
    const reply = await start();
    assert.equal(reply.status, 200);
    const { session } = reply.json;
    assert.deepEqual(
      [session.origin, session.cwd, session.title, session.permissionMode, session.term],
      ['mac', project, 'make a file please', 'default', undefined],
    );

    const approval = await eventually(async () => (await snapshot()).approvals[0], 'an approval', 30000);
    assert.deepEqual([approval.sessionId, approval.toolName, approval.summary], [session.id, 'Bash', `touch ${target}`]);
    const waiting = (await snapshot()).sessions.find((each) => each.id === session.id);
    assert.deepEqual([waiting.state, waiting.pendingApprovalIds], ['needs_you', [approval.id]]);
    assert.equal((await snapshot()).sessions.length, 1, 'one session, under the id the reply gave');

    const answer = await service.local('POST', `/v1/approvals/${approval.id}/decision`, { body: { decision } });
    assert.equal(answer.status, 200);
    const done = await eventually(async () => {
      const now = (await snapshot()).sessions[0];
      return now.state === 'idle' && now;
    }, 'the turn done', 30000);
    assert.equal(done.lastText, 'Done.');
    assert.match(done.model, /claude/);
    assert.equal(fs.existsSync(target), made);
    assert.deepEqual((await snapshot()).approvals, []);
    const results = JSON.stringify(standIn.requests.map((request) => request.body?.messages));
    assert.equal(results.includes(DENY_MESSAGE), decision === 'deny');
  });
}

test('slow: continuing a session the service ran asks again in the same conversation', { skip: missingClaude() ?? false, timeout: 60000 }, async (t) => {
  const { start, snapshot, service, standIn } = await setUp(t, { tool: null });
  const { session } = (await start({ prompt: 'say hello', origin: 'phone' })).json;
  const idle = async () => (await snapshot()).sessions[0].state === 'idle';
  await eventually(idle, 'the first turn done', 30000);
  assert.equal((await snapshot()).sessions[0].origin, 'phone');

  assert.equal((await service.post(`/v1/sessions/${session.id}/continue`, {})).status, 200);
  await eventually(() => prompts(standIn).includes(CONTINUE_PROMPT), 'the continue prompt reached the API', 30000);
  await eventually(idle, 'the second turn done', 30000);
  const asked = standIn.requests.filter((request) => request.body?.tools?.length > 0).at(-1);
  assert.match(JSON.stringify(asked.body.messages), /say hello/, 'the first prompt is in the conversation');
  assert.deepEqual(
    (await snapshot()).sessions.map((each) => each.id),
    [session.id],
  );
});

test(`slow: beyond ${MAX_RUNNING} sessions at once, one waits in line until another ends`, { skip: missingClaude() ?? false, timeout: 120000 }, async (t) => {
  const { start, snapshot, service } = await setUp(t);
  const ids = [];
  for (let i = 0; i <= MAX_RUNNING; i++) ids.push((await start()).json.session.id);
  const last = () => snapshot().then((now) => now.sessions.find((each) => each.id === ids.at(-1)));
  assert.deepEqual([(await last()).state, (await last()).activity], ['starting', IN_LINE]);

  const approvals = await eventually(async () => {
    const now = (await snapshot()).approvals;
    return now.length === MAX_RUNNING && now;
  }, 'the running sessions ask', 60000);
  assert.equal((await last()).state, 'starting', 'still in line');
  await service.local('POST', `/v1/approvals/${approvals[0].id}/decision`, { body: { decision: 'deny' } });
  await eventually(async () => (await last()).pendingApprovalIds?.length === 1, 'the one in line started and asks', 60000);
  assert.notEqual((await last()).activity, IN_LINE);
});
