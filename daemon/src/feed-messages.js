// What the feed says about a change of the state. Messages are found by
// comparing each changed part with the last one described, so that they
// name exactly what differs, whichever write made the change: one session
// that changed is one `session` message; a change the messages can't say
// (a session taken out, a list in an odd shape, several parts replaced at
// once, a part without a message of its own) is a whole `snapshot`.

import { isObject } from './json.js';

const text = (value) => (value === undefined ? undefined : JSON.stringify(value));

/** Parts that are lists of records with ids, and the message of one record. */
const LIST_PARTS = { approvals: 'approval', sessions: 'session' };

/**
 * The parts that have messages, in the order a change's messages are sent:
 * an approval before the session that waits on it. The others (automations,
 * claude, any unknown part) are sent in a snapshot.
 */
const PART_ORDER = ['approvals', 'sessions', 'usage', 'account', 'mac', 'providers', 'codex'];

/** The part of `mac` that has messages of its own; the rest is sent only in a snapshot. */
const MAC_MESSAGES = ['battery', 'awake'];

/**
 * @typedef {Object} FeedEntry
 * @property {string} key What the message is about, for folding bursts:
 *     "session:<id>", "approval:<id>", "snapshot", or the message's `t`
 * @property {Object|null} message The message; null for a snapshot, which
 *     is built when it is sent, so that it is never older than its frame
 */

// A list as id → {value, text}, in order; null when it can't be told item by
// item: not a list, an element that isn't a record with a string id, or an id
// twice. The state replaces a record rather than changing it, so a record
// described before under the same id is the same text: only new ones are
// written out.
function describeList(list, previous) {
  if (!Array.isArray(list)) return null;
  const items = new Map();
  for (const element of list) {
    if (!isObject(element) || typeof element.id !== 'string' || items.has(element.id)) return null;
    const known = previous?.get(element.id);
    items.set(element.id, { value: element, text: known?.value === element ? known.text : JSON.stringify(element) });
  }
  return items;
}

function describe(part, value, previous = null) {
  if (part in LIST_PARTS) return describeList(value, previous);
  return { value, text: text(value) };
}

// What changed between two descriptions of a list; null when the kept
// records moved or a new one came anywhere but last, which only a snapshot
// can say.
function listChanges(before, after) {
  if (before === null || after === null) return null;
  const kept = [...before.keys()].filter((id) => after.has(id));
  const ids = [...after.keys()];
  if (kept.some((id, index) => ids[index] !== id)) return null;
  return {
    removed: [...before.keys()].filter((id) => !after.has(id)),
    changed: ids.filter((id) => before.get(id)?.text !== after.get(id).text),
  };
}

/** Turns the state's changes into the feed's messages. */
export class FeedMessages {
  #seen;

  /** @param {Object} snapshot The snapshot the clients start from */
  constructor(snapshot) {
    this.#seen = new Map(Object.entries(snapshot).map(([part, value]) => [part, describe(part, value)]));
  }

  /**
   * @param {Change} change As the state emitted it
   * @param {Object|null} snapshot The snapshot after the change; may be null
   *     when no snapshot part changed
   * @return {Array<FeedEntry>} In the order to send
   */
  read(change, snapshot) {
    const entries = [];
    if (change.snapshot.length > 0) {
      const after = new Map(
        change.snapshot.map((part) => [part, describe(part, snapshot[part], this.#seen.get(part) ?? null)]),
      );
      const several = change.whole === true || (change.snapshot.length > 1 && !change.item);
      const told = several ? null : this.#tell(after, change.item);
      entries.push(...(told ?? [{ key: 'snapshot', message: null }]));
      for (const [part, description] of after) this.#seen.set(part, description);
    }
    if (change.local.includes('devices')) entries.push({ key: 'devices', message: { t: 'devices' } });
    return entries;
  }

  // The messages for the changed parts, or null when a snapshot is needed.
  #tell(after, item) {
    const parts = [...after.keys()];
    if (parts.some((part) => !PART_ORDER.includes(part))) return null;
    const entries = [];
    for (const part of PART_ORDER.filter((name) => after.has(name))) {
      const told =
        part in LIST_PARTS
          ? this.#tellList(part, after.get(part), item)
          : part === 'mac'
            ? this.#tellMac(after.get(part).value)
            : this.#tellWhole(part, after.get(part).value);
      if (told === null) return null;
      entries.push(...told);
    }
    return entries;
  }

  #tellList(part, after, item) {
    const before = this.#seen.get(part) ?? null;
    const changes = listChanges(before, after);
    if (changes === null) return null;
    const kind = LIST_PARTS[part];
    if (kind === 'session' && changes.removed.length > 0) return null;

    const entries = changes.removed.map((id) => {
      const resolution = item?.kind === kind && item.id === id ? item.resolution : undefined;
      return {
        key: `${kind}:${id}`,
        message: {
          t: 'approval.resolved',
          id,
          sessionId: before.get(id).value.sessionId ?? null,
          decision: resolution?.decision ?? null,
          by: resolution?.by ?? null,
        },
      };
    });
    for (const id of changes.changed) {
      entries.push({ key: `${kind}:${id}`, message: { t: kind, [kind]: after.get(id).value } });
    }
    return entries;
  }

  #tellWhole(part, value) {
    if (value === undefined) {
      // Only Codex has a message that clears it; the others go with a snapshot.
      return part === 'codex' ? [{ key: part, message: { t: part, codex: null } }] : null;
    }
    return [{ key: part, message: { t: part, [part]: value } }];
  }

  #tellMac(after) {
    const before = this.#seen.get('mac')?.value;
    if (!isObject(before) || !isObject(after)) return null;
    const rest = (mac) => text(Object.fromEntries(Object.entries(mac).filter(([key]) => !MAC_MESSAGES.includes(key))));
    if (rest(before) !== rest(after)) return null;

    const entries = [];
    if (text(before.battery) !== text(after.battery)) {
      entries.push({ key: 'battery', message: { t: 'battery', battery: after.battery ?? null } });
    }
    if (text(before.awake) !== text(after.awake)) {
      if (!isObject(after.awake)) return null;
      entries.push({ key: 'awake', message: { t: 'awake', awake: after.awake } });
    }
    return entries;
  }
}
