// What automations cost the background service, each service a test copy of
// `node src/main` in a scratch folder with a scratch home:
//
//   idle   50 automations with cron triggers beside the same service with
//          none, both up at once over the same window: CPU time each used
//          (user + system, from /proc) and their memory (RSS).
//   fires  1,000 webhook fires spread over 50 automations whose one step is
//          a trivial command: runs through to done a second, and the
//          service's RSS before and after. A fire the engine turns away
//          because that automation's line is full is fired again.
//
// Run from the repository: tools/node_modules/.bin/node bench/automations/bench.mjs
// Options: --idle-seconds N (60), --fires N (1000), --skip-idle, --skip-fires.
// It prints figures and judges nothing.

import { spawn, execFileSync } from 'node:child_process';
import fs from 'node:fs';
import os from 'node:os';
import path from 'node:path';
import { setTimeout as sleep } from 'node:timers/promises';
import { fileURLToPath } from 'node:url';

const DAEMON = path.resolve(path.dirname(fileURLToPath(import.meta.url)), '..', '..', 'daemon');
const TICKS = Number(execFileSync('getconf', ['CLK_TCK'], { encoding: 'utf8' }).trim());
const AUTOMATIONS = 50;

function option(name, fallback) {
  const at = process.argv.indexOf(name);
  return at < 0 ? fallback : Number(process.argv[at + 1]);
}
const flag = (name) => process.argv.includes(name);

/** A test copy of the service in its own scratch folder and home; `stop()` ends it and clears the folder. */
async function startService(label) {
  const folder = fs.mkdtempSync(path.join(os.tmpdir(), `tidewatch-bench-${label}-`));
  const home = path.join(folder, 'home');
  const support = path.join(folder, 'support');
  fs.mkdirSync(home);
  const env = Object.fromEntries(Object.entries(process.env).filter(([key]) => !key.startsWith('TIDEWATCH_')));
  Object.assign(env, {
    HOME: home,
    XDG_DATA_HOME: path.join(home, 'share'),
    XDG_STATE_HOME: path.join(home, 'state'),
    XDG_CONFIG_HOME: path.join(home, 'config'),
    TIDEWATCH_SUPPORT: support,
    TIDEWATCH_API_PORT: '0',
    TIDEWATCH_LOCAL_PORT: '0',
  });
  const child = spawn(process.execPath, ['src/main'], { cwd: DAEMON, env, stdio: ['ignore', 'pipe', 'pipe'] });
  let out = '';
  child.stdout.on('data', (chunk) => (out += chunk));
  child.stderr.on('data', (chunk) => (out += chunk));
  const line = /127\.0\.0\.1:(\d+) \(API\) and 127\.0\.0\.1:(\d+) \(local\)/;
  const deadline = Date.now() + 20000;
  let ports = null;
  while (!(ports = line.exec(out))) {
    if (Date.now() > deadline || child.exitCode !== null) throw new Error(`The ${label} service didn’t start:\n${out}`);
    await sleep(50);
  }
  const token = fs.readFileSync(path.join(support, 'admin-token'), 'utf8').trim();
  const call = async (port, method, target, { body, headers = {} } = {}) => {
    const reply = await fetch(`http://127.0.0.1:${port}${target}`, {
      method,
      headers: { ...headers, ...(body === undefined ? {} : { 'Content-Type': 'application/json' }) },
      body: body === undefined ? undefined : typeof body === 'string' ? body : JSON.stringify(body),
    });
    const text = await reply.text();
    return { status: reply.status, json: text ? JSON.parse(text) : null, text };
  };
  const project = path.join(support, 'projects', 'bench');
  fs.mkdirSync(project, { recursive: true });
  return {
    pid: child.pid,
    project,
    local: (method, target, body) => call(Number(ports[2]), method, target, { body, headers: { Authorization: `Bearer ${token}` } }),
    fire: (id, secret, payload) => call(Number(ports[1]), 'POST', `/v1/automations/${id}/fire`, { body: payload, headers: { Authorization: `Bearer ${secret}` } }),
    async stop() {
      child.kill('SIGTERM');
      await new Promise((resolve) => (child.exitCode !== null ? resolve() : child.on('exit', resolve)));
      fs.rmSync(folder, { recursive: true, force: true, maxRetries: 5 });
    },
  };
}

/** CPU seconds the process used so far, and its memory now and at its peak, in MiB. */
function usageOf(pid) {
  const stat = fs.readFileSync(`/proc/${pid}/stat`, 'utf8');
  const fields = stat.slice(stat.lastIndexOf(')') + 2).split(' ');
  const status = fs.readFileSync(`/proc/${pid}/status`, 'utf8');
  const kib = (name) => Number(new RegExp(`^${name}:\\s+(\\d+) kB`, 'm').exec(status)[1]);
  return { cpu: (Number(fields[11]) + Number(fields[12])) / TICKS, rss: kib('VmRSS') / 1024, peak: kib('VmHWM') / 1024 };
}

async function save(service, body) {
  const made = await service.local('POST', '/v1/automations', body);
  if (made.status !== 200) throw new Error(`An automation wasn’t saved: ${made.text}`);
  return made.json;
}

const shell = (service, name, trigger) => ({
  name,
  trigger,
  steps: [{ id: 'st_sh', kind: 'shell', if: null, projectPath: service.project, command: 'true', timeoutSec: 30 }],
  outputs: [],
  budget: null,
  confirmShell: true,
});

async function idle(seconds) {
  const [some, none] = await Promise.all([startService('cron'), startService('none')]);
  try {
    for (let i = 0; i < AUTOMATIONS; i++) {
      // Spread over the small hours: none comes due while measured.
      await save(some, shell(some, `Nightly ${i + 1}`, { kind: 'cron', expr: `${i} 3 * * *` }));
    }
    await sleep(3000);
    const before = [usageOf(some.pid), usageOf(none.pid)];
    await sleep(seconds * 1000);
    const after = [usageOf(some.pid), usageOf(none.pid)];
    const rows = [`${AUTOMATIONS} cron automations`, 'no automations'].map((label, i) => ({
      label,
      cpuMs: (after[i].cpu - before[i].cpu) * 1000,
      rss: after[i].rss,
    }));
    console.log(`\nIdle over ${seconds} s, both services up at once:`);
    for (const row of rows) console.log(`  ${row.label.padEnd(22)} CPU ${row.cpuMs.toFixed(0).padStart(6)} ms  (${(row.cpuMs / seconds).toFixed(2)} ms/s)  RSS ${row.rss.toFixed(1)} MiB`);
    console.log(`  difference             CPU ${(rows[0].cpuMs - rows[1].cpuMs).toFixed(0).padStart(6)} ms over ${seconds} s (the clock ticks ${(1000 / TICKS).toFixed(0)} ms apart)`);
  } finally {
    await Promise.all([some.stop(), none.stop()]);
  }
}

async function fires(count) {
  const service = await startService('fires');
  try {
    const made = [];
    for (let i = 0; i < AUTOMATIONS; i++) made.push(await save(service, shell(service, `Hook ${i + 1}`, { kind: 'webhook' })));
    await sleep(1000);
    const before = usageOf(service.pid);
    let pending = Array.from({ length: count }, (_, i) => made[i % made.length]);
    let accepted = 0;
    let turnedAway = 0;
    const started = performance.now();
    // Eight fires in flight at once, as several scripts knocking together would.
    while (pending.length > 0) {
      const again = [];
      for (let i = 0; i < pending.length; i += 8) {
        const wave = pending.slice(i, i + 8);
        const replies = await Promise.all(wave.map((each) => service.fire(each.automation.id, each.token, `fire ${accepted}`)));
        replies.forEach((reply, n) => {
          if (reply.status !== 200) throw new Error(`A fire was refused: ${reply.text}`);
          if (reply.json.run.state === 'skipped') again.push(wave[n]);
          else accepted += 1;
        });
      }
      turnedAway += again.length;
      pending = again;
      if (pending.length > 0) await sleep(20);
    }
    const firedMs = performance.now() - started;
    // Each automation's runs go in order, so its newest run ending means all of its own did.
    for (;;) {
      const list = (await service.local('GET', '/v1/automations')).json.automations;
      if (list.every((each) => ['done', 'failed', 'stopped'].includes(each.lastRun?.state))) {
        const failed = list.filter((each) => each.lastRun.state !== 'done').length;
        if (failed > 0) console.log(`  ${failed} automations’ last runs didn’t end done`);
        break;
      }
      await sleep(50);
    }
    const allMs = performance.now() - started;
    const after = usageOf(service.pid);
    let done = 0;
    for (const { automation } of made) done += (await service.local('GET', `/v1/automations/${automation.id}/runs?limit=20`)).json.runs.filter((run) => run.state === 'done').length;
    console.log(`\n${count} webhook fires over ${AUTOMATIONS} automations (one trivial command each):`);
    console.log(`  all taken in            ${(firedMs / 1000).toFixed(2)} s (${turnedAway} fires turned away by a full line and fired again)`);
    console.log(`  all through to done in  ${(allMs / 1000).toFixed(2)} s: ${(accepted / (allMs / 1000)).toFixed(1)} runs a second`);
    console.log(`  done among the runs kept (20 an automation): ${done}`);
    console.log(`  service CPU             ${((after.cpu - before.cpu) * 1000).toFixed(0)} ms`);
    console.log(`  service RSS             before ${before.rss.toFixed(1)} MiB, after ${after.rss.toFixed(1)} MiB, peak ${after.peak.toFixed(1)} MiB`);
  } finally {
    await service.stop();
  }
}

console.log(`Node ${process.version}, ${os.cpus().length} CPUs, load ${os.loadavg().map((load) => load.toFixed(2)).join(' ')}`);
if (!flag('--skip-idle')) await idle(option('--idle-seconds', 60));
if (!flag('--skip-fires')) await fires(option('--fires', 1000));
