// Open brings a session's terminal window to the front: the real Claude Code
// in a real xterm on a virtual X screen with a window manager, in a tmux
// pane, and on the Mac through osascript (a stand-in here). What can't be
// opened is a refusal with its reason, never a success.

import assert from 'node:assert/strict';
import { spawnSync } from 'node:child_process';
import fs from 'node:fs';
import path from 'node:path';
import test from 'node:test';

import { raiseWords } from '../src/windows/raise-error.js';
import { MacRaiser } from '../src/windows/window-raiser-mac.js';
import { claudeFixture, DAEMON, eventually, scratchFolder, startScratchService } from './helpers.js';
import { CLAUDE, claudeEnv, claudeHome, claudeInteractive, missingClaude, missingTmux, standInFor } from './support/claude-code.js';
import { missingScreen, screen, started } from './support/x-screen.js';

const LINUX = raiseWords('this computer');
const FAKES = path.join(DAEMON, 'test', 'fakes');

const onlySession = async (service) =>
  eventually(async () => (await service.snapshot()).sessions?.[0], 'the session, from its hook', 30000);

test(
  'slow: open brings the xterm that runs Claude Code to the front, over another window',
  { skip: missingClaude() ?? missingScreen() ?? false, timeout: 90000 },
  async (t) => {
    const folder = await scratchFolder(t);
    const { display, activePid } = await screen(t);
    // A service started without a screen of its own finds it in the session's environment.
    const service = await startScratchService(t, { folder, windows: { env: {} } });
    const { home, project } = claudeHome(folder, service.support);
    const standIn = await standInFor(t, { tool: null });
    const env = { ...claudeEnv(home, standIn), DISPLAY: display };
    const first = started(t, 'xterm', ['-e', CLAUDE, '--permission-mode', 'default'], { env, cwd: project });
    const session = await onlySession(service);
    const other = started(t, 'xterm', ['-e', 'sleep', '600'], { env: { PATH: process.env.PATH, DISPLAY: display } });
    await eventually(() => activePid() === other.pid, 'the other window in front', 10000);

    const opened = await service.post(`/v1/sessions/${session.id}/open`, {});
    assert.deepEqual([opened.status, opened.json], [200, { app: 'XTerm', already: false }]);
    await eventually(() => activePid() === first.pid, 'Claude Code’s xterm in front', 5000);
    const again = await service.post(`/v1/sessions/${session.id}/open`, {});
    assert.deepEqual(again.json, { app: 'XTerm', already: true });
  },
);

test(
  'slow: open selects the tmux window and pane that run Claude Code',
  { skip: missingClaude() ?? missingTmux() ?? false, timeout: 90000 },
  async (t) => {
    const folder = await scratchFolder(t);
    const service = await startScratchService(t, { folder, windows: { env: {} } });
    const { home, project } = claudeHome(folder, service.support);
    const standIn = await standInFor(t, { tool: null });
    const claude = await claudeInteractive(t, { home, project, standIn });
    const session = await onlySession(service);
    const activeOf = (target) => claude.tmux('display-message', '-p', '-t', target, '#{window_active}').stdout.trim();
    claude.tmux('new-window', '-t', 'pane', 'sleep 600');
    assert.equal(activeOf('pane:0'), '0');

    const opened = await service.post(`/v1/sessions/${session.id}/open`, {});
    // No terminal on a screen shows this tmux session, so tmux is where it comes forward.
    assert.deepEqual([opened.status, opened.json], [200, { app: 'tmux', already: false }]);
    assert.equal(activeOf('pane:0'), '1');
  },
);

test('what can’t be opened is refused with its reason, and nothing is said to be open', async (t) => {
  const service = await startScratchService(t, { windows: { env: {} } });
  const gone = spawnSync('true').pid;
  const rows = [
    ['a process that ended', `pid=${gone}`, 409, LINUX.ended],
    ['a process on no screen, outside tmux', `pid=${process.pid}`, 409, LINUX.noScreen],
    ['a pid that isn’t a number', 'pid=12ab', 400, '“pid” must be a process id.'],
    ['a tty that isn’t a device', `pid=${process.pid}&tty_path=/etc/passwd`, 400, '“tty_path” must be a terminal device such as /dev/ttys003.'],
  ];
  for (const [name, query, status, sentence] of rows) {
    const { transcript_path: _, ...fixture } = claudeFixture('session-start.json');
    const event = { ...fixture, session_id: `s-${rows.findIndex((row) => row[0] === name)}` };
    const told = await service.local('POST', `/claude/hook?${query}`, { body: event });
    const reply = told.status === 200 ? await service.post(`/v1/sessions/${event.session_id}/open`, {}) : told;
    assert.deepEqual([reply.status, reply.json.error?.message], [status, sentence], name);
  }
});

test('on the Mac, osascript is asked for the tab on the session’s tty, which goes as the script’s argument', async (t) => {
  const folder = await scratchFolder(t);
  fs.writeFileSync(path.join(folder, 'tabs'), 'iTerm2 /dev/ttys004\nTerminal /dev/ttys007\n');
  const raiser = new MacRaiser({ env: { PATH: `${FAKES}:/usr/bin:/bin`, TIDEWATCH_FAKE_TOOLS: folder } });
  const mac = raiseWords('this Mac');
  const rows = [
    ['a Terminal tab', { pid: 1, tty: '/dev/ttys007' }, { app: 'Terminal', already: false }],
    ['an iTerm2 session', { pid: 1, tty: '/dev/ttys004' }, { app: 'iTerm2', already: false }],
    ['a tty no app has', { pid: 1, tty: '/dev/ttys009' }, mac.noWindow],
    ['no tty known', { pid: 1 }, mac.unknown],
    ['a tty that would break out of the script', { pid: 1, tty: '/dev/ttys0" & quit' }, mac.unknown],
  ];
  for (const [name, place, expected] of rows) {
    const got = await raiser.raise(place).catch((error) => error.message);
    assert.deepEqual(got, expected, name);
  }
  const calls = fs.readFileSync(path.join(folder, 'calls'), 'utf8');
  assert.deepEqual(calls.match(/^argv: .*$/gm), ['argv: /dev/ttys007', 'argv: /dev/ttys004', 'argv: /dev/ttys009']);
  assert.doesNotMatch(calls, /ttys0\d\d"/, 'no tty is written into the script');
});
