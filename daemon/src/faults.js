// Planted failures: a test asks that the next requests on a route get a
// chosen status and body, come late, or lose their connection, so that the
// app's handling of a misbehaving service can be proven against the real one.

import { HttpError, invalid, send } from './http-reply.js';

/** Faults waiting at once; one more is refused. */
export const MAX_FAULTS = 100;
/** The longest delay a fault may ask for, in milliseconds. */
export const MAX_FAULT_DELAY_MS = 120_000;
/** The most requests one fault may answer. */
export const MAX_FAULT_TIMES = 10_000;

const DEFAULT_CONTENT_TYPE = 'application/json; charset=utf-8';

/**
 * Whether faults may touch this path: never the /qa interface, which must
 * stay usable to clear them.
 *
 * @param {string} pathname
 */
export function faultable(pathname) {
  return pathname !== '/qa' && !pathname.startsWith('/qa/');
}

/**
 * Checks a fault as posted to /qa/faults and gives its stored form.
 *
 * @param {Object} input {route, status, body, contentType, delayMs, drop, times}
 * @return {Object}
 * @throws {HttpError} 400 naming the field at fault
 */
export function parseFault(input) {
  const { route, status, body, contentType, delayMs, drop, times } = input;
  const match = typeof route === 'string' ? /^(?:([A-Za-z]+)[ \t]+)?(\/[^ \t?#]*)(?:[?#]\S*)?$/.exec(route.trim()) : null;
  if (!match) {
    throw invalid('route', 'The route must be a path such as "/v1/snapshot", optionally after a method: "GET /v1/snapshot".');
  }
  if (!faultable(match[2])) {
    throw invalid('route', 'Faults never apply to /qa, so that they can always be cleared.');
  }
  if (status !== undefined && status !== null && !(Number.isInteger(status) && status >= 100 && status <= 999)) {
    throw invalid('status', 'The status must be a whole number from 100 to 999.');
  }
  if (contentType !== undefined && contentType !== null && typeof contentType !== 'string') {
    throw invalid('contentType', 'The content type must be a string.');
  }
  if (
    delayMs !== undefined &&
    delayMs !== null &&
    !(typeof delayMs === 'number' && delayMs >= 0 && delayMs <= MAX_FAULT_DELAY_MS)
  ) {
    throw invalid('delayMs', `The delay must be a number of milliseconds from 0 to ${MAX_FAULT_DELAY_MS}.`);
  }
  if (drop !== undefined && drop !== null && typeof drop !== 'boolean') {
    throw invalid('drop', 'Drop must be true or false.');
  }
  if (
    times !== undefined &&
    times !== null &&
    !(Number.isInteger(times) && times >= 1 && times <= MAX_FAULT_TIMES)
  ) {
    throw invalid('times', `Times must be a whole number from 1 to ${MAX_FAULT_TIMES}.`);
  }
  let text = '';
  if (typeof body === 'string') text = body;
  else if (body !== undefined && body !== null) text = JSON.stringify(body);

  return {
    route: match[1] ? `${match[1].toUpperCase()} ${match[2]}` : match[2],
    method: match[1] ? match[1].toUpperCase() : null,
    path: match[2],
    status: status ?? null,
    body: text,
    contentType: contentType ?? DEFAULT_CONTENT_TYPE,
    delayMs: delayMs ?? 0,
    drop: drop === true,
    times: times ?? 1,
  };
}

/** What a real install consults instead of a book: no fault ever applies there. */
export const NO_FAULTS = Object.freeze({ take: () => null });

/** The waiting faults, in the order they were added. */
export class FaultBook {
  constructor() {
    this.faults = [];
  }

  /**
   * @param {Object} input As posted to /qa/faults
   * @throws {HttpError} 400 for a bad fault or a full book
   */
  add(input) {
    const fault = parseFault(input);
    if (this.faults.length >= MAX_FAULTS) {
      throw new HttpError(400, 'too_many_faults', `At most ${MAX_FAULTS} faults can wait at once; clear them first.`);
    }
    this.faults.push(fault);
  }

  /**
   * Takes one use of the first fault that matches a request.
   *
   * @param {string} method
   * @param {string} pathname Without the query
   * @return {Object|null} The fault, or null when none applies
   */
  take(method, pathname) {
    if (!faultable(pathname)) return null;
    const index = this.faults.findIndex(
      (fault) => fault.path === pathname && (fault.method === null || fault.method === method),
    );
    if (index < 0) return null;
    const fault = this.faults[index];
    fault.times -= 1;
    if (fault.times === 0) this.faults.splice(index, 1);
    return fault;
  }

  /** @return {Array<Object>} The faults left, with the uses each has left. */
  list() {
    return this.faults.map(({ route, status, body, contentType, delayMs, drop, times }) => ({
      route,
      status,
      body,
      contentType,
      delayMs,
      drop,
      times,
    }));
  }

  clear() {
    this.faults = [];
  }
}

/**
 * Timers of delayed answers, so that closing the service can cancel them
 * instead of waiting for them.
 */
export class PendingTimers {
  constructor() {
    this.timers = new Set();
  }

  after(ms, action) {
    const timer = setTimeout(() => {
      this.timers.delete(timer);
      action();
    }, ms);
    this.timers.add(timer);
  }

  clear() {
    for (const timer of this.timers) clearTimeout(timer);
    this.timers.clear();
  }
}

/**
 * Answers a request with a fault: after its delay, it drops the connection,
 * sends its status and body, or, when it names neither, lets the request
 * take its real course late.
 *
 * @param {http.IncomingMessage} req
 * @param {http.ServerResponse} res
 * @param {Object} fault
 * @param {PendingTimers} pending
 * @param {Function} proceed Gives the real answer
 */
export function answerWithFault(req, res, fault, pending, proceed) {
  const act = () => {
    if (res.destroyed || req.socket.destroyed) return;
    if (fault.drop) {
      req.socket.destroy();
    } else if (fault.status !== null) {
      send(res, fault.status, fault.body, fault.contentType);
    } else {
      proceed();
    }
  };
  if (fault.delayMs > 0) pending.after(fault.delayMs, act);
  else act();
}
