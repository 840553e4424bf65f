// The parts of pairing that need no service: codes and their life, the
// limit on failed tries, the link's exact form and the LAN addresses.

import assert from 'node:assert/strict';
import { test } from 'node:test';

import { AttemptLimiter, attemptSources, MAX_FAILURES, MAX_FORWARDED_FAILURES, WINDOW_MS } from '../src/phone/attempt-limiter.js';
import { lanAddresses } from '../src/phone/lan-route.js';
import { CODE_LIFE_MS, MAX_CODES, normalCode, PairCodes } from '../src/phone/pair-codes.js';
import { pairLink, phoneAddress, readPairLink } from '../src/phone/pair-link.js';

const clockAt = (now = 1_000_000) => ({ now: () => now, move: (ms) => (now += ms) });

test('a code works once, within its ten minutes, until it is withdrawn', async (t) => {
  const rows = [
    ['a fresh code pairs', () => {}, true],
    ['typed in lower case, with spaces', (codes, code) => ({ code: ` ${code.toLowerCase()} ` }), true],
    ['a second use fails', (codes, code) => codes.take(code), false],
    ['a second before its end it still works', (codes, code, clock) => clock.move(CODE_LIFE_MS - 1000), true],
    ['at its end it has lapsed', (codes, code, clock) => clock.move(CODE_LIFE_MS), false],
    ['withdrawn, it fails', (codes, code) => codes.cancel(code), false],
    [`the oldest is dropped past ${MAX_CODES}`, (codes) => Array.from({ length: MAX_CODES }, () => codes.start()), false],
  ];
  for (const [name, before, works] of rows) {
    await t.test(name, () => {
      const clock = clockAt();
      const codes = new PairCodes(clock);
      const { code, expiresAt } = codes.start();
      assert.equal(expiresAt, clock.now() + CODE_LIFE_MS);
      const given = before(codes, code, clock)?.code ?? code;
      assert.equal(codes.take(given), works);
    });
  }
  assert.deepEqual(['B3X7N5', 'b3x7n5', 'B0X7N5', 'B3X7N', 42].map(normalCode), ['B3X7N5', 'B3X7N5', null, null, null]);
});

test('failed tries from one address are held off for a minute, others go on', () => {
  const clock = clockAt();
  const limiter = new AttemptLimiter(clock);
  for (let i = 0; i < MAX_FAILURES; i++) limiter.fail('10.0.0.2');
  assert.throws(() => limiter.check('10.0.0.2'), (error) => error.status === 429);
  limiter.check('10.0.0.3');
  clock.move(WINDOW_MS);
  limiter.check('10.0.0.2');
});

// Only the machine's own proxy may say whom it forwards: a phone on the LAN can't choose its count.
test('failed tries count against the phone, and behind the local proxy against its forwarded address too', () => {
  const through = (client) => [
    { key: `${client} through 127.0.0.1`, max: MAX_FAILURES },
    { key: 'anyone through 127.0.0.1', max: MAX_FORWARDED_FAILURES },
  ];
  const rows = [
    ['a phone on the LAN', '192.168.1.40', undefined, [{ key: '192.168.1.40', max: MAX_FAILURES }]],
    ['a phone on the LAN naming another address', '192.168.1.40', '10.0.0.9', [{ key: '192.168.1.40', max: MAX_FAILURES }]],
    ['loopback, nothing forwarded', '127.0.0.1', undefined, [{ key: '127.0.0.1', max: MAX_FAILURES }]],
    ['loopback, forwarded by the proxy', '127.0.0.1', '100.64.0.7', through('100.64.0.7')],
    ['loopback, the proxy’s address last', '127.0.0.1', '203.0.113.5, 100.64.0.7', through('100.64.0.7')],
    ['loopback, something that isn’t an address', '127.0.0.1', 'phone', [{ key: '127.0.0.1', max: MAX_FAILURES }]],
  ];
  for (const [name, peer, forwarded, expected] of rows) {
    const req = { socket: { remoteAddress: peer }, headers: forwarded === undefined ? {} : { 'x-forwarded-for': forwarded } };
    assert.deepEqual(attemptSources(req), expected, name);
  }

  // Many forwarded addresses together meet the proxy's ceiling.
  const limiter = new AttemptLimiter(clockAt());
  for (let i = 0; i < MAX_FORWARDED_FAILURES; i++) limiter.fail(through(`100.64.1.${i}`));
  assert.throws(() => limiter.check(through('100.64.2.1')), (error) => error.status === 429);
});

test('the pair link has its keys in order, percent-encoded', () => {
  const lan = { fingerprint: 'c0de91f7', address: '192.168.1.24', port: 47323 };
  const rows = [
    ['Tailscale and the LAN', 'https://mac.tail1.ts.net', lan, 'https://o.example/pair#v=1&u=https%3A%2F%2Fmac.tail1.ts.net&c=B3X7N5&n=MacBook%20Air&fp=c0de91f7&lan=192.168.1.24&lp=47323'],
    ['the LAN alone', null, lan, 'https://o.example/pair#v=1&u=&c=B3X7N5&n=MacBook%20Air&fp=c0de91f7&lan=192.168.1.24&lp=47323'],
    ['Tailscale alone', 'https://mac.tail1.ts.net', null, 'https://o.example/pair#v=1&u=https%3A%2F%2Fmac.tail1.ts.net&c=B3X7N5&n=MacBook%20Air'],
  ];
  for (const [name, url, route, expected] of rows) {
    const link = pairLink({ origin: 'https://o.example', code: 'B3X7N5', url, name: 'MacBook Air', lan: route });
    assert.equal(link, expected, name);
    assert.equal(readPairLink(link).n, 'MacBook Air', name);
  }
});

test('the phone address and the LAN addresses', () => {
  const addressRows = [
    ['the app’s URL, one slash trimmed', { url: 'https://m.ts.net/' }, { mode: 'builtIn', url: 'https://b.ts.net' }, 'https://m.ts.net'],
    ['the built-in node when the app has none', { url: '' }, { mode: 'builtIn', url: 'https://b.ts.net' }, 'https://b.ts.net'],
    ['the built-in node only when it is the road', {}, { mode: 'system', url: 'https://b.ts.net' }, null],
    ['odd shapes give none', 'x', null, null],
  ];
  for (const [name, tailscale, tsnet, expected] of addressRows) assert.equal(phoneAddress(tailscale, tsnet), expected, name);
  const interfaces = {
    lo: [{ address: '127.0.0.1', family: 'IPv4', internal: true }],
    wlan0: [{ address: 'fe80::1', family: 'IPv6', internal: false }, { address: '192.168.1.24', family: 'IPv4', internal: false }],
    eth0: [{ address: '10.0.0.5', family: 4, internal: false }],
  };
  assert.deepEqual(lanAddresses(interfaces), ['192.168.1.24', '10.0.0.5']);
});
