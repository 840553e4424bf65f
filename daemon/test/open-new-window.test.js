// Open on a session the service runs itself: it has no window, so a new
// terminal window is opened in its project, the real Claude Code resuming
// the same conversation through the relay, shared like any terminal; the
// service's Continue then types into it. On the Mac the window is Terminal's,
// through osascript (a stand-in here), with a shell line that must keep
// every hostile word one word.

import assert from 'node:assert/strict';
import fs from 'node:fs';
import path from 'node:path';
import test from 'node:test';

import { CONTINUE_PROMPT } from '../src/sessions/continuer.js';
import { BUSY_FOR_TERMINAL, IN_TERMINAL } from '../src/sessions/session-runner.js';
import { BAD_ID, existingProject, NO_THREAD, projectGone, resumeCommand } from '../src/windows/terminal-command.js';
import { emulatorArguments, findEmulator } from '../src/windows/terminal-emulator.js';
import { MacRaiser, OWN_ENV } from '../src/windows/window-raiser-mac.js';
import { DAEMON, eventually, scratchFolder } from './helpers.js';
import { missingClaude } from './support/claude-code.js';
import { missingRelay, RELAY } from './support/relay.js';
import { prompts, setUp } from './support/service-sessions.js';
import { missingScreen, screen } from './support/x-screen.js';

const FAKES = path.join(DAEMON, 'test', 'fakes');
const ID = '0f8fad5b-d9cb-469f-a165-70867728950e';

test(
  'slow: open on a session the service ran opens an xterm that carries its conversation on, shared',
  { skip: missingClaude() ?? missingRelay() ?? missingScreen() ?? false, timeout: 120000 },
  async (t) => {
    const { display, activePid } = await screen(t);
    const bin = await scratchFolder(t);
    fs.symlinkSync(fs.realpathSync('/usr/bin/xterm'), path.join(bin, 'xterm'));
    const windows = { env: { DISPLAY: display, PATH: bin } };
    const { start, snapshot, service, standIn } = await setUp(t, undefined, { relay: RELAY, windows });
    const { session } = (await start()).json;
    const open = () => service.post(`/v1/sessions/${session.id}/open`, {});

    const approval = await eventually(async () => (await snapshot()).approvals[0], 'the turn asks', 30000);
    const busy = await open();
    assert.deepEqual([busy.status, busy.json.error?.message], [409, BUSY_FOR_TERMINAL], 'refused while its turn runs');
    standIn.script.tool = null;
    await service.local('POST', `/v1/approvals/${approval.id}/decision`, { body: { decision: 'allow' } });
    await eventually(async () => (await snapshot()).sessions[0].state === 'idle', 'the turn done', 30000);

    // The SDK's query may still be closing after the result is in.
    const opened = await eventually(async () => {
      const reply = await open();
      return reply.json.error?.code !== 'busy' && reply;
    }, 'the turn closed', 10000);
    assert.deepEqual([opened.status, opened.json], [200, { app: 'XTerm', already: false }]);
    const comm = (pid) => fs.readFileSync(`/proc/${pid}/comm`, 'utf8').trim();
    await eventually(() => activePid() !== null && comm(activePid()) === 'xterm', 'the new xterm in front', 10000);
    const xterm = activePid();
    t.after(() => {
      try {
        process.kill(xterm, 'SIGKILL');
      } catch {
        // closed by the test
      }
    });
    const again = await open();
    assert.deepEqual([again.status, again.json.error?.message], [409, IN_TERMINAL], 'no second window while it opens');
    const shared = await eventually(async () => (await snapshot()).sessions.find((each) => each.term), 'its terminal shared', 30000);
    assert.deepEqual([shared.id, shared.term.mac], [session.id, 1], 'the same session, not a copy');

    const asked = standIn.requests.length;
    assert.equal((await service.post(`/v1/sessions/${session.id}/continue`, {})).status, 200);
    await eventually(() => prompts(standIn).slice(-1)[0] === CONTINUE_PROMPT, 'the continue prompt reached the API', 30000);
    const request = standIn.requests.slice(asked).findLast((each) => each.body?.tools?.length > 0);
    assert.match(JSON.stringify(request.body.messages), /make a file please/, 'the earlier conversation goes with it');
    assert.deepEqual(
      (await snapshot()).sessions.map((each) => each.id),
      [session.id],
    );
    const raised = await open();
    assert.deepEqual([raised.status, raised.json.app], [200, 'XTerm'], 'once shared, its window is brought forward');

    // Its window closed, the service carries the session on again itself.
    process.kill(xterm, 'SIGTERM');
    await eventually(async () => (await snapshot()).sessions[0].term === undefined, 'the terminal gone', 30000);
    await eventually(async () => (await snapshot()).sessions[0].state === 'idle', 'the session at rest', 30000);
    assert.equal((await service.post(`/v1/sessions/${session.id}/continue`, {})).status, 200);
    await eventually(() => prompts(standIn).filter((each) => each === CONTINUE_PROMPT).length === 2, 'a turn of the service’s', 30000);
  },
);

// Folders whose names a shell would take apart, were they not quoted.
const HOSTILE_FOLDERS = [
  ['a quote', 'it’s Bob\'s "project"'],
  ['a command substitution', '$(touch pwned)'],
  ['backquotes', '`touch pwned`'],
  ['a command after a semicolon', 'a; touch pwned; b'],
  ['a newline', 'one\ntouch pwned'],
  ['a backslash and an ampersand', 'a\\b & touch pwned'],
];

test('on the Mac, Terminal runs the relay in the project, each word arriving whole', async (t) => {
  const folder = await scratchFolder(t);
  const record = path.join(folder, 'record');
  // The relay's place: says where it ran and what it was given.
  const relay = path.join(folder, "relay's bin", 'tidewatch-term');
  fs.mkdirSync(path.dirname(relay));
  fs.writeFileSync(relay, `#!/bin/sh\n{ pwd; printf '%s\\n' "$TIDEWATCH_SUPPORT" "$@"; } > '${record}'\n`, { mode: 0o755 });
  const raiser = new MacRaiser({ env: { PATH: `${FAKES}:/usr/bin:/bin`, TIDEWATCH_FAKE_TOOLS: folder } });
  for (const [name, leaf] of HOSTILE_FOLDERS) {
    const cwd = path.join(folder, leaf);
    fs.mkdirSync(cwd);
    const command = resumeCommand({ relay, agent: 'claude', program: '/opt/claude code/claude', sessionId: ID });
    const opened = await raiser.openNew({ cwd, command, exported: { TIDEWATCH_SUPPORT: cwd } });
    assert.deepEqual(opened, { app: 'Terminal', already: false }, name);
    const lines = await eventually(() => fs.existsSync(record) && fs.readFileSync(record, 'utf8'), name);
    assert.equal(lines, `${cwd}\n${cwd}\n/opt/claude code/claude\n--resume\n${ID}\n`, name);
    fs.rmSync(record);
  }
  const made = fs.readdirSync(folder, { recursive: true }).filter((name) => path.basename(name) === 'pwned');
  assert.deepEqual(made, [], 'nothing hostile ran');
  const own = await raiser.openNew({ cwd: folder, command: [relay], own: { ANTHROPIC_API_KEY: 'k' } }).catch((e) => e.message);
  assert.equal(own, OWN_ENV, 'a session’s own keys never go into a shell line');
});

test('only a strict id goes into a resume command, for', async (t) => {
  const rows = [
    { name: 'a Claude session', facts: { agent: 'claude', sessionId: ID }, command: ['claude', '--resume', ID] },
    { name: 'a Codex thread', facts: { agent: 'codex', sessionId: 'x', threadId: ID }, command: ['codex', 'resume', ID] },
    { name: 'a session id that is an option', facts: { agent: 'claude', sessionId: '--help' }, refused: BAD_ID },
    { name: 'a thread id with a shell in it', facts: { agent: 'codex', threadId: `${ID};sh` }, refused: BAD_ID },
    { name: 'Codex before its thread is named', facts: { agent: 'codex', sessionId: ID }, refused: NO_THREAD },
  ];
  for (const { name, facts, command, refused } of rows) {
    await t.test(name, () => {
      const program = `/bin/${facts.agent}`;
      const run = () => resumeCommand({ relay: '/r', program, ...facts });
      if (refused) assert.throws(run, { status: 409, message: refused });
      else assert.deepEqual(run(), ['/r', `/bin/${command[0]}`, ...command.slice(1)]);
    });
  }
});

test('the terminal emulator is Debian’s choice, else $TERMINAL, else a common one, each told the command its way, for', async (t) => {
  const rows = [
    { name: 'the alternative first', on: ['x-terminal-emulator', 'xterm'], env: { TERMINAL: 'konsole' }, args: ['-e'] },
    { name: '$TERMINAL next', on: ['konsole', 'xterm'], env: { TERMINAL: 'konsole' }, args: ['--workdir', '/p', '-e'] },
    { name: 'gnome-terminal after --', on: ['gnome-terminal'], env: {}, args: ['--working-directory=/p', '--'] },
    { name: 'none installed', on: [], env: {}, args: null },
  ];
  for (const { name, on, env, args } of rows) {
    await t.test(name, () => {
      const exists = (file) => on.some((each) => file === `/nowhere/bin/${each}`);
      const found = findEmulator({ PATH: '/nowhere/sbin:/nowhere/bin', ...env }, exists);
      assert.deepEqual(found && emulatorArguments(found.kind, '/p', ['/r', 'claude']), args && [...args, '/r', 'claude']);
    });
  }
});

test('a new window opens only in the session’s own folder, still there, for', async (t) => {
  const folder = await scratchFolder(t);
  fs.mkdirSync(path.join(folder, 'kept'));
  fs.symlinkSync('/', path.join(folder, 'linked'));
  const rows = [
    ['the folder as it was', 'kept', null],
    ['a folder gone', 'gone', projectGone(path.join(folder, 'gone'))],
    ['a link put in its place', 'linked', projectGone(path.join(folder, 'linked'))],
  ];
  for (const [name, leaf, refused] of rows) {
    await t.test(name, async () => {
      const project = path.join(folder, leaf);
      const got = await existingProject(project).catch((error) => error.message);
      assert.equal(got, refused ?? project);
    });
  }
});
