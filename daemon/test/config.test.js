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
    ['anything but digits', '0x10', null],
    ['absent', undefined, null],
  ];
  for (const [name, text, expected] of rows) assert.equal(parsePort(text), expected, name);
});

test('folders, ports and a test copy follow the environment', () => {
  const linux = { platform: 'linux', home: '/home/ada' };
  const xdg = ['/home/ada/.local/share/Tidewatch', '/home/ada/.local/state/Tidewatch/logs'];
  const rows = [
    // name, environment, system, then support, logs, test copy, API and local ports
    ['a real install on Linux uses the XDG defaults', {}, linux, [...xdg, false, 47321, 47322]],
    ['absolute XDG folders are followed', { XDG_DATA_HOME: '/data', XDG_STATE_HOME: '/state' }, linux, ['/data/Tidewatch', '/state/Tidewatch/logs', false, 47321, 47322]],
    ['relative XDG folders are ignored', { XDG_DATA_HOME: 'data', XDG_STATE_HOME: 'state' }, linux, [...xdg, false, 47321, 47322]],
    [
      'a real install on macOS uses Library',
      {},
      { platform: 'darwin', home: '/Users/ada' },
      ['/Users/ada/Library/Application Support/Tidewatch', '/Users/ada/Library/Logs/Tidewatch', false, 47321, 47322],
    ],
    ['a test copy without a log folder logs in its support folder', { TIDEWATCH_SUPPORT: '/tmp/t/support' }, linux, ['/tmp/t/support', '/tmp/t/support/logs', true, 47321, 47322]],
    ['an unreadable port makes a test copy, on the default port', { TIDEWATCH_API_PORT: 'abc', TIDEWATCH_LOCAL_PORT: '47372' }, linux, [xdg[0], `${xdg[0]}/logs`, true, 47321, 47372]],
    ['an explicit log folder wins', { TIDEWATCH_SUPPORT: '/tmp/t/support', TIDEWATCH_LOGS: '/tmp/t/logs' }, linux, ['/tmp/t/support', '/tmp/t/logs', true, 47321, 47322]],
    ['both ports given', { TIDEWATCH_API_PORT: '47371', TIDEWATCH_LOCAL_PORT: '47372' }, linux, [xdg[0], `${xdg[0]}/logs`, true, 47371, 47372]],
    ['empty variables are as good as none', { TIDEWATCH_SUPPORT: '', TIDEWATCH_LOGS: '', TIDEWATCH_API_PORT: '', TIDEWATCH_LOCAL_PORT: '' }, linux, [...xdg, false, 47321, 47322]],
  ];
  for (const [name, env, system, expected] of rows) {
    const { support, logs, testCopy, apiPort, localPort } = readConfig(env, system);
    assert.deepEqual([support, logs, testCopy, apiPort, localPort], expected, name);
  }
});

test('the LAN port and the pairing origin', () => {
  const rows = [
    ['a real install: the LAN port and the default origin', {}, [47323, 'https://tidewatch.app']],
    ['a test copy takes any free LAN port', { TIDEWATCH_SUPPORT: '/tmp/t/support' }, [0, 'https://tidewatch.app']],
    ['both given', { TIDEWATCH_LAN_PORT: '47380', TIDEWATCH_PAIR_ORIGIN: 'https://pair.example/' }, [47380, 'https://pair.example']],
    ['an origin with a path isn’t one', { TIDEWATCH_PAIR_ORIGIN: 'https://pair.example/x' }, [47323, 'https://tidewatch.app']],
    ['plain http only on the loopback', { TIDEWATCH_PAIR_ORIGIN: 'http://pair.example' }, [47323, 'https://tidewatch.app']],
    ['plain http on the loopback', { TIDEWATCH_PAIR_ORIGIN: 'http://127.0.0.1:8080' }, [47323, 'http://127.0.0.1:8080']],
  ];
  for (const [name, env, expected] of rows) {
    const { lanPort, pairOrigin } = readConfig(env, { platform: 'linux', home: '/home/u' });
    assert.deepEqual([lanPort, pairOrigin], expected, name);
  }
});

test('the built-in node’s helper is named by its variable, and is none by default', () => {
  const rows = [
    ['none by default', {}, null],
    ['empty is none', { TIDEWATCH_TSNET_HELPER: '' }, null],
    ['a path given', { TIDEWATCH_TSNET_HELPER: '/opt/tidewatch/tsnet-helper' }, '/opt/tidewatch/tsnet-helper'],
  ];
  for (const [name, env, expected] of rows) assert.equal(readConfig(env, { platform: 'linux', home: '/home/ada' }).tsnetHelper, expected, name);
});

// A test copy's automations never reach the person's own projects.
test('the projects folder is the person’s Programming folder, a test copy’s own, or the one named', () => {
  const rows = [
    ['the person’s', {}, '/home/ada/Programming'],
    ['a test copy’s own', { TIDEWATCH_SUPPORT: '/tmp/copy' }, '/tmp/copy/projects'],
    ['the one named', { TIDEWATCH_SUPPORT: '/tmp/copy', TIDEWATCH_PROJECTS: '/tmp/work' }, '/tmp/work'],
  ];
  for (const [name, env, expected] of rows) assert.equal(readConfig(env, { platform: 'linux', home: '/home/ada' }).projects, expected, name);
});
