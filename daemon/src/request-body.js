// Reading a request's JSON body, within a limit.

import { HttpError, invalid } from './http-reply.js';
import { isObject } from './json.js';

/**
 * The largest body the service reads, in bytes (1 MiB). A larger one is
 * refused with 413, from its Content-Length before anything is read when the
 * client announces it, otherwise as soon as the count passes the limit.
 */
export const MAX_BODY_BYTES = 1024 * 1024;

// "1 MiB", "16 KiB": the limits are whole powers of two.
const sizeWords = (bytes) => (bytes >= 1024 * 1024 ? `${bytes / (1024 * 1024)} MiB` : `${bytes / 1024} KiB`);

const tooLarge = (limit) =>
  new HttpError(413, 'too_large', `The request body is larger than ${sizeWords(limit)}, the most this service reads.`, {
    // What is left of the body is never read, so the connection can't be reused.
    headers: { Connection: 'close' },
  });

/**
 * Reads the whole body as it came.
 *
 * @param {http.IncomingMessage} req
 * @param {number} [limit=MAX_BODY_BYTES]
 * @return {Promise<Buffer>}
 * @throws {HttpError} 413 over the limit
 */
export async function readBody(req, limit = MAX_BODY_BYTES) {
  const announced = Number(req.headers['content-length']);
  if (Number.isFinite(announced) && announced > limit) throw tooLarge(limit);

  const chunks = [];
  let size = 0;
  for await (const chunk of req) {
    size += chunk.length;
    if (size > limit) throw tooLarge(limit);
    chunks.push(chunk);
  }
  return Buffer.concat(chunks);
}

/**
 * Reads the body as one JSON object. An empty body counts as `{}`, so that a
 * bare POST works.
 *
 * @param {http.IncomingMessage} req
 * @param {number} [limit=MAX_BODY_BYTES]
 * @return {Promise<Object>}
 * @throws {HttpError} 413 over the limit, 400 when it isn't a JSON object
 */
export async function readJsonObject(req, limit = MAX_BODY_BYTES) {
  const text = (await readBody(req, limit)).toString('utf8');
  if (text.trim() === '') return {};

  let value;
  try {
    value = JSON.parse(text);
  } catch {
    throw new HttpError(400, 'bad_json', 'The request body isn’t valid JSON.');
  }
  if (!isObject(value)) throw new HttpError(400, 'bad_json', 'The request body must be a JSON object.');
  return value;
}

/**
 * @param {Object} body A body as read
 * @param {string} field
 * @return {boolean} The field's value
 * @throws {HttpError} 400 naming the field when it isn't true or false
 */
export function requireBoolean(body, field) {
  if (typeof body[field] !== 'boolean') throw invalid(field, `“${field}” must be true or false.`);
  return body[field];
}
