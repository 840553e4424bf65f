// What the service believes, in memory: the parts of the snapshot (the work:
// sessions, approvals, usage, account, …) and the parts of the local status
// (this machine's setup: Claude Code, Tailscale, devices, …). Both replies are
// built from it on each read. Values are kept as they were given, without
// checks of their shape, so that tests can plant the odd shapes a newer or
// broken service might send.

import { createHash } from 'node:crypto';
import { EventEmitter } from 'node:events';

import { automationsStatus } from './automations-status.js';
import { arrayOr, isObject, sameJson } from './json.js';

/** The snapshot's parts in the order they are sent; other keys follow. */
export const SNAPSHOT_KEYS = [
  'mac',
  'usage',
  'sessions',
  'approvals',
  'account',
  'providers',
  'automations',
  'codex',
  'claude',
];

/** The local status's keys in the order they are sent; other keys follow. */
export const LOCAL_KEYS = [
  'daemonVersion',
  'apiPort',
  'claude',
  'tailscale',
  'tsnet',
  'downloadUrl',
  'downloadLocal',
  'downloadTrusted',
  'downloadAnywhere',
  'name',
  'apk',
  'hooks',
  'statusLine',
  'shell',
  'devices',
  'sessions',
  'approvals',
  'connectedClients',
  'usage',
  'projectsRoot',
  'files',
  'account',
  'automations',
  'lan',
  'codex',
];

/** Local status keys that come from the snapshot, mirrored or derived. */
export const MIRRORED_KEYS = ['sessions', 'approvals', 'usage', 'account', 'codex', 'automations'];

/**
 * Local status keys the service fills in itself. Setting one of these (or a
 * mirrored one) on the local side overrides it until it is set to null.
 */
export const OWN_KEYS = ['daemonVersion', 'apiPort', 'connectedClients'];

/** The answers an approval can get. */
export const DECISIONS = ['allow', 'deny', 'session', 'always'];

/** Decisions kept for /qa to show, newest last; older ones are forgotten. */
export const MAX_DECISIONS = 100;

/**
 * Ids of approvals that left (answered or taken out) which are remembered,
 * so that a late answer to one of them is told apart from an id never seen.
 */
export const MAX_GONE_APPROVALS = 1000;

/**
 * Sessions kept at once. A new one past it takes the place of the ended
 * session that came first; while none has ended, a new one is refused.
 */
export const MAX_SESSIONS = 1000;

const DERIVED = new Set([...OWN_KEYS, ...MIRRORED_KEYS]);

export const DEFAULT_AWAKE = Object.freeze({
  mode: 'working',
  holding: false,
  lidClosedOk: false,
  backpackReady: false,
  laptop: false,
  minBattery: 15,
  extendable: false,
});

const copy = (value) => (value === undefined ? undefined : structuredClone(value));

// The entries of a map, the named keys first in their order, then the rest
// as they came. Object.fromEntries makes plain data properties, so even a
// key such as "__proto__" stays a key.
function ordered(map, order) {
  const entries = [];
  for (const key of order) if (map.has(key)) entries.push([key, map.get(key)]);
  for (const [key, value] of map) if (!order.includes(key)) entries.push([key, value]);
  return Object.fromEntries(entries);
}

// The list with the element of this id replaced in place, or added last.
function upsert(list, item) {
  const index = list.findIndex((element) => isObject(element) && element.id === item.id);
  if (index < 0) return [...list, item];
  return list.map((element, i) => (i === index ? item : element));
}

function withPending(session, id, wanted) {
  const pending = session.pendingApprovalIds;
  if (wanted) {
    if (pending === undefined || pending === null) return { ...session, pendingApprovalIds: [id] };
    if (Array.isArray(pending) && !pending.includes(id)) return { ...session, pendingApprovalIds: [...pending, id] };
  } else if (Array.isArray(pending) && pending.includes(id)) {
    return { ...session, pendingApprovalIds: pending.filter((other) => other !== id) };
  }
  return session;
}

/**
 * @typedef {Object} Change
 * @property {Array<string>} snapshot The snapshot parts that changed
 * @property {Array<string>} local The local-only parts (and overrides) that changed
 * @property {{kind: string, id: string, value: (Object|null), resolution: (Object|undefined)}} [item]
 *     Set when one session, approval or device was put in (value) or taken
 *     out (null); an answered approval also carries its `resolution`
 *     {sessionId, decision, by, at}
 * @property {boolean} [whole] Everything may have changed (a reset)
 */

/**
 * The one state of the service. Emits `change` with a {@link Change} after
 * every write that changed something; a write of what is already there is
 * no change and stays silent. Values handed out are shared with the state
 * and must be treated as read-only.
 */
export class ServiceState extends EventEmitter {
  #snapshotParts;
  #localParts;
  #overrides;
  #decisions;
  #goneApprovals;
  #machine;

  /**
   * @param {Object} about
   * @param {string} about.hostname This machine's name
   * @param {string} about.daemonVersion
   * @param {string} about.home The user's home folder, the default projects root
   * @param {function(): {awake: (Object|undefined), battery: (Object|null)}} [about.machine]
   *     The machine's parts as read and decided now, for a fresh start and a reset
   */
  constructor({ hostname, daemonVersion, home, machine = () => ({}) }) {
    super();
    this.about = { hostname, daemonVersion, home };
    this.#machine = machine;
    this.apiPort = null;
    this.connectedClients = 0;
    this.#snapshotParts = this.#defaultSnapshot();
    this.#localParts = this.#defaultLocal();
    this.#overrides = new Map();
    this.#decisions = [];
    this.#goneApprovals = new Set();
  }

  #defaultSnapshot() {
    const { hostname, daemonVersion } = this.about;
    const id = `mac_${createHash('sha256').update(hostname).digest('hex').slice(0, 8)}`;
    const { awake = { ...DEFAULT_AWAKE }, battery = null } = this.#machine?.() ?? {};
    return new Map([
      ['mac', { id, name: hostname, daemonVersion, claudeVersion: null, battery, awake }],
      ['usage', { source: 'none' }],
      ['sessions', []],
      ['approvals', []],
      ['account', { state: 'unknown' }],
      ['providers', []],
      ['automations', { paused: false, list: [], features: [] }],
      ['codex', { available: false, enabled: false, connected: false }],
      ['claude', { available: false }],
    ]);
  }

  #defaultLocal() {
    return new Map([
      ['claude', { path: null, version: null }],
      ['tailscale', { installed: false, running: false, loggedIn: false }],
      ['tsnet', { mode: 'off', available: false, enabled: false }],
      ['hooks', { installed: false }],
      ['statusLine', { installed: false, supported: true }],
      ['shell', { installed: false, supported: true }],
      ['devices', []],
      ['projectsRoot', this.about.home],
      ['files', { browseOutsideProjects: false }],
    ]);
  }

  /** @return {Object} The Snapshot record. */
  snapshot() {
    return ordered(this.#snapshotParts, SNAPSHOT_KEYS);
  }

  /**
   * @param {Object} [options]
   * @param {boolean} [options.qr=false] The pairing images were asked for;
   *     there are none yet, so `qr` is null unless a test set it
   * @return {Object} The LocalStatus record
   */
  localStatus({ qr = false } = {}) {
    const parts = new Map();
    parts.set('daemonVersion', this.about.daemonVersion);
    if (this.apiPort !== null) parts.set('apiPort', this.apiPort);
    parts.set('connectedClients', this.connectedClients);
    for (const key of MIRRORED_KEYS) {
      if (key !== 'automations' && this.#snapshotParts.has(key)) parts.set(key, this.#snapshotParts.get(key));
    }
    const automations = automationsStatus(this.#snapshotParts.get('automations'));
    if (automations !== undefined) parts.set('automations', automations);
    for (const [key, value] of this.#overrides) parts.set(key, value);
    for (const [key, value] of this.#localParts) parts.set(key, value);
    if (qr && !parts.has('qr')) parts.set('qr', null);
    return ordered(parts, LOCAL_KEYS);
  }

  /** @return {*} The devices as stored: normally an array of Device records. */
  devices() {
    return this.#localParts.has('devices') ? this.#localParts.get('devices') : [];
  }

  /** @return {*} One snapshot part as stored; undefined when it is absent. */
  part(key) {
    return this.#snapshotParts.get(key);
  }

  /** @return {*} One local-only part as stored (no overrides); undefined when absent. */
  localPart(key) {
    return this.#localParts.get(key);
  }

  /** @return {Object|undefined} The session object with this id. */
  session(id) {
    return this.#find('sessions', id);
  }

  /**
   * @return {Array<Object>} The last decisions, oldest first:
   *     {id, sessionId, decision, by, at} with `at` in epoch milliseconds
   */
  decisions() {
    return [...this.#decisions];
  }

  /** @return {boolean} Whether an approval of this id was here once and has left. */
  approvalLeft(id) {
    return this.#goneApprovals.has(id);
  }

  /**
   * The part of the state worth keeping across a restart: the sessions, the
   * approvals still waiting, the usage reading, Codex's switch and reading,
   * and the answers that tell a late answer from a wrong id.
   *
   * @return {Object} JSON data for {@link restore}
   */
  serialize() {
    const codex = this.#snapshotParts.get('codex');
    const kept = { codex: {} };
    for (const key of ['sessions', 'approvals', 'usage']) {
      if (this.#snapshotParts.has(key)) kept[key] = this.#snapshotParts.get(key);
    }
    if (isObject(codex)) {
      if (codex.enabled !== undefined) kept.codex.enabled = codex.enabled;
      if (codex.usage !== undefined) kept.codex.usage = codex.usage;
    }
    kept.decisions = this.#decisions;
    kept.goneApprovals = [...this.#goneApprovals];
    return structuredClone(kept);
  }

  /**
   * Takes back what {@link serialize} gave, over a fresh state. Elements
   * that can't be records (no string id) are left out; the rest is taken as
   * it was kept. Meant for the start, before anyone listens; it announces
   * one change of everything all the same.
   *
   * @param {*} saved
   */
  restore(saved) {
    if (!isObject(saved)) return;
    const records = (list) =>
      Array.isArray(list) ? list.filter((item) => isObject(item) && typeof item.id === 'string') : [];
    const parts = {};
    if (Array.isArray(saved.sessions)) parts.sessions = records(saved.sessions);
    if (Array.isArray(saved.approvals)) parts.approvals = records(saved.approvals);
    if (isObject(saved.usage)) parts.usage = saved.usage;
    if (isObject(saved.codex)) {
      const codex = { ...(isObject(this.#snapshotParts.get('codex')) ? this.#snapshotParts.get('codex') : {}) };
      if (typeof saved.codex.enabled === 'boolean') codex.enabled = saved.codex.enabled;
      if (isObject(saved.codex.usage)) codex.usage = saved.codex.usage;
      parts.codex = codex;
    }
    for (const [key, value] of Object.entries(parts)) this.#snapshotParts.set(key, copy(value));
    if (Array.isArray(saved.decisions)) this.#decisions = copy(records(saved.decisions).slice(-MAX_DECISIONS));
    if (Array.isArray(saved.goneApprovals)) {
      for (const id of saved.goneApprovals.filter((each) => typeof each === 'string').slice(-MAX_GONE_APPROVALS)) {
        this.#rememberGone(id);
      }
    }
    this.#announce({ snapshot: Object.keys(parts), whole: true });
  }

  /** Records the port the API listener got, which the local status reports. */
  setApiPort(port) {
    if (this.apiPort === port) return;
    this.apiPort = port;
    this.#announce({ local: ['apiPort'] });
  }

  /** Records how many clients the feed has now, which the local status reports. */
  setConnectedClients(count) {
    if (this.connectedClients === count) return;
    this.connectedClients = count;
    this.#announce({ local: ['connectedClients'] });
  }

  /**
   * Replaces snapshot parts: every key given replaces its part whole, and a
   * key given as null removes its part.
   *
   * @param {Object} parts
   */
  setSnapshotParts(parts) {
    const changed = [];
    for (const [key, value] of Object.entries(parts)) {
      const before = key === 'approvals' ? this.#snapshotParts.get(key) : undefined;
      if (!this.#put(this.#snapshotParts, key, value)) continue;
      changed.push(key);
      if (key === 'approvals') this.#noteGone(before, this.#snapshotParts.get(key));
    }
    this.#announce({ snapshot: changed });
  }

  /**
   * Replaces local status parts as {@link setSnapshotParts} does. A key the
   * service fills itself or mirrors from the snapshot (`daemonVersion`,
   * `apiPort`, `sessions`, `approvals`, `usage`, `account`, `codex`,
   * `automations`) is overridden instead, until it is given as null.
   *
   * @param {Object} parts
   */
  setLocalParts(parts) {
    const changed = [];
    for (const [key, value] of Object.entries(parts)) {
      if (this.#put(DERIVED.has(key) ? this.#overrides : this.#localParts, key, value)) changed.push(key);
    }
    this.#announce({ local: changed });
  }

  /**
   * Puts in one session: it replaces the session with its id where it stands,
   * or is added last.
   *
   * @param {Object} session With a string `id`
   * @return {boolean} False when it is new and {@link MAX_SESSIONS} are kept, none of them ended
   */
  upsertSession(session) {
    const list = arrayOr(this.#snapshotParts.get('sessions'));
    if (list.length >= MAX_SESSIONS && !list.some((each) => isObject(each) && each.id === session.id)) {
      const ended = list.find((each) => isObject(each) && each.state === 'ended');
      if (ended === undefined) return false;
      this.removeSession(ended.id);
    }
    if (this.#putItem(this.#snapshotParts, 'sessions', session)) {
      this.#announce({ snapshot: ['sessions'], item: { kind: 'session', id: session.id, value: session } });
    }
    return true;
  }

  /**
   * Rewrites one session in place.
   *
   * @param {string} id
   * @param {function(Object): Object} rewrite Gets the stored session, which
   *     it must not change, and gives the new one (or the same to change nothing)
   * @return {boolean} Whether a session had this id
   */
  patchSession(id, rewrite) {
    const session = this.session(id);
    if (session === undefined) return false;
    const after = rewrite(session);
    if (!sameJson(session, after)) this.upsertSession(after);
    return true;
  }

  /** @return {boolean} Whether a session had this id. */
  removeSession(id) {
    if (!this.#takeItem(this.#snapshotParts, 'sessions', id)) return false;
    this.#announce({ snapshot: ['sessions'], item: { kind: 'session', id, value: null } });
    return true;
  }

  /**
   * Puts in one approval, and lists its id in its session's
   * `pendingApprovalIds` (and in no other session's).
   *
   * @param {Object} approval With a string `id`, normally a `sessionId`
   */
  upsertApproval(approval) {
    const changed = [];
    if (this.#putItem(this.#snapshotParts, 'approvals', approval)) changed.push('approvals');
    if (this.#mapSessions((session) => withPending(session, approval.id, session.id === approval.sessionId))) {
      changed.push('sessions');
    }
    if (changed.length > 0) {
      this.#announce({ snapshot: changed, item: { kind: 'approval', id: approval.id, value: approval } });
    }
  }

  /**
   * Takes out one approval and its id from every session's pending list.
   *
   * @return {boolean} Whether an approval had this id
   */
  removeApproval(id) {
    if (!this.#takeItem(this.#snapshotParts, 'approvals', id)) return false;
    this.#rememberGone(id);
    const changed = ['approvals'];
    if (this.#mapSessions((session) => withPending(session, id, false))) changed.push('sessions');
    this.#announce({ snapshot: changed, item: { kind: 'approval', id, value: null } });
    return true;
  }

  /**
   * Answers one approval: it is taken out, its id leaves every session's
   * pending list, and its session works again once nothing else waits on it
   * (unless it has ended). The answer is kept among the last decisions.
   *
   * @param {string} id
   * @param {Object} answer
   * @param {string} answer.decision One of {@link DECISIONS}
   * @param {string} answer.by Who answered, such as "mac" or "phone"
   * @param {number} [answer.at=Date.now()] Epoch milliseconds
   * @return {Object|null} The decision recorded, or null when no approval
   *     has this id
   */
  resolveApproval(id, { decision, by, at = Date.now() }) {
    const approval = this.#find('approvals', id);
    if (approval === undefined) return null;
    this.#takeItem(this.#snapshotParts, 'approvals', id);
    this.#rememberGone(id);
    const sessionId = approval.sessionId ?? null;
    const changed = ['approvals'];
    const resumed = this.#mapSessions((session) => {
      const after = withPending(session, id, false);
      const waiting = Array.isArray(after.pendingApprovalIds) && after.pendingApprovalIds.length > 0;
      if (session.id !== sessionId || waiting || after.state === 'working' || after.state === 'ended') return after;
      return { ...after, state: 'working' };
    });
    if (resumed) changed.push('sessions');

    const record = { id, sessionId, decision, by, at };
    this.#decisions.push(record);
    if (this.#decisions.length > MAX_DECISIONS) this.#decisions.shift();
    this.#announce({ snapshot: changed, item: { kind: 'approval', id, value: null, resolution: record } });
    return { ...record };
  }

  /** @param {Object} device With a string `id` */
  upsertDevice(device) {
    if (this.#putItem(this.#localParts, 'devices', device)) {
      this.#announce({ local: ['devices'], item: { kind: 'device', id: device.id, value: device } });
    }
  }

  /** @return {boolean} Whether a device had this id. */
  removeDevice(id) {
    if (!this.#takeItem(this.#localParts, 'devices', id)) return false;
    this.#announce({ local: ['devices'], item: { kind: 'device', id, value: null } });
    return true;
  }

  /** Back to the state of a fresh start. */
  reset() {
    const snapshot = this.#defaultSnapshot();
    const local = this.#defaultLocal();
    const changedIn = (before, after) =>
      [...new Set([...before.keys(), ...after.keys()])].filter((key) => !sameJson(before.get(key), after.get(key)));
    const change = {
      snapshot: changedIn(this.#snapshotParts, snapshot),
      local: [...changedIn(this.#localParts, local), ...this.#overrides.keys()],
    };
    this.#snapshotParts = snapshot;
    this.#localParts = local;
    this.#overrides = new Map();
    this.#decisions = [];
    this.#goneApprovals.clear();
    this.#announce({ ...change, whole: true });
  }

  #find(part, id) {
    const list = this.#snapshotParts.get(part);
    if (!Array.isArray(list)) return undefined;
    return list.find((element) => isObject(element) && element.id === id);
  }

  #rememberGone(id) {
    // A Set iterates in insertion order, so the first entry is the oldest.
    this.#goneApprovals.delete(id);
    this.#goneApprovals.add(id);
    if (this.#goneApprovals.size > MAX_GONE_APPROVALS) {
      this.#goneApprovals.delete(this.#goneApprovals.values().next().value);
    }
  }

  // Remembers the approvals a whole new list left out.
  #noteGone(before, after) {
    if (!Array.isArray(before)) return;
    const kept = new Set(Array.isArray(after) ? after.filter(isObject).map((approval) => approval.id) : []);
    for (const approval of before) {
      if (isObject(approval) && typeof approval.id === 'string' && !kept.has(approval.id)) this.#rememberGone(approval.id);
    }
  }

  // Sets or (for null) deletes one key; says whether anything changed.
  #put(map, key, value) {
    if (value === null) return map.delete(key);
    if (map.has(key) && sameJson(map.get(key), value)) return false;
    map.set(key, copy(value));
    return true;
  }

  #putItem(map, key, item) {
    const current = map.get(key);
    const list = arrayOr(current);
    const stored = copy(item);
    // Only the record with this id can differ; comparing the whole list made
    // every event cost as much as all the sessions together.
    const before = list.find((element) => isObject(element) && element.id === stored.id);
    if (Array.isArray(current) && before !== undefined && sameJson(before, stored)) return false;
    map.set(key, upsert(list, stored));
    return true;
  }

  #takeItem(map, key, id) {
    const list = map.get(key);
    if (!Array.isArray(list)) return false;
    const next = list.filter((element) => !(isObject(element) && element.id === id));
    if (next.length === list.length) return false;
    map.set(key, next);
    return true;
  }

  // Rewrites the session objects through a function; says whether any changed.
  #mapSessions(rewrite) {
    const sessions = this.#snapshotParts.get('sessions');
    if (!Array.isArray(sessions)) return false;
    let changed = false;
    const next = sessions.map((session) => {
      if (!isObject(session)) return session;
      const after = rewrite(session);
      if (after !== session) changed = true;
      return after;
    });
    if (changed) this.#snapshotParts.set('sessions', next);
    return changed;
  }

  #announce({ snapshot = [], local = [], item, whole = false } = {}) {
    if (snapshot.length === 0 && local.length === 0) return;
    const change = { snapshot, local };
    if (item) change.item = item;
    if (whole) change.whole = true;
    this.emit('change', change);
  }
}
