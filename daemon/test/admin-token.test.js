import assert from 'node:assert/strict';
import fs from 'node:fs';
import path from 'node:path';
import test from 'node:test';

import { bearerMatches, loadAdminToken } from '../src/admin-token.js';
import { scratchFolder } from './helpers.js';

const modeOf = (file) => fs.statSync(file).mode & 0o777;

test('a missing token is made: 64 hex digits, private, with nothing left beside it', async (t) => {
  const support = await scratchFolder(t);
  const { token, created } = loadAdminToken(support);
  const file = path.join(support, 'admin-token');
  assert.equal(created, true);
  assert.match(token, /^[0-9a-f]{64}$/);
  assert.equal(fs.readFileSync(file, 'utf8'), token);
  assert.equal(modeOf(file), 0o600);
  assert.deepEqual(fs.readdirSync(support), ['admin-token']);
});

test('the token file decides, as long as it holds one', async (t) => {
  const rows = [
    ['a kept token is trimmed', 'kept-token\n', { token: 'kept-token', created: false }],
    ['an empty file gets a new token', '', { created: true }],
    ['white space alone gets a new token', ' \n\t', { created: true }],
  ];
  for (const [name, content, expected] of rows) {
    const support = await scratchFolder(t);
    fs.writeFileSync(path.join(support, 'admin-token'), content, { mode: 0o600 });
    const result = loadAdminToken(support);
    assert.equal(result.created, expected.created, name);
    if (expected.token) assert.equal(result.token, expected.token, name);
    else assert.match(result.token, /^[0-9a-f]{64}$/, name);
  }
});

test('a token readable by others is kept but made private again', async (t) => {
  const support = await scratchFolder(t);
  const file = path.join(support, 'admin-token');
  fs.writeFileSync(file, 'kept-token');
  fs.chmodSync(file, 0o644);
  const result = loadAdminToken(support);
  assert.deepEqual(result, { token: 'kept-token', created: false, tightened: true });
  assert.equal(modeOf(file), 0o600);
});

test('only the exact token in a Bearer header passes', () => {
  const token = 'a'.repeat(64);
  const rows = [
    ['the token', `Bearer ${token}`, true],
    ['the scheme in another case', `bearer ${token}`, true],
    ['trailing blanks', `Bearer ${token}  `, true],
    ['no header', undefined, false],
    ['an empty header', '', false],
    ['another scheme', `Basic ${token}`, false],
    ['the token alone', token, false],
    ['one character short', `Bearer ${token.slice(1)}`, false],
    ['one character more', `Bearer ${token}a`, false],
    ['two words', `Bearer ${token} ${token}`, false],
    ['the token in another case', `Bearer ${token.toUpperCase()}`, false],
  ];
  for (const [name, header, expected] of rows) assert.equal(bearerMatches(header, token), expected, name);
  assert.equal(bearerMatches('Bearer x', ''), false, 'no token configured lets nobody in');
});
