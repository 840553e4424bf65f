import assert from 'node:assert/strict';
import test from 'node:test';

import { FaultBook, MAX_FAULTS, parseFault } from '../src/faults.js';
import { HttpError } from '../src/http-reply.js';

test('a fault is read with its defaults', () => {
  assert.deepEqual(parseFault({ route: 'get /v1/snapshot?x=1', status: 502 }), {
    route: 'GET /v1/snapshot',
    method: 'GET',
    path: '/v1/snapshot',
    status: 502,
    body: '',
    contentType: 'application/json; charset=utf-8',
    delayMs: 0,
    drop: false,
    times: 1,
  });
  const object = parseFault({ route: '/v1/health', body: { ok: false } });
  assert.equal(object.method, null);
  assert.equal(object.body, '{"ok":false}', 'a body that isn’t text is sent as its JSON');
});

test('a fault that can’t be carried out names its field', () => {
  const rows = [
    ['no route', {}, 'route'],
    ['a route without a path', { route: 'GET' }, 'route'],
    ['a route with two methods', { route: 'GET POST /x' }, 'route'],
    ['the /qa page', { route: '/qa' }, 'route'],
    ['a /qa route', { route: 'POST /qa/faults' }, 'route'],
    ['a status below 100', { route: '/x', status: 99 }, 'status'],
    ['a status as text', { route: '/x', status: '500' }, 'status'],
    ['a negative delay', { route: '/x', delayMs: -1 }, 'delayMs'],
    ['a delay past the limit', { route: '/x', delayMs: 120_001 }, 'delayMs'],
    ['drop as text', { route: '/x', drop: 'yes' }, 'drop'],
    ['no times', { route: '/x', times: 0 }, 'times'],
    ['part of a time', { route: '/x', times: 1.5 }, 'times'],
    ['a content type that isn’t text', { route: '/x', contentType: 5 }, 'contentType'],
  ];
  for (const [name, input, field] of rows) {
    assert.throws(
      () => parseFault(input),
      (error) => error instanceof HttpError && error.status === 400 && error.field === field,
      name,
    );
  }
});

test('faults are taken in the order they were added, each as often as it says', () => {
  const book = new FaultBook();
  book.add({ route: 'GET /v1/snapshot', status: 500, times: 2 });
  book.add({ route: '/v1/snapshot', status: 502 });
  book.add({ route: 'POST /local/status', status: 503 });

  const taken = [];
  for (const [method, path] of [
    ['POST', '/v1/snapshot'],
    ['GET', '/v1/snapshot'],
    ['GET', '/v1/snapshot'],
    ['GET', '/v1/snapshot'],
    ['GET', '/local/status'],
    ['GET', '/qa/state'],
  ]) {
    taken.push(book.take(method, path)?.status ?? null);
  }
  assert.deepEqual(taken, [502, 500, 500, null, null, null]);
  assert.deepEqual(
    book.list().map((fault) => [fault.route, fault.times]),
    [['POST /local/status', 1]],
  );
  book.clear();
  assert.deepEqual(book.list(), []);
});

test('the book holds a limited number of faults', () => {
  const book = new FaultBook();
  for (let i = 0; i < MAX_FAULTS; i++) book.add({ route: '/x', status: 500 });
  assert.throws(() => book.add({ route: '/x', status: 500 }), (error) => error.code === 'too_many_faults');
});
