// Shared by the suites: scratch folders, a running service on free ports,
// and plain HTTP calls that open a fresh connection each, so that no pooled
// socket outlives the server it belonged to.

import fs from 'node:fs/promises';
import http from 'node:http';
import os from 'node:os';
import path from 'node:path';

import { startService } from '../src/service.js';

/** A folder of its own for one test, removed after it. */
export async function scratchFolder(t) {
  const folder = await fs.mkdtemp(path.join(os.tmpdir(), 'tidewatch-daemon-'));
  t.after(() => fs.rm(folder, { recursive: true, force: true }));
  return folder;
}

/**
 * One HTTP exchange.
 *
 * @param {number} port
 * @param {string} method
 * @param {string} target Path and query
 * @param {Object} [options]
 * @param {string|Buffer|Object} [options.body] An object is sent as JSON
 * @param {Object} [options.headers]
 * @param {boolean} [options.chunked] Send without Content-Length
 * @return {Promise<{status: number, headers: Object, text: string, json: *}>}
 *     rejects when the connection ends without an answer
 */
export function request(port, method, target, { body, headers = {}, chunked = false } = {}) {
  let payload = body;
  if (payload !== undefined && typeof payload !== 'string' && !Buffer.isBuffer(payload)) {
    payload = JSON.stringify(payload);
  }
  const allHeaders = { ...headers };
  if (payload !== undefined && !chunked) allHeaders['Content-Length'] = Buffer.byteLength(payload);
  return new Promise((resolve, reject) => {
    const req = http.request({ host: '127.0.0.1', port, method, path: target, headers: allHeaders, agent: false }, (res) => {
      const chunks = [];
      res.on('data', (chunk) => chunks.push(chunk));
      res.on('error', reject);
      res.on('end', () => {
        const text = Buffer.concat(chunks).toString('utf8');
        let json;
        try {
          json = JSON.parse(text);
        } catch {
          json = undefined;
        }
        resolve({ status: res.statusCode, headers: res.headers, text, json });
      });
    });
    req.on('error', reject);
    if (payload !== undefined) req.write(payload);
    req.end();
  });
}

/**
 * Starts the service in a scratch folder on two free ports, closed after the
 * test.
 *
 * @param {TestContext} t
 * @param {Object} [options]
 * @param {string} [options.folder] Reuse this scratch folder
 * @return {Promise<Object>} {service, folder, support, logs, token, api(), local()}
 *     where api() and local() are {@link request} on that port, local() with
 *     the token unless headers say otherwise
 */
export async function startScratchService(t, { folder } = {}) {
  folder ??= await scratchFolder(t);
  const support = path.join(folder, 'support');
  const logs = path.join(folder, 'logs');
  const service = await startService({ support, logs, apiPort: 0, localPort: 0 });
  t.after(() => service.close());
  const token = (await fs.readFile(path.join(support, 'admin-token'), 'utf8')).trim();
  return {
    service,
    folder,
    support,
    logs,
    token,
    api: (method, target, options) => request(service.apiPort, method, target, options),
    local: (method, target, options = {}) =>
      request(service.localPort, method, target, {
        ...options,
        headers: { Authorization: `Bearer ${token}`, ...options.headers },
      }),
  };
}
