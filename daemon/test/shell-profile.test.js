// The shell integration's block in the person's start files: put in and taken
// out exactly, every other line kept, through the service's own routes.

import assert from 'node:assert/strict';
import fs from 'node:fs';
import path from 'node:path';
import { test } from 'node:test';

import { BLOCK_END, BLOCK_START, profileBlock, profilesFor, withBlock, withoutBlock } from '../src/shell-profile.js';
import { startScratchService } from './helpers.js';
import { missingRelay, RELAY as BUILT_RELAY } from './support/relay.js';

const RELAY = '/Users/ann/Library/Application Support/Tidewatch/bin/tidewatch-term';

test('the block goes in once and comes out leaving the file as it was', async (t) => {
  const block = profileBlock(RELAY);
  const older = `${BLOCK_START}\nclaude() { /old/relay claude "$@"; }\n${BLOCK_END}`;
  const rows = [
    ['no file yet', '', ''],
    ['lines of the person’s own', 'export PATH=~/bin:$PATH\nalias ll="ls -l"\n', null],
    ['no newline at the end', 'setopt autocd', 'setopt autocd\n'],
    ['an older block, replaced where it stands', `a=1\n\n${older}\nb=2\n`, 'a=1\nb=2\n'],
  ];
  for (const [name, text, after] of rows) {
    await t.test(name, () => {
      const installed = withBlock(text, block);
      assert.equal(installed.split(BLOCK_START).length, 2, 'one block');
      assert.equal(withBlock(installed, block), installed, 'a second install changes nothing');
      assert.equal(withoutBlock(installed), after ?? text);
    });
  }
  // The path is quoted for the shell, spaces and quotes alike.
  assert.match(profileBlock("/tmp/it's here/tidewatch-term"), /'\/tmp\/it'\\''s here\/tidewatch-term' claude "\$@"/);
  assert.throws(() => profileBlock('/tmp/two\nlines'), /can’t go into a shell file/);
  assert.throws(() => profileBlock('relative/tidewatch-term'), /can’t go into a shell file/);
});

test('the start files follow the login shell', () => {
  const rows = [
    ['darwin', '/bin/zsh', ['.zshrc']],
    ['darwin', '/bin/bash', ['.zshrc', '.bashrc']],
    ['linux', '/usr/bin/zsh', ['.zshrc']],
    ['linux', '/bin/bash', ['.bashrc']],
    ['linux', '/usr/bin/fish', []],
  ];
  for (const [platform, shell, files] of rows) {
    assert.deepEqual(profilesFor({ home: '/h', shell, platform }), files.map((file) => `/h/${file}`), `${platform} ${shell}`);
  }
});

test('install and uninstall change only the block, through a link to the real file, mode kept', { skip: missingRelay() ?? false }, async (t) => {
  const service0 = await startScratchService(t);
  const home = path.join(service0.folder, 'home');
  const dotfiles = path.join(service0.folder, 'dotfiles');
  fs.mkdirSync(home);
  fs.mkdirSync(dotfiles);
  const own = '# mine\nexport EDITOR=vi\n';
  fs.writeFileSync(path.join(dotfiles, 'bashrc'), own, { mode: 0o640 });
  fs.symlinkSync(path.join(dotfiles, 'bashrc'), path.join(home, '.bashrc'));
  await service0.service.close();
  const service = await startScratchService(t, { folder: service0.folder, shellHome: home, shell: '/bin/bash', relay: BUILT_RELAY });
  const shellStatus = async () => (await service.local('GET', '/local/status')).json.shell;
  assert.deepEqual(await shellStatus(), { installed: false, supported: true });

  assert.equal((await service.post('/local/integration/install', {})).status, 200);
  assert.ok(fs.lstatSync(path.join(home, '.bashrc')).isSymbolicLink(), 'the link stays a link');
  const installed = fs.readFileSync(path.join(dotfiles, 'bashrc'), 'utf8');
  assert.ok(installed.startsWith(own) && installed.includes(profileBlock(BUILT_RELAY)));
  assert.equal(fs.statSync(path.join(dotfiles, 'bashrc')).mode & 0o777, 0o640);
  assert.deepEqual(await shellStatus(), { installed: true, supported: true });

  assert.equal((await service.post('/local/integration/uninstall', {})).status, 200);
  assert.equal(fs.readFileSync(path.join(dotfiles, 'bashrc'), 'utf8'), own);
  assert.deepEqual(await shellStatus(), { installed: false, supported: true });
});
