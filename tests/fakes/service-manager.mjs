// Stand-ins for `systemctl --user` and `launchctl` that behave like the real
// tools as far as the installer can tell: a job file handed over is read the
// way the real manager reads it, starting a job really runs its program with
// the job's own environment, working folder and log, a supervisor restarts
// it as Restart=always / KeepAlive would, `show` and `print` report its real
// process, and stopping ends it. Everything the "manager" knows lives in one
// state folder (FAKE_MANAGER_STATE), never in the user's own configuration.
//
//   node service-manager.mjs systemctl --user <verb> …
//   node service-manager.mjs launchctl <verb> …
//
// A file named "no-bus" in the state folder makes systemctl answer as it does
// on a machine without a user session; a number in "refusals" makes that
// many starts fail the way the real tools report it.

import { spawn } from 'node:child_process';
import fs from 'node:fs';
import path from 'node:path';
import { setTimeout as sleep } from 'node:timers/promises';
import { fileURLToPath } from 'node:url';

const SELF = fileURLToPath(import.meta.url);
const STOP_WAIT_MS = 10000;

const state = process.env.FAKE_MANAGER_STATE;
if (!state) {
  process.stderr.write('fake service manager: FAKE_MANAGER_STATE is not set\n');
  process.exit(2);
}
fs.mkdirSync(path.join(state, 'jobs'), { recursive: true });
fs.mkdirSync(path.join(state, 'run'), { recursive: true });

// ---- the manager's memory ------------------------------------------------

const jobPath = (name) => path.join(state, 'jobs', `${name}.json`);
const runPath = (name) => path.join(state, 'run', `${name}.json`);

function readJson(file, fallback) {
  try {
    return JSON.parse(fs.readFileSync(file, 'utf8'));
  } catch {
    return fallback;
  }
}

function writeJson(file, value) {
  const temporary = `${file}.${process.pid}.tmp`;
  fs.writeFileSync(temporary, JSON.stringify(value));
  fs.renameSync(temporary, file);
}

const readJob = (name) => readJson(jobPath(name), null);
const readRun = (name) => readJson(runPath(name), null);

function alive(pid) {
  if (!Number.isInteger(pid) || pid <= 0) return false;
  try {
    process.kill(pid, 0);
    return true;
  } catch (error) {
    return error.code === 'EPERM';
  }
}

/** What runs for a job now: the supervisor and its child, when alive. */
function running(name) {
  const run = readRun(name);
  if (!run || !alive(run.supervisor)) return null;
  return { supervisor: run.supervisor, pid: alive(run.pid) ? run.pid : 0 };
}

async function startSupervisor(name) {
  fs.rmSync(runPath(name), { force: true });
  const child = spawn(process.execPath, [SELF, 'supervise', name], {
    detached: true,
    stdio: 'ignore',
    env: { FAKE_MANAGER_STATE: state },
  });
  child.unref();
  // Like systemd's Type=simple and launchd: the start is done once the
  // process exists, whether or not the program then lives.
  const deadline = Date.now() + 5000;
  while (Date.now() < deadline) {
    const run = readRun(name);
    if (run && run.supervisor === child.pid && run.started) return;
    await sleep(20);
  }
}

async function stopSupervisor(name) {
  const now = running(name);
  if (!now) return;
  try {
    process.kill(now.supervisor, 'SIGTERM');
  } catch {
    return;
  }
  const deadline = Date.now() + STOP_WAIT_MS + 2000;
  while (alive(now.supervisor) && Date.now() < deadline) await sleep(20);
}

// ---- the supervisor ------------------------------------------------------

async function supervise(name) {
  const job = readJob(name);
  let child = null;
  let stopping = false;
  const publish = () => writeJson(runPath(name), { supervisor: process.pid, pid: child?.pid ?? 0, started: true });

  const launch = () => {
    const { program, args, cwd, env, log } = job.definition;
    const out = log ? fs.openSync(log, 'a') : 'ignore';
    const current = spawn(program, args, { cwd, env, stdio: ['ignore', out, out] });
    child = current;
    if (typeof out === 'number') fs.closeSync(out);
    publish();
    let over = false;
    // A program that can't even start ends here too, and is tried again as
    // the real managers do.
    const ended = async () => {
      if (over) return;
      over = true;
      if (child === current) child = null;
      publish();
      if (stopping) return;
      if (!job.definition.restart) process.exit(0);
      await sleep(job.definition.restartSeconds * 1000);
      if (!stopping) launch();
    };
    current.on('error', (error) => {
      if (log) fs.appendFileSync(log, `fake manager: couldn't start ${program}: ${error.code}\n`);
      ended();
    });
    current.on('exit', ended);
  };

  process.on('SIGTERM', async () => {
    stopping = true;
    if (child) {
      const ending = child;
      ending.kill('SIGTERM');
      const deadline = Date.now() + STOP_WAIT_MS;
      while (child === ending && Date.now() < deadline) await sleep(20);
      if (child === ending) ending.kill('SIGKILL');
    }
    fs.rmSync(runPath(name), { force: true });
    process.exit(0);
  });
  launch();
  // Keeps the supervisor alive between restarts.
  setInterval(() => {}, 1 << 30);
}

// ---- reading job files the way the real managers do -----------------------

// One systemd word list: "quoted" words with C escapes, bare words; in a
// command line $$ is a dollar and %% a percent sign.
function systemdWords(text, { command }) {
  const words = [];
  let i = 0;
  while (i < text.length) {
    while (text[i] === ' ' || text[i] === '\t') i++;
    if (i >= text.length) break;
    let word = '';
    if (text[i] === '"') {
      i++;
      while (i < text.length && text[i] !== '"') {
        if (text[i] === '\\' && i + 1 < text.length) {
          word += text[i + 1];
          i += 2;
        } else {
          word += text[i++];
        }
      }
      if (text[i] !== '"') throw new Error(`unbalanced quotes in: ${text}`);
      i++;
    } else {
      while (i < text.length && text[i] !== ' ' && text[i] !== '\t') word += text[i++];
    }
    // A lone % would be a specifier the real manager expands into something
    // else: for the installer's own words that is a fault.
    word = word.replace(/%(.?)/g, (whole, next) => {
      if (next === '%') return '%';
      throw new Error(`a specifier (${whole}) where a plain % was meant, in: ${text}`);
    });
    if (command) word = word.replace(/\$\$/g, '$');
    words.push(word);
  }
  return words;
}

function parseUnit(text, file) {
  const definition = { program: null, args: [], cwd: '/', env: {}, log: null, restart: false, restartSeconds: 0.1 };
  let section = '';
  for (const raw of text.split('\n')) {
    const line = raw.trim();
    if (line === '' || line.startsWith('#') || line.startsWith(';')) continue;
    if (line.startsWith('[')) {
      section = line;
      continue;
    }
    if (section !== '[Service]') continue;
    const eq = line.indexOf('=');
    const key = line.slice(0, eq);
    const value = line.slice(eq + 1);
    if (key === 'ExecStart') {
      const [program, ...args] = systemdWords(value, { command: true });
      definition.program = program;
      definition.args = args;
    } else if (key === 'WorkingDirectory') {
      if (!value.startsWith('/')) throw new Error(`${file}: WorkingDirectory= path is not absolute: ${value}`);
      definition.cwd = value.replace(/%%/g, '%');
    } else if (key === 'Environment') {
      for (const assignment of systemdWords(value, { command: false })) {
        const at = assignment.indexOf('=');
        definition.env[assignment.slice(0, at)] = assignment.slice(at + 1);
      }
    } else if (key === 'StandardOutput' && value.startsWith('append:')) {
      definition.log = value.slice('append:'.length).replace(/%%/g, '%');
    } else if (key === 'Restart') {
      definition.restart = value === 'always';
    } else if (key === 'RestartSec') {
      definition.restartSeconds = Number(value);
    }
  }
  if (!definition.program || !definition.program.startsWith('/')) {
    throw new Error(`${file}: ExecStart= needs an absolute program`);
  }
  return definition;
}

const XML_ENTITIES = { lt: '<', gt: '>', quot: '"', apos: "'", amp: '&' };
const unescapeXml = (text) => text.replace(/&(lt|gt|quot|apos|amp);/g, (whole, name) => XML_ENTITIES[name]);

// The property list subset launch agents use: dict, array, string, integer, true, false.
function parsePlist(text) {
  const tokens = [...text.matchAll(/<(\/?)(dict|array|key|string|integer|true|false)(\/?)>([^<]*)/g)];
  let at = 0;
  const value = () => {
    const [, closing, tag, selfClosing, body] = tokens[at++];
    if (closing) throw new Error(`unexpected </${tag}>`);
    if (tag === 'true' || tag === 'false') {
      if (!selfClosing) at++;
      return tag === 'true';
    }
    if (tag === 'string' || tag === 'key') {
      at++;
      return unescapeXml(body);
    }
    if (tag === 'integer') {
      at++;
      return Number(body);
    }
    if (tag === 'array') {
      const list = [];
      while (!(tokens[at][1] && tokens[at][2] === 'array')) list.push(value());
      at++;
      return list;
    }
    const dict = {};
    while (!(tokens[at][1] && tokens[at][2] === 'dict')) {
      const key = value();
      dict[key] = value();
    }
    at++;
    return dict;
  };
  while (at < tokens.length && tokens[at][2] !== 'dict') at++;
  return value();
}

function plistDefinition(plist, file) {
  const args = plist.ProgramArguments;
  if (typeof plist.Label !== 'string' || !Array.isArray(args) || args.length === 0) {
    throw new Error(`${file}: a launch agent needs Label and ProgramArguments`);
  }
  return {
    program: args[0],
    args: args.slice(1),
    cwd: plist.WorkingDirectory ?? '/',
    env: plist.EnvironmentVariables ?? {},
    log: plist.StandardOutPath ?? null,
    restart: plist.KeepAlive === true,
    restartSeconds: plist.ThrottleInterval ?? 10,
    runAtLoad: plist.RunAtLoad === true,
  };
}

/** Takes one refusal from the count a test left in the state folder ("refusals"). */
function refusing() {
  const file = path.join(state, 'refusals');
  const left = Number(readJson(file, 0));
  if (!(left > 0)) return false;
  writeJson(file, left - 1);
  return true;
}

// ---- systemctl --user -------------------------------------------------------

// Only linked units: a test copy never writes into the user's own unit folder.
const readLinks = () => readJson(path.join(state, 'links.json'), {});
const unitFile = (name) => readLinks()[name]?.target ?? null;

function load(name) {
  const file = unitFile(name);
  if (!file || !fs.existsSync(file)) {
    const job = readJob(name);
    if (job && !running(name)) fs.rmSync(jobPath(name), { force: true });
    return;
  }
  const text = fs.readFileSync(file, 'utf8');
  writeJson(jobPath(name), { ...readJob(name), file, definition: parseUnit(text, file) });
}

async function systemctl(argv) {
  if (fs.existsSync(path.join(state, 'no-bus'))) {
    process.stderr.write('Failed to connect to bus: No medium found\n');
    return 1;
  }
  if (argv[0] !== '--user') {
    process.stderr.write('fake systemctl: only the user instance is here (--user)\n');
    return 1;
  }
  const flags = new Set(argv.filter((a) => a.startsWith('--')));
  const property = argv.indexOf('-p');
  const [verb, ...units] = argv.slice(1).filter((a, i) => !a.startsWith('-') && i !== property);
  const runtime = flags.has('--runtime');
  switch (verb) {
    case 'daemon-reload': {
      const names = new Set([
        ...fs.readdirSync(path.join(state, 'jobs')).map((f) => f.replace(/\.json$/, '')),
        ...Object.keys(readLinks()),
      ]);
      try {
        for (const name of names) load(name);
      } catch (error) {
        process.stderr.write(`${error.message}\n`);
      }
      return 0;
    }
    case 'link': {
      const target = units[0];
      if (!target || !path.isAbsolute(target) || !fs.existsSync(target)) {
        process.stderr.write(`Failed to link unit: No such file or directory\n`);
        return 1;
      }
      const name = path.basename(target);
      const links = readLinks();
      if (!runtime) {
        // A persistent link would land in the user's own unit folder.
        process.stderr.write('fake systemctl: a persistent link would write into the user\'s units; use --runtime\n');
        return 1;
      }
      links[name] = { target, runtime };
      writeJson(path.join(state, 'links.json'), links);
      process.stdout.write(`Created symlink ${path.join('/run/user/systemd/user', name)} → ${target}.\n`);
      load(name);
      return 0;
    }
    case 'disable': {
      const name = units[0];
      if (!unitFile(name)) {
        process.stderr.write(`Failed to disable unit: Unit file ${name} does not exist.\n`);
        return 1;
      }
      const links = readLinks();
      if (links[name] && links[name].runtime === runtime) {
        delete links[name];
        writeJson(path.join(state, 'links.json'), links);
        process.stdout.write(`Removed "${name}".\n`);
      }
      load(name);
      return 0;
    }
    case 'start':
    case 'restart': {
      const name = units[0];
      // The unit as the manager loaded it: a file changed since runs its old definition until daemon-reload.
      const job = readJob(name);
      if (!job) {
        process.stderr.write(`Failed to ${verb} ${name}: Unit ${name} not found.\n`);
        return 5;
      }
      if (refusing()) {
        process.stderr.write(
          `Job for ${name} failed because the control process exited with error code.\n` +
            `See "systemctl --user status ${name}" and "journalctl --user -xeu ${name}" for details.\n`,
        );
        return 1;
      }
      if (verb === 'restart') await stopSupervisor(name);
      if (!running(name)) await startSupervisor(name);
      return 0;
    }
    case 'stop': {
      const name = units[0];
      if (!readJob(name)) {
        process.stderr.write(`Failed to stop ${name}: Unit ${name} not loaded.\n`);
        return 5;
      }
      await stopSupervisor(name);
      return 0;
    }
    case 'show': {
      const name = units[0];
      const job = readJob(name);
      const now = running(name);
      const values = {
        LoadState: job ? 'loaded' : 'not-found',
        ActiveState: now ? (now.pid ? 'active' : 'activating') : 'inactive',
        MainPID: String(now?.pid ?? 0),
      };
      for (const key of argv[property + 1].split(',')) process.stdout.write(`${key}=${values[key] ?? ''}\n`);
      return 0;
    }
    default:
      process.stderr.write(`Unknown command verb ${verb}.\n`);
      return 1;
  }
}

// ---- launchctl ----------------------------------------------------------------

async function launchctl(argv) {
  const [verb, target, file] = argv;
  const uid = String(process.getuid());
  const parse = (address) => /^gui\/(\d+)\/(.+)$/.exec(address ?? '');
  const notFound = (label) => {
    process.stderr.write(`Could not find service "${label}" in domain for user gui: ${uid}\n`);
    return 113;
  };
  switch (verb) {
    case 'bootstrap': {
      let definition;
      let label;
      try {
        const plist = parsePlist(fs.readFileSync(file, 'utf8'));
        definition = plistDefinition(plist, file);
        label = plist.Label;
      } catch (error) {
        process.stderr.write(`Bootstrap failed: 5: Input/output error\n${error.message}\n`);
        return 5;
      }
      if (readJob(label) || refusing()) {
        process.stderr.write('Bootstrap failed: 5: Input/output error\n');
        return 5;
      }
      writeJson(jobPath(label), { file, definition });
      if (definition.runAtLoad) await startSupervisor(label);
      return 0;
    }
    case 'bootout': {
      const match = parse(target);
      if (!match || match[1] !== uid || !readJob(match[2])) {
        process.stderr.write('Boot-out failed: 3: No such process\n');
        return 3;
      }
      await stopSupervisor(match[2]);
      fs.rmSync(jobPath(match[2]), { force: true });
      return 0;
    }
    case 'print': {
      const match = parse(target);
      const job = match && match[1] === uid ? readJob(match[2]) : null;
      if (!job) return notFound(match ? match[2] : target);
      const now = running(match[2]);
      const lines = [`${target} = {`, `\tpath = ${job.file}`, `\tstate = ${now?.pid ? 'running' : 'waiting'}`];
      if (now?.pid) lines.push(`\tpid = ${now.pid}`);
      lines.push('}');
      process.stdout.write(`${lines.join('\n')}\n`);
      return 0;
    }
    case 'kickstart': {
      // Always with -k: the running job is ended and started again.
      const match = parse(file);
      if (!match || !readJob(match[2])) return notFound(match ? match[2] : file);
      await stopSupervisor(match[2]);
      await startSupervisor(match[2]);
      return 0;
    }
    default:
      process.stderr.write(`Unrecognized subcommand: ${verb}\n`);
      return 1;
  }
}

// ---- entry ---------------------------------------------------------------------

const [personality, ...rest] = process.argv.slice(2);
if (personality === 'supervise') {
  await supervise(rest[0]);
} else {
  // Every call is written down, for tests that look at what was asked.
  fs.appendFileSync(path.join(state, 'calls.log'), `${[personality, ...rest].join(' ')}\n`);
  process.exitCode = personality === 'launchctl' ? await launchctl(rest) : await systemctl(rest);
}
