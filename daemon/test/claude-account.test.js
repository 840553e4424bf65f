// The Claude Code account from Claude Code's own files: what the files of a
// real 2.1.330 say (test/fixtures/claude/account), what that does to the
// account record beside a limit or a lost sign-in that a failed turn
// reported, and the files followed as Claude Code replaces them, with the
// token never leaving them.

import assert from 'node:assert/strict';
import { spawnSync } from 'node:child_process';
import fs from 'node:fs';
import path from 'node:path';
import { test } from 'node:test';

import { accountAfterSignIn, accountFiles, ClaudeAccount, signInFrom } from '../src/claude/claude-account.js';
import { ServiceState } from '../src/state.js';
import { claudeFixture, eventually, scratchFolder, sleep, startScratchService } from './helpers.js';
import { CLAUDE, claudeEnv, missingClaude } from './support/claude-code.js';

const sample = (name) => claudeFixture(`account/${name}`);
const TOKEN = sample('credentials-signed-in.json').claudeAiOauth.accessToken;
const NOW = 1_795_000_000_000;
const HOUR = 3600_000;

const fileRows = [
  ['signed in on Max', 'claude-signed-in.json', 'credentials-signed-in.json', false, 'signed_in', 'Max'],
  ['after `claude auth logout`', 'claude-signed-out.json', null, false, 'signed_out', null],
  ['a sign-in that ran out, its tokens emptied', 'claude-signed-in.json', 'credentials-expired.json', false, 'expired', 'Max'],
  // Claude Code itself says "loggedIn": false for this one on Linux.
  ['an account without credentials, where there is no keychain', 'claude-signed-in.json', null, false, 'signed_out', null],
  ['an account whose sign-in lives in a Mac’s keychain', 'claude-signed-in.json', null, true, 'signed_in', null],
  ['the plan’s own name before the plan’s word', { oauthAccount: { accountUuid: 'a', planDisplayName: 'Max 20x' } }, 'credentials-signed-in.json', false, 'signed_in', 'Max 20x'],
  ['an API key of its own sign-in is nothing to report', { primaryApiKey: 'sk-ant-api03-x' }, null, false, 'none', null],
  ['a key from the environment, taken once, is nothing to report', { customApiKeyResponses: { approved: ['abc'], rejected: [] } }, null, false, 'none', null],
  ['no files at all', null, null, false, 'none', null],
];

test('what Claude Code’s files say about the sign-in', () => {
  const load = (value) => (typeof value === 'string' ? sample(value) : value);
  for (const [name, config, credentials, keychain, kind, plan] of fileRows) {
    const said = signInFrom({ config: load(config), credentials: load(credentials), keychain });
    assert.deepEqual({ kind: said.kind, plan: said.plan }, { kind, plan }, name);
  }
  // A new sign-in is told from the old one, and the mark gives nothing of the token away.
  const credentials = sample('credentials-signed-in.json');
  const again = { claudeAiOauth: { ...credentials.claudeAiOauth, accessToken: `${TOKEN}-renewed` } };
  const first = signInFrom({ config: null, credentials });
  assert.notEqual(first.mark, signInFrom({ config: null, credentials: again }).mark);
  assert.equal(first.mark, signInFrom({ config: sample('claude-signed-in.json'), credentials }).mark);
  assert.doesNotMatch(first.mark, /sk-ant|tidewatch/);
});

test('the files sit where Claude Code keeps them, also in a folder of its own', () => {
  assert.deepEqual(accountFiles('/home/p/.claude'), { config: '/home/p/.claude.json', credentials: '/home/p/.claude/.credentials.json' });
  assert.deepEqual(accountFiles('/srv/claude-config'), { config: '/srv/claude-config/.claude.json', credentials: '/srv/claude-config/.credentials.json' });
});

const signedIn = { kind: 'signed_in', plan: 'Max', mark: 'm' };
const limit = { window: 'five_hour', resetsAt: NOW + HOUR, usingCredits: false };
const limited = { state: 'limited', limit, since: NOW - HOUR, text: 'You’ve hit your 5-hour limit', plan: 'Max' };

const signedOut = { kind: 'signed_out', plan: null, mark: '' };

const accountRows = [
  ['a first sign-in reads ok, with its plan', { state: 'unknown' }, signedIn, { state: 'ok', plan: 'Max' }],
  ['a limit in force outlives a new sign-in', limited, signedIn, limited],
  ['a limit whose reset passed is over', { ...limited, limit: { ...limit, resetsAt: NOW - 1 } }, signedIn, { state: 'ok', plan: 'Max' }],
  ['a sign-in lost in a failed turn comes back with a new one', { state: 'logged_out', reason: 'not_logged_in', since: NOW - HOUR }, { ...signedIn, plan: 'Pro' }, { state: 'ok', plan: 'Pro' }],
  ['a sign-in in progress ends with it', { state: 'logged_out', login: { state: 'waiting_code', where: 'mac' } }, signedIn, { state: 'ok', plan: 'Max' }],
  ['signing out keeps a limit in force for the next sign-in, and forgets the plan', limited, signedOut, { state: 'logged_out', reason: 'not_logged_in', since: NOW, limit }],
  ['and the next sign-in finds the limit again', { state: 'logged_out', reason: 'not_logged_in', since: NOW - 5, limit }, signedIn, { state: 'limited', limit, since: NOW, plan: 'Max' }],
  ['a sign-in that ran out keeps its plan and says so', { state: 'ok', plan: 'Max' }, { kind: 'expired', plan: 'Max', mark: '' }, { state: 'logged_out', reason: 'expired', since: NOW, plan: 'Max' }],
  ['a sign-out already known keeps its time', { state: 'logged_out', reason: 'expired', since: NOW - HOUR }, signedOut, { state: 'logged_out', reason: 'not_logged_in', since: NOW - HOUR }],
  ['what the account’s server said stands; only the plan follows', { state: 'no_credit', reason: 'spend_cap' }, signedIn, { state: 'no_credit', reason: 'spend_cap', plan: 'Max' }],
  ['files that tell nothing change nothing', limited, { kind: 'none', plan: null, mark: '' }, limited],
];

test('the account after the files said something new', () => {
  for (const [name, before, signIn, expected] of accountRows) {
    assert.deepEqual(accountAfterSignIn(before, signIn, NOW), expected, name);
  }
});

// Claude Code replaces its files whole: written beside, then renamed.
function replace(file, value) {
  fs.mkdirSync(path.dirname(file), { recursive: true });
  const beside = `${file}.tmp-${process.pid}`;
  fs.writeFileSync(beside, typeof value === 'string' ? value : JSON.stringify(value, null, 2), { mode: 0o600 });
  fs.renameSync(beside, file);
}

// A home signed in as the samples are.
function signedInHome(claudeDir) {
  replace(accountFiles(claudeDir).config, sample('claude-signed-in.json'));
  replace(accountFiles(claudeDir).credentials, sample('credentials-signed-in.json'));
}

function follower(t, claudeDir, options = {}) {
  const state = new ServiceState({ hostname: 'test', daemonVersion: '0', home: '/nowhere' });
  const account = new ClaudeAccount({ state, claudeDir, keychain: false, settleMs: 20, ...options });
  t.after(() => account.close());
  return { state, account, record: () => state.part('account') };
}

test('the files are followed as Claude Code replaces them, and a limit stands through its rewrites', async (t) => {
  const home = await scratchFolder(t);
  const claudeDir = path.join(home, '.claude');
  const { config, credentials } = accountFiles(claudeDir);
  signedInHome(claudeDir);
  // Only the watch can bring the changes below within the test's time.
  const { state, account, record } = follower(t, claudeDir, { lookOverMs: 600_000 });
  await account.start();
  assert.deepEqual(record(), { state: 'ok', plan: 'Max' });

  state.setSnapshotParts({ account: { ...limited, limit: { ...limit, resetsAt: Date.now() + HOUR } } });
  // Claude Code rewrites .claude.json at every start; the sign-in is the same.
  replace(config, { ...sample('claude-signed-in.json'), numStartups: 7 });
  replace(credentials, sample('credentials-signed-in.json'));
  await sleep(300);
  await account.refresh();
  assert.equal(record().state, 'limited');

  fs.rmSync(credentials);
  replace(config, sample('claude-signed-out.json'));
  await eventually(async () => record().state === 'logged_out', 'signed out, seen by the watch');
  assert.equal(record().reason, 'not_logged_in');
  assert.equal(record().plan, undefined);

  replace(credentials, sample('credentials-expired.json'));
  await eventually(async () => record().reason === 'expired', 'the ran-out sign-in, seen by the watch');
});

test('a folder that comes later is found by the look-over', async (t) => {
  const home = await scratchFolder(t);
  const claudeDir = path.join(home, '.claude');
  const { record, account } = follower(t, claudeDir, { lookOverMs: 100 });
  await account.start();
  assert.deepEqual(record(), { state: 'unknown' });
  replace(accountFiles(claudeDir).credentials, sample('credentials-signed-in.json'));
  await eventually(async () => record().state === 'ok', 'the sign-in in a folder made after the start');
  // A half-written file is waited out, not taken for a sign-out.
  fs.writeFileSync(accountFiles(claudeDir).credentials, '{"claudeAiOauth":{"accessTok');
  await sleep(300);
  assert.equal(record().state, 'ok');
  // Files that say nothing of a sign-in they showed a moment ago: it is gone,
  // even beside a key that was taken once.
  fs.rmSync(accountFiles(claudeDir).credentials);
  replace(accountFiles(claudeDir).config, { customApiKeyResponses: { approved: ['abc'], rejected: [] } });
  await eventually(async () => record().state === 'logged_out', 'the sign-in gone');
});

test('the service reads the sign-in at its start, keeps a limit in force through a restart, and never the token', async (t) => {
  const folder = await scratchFolder(t);
  const claudeDir = path.join(folder, 'home', '.claude');
  signedInHome(claudeDir);
  const options = { folder, claudeSettings: path.join(claudeDir, 'settings.json'), persist: { saveDelayMs: 10, saveMaxDelayMs: 50 } };
  const first = await startScratchService(t, options);
  assert.deepEqual((await first.snapshot()).account, { state: 'ok', plan: 'Max' });
  const resetsAt = Date.now() + HOUR;
  await first.post('/qa/snapshot', { usage: { source: 'official', fiveHour: { pct: 100, resetsAt } } });
  const { transcript_path: _, ...event } = claudeFixture('stop-failure-rate-limit.json');
  assert.equal((await first.post('/claude/hook', { ...event, cwd: folder })).status, 200);
  const { account } = await first.snapshot();
  assert.deepEqual([account.state, account.limit], ['limited', { window: 'five_hour', resetsAt }]);
  await first.service.close();

  const second = await startScratchService(t, options);
  assert.deepEqual((await second.snapshot()).account, account);
  await second.service.close();
  const written = (dir) =>
    fs
      .readdirSync(dir, { recursive: true })
      .map((name) => path.join(dir, String(name)))
      .filter((file) => fs.statSync(file).isFile())
      .map((file) => fs.readFileSync(file, 'utf8'))
      .join('\n');
  assert.match(written(second.logs), /Claude Code is signed in \(Max\)\./);
  for (const dir of [second.logs, second.support]) assert.doesNotMatch(written(dir), /tidewatch-test-(access|refresh)/, dir);
});

test(
  'slow: `claude auth logout` signs the account out, and a new sign-in brings it back',
  { skip: missingClaude() ?? false, timeout: 60000 },
  async (t) => {
    const folder = await scratchFolder(t);
    const home = path.join(folder, 'home');
    const claudeDir = path.join(home, '.claude');
    signedInHome(claudeDir);
    const service = await startScratchService(t, {
      folder,
      claudeSettings: path.join(claudeDir, 'settings.json'),
      claude: { account: { lookOverMs: 600_000, settleMs: 50 } },
    });
    const account = async () => (await service.snapshot()).account;
    assert.equal((await account()).state, 'ok');

    // No server to tell: Claude Code signs out on this machine all the same.
    const env = claudeEnv(home, { url: 'http://127.0.0.1:9' });
    delete env.ANTHROPIC_API_KEY;
    const logout = spawnSync(CLAUDE, ['auth', 'logout'], { env, encoding: 'utf8', timeout: 30000 });
    assert.equal(logout.status, 0, logout.stderr);
    await eventually(async () => (await account()).state === 'logged_out', 'signed out', 10000);
    assert.equal((await account()).reason, 'not_logged_in');

    replace(accountFiles(claudeDir).credentials, sample('credentials-signed-in.json'));
    await eventually(async () => (await account()).state === 'ok', 'signed in again', 10000);
  },
);
