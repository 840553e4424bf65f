// Telling the person through the system's own notifications: notify-send on
// Linux, AppleScript's `display notification` through osascript on the Mac.
// The title and text always travel as arguments, never inside a script.

import { execFile } from 'node:child_process';

import { clip, oneLine } from './one-line.js';

/** notify-send and osascript may take this long, in milliseconds. */
const NOTIFY_TIMEOUT_MS = 10000;
/** What a notification shows at most; the system cuts it shorter anyway. */
export const TITLE_LIMIT = 120;
export const TEXT_LIMIT = 1000;

/** The run handler osascript gets, one line for each -e; the title and text are its arguments. */
export const NOTIFICATION_SCRIPT = [
  'on run argv',
  'display notification (item 2 of argv) with title (item 1 of argv)',
  'end run',
];

export const NO_NOTIFIER = 'This copy of Tidewatch has no program for desktop notifications.';
export const NO_VOICE = 'Tidewatch can’t read aloud yet: the service has no voice engine.';

/**
 * Which program shows notifications here. A test copy shows none unless
 * `TIDEWATCH_NOTIFY_PROGRAM` names one, so tests never reach the real desktop.
 *
 * @param {Object<string, string>} env
 * @param {Object} options
 * @param {string} [options.platform=process.platform]
 * @param {boolean} options.testCopy
 * @return {{platform: string, program: (string|null)}} Options for {@link notifyDesktop}
 */
export function notifierOptions(env, { platform = process.platform, testCopy }) {
  const named = typeof env.TIDEWATCH_NOTIFY_PROGRAM === 'string' && env.TIDEWATCH_NOTIFY_PROGRAM !== '' ? env.TIDEWATCH_NOTIFY_PROGRAM : null;
  if (named !== null || testCopy) return { platform, program: named };
  return { platform, program: platform === 'darwin' ? '/usr/bin/osascript' : 'notify-send' };
}

/**
 * Shows one desktop notification.
 *
 * @param {string} title Such as the automation's name
 * @param {string} text
 * @param {Object} [options] As {@link notifierOptions} gives them
 * @param {string} [options.platform=process.platform] `darwin` for osascript, anything else for notify-send
 * @param {string|null} [options.program] The program's path, or a name looked up on PATH
 * @param {Object<string, string>} [options.env=process.env] Its environment (the desktop's bus is found there)
 * @param {function(): number} [options.now=Date.now]
 * @return {Promise<{state: ('sent'|'failed'), error?: string, at: number}>} `error` is what the program said, one line
 */
export async function notifyDesktop(title, text, { platform = process.platform, program, env = process.env, now = Date.now } = {}) {
  const chosen = program === undefined ? notifierOptions(env, { platform, testCopy: false }).program : program;
  if (chosen === null) return { state: 'failed', error: NO_NOTIFIER, at: now() };
  // A NUL can't be an argument at all; a command's output may hold one.
  const shownTitle = clip(oneLine(title).replaceAll('\0', ''), TITLE_LIMIT) || 'Tidewatch';
  const shownText = clip(String(text ?? '').replaceAll('\0', ''), TEXT_LIMIT);
  // "--" ends the options, so a title that starts with "-" is still a title.
  const args =
    platform === 'darwin'
      ? [...NOTIFICATION_SCRIPT.flatMap((line) => ['-e', line]), '--', shownTitle, shownText]
      : ['--app-name=Tidewatch', '--', shownTitle, shownText];
  const failure = await new Promise((resolve) => {
    execFile(chosen, args, { timeout: NOTIFY_TIMEOUT_MS, env }, (error, _stdout, stderr) => {
      if (!error) resolve(null);
      else resolve(oneLine(stderr).trim() || (error.code === 'ENOENT' ? `${chosen} isn’t on this computer.` : oneLine(error.message)));
    });
  });
  return failure === null ? { state: 'sent', at: now() } : { state: 'failed', error: clip(failure, 300), at: now() };
}

/**
 * Reads a text aloud. There is no voice engine in the service yet, so this
 * says so rather than pretend.
 *
 * @param {string} _text
 * @param {Object} [options]
 * @param {function(): number} [options.now=Date.now]
 * @return {Promise<{state: 'failed', error: string, at: number}>}
 */
export async function sayAloud(_text, { now = Date.now } = {}) {
  return { state: 'failed', error: NO_VOICE, at: now() };
}
