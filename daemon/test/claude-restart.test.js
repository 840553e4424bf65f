// The waiting hook against a service that is killed (SIGKILL) and started
// again and again while permission requests wait: the real hook program and
// the real `node src/main`. No request is lost, none is answered twice, and
// each hook prints the one answer given to it.

import assert from 'node:assert/strict';
import { spawn } from 'node:child_process';
import fs from 'node:fs';
import net from 'node:net';
import path from 'node:path';
import { test } from 'node:test';
import { fileURLToPath } from 'node:url';

import { request, scratchFolder, sleep } from './helpers.js';
import { HOOK_PROGRAM } from './support/claude-code.js';
import { until } from './support/until.js';

const daemonFolder = path.dirname(path.dirname(fileURLToPath(import.meta.url)));
const fixture = JSON.parse(
  fs.readFileSync(path.join(daemonFolder, 'test', 'fixtures', 'claude', 'permission-request-bash.json'), 'utf8'),
);

async function freePorts(count) {
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

function startMain(t, folder, [apiPort, localPort]) {
  const env = Object.fromEntries(Object.entries(process.env).filter(([key]) => !key.startsWith('TIDEWATCH_')));
  Object.assign(env, {
    XDG_DATA_HOME: path.join(folder, 'home', 'share'),
    XDG_STATE_HOME: path.join(folder, 'home', 'state'),
    TIDEWATCH_SUPPORT: path.join(folder, 'support'),
    TIDEWATCH_API_PORT: String(apiPort),
    TIDEWATCH_LOCAL_PORT: String(localPort),
  });
  const child = spawn(process.execPath, ['src/main'], { cwd: daemonFolder, env, stdio: ['ignore', 'pipe', 'pipe'] });
  t.after(() => child.kill('SIGKILL'));
  const exited = new Promise((resolve) => child.on('exit', resolve));
  const listening = new Promise((resolve) => child.stdout.on('data', resolve));
  return { child, exited, listening };
}

function startHook(t, support, event) {
  const child = spawn(process.execPath, [HOOK_PROGRAM, '--support', support], { stdio: ['pipe', 'pipe', 'pipe'] });
  t.after(() => child.kill('SIGKILL'));
  let stdout = '';
  child.stdout.on('data', (chunk) => (stdout += chunk));
  const done = new Promise((resolve) => child.on('close', (code) => resolve({ code, stdout })));
  child.stdin.end(JSON.stringify(event));
  return done;
}

test(
  'slow: twenty hard restarts while requests wait lose none and answer none twice',
  { timeout: 90000 },
  async (t) => {
    const folder = await scratchFolder(t);
    const support = path.join(folder, 'support');
    const ports = await freePorts(2);
    let main = startMain(t, folder, ports);
    await main.listening;
    const token = fs.readFileSync(path.join(support, 'admin-token'), 'utf8').trim();
    const local = (method, target, body) =>
      request(ports[1], method, target, { body, headers: { Authorization: `Bearer ${token}` } });
    const open = async () => {
      for (;;) {
        try {
          return (await local('GET', '/v1/snapshot')).json.approvals;
        } catch {
          await sleep(20);
        }
      }
    };

    const decisions = ['allow', 'deny', 'session', 'always', 'allow', 'deny'];
    const hooks = decisions.map((_, i) =>
      startHook(t, support, {
        ...fixture,
        session_id: `s${i}`,
        transcript_path: `/nonexistent/s${i}.jsonl`,
        tool_input: { command: `touch /nonexistent/file-${i}`, description: 'Make a file' },
      }),
    );
    await until(async () => (await open()).length === decisions.length, 'every request waiting', 20000);
    const ids = new Map((await open()).map((approval) => [approval.sessionId, approval.id]));

    const answered = new Set();
    for (let round = 0; round < 20; round++) {
      main.child.kill('SIGKILL');
      await main.exited;
      main = startMain(t, folder, ports);
      await main.listening;
      // The same requests wait again, with the same ids: none new, none lost.
      const waiting = await open();
      assert.deepEqual(
        waiting.map((approval) => approval.id).sort(),
        [...ids.values()].filter((id) => !answered.has(id)).sort(),
        `after restart ${round + 1}`,
      );
      // Every third round one is answered, right before the next kill.
      if (round % 3 === 2 && answered.size < decisions.length) {
        const index = answered.size;
        const id = ids.get(`s${index}`);
        const reply = await local('POST', `/v1/approvals/${id}/decision`, { decision: decisions[index] });
        assert.equal(reply.status, 200);
        answered.add(id);
      }
    }
    for (let index = answered.size; index < decisions.length; index++) {
      const reply = await local('POST', `/v1/approvals/${ids.get(`s${index}`)}/decision`, {
        decision: decisions[index],
      });
      assert.equal(reply.status, 200);
    }

    const results = await Promise.all(hooks);
    results.forEach(({ code, stdout }, index) => {
      assert.equal(code, 0);
      const lines = stdout.trim().split('\n');
      assert.equal(lines.length, 1, `hook ${index} printed ${stdout}`);
      const { behavior } = JSON.parse(lines[0]).hookSpecificOutput.decision;
      assert.equal(behavior, decisions[index] === 'deny' ? 'deny' : 'allow', `hook ${index}`);
    });
    const kept = (await local('GET', '/qa/state')).json.decisions;
    assert.deepEqual(
      kept.map((each) => each.id).sort(),
      [...ids.values()].sort(),
      'each request answered exactly once',
    );
    // Answered already: a second answer is late, never a second question.
    assert.equal((await local('POST', `/v1/approvals/${ids.get('s0')}/decision`, { decision: 'deny' })).status, 409);
  },
);
