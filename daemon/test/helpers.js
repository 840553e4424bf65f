// Shared by the suites: scratch folders, a running service on free ports (in
// this process or as the installer starts it), plain HTTP calls that open a
// fresh connection each, so that no pooled socket outlives the server it
// belonged to, feed clients on real WebSockets, and the Claude Code samples.

import { spawn } from 'node:child_process';
import fs from 'node:fs';
import http from 'node:http';
import net from 'node:net';
import os from 'node:os';
import path from 'node:path';
import { setTimeout as sleep } from 'node:timers/promises';
import { fileURLToPath } from 'node:url';

import { WebSocket } from 'ws';

import { startService } from '../src/service.js';

export { sleep };

export const DAEMON = path.dirname(path.dirname(fileURLToPath(import.meta.url)));
const CLAUDE_FIXTURES = path.join(DAEMON, 'test', 'fixtures', 'claude');

/** A payload Claude Code really sent (test/fixtures/claude). */
export const claudeFixture = (name) => JSON.parse(fs.readFileSync(path.join(CLAUDE_FIXTURES, name), 'utf8'));
/** The lines of a real transcript there. */
export const fixtureLines = (name) => fs.readFileSync(path.join(CLAUDE_FIXTURES, name), 'utf8').split('\n').filter(Boolean);

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
  const folder = await fs.promises.mkdtemp(path.join(os.tmpdir(), 'tidewatch-daemon-'));
  // The service may still be writing there as it closes.
  t.after(() => fs.promises.rm(folder, { recursive: true, force: true, maxRetries: 5 }));
  return folder;
}

/** One HTTP exchange, {status, headers, text, json}; an object body goes as JSON, `chunked` without Content-Length. */
export function request(port, method, target, { body, headers = {}, chunked = false } = {}) {
  let payload = body;
  if (payload !== undefined && typeof payload !== 'string' && !Buffer.isBuffer(payload)) payload = JSON.stringify(payload);
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

/** The calls a test makes to a service with its admin token. */
function clientOf(t, { apiPort, localPort, token }) {
  const local = (method, target, options = {}) =>
    request(localPort, method, target, { ...options, headers: { Authorization: `Bearer ${token}`, ...options.headers } });
  return {
    token,
    api: (method, target, options) => request(apiPort, method, target, options),
    local,
    post: (target, body) => local('POST', target, { body }),
    snapshot: async () => (await local('GET', '/v1/snapshot')).json,
    feed: (options = {}) => openFeed(t, apiPort, { token, ...options }),
  };
}

/**
 * The service in a scratch folder on free ports, closed after the test; Codex's home and Claude Code's
 * settings lie in that folder, never the person's own, and no `tailscale` is found unless `tailscale.program` names one. Gives the service, its folders and the calls of clientOf.
 */
export async function startScratchService(t, { folder, testCopy = true, codexHome, codexPath = null, codex = {}, claudeSettings, claudeProgram = {}, tailscale = {}, ...options } = {}) {
  folder ??= await scratchFolder(t);
  const support = path.join(folder, 'support');
  const logs = path.join(folder, 'logs');
  const service = await startService({
    ...options,
    support,
    logs,
    apiPort: 0,
    localPort: 0,
    lanPort: 0,
    testCopy,
    projects: options.projects ?? path.join(folder, 'projects'),
    codexHome: codexHome ?? path.join(folder, 'codex-home'),
    codexPath,
    codex: { searchPath: [], folders: [], ...codex },
    claudeSettings: claudeSettings ?? path.join(folder, 'claude-home', '.claude', 'settings.json'),
    // No Claude Code unless a test names one: the command hooks, as before one is found.
    claudeProgram: { searchPath: [], folders: [], ...claudeProgram },
    // Nor any Tailscale: the machine's own is never asked unless a test names one.
    tailscale: { ...tailscale, program: { searchPath: [], folders: [], app: null, ...tailscale.program } },
  });
  t.after(() => service.close());
  // Its first read of Claude Code's account would land on whatever a test plants first.
  await service.claude?.accountRead;
  await service.claudeReady;
  const token = fs.readFileSync(path.join(support, 'admin-token'), 'utf8').trim();
  return { service, folder, support, logs, ...clientOf(t, { apiPort: service.apiPort, localPort: service.localPort, token }) };
}

/** Free loopback ports, let go again for a program to take. */
export async function freePorts(count) {
  const servers = await Promise.all(
    Array.from({ length: count }, async () => {
      const server = net.createServer();
      await new Promise((resolve) => server.listen(0, '127.0.0.1', resolve));
      return server;
    }),
  );
  const ports = servers.map((server) => server.address().port);
  await Promise.all(servers.map((server) => new Promise((resolve) => server.close(resolve))));
  return ports;
}

/**
 * `node src/main` as the installer starts it, configured by the environment alone (no TIDEWATCH_ variable
 * but those given, ports 0 unless given), killed after the test; started() waits for its start line.
 */
export function spawnMain(t, folder, variables = {}) {
  const env = Object.fromEntries(Object.entries(process.env).filter(([key]) => !key.startsWith('TIDEWATCH_')));
  const support = path.join(folder, 'support');
  Object.assign(env, {
    XDG_DATA_HOME: path.join(folder, 'home', 'share'),
    XDG_STATE_HOME: path.join(folder, 'home', 'state'),
    TIDEWATCH_SUPPORT: support,
    TIDEWATCH_API_PORT: '0',
    TIDEWATCH_LOCAL_PORT: '0',
    ...variables,
  });
  const child = spawn(process.execPath, ['src/main'], { cwd: DAEMON, env, stdio: ['ignore', 'pipe', 'pipe'] });
  const output = { stdout: '', stderr: '' };
  child.stdout.on('data', (chunk) => (output.stdout += chunk));
  child.stderr.on('data', (chunk) => (output.stderr += chunk));
  const exited = new Promise((resolve) => child.on('exit', (code, signal) => resolve({ code, signal })));
  t.after(() => child.kill('SIGKILL'));
  const line = /127\.0\.0\.1:(\d+) \(API\) and 127\.0\.0\.1:(\d+) \(local\)/;
  const started = async () => {
    const [, api, local] = await eventually(() => line.exec(output.stdout), 'the start line', 10_000);
    const ports = { apiPort: Number(api), localPort: Number(local) };
    return { ...ports, ...clientOf(t, { ...ports, token: fs.readFileSync(path.join(support, 'admin-token'), 'utf8').trim() }) };
  };
  return { child, output, exited, started };
}

/** Polls until `test` gives something truthy, and gives it; `what` (or what it returns then) names what never came. */
export async function eventually(test, what, timeoutMs = 5000) {
  const deadline = Date.now() + timeoutMs;
  for (;;) {
    const value = await test();
    if (value) return value;
    if (Date.now() > deadline) throw new Error(`Never happened: ${typeof what === 'function' ? what() : what}.`);
    await sleep(10);
  }
}

/**
 * A feed connection that keeps every frame it hears, cut off after the test; next(t) waits for the first
 * message of that type after the last one it gave.
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
  let taken = 0;
  return {
    socket,
    texts,
    messages,
    ofType: (type) => messages().filter((message) => message?.t === type),
    closed,
    async next(type, timeoutMs) {
      const found = (i) => i >= taken && parse(texts[i])?.t === type;
      taken = await eventually(() => texts.findIndex((_, i) => found(i)) + 1, `a “${type}” frame`, timeoutMs);
      return parse(texts[taken - 1]);
    },
  };
}

/** A feed handshake expected to be refused: its {status, headers, json, text}; rejects when it is taken. */
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
