// Shared by the suites: scratch folders, a running service on free ports,
// plain HTTP calls that open a fresh connection each, so that no pooled
// socket outlives the server it belonged to, and feed clients on real
// WebSockets.

import fs from 'node:fs/promises';
import http from 'node:http';
import os from 'node:os';
import path from 'node:path';
import { setTimeout as sleep } from 'node:timers/promises';

import { WebSocket } from 'ws';

import { startService } from '../src/service.js';

export { sleep };

/** The text's JSON value, or `otherwise` when it isn't JSON. */
export function parseJson(text, otherwise) {
  try {
    return JSON.parse(text);
  } catch {
    return otherwise;
  }
}

/** A folder of its own for one test, removed after it. */
export async function scratchFolder(t) {
  const folder = await fs.mkdtemp(path.join(os.tmpdir(), 'tidewatch-daemon-'));
  // The service may still be writing there as it closes.
  t.after(() => fs.rm(folder, { recursive: true, force: true, maxRetries: 5 }));
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
        resolve({ status: res.statusCode, headers: res.headers, text, json: parseJson(text, undefined) });
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
 * @param {boolean} [options.testCopy=true] False starts it as a real install
 * @param {Object} [options.feed] The feed's timing and limits
 * @param {Object} [options.awake] Stay awake's reach (see startService)
 * @param {string} [options.codexHome] Codex's folder; by default an empty
 *     one in the scratch folder, never the person's own
 * @param {string} [options.codexPath] The `codex` program to use
 * @param {Object} [options.codex] More for Codex (see startService); by
 *     default no folder is searched for the program
 * @param {Object} [options.persist] Timing of the kept state (see startService)
 * @param {Object} [options.claude] Claude Code's waits (see startService)
 * @param {string} [options.claudeSettings] Claude Code's settings file; by
 *     default one in the scratch folder
 * @return {Promise<Object>} {service, folder, support, logs, token, api(),
 *     local(), feed()} where api() and local() are {@link request} on that
 *     port, local() with the token unless headers say otherwise, and feed()
 *     is {@link openFeed} with the token
 */
export async function startScratchService(
  t,
  { folder, testCopy = true, feed, awake, codexHome, codexPath = null, codex = {}, persist, claude, claudeSettings } = {},
) {
  folder ??= await scratchFolder(t);
  const support = path.join(folder, 'support');
  const logs = path.join(folder, 'logs');
  const service = await startService({
    support,
    logs,
    apiPort: 0,
    localPort: 0,
    testCopy,
    feed,
    awake,
    codexHome: codexHome ?? path.join(folder, 'codex-home'),
    codexPath,
    codex: { searchPath: [], folders: [], ...codex },
    persist,
    claude,
    // Never the person's own Claude Code settings.
    claudeSettings: claudeSettings ?? path.join(folder, 'claude-home', '.claude', 'settings.json'),
  });
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
    feed: (options = {}) => openFeed(t, service.apiPort, { token, ...options }),
  };
}

/**
 * Polls until a test gives something truthy.
 *
 * @param {function(): *} test
 * @param {string} what Said when it never comes
 * @param {number} [timeoutMs=5000]
 * @return {Promise<*>} What the test gave
 */
export async function eventually(test, what, timeoutMs = 5000) {
  const deadline = Date.now() + timeoutMs;
  for (;;) {
    const value = test();
    if (value) return value;
    if (Date.now() > deadline) throw new Error(`Never happened: ${what}.`);
    await sleep(10);
  }
}

/**
 * Opens a feed connection and keeps every frame it hears; it is cut off
 * after the test.
 *
 * @param {TestContext} t
 * @param {number} port The API port
 * @param {Object} options
 * @param {string} options.token
 * @param {string} [options.client='test'] The `client` of the query
 * @return {Promise<Object>} {socket, texts, messages(), ofType(t), next(t), closed}
 *     `texts` holds each frame's text in order; messages() parses them (null
 *     where a frame isn't JSON); next(t) waits for the first message of that
 *     type after the last one next() gave, of any type; `closed` resolves
 *     with the close code
 * @throws when the handshake isn't taken
 */
export async function openFeed(t, port, { token, client = 'test' }) {
  const socket = new WebSocket(`ws://127.0.0.1:${port}/v1/ws?client=${encodeURIComponent(client)}`, {
    headers: { Authorization: `Bearer ${token}` },
  });
  const texts = [];
  socket.on('message', (data) => texts.push(data.toString('utf8')));
  const closed = new Promise((resolve) => socket.on('close', (code) => resolve(code)));
  t.after(() => socket.terminate());
  await new Promise((resolve, reject) => {
    socket.once('open', resolve);
    socket.once('error', reject);
  });
  socket.on('error', () => {});

  const parse = (text) => parseJson(text, null);
  const messages = () => texts.map(parse);
  const ofType = (type) => messages().filter((message) => message?.t === type);
  let taken = 0;
  return {
    socket,
    texts,
    messages,
    ofType,
    closed,
    async next(type, timeoutMs) {
      const index = await eventually(
        () => {
          const found = texts.findIndex((text, i) => i >= taken && parse(text)?.t === type);
          return found >= 0 ? found + 1 : 0;
        },
        `a “${type}” frame`,
        timeoutMs,
      );
      taken = index;
      return parse(texts[index - 1]);
    },
  };
}

/**
 * A feed handshake that is expected to be refused.
 *
 * @param {number} port
 * @param {Object} [options]
 * @param {string} [options.target='/v1/ws?client=test']
 * @param {Object} [options.headers]
 * @return {Promise<{status: number, headers: Object, json: *}>} rejects when
 *     the handshake is taken or the connection ends without an answer
 */
export function refusedFeed(port, { target = '/v1/ws?client=test', headers = {} } = {}) {
  return new Promise((resolve, reject) => {
    const socket = new WebSocket(`ws://127.0.0.1:${port}${target}`, { headers });
    socket.on('open', () => {
      socket.terminate();
      reject(new Error('The feed took the handshake.'));
    });
    socket.on('error', reject);
    socket.on('unexpected-response', (req, res) => {
      const chunks = [];
      res.on('data', (chunk) => chunks.push(chunk));
      res.on('end', () => {
        const text = Buffer.concat(chunks).toString('utf8');
        resolve({ status: res.statusCode, headers: res.headers, json: parseJson(text, undefined), text });
        req.destroy();
      });
    });
  });
}
