// Real Claude Code (`claude -p`), offline against the Messages API stand-in,
// with the integration installed in a scratch home: its permission request
// reaches the service and its feed, and the answer given there is the one
// Claude Code acts on. Slow tests (a real program each); select them with
// --test-name-pattern='^slow:'.

import assert from 'node:assert/strict';
import fs from 'node:fs';
import path from 'node:path';
import { test } from 'node:test';

import { DENY_MESSAGE } from '../src/claude/permission.js';
import { eventually, startScratchService } from './helpers.js';
import { claudeHome, claudePrint, missingClaude, standInFor } from './support/claude-code.js';
import { until } from './support/until.js';

const skip = missingClaude() ?? false;

async function setUp(t, { claude } = {}) {
  const service = await startScratchService(t, { claude });
  const { home, project } = claudeHome(service.folder, service.support);
  const target = path.join(project, 'made-by-claude');
  const standIn = await standInFor(t, {
    tool: { name: 'Bash', input: { command: `touch ${target}`, description: 'Make a file' } },
  });
  return { service, home, project, target, standIn };
}

const waitingApproval = (service) =>
  until(
    async () => (await service.local('GET', '/v1/snapshot')).json.approvals[0],
    'an approval in the snapshot',
    30000,
  );

// The tool results Claude Code sent back to the model.
const toolResults = (standIn) =>
  standIn.requests.flatMap((request) =>
    (request.body?.messages ?? []).flatMap((message) =>
      Array.isArray(message.content) ? message.content.filter((block) => block?.type === 'tool_result') : [],
    ),
  );

const answerCases = [
  { name: 'allow from the panel runs the command', decision: 'allow', made: true },
  { name: 'a session-wide allow runs it too', decision: 'session', made: true },
  { name: 'deny from the panel leaves nothing done, and Claude Code says so', decision: 'deny', made: false },
];

for (const { name, decision, made } of answerCases) {
  test(`slow: claude -p: ${name}`, { skip, timeout: 60000 }, async (t) => {
    const { service, home, project, target, standIn } = await setUp(t);
    const feed = await service.feed();
    const run = claudePrint(t, { home, project, standIn, prompt: 'make a file please' });

    const approval = await waitingApproval(service);
    assert.equal(approval.kind, 'tool');
    assert.equal(approval.toolName, 'Bash');
    assert.equal(approval.summary, `touch ${target}`);
    assert.equal(approval.canSession, true);
    const session = (await service.local('GET', '/v1/snapshot')).json.sessions.find((s) => s.id === approval.sessionId);
    assert.equal(session.state, 'needs_you');
    assert.deepEqual(session.pendingApprovalIds, [approval.id]);
    assert.equal(session.cwd, project);
    assert.equal(session.title, 'make a file please');
    // The feed carried the approval, and the session waiting on it.
    assert.equal((await feed.next('approval', 10000)).approval.id, approval.id);
    await eventually(
      () => feed.ofType('session').some((m) => m.session.id === approval.sessionId && m.session.state === 'needs_you'),
      'the waiting session on the feed',
    );

    const answer = await service.local('POST', `/v1/approvals/${encodeURIComponent(approval.id)}/decision`, {
      body: { decision },
    });
    assert.equal(answer.status, 200);
    const result = await run.done;
    assert.equal(result.code, 0, result.stderr);
    assert.equal(fs.existsSync(target), made);

    const results = toolResults(standIn);
    assert.equal(results.length, 1);
    if (made) assert.notEqual(results[0].is_error, true);
    else assert.match(JSON.stringify(results[0].content), new RegExp(DENY_MESSAGE));

    const state = (await service.local('GET', '/qa/state')).json;
    assert.deepEqual(
      state.decisions.map(({ id, decision: d, by }) => ({ id, d, by })),
      [{ id: approval.id, d: decision, by: 'mac' }],
    );
    await until(
      async () =>
        (await service.local('GET', '/v1/snapshot')).json.sessions.find((s) => s.id === approval.sessionId)?.state ===
        'ended',
      'the session ended',
    );
    const ended = (await service.local('GET', '/v1/snapshot')).json.sessions.find((s) => s.id === approval.sessionId);
    assert.equal(ended.lastText, 'Done.');
  });
}

test(
  'slow: claude -p: with nobody answering, the request is given up and Claude Code decides alone',
  { skip, timeout: 60000 },
  async (t) => {
    const waitMs = 3000;
    const { service, home, project, target, standIn } = await setUp(t, { claude: { approvalWaitMs: waitMs } });
    const feed = await service.feed();
    const run = claudePrint(t, { home, project, standIn, prompt: 'make a file please' });
    const approval = await waitingApproval(service);

    const result = await run.done;
    assert.equal(result.code, 0, result.stderr);
    // It waited for the answer before going on without one.
    assert.ok(result.ms >= waitMs - 500, `Claude Code went on after ${result.ms} ms`);
    assert.equal(fs.existsSync(target), false);
    // Claude Code's own refusal, not ours: there is no prompt to ask in -p.
    assert.doesNotMatch(JSON.stringify(toolResults(standIn)), new RegExp(DENY_MESSAGE));
    const resolved = await feed.next('approval.resolved', 5000);
    assert.deepEqual(resolved, {
      t: 'approval.resolved',
      id: approval.id,
      sessionId: approval.sessionId,
      decision: null,
      by: null,
    });
    assert.deepEqual((await service.local('GET', '/v1/snapshot')).json.approvals, []);
  },
);

test(
  'slow: claude -p: with the service gone, Claude Code runs as if Tidewatch weren’t there',
  { skip, timeout: 60000 },
  async (t) => {
    const { service, home, project, target, standIn } = await setUp(t);
    await service.service.close();
    const run = claudePrint(t, { home, project, standIn, prompt: 'make a file please' });
    const result = await run.done;
    assert.equal(result.code, 0, result.stderr);
    assert.equal(fs.existsSync(target), false);
    assert.ok(result.ms < 20000, `it took ${result.ms} ms`);
  },
);

// Refusals as the API gives them to a subscription: a usage limit with the
// unified limit headers at their reset, and a sign-in that has run out.
// Claude Code fires StopFailure for both, but `claude -p` exits at once and
// may take its background hooks with it; the service has it from the
// transcript either way.
const refusalCases = [
  {
    name: 'a usage limit blocks the session until its reset, and the account is limited',
    error: (reset) => ({
      status: 429,
      type: 'rate_limit_error',
      message: 'Rate limited',
      headers: {
        'anthropic-ratelimit-unified-status': 'rejected',
        'anthropic-ratelimit-unified-representative-claim': 'five_hour',
        'anthropic-ratelimit-unified-reset': String(reset),
        'anthropic-ratelimit-unified-5h-status': 'rejected',
        'anthropic-ratelimit-unified-5h-utilization': '1.0',
        'anthropic-ratelimit-unified-5h-reset': String(reset),
      },
    }),
    blocked: (reset) => ({ kind: 'limit', resetsAt: reset * 1000 }),
    account: (reset) => ({
      state: 'limited',
      limit: { window: 'five_hour', resetsAt: reset * 1000, usingCredits: false },
    }),
    said: /hit your 5-hour limit/,
  },
  {
    name: 'a sign-in that ran out blocks the session, and the account is signed out',
    error: () => ({
      status: 401,
      type: 'authentication_error',
      message: 'OAuth token has expired. Please obtain a new token or refresh your existing token.',
    }),
    blocked: () => ({ kind: 'logged_out' }),
    account: () => ({ state: 'logged_out', reason: 'not_logged_in' }),
    said: /Failed to authenticate/,
  },
];

for (const { name, error, blocked, account, said } of refusalCases) {
  test(`slow: claude -p: ${name}`, { skip, timeout: 60000 }, async (t) => {
    const service = await startScratchService(t);
    const { home, project } = claudeHome(service.folder, service.support);
    const reset = Math.floor(Date.now() / 1000) + 3600;
    const standIn = await standInFor(t, { tool: null, error: error(reset) });
    const feed = await service.feed();
    const run = claudePrint(t, { home, project, standIn, prompt: 'say hello', subscription: true });
    const result = await run.done;
    assert.equal(result.code, 1);
    assert.match(result.stdout, said);

    const session = await until(
      async () => (await service.local('GET', '/v1/snapshot')).json.sessions.find((s) => s.state === 'ended'),
      'the session ended',
      15000,
    );
    assert.match(session.blocked.text, said);
    for (const [key, value] of Object.entries(blocked(reset))) assert.deepEqual(session.blocked[key], value, key);
    const state = (await service.local('GET', '/v1/snapshot')).json.account;
    for (const [key, value] of Object.entries(account(reset))) assert.deepEqual(state[key], value, key);
    // The app hears it on the feed, not only on its next read.
    const { state: accountState } = account(reset);
    const { kind } = blocked(reset);
    await eventually(() => feed.ofType('account').some((m) => m.account.state === accountState), 'the account on the feed');
    await eventually(() => feed.ofType('session').some((m) => m.session.blocked?.kind === kind), 'the block on the feed');
  });
}
