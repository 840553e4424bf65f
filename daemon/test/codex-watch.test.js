// The real service following Codex: a stand-in Codex writes its session
// files into a scratch Codex home while the service watches, and the feed
// and the snapshot show the sessions and the rate-limit windows.

import assert from 'node:assert/strict';
import fs from 'node:fs';
import path from 'node:path';
import test from 'node:test';

import { MIN_CODEX_VERSION } from '../src/codex/codex-binary.js';
import { RolloutWatcher } from '../src/codex/rollout-watcher.js';
import { eventually, scratchFolder, sleep, startScratchService } from './helpers.js';
import { CodexStandIn, installStandInProgram } from './support/codex-standin.js';

// The service started where Codex ran (its home, the stand-in program on the
// search path), its first look at Codex done, and Codex switched on unless `off`.
async function watchingService(t, { version = '0.170.0', sessionsFolder = true, off = false, codex = {}, ...options } = {}) {
  const folder = await scratchFolder(t);
  const codexHome = path.join(folder, 'codex-home');
  if (sessionsFolder) fs.mkdirSync(path.join(codexHome, 'sessions'), { recursive: true });
  const program = installStandInProgram(path.join(folder, 'bin'), { version });
  const started = await startScratchService(t, { folder, codexHome, codex: { searchPath: [path.dirname(program)], ...codex }, ...options });
  await started.service.codexReady;
  if (!off) assert.equal((await started.post('/local/settings', { codex: true })).status, 200);
  const sessionOf = async (id) => (await started.snapshot()).sessions.find((s) => s.id === id);
  return { ...started, codexHome, program, sessionOf, standIn: (more) => new CodexStandIn({ home: codexHome, ...more }) };
}

test('a Codex session shows as the stand-in writes it, step by step, through the watch alone', async (t) => {
  // Look-overs far apart: within this test only the watch can bring news.
  const { snapshot, post, feed, program, standIn } = await watchingService(t, { off: true, codex: { watch: { lookOverMs: 600_000 } } });
  const record = { available: true, enabled: false, connected: false, version: '0.170.0', min: MIN_CODEX_VERSION, path: program };
  assert.deepEqual((await snapshot()).codex, record);
  const client = await feed();
  await post('/local/settings', { codex: true });
  await eventually(() => client.ofType('codex').some((m) => m.codex.enabled && m.codex.connected), 'Codex connected');

  const codex = standIn({ cwd: '/home/ada/Programming/tidy' });
  const latest = () => client.ofType('session').map((m) => m.session).filter((s) => s.id === codex.id).at(-1);
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
  assert.deepEqual([latest().agent, latest().providerId, latest().origin], ['codex', 'codex', 'terminal']);

  codex.tokenCount({ primary: 12.5, secondary: 40, primaryResetS: 600 });
  const { usage } = (await eventually(() => client.ofType('codex').find((m) => m.codex.usage), 'the rate-limit windows')).codex;
  assert.deepEqual([usage.fiveHour.pct, usage.sevenDay.pct, usage.limited], [12.5, 40, false]);
  assert.ok(Math.abs(usage.fiveHour.resetsAt - (Date.now() + 600_000)) < 60_000, 'the reset lies ten minutes ahead');
  // The snapshot says what the feed said, once the feed has said it all.
  const agreed = await eventually(async () => {
    const json = await snapshot();
    return JSON.stringify(json.sessions.find((s) => s.id === codex.id)) === JSON.stringify(latest()) && json;
  }, 'the snapshot and the feed agree');
  assert.deepEqual(agreed.codex.usage, usage);
});

test('Codex switched off takes its sessions away; switched on, they come back, read on from where they stood', async (t) => {
  const { snapshot, post, feed, sessionOf, standIn } = await watchingService(t, { codex: { watch: { lookOverMs: 100 } } });
  await post('/qa/sessions', { id: 'claude-1', state: 'working' });
  const codex = standIn().meta().prompt('Write the changelog');
  const ids = async () => (await snapshot()).sessions.map((s) => s.id);
  await eventually(async () => (await ids()).includes(codex.id), 'the Codex session');

  const client = await feed();
  await post('/local/settings', { codex: false });
  assert.deepEqual(await ids(), ['claude-1'], 'only Codex’s sessions leave');
  assert.equal((await client.next('codex')).codex.enabled, false);
  // Written while off: nothing shows, and nothing is lost.
  codex.answer('Changelog written.');
  await sleep(300);
  assert.deepEqual(await ids(), ['claude-1']);

  await post('/local/settings', { codex: true });
  const back = await eventually(async () => (await sessionOf(codex.id))?.state === 'idle' && sessionOf(codex.id), 'the session back');
  assert.deepEqual([back.title, back.lastText], ['Write the changelog', 'Changelog written.']);
});

test('a sessions folder made after the start is found by the look-over', async (t) => {
  const { snapshot, sessionOf, standIn } = await watchingService(t, { sessionsFolder: false, codex: { watch: { lookOverMs: 100 } } });
  assert.equal((await snapshot()).codex.connected, false, 'nothing to follow yet');
  const codex = standIn().meta().prompt('First session on this machine');
  await eventually(async () => (await snapshot()).codex.connected && (await sessionOf(codex.id))?.state === 'working', 'the session, once the folder is there');
});

// The record's words for a Codex too old are tabled in codex-binary.test.js.
test('a Codex older than the lowest version says so in both reads; a refresh after its update clears it', async (t) => {
  const { local, post, snapshot, program } = await watchingService(t, { version: '0.150.0', off: true });
  const { problem } = (await snapshot()).codex;
  assert.match(problem, /^Codex 0\.150\.0 is too old/);
  assert.equal((await local('GET', '/local/status')).json.codex.problem, problem);
  installStandInProgram(path.dirname(program), { version: '0.171.0' });
  const { codex } = (await post('/v1/codex/refresh')).json;
  assert.deepEqual([codex.available, codex.version, 'problem' in codex], [true, '0.171.0', false]);
});

test('a record planted through /qa stands until the service has news of its own', async (t) => {
  const { post, snapshot } = await watchingService(t, { off: true });
  const planted = { available: true, enabled: false, version: '0.150.2', min: '0.163.0', account: { signedIn: false } };
  await post('/qa/snapshot', { codex: planted });
  await post('/v1/codex/refresh');
  assert.deepEqual((await snapshot()).codex, planted);
  // A reset is a fresh start: the program is looked at as it is.
  await post('/qa/reset');
  assert.equal((await snapshot()).codex.version, '0.170.0');
});

test('sessions that went quiet end, and a day after their last activity they are dropped', async (t) => {
  let now = Date.now();
  const clock = () => now;
  const { service, sessionOf, standIn } = await watchingService(t, { codex: { now: clock, watch: { lookOverMs: 50 } }, persist: { now: clock } });
  const codex = standIn({ clock: () => new Date(now) }).meta().prompt('Migrate the database');
  const state = async () => (await sessionOf(codex.id))?.state;
  await eventually(async () => (await state()) === 'working', 'the session at work');

  now += 2 * 60 * 60 * 1000 - 60_000;
  await sleep(200);
  assert.equal(await state(), 'working', 'quiet for less than two hours is still at work');
  now += 120_000;
  await eventually(async () => (await state()) === 'ended', 'ended after two quiet hours');

  assert.deepEqual(service.persister.sweep(), [], 'kept for the day');
  now += 22 * 60 * 60 * 1000;
  assert.deepEqual(service.persister.sweep(), [codex.id]);
  await sleep(200);
  assert.equal(await state(), undefined, 'the look-overs don’t bring it back');
  codex.prompt('One more thing');
  await eventually(async () => (await state()) === 'working', 'written to again, it is back');

  fs.rmSync(codex.file);
  await eventually(async () => (await state()) === 'ended', 'ended once its file is gone');
});

test('with more files than can be followed, the newest are, and looking again reads nothing twice', async (t) => {
  const home = path.join(await scratchFolder(t), 'codex-home');
  const hour = 60 * 60 * 1000;
  const now = Date.now();
  const sessions = [5, 1, 4, 2, 3, 30].map((hoursAgo) => {
    const at = new Date(now - hoursAgo * hour);
    const codex = new CodexStandIn({ home, clock: () => at }).meta().prompt(`${hoursAgo} hours ago`);
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
  assert.deepEqual([announced.slice(3), watcher.saved().files.length], [['5 hours ago'], 3]);
});
