// The real service following Codex: a stand-in Codex writes its session
// files into a scratch Codex home while the service watches, and the feed
// and the snapshot show the sessions and the rate-limit windows.

import assert from 'node:assert/strict';
import { execFile } from 'node:child_process';
import fs from 'node:fs';
import path from 'node:path';
import test from 'node:test';
import { promisify } from 'node:util';

import { MIN_CODEX_VERSION } from '../src/codex/codex-binary.js';
import { RolloutWatcher } from '../src/codex/rollout-watcher.js';
import { eventually, scratchFolder, startScratchService } from './helpers.js';
import { CodexStandIn, installStandInProgram } from './support/codex-standin.js';

const run = promisify(execFile);

// A Codex home with its sessions folder, as on a machine where Codex ran,
// and the stand-in program on the service's search path.
async function codexMachine(t, { version = '0.170.0', sessionsFolder = true } = {}) {
  const folder = await scratchFolder(t);
  const codexHome = path.join(folder, 'codex-home');
  if (sessionsFolder) fs.mkdirSync(path.join(codexHome, 'sessions'), { recursive: true });
  const program = installStandInProgram(path.join(folder, 'bin'), { version });
  return { folder, codexHome, program, bin: path.dirname(program) };
}

// The service started on such a machine, its first look at Codex done.
async function watchingService(t, machine, { codex = {}, ...options } = {}) {
  const started = await startScratchService(t, {
    folder: machine.folder,
    codexHome: machine.codexHome,
    codex: { searchPath: [machine.bin], ...codex },
    ...options,
  });
  await started.service.codexReady;
  return started;
}

const sessionFrames = (client, id) => client.ofType('session').map((m) => m.session).filter((s) => s.id === id);

test('a Codex session shows as the stand-in writes it, step by step, through the watch alone', async (t) => {
  const machine = await codexMachine(t);
  // Look-overs far apart: within this test only the watch can bring news.
  const { local, feed } = await watchingService(t, machine, { codex: { watch: { lookOverMs: 600_000 } } });
  assert.deepEqual((await local('GET', '/v1/snapshot')).json.codex, {
    available: true,
    enabled: false,
    connected: false,
    version: '0.170.0',
    min: MIN_CODEX_VERSION,
    path: machine.program,
  });

  const client = await feed();
  assert.equal((await local('POST', '/local/settings', { body: { codex: true } })).status, 200);
  await eventually(() => client.ofType('codex').some((m) => m.codex.enabled && m.codex.connected), 'Codex connected');

  const codex = new CodexStandIn({ home: machine.codexHome, cwd: '/home/ada/Programming/tidy' });
  const latest = () => sessionFrames(client, codex.id).at(-1);
  const steps = [
    ['the first line names the session', () => codex.meta(), (s) => s.state === 'starting' && s.cwd === '/home/ada/Programming/tidy'],
    ['the request gives the title and starts work', () => codex.prompt('Run the tests'), (s) => s.state === 'working' && s.title === 'Run the tests'],
    ['a command shows what it does', () => codex.shell('npm test'), (s) => s.activity === 'Shell: npm test'],
    ['its output keeps it working', () => codex.toolOutput('call_standin1', 'ok\n'), (s) => s.state === 'working'],
    ['the answer ends the turn', () => codex.answer('The tests pass.'), (s) => s.state === 'idle' && s.lastText === 'The tests pass.' && !('activity' in s)],
  ];
  for (const [name, write, shows] of steps) {
    write();
    await eventually(() => latest() && shows(latest()), name);
  }

  codex.tokenCount({ primary: 12.5, secondary: 40, primaryResetS: 600 });
  const { codex: record } = await eventually(
    () => client.ofType('codex').find((m) => m.codex.usage),
    'the rate-limit windows',
  );
  assert.equal(record.usage.fiveHour.pct, 12.5);
  assert.equal(record.usage.sevenDay.pct, 40);
  assert.equal(record.usage.limited, false);
  assert.ok(Math.abs(record.usage.fiveHour.resetsAt - (Date.now() + 600_000)) < 60_000, 'the reset lies ten minutes ahead');

  // The snapshot says what the feed said, once the feed has said it all.
  const snapshot = await eventually(async () => {
    const { json } = await local('GET', '/v1/snapshot');
    const same = JSON.stringify(json.sessions.find((s) => s.id === codex.id)) === JSON.stringify(latest());
    return same && json;
  }, 'the snapshot and the feed agree');
  assert.deepEqual(snapshot.codex.usage, record.usage);
  assert.equal(latest().agent, 'codex');
  assert.equal(latest().providerId, 'codex');
  assert.equal(latest().origin, 'terminal');
});

test('the stand-in program plays a turn in a process of its own while the service watches', async (t) => {
  const machine = await codexMachine(t);
  const { local } = await watchingService(t, machine);
  await local('POST', '/local/settings', { body: { codex: true } });

  const env = { ...process.env, CODEX_HOME: machine.codexHome };
  const { stdout } = await run(machine.program, ['exec', '--step-ms', '20', '--limits', '100,61', 'Check the build'], { env });
  const file = stdout.trim();
  assert.ok(file.startsWith(path.join(machine.codexHome, 'sessions')), file);
  assert.match(path.basename(file), /^rollout-\d{4}-\d\d-\d\dT\d\d-\d\d-\d\d-[0-9a-f-]{36}\.jsonl$/);

  const session = await eventually(async () => {
    const { json } = await local('GET', '/v1/snapshot');
    return json.sessions.find((s) => s.title === 'Check the build' && s.state === 'idle');
  }, 'the finished session');
  assert.equal(session.lastText, 'The tests pass.');
  const { codex } = await eventually(async () => {
    const { json } = await local('GET', '/v1/snapshot');
    return json.codex.usage && json;
  }, 'the reading of the last line');
  assert.equal(codex.usage.limited, true, 'a spent five-hour window is a limit');
  assert.equal(codex.usage.fiveHour.pct, 100);
});

test('Codex switched off takes its sessions away; switched on, they come back, read on from where they stood', async (t) => {
  const machine = await codexMachine(t);
  const { local, feed } = await watchingService(t, machine, { codex: { watch: { lookOverMs: 100 } } });
  await local('POST', '/qa/sessions', { body: { id: 'claude-1', title: 'A Claude Code session', state: 'working' } });
  await local('POST', '/local/settings', { body: { codex: true } });
  const codex = new CodexStandIn({ home: machine.codexHome });
  codex.meta().prompt('Write the changelog');
  const ids = async () => (await local('GET', '/v1/snapshot')).json.sessions.map((s) => s.id);
  await eventually(async () => (await ids()).includes(codex.id), 'the Codex session');

  const client = await feed();
  await local('POST', '/local/settings', { body: { codex: false } });
  assert.deepEqual(await ids(), ['claude-1'], 'only Codex’s sessions leave');
  assert.equal((await client.next('codex')).codex.enabled, false);

  // Written while off: nothing shows, and nothing is lost.
  codex.answer('Changelog written.');
  await new Promise((resolve) => setTimeout(resolve, 300));
  assert.deepEqual(await ids(), ['claude-1']);

  await local('POST', '/local/settings', { body: { codex: true } });
  const back = await eventually(async () => {
    const { json } = await local('GET', '/v1/snapshot');
    return json.sessions.find((s) => s.id === codex.id && s.state === 'idle');
  }, 'the session back, with what was written while off');
  assert.equal(back.title, 'Write the changelog');
  assert.equal(back.lastText, 'Changelog written.');
});

test('a sessions folder made after the start is found by the look-over', async (t) => {
  const machine = await codexMachine(t, { sessionsFolder: false });
  const { local } = await watchingService(t, machine, { codex: { watch: { lookOverMs: 100 } } });
  await local('POST', '/local/settings', { body: { codex: true } });
  assert.equal((await local('GET', '/v1/snapshot')).json.codex.connected, false, 'nothing to follow yet');

  const codex = new CodexStandIn({ home: machine.codexHome });
  codex.meta().prompt('First session on this machine');
  await eventually(async () => {
    const { json } = await local('GET', '/v1/snapshot');
    return json.codex.connected && json.sessions.some((s) => s.id === codex.id && s.state === 'working');
  }, 'the session, once the folder is there');
});

test('a Codex older than the lowest version says so; a refresh after its update clears it', async (t) => {
  const machine = await codexMachine(t, { version: '0.150.0' });
  const { local } = await watchingService(t, machine);
  const old = (await local('GET', '/v1/snapshot')).json.codex;
  assert.equal(old.available, false);
  assert.equal(old.version, '0.150.0');
  assert.equal(old.min, MIN_CODEX_VERSION);
  assert.equal(old.path, machine.program);
  assert.equal(old.problem, `Codex 0.150.0 is too old for Tidewatch, which needs ${MIN_CODEX_VERSION} or later.`);
  assert.equal((await local('GET', '/local/status')).json.codex.problem, old.problem, 'the local status says the same');

  installStandInProgram(machine.bin, { version: '0.171.0' });
  const reply = await local('POST', '/v1/codex/refresh');
  assert.equal(reply.status, 200);
  assert.equal(reply.json.codex.available, true);
  assert.equal(reply.json.codex.version, '0.171.0');
  assert.equal('problem' in reply.json.codex, false);
});

test('a record planted through /qa stands until the service has news of its own', async (t) => {
  const machine = await codexMachine(t);
  const { local } = await watchingService(t, machine);
  const planted = { available: true, enabled: false, version: '0.150.2', min: '0.163.0', account: { signedIn: false } };
  await local('POST', '/qa/snapshot', { body: { codex: planted } });
  await local('POST', '/v1/codex/refresh');
  assert.deepEqual((await local('GET', '/v1/snapshot')).json.codex, planted);

  // A reset is a fresh start: the program is looked at as it is.
  await local('POST', '/qa/reset');
  assert.equal((await local('GET', '/v1/snapshot')).json.codex.version, '0.170.0');
});

test('sessions that went quiet end, and a day after their last activity they are dropped', async (t) => {
  const machine = await codexMachine(t);
  let now = Date.now();
  const clock = () => now;
  const { service, local } = await watchingService(t, machine, { codex: { now: clock, watch: { lookOverMs: 50 } }, persist: { now: clock } });
  await local('POST', '/local/settings', { body: { codex: true } });
  const codex = new CodexStandIn({ home: machine.codexHome, clock: () => new Date(now) });
  codex.meta().prompt('Migrate the database');
  const state = async () => (await local('GET', '/v1/snapshot')).json.sessions.find((s) => s.id === codex.id)?.state;
  await eventually(async () => (await state()) === 'working', 'the session at work');

  now += 2 * 60 * 60 * 1000 - 60_000;
  await new Promise((resolve) => setTimeout(resolve, 200));
  assert.equal(await state(), 'working', 'quiet for less than two hours is still at work');
  now += 120_000;
  await eventually(async () => (await state()) === 'ended', 'ended after two quiet hours');

  assert.deepEqual(service.persister.sweep(), [], 'kept for the day');
  now += 22 * 60 * 60 * 1000;
  assert.deepEqual(service.persister.sweep(), [codex.id]);
  assert.equal(await state(), undefined);
  await new Promise((resolve) => setTimeout(resolve, 200));
  assert.equal(await state(), undefined, 'the look-overs don’t bring it back');

  codex.prompt('One more thing');
  await eventually(async () => (await state()) === 'working', 'written to again, it is back');
});

test('a session file that goes away ends its session', async (t) => {
  const machine = await codexMachine(t);
  const { local } = await watchingService(t, machine);
  await local('POST', '/local/settings', { body: { codex: true } });
  const codex = new CodexStandIn({ home: machine.codexHome });
  codex.meta().prompt('Archive me');
  const state = async () => (await local('GET', '/v1/snapshot')).json.sessions.find((s) => s.id === codex.id)?.state;
  await eventually(async () => (await state()) === 'working', 'the session at work');
  fs.rmSync(codex.file);
  await eventually(async () => (await state()) === 'ended', 'ended once its file is gone');
});

test('with more files than can be followed, the newest are, and looking again reads nothing twice', async (t) => {
  const folder = await scratchFolder(t);
  const home = path.join(folder, 'codex-home');
  const hour = 60 * 60 * 1000;
  const now = Date.now();
  const sessions = [5, 1, 4, 2, 3, 30].map((hoursAgo) => {
    const codex = new CodexStandIn({ home, clock: () => new Date(now - hoursAgo * hour) });
    codex.meta().prompt(`${hoursAgo} hours ago`);
    const at = new Date(now - hoursAgo * hour);
    fs.utimesSync(codex.file, at, at);
    return codex;
  });
  const announced = [];
  const watcher = new RolloutWatcher({
    root: path.join(home, 'sessions'),
    onSession: (record) => announced.push(record.title),
    onReading: () => {},
    lookOverMs: 600_000,
    limits: { maxFollowedFiles: 3 },
  });
  t.after(() => watcher.stop());
  await watcher.start();
  assert.deepEqual(announced.sort(), ['1 hours ago', '2 hours ago', '3 hours ago'], 'the newest three; a day-old one never');
  await watcher.lookOver();
  assert.equal(announced.length, 3, 'nothing read again');

  // An old one written to again is among the newest now.
  sessions[0].answer('Back at it.');
  await watcher.lookOver();
  assert.deepEqual(announced.slice(3), ['5 hours ago']);
  assert.equal(watcher.saved().files.length, 3);
});
