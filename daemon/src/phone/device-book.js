// The paired devices and their tokens. A token is handed out once, at
// registration, and only its SHA-256 is kept, in a private file of the
// support folder replaced in one step at every change, so that a revoked
// token stays revoked across a restart. Every device is also in the
// state's `devices` part, which the Mac's feed and reads show.

import { createHash, randomBytes, timingSafeEqual } from 'node:crypto';
import { EventEmitter } from 'node:events';
import fs from 'node:fs';
import path from 'node:path';

import { isObject } from '../json.js';
import { writeFileAtomically } from '../private-files.js';

export const DEVICES_FILE = 'devices.json';

/** The layout of the file; another one is not read. */
export const DEVICES_FORMAT = 1;

/** Random bytes in a device token; it is sent as base64url. */
export const DEVICE_TOKEN_BYTES = 32;

/** Devices paired at once; a registration past it is refused. */
export const MAX_DEVICES = 50;

/** `lastSeenAt` is moved (and written) at most this often per device, in milliseconds. */
export const SEEN_EVERY_MS = 60 * 1000;

/** A larger file is not read: it can't be one this service wrote. */
export const MAX_DEVICES_FILE_BYTES = 1024 * 1024;

const hashOf = (token) => createHash('sha256').update(token, 'utf8').digest();

/** Emits `revoked` with a device id when a device is forgotten. */
export class DeviceBook extends EventEmitter {
  #file;
  #state;
  #log;
  #now;
  // id → {device, hash (Buffer)}
  #entries = new Map();

  /**
   * @param {Object} options
   * @param {string} options.support The support folder
   * @param {ServiceState} options.state
   * @param {Log} [options.log]
   * @param {{now: function(): number}} options.clock
   */
  constructor({ support, state, log = null, clock }) {
    super();
    this.#file = path.join(support, DEVICES_FILE);
    this.#state = state;
    this.#log = log;
    this.#now = () => clock.now();
  }

  /**
   * Reads the file into the book and the state. A file that can't be read
   * is set aside (".broken"), and its phones have to pair again.
   */
  load() {
    let saved;
    try {
      if (fs.statSync(this.#file).size > MAX_DEVICES_FILE_BYTES) throw new Error('it is too large');
      saved = JSON.parse(fs.readFileSync(this.#file, 'utf8'));
      if (!isObject(saved) || saved.format !== DEVICES_FORMAT || !Array.isArray(saved.devices)) {
        throw new Error('it isn’t of a layout this service reads');
      }
    } catch (error) {
      if (error.code === 'ENOENT') return;
      this.#setAside(error.message);
      return;
    }
    for (const { tokenSha256, ...device } of saved.devices.filter(isObject)) {
      if (typeof device.id !== 'string' || typeof tokenSha256 !== 'string' || !/^[0-9a-f]{64}$/.test(tokenSha256)) continue;
      this.#entries.set(device.id, { device, hash: Buffer.from(tokenSha256, 'hex') });
      this.#state.upsertDevice(device);
    }
  }

  /** @return {number} The devices paired now. */
  get count() {
    return this.#entries.size;
  }

  /** @return {boolean} Whether this id is a paired device. */
  has(id) {
    return this.#entries.has(id);
  }

  /**
   * Pairs a new device.
   *
   * @param {{name: string, client: string, model: (string|undefined), appVersion: (string|undefined)}} about
   * @return {{device: Object, token: string}|null} null when {@link MAX_DEVICES} are paired
   */
  register({ name, client, model, appVersion }) {
    if (this.#entries.size >= MAX_DEVICES) return null;
    const now = this.#now();
    const device = { id: `dev_${randomBytes(8).toString('hex')}`, name, client, createdAt: now, lastSeenAt: now };
    if (model !== undefined) device.model = model;
    if (appVersion !== undefined) device.appVersion = appVersion;
    const token = randomBytes(DEVICE_TOKEN_BYTES).toString('base64url');
    this.#entries.set(device.id, { device, hash: hashOf(token) });
    try {
      this.#save();
    } catch (error) {
      this.#entries.delete(device.id);
      throw error;
    }
    this.#state.upsertDevice(device);
    this.#log?.info(`Paired a new ${client}, “${name}” (${device.id}).`);
    return { device: { ...device }, token };
  }

  /**
   * Finds the device a token belongs to. Every stored hash is compared in
   * the same time, so that the answer's timing tells nothing of the token.
   *
   * @param {string|null} token
   * @return {Object|null} The device
   */
  verify(token) {
    if (typeof token !== 'string' || token === '') return null;
    const hash = hashOf(token);
    let found = null;
    for (const entry of this.#entries.values()) if (timingSafeEqual(entry.hash, hash)) found = entry;
    if (found === null) return null;
    this.#seen(found);
    return { ...found.device };
  }

  /**
   * Forgets a device: its token stops working at once, and `revoked` tells
   * the feed to close its connections.
   *
   * @return {boolean} Whether a device had this id
   */
  revoke(id) {
    if (!this.#entries.delete(id)) return false;
    this.#save();
    this.#state.removeDevice(id);
    this.#log?.info(`Forgot the device ${id}; its token no longer works.`);
    this.emit('revoked', id);
    return true;
  }

  /** Forgets every device, as {@link revoke} forgets one. */
  forgetAll() {
    for (const id of [...this.#entries.keys()]) this.revoke(id);
  }

  #seen(entry) {
    const now = this.#now();
    if (now - (entry.device.lastSeenAt ?? 0) < SEEN_EVERY_MS) return;
    entry.device = { ...entry.device, lastSeenAt: now };
    this.#save();
    this.#state.upsertDevice(entry.device);
  }

  #save() {
    const devices = [...this.#entries.values()].map(({ device, hash }) => ({ ...device, tokenSha256: hash.toString('hex') }));
    // A failure must stop the change: a revoked token left on disk would work again after a restart.
    writeFileAtomically(this.#file, JSON.stringify({ format: DEVICES_FORMAT, devices }));
  }

  #setAside(why) {
    const aside = `${this.#file}.broken`;
    try {
      fs.renameSync(this.#file, aside);
    } catch {
      // It stays, and is replaced at the next write.
    }
    this.#log?.warn(`Started without the paired devices: ${DEVICES_FILE} couldn’t be read (${why}); it is now ${path.basename(aside)}.`);
  }
}
