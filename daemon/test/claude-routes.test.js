// The service's doors for Claude Code's hooks, driven with the payloads
// Claude Code really sent (test/fixtures/claude): what each event does to
// the state, how a permission request is tied to its tool call and let go
// when the terminal answers first, and that a payload that can't be taken
// changes nothing.

import assert from 'node:assert/strict';
import fs from 'node:fs';
import path from 'node:path';
import { test } from 'node:test';
import { fileURLToPath } from 'node:url';

import { MAX_OPEN_APPROVALS } from '../src/claude/approval-broker.js';
import { eventually, startScratchService } from './helpers.js';

const fixtures = path.join(path.dirname(fileURLToPath(import.meta.url)), 'fixtures', 'claude');
const fixture = (name) => JSON.parse(fs.readFileSync(path.join(fixtures, name), 'utf8'));
const SESSION = fixture('session-start.json').session_id;

// Payloads moved into a scratch folder, with the transcript there.
function inFolder(event, folder) {
  const transcript = path.join(folder, `${event.session_id}.jsonl`);
  return { ...event, cwd: path.join(folder, 'project'), transcript_path: transcript };
}

async function setUp(t, options) {
  const service = await startScratchService(t, options);
  const transcript = path.join(service.folder, `${SESSION}.jsonl`);
  fs.writeFileSync(transcript, '');
  const send = (name, extra = {}) =>
    service.local('POST', '/claude/hook', { body: { ...inFolder(fixture(name), service.folder), ...extra } });
  const ask = (request, extra = {}, wait = 0) =>
    service.local('POST', `/claude/permission?request=${request}&wait=${wait}`, {
      body: { ...inFolder(fixture('permission-request-bash.json'), service.folder), ...extra },
    });
  const snapshot = async () => (await service.local('GET', '/v1/snapshot')).json;
  return { service, transcript, send, ask, snapshot };
}

test('a session goes from start to end through its events', async (t) => {
  const { send, snapshot } = await setUp(t);
  const steps = [
    ['session-start.json', { state: 'idle', projectName: 'project' }],
    ['user-prompt-submit.json', { state: 'working', title: 'make a file please' }],
    ['pre-tool-use-bash.json', { state: 'working', activity: 'Bash: touch /tmp/cc-try/proj/made-by-claude' }],
    ['post-tool-use-bash.json', { state: 'working', activity: undefined }],
    ['stop.json', { state: 'idle', lastText: 'Done.' }],
    [
      'stop-failure-rate-limit.json',
      {
        state: 'idle',
        blocked: { kind: 'limit', text: fixture('stop-failure-rate-limit.json').last_assistant_message },
      },
    ],
  ];
  for (const [name, expected] of steps) {
    assert.equal((await send(name)).status, 200, name);
    const session = (await snapshot()).sessions.find((each) => each.id === SESSION);
    for (const [key, value] of Object.entries(expected)) assert.deepEqual(session[key], value, `${name}: ${key}`);
  }
  assert.equal((await snapshot()).account.state, 'limited');
  await send('session-start.json', { hook_event_name: 'SessionEnd', reason: 'other' });
  assert.equal((await snapshot()).sessions[0].state, 'ended');
});

const hostile = [
  ['not an object', []],
  ['an event the service doesn’t follow', { ...fixture('stop.json'), hook_event_name: 'Delete' }],
  ['no session id', { ...fixture('stop.json'), session_id: undefined }],
  ['a session id that is a path', { ...fixture('stop.json'), session_id: '../../etc' }],
  ['a transcript that is another file', { ...fixture('stop.json'), transcript_path: '/etc/passwd' }],
  [
    'a transcript named like the session elsewhere, relatively',
    { ...fixture('stop.json'), transcript_path: `x/${SESSION}.jsonl` },
  ],
  ['a working folder that isn’t absolute', { ...fixture('stop.json'), cwd: 'proj' }],
  ['a tool event without its tool', { ...fixture('pre-tool-use-bash.json'), tool_name: 42 }],
  ['last words that aren’t text', { ...fixture('stop.json'), last_assistant_message: { text: 'x' } }],
];

test('a payload that can’t be taken is refused with 400 and changes nothing', async (t) => {
  const { service, snapshot } = await setUp(t);
  const before = await snapshot();
  for (const [name, body] of hostile) {
    const reply = await service.local('POST', '/claude/hook', { body });
    assert.equal(reply.status, 400, name);
    assert.match(reply.json.error.message, /\S/, name);
  }
  const permission = await service.local('POST', '/claude/permission?request=abcdef0123', {
    body: fixture('stop.json'),
  });
  assert.equal(permission.status, 400);
  const noNonce = await service.local('POST', '/claude/permission?request=a/b', {
    body: fixture('permission-request-bash.json'),
  });
  assert.equal(noNonce.status, 400);
  const status = await service.local('POST', '/claude/status-line', { body: { session_id: 'a b' } });
  assert.equal(status.status, 400);
  const large = await service.local('POST', '/claude/hook', {
    body: { ...fixture('stop.json'), prompt: 'x'.repeat(1024 * 1024) },
  });
  assert.equal(large.status, 413);
  const unauthorised = await service.local('POST', '/claude/hook', {
    body: fixture('stop.json'),
    headers: { Authorization: 'Bearer nope' },
  });
  assert.equal(unauthorised.status, 401);
  assert.deepEqual(await snapshot(), before);
});

test('a request asked again finds the same approval; a new request for the same call is a new one', async (t) => {
  const { ask, snapshot } = await setUp(t);
  const first = (await ask('request-one')).json;
  assert.equal(first.state, 'pending');
  const again = (await ask('request-one')).json;
  assert.equal(again.id, first.id);
  assert.equal(again.expiresAt, first.expiresAt);
  const other = (await ask('request-two')).json;
  assert.notEqual(other.id, first.id);
  assert.deepEqual(
    (await snapshot()).approvals.map((approval) => approval.id),
    [first.id, other.id],
  );
  assert.deepEqual((await snapshot()).sessions[0].pendingApprovalIds, [first.id, other.id]);
});

test('past the most open requests, a new one is left to Claude Code and nothing is held for it', async (t) => {
  const { ask, snapshot } = await setUp(t);
  for (let i = 0; i < MAX_OPEN_APPROVALS; i++) assert.equal((await ask(`request-${i}`)).json.state, 'pending');
  const refused = (await ask('request-past')).json;
  assert.equal(refused.state, 'released');
  assert.equal((await snapshot()).approvals.length, MAX_OPEN_APPROVALS);
  assert.equal((await snapshot()).approvals.some((approval) => approval.id === refused.id), false);
});

const answers = [
  { decision: 'allow', output: { behavior: 'allow' } },
  { decision: 'deny', behavior: 'deny' },
  { decision: 'always', behavior: 'allow', destination: 'localSettings' },
];

for (const { decision, output, behavior, destination } of answers) {
  test(`a waiting request hears “${decision}”, and hears it again when it asks after the answer`, async (t) => {
    const { service, ask } = await setUp(t);
    const { id } = (await ask('request-one')).json;
    const waiting = ask('request-one', {}, 20000);
    assert.equal((await service.local('POST', `/v1/approvals/${id}/decision`, { body: { decision } })).status, 200);
    for (const reply of [(await waiting).json, (await ask('request-one')).json]) {
      assert.equal(reply.state, 'answered');
      const given = reply.output.hookSpecificOutput;
      assert.equal(given.hookEventName, 'PermissionRequest');
      if (output) assert.deepEqual(given.decision, output);
      else assert.equal(given.decision.behavior, behavior);
      if (destination) assert.equal(given.decision.updatedPermissions[0].destination, destination);
    }
  });
}

test('allowed in the terminal: the call’s end lets the request go unanswered, whichever report came first', async (t) => {
  const { send, ask, snapshot, service } = await setUp(t);
  // The request comes before the report of its call (both hooks run at once).
  const { id } = (await ask('request-one')).json;
  const waiting = ask('request-one', {}, 20000);
  await send('pre-tool-use-bash.json');
  await send('post-tool-use-bash.json', { tool_use_id: fixture('pre-tool-use-bash.json').tool_use_id });
  assert.deepEqual((await waiting).json, { state: 'released', id });
  assert.deepEqual((await snapshot()).approvals, []);
  const [decided] = (await service.local('GET', '/qa/state')).json.decisions;
  assert.deepEqual([decided.decision, decided.by], ['allow', 'terminal']);
});

test('refused in the terminal: the transcript’s interruption lets the request go, even split across reads', async (t) => {
  const { send, ask, snapshot, service, transcript } = await setUp(t, { claude: { transcriptPollMs: 50 } });
  await send('pre-tool-use-bash.json');
  const { id } = (await ask('request-one')).json;
  const toolUseId = fixture('pre-tool-use-bash.json').tool_use_id;
  const line = (record) => fs.appendFileSync(transcript, `${JSON.stringify(record)}\n`);
  line({ type: 'mystery-kind', payload: 1 });
  line({
    type: 'user',
    message: {
      role: 'user',
      content: [{ type: 'tool_result', tool_use_id: toolUseId, is_error: true, content: 'no' }],
    },
  });
  // Read once without the interruption: not yet a refusal.
  await new Promise((resolve) => setTimeout(resolve, 200));
  assert.equal((await snapshot()).approvals.length, 1);
  line({
    type: 'user',
    message: { role: 'user', content: [{ type: 'text', text: '[Request interrupted by user for tool use]' }] },
  });
  await eventually(async () => (await snapshot()).approvals.length === 0, 'the request let go');
  assert.deepEqual((await ask('request-one')).json, { state: 'released', id });
  const [decided] = (await service.local('GET', '/qa/state')).json.decisions;
  assert.deepEqual([decided.decision, decided.by], ['deny', 'terminal']);
  assert.equal((await snapshot()).sessions[0].state, 'idle');
});

test('a request nobody answers is given up at its time, and the hook is let go', async (t) => {
  const { ask, snapshot } = await setUp(t, { claude: { approvalWaitMs: 300 } });
  const first = (await ask('request-one')).json;
  assert.ok(first.expiresAt > Date.now());
  const reply = (await ask('request-one', {}, 20000)).json;
  assert.deepEqual(reply, { state: 'released', id: first.id });
  assert.deepEqual((await snapshot()).approvals, []);
});

test('the status line: windows as usage, a pace from successive readings, model and cost on the session', async (t) => {
  let now = 1_795_000_000_000;
  const { service, snapshot } = await setUp(t, { claude: { now: () => now } });
  const input = fixture('status-line-rate-limits.json');
  const at = (pct) => ({
    ...input,
    rate_limits: { ...input.rate_limits, five_hour: { ...input.rate_limits.five_hour, used_percentage: pct } },
  });
  assert.equal(
    (await service.local('POST', '/claude/status-line', { body: fixture('status-line-first.json') })).status,
    200,
  );
  assert.equal((await snapshot()).usage.source, 'none', 'no windows before the first answer');
  await service.local('POST', '/claude/status-line', { body: at(60) });
  now += 10 * 60 * 1000;
  await service.local('POST', '/claude/status-line', { body: at(64) });
  const { usage, sessions } = await snapshot();
  assert.deepEqual(usage.fiveHour, { pct: 64, resetsAt: input.rate_limits.five_hour.resets_at * 1000 });
  assert.equal(usage.source, 'official');
  assert.equal(usage.observedAt, now);
  assert.equal(usage.rate.fiveHour, 0.4);
  assert.equal(usage.rate.fiveHourEtaMs, 90 * 60 * 1000);
  assert.equal(sessions[0].model, 'Sonnet 5.5');
  assert.equal(sessions[0].costUsd, 0.000224);
});

// `claude -p` can exit before its background hooks report the failed turn:
// only its session's end arrives, and the transcript tells the rest.
const failedTurnRows = [
  {
    name: 'a usage limit',
    file: 'transcript-print-limit.jsonl',
    blocked: { kind: 'limit', resetsAt: 1795433435000 },
    account: { state: 'limited', limit: { window: 'five_hour', resetsAt: 1795433435000, usingCredits: false } },
  },
  {
    name: 'a refused sign-in',
    file: 'transcript-print-logged-out.jsonl',
    blocked: { kind: 'logged_out' },
    account: { state: 'logged_out', reason: 'not_logged_in' },
  },
  {
    name: 'a failure of yesterday, read as a session resumes',
    file: 'transcript-print-limit.jsonl',
    later: 24 * 3600_000,
    blocked: undefined,
    account: { state: 'unknown' },
  },
];

for (const { name, file, later = 0, blocked, account } of failedTurnRows) {
  test(`a failed turn that only the transcript tells of: ${name}`, async (t) => {
    const lines = fs.readFileSync(path.join(fixtures, file), 'utf8').split('\n').filter(Boolean);
    const failed = JSON.parse(lines.find((line) => line.includes('"isApiErrorMessage":true')));
    const now = Date.parse(failed.timestamp) + 1000 + later;
    const { service, snapshot } = await setUp(t, { claude: { now: () => now } });
    const transcript = path.join(service.folder, `${failed.sessionId}.jsonl`);
    fs.writeFileSync(transcript, `${lines.join('\n')}\n`);
    const end = {
      session_id: failed.sessionId,
      transcript_path: transcript,
      cwd: service.folder,
      hook_event_name: 'SessionEnd',
      reason: 'other',
    };
    assert.equal((await service.local('POST', '/claude/hook', { body: end })).status, 200);
    const state = await snapshot();
    const session = state.sessions.find((each) => each.id === failed.sessionId);
    assert.equal(session.state, 'ended');
    if (blocked) for (const [key, value] of Object.entries(blocked)) assert.deepEqual(session.blocked[key], value, key);
    else assert.equal(session.blocked, undefined);
    for (const [key, value] of Object.entries(account)) assert.deepEqual(state.account[key], value, key);
  });
}

test('an event and what its transcript added leave as one frame', async (t) => {
  const { service, send, transcript } = await setUp(t, { feed: { coalesceMs: 20 } });
  await send('session-start.json');
  // The start's own window closes; the next change of the session goes out at once.
  await new Promise((resolve) => setTimeout(resolve, 200));
  const feed = await service.feed();
  const call = fixture('pre-tool-use-bash.json');
  fs.appendFileSync(
    transcript,
    `${JSON.stringify({
      type: 'assistant',
      message: {
        role: 'assistant',
        model: 'claude-sonnet-4-5',
        content: [
          { type: 'text', text: 'Let me make it.' },
          { type: 'tool_use', id: call.tool_use_id, name: call.tool_name, input: call.tool_input },
        ],
      },
    })}\n`,
  );
  await send('pre-tool-use-bash.json');
  const { session } = await feed.next('session', 5000);
  assert.equal(session.lastText, 'Let me make it.');
  assert.equal(session.activity, `Bash: ${call.tool_input.command}`);
});
