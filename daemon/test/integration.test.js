// Claude Code's settings connected and disconnected through the local port:
// a person's own keys, hooks, status line and file mode survive both ways, a
// file that isn't JSON is never touched, and the local status follows the
// file as it stands, also after a change by hand.

import assert from 'node:assert/strict';
import fs from 'node:fs';
import path from 'node:path';
import { test } from 'node:test';

import { HOOK_REPORT_PATH, installIntoSettings, integrationState, isOurHook } from '../src/claude/hook-settings.js';
import { HOOK_TOKEN_FILE } from '../src/hook-token.js';
import { HOOK_PROGRAM_PATH, WATCH_INTERVAL_MS } from '../src/integration.js';
import { eventually, scratchFolder, startScratchService } from './helpers.js';
import { CLAUDE, missingClaude } from './support/claude-code.js';

const ownStatusLine = { type: 'command', command: 'echo mine' };
const ownHooks = { Stop: [{ hooks: [{ type: 'command', command: 'say done' }] }] };

async function serviceWithSettings(t, contents, mode = 0o644) {
  const folder = await scratchFolder(t);
  const settingsFile = path.join(folder, 'home', '.claude', 'settings.json');
  if (contents !== undefined) {
    fs.mkdirSync(path.dirname(settingsFile), { recursive: true });
    fs.writeFileSync(settingsFile, contents, { mode });
    fs.chmodSync(settingsFile, mode);
  }
  const running = await startScratchService(t, { folder, claudeSettings: settingsFile });
  return { ...running, settingsFile };
}

const readJson = (file) => JSON.parse(fs.readFileSync(file, 'utf8'));
const modeOf = (file) => fs.statSync(file).mode & 0o777;

const startingPoints = [
  { name: 'no settings file yet', contents: undefined, mode: 0o600 },
  { name: 'an empty file', contents: '', mode: 0o644 },
  {
    name: 'a person’s own settings, hooks and status line, group-readable',
    contents: JSON.stringify({ model: 'opus', env: { A: '1' }, hooks: ownHooks, statusLine: ownStatusLine, permissions: { allow: ['Bash(ls)'] } }),
    mode: 0o640,
  },
];

for (const { name, contents, mode } of startingPoints) {
  test(`connecting and disconnecting over ${name}`, async (t) => {
    const { local, settingsFile } = await serviceWithSettings(t, contents, mode);
    const before = contents ? JSON.parse(contents) : {};

    const installed = await local('POST', '/local/integration/install');
    assert.equal(installed.status, 200, installed.text);
    const settings = readJson(settingsFile);
    assert.deepEqual(integrationState(settings), { hooks: true, statusLine: true });
    assert.equal(modeOf(settingsFile), mode, 'the file keeps its mode (a new one is private)');
    for (const [key, value] of Object.entries(before)) {
      if (key !== 'hooks' && key !== 'statusLine') assert.deepEqual(settings[key], value, key);
    }
    // The hooks run the shipped program on the service's own Node.js.
    const command = settings.hooks.Stop.flatMap((group) => group.hooks).find((hook) => hook.command.includes('tidewatch-hook'));
    assert.ok(command.command.includes(process.execPath));
    assert.ok(command.command.includes(HOOK_PROGRAM_PATH));
    assert.ok(fs.existsSync(HOOK_PROGRAM_PATH));

    const status = (await local('GET', '/local/status')).json;
    assert.equal(status.hooks.installed, true);
    assert.equal(status.statusLine.installed, true);

    // A second connect is no second set of hooks.
    await local('POST', '/local/integration/install');
    assert.deepEqual(readJson(settingsFile), settings);

    const removed = await local('POST', '/local/integration/uninstall');
    assert.equal(removed.status, 200, removed.text);
    assert.deepEqual(readJson(settingsFile), before);
    assert.equal(modeOf(settingsFile), mode);
    const after = (await local('GET', '/local/status')).json;
    assert.deepEqual([after.hooks.installed, after.statusLine.installed], [false, false]);
    // Nothing is left beside the file.
    assert.deepEqual(fs.readdirSync(path.dirname(settingsFile)), ['settings.json']);
  });
}

test('settings that aren’t JSON are left exactly as they are, and the call says why', async (t) => {
  const broken = '{"model": "opus",,}\n';
  const { local, settingsFile } = await serviceWithSettings(t, broken);
  for (const route of ['/local/integration/install', '/local/integration/uninstall']) {
    const reply = await local('POST', route);
    assert.equal(reply.status, 409, route);
    assert.equal(reply.json.error.code, 'settings_invalid');
    assert.match(reply.json.error.message, /aren’t valid JSON, so Tidewatch left them as they are/);
    assert.equal(fs.readFileSync(settingsFile, 'utf8'), broken);
  }
  assert.equal((await local('GET', '/local/status')).json.hooks.installed, false);
});

test('disconnecting where nothing was ever connected creates no file', async (t) => {
  const { local, settingsFile } = await serviceWithSettings(t, undefined);
  assert.equal((await local('POST', '/local/integration/uninstall')).status, 200);
  assert.equal(fs.existsSync(settingsFile), false);
});

test('the local status follows a change made by hand', async (t) => {
  const { local, settingsFile, service } = await serviceWithSettings(t, JSON.stringify({ hooks: ownHooks }));
  await local('POST', '/local/integration/install');
  const settings = readJson(settingsFile);
  delete settings.statusLine;
  fs.writeFileSync(settingsFile, JSON.stringify(settings));
  await eventually(
    () => service.state.localPart('statusLine')?.installed === false,
    'the status line’s removal by hand shows in the local status',
    WATCH_INTERVAL_MS * 4,
  );
  const status = (await local('GET', '/local/status')).json;
  assert.deepEqual([status.hooks.installed, status.statusLine.installed], [true, false]);
});

test('the private name is given up once; with none there is nothing to release', async (t) => {
  const { local } = await serviceWithSettings(t, undefined);
  const none = await local('POST', '/local/name/release');
  assert.equal(none.status, 404);
  assert.equal(none.json.error.code, 'no_name');

  await local('POST', '/qa/local', { body: { name: { host: 'mac-1a2b.example.net', inUse: true, setting: true } } });
  const released = await local('POST', '/local/name/release');
  assert.deepEqual(released.json, { released: true, name: 'mac-1a2b.example.net' });
  const status = (await local('GET', '/local/status')).json;
  assert.equal(status.name.host, null);
  assert.equal(status.name.setting, true, 'the person’s choice stands');
  assert.equal((await local('POST', '/local/name/release')).status, 404);
});

// At start the service finds Claude Code and the file as it was left, maybe
// by a service on another port: hooks of ours follow, nothing else moves.
const startRows = [
  { name: 'ours by HTTP at another port', http: { port: 1, token: 'ab'.repeat(32) }, claude: true, road: 'http' },
  { name: 'ours by HTTP, no Claude Code found', http: { port: 1, token: 'ab'.repeat(32) }, claude: false, road: 'command' },
  { name: 'nothing of ours', http: undefined, claude: true, road: null, untouched: true },
];

for (const { name, http, claude, road, untouched } of startRows) {
  test(`at start, ${name}: ${untouched ? 'the file is left as it is' : `our hooks go by ${road}`}`, { skip: (claude && missingClaude()) ?? false }, async (t) => {
    const folder = fs.mkdtempSync(path.join(fs.realpathSync('/tmp'), 'tidewatch-integration-'));
    t.after(() => fs.rmSync(folder, { recursive: true, force: true }));
    const settingsFile = path.join(folder, 'home', '.claude', 'settings.json');
    const place = { node: process.execPath, program: HOOK_PROGRAM_PATH, support: path.join(folder, 'support'), http };
    const start = http === undefined ? { hooks: ownHooks } : installIntoSettings({ hooks: ownHooks, model: 'opus' }, place);
    fs.mkdirSync(path.dirname(settingsFile), { recursive: true });
    const text = JSON.stringify(start, null, 2);
    fs.writeFileSync(settingsFile, text, { mode: 0o640 });
    const running = await startScratchService(t, { folder, claudeSettings: settingsFile, claudeProgram: { named: claude ? CLAUDE : '/nonexistent/claude' } });
    if (untouched) {
      assert.equal(fs.readFileSync(settingsFile, 'utf8'), text);
      return;
    }
    const after = readJson(settingsFile);
    const ours = Object.values(after.hooks).flat().flatMap((group) => group.hooks).filter(isOurHook);
    const kinds = new Set(ours.filter((hook) => hook.type === 'http').map((hook) => hook.url));
    assert.deepEqual([...kinds], road === 'http' ? [`http://127.0.0.1:${running.service.localPort}${HOOK_REPORT_PATH}`] : []);
    if (road === 'http') {
      const token = fs.readFileSync(path.join(running.support, HOOK_TOKEN_FILE), 'utf8').trim();
      assert.ok(ours.filter((hook) => hook.type === 'http').every((hook) => hook.headers.Authorization === `Bearer ${token}`));
    }
    assert.doesNotMatch(JSON.stringify(after), new RegExp(running.token));
    assert.deepEqual([after.model, after.hooks.Stop[0], after.statusLine, modeOf(settingsFile)], ['opus', ownHooks.Stop[0], start.statusLine, 0o640]);
  });
}
