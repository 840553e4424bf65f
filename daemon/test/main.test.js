// The service as the installer starts it: `node src/main` in the daemon
// folder, configured by the environment alone.

import assert from 'node:assert/strict';
import { spawn } from 'node:child_process';
import fs from 'node:fs/promises';
import net from 'node:net';
import path from 'node:path';
import test from 'node:test';
import { fileURLToPath } from 'node:url';

import { openFeed, request, scratchFolder } from './helpers.js';

const daemonFolder = path.dirname(path.dirname(fileURLToPath(import.meta.url)));

async function freePorts(count) {
  const servers = [];
  for (let i = 0; i < count; i++) {
    const server = net.createServer();
    await new Promise((resolve) => server.listen(0, '127.0.0.1', resolve));
    servers.push(server);
  }
  const ports = servers.map((server) => server.address().port);
  await Promise.all(servers.map((server) => new Promise((resolve) => server.close(resolve))));
  return ports;
}

// Starts `node src/main` with only the given TIDEWATCH_ variables, and the
// user folders pointed into the scratch folder.
function spawnMain(t, folder, variables) {
  const env = Object.fromEntries(Object.entries(process.env).filter(([key]) => !key.startsWith('TIDEWATCH_')));
  Object.assign(env, {
    XDG_DATA_HOME: path.join(folder, 'home', 'share'),
    XDG_STATE_HOME: path.join(folder, 'home', 'state'),
    ...variables,
  });
  const child = spawn(process.execPath, ['src/main'], { cwd: daemonFolder, env, stdio: ['ignore', 'pipe', 'pipe'] });
  const output = { stdout: '', stderr: '' };
  child.stdout.on('data', (chunk) => (output.stdout += chunk));
  child.stderr.on('data', (chunk) => (output.stderr += chunk));
  const exited = new Promise((resolve) => child.on('exit', (code, signal) => resolve({ code, signal })));
  t.after(() => {
    if (child.exitCode === null && child.signalCode === null) child.kill('SIGKILL');
  });
  return { child, output, exited };
}

async function waitForHealth(port, exited) {
  let done = false;
  exited.then(() => (done = true));
  const deadline = Date.now() + 10_000;
  while (!done && Date.now() < deadline) {
    try {
      const reply = await request(port, 'GET', '/v1/health');
      if (reply.status === 200) return reply;
    } catch {
      // not listening yet
    }
    await new Promise((resolve) => setTimeout(resolve, 50));
  }
  assert.fail('the service never answered its health probe');
}

for (const signal of ['SIGTERM', 'SIGINT']) {
  test(`started as the installer starts it, it answers and ends cleanly on ${signal}`, { timeout: 20_000 }, async (t) => {
    const folder = await scratchFolder(t);
    const support = path.join(folder, 'support');
    const [apiPort, localPort] = await freePorts(2);
    const { child, output, exited } = spawnMain(t, folder, {
      TIDEWATCH_SUPPORT: support,
      TIDEWATCH_API_PORT: String(apiPort),
      TIDEWATCH_LOCAL_PORT: String(localPort),
    });

    const health = await waitForHealth(apiPort, exited);
    assert.equal(health.json.ok, true);

    const tokenFile = path.join(support, 'admin-token');
    assert.equal((await fs.stat(tokenFile)).mode & 0o777, 0o600);
    const token = (await fs.readFile(tokenFile, 'utf8')).trim();
    const snapshot = await request(localPort, 'GET', '/v1/snapshot', { headers: { Authorization: `Bearer ${token}` } });
    assert.equal(snapshot.status, 200);

    // A client holding a connection open must not hold up the stop.
    const idle = net.connect(localPort, '127.0.0.1');
    await new Promise((resolve) => idle.on('connect', resolve));
    t.after(() => idle.destroy());
    // Nor must a feed client, which is told the service is going away.
    const feed = await openFeed(t, apiPort, { token, client: 'mac' });
    await feed.next('snapshot');

    const started = Date.now();
    child.kill(signal);
    assert.deepEqual(await exited, { code: 0, signal: null });
    assert.ok(Date.now() - started < 2000, 'it stopped within 2 seconds');
    assert.equal(await feed.closed, 1001);

    assert.match(output.stdout, new RegExp(`listening on 127\\.0\\.0\\.1:${apiPort} \\(API\\) and 127\\.0\\.0\\.1:${localPort}`));
    const log = await fs.readFile(path.join(support, 'logs', 'daemon.log'), 'utf8');
    assert.ok(log.includes(output.stdout.trim()), 'the start line is in the log');
    assert.match(log, /info Feed client “mac” connected; 1 connected\.\n/);
    assert.match(log, new RegExp(`info Stopping \\(${signal}\\)\\.\\n(.*\\n)?.* info Stopped\\.\\n$`));
    assert.ok(!log.includes(token), 'the token is never logged');
  });
}

test('a port in use ends the start with status 1 and one sentence', { timeout: 20_000 }, async (t) => {
  const folder = await scratchFolder(t);
  const blocker = net.createServer();
  await new Promise((resolve) => blocker.listen(0, '127.0.0.1', resolve));
  t.after(() => blocker.close());
  const taken = blocker.address().port;
  const [free] = await freePorts(1);

  const { output, exited } = spawnMain(t, folder, {
    TIDEWATCH_SUPPORT: path.join(folder, 'support'),
    TIDEWATCH_API_PORT: String(free),
    TIDEWATCH_LOCAL_PORT: String(taken),
  });
  assert.deepEqual(await exited, { code: 1, signal: null });
  assert.equal(output.stderr, `Port ${taken} is already in use.\n`);
  const log = await fs.readFile(path.join(folder, 'support', 'logs', 'daemon.log'), 'utf8');
  assert.match(log, new RegExp(`error Port ${taken} is already in use\\.\\n$`));
});
