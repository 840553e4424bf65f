// A shell step's command: what it gives back, the environment it gets, and
// its time limit, which ends the whole process group it started.

import assert from 'node:assert/strict';
import fs from 'node:fs';
import path from 'node:path';
import test from 'node:test';

import { CLEAN_PATH, OUTPUT_LIMIT, runShell } from '../src/automations/shell-step.js';
import { eventually, scratchFolder } from './helpers.js';

const alive = (pid) => {
  try {
    process.kill(pid, 0);
    return true;
  } catch {
    return false;
  }
};

test('a command runs under /bin/sh in its folder, with the environment given and a clean PATH, in a group of its own without a terminal', async (t) => {
  const folder = await scratchFolder(t);
  const rows = [
    ['its status and output, standard error included', 'echo out; echo err >&2; exit 3', {}, { exit: 3, lines: ['out', 'err'] }],
    ['its folder', 'pwd', {}, { exit: 0, lines: [fs.realpathSync(folder)] }],
    ['a variable given, quoted, stays words, never script', 'printf "%s\\n" "$TIDEWATCH_PREV"', { TIDEWATCH_PREV: '$(touch pwned); `id`' }, { exit: 0, lines: ['$(touch pwned); `id`'] }],
    ['the clean PATH, whatever the service had', 'echo "$PATH"', { PATH: '/tmp/evil' }, { exit: 0, lines: [CLEAN_PATH] }],
    ['no terminal', 'tty', {}, { exit: 1, lines: ['not a tty'] }],
    ['its own process group', 'test "$(ps -o pgid= -p $$ | tr -d " ")" = "$$" && echo leader', {}, { exit: 0, lines: ['leader'] }],
  ];
  for (const [name, command, env, expected] of rows) {
    await t.test(name, async () => {
      const result = await runShell({ command, cwd: folder, env, timeoutSec: 10 });
      assert.deepEqual(
        { exit: result.exit, lines: result.output.trim().split('\n').sort(), timedOut: result.timedOut },
        { exit: expected.exit, lines: [...expected.lines].sort(), timedOut: false },
      );
    });
  }
  assert.equal(fs.existsSync(path.join(folder, 'pwned')), false);
});

test('at its limit the whole group gets SIGTERM, and SIGKILL after the grace when it holds on', async (t) => {
  const folder = await scratchFolder(t);
  const rows = [
    ['children in the background end with the shell', 'sleep 300 & echo $! >> pids; sleep 300 & echo $! >> pids; wait', 128 + 15],
    ['a command that ignores SIGTERM is killed', "trap '' TERM; sleep 300 & echo $! >> pids; wait; sleep 300", 128 + 9],
  ];
  for (const [name, command, exit] of rows) {
    await t.test(name, async () => {
      fs.rmSync(path.join(folder, 'pids'), { force: true });
      const result = await runShell({ command, cwd: folder, timeoutSec: 0.5, killGraceMs: 300 });
      assert.deepEqual([result.exit, result.timedOut], [exit, true]);
      const pids = fs.readFileSync(path.join(folder, 'pids'), 'utf8').trim().split('\n').map(Number);
      assert.ok(pids.length >= 1);
      await eventually(() => pids.every((pid) => !alive(pid)), 'every process of the group gone');
    });
  }
});

test('output is bounded to its last 64 KiB, never cut inside a character, and the result says how much went', async (t) => {
  const folder = await scratchFolder(t);
  const result = await runShell({ command: 'yes é | head -n 70000; echo ENDS', cwd: folder, timeoutSec: 10 });
  const [note, ...rest] = result.output.split('\n');
  assert.equal(note, `[the first ${result.dropped} bytes of output were left out]`);
  assert.equal(result.dropped + Buffer.byteLength(rest.join('\n')), 70000 * 3 + 5);
  assert.ok(Buffer.byteLength(rest.join('\n')) <= OUTPUT_LIMIT);
  assert.match(rest.join('\n'), /^\n(é\n)+ENDS\n$/);
});
