// A virtual X screen for the suites that open and raise windows: Xvfb on a
// free display with openbox, an EWMH window manager, and xprop to read who
// has the active window. Everything started is killed after the test.

import { spawn, spawnSync } from 'node:child_process';

import { eventually } from '../helpers.js';

/** Why the suites can't run here, or null when they can. */
export const missingScreen = () =>
  ['Xvfb', 'xterm', 'openbox', 'xprop'].every((program) => spawnSync('sh', ['-c', `command -v ${program}`]).status === 0)
    ? null
    : 'Xvfb, xterm, openbox or xprop isn’t installed.';

/** Starts a program for the test, killed after it. */
export function started(t, program, args, options) {
  const child = spawn(program, args, { stdio: 'ignore', ...options });
  child.on('error', () => {});
  t.after(() => child.kill('SIGKILL'));
  return child;
}

/**
 * A virtual screen on a free display, with an EWMH window manager on it.
 *
 * @return {Promise<{display: string, activePid: function(): (number|null)}>}
 *     the display and the process that owns the active window
 */
export async function screen(t) {
  const server = spawn('Xvfb', ['-displayfd', '3', '-screen', '0', '1024x768x24', '-nolisten', 'tcp'], {
    stdio: ['ignore', 'ignore', 'ignore', 'pipe'],
  });
  t.after(() => server.kill('SIGKILL'));
  const number = await new Promise((resolve, reject) => {
    server.stdio[3].once('data', (chunk) => resolve(chunk.toString().trim()));
    server.once('exit', () => reject(new Error('Xvfb ended before it gave its display.')));
  });
  const display = `:${number}`;
  const xprop = (...args) => spawnSync('xprop', ['-display', display, ...args], { encoding: 'utf8' }).stdout ?? '';
  started(t, 'openbox', [], { env: { ...process.env, DISPLAY: display } });
  await eventually(() => /window id/.test(xprop('-root', '_NET_SUPPORTING_WM_CHECK')), 'the window manager', 10000);
  const active = () => /window id # (0x[0-9a-f]+)/.exec(xprop('-root', '_NET_ACTIVE_WINDOW'))?.[1] ?? null;
  const ownerOf = (window) => Number(/= (\d+)/.exec(xprop('-id', window, '_NET_WM_PID'))?.[1]);
  return { display, activePid: () => (active() === null ? null : ownerOf(active())) };
}
