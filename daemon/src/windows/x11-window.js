// Bringing a process's window forward on an X11 screen, the way pagers and
// task bars ask an EWMH window manager to: the window is found among the
// root's `_NET_CLIENT_LIST` by its `_NET_WM_PID`, and activated with a
// `_NET_ACTIVE_WINDOW` message to the root.

import x11 from 'x11';

/** The whole talk with the X server may take this long, in milliseconds. */
export const X11_TIMEOUT_MS = 4000;

/** Client windows looked at, at most. */
const MAX_WINDOWS = 4096;

const ANY_TYPE = 0;
const WM_CLASS = 67;
const STRING = 31;
/** The source indication of a pager or task bar: a person's own choice. */
const FROM_PAGER = 2;

function connect(display) {
  return new Promise((resolve, reject) => {
    const client = x11.createClient({ display }, (error, screen) => (error ? reject(error) : resolve(screen)));
    client.on('error', () => {});
  });
}

const ask = (client, request, ...args) =>
  new Promise((resolve, reject) => client[request](...args, (error, value) => (error ? reject(error) : resolve(value))));

const words = (property) => Array.from({ length: property.data.length / 4 }, (_, at) => property.data.readUInt32LE(at * 4));

async function talk(display, chains) {
  const screen = await connect(display);
  const client = screen.client;
  try {
    const root = screen.screen[0].root;
    const [list, wmPid, active] = await Promise.all(
      ['_NET_CLIENT_LIST', '_NET_WM_PID', '_NET_ACTIVE_WINDOW'].map((name) => ask(client, 'InternAtom', false, name)),
    );
    const windows = words(await ask(client, 'GetProperty', 0, root, list, ANY_TYPE, 0, MAX_WINDOWS));
    const owners = await Promise.all(
      windows.map((window) =>
        ask(client, 'GetProperty', 0, window, wmPid, ANY_TYPE, 0, 1).then(
          (property) => (property.data.length === 4 ? property.data.readUInt32LE(0) : 0),
          () => 0,
        ),
      ),
    );
    // The window of the nearest parent: a terminal in a terminal is the inner one.
    let best = null;
    for (const chain of chains) {
      chain.forEach((pid, depth) => {
        const at = owners.indexOf(pid);
        if (at >= 0 && (best === null || depth < best.depth)) best = { window: windows[at], depth };
      });
    }
    if (best === null) return null;
    const before = words(await ask(client, 'GetProperty', 0, root, active, ANY_TYPE, 0, 1))[0] ?? 0;
    const names = (await ask(client, 'GetProperty', 0, best.window, WM_CLASS, STRING, 0, 64)).data.toString('latin1').split('\0');
    const app = names[1] || names[0] || '';
    if (before !== best.window) {
      client.SendClientMessage(root, best.window, active, 32, [FROM_PAGER, 0, before, 0, 0]);
      await client.sync();
    }
    return { app, already: before === best.window };
  } finally {
    client.terminate();
  }
}

/**
 * Activates the window that belongs to the nearest of the processes.
 *
 * @param {string} display Such as ":0"
 * @param {number[][]} chains Processes with their parents, nearest first
 * @return {Promise<{app: string, already: boolean}|null>} The window's class
 *     (what a person knows the program as, such as “XTerm”) and whether it
 *     was in front already; null when no window belongs to them
 * @throws {Error} When the screen can't be reached
 */
export async function activateWindowOf(display, chains) {
  let timer;
  const late = new Promise((_, reject) => {
    timer = setTimeout(() => reject(new Error('The X server didn’t answer in time.')), X11_TIMEOUT_MS);
  });
  try {
    return await Promise.race([talk(display, chains), late]);
  } finally {
    clearTimeout(timer);
  }
}
