// How every answer leaves the service: JSON in UTF-8, never cached, and
// failures in one shape, {"error":{"code","message"[,"field"][,"run"]}}, whose
// message is a finished sentence the app may show as it stands.

export const JSON_TYPE = 'application/json; charset=utf-8';

/** A failure that becomes an error reply; thrown by routes and the body reader. */
export class HttpError extends Error {
  /**
   * @param {number} status HTTP status
   * @param {string} code A short machine word, such as "not_found"
   * @param {string} message A sentence for a person
   * @param {Object} [extra]
   * @param {string} [extra.field] The one field of the request at fault
   * @param {Object} [extra.headers] Headers to add to the reply
   * @param {Object} [extra.run] The automation run the refused request was about, as it stands now
   */
  constructor(status, code, message, { field, headers, run } = {}) {
    super(message);
    this.status = status;
    this.code = code;
    this.field = field;
    this.headers = headers;
    this.run = run;
  }
}

/** A 400 that names the one field of the request at fault. */
export function invalid(field, message) {
  return new HttpError(400, 'invalid', message, { field });
}

/**
 * A 404 for an id that names nothing.
 *
 * @param {string} kind Such as "session"
 * @param {string} id As decoded from the path
 */
export function notFound(kind, id) {
  return new HttpError(404, 'not_found', `No ${kind} has the id “${id}”.`);
}

/**
 * Sends a complete reply.
 *
 * @param {http.ServerResponse} res
 * @param {number} status
 * @param {string|Buffer} body
 * @param {string} contentType
 * @param {Object} [headers]
 */
export function send(res, status, body, contentType, headers = {}) {
  if (res.headersSent || res.destroyed) return;
  res.writeHead(status, {
    'Content-Type': contentType,
    'Content-Length': Buffer.byteLength(body),
    'Cache-Control': 'no-store',
    ...headers,
  });
  res.end(body);
}

export function sendJson(res, status, value, headers) {
  send(res, status, JSON.stringify(value ?? null), JSON_TYPE, headers);
}

/**
 * @param {http.ServerResponse} res
 * @param {HttpError} error
 */
export function sendError(res, error) {
  const inner = { code: error.code, message: error.message };
  if (error.field !== undefined) inner.field = error.field;
  if (error.run !== undefined) inner.run = error.run;
  sendJson(res, error.status, { error: inner }, error.headers);
}
