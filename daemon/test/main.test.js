// The service as the installer starts it: `node src/main` in the daemon
// folder, configured by the environment alone.

import assert from 'node:assert/strict';
import fs from 'node:fs';
import net from 'node:net';
import path from 'node:path';
import test from 'node:test';

import { scratchFolder, spawnMain } from './helpers.js';

test('started as the installer starts it, it answers and ends cleanly on a signal', { timeout: 30_000 }, async (t) => {
  for (const signal of ['SIGTERM', 'SIGINT']) {
    await t.test(signal, async (t) => {
      const folder = await scratchFolder(t);
      const { child, output, exited, started } = spawnMain(t, folder);
      const { api, local, feed, token, localPort } = await started();
      assert.equal((await api('GET', '/v1/health')).json.ok, true);
      assert.equal((await local('GET', '/v1/snapshot')).status, 200);
      // Neither an idle connection nor a feed client may hold up the stop; the feed is told why it ends.
      const idle = net.connect(localPort, '127.0.0.1');
      t.after(() => idle.destroy());
      const client = await feed({ client: 'mac' });
      await client.next('snapshot');

      child.kill(signal);
      assert.deepEqual(await exited, { code: 0, signal: null });
      assert.equal(await client.closed, 1001);
      const log = fs.readFileSync(path.join(folder, 'support', 'logs', 'daemon.log'), 'utf8');
      assert.ok(log.includes(output.stdout.trim()), 'the start line is in the log');
      assert.match(log, /info Feed client “mac” connected; 1 connected\.\n/);
      assert.match(log, new RegExp(`info Stopping \\(${signal}\\)\\.\\n(.*\\n)?.* info Stopped\\.\\n$`));
      assert.ok(!log.includes(token), 'the token is never logged');
    });
  }
});

test('a port in use ends the start with status 1 and one sentence, in the error and the log', async (t) => {
  const folder = await scratchFolder(t);
  const blocker = net.createServer();
  await new Promise((resolve) => blocker.listen(0, '127.0.0.1', resolve));
  t.after(() => blocker.close());
  const taken = blocker.address().port;
  const { output, exited } = spawnMain(t, folder, { TIDEWATCH_LOCAL_PORT: String(taken) });
  assert.deepEqual(await exited, { code: 1, signal: null });
  assert.equal(output.stderr, `Port ${taken} is already in use.\n`);
  const log = fs.readFileSync(path.join(folder, 'support', 'logs', 'daemon.log'), 'utf8');
  assert.match(log, new RegExp(`error Port ${taken} is already in use\\.\\n$`));
});
