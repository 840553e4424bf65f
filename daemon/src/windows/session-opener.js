// Opening a session's terminal: where the agent runs comes from its shared
// terminal while the relay is there, else from what its hooks told, and the
// raiser for this system brings that window forward.

import { RaiseError, raiseWords } from './raise-error.js';

const UNKNOWN = raiseWords('this computer').unknown;

export class SessionOpener {
  #terminals;
  #places;
  #raiser;

  /**
   * @param {Object} parts
   * @param {TerminalHub} [parts.terminals]
   * @param {AgentPlaces} parts.places
   * @param {{raise: Function}} parts.raiser (window-raiser.js)
   */
  constructor({ terminals = null, places, raiser }) {
    this.#terminals = terminals;
    this.#places = places;
    this.#raiser = raiser;
  }

  /**
   * Brings the session's terminal window to the front.
   *
   * @param {string} sessionId
   * @return {Promise<{app?: string, already: boolean}>} The `Opened` record
   * @throws {RaiseError}
   */
  async open(sessionId) {
    const shared = this.#terminals?.terminalOf(sessionId) ?? null;
    const place = shared !== null ? { pid: shared.pid, tty: shared.tty || undefined } : this.#places.of(sessionId);
    if (place === null) throw new RaiseError('unknown', UNKNOWN);
    const { app, already } = await this.#raiser.raise(place);
    return app ? { app, already } : { already };
  }
}
