// Shared by the Stay awake suites: a service whose power is read from a
// scratch tree and held by the stand-in tools in test/fakes, which record
// what they were asked in a scratch folder of their own.

import assert from 'node:assert/strict';
import fs from 'node:fs';
import path from 'node:path';
import { fileURLToPath } from 'node:url';

import { ServiceClock } from '../src/awake/awake-keeper.js';
import { eventually, scratchFolder, startScratchService } from './helpers.js';

export const FAKES = path.join(path.dirname(fileURLToPath(import.meta.url)), 'fakes');

/** A fixed moment to start the service's clock from: 2027-01-15 09:00 UTC. */
export const T0 = Date.UTC(2027, 0, 15, 9, 0, 0);

export const MINUTE = 60_000;
export const HOUR = 60 * MINUTE;

/** The stand-in tools' folder and what can be read from it or planted in it. */
export function fakeTools(folder) {
  fs.mkdirSync(folder, { recursive: true });
  const file = (name) => path.join(folder, name);
  const read = (name) => {
    try {
      return fs.readFileSync(file(name), 'utf8');
    } catch {
      return '';
    }
  };
  const lines = (name) => read(name).split('\n').filter((line) => line !== '');
  return {
    folder,
    env: { ...process.env, TIDEWATCH_FAKE_TOOLS: folder },
    /** Every call so far, "<tool> <arguments>". */
    calls: () => lines('calls'),
    /** The rows of the inhibitors the stand-in holds now. */
    held: () => (fs.existsSync(file('held')) ? fs.readdirSync(file('held')).map((name) => read(`held/${name}`).trim()) : []),
    /** The pids of every process the holding stand-ins kept running. */
    pids: () => lines('pids').map((line) => Number(line.split(' ')[0])),
    plant: (name, text) => fs.writeFileSync(file(name), text),
    remove: (name) => fs.rmSync(file(name), { force: true }),
    read,
  };
}

/** Writes each file of a folder tree, a line each; gives the root, made even when there are none. */
export function tree(root, files) {
  fs.mkdirSync(root, { recursive: true });
  for (const [name, text] of Object.entries(files)) {
    const file = path.join(root, name);
    fs.mkdirSync(path.dirname(file), { recursive: true });
    fs.writeFileSync(file, `${text}\n`);
  }
  return root;
}

/** The Stay awake state the service saved. */
export const savedState = (support) => JSON.parse(fs.readFileSync(path.join(support, 'awake.json'), 'utf8'));

/** Whether a process runs (a zombie doesn't). */
export function running(pid) {
  try {
    const stat = fs.readFileSync(`/proc/${pid}/stat`, 'utf8');
    return stat.slice(stat.lastIndexOf(')') + 2)[0] !== 'Z';
  } catch {
    return false;
  }
}

/** Waits until none of the stand-ins' processes runs. */
export async function allGone(tools) {
  await eventually(() => tools.pids().length > 0 && tools.pids().every((pid) => !running(pid)), 'every holder gone');
}

/** A table row of systemd-inhibit --list, as the stand-in prints them. */
export function inhibitorRow({ who, pid, what, why = 'Because', mode = 'block' }) {
  const pad = (text, width) => String(text).padEnd(width);
  return `${pad(who, 24)} ${pad(1000, 5)} ${pad('ada', 10)} ${pad(pid, 7)} ${pad(who.toLowerCase(), 16)} ${pad(what, 36)} ${pad(why, 56)} ${mode}\n`;
}

/**
 * A scratch service whose Stay awake reaches the stand-ins, its clock standing at T0 until a test moves it;
 * `ready` is logind's seats folder on Linux, the sudoers rule on macOS.
 */
export async function startAwakeService(t, { platform = 'linux', folder, ready = true, tools: toolPaths = {} } = {}) {
  folder ??= await scratchFolder(t);
  const tools = fakeTools(path.join(folder, 'fakes'));
  const sys = {
    powerSupply: path.join(folder, 'sys', 'power_supply'),
    lidFolder: path.join(folder, 'proc', 'lid'),
    thermal: path.join(folder, 'sys', 'thermal'),
    seats: path.join(folder, 'run', 'seats'),
  };
  for (const dir of [sys.powerSupply, sys.lidFolder, sys.thermal]) fs.mkdirSync(dir, { recursive: true });
  const sudoers = path.join(tools.folder, 'sudoers');
  if (ready && platform === 'linux') fs.mkdirSync(sys.seats, { recursive: true });
  if (ready && platform === 'darwin') fs.writeFileSync(sudoers, 'ada ALL=(root) NOPASSWD: /usr/bin/pmset -a disablesleep 0\n');

  const fake = (name) => path.join(FAKES, name);
  const awake =
    platform === 'linux'
      ? {
          source: { platform, ...sys, busctl: null },
          lock: { platform, tools: { systemdInhibit: fake('systemd-inhibit'), ...toolPaths }, env: tools.env },
        }
      : {
          source: { platform, pmset: fake('pmset'), ioreg: null, sudoers, env: tools.env },
          lock: {
            platform,
            tools: { caffeinate: fake('caffeinate'), pmset: fake('pmset'), sudo: fake('sudo'), ...toolPaths },
            env: tools.env,
          },
        };
  const clock = new ServiceClock();
  clock.fixed = T0;
  const started = await startScratchService(t, { folder, awake: { ...awake, clock } });
  const json = (reply) => (reply.status === 200 ? reply.json : assert.fail(`${reply.status}: ${reply.text}`));
  return {
    ...started,
    tools,
    sys,
    sudoers,
    clock,
    awake: async () => (await json(await started.local('GET', '/v1/mac/awake'))).awake,
    change: (body) => started.local('POST', '/v1/mac/awake', { body }),
    power: async (body) => json(await started.local('POST', '/qa/power', { body })),
  };
}
