// Claude Code's version as `claude --version` gives it, and which versions
// get HTTP hooks. The pinned program's detection is proven at the service's
// start in integration.test.js.

import assert from 'node:assert/strict';
import { test } from 'node:test';

import { claudeVersionFromOutput, takesHttpHooks } from '../src/claude/claude-binary.js';

test('the version is the first word of the first line, and HTTP hooks come with 2.1.63', async (t) => {
  const rows = [
    ['a release', '2.1.330 (Claude Code)\n', '2.1.330', true],
    ['the first that takes HTTP hooks, after a blank line and a “v”', '\nv2.1.63 (Claude Code)', '2.1.63', true],
    ['a pre-release', '2.2.0-beta.1 (Claude Code)', '2.2.0-beta.1', true],
    ['the last without', '2.1.62 (Claude Code)', '2.1.62', false],
    ['an older major', '1.0.128 (Claude Code)', '1.0.128', false],
    ['the name first', 'Claude Code 2.1.330', null, false],
    ['an error', 'error: unknown option', null, false],
    ['nothing', '', null, false],
  ];
  for (const [name, output, version, takes] of rows) {
    await t.test(name, () => assert.deepEqual([claudeVersionFromOutput(output), takesHttpHooks(claudeVersionFromOutput(output))], [version, takes]));
  }
});
