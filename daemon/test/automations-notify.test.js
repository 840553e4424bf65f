// Desktop notifications through the system's own program (stand-ins of
// notify-send and osascript here, which keep the arguments they were given),
// and reading aloud, which the service can't do yet and says so.

import assert from 'node:assert/strict';
import fs from 'node:fs';
import path from 'node:path';
import test from 'node:test';

import { NO_NOTIFIER, NO_VOICE, NOTIFICATION_SCRIPT, notifierOptions, notifyDesktop } from '../src/automations/notify.js';
import { createOutputs, deliver } from '../src/automations/outputs.js';
import { DAEMON, scratchFolder } from './helpers.js';

const FAKES = path.join(DAEMON, 'test', 'fakes');
const AT = 1795856700000;

// The NUL-ended arguments each call of a stand-in kept, in no order (the files are named by pid).
const kept = (folder, prefix) =>
  fs.readdirSync(folder).filter((name) => name.startsWith(`${prefix}.`))
    .map((name) => fs.readFileSync(path.join(folder, name), 'utf8').split('\0').slice(0, -1)).sort();

test('a notification goes to the system’s program with its title and text as arguments, never as script', async (t) => {
  const folder = await scratchFolder(t);
  const env = { ...process.env, TIDEWATCH_FAKE_TOOLS: folder };
  const title = '-Deploy "prod" & `id`';
  const text = 'Two lines\nend it.';
  const rows = [
    ['Linux: notify-send, its options ended before the title', 'linux', 'notify-send', ['--app-name=Tidewatch', '--', title, text]],
    ['the Mac: osascript’s run handler gets the title and text as argv', 'darwin', 'osascript', [title, text]],
  ];
  for (const [name, platform, program, args] of rows) {
    await t.test(name, async () => {
      const result = await notifyDesktop(title, text, { platform, program: path.join(FAKES, program), env, now: () => AT });
      assert.deepEqual(result, { state: 'sent', at: AT });
      assert.deepEqual(kept(folder, program), [args]);
    });
  }
  assert.equal(fs.readFileSync(path.join(folder, 'calls'), 'utf8'), `${NOTIFICATION_SCRIPT.join('\n')}\nargv: ${title} ${text}\n`);
});

test('a notification that can’t be shown fails with what the program said', async (t) => {
  const folder = await scratchFolder(t);
  const env = { ...process.env, TIDEWATCH_FAKE_TOOLS: folder };
  fs.writeFileSync(path.join(folder, 'no-server'), '');
  const rows = [
    ['no notification daemon on the desktop', path.join(FAKES, 'notify-send'),
      'GDBus.Error:org.freedesktop.DBus.Error.ServiceUnknown: The name org.freedesktop.Notifications was not provided by any .service files'],
    ['no program at all', path.join(folder, 'missing'), `${path.join(folder, 'missing')} isn’t on this computer.`],
    ['a test copy that names none', null, NO_NOTIFIER],
  ];
  for (const [name, program, error] of rows) {
    await t.test(name, async () => {
      assert.deepEqual(await notifyDesktop('Title', 'Text', { platform: 'linux', program, env, now: () => AT }), { state: 'failed', error, at: AT });
    });
  }
  assert.deepEqual(kept(folder, 'notify-send'), []);
});

test('which program notifies: a test copy only the one it is given', () => {
  const rows = [
    ['the real Linux install', {}, 'linux', false, 'notify-send'],
    ['the real Mac install', {}, 'darwin', false, '/usr/bin/osascript'],
    ['a test copy without one', {}, 'linux', true, null],
    ['a test copy with a stand-in', { TIDEWATCH_NOTIFY_PROGRAM: '/x/notify-send' }, 'linux', true, '/x/notify-send'],
  ];
  for (const [name, env, platform, testCopy, program] of rows) {
    assert.deepEqual(notifierOptions(env, { platform, testCopy }), { platform, program }, name);
  }
});

test('the notify output shows the automation’s name and the text, the say output says it can’t yet, and a step’s text loses its NUL bytes', async (t) => {
  const folder = await scratchFolder(t);
  const notifier = { platform: 'linux', program: path.join(FAKES, 'notify-send'), env: { ...process.env, TIDEWATCH_FAKE_TOOLS: folder } };
  const message = { automation: { id: 'au_1', name: 'Morning brief' }, run: { id: 'ru_1', state: 'done' }, text: 'All green.' };
  assert.deepEqual(await deliver({ id: 'ou_1', kind: 'notify' }, null, message, { notifier, now: () => AT }), { state: 'sent', at: AT });
  assert.deepEqual(kept(folder, 'notify-send'), [['--app-name=Tidewatch', '--', 'Morning brief', 'All green.']]);
  assert.deepEqual(await deliver({ id: 'ou_2', kind: 'say' }, null, message, { now: () => AT }), { state: 'failed', error: NO_VOICE, at: AT });

  // A notify step's text may come from a command, NUL bytes and all.
  const steps = createOutputs({ notifier, now: () => AT });
  assert.deepEqual(await steps.notifyDesktop('Build', 'bin\0ary'), { state: 'sent', at: AT });
  assert.deepEqual(kept(folder, 'notify-send'), [
    ['--app-name=Tidewatch', '--', 'Build', 'binary'],
    ['--app-name=Tidewatch', '--', 'Morning brief', 'All green.'],
  ]);
});
