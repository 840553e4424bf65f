// Linux's side of the window raiser: the session's pane is selected when it
// runs in tmux, and the X11 window of its terminal (or of the terminal the
// tmux client shows it in) is activated. The screen is the service's own
// DISPLAY, or the session's when the service was started without one.

import { RaiseError, raiseWords } from './raise-error.js';
import { ancestorsOf, environOf } from './process-tree.js';
import { selectPaneOf } from './tmux-pane.js';
import { activateWindowOf } from './x11-window.js';

const WORDS = raiseWords('this computer');

const DISPLAY = /^[A-Za-z0-9._/-]*:\d+(\.\d+)?$/;

export class LinuxRaiser {
  #env;

  /**
   * @param {Object} [options]
   * @param {Object} [options.env=process.env] The service's environment
   */
  constructor({ env = process.env } = {}) {
    this.#env = env;
  }

  async raise({ pid }) {
    const chain = ancestorsOf(pid);
    if (chain.length === 0) throw new RaiseError('ended', WORDS.ended);
    const pane = await selectPaneOf(chain).catch(() => null);
    // In tmux, the windows are those of the terminals its clients run in.
    const chains = pane === null ? [chain] : pane.clients.map(ancestorsOf);
    const display = [this.#env.DISPLAY, environOf(chains[0]?.[0] ?? pid).DISPLAY].find(
      (each) => typeof each === 'string' && DISPLAY.test(each),
    );
    let window = null;
    let unreachable = false;
    if (display !== undefined && chains.length > 0) {
      window = await activateWindowOf(display, chains).catch(() => {
        unreachable = true;
        return null;
      });
    }
    if (window !== null) return window;
    if (pane !== null) return { app: 'tmux', already: false };
    if (display === undefined || unreachable) throw new RaiseError('no_screen', WORDS.noScreen);
    throw new RaiseError('no_window', WORDS.noWindow);
  }
}
