// What the agents' event streams do to the session the service runs: Codex's
// `exec --json` events (no Codex runs here end to end) and the SDK's messages
// that the end-to-end suite doesn't reach (failures, sub-agents).

import assert from 'node:assert/strict';
import { test } from 'node:test';

import { sessionAfterMessage } from '../src/claude/sdk-messages.js';
import { sessionAfterCodexEvent } from '../src/codex/codex-run.js';

const NOW = 1_800_000_000_000;
const WORKING = { id: 's1', state: 'working', createdAt: 1, lastActivityAt: 1 };

// Each row: the stream's event, and the fields of the session it changes (null: none).
const CODEX = [
  { name: 'a thread started keeps Codex’s own id for continuing', event: { type: 'thread.started', thread_id: 't-1' }, fields: { codexThreadId: 't-1' } },
  { name: 'a command started is the activity', event: { type: 'item.started', item: { type: 'command_execution', command: 'ls -la' } }, fields: { activity: 'ls -la', state: 'working' } },
  { name: 'an answer is the last text', event: { type: 'item.completed', item: { type: 'agent_message', text: 'All done.' } }, fields: { lastText: 'All done.' } },
  { name: 'a turn completed is idle', event: { type: 'turn.completed', usage: { input_tokens: 1 } }, fields: { state: 'idle' } },
  { name: 'a turn failed is an error with its message', event: { type: 'turn.failed', error: { message: 'No network.' } }, fields: { state: 'error', lastText: 'No network.' } },
  { name: 'an error is an error with its message', event: { type: 'error', message: 'Bad key.' }, fields: { state: 'error', lastText: 'Bad key.' } },
  { name: 'an unknown event changes nothing', event: { type: 'reasoning.delta' }, fields: null },
];

for (const { name, event, fields } of CODEX) {
  test(`Codex: ${name}`, () => {
    const after = sessionAfterCodexEvent(WORKING, event, NOW);
    assert.deepEqual(after, fields === null ? WORKING : { ...WORKING, lastActivityAt: NOW, ...fields });
  });
}

const SDK = [
  { name: 'a failed result is an error', message: { type: 'result', subtype: 'error_during_execution', is_error: true }, fields: { state: 'error' } },
  { name: 'a result adds its cost to the session’s', session: { costUsd: 0.5 }, message: { type: 'result', subtype: 'success', result: 'Ok.', total_cost_usd: 0.25 }, fields: { state: 'idle', lastText: 'Ok.', costUsd: 0.75 } },
  { name: 'a tool call is the activity', message: { type: 'assistant', message: { content: [{ type: 'tool_use', name: 'Bash', input: { command: 'npm test' } }] } }, fields: { activity: 'Bash: npm test' } },
  { name: 'a sub-agent’s message changes nothing', message: { type: 'assistant', parent_tool_use_id: 'toolu_1', message: { content: [{ type: 'text', text: 'inner' }] } }, fields: null },
  { name: 'an answer while a request waits keeps it waiting', session: { state: 'needs_you', pendingApprovalIds: ['ap_1'] }, message: { type: 'user', message: { content: [] } }, fields: { state: 'needs_you' } },
];

for (const { name, session = {}, message, fields } of SDK) {
  test(`SDK: ${name}`, () => {
    const before = { ...WORKING, ...session };
    const after = sessionAfterMessage(before, message, NOW);
    assert.deepEqual(after, fields === null ? before : { ...before, lastActivityAt: NOW, ...fields });
  });
}
