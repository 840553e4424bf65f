// Finding the codex program, reading its version, and judging it against
// the lowest one the service reads.

import assert from 'node:assert/strict';
import fs from 'node:fs';
import path from 'node:path';
import test from 'node:test';

import {
  binaryFields,
  compareVersions,
  findCodex,
  MIN_CODEX_VERSION,
  readCodexVersion,
  versionFromOutput,
} from '../src/codex/codex-binary.js';
import { readConfig } from '../src/config.js';
import { scratchFolder } from './helpers.js';
import { installStandInProgram } from './support/codex-standin.js';

test('the version is the last word of the first line', () => {
  const rows = [
    ['codex-cli 0.150.2\n', '0.150.2'],
    ['\n\ncodex-cli v0.63.1\nsomething else', '0.63.1'],
    ['codex-cli 0.64.0-alpha.3', '0.64.0-alpha.3'],
    ['0.41.0', '0.41.0'],
    ['codex-cli development', null],
    ['', null],
  ];
  for (const [output, expected] of rows) assert.equal(versionFromOutput(output), expected, JSON.stringify(output));
});

test('versions compare by their numbers', () => {
  const rows = [
    ['0.40.0', '0.40.0', 0],
    ['0.39.9', '0.40.0', -1],
    ['0.100.0', '0.40.0', 1],
    ['0.40', '0.40.0', 0],
    ['1.0.0', '0.999.999', 1],
    ['0.40.0-alpha.1', '0.40.0', 0],
    ['v0.41.0', '0.41.0', 0],
  ];
  for (const [a, b, sign] of rows) assert.equal(Math.sign(compareVersions(a, b)), sign, `${a} vs ${b}`);
});

test('what the codex record says of the program', () => {
  const tooOld = `Codex 0.150.2 is too old for Tidewatch, which needs ${MIN_CODEX_VERSION} or later.`;
  const rows = [
    ['none found: nothing but available, so no min reads as too old', { path: null, version: null }, { available: false }],
    ['usable', { path: '/usr/local/bin/codex', version: '0.170.0' }, { available: true, version: '0.170.0', min: MIN_CODEX_VERSION, path: '/usr/local/bin/codex' }],
    ['exactly the lowest', { path: '/c', version: MIN_CODEX_VERSION }, { available: true, version: MIN_CODEX_VERSION, min: MIN_CODEX_VERSION, path: '/c' }],
    ['too old', { path: '/c', version: '0.150.2' }, { available: false, version: '0.150.2', min: MIN_CODEX_VERSION, path: '/c', problem: tooOld }],
  ];
  for (const [name, found, expected] of rows) assert.deepEqual(binaryFields(found), expected, name);

  const silent = binaryFields({ path: '/opt/codex', version: null });
  assert.equal(silent.available, true, 'there, but its version unknown');
  assert.match(silent.problem, /^Codex at \/opt\/codex didn’t say which version it is/);
  assert.equal(binaryFields({ path: '/c', version: '0.170.0' }, '0.180.0').available, false, 'the lowest is a parameter');
});

test('the program is looked for on the search path first, then in the usual folders', async (t) => {
  const folder = await scratchFolder(t);
  const first = path.join(folder, 'first');
  const second = path.join(folder, 'second');
  const usual = path.join(folder, 'usual');
  fs.mkdirSync(first);
  // Not executable, and a folder of that name: neither counts.
  fs.writeFileSync(path.join(first, 'codex'), '#!/bin/sh\n', { mode: 0o644 });
  fs.mkdirSync(path.join(second, 'codex'), { recursive: true });
  const inUsual = installStandInProgram(usual);

  assert.equal(findCodex({ searchPath: [first, second], folders: [] }), null);
  assert.equal(findCodex({ searchPath: [first, '', 'relative/bin', second], folders: [usual] }), inUsual);
  const onPath = installStandInProgram(path.join(folder, 'onpath'));
  assert.equal(findCodex({ searchPath: [path.dirname(onPath)], folders: [usual] }), onPath);
  assert.equal(findCodex({ named: inUsual, searchPath: [path.dirname(onPath)] }), inUsual, 'a named one wins');
  assert.equal(findCodex({ named: path.join(folder, 'missing'), searchPath: [path.dirname(onPath)] }), null, 'and is the only one looked at');
});

test('the version is asked of the program itself, within a time limit', async (t) => {
  const folder = await scratchFolder(t);
  assert.equal(await readCodexVersion(installStandInProgram(path.join(folder, 'a'), { version: '0.63.0' })), '0.63.0');

  const failing = path.join(folder, 'failing');
  fs.writeFileSync(failing, '#!/bin/sh\necho "codex-cli 9.9.9"\nexit 3\n', { mode: 0o755 });
  assert.equal(await readCodexVersion(failing), null, 'a failing program has no version');

  const hanging = path.join(folder, 'hanging');
  fs.writeFileSync(hanging, '#!/bin/sh\nexec sleep 30\n', { mode: 0o755 });
  const started = Date.now();
  assert.equal(await readCodexVersion(hanging, { timeoutMs: 300 }), null);
  assert.ok(Date.now() - started < 10_000, 'a hanging program is given up on');
});

test('Codex’s home is CODEX_HOME, as Codex reads it; a test copy never falls back on the person’s own', () => {
  const system = { platform: 'linux', home: '/home/ada' };
  const rows = [
    ['a real copy', {}, '/home/ada/.codex', null],
    ['CODEX_HOME', { CODEX_HOME: '/srv/codex' }, '/srv/codex', null],
    ['an empty CODEX_HOME is none', { CODEX_HOME: '' }, '/home/ada/.codex', null],
    ['a test copy', { TIDEWATCH_SUPPORT: '/tmp/tw' }, '/tmp/tw/codex-home', null],
    ['a test copy with CODEX_HOME', { TIDEWATCH_API_PORT: '47371', CODEX_HOME: '/tmp/ch' }, '/tmp/ch', null],
    ['a named program', { TIDEWATCH_CODEX: '/opt/codex/bin/codex' }, '/home/ada/.codex', '/opt/codex/bin/codex'],
  ];
  for (const [name, env, codexHome, codexPath] of rows) {
    const config = readConfig(env, system);
    assert.deepEqual([config.codexHome, config.codexPath], [codexHome, codexPath], name);
  }
});
