import assert from 'node:assert/strict';
import test from 'node:test';

import { parsePort, readConfig } from '../src/config.js';

test('a port variable parses as the app parses it', () => {
  const rows = [
    ['plain digits', '47371', 47371],
    ['one plus sign', '+47371', 47371],
    ['one minus sign is kept; the listener refuses it later', '-5', -5],
    ['zero asks for any free port', '0', 0],
    ['the largest int', '2147483647', 2147483647],
    ['one past the largest int overflows', '2147483648', null],
    ['the smallest int', '-2147483648', -2147483648],
    ['white space around', ' 47371', null],
    ['two signs', '++1', null],
    ['a sign alone', '-', null],
    ['hexadecimal', '0x10', null],
    ['a decimal point', '473.5', null],
    ['letters', 'abc', null],
    ['empty', '', null],
    ['absent', undefined, null],
  ];
  for (const [name, text, expected] of rows) assert.equal(parsePort(text), expected, name);
});

test('folders and ports follow the environment', () => {
  const home = '/home/ada';
  const linux = { platform: 'linux', home };
  const rows = [
    [
      'a real install on Linux uses the XDG defaults',
      {},
      linux,
      { support: '/home/ada/.local/share/Tidewatch', logs: '/home/ada/.local/state/Tidewatch/logs', testCopy: false },
    ],
    [
      'absolute XDG folders are followed',
      { XDG_DATA_HOME: '/data', XDG_STATE_HOME: '/state' },
      linux,
      { support: '/data/Tidewatch', logs: '/state/Tidewatch/logs', testCopy: false },
    ],
    [
      'relative XDG folders are ignored',
      { XDG_DATA_HOME: 'data', XDG_STATE_HOME: 'state' },
      linux,
      { support: '/home/ada/.local/share/Tidewatch', logs: '/home/ada/.local/state/Tidewatch/logs', testCopy: false },
    ],
    [
      'a real install on macOS uses Library',
      {},
      { platform: 'darwin', home: '/Users/ada' },
      {
        support: '/Users/ada/Library/Application Support/Tidewatch',
        logs: '/Users/ada/Library/Logs/Tidewatch',
        testCopy: false,
      },
    ],
    [
      'a test copy without a log folder logs inside its support folder',
      { TIDEWATCH_SUPPORT: '/tmp/t/support' },
      linux,
      { support: '/tmp/t/support', logs: '/tmp/t/support/logs', testCopy: true },
    ],
    [
      'a port alone makes a test copy, which then logs in the real support folder',
      { TIDEWATCH_API_PORT: 'abc' },
      linux,
      { support: '/home/ada/.local/share/Tidewatch', logs: '/home/ada/.local/share/Tidewatch/logs', testCopy: true },
    ],
    [
      'an explicit log folder wins',
      { TIDEWATCH_SUPPORT: '/tmp/t/support', TIDEWATCH_LOGS: '/tmp/t/logs' },
      linux,
      { support: '/tmp/t/support', logs: '/tmp/t/logs', testCopy: true },
    ],
    [
      'empty variables are as good as none',
      { TIDEWATCH_SUPPORT: '', TIDEWATCH_LOGS: '', TIDEWATCH_API_PORT: '', TIDEWATCH_LOCAL_PORT: '' },
      linux,
      { support: '/home/ada/.local/share/Tidewatch', logs: '/home/ada/.local/state/Tidewatch/logs', testCopy: false },
    ],
  ];
  for (const [name, env, system, expected] of rows) {
    const { support, logs, testCopy } = readConfig(env, system);
    assert.deepEqual({ support, logs, testCopy }, expected, name);
  }
});

test('ports fall back to their defaults one by one', () => {
  const rows = [
    ['none given', {}, [47321, 47322]],
    ['both given', { TIDEWATCH_API_PORT: '47371', TIDEWATCH_LOCAL_PORT: '47372' }, [47371, 47372]],
    ['one unreadable', { TIDEWATCH_API_PORT: 'abc', TIDEWATCH_LOCAL_PORT: '47372' }, [47321, 47372]],
  ];
  for (const [name, env, expected] of rows) {
    const { apiPort, localPort } = readConfig(env, { platform: 'linux', home: '/home/ada' });
    assert.deepEqual([apiPort, localPort], expected, name);
  }
});
