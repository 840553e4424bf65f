import assert from 'node:assert/strict';
import fs from 'node:fs';
import path from 'node:path';
import test from 'node:test';

import { bearerMatches, loadAdminToken } from '../src/admin-token.js';
import { scratchFolder } from './helpers.js';

const modeOf = (file) => fs.statSync(file).mode & 0o777;

test('the token file decides while it holds one; otherwise a new one is made; either way it is private', async (t) => {
  const made = { token: /^[0-9a-f]{64}$/, created: true, tightened: false };
  const rows = [
    ['no file', null, 0o600, made],
    ['a kept token is trimmed', 'kept-token\n', 0o600, { token: /^kept-token$/, created: false, tightened: false }],
    ['an empty file', '', 0o600, made],
    ['white space alone', ' \n\t', 0o600, made],
    ['a token readable by others is made private again', 'kept-token', 0o644, { token: /^kept-token$/, created: false, tightened: true }],
  ];
  for (const [name, content, mode, { token, ...expected }] of rows) {
    const support = await scratchFolder(t);
    const file = path.join(support, 'admin-token');
    if (content !== null) fs.writeFileSync(file, content, { mode });
    const { token: loaded, ...result } = loadAdminToken(support);
    assert.match(loaded, token, name);
    assert.deepEqual(result, expected, name);
    assert.deepEqual([fs.readFileSync(file, 'utf8').trim(), modeOf(file)], [loaded, 0o600], `${name}: the file`);
    assert.deepEqual(fs.readdirSync(support), ['admin-token'], `${name}: nothing beside it`);
  }
});

test('only the exact token in a Bearer header passes', () => {
  const token = 'a'.repeat(64);
  const rows = [
    ['the token', `Bearer ${token}`, true],
    ['the scheme in another case', `bearer ${token}`, true],
    ['trailing blanks', `Bearer ${token}  `, true],
    ['no header', undefined, false],
    ['another scheme', `Basic ${token}`, false],
    ['the token alone', token, false],
    ['one character short', `Bearer ${token.slice(1)}`, false],
    ['two words', `Bearer ${token} ${token}`, false],
    ['the token in another case', `Bearer ${token.toUpperCase()}`, false],
  ];
  for (const [name, header, expected] of rows) assert.equal(bearerMatches(header, token), expected, name);
  assert.equal(bearerMatches('Bearer x', ''), false, 'no token configured lets nobody in');
});
