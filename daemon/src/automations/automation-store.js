// The book of automations: the records in one file of the support folder,
// their secrets (webhook addresses, bot tokens, the hashes of webhook
// tokens) in a private file of their own, each replaced in one step on every
// change. A record never holds a secret: an address shows as its host and
// last four characters, a token only as its last four.

import { createHash, randomBytes, timingSafeEqual } from 'node:crypto';
import fs from 'node:fs';
import path from 'node:path';

import { notFound } from '../http-reply.js';
import { isObject } from '../json.js';
import { writeFileAtomically } from '../private-files.js';
import { LIMITS, refusal } from './validate.js';

/** The records' file in the support folder. */
export const AUTOMATIONS_FILE = 'automations.json';
/** The secrets' file beside it, 0600 like every file the service writes. */
export const SECRETS_FILE = 'automation-secrets.json';
/** The layout of both files; another one is not read. */
export const BOOK_FORMAT = 1;
/** A larger file is not read: it can't be one this service wrote. */
export const MAX_BOOK_FILE_BYTES = 4 * 1024 * 1024;
/** Random bytes of a webhook token. */
export const TOKEN_BYTES = 32;

const newId = () => `au_${randomBytes(4).toString('hex')}`;
const hash = (token) => createHash('sha256').update(token, 'utf8').digest();

/**
 * A ready command line that fires the automation, reading the token from
 * the variable TIDEWATCH_TOKEN and the payload from its input.
 *
 * @param {string} url The fire address
 * @return {string}
 */
export function fireCommand(url) {
  return `curl -fsS -X POST -H "Authorization: Bearer $TIDEWATCH_TOKEN" --data-binary @- '${url}'`;
}

/** Keeps the automations and their secrets. */
export class AutomationStore {
  #folder;
  #log;
  #clock;
  #fireUrl;
  #automations = [];
  #paused = false;
  #secrets = { outputs: {}, tokens: {} };
  #listeners = new Set();

  /**
   * @param {Object} options
   * @param {string} options.support The support folder
   * @param {{now: function(): number}} options.clock
   * @param {function(string): string} options.fireUrl The local address that fires an automation, by id
   * @param {Log} [options.log]
   */
  constructor({ support, clock, fireUrl, log = null }) {
    this.#folder = support;
    this.#clock = clock;
    this.#fireUrl = fireUrl;
    this.#log = log;
    this.#load();
  }

  /** @return {boolean} Whether nothing starts by itself. */
  get paused() {
    return this.#paused;
  }

  /** @param {boolean} on */
  setPaused(on) {
    if (this.#paused === on) return;
    this.#paused = on;
    this.#save(false);
    this.#tell({ kind: 'paused' });
  }

  /** @return {Array<Object>} Every automation, oldest first, as the routes show it. */
  list() {
    return this.#automations.map((automation) => this.#shown(automation));
  }

  /**
   * @param {string} id
   * @return {Object|null}
   */
  get(id) {
    const found = this.#find(id);
    return found ? this.#shown(found) : null;
  }

  /**
   * Adds an automation judged by validateInput; a webhook trigger gets its token.
   *
   * @param {{automation: Object, secrets: Object}} input
   * @return {{automation: Object, token?: string}} The token is given this once
   * @throws {HttpError} 409 too_many at the most there can be
   */
  create({ automation, secrets }) {
    if (this.#automations.length >= LIMITS.automations) throw refusal('too_many', undefined, 409);
    let id = newId();
    while (this.#find(id)) id = newId();
    const record = { id, ...automation };
    this.#automations.push(record);
    this.#secrets.outputs[id] = this.#outputSecrets(record, {}, secrets);
    const token = record.trigger.kind === 'webhook' ? this.#mint(record) : undefined;
    this.#save(true);
    this.#tell({ kind: 'created', id });
    return token === undefined ? { automation: this.#shown(record) } : { automation: this.#shown(record), token };
  }

  /**
   * Replaces an automation with one judged by validateInput (with this one
   * as `existing`). Webhook addresses not typed again stay; a trigger that
   * becomes a webhook gets a token, one that stops being one loses it.
   *
   * @param {string} id
   * @param {{automation: Object, secrets: Object}} input
   * @return {{automation: Object, token?: string}}
   */
  update(id, { automation, secrets }) {
    const index = this.#indexOf(id);
    const before = this.#automations[index];
    const record = { id, ...automation };
    let token;
    if (record.trigger.kind === 'webhook') {
      if (before.trigger.kind === 'webhook' && this.#secrets.tokens[id]) {
        record.trigger = { kind: 'webhook', last4: before.trigger.last4, createdAt: before.trigger.createdAt };
      } else {
        token = this.#mint(record);
      }
    } else {
      delete this.#secrets.tokens[id];
    }
    this.#automations[index] = record;
    this.#secrets.outputs[id] = this.#outputSecrets(record, this.#secrets.outputs[id] ?? {}, secrets);
    this.#save(true);
    this.#tell({ kind: 'updated', id });
    return token === undefined ? { automation: this.#shown(record) } : { automation: this.#shown(record), token };
  }

  /** @param {string} id */
  remove(id) {
    this.#automations.splice(this.#indexOf(id), 1);
    delete this.#secrets.outputs[id];
    delete this.#secrets.tokens[id];
    this.#save(true);
    this.#tell({ kind: 'removed', id });
  }

  /**
   * @param {string} id
   * @param {boolean} on
   * @return {Object} The automation
   */
  setEnabled(id, on) {
    const record = this.#automations[this.#indexOf(id)];
    if (record.enabled !== on) {
      record.enabled = on;
      this.#save(false);
      this.#tell({ kind: 'updated', id });
    }
    return this.#shown(record);
  }

  /**
   * @param {string} automationId
   * @param {string} outputId
   * @return {Object|null} {url}, or {botToken, chatId} for Telegram
   */
  secretOf(automationId, outputId) {
    const secret = this.#secrets.outputs[automationId]?.[outputId];
    return secret ? { ...secret } : null;
  }

  /**
   * Makes a new token for a webhook trigger; the old one stops working.
   *
   * @param {string} id
   * @return {{automation: Object, token: string}}
   * @throws {HttpError} 404, or 409 bad_trigger when its trigger is another
   */
  newToken(id) {
    const record = this.#automations[this.#indexOf(id)];
    if (record.trigger.kind !== 'webhook') throw refusal('bad_trigger', 'trigger', 409);
    const token = this.#mint(record);
    this.#save(true);
    this.#tell({ kind: 'updated', id });
    return { automation: this.#shown(record), token };
  }

  /**
   * @param {string} id
   * @param {string} token
   * @return {boolean} Whether it is this automation's token, compared in constant time
   */
  checkToken(id, token) {
    const kept = this.#secrets.tokens[id];
    const given = hash(typeof token === 'string' ? token : '');
    // Compared even when there is none, so that the time tells nothing.
    const same = timingSafeEqual(given, kept ? Buffer.from(kept, 'hex') : hash(randomBytes(TOKEN_BYTES).toString('hex')));
    return Boolean(kept) && same;
  }

  /**
   * @param {function({kind: string, id?: string}): void} listener Told after every change
   * @return {function(): void} Stops telling it
   */
  onChange(listener) {
    this.#listeners.add(listener);
    return () => this.#listeners.delete(listener);
  }

  #tell(change) {
    for (const listener of this.#listeners) {
      try {
        listener(change);
      } catch (error) {
        this.#log?.error(`An automation listener failed: ${error?.stack ?? error}`);
      }
    }
  }

  #find(id) {
    return this.#automations.find((each) => each.id === id) ?? null;
  }

  #indexOf(id) {
    const index = this.#automations.findIndex((each) => each.id === id);
    if (index < 0) throw notFound('automation', id);
    return index;
  }

  // The stored record with the webhook trigger's address and command, which follow the port in use.
  #shown(record) {
    const copy = structuredClone(record);
    if (copy.trigger.kind === 'webhook') {
      const url = this.#fireUrl(copy.id);
      copy.trigger = { ...copy.trigger, url, command: fireCommand(url) };
    }
    return copy;
  }

  // Each webhook output's secret: the one typed now, over the one kept (for a Telegram output, part by part).
  #outputSecrets(record, kept, typed) {
    const secrets = {};
    for (const output of record.outputs) {
      if (output.kind !== 'webhook') continue;
      const secret = { ...kept[output.id], ...typed[output.id] };
      if (Object.keys(secret).length > 0) secrets[output.id] = secret;
    }
    return secrets;
  }

  #mint(record) {
    const token = randomBytes(TOKEN_BYTES).toString('base64url');
    this.#secrets.tokens[record.id] = hash(token).toString('hex');
    record.trigger = { kind: 'webhook', last4: token.slice(-4), createdAt: this.#clock.now() };
    return token;
  }

  // The secrets first, so that a record is never kept without them.
  #save(withSecrets) {
    try {
      if (withSecrets) writeFileAtomically(this.#file(SECRETS_FILE), JSON.stringify({ format: BOOK_FORMAT, ...this.#secrets }));
      writeFileAtomically(
        this.#file(AUTOMATIONS_FILE),
        JSON.stringify({ format: BOOK_FORMAT, paused: this.#paused, automations: this.#automations }),
      );
    } catch (error) {
      this.#log?.warn(`Couldn’t keep the automations (${error.code ?? error.message}).`);
      throw error;
    }
  }

  #file(name) {
    return path.join(this.#folder, name);
  }

  #read(name) {
    const file = this.#file(name);
    try {
      if (fs.statSync(file).size > MAX_BOOK_FILE_BYTES) throw new Error(`it is larger than ${MAX_BOOK_FILE_BYTES} bytes`);
      const saved = JSON.parse(fs.readFileSync(file, 'utf8'));
      if (!isObject(saved) || saved.format !== BOOK_FORMAT) throw new Error('it isn’t of a layout this service reads');
      return saved;
    } catch (error) {
      if (error.code === 'ENOENT') return null;
      try {
        fs.renameSync(file, `${file}.broken`);
      } catch {
        // It stays where it is, and is replaced at the next change.
      }
      this.#log?.warn(`${name} couldn’t be read (${error.message}); it is set aside as ${name}.broken.`);
      return null;
    }
  }

  #load() {
    const book = this.#read(AUTOMATIONS_FILE);
    const secrets = this.#read(SECRETS_FILE);
    this.#paused = book?.paused === true;
    this.#automations = Array.isArray(book?.automations) ? book.automations.filter((each) => isObject(each) && isObject(each.trigger)) : [];
    const ids = new Set(this.#automations.map((each) => each.id));
    // Secrets of a record that was never kept (a stop between the two writes) are dropped.
    const only = (map) => Object.fromEntries(Object.entries(isObject(map) ? map : {}).filter(([id]) => ids.has(id)));
    this.#secrets = { outputs: only(secrets?.outputs), tokens: only(secrets?.tokens) };
  }
}
