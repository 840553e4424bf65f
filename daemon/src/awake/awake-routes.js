// Stay awake on the local port: the app reads and changes it at
// /v1/mac/awake, and /qa stands in for the clock and the machine's power.

import { MODES, validMinBattery } from './awake.js';
import { HttpError, invalid } from '../http-reply.js';
import { readJsonObject } from '../request-body.js';
import { isObject } from '../json.js';

const CHANGES = ['mode', 'minBattery', 'extend'];

/**
 * Checks a change whole before anything moves.
 *
 * @param {Object} body
 * @return {{mode: (string|undefined), minBattery: (number|undefined), extend: (boolean|undefined)}}
 * @throws {HttpError} 400 naming the field at fault
 */
export function parseAwakeChange(body) {
  const keys = Object.keys(body);
  if (keys.length === 0) throw new HttpError(400, 'invalid', 'Give a mode, a minBattery or extend.');
  for (const key of keys) {
    if (!CHANGES.includes(key)) throw invalid(key, `“${key}” isn’t part of Stay awake; give mode, minBattery or extend.`);
  }
  const { mode, minBattery, extend } = body;
  if (mode !== undefined && !MODES.includes(mode)) {
    throw invalid('mode', 'The mode must be “working”, “backpack” or “off”.');
  }
  if (minBattery !== undefined && !validMinBattery(minBattery)) {
    throw invalid('minBattery', 'The battery level must be a whole number from 5 to 50.');
  }
  if (extend !== undefined && extend !== true) throw invalid('extend', '“extend” can only be true.');
  return { mode, minBattery, extend };
}

const QA_POWER = {
  now: (value) => value === null || Number.isFinite(value),
  offsetMs: (value) => Number.isFinite(value),
  battery: (value) =>
    value === null ||
    value === false ||
    (isObject(value) &&
      Number.isFinite(value.percent) &&
      value.percent >= 0 &&
      value.percent <= 100 &&
      ['onAC', 'charging'].every((key) => value[key] === undefined || typeof value[key] === 'boolean') &&
      (value.minutesLeft === undefined || Number.isFinite(value.minutesLeft))),
  lidClosed: (value) => value === null || typeof value === 'boolean',
  temperature: (value) => value === null || Number.isFinite(value),
  hotAt: (value) => value === null || Number.isFinite(value),
  backpackReady: (value) => value === null || typeof value === 'boolean',
};

const QA_POWER_HELP = {
  now: 'epoch milliseconds, or null',
  offsetMs: 'milliseconds',
  battery: '{"percent":0…100,"onAC":bool,"charging":bool}, false for none, or null',
  lidClosed: 'true, false or null',
  temperature: 'degrees Celsius, or null',
  hotAt: 'degrees Celsius, or null',
  backpackReady: 'true, false or null',
};

/**
 * Checks a /qa/power body.
 *
 * @param {Object} body
 * @return {Object} The same body
 * @throws {HttpError} 400 naming the field at fault
 */
export function parseQaPower(body) {
  for (const [key, value] of Object.entries(body)) {
    if (!Object.hasOwn(QA_POWER, key)) {
      throw invalid(key, `“${key}” isn’t a power stand-in; they are ${Object.keys(QA_POWER).join(', ')}.`);
    }
    if (!QA_POWER[key](value)) throw invalid(key, `“${key}” must be ${QA_POWER_HELP[key]}.`);
  }
  return body;
}

/**
 * @param {Router} router The local port's table
 * @param {Object} parts
 * @param {AwakeKeeper} parts.keeper
 */
export function addAwakeRoutes(router, { keeper }) {
  router
    .add('GET', '/v1/mac/awake', async () => ({ awake: await keeper.current() }))
    .add('POST', '/v1/mac/awake', async ({ req }) => {
      const change = parseAwakeChange(await readJsonObject(req));
      return { awake: await keeper.change(change) };
    });
}

/**
 * The stand-ins for the clock and the machine's power, in a test copy only.
 *
 * @param {Router} router The local port's table
 * @param {Object} parts
 * @param {AwakeKeeper} parts.keeper
 */
export function addPowerQaRoutes(router, { keeper }) {
  router
    .add('GET', '/qa/power', async () => {
      await keeper.current();
      return keeper.qaState();
    })
    .add('POST', '/qa/power', async ({ req }) => keeper.qaSet(parseQaPower(await readJsonObject(req))));
}
