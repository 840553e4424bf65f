// The file output: each run adds one line to a file inside its project, the
// date, the automation's name and what it said. A link can't carry the line
// out of the project, and a secret file is never written.

import fs from 'node:fs';
import path from 'node:path';

import { clip, oneLine } from './one-line.js';
import { isSecretFile } from './secret-file.js';

/** A line holds this many characters at most, its end cut. */
export const LINE_LIMIT = 2000;

const WORDS = {
  noProject: 'It has no project folder to write in.',
  outside: 'Its file isn’t inside the project.',
  secret: 'Its file holds secrets, so nothing is written there.',
  notFile: 'Its path isn’t a plain file.',
};

/**
 * The line a run adds: local date and time, the name, the text, on one line.
 *
 * @param {string} name
 * @param {string} text
 * @param {number} at Epoch milliseconds
 * @return {string} Ending in a newline
 */
export function runLine(name, text, at) {
  const d = new Date(at);
  const two = (n) => String(n).padStart(2, '0');
  const stamp = `${d.getFullYear()}-${two(d.getMonth() + 1)}-${two(d.getDate())} ${two(d.getHours())}:${two(d.getMinutes())}`;
  return `${clip(oneLine(`${stamp} ${name}: ${text}`), LINE_LIMIT)}\n`;
}

/**
 * Adds the run's line to the output's file.
 *
 * @param {{path: string}} output `path` relative to the project, or absolute inside it
 * @param {{automation: {name: string, projectPath?: string}, text: string}} message
 * @param {number} at
 * @return {{state: ('sent'|'failed'), error?: string, at: number}}
 */
export function appendRunLine(output, message, at) {
  const project = message.automation?.projectPath;
  if (typeof project !== 'string' || !path.isAbsolute(project)) return { state: 'failed', error: WORDS.noProject, at };
  const target = path.resolve(project, String(output.path ?? ''));
  const relative = path.relative(project, target);
  if (relative === '' || relative.startsWith('..') || path.isAbsolute(relative)) return { state: 'failed', error: WORDS.outside, at };
  if (isSecretFile(relative)) return { state: 'failed', error: WORDS.secret, at };
  try {
    fs.mkdirSync(path.dirname(target), { recursive: true });
    // A folder on the way may be a link out of the project: its real place decides.
    const realProject = fs.realpathSync(project);
    const realFolder = fs.realpathSync(path.dirname(target));
    const realRelative = path.relative(realProject, path.join(realFolder, path.basename(target)));
    if (realRelative.startsWith('..') || path.isAbsolute(realRelative)) return { state: 'failed', error: WORDS.outside, at };
    if (isSecretFile(realRelative)) return { state: 'failed', error: WORDS.secret, at };
    // The file itself may not be a link; a pipe in its place fails at once instead of hanging.
    const fd = fs.openSync(target, fs.constants.O_WRONLY | fs.constants.O_APPEND | fs.constants.O_CREAT | fs.constants.O_NOFOLLOW | fs.constants.O_NONBLOCK, 0o644);
    try {
      if (!fs.fstatSync(fd).isFile()) return { state: 'failed', error: WORDS.notFile, at };
      fs.writeSync(fd, runLine(message.automation.name ?? '', message.text ?? '', at));
    } finally {
      fs.closeSync(fd);
    }
  } catch (error) {
    if (error.code === 'ELOOP') return { state: 'failed', error: WORDS.notFile, at };
    return { state: 'failed', error: `The file couldn’t be written (${error.code ?? oneLine(error.message)}).`, at };
  }
  return { state: 'sent', at };
}
