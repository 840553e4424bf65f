// The settings.json entries of the integration: put in beside a person's own
// hooks, and a person's status line wrapped and kept running. Install and
// removal over each starting point are proven end to end in integration.test.js.

import assert from 'node:assert/strict';
import { spawnSync } from 'node:child_process';
import fs from 'node:fs';
import path from 'node:path';
import { test } from 'node:test';

import {
  hookCommand,
  installIntoSettings,
  REPORT_EVENTS,
  WAITING_EVENT,
} from '../src/claude/hook-settings.js';
import { scratchFolder } from './helpers.js';
import { HOOK_PROGRAM } from './support/claude-code.js';

const place = {
  node: '/opt/node/bin/node',
  program: '/app/daemon/bin/tidewatch-hook.mjs',
  support: '/home/p/.local/share/Tidewatch',
};
const ownHooks = {
  PreToolUse: [{ matcher: 'Bash', hooks: [{ type: 'command', command: '/usr/local/bin/guard' }] }],
  Stop: [{ hooks: [{ type: 'command', command: 'say done' }] }],
};

test('only the waiting event blocks; every other hook runs in the background', () => {
  const { hooks } = installIntoSettings({ hooks: ownHooks }, place);
  for (const event of REPORT_EVENTS) {
    const ours = hooks[event].flatMap((group) => group.hooks).filter((hook) => hook.command.includes('tidewatch-hook'));
    assert.equal(ours.length, 1, event);
    assert.equal(ours[0].async, true, event);
  }
  const [waiting] = hooks[WAITING_EVENT];
  assert.equal(waiting.matcher, '*');
  assert.equal(waiting.hooks[0].async, undefined);
  assert.ok(waiting.hooks[0].timeout >= 600);
  // The person's own hooks stand first, untouched.
  assert.deepEqual(hooks.PreToolUse[0], ownHooks.PreToolUse[0]);
  // Nothing secret: the command names places, never the token.
  assert.doesNotMatch(JSON.stringify(hooks), /token|Bearer/i);
});

test('a path with spaces and quotes reaches the hook program as one word', async (t) => {
  const folder = await scratchFolder(t);
  const odd = path.join(folder, 'it’s a "support" folder');
  const command = hookCommand({ node: '/bin/echo', program: HOOK_PROGRAM, support: odd });
  const { stdout } = spawnSync('/bin/sh', ['-c', command.replace(/^'\/bin\/echo'/, "printf '%s\\n'")], {
    encoding: 'utf8',
  });
  assert.deepEqual(stdout.trim().split('\n'), [HOOK_PROGRAM, '--support', odd]);
});

test('the wrapped status line keeps running the person’s command and shows its line', async (t) => {
  const folder = await scratchFolder(t);
  const marker = path.join(folder, 'ran');
  const own = { type: 'command', command: `cat > '${marker}'; echo "mine: $(wc -c < '${marker}')"` };
  const { statusLine } = installIntoSettings(
    { statusLine: own },
    { node: process.execPath, program: HOOK_PROGRAM, support: folder },
  );
  const input = JSON.stringify({ session_id: 's1', model: { display_name: 'Opus' } });
  const run = spawnSync('/bin/sh', ['-c', statusLine.command], { input, encoding: 'utf8', timeout: 10000 });
  assert.equal(run.status, 0);
  assert.equal(run.stdout, `mine: ${Buffer.byteLength(input)}\n`);
  assert.equal(fs.readFileSync(marker, 'utf8'), input);

  // Without one of its own, the person sees ours.
  const bare = installIntoSettings({}, { node: process.execPath, program: HOOK_PROGRAM, support: folder }).statusLine;
  const shown = spawnSync('/bin/sh', ['-c', bare.command], { input, encoding: 'utf8', timeout: 10000 });
  assert.equal(shown.stdout, 'Tidewatch · Opus\n');
});
