// The machine's power as the system tells it: the battery, whether it runs
// on mains power, the lid, the heat, and whether a closed lid can be held
// awake at all. Every reading is best effort: a file or tool that isn't
// there reads as "not known", never as a failure.

import { execFile } from 'node:child_process';
import fs from 'node:fs';
import path from 'node:path';

/** A tool asked for a reading gets this long, in milliseconds. */
export const READ_TOOL_TIMEOUT_MS = 5000;

/** Readings that cost a process are reused for this long, in milliseconds. */
export const TOOL_READING_MAX_AGE_MS = 20_000;

/** Thermal readings outside this range (°C) are sensors that don't mean it. */
const PLAUSIBLE_CELSIUS = [1, 150];

/**
 * @typedef {Object} PowerReading
 * @property {{percent: number, charging: boolean, onAC: boolean, minutesLeft: (number|undefined)}|null} battery
 *     The Battery record, null without a battery
 * @property {boolean} laptop A battery exists
 * @property {boolean|null} lidClosed Null when no lid is known
 * @property {number|null} temperature The hottest reading, in °C
 */

/**
 * Runs a tool to read something; the answer is its standard output, or null
 * when it is missing, fails or takes too long.
 *
 * @param {string} file
 * @param {Array<string>} args
 * @param {Object} [env=process.env]
 * @return {Promise<string|null>}
 */
export function readTool(file, args, env = process.env) {
  return new Promise((resolve) => {
    execFile(file, args, { timeout: READ_TOOL_TIMEOUT_MS, maxBuffer: 1024 * 1024, env }, (error, stdout) =>
      resolve(error ? null : String(stdout)),
    );
  });
}

function readText(file) {
  try {
    return fs.readFileSync(file, 'utf8').trim();
  } catch {
    return null;
  }
}

function list(folder) {
  try {
    return fs.readdirSync(folder).sort();
  } catch {
    return [];
  }
}

const number = (text) => (text === null || text === '' ? null : Number.isFinite(Number(text)) ? Number(text) : null);

/**
 * The battery from the power-supply class folder (Linux): every supply of
 * type Battery that powers the system (a mouse's battery has scope Device),
 * and whether a mains or USB supply is online.
 *
 * @param {string} root Such as "/sys/class/power_supply"
 * @return {PowerReading['battery']}
 */
export function readLinuxBattery(root) {
  const batteries = [];
  let mains = null;
  for (const name of list(root)) {
    const folder = path.join(root, name);
    const field = (key) => readText(path.join(folder, key));
    const type = field('type');
    if (type === 'Battery') {
      if (field('scope') === 'Device') continue;
      const capacity = number(field('capacity'));
      if (capacity === null) continue;
      batteries.push({
        capacity,
        status: field('status') ?? 'Unknown',
        energy: number(field('energy_now')) ?? number(field('charge_now')),
        full: number(field('energy_full')) ?? number(field('charge_full')),
        rate: number(field('power_now')) ?? number(field('current_now')),
      });
    } else if (type === 'Mains' || type === 'USB') {
      const online = number(field('online'));
      if (online !== null) mains = (mains ?? false) || online === 1;
    }
  }
  if (batteries.length === 0) return null;

  const weighed = batteries.every((battery) => battery.full > 0);
  const percent = weighed
    ? (100 * batteries.reduce((sum, b) => sum + (b.energy ?? (b.full * b.capacity) / 100), 0)) /
      batteries.reduce((sum, b) => sum + b.full, 0)
    : batteries.reduce((sum, b) => sum + b.capacity, 0) / batteries.length;
  const discharging = batteries.some((battery) => battery.status === 'Discharging');
  const reading = {
    percent: Math.min(100, Math.max(0, Math.round(percent))),
    charging: batteries.some((battery) => battery.status === 'Charging'),
    // Without a mains supply to ask, a battery that isn't discharging is on power.
    onAC: mains ?? !discharging,
  };
  const energy = batteries.reduce((sum, b) => sum + (b.energy ?? 0), 0);
  const rate = batteries.reduce((sum, b) => sum + (b.rate ?? 0), 0);
  if (discharging && !reading.onAC && energy > 0 && rate > 0) reading.minutesLeft = Math.round((60 * energy) / rate);
  return reading;
}

/**
 * The lid from the ACPI button folder (Linux): "closed" in any lid's state.
 *
 * @param {string} root Such as "/proc/acpi/button/lid"
 * @return {boolean|null}
 */
export function readLinuxLid(root) {
  let known = null;
  for (const name of list(root)) {
    const state = readText(path.join(root, name, 'state'));
    const match = state === null ? null : /state:\s*(open|closed)/.exec(state);
    if (match) known = (known ?? false) || match[1] === 'closed';
  }
  return known;
}

/**
 * The hottest plausible thermal zone (Linux), in whole degrees Celsius.
 *
 * @param {string} root Such as "/sys/class/thermal"
 * @return {number|null}
 */
export function readLinuxTemperature(root) {
  let hottest = null;
  for (const name of list(root)) {
    if (!name.startsWith('thermal_zone')) continue;
    const milli = number(readText(path.join(root, name, 'temp')));
    if (milli === null) continue;
    const celsius = milli / 1000;
    if (celsius < PLAUSIBLE_CELSIUS[0] || celsius > PLAUSIBLE_CELSIUS[1]) continue;
    hottest = Math.max(hottest ?? -Infinity, Math.round(celsius));
  }
  return hottest;
}

/**
 * The battery from `pmset -g batt` (macOS). A machine without an internal
 * battery lists none.
 *
 * @param {string|null} text
 * @return {PowerReading['battery']}
 */
export function parsePmsetBatt(text) {
  if (typeof text !== 'string') return null;
  const line = text.split('\n').find((candidate) => /InternalBattery/.test(candidate) && /\d+%/.test(candidate));
  if (!line) return null;
  const percent = Number(/(\d+)%/.exec(line)[1]);
  const state = (/\d+%;\s*([^;]+);/.exec(line)?.[1] ?? '').trim().toLowerCase();
  const reading = {
    percent: Math.min(100, percent),
    charging: state === 'charging' || state === 'finishing charge',
    onAC: /'AC Power'/.test(text),
  };
  const left = /(\d+):(\d\d) remaining/.exec(line);
  if (left && !reading.onAC) reading.minutesLeft = Number(left[1]) * 60 + Number(left[2]);
  return reading;
}

/**
 * The lid from `ioreg -r -k AppleClamshellState -d 1` (macOS).
 *
 * @param {string|null} text
 * @return {boolean|null}
 */
export function parseClamshell(text) {
  const match = typeof text === 'string' ? /"AppleClamshellState"\s*=\s*(Yes|No)/.exec(text) : null;
  return match ? match[1] === 'Yes' : null;
}

/** The lid from `busctl get-property … LidClosed`: "b true". */
export function parseBusctlBoolean(text) {
  const match = typeof text === 'string' ? /^b (true|false)\s*$/.exec(text.trim()) : null;
  return match ? match[1] === 'true' : null;
}

/**
 * Reads the machine's power. Folders and tools are options so that tests
 * can point them at a scratch tree; a null tool is never run.
 */
export class PowerSource {
  #options;
  #cache;

  /**
   * @param {Object} [options] With none, nothing is read: no battery, no
   *     lid, no heat, and no closed-lid hold
   * @param {string} [options.platform] "linux" or "darwin"; anything else reads nothing
   * @param {string} [options.powerSupply] Linux: the power-supply class folder
   * @param {string} [options.lidFolder] Linux: the ACPI lid folder
   * @param {string} [options.thermal] Linux: the thermal class folder
   * @param {string} [options.seats] Linux: logind's seats folder, whose
   *     presence means that a closed lid can be held without root
   * @param {string|null} [options.busctl] Linux: asked for the lid where
   *     there is no ACPI lid folder
   * @param {string|null} [options.pmset] macOS: read with -g batt
   * @param {string|null} [options.ioreg] macOS: read for the lid
   * @param {string} [options.sudoers] macOS: the rule whose presence makes
   *     Backpack ready
   * @param {Object} [options.env=process.env] The tools' environment
   */
  constructor(options = {}) {
    this.#options = options;
    this.#cache = new Map();
  }

  /** @return {string} The platform it reads as. */
  get platform() {
    return this.#options.platform ?? 'none';
  }

  /**
   * @param {Object} [options]
   * @param {boolean} [options.fresh=false] Ask the tools again, whatever their age
   * @return {Promise<PowerReading>}
   */
  async read({ fresh = false } = {}) {
    const o = this.#options;
    if (o.platform === 'linux') {
      const battery = o.powerSupply ? readLinuxBattery(o.powerSupply) : null;
      let lidClosed = o.lidFolder ? readLinuxLid(o.lidFolder) : null;
      if (lidClosed === null && battery !== null && o.busctl && this.backpackReady()) {
        const args = ['get-property', 'org.freedesktop.login1', '/org/freedesktop/login1'];
        const answer = await this.#tool('lid', fresh, () =>
          readTool(o.busctl, [...args, 'org.freedesktop.login1.Manager', 'LidClosed'], o.env),
        );
        lidClosed = parseBusctlBoolean(answer);
      }
      const temperature = o.thermal ? readLinuxTemperature(o.thermal) : null;
      return { battery, laptop: battery !== null, lidClosed, temperature };
    }
    if (o.platform === 'darwin') {
      const batt = o.pmset ? await this.#tool('batt', fresh, () => readTool(o.pmset, ['-g', 'batt'], o.env)) : null;
      const clamshell = o.ioreg
        ? await this.#tool('lid', fresh, () => readTool(o.ioreg, ['-r', '-k', 'AppleClamshellState', '-d', '1'], o.env))
        : null;
      const battery = parsePmsetBatt(batt);
      const lidClosed = parseClamshell(clamshell);
      return { battery, laptop: battery !== null, lidClosed, temperature: null };
    }
    return { battery: null, laptop: false, lidClosed: null, temperature: null };
  }

  /**
   * Whether a closed lid can be held now: on Linux where logind runs (its
   * lid-switch lock needs no root), on macOS where the sudoers rule is.
   * Asked again at every use, since the rule can come and go.
   */
  backpackReady() {
    const o = this.#options;
    const exists = (file) => typeof file === 'string' && fs.existsSync(file);
    if (o.platform === 'linux') return exists(o.seats);
    if (o.platform === 'darwin') return exists(o.sudoers);
    return false;
  }

  async #tool(key, fresh, run) {
    const cached = this.#cache.get(key);
    if (!fresh && cached && Date.now() - cached.at < TOOL_READING_MAX_AGE_MS) return cached.text;
    const text = await run();
    this.#cache.set(key, { at: Date.now(), text });
    return text;
  }
}
