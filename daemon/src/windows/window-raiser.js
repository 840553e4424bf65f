// Bringing a session's terminal window to the front: one raiser whose way
// comes from the side for this system (window-raiser-linux.js,
// window-raiser-mac.js), chosen once.

import { RaiseError, raiseWords } from './raise-error.js';
import { LinuxRaiser } from './window-raiser-linux.js';
import { MacRaiser } from './window-raiser-mac.js';

/**
 * Where a session's agent runs, as its hook or its relay told.
 *
 * @typedef {Object} AgentPlace
 * @property {number} pid The agent's process
 * @property {string} [tty] Its terminal device, such as “/dev/ttys003”
 */

export { RaiseError };

class NoRaiser {
  async raise() {
    throw new RaiseError('unsupported', raiseWords('this computer').unsupported);
  }

  async openNew() {
    return this.raise();
  }
}

/**
 * The raiser for a system.
 *
 * @param {string} [platform=process.platform]
 * @param {Object} [options] Passed to the side: `env` (where DISPLAY is read)
 * @return {{raise(place: AgentPlace): Promise<{app: string, already: boolean}>,
 *     openNew(launch: Object): Promise<{app: string, already: boolean}>}}
 *     raise throws RaiseError when the window can't be brought forward,
 *     openNew when a new terminal window can't be opened
 */
export function windowRaiser(platform = process.platform, options = {}) {
  if (platform === 'linux') return new LinuxRaiser(options);
  if (platform === 'darwin') return new MacRaiser(options);
  return new NoRaiser();
}
