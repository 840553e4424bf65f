// Linux's side of the window raiser: the session's pane is selected when it
// runs in tmux, and the X11 window of its terminal (or of the terminal the
// tmux client shows it in) is activated. The screen is the service's own
// DISPLAY, or the session's when the service was started without one.

import { spawn } from 'node:child_process';

import { RaiseError, raiseWords } from './raise-error.js';
import { ancestorsOf, environOf } from './process-tree.js';
import { emulatorArguments, findEmulator } from './terminal-emulator.js';
import { selectPaneOf } from './tmux-pane.js';
import { activateWindowOf } from './x11-window.js';

const WORDS = raiseWords('this computer');

const DISPLAY = /^[A-Za-z0-9._/-]*:\d+(\.\d+)?$/;

/** A new terminal's window is looked for this long, in milliseconds, then taken on trust. */
export const NEW_WINDOW_WAIT_MS = 5000;
const LOOK_EVERY_MS = 100;

const sleep = (ms) => new Promise((resolve) => setTimeout(resolve, ms));

export class LinuxRaiser {
  #env;

  /**
   * @param {Object} [options]
   * @param {Object} [options.env=process.env] The service's environment
   */
  constructor({ env = process.env } = {}) {
    this.#env = env;
  }

  /**
   * Opens a new window of the person's terminal emulator running the
   * command, and brings it to the front.
   *
   * @param {{cwd: string, command: string[], env: Object<string, string>, near?: number[]}} launch
   *     `near`: processes on the person's screen, whose DISPLAY serves when the service has none
   * @return {Promise<{app: string, already: boolean}>}
   * @throws {RaiseError}
   */
  async openNew({ cwd, command, env, near = [] }) {
    const display = this.#displayOf(near);
    if (display === undefined) throw new RaiseError('no_screen', WORDS.noScreen);
    const emulator = findEmulator(this.#env);
    if (emulator === null) throw new RaiseError('no_emulator', WORDS.noEmulator);
    const child = spawn(emulator.program, emulatorArguments(emulator.kind, cwd, command), {
      cwd,
      env: { ...env, DISPLAY: display },
      stdio: 'ignore',
      detached: true,
    });
    let failed = false;
    child.on('error', () => (failed = true));
    child.on('exit', (code) => (failed ||= code !== 0));
    child.unref();
    const until = Date.now() + NEW_WINDOW_WAIT_MS;
    while (Date.now() < until && !failed) {
      const window = await activateWindowOf(display, [[child.pid]]).catch(() => null);
      if (window !== null) return { app: window.app || emulator.kind, already: false };
      // An emulator that hands the window to its server (gnome-terminal) ends at once, content.
      if (child.exitCode === 0) break;
      await sleep(LOOK_EVERY_MS);
    }
    if (failed) throw new RaiseError('not_opened', WORDS.notOpened);
    return { app: emulator.kind, already: false };
  }

  #displayOf(pids) {
    return [this.#env.DISPLAY, ...pids.map((pid) => environOf(pid).DISPLAY)].find(
      (each) => typeof each === 'string' && DISPLAY.test(each),
    );
  }

  async raise({ pid }) {
    const chain = ancestorsOf(pid);
    if (chain.length === 0) throw new RaiseError('ended', WORDS.ended);
    const pane = await selectPaneOf(chain).catch(() => null);
    // In tmux, the windows are those of the terminals its clients run in.
    const chains = pane === null ? [chain] : pane.clients.map(ancestorsOf);
    const display = this.#displayOf([chains[0]?.[0] ?? pid]);
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
