// Opening a session's terminal: where the agent runs comes from its shared
// terminal while the relay is there, else from what its hooks told, and the
// raiser for this system brings that window forward. A session the service
// runs itself has no window: a new one is opened, its agent resuming the
// conversation through the relay, so the terminal is shared like any other.

import { RaiseError, raiseWords } from './raise-error.js';
import { existingProject, resumeCommand } from './terminal-command.js';

const UNKNOWN = raiseWords('this computer').unknown;

export class SessionOpener {
  #terminals;
  #places;
  #raiser;
  #runner;
  #relay;
  #support;

  /**
   * @param {Object} parts
   * @param {TerminalHub} [parts.terminals]
   * @param {AgentPlaces} parts.places
   * @param {{raise: Function, openNew: Function}} parts.raiser (window-raiser.js)
   * @param {SessionRunner} [parts.runner] The sessions the service runs itself
   * @param {string} [parts.relay] The relay program a new terminal runs the agent through
   * @param {string} [parts.support] The support folder, where the relay finds the service
   */
  constructor({ terminals = null, places, raiser, runner = null, relay = null, support = null }) {
    this.#terminals = terminals;
    this.#places = places;
    this.#raiser = raiser;
    this.#runner = runner;
    this.#relay = relay;
    this.#support = support;
  }

  /**
   * Brings the session's terminal window to the front, or opens one for a
   * session the service runs.
   *
   * @param {string} sessionId
   * @return {Promise<{app?: string, already: boolean}>} The `Opened` record
   * @throws {RaiseError}
   * @throws {HttpError} 409 when the service's session can't be handed to a terminal now
   */
  async open(sessionId) {
    const shared = this.#terminals?.terminalOf(sessionId) ?? null;
    if (shared === null && this.#runner?.owns(sessionId) && this.#relay !== null) return this.#openNew(sessionId);
    const place = shared !== null ? { pid: shared.pid, tty: shared.tty || undefined } : this.#places.of(sessionId);
    if (place === null) throw new RaiseError('unknown', UNKNOWN);
    const { app, already } = await this.#raiser.raise(place);
    return app ? { app, already } : { already };
  }

  async #openNew(sessionId) {
    const { agent, project, program, env, own, threadId } = this.#runner.handOff(sessionId);
    try {
      const command = resumeCommand({ relay: this.#relay, agent, program, sessionId, threadId });
      const cwd = await existingProject(project);
      const exported = { TIDEWATCH_SUPPORT: this.#support };
      // A shared terminal's relay is on the person's screen, if the service isn't.
      const near = (this.#terminals?.terminals() ?? []).map((terminal) => terminal.pid);
      const { TIDEWATCH_TERM: _, ...outside } = env;
      return await this.#raiser.openNew({ cwd, command, env: { ...outside, ...exported }, exported, own, near });
    } catch (error) {
      this.#runner.takeBack(sessionId);
      throw error;
    }
  }
}
