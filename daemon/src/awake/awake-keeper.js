// The keeper of Stay awake: it reads the machine, asks the decision, has the
// power lock carry it out, keeps the chosen mode in `awake.json`, and puts
// the Awake record (and the battery) into the snapshot, so that the feed
// tells every client. It looks again whenever work starts or ends, a phone
// comes or goes, the next deadline arrives, or at least every half minute.

import fs from 'node:fs';
import path from 'node:path';

import {
  awakeFileText,
  awakeRecord,
  BACKPACK_MS,
  canExtend,
  decideAwake,
  DEFAULT_HOT_AT,
  freshPlan,
  readAwakeFile,
  runningThings,
} from './awake.js';
import { HttpError } from '../http-reply.js';
import { PowerLock } from './power-lock.js';
import { PowerSource } from './power-source.js';
import { writeFileAtomically } from '../private-files.js';
import { isObject, sameJson } from '../json.js';

export const AWAKE_FILE = 'awake.json';

/** The longest the keeper goes without looking again, in milliseconds. */
export const POLL_MS = 30_000;

/** How long a look for another program's lock is trusted, in milliseconds. */
export const OTHER_MAX_AGE_MS = 30_000;

/**
 * The service's time. Real time unless /qa moves it: by an offset, or to a
 * fixed moment that stands still until changed again.
 */
export class ServiceClock {
  offsetMs = 0;
  fixed = null;

  /** @return {number} Epoch milliseconds */
  now() {
    return this.fixed ?? Date.now() + this.offsetMs;
  }
}

/**
 * Where the power is read and which tools hold it, from the environment.
 * A test copy never runs a tool that changes the machine's power unless a
 * variable names it. Without any, it leaves the machine alone altogether
 * (nothing read, nothing held); with some, the parts not named are pretended.
 *
 * @param {Object} env
 * @param {Object} options
 * @param {string} [options.platform=process.platform]
 * @param {boolean} options.testCopy
 * @return {{source: Object, lock: Object}} Options for {@link PowerSource} and {@link PowerLock}
 */
export function awakeOptions(env, { platform = process.platform, testCopy }) {
  const given = (name) => (typeof env[name] === 'string' && env[name] !== '' ? env[name] : null);
  const holder = (name, real) => given(name) ?? (testCopy ? null : real);
  const named = ['TIDEWATCH_SYSTEMD_INHIBIT', 'TIDEWATCH_CAFFEINATE', 'TIDEWATCH_PMSET'].some((name) => given(name));
  if (testCopy && !named) return { source: {}, lock: { platform: 'none' } };
  if (platform === 'linux') {
    return {
      source: {
        platform,
        powerSupply: '/sys/class/power_supply',
        lidFolder: '/proc/acpi/button/lid',
        thermal: '/sys/class/thermal',
        seats: '/run/systemd/seats',
        busctl: 'busctl',
      },
      lock: { platform, tools: { systemdInhibit: holder('TIDEWATCH_SYSTEMD_INHIBIT', 'systemd-inhibit') } },
    };
  }
  if (platform === 'darwin') {
    const pmset = given('TIDEWATCH_PMSET');
    return {
      source: {
        platform,
        pmset: pmset ?? '/usr/bin/pmset',
        ioreg: '/usr/sbin/ioreg',
        sudoers: given('TIDEWATCH_SUDOERS') ?? '/private/etc/sudoers.d/tidewatch',
      },
      lock: {
        platform,
        tools: {
          caffeinate: holder('TIDEWATCH_CAFFEINATE', '/usr/bin/caffeinate'),
          pmset: holder('TIDEWATCH_PMSET', '/usr/bin/pmset'),
          // The sudoers rule allows the real pmset alone; a stand-in runs as it is.
          sudo: pmset === null ? '/usr/bin/sudo' : null,
        },
      },
    };
  }
  return { source: {}, lock: { platform: 'none' } };
}

function batteryRecord(battery) {
  if (!isObject(battery)) return null;
  const record = { percent: battery.percent, charging: battery.charging === true, onAC: battery.onAC === true };
  if (Number.isFinite(battery.minutesLeft)) record.minutesLeft = battery.minutesLeft;
  return record;
}

export class AwakeKeeper {
  #state;
  #file;
  #log;
  #clock;
  #source;
  #lock;
  #hotAt;
  #acts;
  #plan;
  #backpack;
  #extra;
  #savedText;
  #record;
  #battery;
  #overrides;
  #last;
  #other;
  #chain;
  #pending;
  #freshWanted = false;
  #timer;
  #closed;

  /**
   * @param {Object} parts
   * @param {ServiceState} parts.state
   * @param {string} parts.support The support folder, home of `awake.json`
   * @param {Log} parts.log
   * @param {ServiceClock} [parts.clock]
   * @param {Object} [parts.source] {@link PowerSource} options; none reads nothing
   * @param {Object} [parts.lock] {@link PowerLock} options; none holds nothing
   * @param {number} [parts.hotAt] °C at which the machine counts as hot
   */
  constructor({ state, support, log, clock = new ServiceClock(), source = {}, lock = {}, hotAt = DEFAULT_HOT_AT }) {
    this.#state = state;
    this.#file = path.join(support, AWAKE_FILE);
    this.#log = log;
    this.#clock = clock;
    this.#hotAt = hotAt;
    this.#source = new PowerSource(source);
    // Where nothing can hold the machine, work asks nothing of it either.
    this.#acts = ['linux', 'darwin'].includes(lock.platform ?? source.platform);

    let text = null;
    try {
      text = fs.readFileSync(this.#file, 'utf8');
    } catch {
      // a first start
    }
    const saved = readAwakeFile(text);
    this.#plan = saved.plan;
    this.#backpack = saved.backpack;
    this.#extra = saved.extra;
    this.#savedText = awakeFileText(this.#plan, this.#backpack, this.#extra);
    if (this.#plan.mode === 'backpack') log.info(`Resuming Backpack mode from ${AWAKE_FILE}.`);

    this.#lock = new PowerLock({
      platform: lock.platform ?? source.platform ?? 'none',
      ...lock,
      backpack: this.#backpack,
      save: (backpack) => {
        this.#backpack = backpack;
        this.#persist();
      },
      onLost: () => this.refresh(),
      log,
    });
    this.#record = null;
    this.#battery = null;
    this.#overrides = {};
    this.#last = { reading: null, running: [] };
    this.#other = null;
    this.#chain = Promise.resolve();
    this.#pending = null;
    this.#timer = null;
    this.#closed = false;
  }

  /** Decides for the first time, then follows the state's changes. */
  async start() {
    await this.refresh();
    this.#state.on('change', this.#onChange);
  }

  /**
   * What a fresh snapshot's machine parts are: the record and the battery
   * as last decided and read.
   *
   * @return {{awake: (Object|undefined), battery: (Object|null)}}
   */
  machine() {
    return { awake: this.#record ?? undefined, battery: this.#battery };
  }

  /**
   * Looks again. Requests that come while a look waits share it.
   *
   * @param {Object} [options]
   * @param {boolean} [options.fresh=false] Read every source anew
   * @return {Promise<void>}
   */
  refresh({ fresh = false } = {}) {
    if (fresh) this.#other = null;
    this.#freshWanted ||= fresh;
    this.#pending ??= this.#enqueue(() => {
      const wanted = this.#freshWanted;
      this.#pending = null;
      this.#freshWanted = false;
      return this.#run({ fresh: wanted });
    });
    return this.#pending;
  }

  /** @return {Promise<Object>} The Awake record, once every look asked for has been made. */
  current() {
    return this.#enqueue(() => this.#record);
  }

  /**
   * Changes the mode, the battery level or Backpack's end.
   *
   * @param {Object} change Checked already
   * @param {string} [change.mode]
   * @param {number} [change.minBattery]
   * @param {boolean} [change.extend]
   * @return {Promise<Object>} The Awake record after the change
   * @throws {HttpError} 409 "needs_setup" for Backpack where a closed lid
   *     can't be held; 409 "not_extendable" outside Backpack's last minutes
   */
  change({ mode, minBattery, extend }) {
    return this.#enqueue(async () => {
      const now = this.#clock.now();
      let plan = { ...this.#plan };
      if (mode !== undefined && mode !== plan.mode) {
        if (mode === 'backpack' && !this.#backpackReady()) throw this.#needsSetup();
        plan = freshPlan(mode, plan.minBattery);
        if (mode === 'backpack') plan.until = now + BACKPACK_MS;
      }
      if (minBattery !== undefined) plan.minBattery = minBattery;
      if (extend) {
        if (!canExtend(plan, now)) {
          throw new HttpError(409, 'not_extendable', 'Backpack can get more time only in its last ten minutes.');
        }
        // A fresh 8 hours from now; the warning for time is void with it.
        plan.until = now + BACKPACK_MS;
        if (plan.warning?.reason === 'time') plan.warning = null;
      }
      if (plan.mode !== this.#plan.mode) this.#log.info(`Stay awake: ${plan.mode}.`);
      this.#plan = plan;
      this.#persist();
      await this.#run({ fresh: false });
      return this.#record;
    });
  }

  /**
   * Sets what /qa stands in for: the clock, the battery, the lid, the heat,
   * the threshold and whether Backpack is ready. A value of null gives the
   * part back to the system; an absent key is left as it is.
   *
   * @param {Object} body Checked already
   * @return {Promise<Object>} {@link qaState} after a fresh look
   */
  async qaSet(body) {
    if (body.now !== undefined) this.#clock.fixed = body.now;
    if (body.offsetMs !== undefined) {
      this.#clock.offsetMs = body.offsetMs;
      this.#clock.fixed = null;
    }
    for (const key of ['battery', 'lidClosed', 'temperature', 'hotAt', 'backpackReady']) {
      if (body[key] === null) delete this.#overrides[key];
      else if (body[key] !== undefined) this.#overrides[key] = body[key];
    }
    await this.refresh({ fresh: true });
    return this.qaState();
  }

  /** @return {Object} What /qa shows: the clock, the stand-ins, the last reading, what runs, the lock. */
  qaState() {
    const { reading, running } = this.#last;
    return {
      now: this.#clock.now(),
      clock: { offsetMs: this.#clock.offsetMs, fixed: this.#clock.fixed },
      overrides: { ...this.#overrides },
      reading,
      running,
      awake: this.#record,
      lock: { ...this.#lock.tools, ...this.#lock.state, backpack: this.#lock.backpack, asked: this.#lock.asked },
    };
  }

  /** Stops looking and gives the machine's power back. */
  async close() {
    if (this.#closed) return;
    this.#closed = true;
    clearTimeout(this.#timer);
    this.#state.off('change', this.#onChange);
    await this.#chain;
    await this.#lock.close();
  }

  #onChange = (change) => {
    const work = change.snapshot.includes('sessions') || change.snapshot.includes('automations');
    if (change.whole || work || change.local.includes('devices')) this.refresh();
  };

  // Runs a task after those before it; a failing task fails only its caller.
  #enqueue(task) {
    const result = this.#chain.then(task);
    this.#chain = result.catch(() => {});
    return result;
  }

  #backpackReady() {
    return this.#overrides.backpackReady ?? this.#source.backpackReady();
  }

  #needsSetup() {
    const message =
      this.#source.platform === 'linux'
        ? 'Backpack mode needs logind to keep a closed lid awake, and it isn’t running here.'
        : 'Backpack mode needs its one-time setup: the rule that lets Tidewatch turn sleep off and back on.';
    return new HttpError(409, 'needs_setup', message);
  }

  async #run({ fresh }) {
    if (this.#closed) return;
    try {
      await this.#look({ fresh });
    } catch (error) {
      this.#log.error(`Stay awake couldn’t decide: ${error?.stack ?? error}`);
      this.#schedule(null, null, this.#clock.now());
    }
  }

  async #look({ fresh }) {
    const reading = await this.#source.read({ fresh });
    const o = this.#overrides;
    const battery = o.battery === undefined ? reading.battery : o.battery === false ? null : o.battery;
    const lidClosed = o.lidClosed ?? reading.lidClosed;
    const temperature = o.temperature ?? reading.temperature;
    const backpackReady = this.#backpackReady();
    const running = runningThings({
      sessions: this.#state.part('sessions'),
      automations: this.#state.part('automations'),
      devices: this.#state.devices(),
    });
    this.#last = { reading: { battery, lidClosed, temperature, laptop: battery !== null, backpackReady }, running };

    const now = this.#clock.now();
    const decision = decideAwake(this.#plan, {
      now,
      busy: this.#acts && running.length > 0,
      battery,
      temperature,
      hotAt: o.hotAt ?? this.#hotAt,
      backpackReady,
    });
    if (decision.ended) this.#log.info('Backpack’s 8 hours are up; Stay awake is back to While working.');
    const before = this.#plan;
    this.#plan = decision.plan;
    if (before.released !== decision.plan.released || before.warning?.reason !== decision.plan.warning?.reason) {
      this.#other = null;
      const why = decision.plan.released ?? decision.plan.warning?.reason;
      if (why) this.#log.info(`Stay awake: ${decision.plan.released ? 'let go' : 'warning'} (${why}).`);
    }
    this.#persist();

    const lock = await this.#lock.apply({ hold: decision.hold, lid: decision.lid, now });
    const other = await this.#findOther(decision.plan.mode);
    const record = awakeRecord({ decision, lock, backpackReady, lidClosed, laptop: battery !== null, other });
    this.#publish(record, batteryRecord(battery));
    this.#schedule(decision.nextAt, lock.retryAt, now);
  }

  // Only Backpack speaks of other programs, and a look costs a process, so
  // it is made there alone and trusted for a while.
  async #findOther(mode) {
    if (mode !== 'backpack') {
      this.#other = null;
      return null;
    }
    if (this.#other === null || Date.now() - this.#other.at > OTHER_MAX_AGE_MS) {
      const found = await this.#lock.findOther().catch(() => null);
      this.#other = { at: Date.now(), found };
    }
    return this.#other.found;
  }

  // The keeper writes what it decided only when its own view changes, so
  // that a record planted through /qa stays until then.
  #publish(record, battery) {
    const patch = {};
    if (!sameJson(record, this.#record)) patch.awake = record;
    if (!sameJson(battery, this.#battery)) patch.battery = battery;
    this.#record = record;
    this.#battery = battery;
    if (Object.keys(patch).length === 0) return;
    const mac = this.#state.part('mac');
    this.#state.setSnapshotParts({ mac: { ...(isObject(mac) ? mac : {}), ...patch } });
  }

  #persist() {
    const text = awakeFileText(this.#plan, this.#backpack, this.#extra);
    if (text === this.#savedText) return;
    try {
      writeFileAtomically(this.#file, text);
      this.#savedText = text;
    } catch (error) {
      this.#log.error(`Couldn’t save ${AWAKE_FILE}: ${error.message}`);
    }
  }

  // The next look: at the next deadline in service time, at a retry, or
  // after POLL_MS at the latest. A clock that stands still is moved by /qa,
  // which looks again by itself.
  #schedule(nextAt, retryAt, now) {
    clearTimeout(this.#timer);
    if (this.#closed) return;
    const waits = [nextAt, retryAt].filter((moment) => moment !== null).map((moment) => Math.max(0, moment - now) + 5);
    this.#timer = setTimeout(() => this.refresh(), Math.min(POLL_MS, ...waits));
    this.#timer.unref();
  }
}
