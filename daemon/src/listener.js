// One HTTP listener and the road every request takes on it: planted faults
// first, then the admin token (where the listener asks for it, unless the
// route is an open page; the hook door takes the hook credential too), or
// a paired device's token on the phone's routes, then the route table. The
// API port, the local port and (over HTTPS) the LAN route are each one of
// these; the feed hangs on the server's upgrade event.

import http from 'node:http';
import https from 'node:https';

import { bearerMatches, bearerOf } from './admin-token.js';
import { answerWithFault } from './faults.js';
import { HttpError, sendError, sendJson } from './http-reply.js';
import { attemptSources } from './phone/attempt-limiter.js';

/** Loopback only: nothing on the network may reach these ports (the LAN route aside). */
export const HOST = '127.0.0.1';
/** The most bytes of request line and headers. */
export const MAX_HEADER_BYTES = 16 * 1024;
/** The time a client has to send its headers, in milliseconds. */
export const HEADERS_TIMEOUT_MS = 20_000;
/** The time a client has to send its whole request, in milliseconds. */
export const REQUEST_TIMEOUT_MS = 30_000;
/** An idle kept-alive connection is closed after this, in milliseconds. */
export const KEEP_ALIVE_TIMEOUT_MS = 5_000;
/** Connections open at once on one listener; more are refused. */
export const MAX_CONNECTIONS = 256;

/**
 * @param {Object} options
 * @param {Router} options.router
 * @param {FaultBook} options.faults Shared by both listeners
 * @param {PendingTimers} options.pending Delayed fault answers
 * @param {Log} options.log
 * @param {string} [options.token] When given, every request must carry it
 * @param {string} [options.hookToken] Taken instead of `token` by the routes marked `hook`
 * @param {{devices: DeviceBook, limiter: AttemptLimiter}} [options.phone] Who may
 *     use the routes marked `device`; without it they answer no one
 * @param {{key: string, cert: string}} [options.tls] Makes it an HTTPS listener
 * @return {http.Server|https.Server} Not listening yet
 */
export function createListener({ router, faults, pending, log, token, hookToken, phone = null, tls = null }) {
  const options = { maxHeaderSize: MAX_HEADER_BYTES, headersTimeout: HEADERS_TIMEOUT_MS, requestTimeout: REQUEST_TIMEOUT_MS };
  const server = (tls ? https : http).createServer(
    tls ? { ...options, key: tls.key, cert: tls.cert, minVersion: 'TLSv1.2' } : options,
    (req, res) => {
      const target = readTarget(req.url);
      if (target === null) {
        sendError(res, new HttpError(400, 'bad_request', 'The request’s path can’t be read.'));
        return;
      }
      const proceed = () => respond(req, res, target, { router, log, token, hookToken, phone });
      const fault = faults.take(req.method, target.path);
      if (fault) answerWithFault(req, res, fault, pending, proceed);
      else proceed();
    },
  );
  server.keepAliveTimeout = KEEP_ALIVE_TIMEOUT_MS;
  server.maxConnections = MAX_CONNECTIONS;
  return server;
}

/**
 * Splits a request target into its path, exactly as sent, and a URL for the
 * query. The path is never taken from the URL, which would resolve "." and
 * ".." segments (percent-encoded ones too) and so let an id such as ".."
 * climb out of its route.
 *
 * @param {string} target The request line's target, such as "/v1/ws?client=mac"
 * @return {{path: string, url: URL}|null} null when it isn't a path
 */
export function readTarget(target) {
  if (typeof target !== 'string' || !target.startsWith('/')) return null;
  const end = target.search(/[?#]/);
  const path = end < 0 ? target : target.slice(0, end);
  try {
    // Parsed against a fixed origin: "//x" must stay a path, not become a host.
    return { path, url: new URL(`http://${HOST}${target}`) };
  } catch {
    return null;
  }
}

// Whether the request carries a credential its route takes.
function admitted(found, authorization, token, hookToken) {
  if (token === undefined || found?.open || bearerMatches(authorization, token)) return true;
  return Boolean(found?.hook) && hookToken !== undefined && bearerMatches(authorization, hookToken);
}

/** The sentence of a 401 on the phone's routes. */
export const NOT_PAIRED = 'This needs the token of a paired device; pair again with a fresh code.';

/**
 * The paired device a phone route's request comes from. Failed tries count
 * against the remote address, which is refused for a while after too many.
 *
 * @param {http.IncomingMessage} req
 * @param {{devices: DeviceBook, limiter: AttemptLimiter}|null} phone
 * @return {Object} The device
 * @throws {HttpError} 429 or 401
 */
export function pairedDevice(req, phone) {
  const sources = attemptSources(req);
  phone?.limiter.check(sources);
  const device = phone?.devices.verify(bearerOf(req.headers.authorization)) ?? null;
  if (device !== null) return device;
  phone?.limiter.fail(sources);
  throw new HttpError(401, 'unauthorized', NOT_PAIRED, { headers: { 'WWW-Authenticate': 'Bearer' } });
}

async function respond(req, res, { path, url }, { router, log, token, hookToken, phone }) {
  try {
    const found = router.find(req.method, path);
    const device = found?.device ? pairedDevice(req, phone) : null;
    if (!device && !admitted(found, req.headers.authorization, token, hookToken)) {
      throw new HttpError(401, 'unauthorized', 'This request needs the admin token, sent as “Authorization: Bearer <token>”.', {
        headers: { 'WWW-Authenticate': 'Bearer' },
      });
    }
    if (found === null) throw new HttpError(404, 'not_found', `Nothing here answers ${req.method} ${path}.`);
    if (found.allowed) {
      throw new HttpError(
        405,
        'method_not_allowed',
        `${path} doesn’t take ${req.method}; it takes ${found.allowed.join(', ')}.`,
        { headers: { Allow: found.allowed.join(', ') } },
      );
    }
    const value = await found.handler({ req, res, url, params: found.params, device });
    if (value !== undefined) sendJson(res, 200, value);
  } catch (error) {
    if (error instanceof HttpError) {
      sendError(res, error);
    } else {
      log.error(`${req.method} ${path} failed: ${error?.stack ?? error}`);
      sendError(res, new HttpError(500, 'internal', 'The background service failed while answering; its log tells more.'));
    }
  }
}

/**
 * Starts listening, on the loopback interface unless told otherwise.
 *
 * @param {http.Server} server
 * @param {number} port 0 for any free port
 * @param {string} [host=HOST]
 * @return {Promise<number>} The port it got
 * @throws {Error} with a sentence as its message and `code` "TIDEWATCH_PORT"
 */
export function listen(server, port, host = HOST) {
  return new Promise((resolve, reject) => {
    const fail = (error) => {
      const sentence =
        error.code === 'EADDRINUSE'
          ? `Port ${port} is already in use.`
          : error.code === 'EACCES'
            ? `Port ${port} needs rights this service doesn’t have.`
            : error.code === 'ERR_SOCKET_BAD_PORT'
              ? `Port ${port} isn’t a port number (they run from 0 to 65535).`
              : `Port ${port} couldn’t be opened (${error.code ?? error.message}).`;
      reject(Object.assign(new Error(sentence), { code: 'TIDEWATCH_PORT', cause: error }));
    };
    server.once('error', fail);
    try {
      server.listen({ port, host, exclusive: true }, () => {
        server.off('error', fail);
        resolve(server.address().port);
      });
    } catch (error) {
      server.off('error', fail);
      fail(error);
    }
  });
}

/**
 * Stops listening and ends every open connection, even one in the middle of
 * a request, so that a stop never waits on a client.
 *
 * @param {http.Server} server
 * @return {Promise<void>}
 */
export function closeListener(server) {
  return new Promise((resolve) => {
    if (!server.listening) {
      resolve();
      return;
    }
    server.close(() => resolve());
    server.closeAllConnections();
  });
}
