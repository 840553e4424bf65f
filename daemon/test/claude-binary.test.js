// Claude Code's version as `claude --version` gives it, and which versions
// get HTTP hooks.

import assert from 'node:assert/strict';
import { test } from 'node:test';

import { claudeVersionFromOutput, detectClaude, takesHttpHooks } from '../src/claude/claude-binary.js';
import { CLAUDE, missingClaude } from './support/claude-code.js';

test('the version is the first word of the first line', () => {
  const rows = [
    ['2.1.330 (Claude Code)\n', '2.1.330'],
    ['\nv2.1.63 (Claude Code)', '2.1.63'],
    ['2.2.0-beta.1 (Claude Code)', '2.2.0-beta.1'],
    ['Claude Code 2.1.330', null],
    ['error: unknown option', null],
    ['', null],
  ];
  for (const [output, expected] of rows) assert.equal(claudeVersionFromOutput(output), expected, JSON.stringify(output));
});

test('HTTP hooks from the first Claude Code that takes them on', () => {
  const rows = [
    ['2.1.330', true],
    ['2.1.63', true],
    ['2.2.0', true],
    ['2.1.62', false],
    ['1.0.128', false],
    [null, false],
  ];
  for (const [version, takes] of rows) assert.equal(takesHttpHooks(version), takes, String(version));
});

test('the pinned Claude Code is found and takes HTTP hooks', { skip: missingClaude() ?? false }, async () => {
  const found = await detectClaude({ named: CLAUDE, searchPath: [] });
  assert.equal(found.path, CLAUDE);
  assert.equal(takesHttpHooks(found.version), true, found.version);
  assert.deepEqual(await detectClaude({ searchPath: [], folders: [] }), { path: null, version: null });
});
