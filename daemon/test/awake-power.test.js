// Reading the machine's power and the tools' answers, and which tools a
// service may run at all.

import assert from 'node:assert/strict';
import path from 'node:path';
import test from 'node:test';

import { awakeOptions } from '../src/awake/awake-keeper.js';
import { parseSleepDisabled } from '../src/awake/power-lock-mac.js';
import {
  parseBusctlBoolean,
  parseClamshell,
  parsePmsetBatt,
  readLinuxBattery,
  readLinuxLid,
  readLinuxTemperature,
} from '../src/awake/power-source.js';
import { tree } from './awake-support.js';
import { scratchFolder } from './helpers.js';

test('the battery from the power-supply folders', async (t) => {
  const folder = await scratchFolder(t);
  const battery = (name, fields) => Object.fromEntries(Object.entries(fields).map(([key, value]) => [`${name}/${key}`, value]));
  const rows = [
    ['no supplies at all: a desktop', {}, null],
    ['mains only', { ...battery('AC', { type: 'Mains', online: 1 }) }, null],
    [
      'discharging, with its time left',
      {
        ...battery('BAT0', { type: 'Battery', capacity: 64, status: 'Discharging', energy_now: 32000000, power_now: 8000000 }),
        ...battery('AC', { type: 'Mains', online: 0 }),
      },
      { percent: 64, charging: false, onAC: false, minutesLeft: 240 },
    ],
    [
      'charging on mains',
      { ...battery('BAT0', { type: 'Battery', capacity: 80, status: 'Charging' }), ...battery('ADP1', { type: 'Mains', online: 1 }) },
      { percent: 80, charging: true, onAC: true },
    ],
    [
      'a full battery on USB-C power',
      { ...battery('BAT1', { type: 'Battery', capacity: 100, status: 'Full' }), ...battery('ucsi', { type: 'USB', online: 1 }) },
      { percent: 100, charging: false, onAC: true },
    ],
    [
      'no mains supply to ask: not discharging counts as on power',
      { ...battery('BAT0', { type: 'Battery', capacity: 55, status: 'Not charging' }) },
      { percent: 55, charging: false, onAC: true },
    ],
    ['a mouse’s battery is not the machine’s', { ...battery('hidpp_battery_0', { type: 'Battery', scope: 'Device', capacity: 5, status: 'Discharging' }) }, null],
    [
      'two batteries weigh by their size',
      {
        ...battery('BAT0', { type: 'Battery', capacity: 100, status: 'Discharging', energy_now: 20000000, energy_full: 20000000 }),
        ...battery('BAT1', { type: 'Battery', capacity: 10, status: 'Discharging', energy_now: 6000000, energy_full: 60000000 }),
      },
      { percent: 33, charging: false, onAC: false },
    ],
    ['a capacity that isn’t a number is no battery', { ...battery('BAT0', { type: 'Battery', capacity: 'n/a' }) }, null],
  ];
  for (const [index, [name, files, expected]] of rows.entries()) {
    const root = tree(path.join(folder, String(index)), files);
    assert.deepEqual(readLinuxBattery(root), expected, name);
  }
  assert.equal(readLinuxBattery(path.join(folder, 'missing')), null, 'no folder');
});

test('the lid and the heat from their folders', async (t) => {
  const folder = await scratchFolder(t);
  const lids = [
    ['open', { 'LID0/state': 'state:      open' }, false],
    ['closed', { 'LID0/state': 'state:      closed' }, true],
    ['any lid closed', { 'LID0/state': 'state:      open', 'LID1/state': 'state:      closed' }, true],
    ['a state it can’t read', { 'LID0/state': 'unknown' }, null],
    ['no lid', {}, null],
  ];
  for (const [index, [name, files, expected]] of lids.entries()) {
    const root = tree(path.join(folder, `lid${index}`), files);
    assert.equal(readLinuxLid(root), expected, name);
  }
  const heat = [
    ['the hottest zone', { 'thermal_zone0/temp': 45000, 'thermal_zone1/temp': 71500, 'cooling_device0/temp': 99000 }, 72],
    ['sensors that don’t mean it are passed over', { 'thermal_zone0/temp': -273000, 'thermal_zone1/temp': 255000, 'thermal_zone2/temp': 50000 }, 50],
    ['none', {}, null],
  ];
  for (const [index, [name, files, expected]] of heat.entries()) {
    const root = tree(path.join(folder, `heat${index}`), files);
    assert.equal(readLinuxTemperature(root), expected, name);
  }
});

test('macOS answers: pmset’s battery, the clamshell and SleepDisabled', () => {
  // What `pmset -g batt` prints: the source, then the internal battery's line.
  const pmset = (source, battery) => `Now drawing from '${source}'\n -InternalBattery-0 (id=4653155)\t${battery} present: true\n`;
  const batt = [
    ['on battery', pmset('Battery Power', '87%; discharging; 4:12 remaining'), { percent: 87, charging: false, onAC: false, minutesLeft: 252 }],
    ['charging', pmset('AC Power', '42%; charging; 1:20 remaining'), { percent: 42, charging: true, onAC: true }],
    ['charged, no estimate', pmset('AC Power', '100%; charged; 0:00 remaining'), { percent: 100, charging: false, onAC: true }],
    ['still working out the time', pmset('Battery Power', '9%; discharging; (no estimate)'), { percent: 9, charging: false, onAC: false }],
    ['a desktop', "Now drawing from 'AC Power'\n", null],
    ['nothing', null, null],
  ];
  for (const [name, text, expected] of batt) assert.deepEqual(parsePmsetBatt(text), expected, name);

  assert.equal(parseClamshell('  |   "AppleClamshellState" = Yes\n'), true);
  assert.equal(parseClamshell('  |   "AppleClamshellState" = No\n'), false);
  assert.equal(parseClamshell(''), null);
  assert.equal(parseBusctlBoolean('b true\n'), true);
  assert.equal(parseBusctlBoolean('b false'), false);
  assert.equal(parseBusctlBoolean('s "yes"'), null);

  const settings = [
    ['switched on', 'System-wide power settings:\n SleepDisabled\t\t1\nCurrently in use:\n sleep 1\n', 1],
    ['switched off', 'System-wide power settings:\n SleepDisabled\t\t0\n', 0],
    ['a listing without the line', 'Currently in use:\n standby 1\n sleep 1\n', 0],
    ['no listing', '', null],
  ];
  for (const [name, text, expected] of settings) assert.equal(parseSleepDisabled(text), expected, name);
});

test('a test copy runs no power tool unless a variable names it', () => {
  const rows = [
    ['the real install on Linux', {}, 'linux', false, { platform: 'linux', systemdInhibit: 'systemd-inhibit' }],
    ['a test copy on Linux, nothing named', {}, 'linux', true, { platform: 'none' }],
    ['a test copy on Linux with a stand-in', { TIDEWATCH_SYSTEMD_INHIBIT: '/tmp/fake' }, 'linux', true, { platform: 'linux', systemdInhibit: '/tmp/fake' }],
    [
      'the real install on macOS: pmset through sudo',
      {},
      'darwin',
      false,
      { platform: 'darwin', caffeinate: '/usr/bin/caffeinate', pmset: '/usr/bin/pmset', sudo: '/usr/bin/sudo' },
    ],
    [
      'a stand-in pmset runs by itself; caffeinate is pretended',
      { TIDEWATCH_PMSET: '/tmp/pmset' },
      'darwin',
      true,
      { platform: 'darwin', caffeinate: null, pmset: '/tmp/pmset', sudo: null },
    ],
    ['an empty variable names nothing', { TIDEWATCH_CAFFEINATE: '' }, 'darwin', true, { platform: 'none' }],
    ['another system holds nothing', {}, 'freebsd', false, { platform: 'none' }],
  ];
  for (const [name, env, platform, testCopy, expected] of rows) {
    const { lock } = awakeOptions(env, { platform, testCopy });
    assert.deepEqual({ platform: lock.platform, ...lock.tools }, expected, name);
  }
  const mac = awakeOptions({ TIDEWATCH_SUDOERS: '/tmp/rule', TIDEWATCH_PMSET: '/tmp/pmset' }, { platform: 'darwin', testCopy: true });
  assert.equal(mac.source.sudoers, '/tmp/rule');
  assert.equal(awakeOptions({}, { platform: 'darwin', testCopy: false }).source.sudoers, '/private/etc/sudoers.d/tidewatch');
});
