// A permission request as an approval, and the answers Claude Code reads
// back: nothing is allowed that wasn't, a wider answer adds exactly the rule
// it names, and what is kept for display stays within its limits.

import assert from 'node:assert/strict';
import { test } from 'node:test';

import {
  answerFor,
  approvalFrom,
  callKey,
  DENY_MESSAGE,
  displayInput,
  MAX_INPUT_JSON_BYTES,
  PLAN_DENY_MESSAGE,
} from '../src/claude/permission.js';
import { claudeFixture } from './helpers.js';

const bash = claudeFixture('permission-request-bash.json');
const plan = {
  ...bash,
  tool_name: 'ExitPlanMode',
  tool_input: { plan: '1. Do it\n2. Check it' },
  permission_suggestions: [],
};
const question = {
  ...bash,
  tool_name: 'AskUserQuestion',
  tool_input: {
    questions: [
      { question: 'Which?', header: 'Pick', multiSelect: false, options: [{ label: 'A', description: 'first' }] },
    ],
  },
};

const decision = (output) => output?.hookSpecificOutput?.decision;

const answerRows = [
  ['allow lets this one call run, and adds nothing', 'allow', bash, { behavior: 'allow' }],
  ['deny refuses with a short message for Claude', 'deny', bash, { behavior: 'deny', message: DENY_MESSAGE }],
  ['a plan sent back keeps Claude planning', 'deny', plan, { behavior: 'deny', message: PLAN_DENY_MESSAGE }],
  ['a plan approved is allowed without rules', 'always', plan, { behavior: 'allow' }],
  ['a question is answered where its options are shown', 'allow', question, undefined],
  ['an unknown word allows nothing', 'yes please', bash, undefined],
];

test('answers as Claude Code reads them', async (t) => {
  for (const [name, given, event, expected] of answerRows) {
    await t.test(name, () => {
      const output = answerFor(given, event);
      if (expected === undefined) return assert.equal(output, null);
      assert.equal(output.hookSpecificOutput.hookEventName, 'PermissionRequest');
      assert.deepEqual(decision(output), expected);
    });
  }
});

// The rule an answer adds, as Claude Code reads it.
const rule = (toolName, ruleContent, destination) => ({
  type: 'addRules',
  rules: [{ toolName, ruleContent }],
  behavior: 'allow',
  destination,
});
const command = bash.tool_input.command;
const suggested = { ...bash, permission_suggestions: [...bash.permission_suggestions, rule('Bash', 'touch:*', 'localSettings')] };
const fetch = { ...bash, tool_name: 'WebFetch', tool_input: { url: 'https://example.com/a?b' }, permission_suggestions: [] };

const ruleRows = [
  ['session: the exact command, for this session only', 'session', bash, [rule('Bash', command, 'session')]],
  ['always: the exact command, kept in the project’s local settings', 'always', bash, [rule('Bash', command, 'localSettings')]],
  [
    'session: Claude Code’s own suggested rule comes along, re-aimed at the session',
    'session',
    suggested,
    [rule('Bash', command, 'session'), rule('Bash', 'touch:*', 'session')],
  ],
  ['a fetch is allowed for its host', 'always', fetch, [rule('WebFetch', 'domain:example.com', 'localSettings')]],
];

test('wider answers add exactly the rule they name (never a mode or a folder)', async (t) => {
  for (const [name, given, event, rules] of ruleRows) {
    await t.test(name, () => assert.deepEqual(decision(answerFor(given, event)), { behavior: 'allow', updatedPermissions: rules }));
  }
});

test('approvals by kind', () => {
  const rows = [
    ['a Bash call', bash, { kind: 'tool', summary: bash.tool_input.command, reason: 'Make a file', canSession: true, canAlways: true }],
    ['a plan', plan, { kind: 'plan', plan: '1. Do it\n2. Check it', summary: 'ExitPlanMode', canSession: false }],
    ['a question', question, { kind: 'question', questions: question.tool_input.questions, canAlways: false }],
    ['a multi-line command shows its first line', { ...bash, tool_input: { command: '\n  set -e\n  make all' } }, { summary: 'set -e' }],
  ];
  for (const [name, event, expected] of rows) {
    const approval = approvalFrom(event, { id: 'ap1', now: 1000, expiresAt: 2000 });
    assert.equal(approval.sessionId, bash.session_id, name);
    assert.deepEqual([approval.createdAt, approval.expiresAt], [1000, 2000], name);
    for (const [key, value] of Object.entries(expected)) assert.deepEqual(approval[key], value, `${name}: ${key}`);
  }
});

test('a tool input kept for display stays within its limits, and both sides of a tie cut alike', () => {
  const huge = {
    content: 'x'.repeat(1_000_000),
    list: Array.from({ length: 500 }, (_, i) => i),
    deep: { a: { b: { c: { d: { e: { f: { g: 1 } } } } } } },
  };
  const kept = displayInput(huge);
  assert.ok(Buffer.byteLength(JSON.stringify(kept)) <= MAX_INPUT_JSON_BYTES);
  assert.equal(kept.content.length, 2001);
  assert.equal(kept.list.length, 51);
  assert.equal(kept.deep.a.b.c.d.e, '…');
  const wide = Object.fromEntries(Array.from({ length: 40 }, (_, i) => [`k${i}`, 'y'.repeat(1900)]));
  assert.deepEqual(displayInput(wide), { truncated: true });
  assert.equal(callKey('Write', huge), callKey('Write', JSON.parse(JSON.stringify(huge))));
  assert.notEqual(callKey('Write', huge), callKey('Edit', huge));
});
