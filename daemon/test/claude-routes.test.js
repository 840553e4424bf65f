// The service's doors for Claude Code's hooks, driven with the payloads
// Claude Code really sent (test/fixtures/claude): what each event does to
// the state, how a permission request is tied to its tool call and let go
// when the terminal answers first, and that a payload that can't be taken
// changes nothing.

import assert from 'node:assert/strict';
import fs from 'node:fs';
import path from 'node:path';
import { test } from 'node:test';

import { MAX_OPEN_APPROVALS } from '../src/claude/approval-broker.js';
import { HOOK_REPORT_PATH } from '../src/claude/hook-settings.js';
import { HOOK_TOKEN_FILE } from '../src/hook-token.js';
import { claudeFixture as fixture, fixtureLines, sleep, startScratchService } from './helpers.js';

const SESSION = fixture('session-start.json').session_id;
const modeOf = (file) => fs.statSync(file).mode & 0o777;

// Payloads moved into a scratch folder, with the transcript there.
function inFolder(event, folder) {
  const transcript = path.join(folder, `${event.session_id}.jsonl`);
  return { ...event, cwd: path.join(folder, 'project'), transcript_path: transcript };
}

async function setUp(t, options) {
  const service = await startScratchService(t, options);
  const transcript = path.join(service.folder, `${SESSION}.jsonl`);
  fs.writeFileSync(transcript, '');
  const send = (name, extra = {}) => service.post('/claude/hook', { ...inFolder(fixture(name), service.folder), ...extra });
  const ask = (request, wait = 0) =>
    service.post(`/claude/permission?request=${request}&wait=${wait}`, inFolder(fixture('permission-request-bash.json'), service.folder));
  return { service, transcript, send, ask, snapshot: service.snapshot };
}

// What each event does is tabled in claude-records.test.js; here, that they reach the session.
test('a session goes from start to end through its events', async (t) => {
  const { send, snapshot } = await setUp(t);
  const steps = [
    ['session-start.json', { state: 'idle', projectName: 'project' }],
    ['user-prompt-submit.json', { state: 'working', title: 'make a file please' }],
    ['pre-tool-use-bash.json', { state: 'working', activity: 'Bash: touch /tmp/cc-try/proj/made-by-claude' }],
    ['stop.json', { state: 'idle', lastText: 'Done.', activity: undefined }],
    ['stop-failure-rate-limit.json', { state: 'idle', blocked: { kind: 'limit', text: fixture('stop-failure-rate-limit.json').last_assistant_message } }],
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

// No hook follows Claude Code's notices: its plan may land after the refusal's
// hook, and an Esc in its terminal may come long after that.
test('Claude Code’s plan to carry on is heard after the limit’s hook, and its cancelling long after', async (t) => {
  const { send, snapshot, transcript } = await setUp(t, { claude: { transcriptPollMs: 50, carryOnNewsMs: 100 } });
  const resume = async () => (await snapshot()).sessions.find((each) => each.id === SESSION)?.blocked?.resume;
  const until = async (check) => {
    for (let i = 0; i < 60 && !check(await resume()); i++) await sleep(50);
    return resume();
  };
  await send('session-start.json');
  await send('stop-failure-rate-limit.json');
  assert.equal(await resume(), undefined);
  fs.appendFileSync(transcript, `${fixtureLines('transcript-interactive.jsonl').slice(-2).join('\n')}\n`);
  assert.deepEqual(await until((it) => it?.by === 'claude'), { state: 'armed', at: null, by: 'claude', canCancel: false, canArm: false });
  await sleep(300);
  const cancelled = { type: 'system', subtype: 'informational', content: 'Automatic continue cancelled. Your session will wait for you instead.' };
  fs.appendFileSync(transcript, `${JSON.stringify(cancelled)}\n`);
  // Not shared with the service, this session has no other plan to offer.
  assert.equal(await until((it) => it?.by !== 'claude'), undefined);
});

test('a prompt reported after its turn failed leaves the block in place; the next prompt lifts it', async (t) => {
  const { send, snapshot, transcript } = await setUp(t);
  const lines = fixtureLines('transcript-interactive.jsonl');
  const prompt = lines.find((line) => JSON.parse(line).promptSource !== undefined);
  const blocked = async () => (await snapshot()).sessions.find((each) => each.id === SESSION)?.blocked?.kind;
  await send('session-start.json');
  fs.appendFileSync(transcript, `${prompt}\n${lines.at(-2)}\n`);
  await send('stop-failure-rate-limit.json');
  await send('user-prompt-submit.json', { prompt: JSON.parse(prompt).message.content });
  assert.equal(await blocked(), 'limit');
  await send('user-prompt-submit.json', { prompt: 'try again' });
  assert.equal(await blocked(), undefined);
});

const hostile = [
  ['not an object', []],
  ['an event the service doesn’t follow', { ...fixture('stop.json'), hook_event_name: 'Delete' }],
  ['no session id', { ...fixture('stop.json'), session_id: undefined }],
  ['a session id that is a path', { ...fixture('stop.json'), session_id: '../../etc' }],
  ['a transcript that is another file', { ...fixture('stop.json'), transcript_path: '/etc/passwd' }],
  ['a transcript named like the session elsewhere, relatively', { ...fixture('stop.json'), transcript_path: `x/${SESSION}.jsonl` }],
  ['a working folder that isn’t absolute', { ...fixture('stop.json'), cwd: 'proj' }],
  ['a tool event without its tool', { ...fixture('pre-tool-use-bash.json'), tool_name: 42 }],
  ['last words that aren’t text', { ...fixture('stop.json'), last_assistant_message: { text: 'x' } }],
];

test('a payload that can’t be taken is refused and changes nothing', async (t) => {
  const { service, snapshot } = await setUp(t);
  const before = await snapshot();
  const rows = [
    ...hostile.map(([name, body]) => [name, '/claude/hook', body, 400]),
    ['a permission request of another event', '/claude/permission?request=abcdef0123', fixture('stop.json'), 400],
    ['a request name that is a path', '/claude/permission?request=a/b', fixture('permission-request-bash.json'), 400],
    ['a status line of an odd session', '/claude/status-line', { session_id: 'a b' }, 400],
    ['a payload over the limit', '/claude/hook', { ...fixture('stop.json'), prompt: 'x'.repeat(1024 * 1024) }, 413],
  ];
  for (const [name, target, body, status] of rows) {
    const reply = await service.post(target, body);
    assert.equal(reply.status, status, name);
    assert.match(reply.json.error.message, /\S/, name);
  }
  const unauthorised = await service.local('POST', '/claude/hook', { body: fixture('stop.json'), headers: { Authorization: 'Bearer nope' } });
  assert.equal(unauthorised.status, 401);
  assert.deepEqual(await snapshot(), before);
});

// Past the most open requests, a new one is left to Claude Code and nothing is held for it.
test('a request asked again finds the same approval; a new request is a new one, up to the most kept open', async (t) => {
  const { ask, snapshot } = await setUp(t);
  const first = (await ask('request-0')).json;
  const again = (await ask('request-0')).json;
  assert.deepEqual([first.state, again.id, again.expiresAt], ['pending', first.id, first.expiresAt]);
  for (let i = 1; i < MAX_OPEN_APPROVALS; i++) assert.equal((await ask(`request-${i}`)).json.state, 'pending');
  const refused = (await ask('request-past')).json;
  const { approvals, sessions } = await snapshot();
  assert.deepEqual([refused.state, new Set(approvals.map((approval) => approval.id)).size, approvals.some((each) => each.id === refused.id)], ['released', MAX_OPEN_APPROVALS, false]);
  assert.deepEqual(sessions[0].pendingApprovalIds, approvals.map((approval) => approval.id));
});

test('a waiting request hears the answer, and hears it again when it asks after it', async (t) => {
  const answers = [
    ['allow', { behavior: 'allow' }],
    ['deny', { behavior: 'deny' }],
    ['always', { behavior: 'allow', destination: 'localSettings' }],
  ];
  for (const [decision, { behavior, destination }] of answers) {
    await t.test(decision, async (t) => {
      const { service, ask } = await setUp(t);
      const { id } = (await ask('request-one')).json;
      const waiting = ask('request-one', 20000);
      assert.equal((await service.post(`/v1/approvals/${id}/decision`, { decision })).status, 200);
      for (const reply of [(await waiting).json, (await ask('request-one')).json]) {
        const given = reply.output.hookSpecificOutput;
        assert.deepEqual([reply.state, given.hookEventName, given.decision.behavior], ['answered', 'PermissionRequest', behavior]);
        if (decision === 'allow') assert.deepEqual(given.decision, { behavior });
        assert.equal(given.decision.updatedPermissions?.[0].destination, destination);
      }
    });
  }
});

// The terminal answered before Tidewatch did: allowed, the call's end lets
// the request go (whichever report came first); refused, the transcript's
// interruption does, even split across reads.
test('answered in the terminal, the request is let go unanswered and the decision kept as the terminal’s', async (t) => {
  for (const [decision, answer] of [['allow', 'the call’s end'], ['deny', 'the interruption']]) {
    await t.test(answer, async (t) => {
      const { send, ask, snapshot, service, transcript } = await setUp(t, { claude: { transcriptPollMs: 50 } });
      const { id } = (await ask('request-one')).json;
      const waiting = ask('request-one', 20000);
      await send('pre-tool-use-bash.json');
      const toolUseId = fixture('pre-tool-use-bash.json').tool_use_id;
      if (decision === 'allow') await send('post-tool-use-bash.json', { tool_use_id: toolUseId });
      else {
        const line = (content) => fs.appendFileSync(transcript, `${JSON.stringify({ type: 'user', message: { role: 'user', content: [content] } })}\n`);
        fs.appendFileSync(transcript, '{"type":"mystery-kind","payload":1}\n');
        line({ type: 'tool_result', tool_use_id: toolUseId, is_error: true, content: 'no' });
        // Read once without the interruption: not yet a refusal.
        await sleep(200);
        assert.equal((await snapshot()).approvals.length, 1);
        line({ type: 'text', text: '[Request interrupted by user for tool use]' });
      }
      assert.deepEqual((await waiting).json, { state: 'released', id });
      assert.deepEqual((await ask('request-one')).json, { state: 'released', id });
      assert.deepEqual((await snapshot()).approvals, []);
      const [decided] = (await service.local('GET', '/qa/state')).json.decisions;
      assert.deepEqual([decided.decision, decided.by], [decision, 'terminal']);
      if (decision === 'deny') assert.equal((await snapshot()).sessions[0].state, 'idle', 'a refused call ends the turn');
    });
  }
});

test('a request nobody answers is given up at its time, and the hook is let go', async (t) => {
  const { ask, snapshot } = await setUp(t, { claude: { approvalWaitMs: 300 } });
  const first = (await ask('request-one')).json;
  assert.ok(first.expiresAt > Date.now());
  assert.deepEqual((await ask('request-one', 20000)).json, { state: 'released', id: first.id });
  assert.deepEqual((await snapshot()).approvals, []);
});

test('the status line: windows as usage, a pace from successive readings, model and cost on the session', async (t) => {
  let now = 1_795_000_000_000;
  const { service, snapshot } = await setUp(t, { claude: { now: () => now } });
  const input = fixture('status-line-rate-limits.json');
  const fiveHour = input.rate_limits.five_hour;
  const at = (pct) => ({ ...input, rate_limits: { ...input.rate_limits, five_hour: { ...fiveHour, used_percentage: pct } } });
  assert.equal((await service.post('/claude/status-line', fixture('status-line-first.json'))).status, 200);
  assert.equal((await snapshot()).usage.source, 'none', 'no windows before the first answer');
  await service.post('/claude/status-line', at(60));
  now += 10 * 60 * 1000;
  await service.post('/claude/status-line', at(64));
  const { usage, sessions } = await snapshot();
  assert.deepEqual(usage.fiveHour, { pct: 64, resetsAt: fiveHour.resets_at * 1000 });
  assert.deepEqual([usage.source, usage.observedAt, usage.rate.fiveHour, usage.rate.fiveHourEtaMs], ['official', now, 0.4, 90 * 60 * 1000]);
  assert.deepEqual([sessions[0].model, sessions[0].costUsd], ['Sonnet 5.5', 0.000224]);
});

// `claude -p` can exit before its background hooks report the failed turn:
// only its session's end arrives, and the transcript tells the rest.
test('a failed turn that only the transcript tells of', async (t) => {
  const limit = { window: 'five_hour', resetsAt: 1795433435000, usingCredits: false };
  const rows = [
    ['a usage limit', 'transcript-print-limit.jsonl', 0, { kind: 'limit', resetsAt: limit.resetsAt }, { state: 'limited', limit }],
    ['a refused sign-in', 'transcript-print-logged-out.jsonl', 0, { kind: 'logged_out' }, { state: 'logged_out', reason: 'not_logged_in' }],
    ['a failure of yesterday, read as a session resumes', 'transcript-print-limit.jsonl', 24 * 3600_000, undefined, { state: 'unknown' }],
  ];
  for (const [name, file, later, blocked, account] of rows) {
    await t.test(name, async (t) => {
      const lines = fixtureLines(file);
      const failed = JSON.parse(lines.find((line) => line.includes('"isApiErrorMessage":true')));
      const now = Date.parse(failed.timestamp) + 1000 + later;
      const { service, snapshot } = await setUp(t, { claude: { now: () => now } });
      const transcript = path.join(service.folder, `${failed.sessionId}.jsonl`);
      fs.writeFileSync(transcript, `${lines.join('\n')}\n`);
      const end = { session_id: failed.sessionId, transcript_path: transcript, cwd: service.folder, hook_event_name: 'SessionEnd', reason: 'other' };
      assert.equal((await service.post('/claude/hook', end)).status, 200);
      const state = await snapshot();
      const session = state.sessions.find((each) => each.id === failed.sessionId);
      assert.equal(session.state, 'ended');
      const pick = (record, keys) => record && Object.fromEntries(Object.keys(keys).map((key) => [key, record[key]]));
      assert.deepEqual(pick(session.blocked, blocked ?? {}), blocked && pick(blocked, blocked));
      assert.deepEqual(pick(state.account, account), account);
    });
  }
});

test('an event and what its transcript added leave as one frame', async (t) => {
  const { service, send, transcript } = await setUp(t, { feed: { coalesceMs: 20 } });
  await send('session-start.json');
  // The start's own window closes; the next change of the session goes out at once.
  await sleep(200);
  const feed = await service.feed();
  const call = fixture('pre-tool-use-bash.json');
  const content = [{ type: 'text', text: 'Let me make it.' }, { type: 'tool_use', id: call.tool_use_id, name: call.tool_name, input: call.tool_input }];
  fs.appendFileSync(transcript, `${JSON.stringify({ type: 'assistant', message: { role: 'assistant', model: 'claude-sonnet-4-5', content } })}\n`);
  await send('pre-tool-use-bash.json');
  const { session } = await feed.next('session', 5000);
  assert.deepEqual([session.lastText, session.activity], ['Let me make it.', `Bash: ${call.tool_input.command}`]);
});

// Claude Code's HTTP hooks post to their own door with the hook credential,
// which opens that door alone; the door checks a report as the hook
// program's door does, takes no request, and reads the terminal's header.
test('the hook credential hands in reports on its own door and opens no other', async (t) => {
  const { service, snapshot } = await setUp(t);
  const hookToken = fs.readFileSync(path.join(service.support, HOOK_TOKEN_FILE), 'utf8').trim();
  assert.deepEqual([modeOf(path.join(service.support, HOOK_TOKEN_FILE)), hookToken === service.token], [0o600, false]);
  const as = (token, method, target, body, headers = {}) => service.local(method, target, { body, headers: { Authorization: `Bearer ${token}`, ...headers } });
  const { id } = (await service.post('/claude/permission?request=request-one&wait=0', inFolder(fixture('permission-request-bash.json'), service.folder))).json;
  const before = await snapshot();
  const stop = inFolder(fixture('stop.json'), service.folder);
  const start = inFolder(fixture('session-start.json'), service.folder);
  const term = (value) => ({ 'X-Tidewatch-Term': value });
  const rows = [
    ['the hook program’s door', hookToken, 'POST', '/claude/hook', stop, {}, 401],
    ['a permission request', hookToken, 'POST', '/claude/permission?request=request-two&wait=0', fixture('permission-request-bash.json'), {}, 401],
    ['an answer to the approval', hookToken, 'POST', `/v1/approvals/${id}/decision`, { decision: 'allow' }, {}, 401],
    ['the snapshot', hookToken, 'GET', '/v1/snapshot', undefined, {}, 401],
    ['the integration', hookToken, 'POST', '/local/integration/uninstall', {}, {}, 401],
    ['no credential at all', 'nope', 'POST', HOOK_REPORT_PATH, stop, {}, 401],
    [hostile[4][0], hookToken, 'POST', HOOK_REPORT_PATH, hostile[4][1], {}, 400],
    ['a permission request on the hook door', hookToken, 'POST', HOOK_REPORT_PATH, inFolder(fixture('permission-request-bash.json'), service.folder), {}, 400],
    ['a terminal id that isn’t one', hookToken, 'POST', HOOK_REPORT_PATH, stop, term('ab'.repeat(15)), 400],
    ['two terminal ids', hookToken, 'POST', HOOK_REPORT_PATH, stop, term(`${'ab'.repeat(16)}, ${'cd'.repeat(16)}`), 400],
    ['a payload over the limit', hookToken, 'POST', HOOK_REPORT_PATH, { ...stop, prompt: 'x'.repeat(1024 * 1024) }, {}, 413],
  ];
  for (const [name, token, method, target, body, headers, status] of rows) {
    await t.test(name, async () => {
      const reply = await as(token, method, target, body, headers);
      assert.equal(reply.status, status);
      assert.match(reply.json.error.message, /\S/);
    });
  }
  assert.deepEqual(await snapshot(), before);
  // Taken: a report, also with the admin token; empty, the header names no terminal. A report is no answer.
  assert.deepEqual((await as(hookToken, 'POST', HOOK_REPORT_PATH, start, term(''))).json, {});
  assert.deepEqual((await as(service.token, 'POST', HOOK_REPORT_PATH, stop)).json, {});
  const { approvals, sessions } = await snapshot();
  assert.deepEqual([approvals.map((each) => each.id), sessions[0].state, sessions[0].origin === 'terminal'], [[id], 'needs_you', false]);
  assert.equal((await as(hookToken, 'POST', HOOK_REPORT_PATH, start, term('ab'.repeat(16)))).status, 200);
  assert.equal((await snapshot()).sessions[0].origin, 'terminal');
});
