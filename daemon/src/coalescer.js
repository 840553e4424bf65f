// Folding bursts: many changes to one thing in a short time leave as one
// frame now and one frame with the latest value at the end of the window,
// so that a session that changes fifty times in a moment costs its clients
// two frames, and the last one they get is always the newest.

/** The window in which changes to one item are folded, in milliseconds. */
export const COALESCE_MS = 100;

/**
 * Sends at most one entry per key per window: the first change of a quiet
 * key goes out at once and opens a window; later ones within it replace
 * each other, and the last goes out when the window ends, opening the next.
 * A key whose window ends with nothing waiting is forgotten.
 */
export class Coalescer {
  #windowMs;
  #send;
  #keys;

  /**
   * @param {Object} options
   * @param {function(Object): void} options.send Gets each entry that goes out
   * @param {number} [options.windowMs=COALESCE_MS]
   */
  constructor({ send, windowMs = COALESCE_MS }) {
    this.#send = send;
    this.#windowMs = windowMs;
    this.#keys = new Map();
  }

  /**
   * @param {string} key What the entry is about, such as "session:s1"
   * @param {Object} entry Handed to `send`, now or at the window's end
   */
  push(key, entry) {
    const open = this.#keys.get(key);
    if (open) {
      open.waiting = entry;
      return;
    }
    this.#open(key);
    this.#send(entry);
  }

  /**
   * Sends an entry that must not wait, such as an event that later ones
   * would otherwise replace. What waited under its key is dropped, since it
   * is older, and the key's window opens if it wasn't open.
   *
   * @param {string} key
   * @param {Object} entry
   */
  pushNow(key, entry) {
    const open = this.#keys.get(key);
    if (open) open.waiting = null;
    else this.#open(key);
    this.#send(entry);
  }

  /**
   * Forgets the waiting entries that a later frame has made needless; their
   * windows stay open, so the rate stays bounded.
   *
   * @param {function(string): boolean} which Gets each key with an entry waiting
   */
  discard(which) {
    for (const [key, open] of this.#keys) if (open.waiting !== null && which(key)) open.waiting = null;
  }

  /** Forgets everything and stops every timer. */
  clear() {
    for (const open of this.#keys.values()) clearTimeout(open.timer);
    this.#keys.clear();
  }

  #open(key) {
    const open = { waiting: null, timer: null };
    open.timer = setTimeout(() => {
      this.#keys.delete(key);
      if (open.waiting === null) return;
      this.#open(key);
      this.#send(open.waiting);
    }, this.#windowMs);
    this.#keys.set(key, open);
  }
}
