// Codex's session files read into sessions and rate-limit readings: the
// sample files, the rate-limit shapes, and reading a file as it grows.

import assert from 'node:assert/strict';
import fs from 'node:fs/promises';
import path from 'node:path';
import test from 'node:test';
import { fileURLToPath } from 'node:url';

import { freshCursor, readNewLines } from '../src/codex/line-tail.js';
import {
  applyLine,
  freshTrack,
  MAX_TITLE_CHARS,
  parseRolloutLine,
  readRateLimits,
  sessionRecord,
} from '../src/codex/rollout.js';
import { scratchFolder } from './helpers.js';

const fixtures = path.join(path.dirname(fileURLToPath(import.meta.url)), 'fixtures', 'codex');

// Reads a whole file the way the service does: lines from the tail reader,
// each followed into the track; the newest reading kept.
async function follow(file) {
  const { lines } = await readNewLines(file, freshCursor());
  const track = freshTrack(file);
  let reading = null;
  let broken = 0;
  for (const line of lines) {
    const parsed = parseRolloutLine(line);
    if (parsed === null) {
      broken += 1;
      continue;
    }
    reading = applyLine(track, parsed) ?? reading;
  }
  return { track, reading, broken };
}

test('each sample session file reads as its session, and an ended one loses what it was doing', async () => {
  const rows = [
    {
      name: 'answered.jsonl',
      session: {
        id: '019a2d7a-41c4-78b1-b7cc-a45d62a89cd5',
        title: 'what is 2+2? just give me the answer',
        cwd: '/private/tmp/codex-research-test',
        projectName: 'codex-research-test',
        origin: 'exec',
        state: 'idle',
        model: 'gpt-5-codex',
        permissionMode: 'workspace-write',
        createdAt: Date.parse('2025-10-29T00:59:38.308Z'),
        lastActivityAt: Date.parse('2025-10-29T00:59:39.700Z'),
        lastText: '4',
      },
      reading: {
        fiveHour: { pct: 8, resetsAt: 1761705605000 },
        sevenDay: { pct: 77, resetsAt: 1761828787000 },
        limited: false,
        observedAt: Date.parse('2025-10-29T00:59:39.700Z'),
      },
    },
    {
      name: 'tool-call-running.jsonl',
      session: {
        title: 'Fix the failing tests in the parser',
        origin: 'terminal',
        state: 'working',
        activity: 'Shell: npm test -- parser',
        permissionMode: 'workspace-write',
        model: 'gpt-5.1-codex',
        projectName: 'tidy',
      },
      absent: ['lastText'],
    },
    {
      name: 'tool-call-running.jsonl',
      ended: true,
      session: { state: 'ended', title: 'Fix the failing tests in the parser' },
      absent: ['activity'],
    },
    {
      name: 'relative-resets.jsonl',
      session: { title: 'Regenerate the sitemap', state: 'idle' },
      reading: {
        fiveHour: { pct: 100, resetsAt: Date.parse('2025-10-02T08:00:09.000Z') + 600_000 },
        sevenDay: { pct: 64.5, resetsAt: Date.parse('2025-10-02T08:00:09.000Z') + 259_200_000 },
        limited: true,
        observedAt: Date.parse('2025-10-02T08:00:09.000Z'),
      },
    },
    { name: 'turn-aborted.jsonl', session: { state: 'idle', title: 'Rotate the staging certificates' }, absent: ['activity'] },
    {
      name: 'turn-events.jsonl',
      session: {
        title: 'Add a legend to the map view',
        state: 'idle',
        lastText: 'Added a legend under the map view, with one entry per layer.',
        permissionMode: 'read-only',
      },
      reading: {
        fiveHour: { pct: 31, resetsAt: 1770740000000 },
        sevenDay: { pct: 12, resetsAt: 1771200000000 },
        limited: false,
        observedAt: Date.parse('2026-02-10T14:20:15.100Z'),
      },
    },
    {
      name: 'broken-lines.jsonl',
      session: { title: 'Tidy up the migrations folder', state: 'working', cwd: '/srv/app' },
      broken: 5,
    },
    { name: 'subagent.jsonl', hidden: true },
    {
      name: 'other-bucket.jsonl',
      session: { origin: 'vscode', state: 'working' },
      reading: { sevenDay: { pct: 96, resetsAt: 1768900000000 }, limited: true, observedAt: Date.parse('2026-01-15T16:00:05.000Z') },
    },
    {
      name: 'request-marker.jsonl',
      session: { title: 'List the open ports', state: 'error', lastText: 'stream disconnected before completion', cwd: '/', projectName: '/' },
      absent: ['origin'],
    },
  ];
  for (const row of rows) {
    const { track, reading, broken } = await follow(path.join(fixtures, row.name));
    assert.equal(broken, row.broken ?? 0, `${row.name}: lines passed over`);
    if (row.hidden) {
      assert.equal(track.hidden, true, `${row.name}: hidden`);
      continue;
    }
    const record = sessionRecord(track, { ended: row.ended ?? false });
    for (const [key, value] of Object.entries(row.session)) assert.deepEqual(record[key], value, `${row.name}: ${key}`);
    for (const key of row.absent ?? []) assert.equal(key in record, false, `${row.name}: no ${key}`);
    if ('reading' in row) assert.deepEqual(reading, row.reading, `${row.name}: reading`);
  }
  assert.equal(sessionRecord(freshTrack('/x/no-uuid.jsonl'), { ended: false }), null, 'no id, no session');
});

test('rate limits: which window is which, what counts as limited, what is no reading', () => {
  const at = Date.parse('2026-03-01T12:00:00Z');
  const rows = [
    ['no rate limits', null, null],
    ['a percent that is text', { primary: { used_percent: '5', window_minutes: 300 } }, null],
    ['another bucket', { limit_id: 'codex_gpt5', primary: { used_percent: 5, window_minutes: 300 } }, null],
    [
      'the weekly window given first is still the weekly one',
      { primary: { used_percent: 20, window_minutes: 10080 }, secondary: { used_percent: 3, window_minutes: 300 } },
      { fiveHour: { pct: 3 }, sevenDay: { pct: 20 }, limited: false, observedAt: at },
    ],
    [
      'a weekly window alone',
      { primary: { used_percent: 55, window_minutes: 10080, resets_at: 1772500000 } },
      { sevenDay: { pct: 55, resetsAt: 1772500000000 }, limited: false, observedAt: at },
    ],
    [
      'two windows of one length keep both',
      { primary: { used_percent: 1, window_minutes: 300 }, secondary: { used_percent: 2, window_minutes: 300 } },
      { fiveHour: { pct: 1 }, sevenDay: { pct: 2 }, limited: false, observedAt: at },
    ],
    [
      'percent kept within 0 to 100; a spent window limits',
      { primary: { used_percent: 130, window_minutes: 300 }, secondary: { used_percent: -4, window_minutes: 10080 } },
      { fiveHour: { pct: 100 }, sevenDay: { pct: 0 }, limited: true, observedAt: at },
    ],
    ['a reset at 0 is no reset', { primary: { used_percent: 9, window_minutes: 300, resets_at: 0 } }, { fiveHour: { pct: 9 }, limited: false, observedAt: at }],
    [
      'a reset in seconds counts from the line',
      { primary: { used_percent: 9, window_minutes: 300, resets_in_seconds: 90 } },
      { fiveHour: { pct: 9, resetsAt: at + 90_000 }, limited: false, observedAt: at },
    ],
    [
      'the limit says it was reached',
      { limit_id: 'codex', primary: { used_percent: 40, window_minutes: 300 }, rate_limit_reached_type: 'rate_limit_reached' },
      { fiveHour: { pct: 40 }, limited: true, observedAt: at },
    ],
  ];
  for (const [name, limits, expected] of rows) assert.deepEqual(readRateLimits(limits, at), expected, name);
  assert.deepEqual(readRateLimits({ primary: { used_percent: 1, resets_in_seconds: 5 } }, null), {
    fiveHour: { pct: 1 },
    limited: false,
  }, 'a line without a time gives no reset from seconds, and no observedAt');
});

test('what a session is doing, and when a turn ends', () => {
  const line = (type, payload) => ({ time: 1, type, payload });
  const call = (name, args) => line('response_item', { type: 'function_call', name, arguments: JSON.stringify(args), call_id: 'c' });
  const rows = [
    ['a shell list without its wrapper', [call('shell', { command: ['bash', '-lc', 'ls -la'] })], 'working', 'Shell: ls -la'],
    ['a plain command list', [call('shell', { command: ['git', 'status'] })], 'working', 'Shell: git status'],
    ['the newer exec_command', [call('exec_command', { cmd: 'pnpm build' })], 'working', 'Shell: pnpm build'],
    ['arguments that aren’t JSON', [line('response_item', { type: 'function_call', name: 'shell', arguments: '{' })], 'working', 'Shell'],
    ['an MCP tool by its name', [call('mcp__files__read', {})], 'working', 'mcp__files__read'],
    ['a web search', [line('response_item', { type: 'web_search_call', action: { query: 'node fs.watch' } })], 'working', 'Web search: node fs.watch'],
    [
      'a long command is cut',
      [call('shell', { command: ['bash', '-lc', `echo ${'x'.repeat(400)}`] })],
      'working',
      (activity) => activity.length === 160 && activity.endsWith('…'),
    ],
    ['a commentary keeps it working', [call('shell', { command: ['ls'] }), line('event_msg', { type: 'agent_message', message: 'Looking…', phase: 'commentary' })], 'working', 'Shell: ls'],
    ['an answer ends the turn', [call('shell', { command: ['ls'] }), line('event_msg', { type: 'agent_message', message: 'Done.' })], 'idle', undefined],
    ['a new request starts one', [line('event_msg', { type: 'agent_message', message: 'Done.' }), line('event_msg', { type: 'user_message', message: 'again' })], 'working', undefined],
    ['a turn start starts one', [line('event_msg', { type: 'task_started' })], 'working', undefined],
    ['a token count changes nothing', [line('event_msg', { type: 'agent_message', message: 'Done.' }), line('event_msg', { type: 'token_count', info: null, rate_limits: null })], 'idle', undefined],
    ['an unknown event changes nothing', [line('event_msg', { type: 'something_new' })], 'starting', undefined],
  ];
  for (const [name, lines, state, activity] of rows) {
    const track = freshTrack('/s/rollout-2026-01-01T00-00-00-00000000-0000-0000-0000-000000000000.jsonl');
    for (const each of lines) applyLine(track, each);
    assert.equal(track.state, state, name);
    if (typeof activity === 'function') assert.ok(activity(track.activity), `${name}: ${track.activity}`);
    else assert.equal(track.activity, activity, name);
  }
});

test('titles are one line, without the context Codex puts first, and the first request wins', () => {
  const track = freshTrack('/s/rollout-x-00000000-0000-0000-0000-000000000001.jsonl');
  const user = (text) => ({ time: null, type: 'response_item', payload: { type: 'message', role: 'user', content: [{ type: 'input_text', text }] } });
  applyLine(track, user('<environment_context><cwd>/</cwd></environment_context>'));
  applyLine(track, user('# AGENTS.md instructions for /p\n\n<INSTRUCTIONS>x</INSTRUCTIONS>'));
  applyLine(track, user('   '));
  assert.equal(track.title, undefined);
  applyLine(track, user(`first\n\trequest ${'y'.repeat(300)}`));
  applyLine(track, { time: null, type: 'event_msg', payload: { type: 'user_message', message: 'second request' } });
  assert.ok(track.title.startsWith('first request yyy'));
  assert.equal(track.title.length, MAX_TITLE_CHARS);

  // A forked session repeats its parent's meta; the file's own one counts.
  const meta = (id, cwd) => ({ time: null, type: 'session_meta', payload: { id, cwd, source: 'cli' } });
  const fork = freshTrack('/s/no-uuid.jsonl');
  applyLine(fork, meta('019c0000-0000-7000-8000-00000000000a', '/child'));
  applyLine(fork, meta('019c0000-0000-7000-8000-00000000000b', '/parent'));
  assert.equal(fork.id, '019c0000-0000-7000-8000-00000000000a');
  assert.equal(fork.cwd, '/child');
});

test('a growing file is read from where the last read stopped, whole lines only', async (t) => {
  const folder = await scratchFolder(t);
  const file = path.join(folder, 'rollout.jsonl');
  const append = (text) => fs.appendFile(file, text);

  await append('{"a":1}\n{"b":');
  let result = await readNewLines(file, freshCursor());
  assert.deepEqual(result.lines, ['{"a":1}']);
  assert.equal(result.cursor.offset, 8, 'the half line is left for later');

  await append('2}\n\n{"c":"é"}\n');
  result = await readNewLines(file, result.cursor);
  assert.deepEqual(result.lines, ['{"b":2}', '{"c":"é"}'], 'the half line whole, an empty line passed over, UTF-8 intact');
  const settled = result.cursor;

  result = await readNewLines(file, settled);
  assert.deepEqual(result.lines, [], 'nothing new, nothing read again');
  assert.equal(result.cursor.offset, settled.offset);
  // What came before the cursor, rewritten, is not read again: persist.test.js, across a restart.
});

test('limits: an overlong line is passed over, a big growth is read in parts, a replaced file starts again', async (t) => {
  const folder = await scratchFolder(t);
  const file = path.join(folder, 'rollout.jsonl');
  const limits = { maxLineBytes: 1024, maxReadBytes: 300 * 1024 };

  // The long line arrives in two writes, the second while it is being passed over.
  await fs.writeFile(file, `{"first":1}\n{"long":"${'x'.repeat(600 * 1024)}`);
  let result = await readNewLines(file, freshCursor(), limits);
  assert.deepEqual(result.lines, ['{"first":1}']);
  assert.equal(result.skipped, 1);
  assert.equal(result.more, true, 'only part of the growth was read');
  result = await readNewLines(file, result.cursor, limits);
  assert.equal(result.cursor.skipping, true, 'still inside the long line');
  await fs.appendFile(file, `${'x'.repeat(1000)}"}\n{"after":2}\n`);
  const later = [];
  do {
    result = await readNewLines(file, result.cursor, limits);
    later.push(...result.lines);
  } while (result.more);
  assert.deepEqual(later, ['{"after":2}'], 'reading goes on after the long line');
  assert.equal(result.cursor.offset, (await fs.stat(file)).size);

  // A file replaced by a shorter one (another inode) is read from its start.
  await fs.rm(file);
  await fs.writeFile(file, '{"new":1}\n');
  result = await readNewLines(file, result.cursor, limits);
  assert.equal(result.restarted, true);
  assert.deepEqual(result.lines, ['{"new":1}']);
});
