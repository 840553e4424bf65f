// How many clients are connected now, across every kind of connection (the
// Mac's feed, and phones as they come), for the local status's
// `connectedClients`.

/**
 * Adds up the live connections each kind reports and keeps the sum in the
 * state.
 */
export class ConnectionCount {
  #state;
  #counts = new Map();

  /** @param {ServiceState} state */
  constructor(state) {
    this.#state = state;
  }

  /**
   * The reporter of one kind of connection: call it with that kind's number
   * whenever it changes.
   *
   * @param {string} kind Such as "feed" or "phone"
   * @return {function(number): void}
   */
  reporter(kind) {
    return (count) => {
      this.#counts.set(kind, count);
      this.#state.setConnectedClients(this.total);
    };
  }

  /** @return {number} The connections of every kind now. */
  get total() {
    let sum = 0;
    for (const count of this.#counts.values()) sum += count;
    return sum;
  }
}
