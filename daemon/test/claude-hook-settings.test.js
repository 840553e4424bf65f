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
  HTTP_EVENTS,
  installIntoSettings,
  integrationState,
  isOurHook,
  refreshedSettings,
  removeFromSettings,
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
const ownStatusLine = { type: 'command', command: 'echo "my line"', padding: 1 };
const ownHooks = {
  PreToolUse: [{ matcher: 'Bash', hooks: [{ type: 'command', command: '/usr/local/bin/guard' }] }],
  Stop: [{ hooks: [{ type: 'command', command: 'say done' }] }],
};

const startingPoints = [
  ['no settings file', null],
  ['settings of other things', { model: 'opus', permissions: { allow: ['Bash(npm test)'] } }],
  ['a person’s own hooks and status line', { hooks: ownHooks, statusLine: ownStatusLine, env: { A: '1' } }],
];

const httpPlace = { ...place, http: { port: 47322, token: 'ab'.repeat(32) } };
const roads = [
  ['command hooks', place, httpPlace],
  ['HTTP hooks', httpPlace, place],
];

for (const [name, settings] of startingPoints) {
  for (const [road, ours, other] of roads) test(`install and removal of ${road} over ${name}`, () => {
    const installed = installIntoSettings(settings, ours);
    assert.deepEqual(integrationState(installed), { hooks: true, statusLine: true });
    // Installing again changes nothing: no second set of hooks.
    assert.deepEqual(installIntoSettings(installed, ours), installed);
    // An install of the other road replaces this one, and back again.
    assert.deepEqual(installIntoSettings(installIntoSettings(installed, other), ours), installed);
    for (const [key, value] of Object.entries(settings ?? {})) {
      if (key !== 'hooks' && key !== 'statusLine') assert.deepEqual(installed[key], value, key);
    }
    const removed = removeFromSettings(installed);
    assert.deepEqual(removed, settings ?? {});
    assert.deepEqual(integrationState(removed), { hooks: false, statusLine: false });
  });
}

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

test('with HTTP hooks, only SessionStart and the waiting request start the hook program', () => {
  const { hooks } = installIntoSettings({ hooks: ownHooks }, httpPlace);
  const kinds = Object.fromEntries(
    [...REPORT_EVENTS, WAITING_EVENT].map((event) => [event, hooks[event].flatMap((group) => group.hooks).filter(isOurHook).map((hook) => hook.type)]),
  );
  const expected = Object.fromEntries(
    [...REPORT_EVENTS, WAITING_EVENT].map((event) => [event, [HTTP_EVENTS.includes(event) ? 'http' : 'command']]),
  );
  assert.deepEqual(kinds, expected);
  assert.deepEqual([...REPORT_EVENTS.filter((event) => !HTTP_EVENTS.includes(event))], ['SessionStart']);
  const [http] = hooks.Stop.flatMap((group) => group.hooks).filter(isOurHook);
  assert.deepEqual(http, {
    type: 'http',
    url: 'http://127.0.0.1:47322/claude/hooks/report',
    headers: { Authorization: `Bearer ${httpPlace.http.token}`, 'X-Tidewatch-Term': '$TIDEWATCH_TERM' },
    allowedEnvVars: ['TIDEWATCH_TERM'],
    timeout: 2,
  });
});

test('our entries are known by the program or the hook door on 127.0.0.1, nothing else', () => {
  const rows = [
    ['our command hook', { type: 'command', command: hookCommand(place) }, true],
    ['our HTTP hook', { type: 'http', url: 'http://127.0.0.1:40000/claude/hooks/report' }, true],
    ['another path on our host', { type: 'http', url: 'http://127.0.0.1:40000/claude/hook' }, false],
    ['our path on another host', { type: 'http', url: 'http://localhost:40000/claude/hooks/report' }, false],
    ['our path over https', { type: 'http', url: 'https://127.0.0.1:40000/claude/hooks/report' }, false],
    ['our path with a query', { type: 'http', url: 'http://127.0.0.1:1/claude/hooks/report/x' }, false],
    ['a command naming the door', { type: 'command', command: 'curl http://127.0.0.1:1/claude/hooks/report' }, false],
    ['a URL that isn’t one', { type: 'http', url: 'not a url' }, false],
    ['not an entry', 'tidewatch', false],
  ];
  for (const [name, hook, ours] of rows) assert.equal(isOurHook(hook), ours, name);
});

// A file as the service finds it at start, and what it makes of it.
const oldHttp = { ...place, http: { port: 50000, token: 'cd'.repeat(32) } };
const refreshRows = [
  ['nothing of ours', { hooks: ownHooks }, httpPlace, null],
  ['ours as an install now makes them', installIntoSettings({ hooks: ownHooks }, httpPlace), httpPlace, null],
  ['ours at another port, with another credential', installIntoSettings({ hooks: ownHooks }, oldHttp), httpPlace, 'http'],
  ['ours as commands, Claude Code now taking HTTP hooks', installIntoSettings({ hooks: ownHooks }, place), httpPlace, 'http'],
  ['ours by HTTP, Claude Code no longer taking them', installIntoSettings({ hooks: ownHooks }, httpPlace), place, 'command'],
  ['ours by HTTP, the status line taken out by hand', { ...installIntoSettings({}, oldHttp), statusLine: undefined }, httpPlace, 'http'],
  ['ours with an event taken out by hand', { ...installIntoSettings({}, oldHttp), hooks: { Stop: installIntoSettings({}, oldHttp).hooks.Stop } }, httpPlace, null],
];

for (const [name, settings, now, road] of refreshRows) {
  test(`at start, ${name}: ${road === null ? 'left alone' : `brought to ${road} hooks`}`, () => {
    const refreshed = refreshedSettings(settings, now);
    if (road === null) {
      assert.equal(refreshed, null);
      return;
    }
    const wanted = installIntoSettings(settings, now);
    assert.deepEqual(refreshed.hooks, wanted.hooks);
    assert.equal(refreshed.hooks.Stop.flatMap((group) => group.hooks).filter(isOurHook)[0].type, road);
    // Everything else as it stood, the status line too.
    assert.deepEqual({ ...refreshed, hooks: null }, { ...settings, hooks: null });
    assert.equal(refreshedSettings(refreshed, now), null);
  });
}
