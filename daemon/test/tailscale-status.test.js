// What the Tailscale app's command line prints, read into `TailscaleStatus`.

import assert from 'node:assert/strict';
import test from 'node:test';

import { servedUrl, tailscaleStatus } from '../src/tailscale/tailscale-status.js';

const CLI = '/usr/local/bin/tailscale';
const DNS = 'mac.tail1234.ts.net';

// The parts of `tailscale status --json` that matter, as the real one prints them.
const status = ({ backend = 'Running', keyExpiry, certs = [DNS], haveKey = true, dns = `${DNS}.` } = {}) => ({
  Version: '1.80.0',
  BackendState: backend,
  HaveNodeKey: haveKey,
  TailscaleIPs: ['100.101.102.103', 'fd7a:115c:a1e0::1'],
  Self: { DNSName: dns, TailscaleIPs: ['fd7a:115c:a1e0::1', '100.101.102.103'], ...(keyExpiry ? { KeyExpiry: keyExpiry } : {}) },
  CertDomains: certs,
});

const served = (port, { https = true, proxy = `http://127.0.0.1:${port}` } = {}) => ({
  TCP: { 443: { HTTPS: https } },
  Web: { [`${DNS}:443`]: { Handlers: { '/': { Proxy: proxy } } } },
});

const up = { installed: true, running: true, loggedIn: true, cliPath: CLI, dnsName: DNS, ip: '100.101.102.103', httpsEnabled: true };

test('the command line’s answers become TailscaleStatus', () => {
  const rows = [
    ['no command line: not installed', { cliPath: null }, { installed: false, running: false, loggedIn: false }],
    ['no answer: tailscaled isn’t running', { cliPath: CLI }, { installed: true, running: false, loggedIn: false, cliPath: CLI, serveOn: false }],
    ['running and serving the API port', { status: status(), serve: served(47321) }, { ...up, serveOn: true, url: `https://${DNS}` }],
    ['running, nothing served (null)', { status: status(), serve: null }, { ...up, serveOn: false }],
    ['serving another port is not phone access', { status: status(), serve: served(8080) }, { ...up, serveOn: false }],
    ['served over plain TCP is not phone access', { status: status(), serve: served(47321, { https: false }) }, { ...up, serveOn: false }],
    ['a proxy written as localhost with a slash counts', { status: status(), serve: served(47321, { proxy: 'http://localhost:47321/' }) }, { ...up, serveOn: true, url: `https://${DNS}` }],
    ['no certificate domains: HTTPS off', { status: status({ certs: null }) }, { ...up, httpsEnabled: false, serveOn: false }],
    [
      'signed out',
      { status: status({ backend: 'NeedsLogin', haveKey: false, dns: '', certs: null }) },
      { installed: true, running: true, loggedIn: false, cliPath: CLI, ip: '100.101.102.103', httpsEnabled: false, serveOn: false },
    ],
    ['waiting for the admin’s approval', { status: status({ backend: 'NeedsMachineAuth' }) }, { ...up, loggedIn: false, serveOn: false }],
    ['switched off, key kept', { status: status({ backend: 'Stopped' }), serve: served(47321) }, { ...up, running: false, serveOn: false }],
    ['switched off, no key', { status: status({ backend: 'Stopped', haveKey: false }) }, { ...up, running: false, loggedIn: false, serveOn: false }],
    ['starting', { status: status({ backend: 'Starting' }) }, { ...up, serveOn: false }],
    ['no backend state at all', { status: {} }, { installed: true, running: false, loggedIn: false, cliPath: CLI, httpsEnabled: false, serveOn: false }],
    ['odd shapes are passed over', { status: { BackendState: 7, Self: [], CertDomains: 'x' }, serve: { Web: [] } }, { installed: true, running: false, loggedIn: false, cliPath: CLI, httpsEnabled: false, serveOn: false }],
  ];
  for (const [name, read, expected] of rows) {
    assert.deepEqual(tailscaleStatus({ cliPath: CLI, apiPort: 47321, ...read }), expected, name);
  }
});

test('the key’s expiry is carried exactly as Tailscale gives it', () => {
  const day = 24 * 60 * 60 * 1000;
  const rows = [
    ['13 days off', new Date(Date.now() + 13 * day).toISOString()],
    ['15 days off', new Date(Date.now() + 15 * day).toISOString()],
    ['past', '2024-03-01T09:30:00Z'],
    ['with nanoseconds and an offset', '2026-05-04T10:11:12.123456789+02:00'],
  ];
  for (const [name, keyExpiry] of rows) {
    assert.equal(tailscaleStatus({ cliPath: CLI, status: status({ keyExpiry }) }).keyExpiry, keyExpiry, name);
  }
  assert.equal('keyExpiry' in tailscaleStatus({ cliPath: CLI, status: status() }), false, 'key expiry off: none');
});

test('the served address keeps a port other than 443', () => {
  const config = { TCP: { 8443: { HTTPS: true } }, Web: { [`${DNS}:8443`]: { Handlers: { '/': { Proxy: 'http://127.0.0.1:47321' } } } } };
  assert.equal(servedUrl(config, 47321), `https://${DNS}:8443`);
  assert.equal(servedUrl(config, null), null, 'no API port yet');
});
