// What the service reads out of Claude Code: a session's state after each
// event, a transcript followed as it grows, and the pace of the status line's
// windows. Payloads and transcript are the ones Claude Code really wrote
// (test/fixtures/claude).

import assert from 'node:assert/strict';
import fs from 'node:fs';
import path from 'node:path';
import { test } from 'node:test';

import { blockedFrom, sessionAfter, titleFrom } from '../src/claude/hook-event.js';
import { usageRate, windowsFrom } from '../src/claude/status-line.js';
import { transcriptFacts, TranscriptTail } from '../src/claude/transcript.js';
import { claudeFixture as fixture, fixtureLines as linesOf, scratchFolder } from './helpers.js';

const transcriptLines = linesOf('transcript-interactive.jsonl');

const NOW = 1_795_000_000_000;
const waiting = { id: 's', state: 'needs_you', pendingApprovalIds: ['ap1'], activity: 'Bash: x' };
const usageFull = { fiveHour: { pct: 100, resetsAt: NOW + 3600_000 }, sevenDay: { pct: 30, resetsAt: NOW + 86400_000 } };

const F = {
  start: fixture('session-start.json'),
  prompt: fixture('user-prompt-submit.json'),
  pre: fixture('pre-tool-use-bash.json'),
  post: fixture('post-tool-use-bash.json'),
  stop: fixture('stop.json'),
  note: fixture('notification-permission.json'),
  limit: fixture('stop-failure-rate-limit.json'),
  out: fixture('stop-failure-logged-out.json'),
};
const working = { id: 's', state: 'working' };
const limitBlock = (resetsAt) => ({ kind: 'limit', resetsAt, text: F.limit.last_assistant_message });

const sessionRows = [
  // name, before, event, what follows, context
  ['a first event makes the session, idle, in its folder', undefined, F.start, { state: 'idle', projectName: 'proj', cwd: '/tmp/cc-try/proj', createdAt: NOW }],
  ['a terminal session says so', undefined, F.start, { origin: 'terminal' }, { tty: true }],
  ['a prompt makes it work and titles it', { id: 's', state: 'idle' }, F.prompt, { state: 'working', title: 'make a file please' }],
  ['a later prompt keeps the first title', { id: 's', state: 'idle', title: 'First' }, F.prompt, { title: 'First' }],
  ['a new prompt clears a block', { id: 's', state: 'idle', blocked: { kind: 'limit' } }, F.prompt, { blocked: undefined }],
  ['a tool call is the activity', working, F.pre, { activity: 'Bash: touch /tmp/cc-try/proj/made-by-claude', state: 'working' }],
  ['an open approval holds the session on the user through tool events', waiting, F.pre, { state: 'needs_you' }],
  ['a finished call clears the activity', { ...working, activity: 'Bash: x' }, F.post, { activity: undefined, state: 'working' }],
  ['sub-agents are counted up', { ...working, agentsRunning: 1 }, { ...F.stop, hook_event_name: 'SubagentStart' }, { agentsRunning: 2 }],
  ['and down, never below none', working, { ...F.stop, hook_event_name: 'SubagentStop' }, { agentsRunning: 0 }],
  ['a permission note waits on the user', working, F.note, { state: 'needs_you' }],
  ['an idle note makes it idle', working, { ...F.note, notification_type: 'idle_prompt' }, { state: 'idle' }],
  ['the end of a turn: idle, with its last words', { ...working, activity: 'x' }, F.stop, { state: 'idle', lastText: 'Done.', activity: undefined }],
  ['a limit reached blocks with the reset of the full window', working, F.limit, { state: 'idle', blocked: limitBlock(NOW + 3600_000) }, { usage: usageFull }],
  ['a lost sign-in blocks as logged out', working, F.out, { state: 'idle', blocked: { kind: 'logged_out', text: F.out.last_assistant_message } }],
  [
    'a limit whose reset the transcript told blocks until then',
    working,
    F.limit,
    { blocked: limitBlock(NOW + 7200_000) },
    { usage: usageFull, failure: { error: 'rate_limit', resetsAt: NOW + 7200_000 } },
  ],
  [
    'a server failure is an error, not a block',
    working,
    { ...F.limit, error: 'server_error', last_assistant_message: 'API Error: 500' },
    { state: 'error', blocked: undefined, lastText: 'API Error: 500' },
  ],
  ['the end of the session', { id: 's', state: 'idle', agentsRunning: 2 }, { ...F.stop, hook_event_name: 'SessionEnd' }, { state: 'ended', agentsRunning: 0 }],
  ['a resumed session comes back', { id: 's', state: 'ended' }, { ...F.start, source: 'resume' }, { state: 'idle' }],
];

test('a session after each event', () => {
  for (const [name, before, event, expected, context = {}] of sessionRows) {
    const after = sessionAfter(before, event, { now: NOW, ...context });
    const seen = Object.fromEntries(Object.keys(expected).map((key) => [key, after[key]]));
    assert.deepEqual({ ...seen, lastActivityAt: after.lastActivityAt }, { ...expected, lastActivityAt: NOW }, name);
  }
});

test('titles, blocks and windows from odd words', () => {
  assert.equal(titleFrom('\n\n  fix   the\ttests  \nand more'), 'fix the tests');
  assert.equal(titleFrom('x'.repeat(200)).length, 81);
  assert.equal(titleFrom(' \n '), undefined);
  assert.deepEqual(blockedFrom({ error: 'rate_limit' }, { fiveHour: { pct: 64 } }), { kind: 'limit' });
  assert.deepEqual(blockedFrom({ error: 'billing_error' }), { kind: 'no_credit' });
  assert.equal(blockedFrom({ error: 'max_output_tokens' }), null);
  assert.equal(windowsFrom({ rate_limits: { five_hour: { used_percentage: 'lots' } } }), null, 'a window without its number');
});

test('the real transcript: a call refused in the terminal, one allowed, the last words, unknown lines passed over', () => {
  const facts = transcriptFacts(transcriptLines);
  const denied = fixture('permission-request-bash.json');
  assert.ok(facts.toolUses.length >= 2);
  assert.ok(facts.toolUses.every((use) => use.name === 'Bash' && use.input.command === denied.tool_input.command));
  const outcomes = Object.fromEntries(facts.outcomes.map(({ id, outcome }) => [id, outcome]));
  assert.equal(outcomes[facts.toolUses[0].id], 'refused');
  assert.equal(outcomes[fixture('post-tool-use-bash.json').tool_use_id], 'done');
  assert.equal(facts.lastText, fixture('stop-failure-rate-limit.json').last_assistant_message);
  assert.equal(facts.model, 'claude-sonnet-5-5');
});

const outcomeRows = [
  ['an error then the interruption is a refusal', [['err', 't1'], ['text', '[Request interrupted by user for tool use]']], { t1: 'refused' }],
  ['an error then a new prompt is a failure', [['err', 't1'], ['text', 'try again']], { t1: 'failed' }],
  [
    'a reminder between changes nothing',
    [['err', 't1'], ['text', '<system-reminder>x</system-reminder>'], ['text', '[Request interrupted by user for tool use]']],
    { t1: 'refused' },
  ],
  ['a result without error ran', [['ok', 't1']], { t1: 'done' }],
  ['an error alone is not decided yet', [['err', 't1']], {}],
];

test('how calls ended', () => {
  const block = (kind, value) => (kind === 'text' ? { type: 'text', text: value } : { type: 'tool_result', tool_use_id: value, is_error: kind === 'err' });
  const line = ([kind, value]) => JSON.stringify({ type: 'user', message: { role: 'user', content: [block(kind, value)] } });
  for (const [name, lines, expected] of outcomeRows) {
    const facts = transcriptFacts(['not json', '{"type":"queue-operation"}', ...lines.map(line)]);
    assert.deepEqual(Object.fromEntries(facts.outcomes.map(({ id, outcome }) => [id, outcome])), expected, name);
  }
});

test('Claude Code’s own plan after a limit, as its notices tell it', () => {
  const notice = (content) => JSON.stringify({ type: 'system', subtype: 'informational', content });
  const answer = JSON.stringify({ type: 'assistant', message: { role: 'assistant', model: 'm', content: [] } });
  const cancelled = notice('Automatic continue cancelled. Your session will wait for you instead; /rate-limit-options can arm it again.');
  const rows = [
    ['the real transcript’s notice arms it', transcriptLines, 'armed'],
    ['cancelled in the terminal', [...transcriptLines, cancelled], 'off'],
    ['armed again after a second limit', [cancelled, notice('Usage limit reached again · set to continue automatically at 9am')], 'armed'],
    ['an answer after it is the carrying on', [...transcriptLines, answer], undefined],
    ['other notices say nothing of it', [notice('Usage limit reached')], undefined],
  ];
  for (const [name, lines, expected] of rows) assert.equal(transcriptFacts(lines).carryOn, expected, name);
});

test('a transcript is read on from where it stopped, also after a restart, and a runaway line is passed over', async (t) => {
  const folder = await scratchFolder(t);
  const file = path.join(folder, 's.jsonl');
  const say = (text) => JSON.stringify({ type: 'assistant', message: { role: 'assistant', model: 'm', content: [{ type: 'text', text }] } });
  fs.writeFileSync(file, `${say('one')}\n`);
  const tail = new TranscriptTail(file);
  assert.equal((await tail.read()).lastText, 'one');
  assert.equal((await tail.read()).lastText, undefined, 'nothing new');
  fs.appendFileSync(file, `${say('two')}\n${'x'.repeat(2 * 1024 * 1024)}\n${say('three')}\n${say('half')}`);
  const again = new TranscriptTail(file, tail.saved());
  assert.equal((await again.read()).lastText, 'three', 'the unfinished line waits');
  fs.appendFileSync(file, '\n');
  assert.equal((await again.read()).lastText, 'half');
  assert.equal(await new TranscriptTail(path.join(folder, 'gone.jsonl')).read(), null);
});

const answer = JSON.stringify({ type: 'assistant', message: { role: 'assistant', model: 'claude-sonnet-4-5', content: [{ type: 'text', text: 'Back.' }] } });

const failureRows = [
  [
    'claude -p at a usage limit: the window, its reset, no credits',
    linesOf('transcript-print-limit.jsonl'),
    { error: 'rate_limit', text: "You've hit your 5-hour limit · resets 11:30am (UTC)", resetsAt: 1795433435000, window: 'five_hour', usingCredits: false },
  ],
  [
    'claude -p with its sign-in refused, after the retries',
    linesOf('transcript-print-logged-out.jsonl'),
    { error: 'authentication_failed', text: 'Failed to authenticate. API Error: 401 OAuth token has expired. Please obtain a new token or refresh your existing token.' },
  ],
  ['the interactive session’s limit, last of its answers', transcriptLines, { error: 'rate_limit', resetsAt: 1795429332000 }],
  ['a good answer after the failure ends it', [...linesOf('transcript-print-limit.jsonl'), answer], null],
  ['no answer read says nothing', linesOf('transcript-print-limit.jsonl').slice(0, 3), undefined],
];

test('a refused turn, as the transcript tells it', () => {
  for (const [name, lines, expected] of failureRows) {
    const { failure } = transcriptFacts(lines);
    if (!expected) assert.equal(failure, expected, name);
    else assert.deepEqual({ ...failure, at: Number.isFinite(failure.at) }, { ...failure, ...expected, at: true }, name);
  }
  // A limit's reset given in milliseconds stays so.
  const record = JSON.parse(linesOf('transcript-print-limit.jsonl').find((line) => line.includes('quotaLimits')));
  record.quotaLimits.resetsAt = 1795433435000;
  assert.equal(transcriptFacts([JSON.stringify(record)]).failure.resetsAt, 1795433435000);
});

const reading = (minutes, pct, resetsAt = NOW + 3 * 3600_000) => ({ at: NOW + minutes * 60_000, fiveHour: { pct, resetsAt } });

const rateRows = [
  ['one reading tells nothing', [reading(0, 10)], undefined],
  ['readings under a minute apart tell nothing', [reading(0, 10), reading(0.5, 12)], undefined],
  ['2% in 10 minutes reaches the limit in 7 hours: after the reset, so no time', [reading(0, 10), reading(10, 12)], { fiveHour: 0.2 }],
  ['10% in 10 minutes reaches it in 80 minutes', [reading(0, 10), reading(10, 20)], { fiveHour: 1, fiveHourEtaMs: 80 * 60_000, fiveHourLimitAt: NOW + 90 * 60_000 }],
  ['a reset starts the count again', [reading(0, 90, NOW), reading(10, 5)], undefined],
  ['a window going down is no pace', [reading(0, 30), reading(10, 20)], { fiveHour: 0 }],
];

test('the pace of a window from successive readings', () => {
  for (const [name, readings, expected] of rateRows) assert.deepEqual(usageRate(readings, readings.at(-1).at), expected, name);
});
