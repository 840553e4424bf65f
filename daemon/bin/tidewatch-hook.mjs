// Claude Code's hook program for Tidewatch, run by the Node.js the service
// runs on, once per hook event:
//
//   tidewatch-hook.mjs --support <folder>                  an event on stdin
//   tidewatch-hook.mjs --support <folder> --status-line [--then <entry>]
//
// An event is posted to the service on the loopback interface and the hook
// ends, silent. A PermissionRequest waits for the answer (asking again across
// a restart of the service) and prints it as Claude Code reads it; without
// an answer it prints nothing and Claude Code's own prompt decides. It never
// fails Claude Code: every road ends with status 0.
//
// The admin token is read from the support folder's file, never taken from
// the command line; the port from the file the service writes there.

import fs from 'node:fs';
import net from 'node:net';
import path from 'node:path';

// Loaded only where needed: every module loaded is time on each tool call.
const lazily = (name) => import(name);

/** The most of standard input read; a larger event is cut down before it is sent. */
const MAX_STDIN_BYTES = 16 * 1024 * 1024;
/** Above this an event's bulky fields are cut, to stay under the service's body limit. */
const MAX_POST_BYTES = 512 * 1024;
/** A string of a tool's input is cut to this when the event is too large. */
const MAX_FIELD_CHARS = 8 * 1024;
/** A report waits this long for the service, in milliseconds. */
const REPORT_TIMEOUT_MS = 3000;
/** The status line waits this long for the service before showing its line. */
const STATUS_TIMEOUT_MS = 500;
/** A person's own status line command is given this long. */
const OWN_STATUS_TIMEOUT_MS = 5000;
/** One long poll of a permission request, in milliseconds. */
const POLL_MS = 20000;
/** Between attempts while the service is away, in milliseconds. */
const RETRY_MS = 250;
/** Without word of the service's wait, the hook gives up after this. */
const FALLBACK_WAIT_MS = 10 * 60 * 1000;

function option(name) {
  const at = process.argv.indexOf(name);
  return at > 0 && at + 1 < process.argv.length ? process.argv[at + 1] : null;
}

async function readStdin() {
  const chunks = [];
  let size = 0;
  for await (const chunk of process.stdin) {
    size += chunk.length;
    if (size > MAX_STDIN_BYTES) return null;
    chunks.push(chunk);
  }
  return Buffer.concat(chunks);
}

async function where() {
  const support = option('--support') ?? (await lazily('../src/config.js')).readConfig(process.env).support;
  let token;
  try {
    token = fs.readFileSync(path.join(support, 'admin-token'), 'utf8').trim();
  } catch {
    return null;
  }
  let port = Number(process.env.TIDEWATCH_LOCAL_PORT) || 47322;
  try {
    const address = JSON.parse(fs.readFileSync(path.join(support, 'claude-hook.json'), 'utf8'));
    if (Number.isInteger(address.localPort)) port = address.localPort;
  } catch {
    // the service hasn't started here yet: the usual port
  }
  return { token, port };
}

/**
 * One HTTP exchange on a fresh connection. Written on `node:net`: loading
 * `node:http` costs more time than the whole exchange, on every tool call.
 *
 * @return {Promise<{status: number, json: *}>} rejects when the service can't be reached
 */
function post(place, target, body, timeoutMs) {
  return new Promise((resolve, reject) => {
    const socket = net.connect({ host: '127.0.0.1', port: place.port });
    const chunks = [];
    socket.setTimeout(timeoutMs, () => socket.destroy(new Error('timeout')));
    socket.on('connect', () => {
      socket.write(
        `POST ${target} HTTP/1.1\r\nHost: 127.0.0.1:${place.port}\r\nAuthorization: Bearer ${place.token}\r\n` +
          `Content-Type: application/json\r\nContent-Length: ${body.length}\r\nConnection: close\r\n\r\n`,
      );
      // Not ended: the service drops a connection whose client half-closes
      // while the answer is still being made. It closes after its answer.
      socket.write(body);
    });
    socket.on('data', (chunk) => chunks.push(chunk));
    socket.on('error', reject);
    socket.on('close', () => {
      const text = Buffer.concat(chunks).toString('utf8');
      const status = Number(/^HTTP\/1\.[01] (\d{3})/.exec(text)?.[1]);
      if (!status) {
        reject(new Error('no answer'));
        return;
      }
      let json = null;
      try {
        json = JSON.parse(text.slice(text.indexOf('\r\n\r\n') + 4));
      } catch {
        json = null;
      }
      resolve({ status, json });
    });
  });
}

// Keeps an event under the body limit: what a tool gave back is never
// needed, and long strings of its input are cut.
function slim(raw) {
  if (raw.length <= MAX_POST_BYTES) return raw;
  let event;
  try {
    event = JSON.parse(raw.toString('utf8'));
  } catch {
    return raw;
  }
  delete event.tool_response;
  const cut = (value) => {
    if (typeof value === 'string')
      return value.length > MAX_FIELD_CHARS ? `${value.slice(0, MAX_FIELD_CHARS)}…` : value;
    if (Array.isArray(value)) return value.map(cut);
    if (value && typeof value === 'object')
      return Object.fromEntries(Object.entries(value).map(([k, v]) => [k, cut(v)]));
    return value;
  };
  for (const field of ['tool_input', 'prompt', 'last_assistant_message'])
    if (field in event) event[field] = cut(event[field]);
  return Buffer.from(JSON.stringify(event));
}

// The Claude Code that ran this hook, when it has a terminal: its pid, and
// on the Mac its tty's path. Hooks run in a session of their own, so the
// hook's own terminal says nothing: Claude Code is its parent, or its
// parent's parent through the shell.
async function agentProcess() {
  let pid = process.ppid;
  for (let level = 0; level < 2 && pid > 1; level++) {
    let tty;
    let parent;
    if (process.platform === 'linux') {
      try {
        const stat = fs.readFileSync(`/proc/${pid}/stat`, 'utf8');
        // After the command's name: state, ppid, pgrp, session, tty_nr.
        const fields = stat.slice(stat.lastIndexOf(')') + 2).split(' ');
        tty = Number(fields[4]) !== 0 ? '' : null;
        parent = Number(fields[1]);
      } catch {
        return null;
      }
    } else {
      const { spawnSync } = await lazily('node:child_process');
      const out = spawnSync('ps', ['-o', 'tty=,ppid=', '-p', String(pid)], { encoding: 'utf8' }).stdout ?? '';
      const [name, ppid] = out.trim().split(/\s+/);
      tty = name !== undefined && name !== '' && name !== '??' && name !== '?' ? `/dev/${name}` : null;
      parent = Number(ppid);
    }
    if (tty !== null) return { pid, tty };
    pid = parent;
  }
  return null;
}

const sleep = (ms) => new Promise((resolve) => setTimeout(resolve, ms));

async function askPermission(first, body) {
  let place = first;
  // Unique, not secret (every route wants the token): node:crypto would add
  // some 4 ms to every request for it.
  const random = () => Math.random().toString(36).slice(2).padEnd(10, '0').slice(0, 10);
  const request = `${process.pid.toString(36)}-${Date.now().toString(36)}-${random()}${random()}`;
  // The first call comes back at once with the service's deadline, so that
  // from then on a service gone away is waited for, not given up on.
  const target = (wait) => `/claude/permission?request=${request}&wait=${wait}`;
  let deadline = null;
  const started = Date.now();
  for (;;) {
    let reply;
    try {
      reply = await post(place, target(deadline === null ? 0 : POLL_MS), body, POLL_MS + 10000);
    } catch {
      // Away: gone for good before it ever answered, or restarting while we wait.
      const until = deadline ?? started;
      if (Date.now() >= until) return;
      await sleep(RETRY_MS);
      // A restarted service may listen elsewhere.
      place = (await where()) ?? place;
      continue;
    }
    if (reply.status !== 200 || !reply.json) return;
    const { state, expiresAt, output } = reply.json;
    if (state === 'answered' && output && typeof output === 'object') {
      process.stdout.write(`${JSON.stringify(output)}\n`);
      return;
    }
    if (state !== 'pending') return;
    deadline = Number.isFinite(expiresAt) ? expiresAt : started + FALLBACK_WAIT_MS;
    if (Date.now() >= deadline) return;
  }
}

// The person's own status line command, run as Claude Code would run it.
async function runOwn(entry, input) {
  const { spawn } = await lazily('node:child_process');
  return new Promise((resolve) => {
    if (!entry || typeof entry.command !== 'string') {
      resolve(null);
      return;
    }
    const child = spawn('/bin/sh', ['-c', entry.command], { stdio: ['pipe', 'pipe', 'ignore'] });
    const chunks = [];
    const timer = setTimeout(() => child.kill('SIGKILL'), OWN_STATUS_TIMEOUT_MS);
    child.stdout.on('data', (chunk) => chunks.push(chunk));
    child.on('error', () => resolve(null));
    child.on('close', () => {
      clearTimeout(timer);
      resolve(Buffer.concat(chunks).toString('utf8'));
    });
    child.stdin.on('error', () => {});
    child.stdin.end(input);
  });
}

async function statusLine(place, raw) {
  let input = {};
  try {
    input = JSON.parse(raw.toString('utf8'));
  } catch {
    input = {};
  }
  let own = null;
  const then = option('--then');
  if (then) {
    try {
      own = JSON.parse(Buffer.from(then, 'base64url').toString('utf8'));
    } catch {
      own = null;
    }
  }
  const sent = place ? post(place, '/claude/status-line', raw, STATUS_TIMEOUT_MS).catch(() => null) : null;
  const [ownLine] = await Promise.all([runOwn(own, raw), sent]);
  if (ownLine !== null) {
    process.stdout.write(ownLine);
    return;
  }
  const { statusText } = await import('../src/claude/status-line.js');
  process.stdout.write(`${statusText(input)}\n`);
}

async function main() {
  const raw = await readStdin();
  const place = await where();
  if (process.argv.includes('--status-line')) {
    await statusLine(place, raw ?? Buffer.alloc(0));
    return;
  }
  if (raw === null || place === null) return;
  const body = slim(raw);
  // The event's name is all the hook needs to read; the service reads the rest.
  const name = /"hook_event_name"\s*:\s*"([A-Za-z]+)"/.exec(
    body.toString('utf8', 0, Math.min(body.length, 65536)),
  )?.[1];
  if (name === 'PermissionRequest') {
    await askPermission(place, body);
    return;
  }
  const query = new URLSearchParams();
  // Reading /proc is cheap enough for every event; elsewhere `ps` runs when a session starts or is spoken to.
  if (process.platform === 'linux' || name === 'SessionStart' || name === 'UserPromptSubmit') {
    const agent = await agentProcess();
    if (agent !== null && name === 'SessionStart') query.set('tty', '1');
    if (agent !== null) query.set('pid', String(agent.pid));
    if (agent?.tty) query.set('tty_path', agent.tty);
  }
  // Set by Tidewatch's terminal relay: the session runs in a shared terminal.
  const term = process.env.TIDEWATCH_TERM;
  if (term && /^[0-9a-f]{32}$/.test(term)) query.set('term', term);
  const search = query.size > 0 ? `?${query}` : '';
  await post(place, `/claude/hook${search}`, body, REPORT_TIMEOUT_MS).catch(() => null);
}

try {
  await main();
} catch {
  // Never Claude Code's problem.
}
process.exitCode = 0;
