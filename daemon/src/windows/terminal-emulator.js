// The person's terminal emulator on Linux, and how it is told what to run:
// Debian's x-terminal-emulator first, else $TERMINAL, else the first of the
// common ones on PATH. Each takes the command as separate words after its
// own flag, never as one string a shell would read.

import fs from 'node:fs';
import path from 'node:path';

/** Looked for on PATH when neither the alternative nor $TERMINAL is there. */
export const COMMON_EMULATORS = ['gnome-terminal', 'konsole', 'xfce4-terminal', 'xterm'];

/** The longest $TERMINAL taken, in characters. */
const MAX_TERMINAL_CHARS = 256;

/** Before the command and the folder, per emulator; the others take `-e` like xterm. */
const CONVENTIONS = {
  'gnome-terminal': (cwd) => [`--working-directory=${cwd}`, '--'],
  konsole: (cwd) => ['--workdir', cwd, '-e'],
  'xfce4-terminal': (cwd) => [`--working-directory=${cwd}`, '-x'],
};

const isProgram = (file) => {
  try {
    fs.accessSync(file, fs.constants.X_OK);
    return fs.statSync(file).isFile();
  } catch {
    return false;
  }
};

/** @return {string|null} The program's path, as named or found on PATH. */
function located(name, searchPath, exists) {
  if (typeof name !== 'string' || name === '' || name.length > MAX_TERMINAL_CHARS || name.includes('\0')) return null;
  if (name.includes('/')) return path.isAbsolute(name) && exists(name) ? name : null;
  for (const folder of (searchPath ?? '').split(':')) {
    if (!path.isAbsolute(folder)) continue;
    const file = path.join(folder, name);
    if (exists(file)) return file;
  }
  return null;
}

/** The emulator a program is, through the links an alternative is made of. */
function kindOf(file) {
  let real = file;
  try {
    real = fs.realpathSync(file);
  } catch {
    // named as it is
  }
  return path.basename(real);
}

/**
 * The terminal emulator to open a window with.
 *
 * @param {Object<string, string>} env Where PATH and TERMINAL are read
 * @param {function(string): boolean} [exists] Whether a path is a program
 * @return {{program: string, kind: string}|null} null when none is installed
 */
export function findEmulator(env, exists = isProgram) {
  for (const name of ['x-terminal-emulator', env.TERMINAL, ...COMMON_EMULATORS]) {
    const program = located(name, env.PATH, exists);
    if (program !== null) return { program, kind: kindOf(program) };
  }
  return null;
}

/**
 * @param {string} kind The emulator's own name, such as "konsole"
 * @param {string} cwd
 * @param {string[]} command
 * @return {string[]} The emulator's arguments that run the command in the folder
 */
export function emulatorArguments(kind, cwd, command) {
  return [...(CONVENTIONS[kind]?.(cwd) ?? ['-e']), ...command];
}
