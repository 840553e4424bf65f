// The shared terminals from both ends: the built relay running real programs
// in tmux against the real service, and the service's channel against
// whatever else may knock on its socket.

import assert from 'node:assert/strict';
import { spawnSync } from 'node:child_process';
import fs from 'node:fs';
import net from 'node:net';
import path from 'node:path';
import { test } from 'node:test';

import { SOCKET_FILE } from '../src/terminals/terminal-hub.js';
import { encodeFrame, FRAME, MAX_PAYLOAD_BYTES } from '../src/terminals/term-frames.js';
import { eventually, scratchFolder, sleep, startScratchService } from './helpers.js';
import { missingTmux } from './support/claude-code.js';
import { missingRelay, RELAY } from './support/relay.js';
import { tmuxPane } from './support/tmux-pane.js';

const skip = missingTmux() ?? missingRelay() ?? false;

// A program named like an agent, so that the relay shares it: a shell that
// runs what it is given.
function fakeAgent(folder) {
  const bin = path.join(folder, 'bin');
  fs.mkdirSync(bin, { recursive: true });
  fs.writeFileSync(path.join(bin, 'claude'), '#!/bin/sh\nexec /bin/sh -c "$*"\n', { mode: 0o755 });
  return bin;
}

function shell(t, folder, support) {
  const bin = fakeAgent(folder);
  const env = { PATH: `${bin}:/usr/bin:/bin`, HOME: folder, TERM: 'xterm-256color', LANG: 'C.UTF-8', TIDEWATCH_SUPPORT: support };
  return tmuxPane(t, ['bash', '--noprofile', '--norc', '-i'], { env, cwd: folder });
}

const shareds = (service) => service.service.terminals.terminals().length > 0 && service.service.terminals.terminals();

const hello = (fields = {}) =>
  encodeFrame(
    FRAME.hello,
    JSON.stringify({ v: 1, id: 'a'.repeat(32), agent: 'claude', pid: 10, child: 11, cwd: '/tmp', cols: 80, rows: 24, ...fields }),
  );

test('slow: the relay passes the agent’s bytes and exit status through untouched', { skip, timeout: 60000 }, async (t) => {
  const service = await startScratchService(t);
  const folder = service.folder;
  const pane = shell(t, folder, service.support);
  const bytes = path.join(folder, 'bytes');
  // UTF-8, colour, a cursor move and a bell, as an agent prints them.
  fs.writeFileSync(bytes, 'héllo ✓ \x1b[1;31mred\x1b[0m\x1b[2Cmoved\x07\nnext line\n');
  const capture = (file) => pane.tmux('pipe-pane', '-o', '-t', 'pane', `cat > ${file}`);
  const run = async (command, file) => {
    capture(file);
    await pane.type(`${command}; echo "status=$?"`);
    await pane.waitFor(/status=\d+\s*$/m, `${command} ended`);
    capture(file); // toggles it off
    const status = /status=(\d+)/.exec(pane.screen().split('\n').filter((l) => l.includes('status=')).at(-1))[1];
    pane.keys('clear', 'Enter');
    await sleep(300);
    return { status: Number(status), out: fs.readFileSync(file) };
  };
  const bare = await run(`/bin/sh -c "cat ${bytes}; exit 7"`, path.join(folder, 'bare.out'));
  const relayed = await run(`${RELAY} claude "cat ${bytes}; exit 7"`, path.join(folder, 'relayed.out'));
  assert.equal(relayed.status, 7);
  assert.equal(bare.status, 7);
  const printed = (out) => out.toString('latin1').slice(out.indexOf('héllo'), out.indexOf('next line') + 9);
  assert.equal(printed(relayed.out), printed(bare.out));

  // A Ctrl-C reaches the agent as it would, and its end by the signal is
  // the relay's (the shell then drops the rest of the line, as it would).
  await pane.type(`${RELAY} claude "sleep 30"`);
  const [shared] = await eventually(() => shareds(service), 'the terminal shared');
  assert.equal(shared.agent, 'claude');
  pane.keys('C-c');
  await sleep(300);
  await pane.type('echo "status=$?"');
  await pane.waitFor(/status=130/, 'ended by the interrupt');
  await eventually(() => service.service.terminals.terminals().length === 0, 'the terminal dropped with its relay');
});

test('slow: the person’s terminal outlives the service, and the terminal is shared again when it is back', { skip, timeout: 60000 }, async (t) => {
  const folder = await scratchFolder(t);
  const first = await startScratchService(t, { folder });
  const pane = shell(t, folder, first.support);
  await pane.type(`${RELAY} claude "cat"`);
  const [before] = await eventually(() => shareds(first), 'the terminal shared');
  await first.service.close();

  await pane.type('still here');
  await pane.waitFor(/still here\s+still here/, 'cat still echoes what is typed');
  const second = await startScratchService(t, { folder });
  const [after] = await eventually(() => shareds(second), 'the terminal shared again', 8000);
  assert.equal(after.id, before.id);
  await eventually(async () => /still here\s+still here/.test((await after.screenLines()).join('\n')), 'it sees what it missed');
  await pane.type('seen again');
  await eventually(async () => (await after.screenLines()).join('\n').includes('seen again'), 'the service sees new output');
  pane.keys('C-d');
});

test('slow: the service’s screen follows a flood, and one met later sees the end of what it missed, in order', { skip, timeout: 60000 }, async (t) => {
  const folder = await scratchFolder(t);
  const first = await startScratchService(t, { folder });
  const pane = shell(t, folder, first.support);
  await pane.type(`${RELAY} claude sh`);
  const [before] = await eventually(() => shareds(first), 'the terminal shared');
  // The marker is worked out by the shell, so only the output shows it.
  const screenEnds = (terminal, pattern, what) =>
    eventually(async () => {
      const lines = (await terminal.screenLines()).join('\n');
      return pattern.test(lines) && lines;
    }, what);
  await pane.type('seq 1 20000; echo "here: $((6*7))"');
  await screenEnds(before, /19999\n20000\nhere: 42/, 'the service sees the whole flood, in order');

  await first.service.close();
  // More than the relay keeps while the service is away, so that what it keeps has wrapped round.
  await pane.type('seq 1 30000; echo "away: $((6*7))"');
  await pane.waitFor(/away: 42/, 'the person sees it all the same');
  const second = await startScratchService(t, { folder });
  const [after] = await eventually(() => shareds(second), 'the terminal shared again', 8000);
  await screenEnds(after, /29999\n30000\naway: 42/, 'the service met again sees the end of what it missed');
  pane.keys('C-d');
});

test('the channel refuses what isn’t a relay’s word, and nothing changes', async (t) => {
  const service = await startScratchService(t);
  const socketPath = path.join(service.support, SOCKET_FILE);
  assert.equal(fs.statSync(socketPath).mode & 0o777, 0o600);
  await service.post('/qa/sessions', { id: 's1', state: 'idle' });
  const before = await service.snapshot();

  const oversize = Buffer.alloc(5);
  oversize.write('O', 0, 'latin1');
  oversize.writeUInt32BE(MAX_PAYLOAD_BYTES + 1, 1);
  const rows = [
    ['a kind the channel doesn’t have', Buffer.from('Z\0\0\0\0')],
    ['output before it says who it is', encodeFrame(FRAME.output, 'hi')],
    ['a frame over the limit', Buffer.concat([hello(), oversize])],
    ['a first word that isn’t JSON', encodeFrame(FRAME.hello, '{not json')],
    ['a program that isn’t an agent', hello({ agent: 'bash' })],
    ['an id that isn’t the relay’s kind', hello({ id: '../../etc' })],
    ['a size out of bounds', hello({ cols: 100000 })],
    ['a relative folder', hello({ cwd: 'here' })],
    ['typing meant for the relay', Buffer.concat([hello(), encodeFrame(FRAME.input, 'rm -rf ~\r')])],
    ['a second hello', Buffer.concat([hello(), hello({ id: 'b'.repeat(32) })])],
  ];
  for (const [name, bytes] of rows) {
    await t.test(name, async () => {
      const socket = net.connect(socketPath);
      await new Promise((resolve) => socket.on('connect', resolve));
      socket.on('error', () => {});
      socket.write(bytes);
      await new Promise((resolve) => socket.on('close', resolve));
      assert.deepEqual(service.service.terminals.terminals(), []);
    });
  }
  assert.deepEqual(await service.snapshot(), before);
});

test('another user can’t open the channel', { skip: process.getuid?.() === 0 ? false : 'needs root to act as another user' }, async (t) => {
  const service = await startScratchService(t);
  // The support folder is private too; let the other user reach the socket itself.
  fs.chmodSync(service.support, 0o711);
  const script = `require('net').connect(${JSON.stringify(path.join(service.support, SOCKET_FILE))}).on('connect', () => { console.log('connected'); process.exit(0); }).on('error', (e) => { console.log(e.code); process.exit(0); });`;
  const other = spawnSync('setpriv', ['--reuid=65534', '--regid=65534', '--clear-groups', process.execPath, '-e', script], {
    encoding: 'utf8',
  });
  assert.equal(other.stdout.trim(), 'EACCES', other.stderr);
});
