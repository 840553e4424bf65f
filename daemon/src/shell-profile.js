// The shell integration: a fenced block in the person's zsh start file (and
// bash's where bash is the login shell) that runs `claude` and `codex`
// through Tidewatch's terminal relay. Only the block is ever written or
// taken out; every other line of the file stays as it was.

import fs from 'node:fs';
import path from 'node:path';

import { writeFileAtomically } from './private-files.js';

export const BLOCK_START = '# >>> Tidewatch >>>';
export const BLOCK_END = '# <<< Tidewatch <<<';

/** The largest start file read; larger ones are left alone. */
export const MAX_PROFILE_BYTES = 1024 * 1024;

/** The login shells the block is written for, by their start file. */
const START_FILES = { zsh: '.zshrc', bash: '.bashrc' };

/** Why a start file can't be changed; the message is a sentence for a person. */
export class ProfileError extends Error {}

const quoted = (word) => `'${word.replace(/'/g, `'\\''`)}'`;

/**
 * The block for a relay at `relay`. Without the relay (Tidewatch removed
 * without its uninstall) the agents run as they would without it.
 */
export function profileBlock(relay) {
  if (!path.isAbsolute(relay) || /[\n\r\0]/.test(relay)) throw new ProfileError('The terminal relay’s path can’t go into a shell file.');
  const r = quoted(relay);
  const run = (agent) => `${agent}() { if [ -x ${r} ]; then ${r} ${agent} "$@"; else command ${agent} "$@"; fi; }`;
  return [
    BLOCK_START,
    '# Runs claude and codex in terminals Tidewatch shares with your phone. Tidewatch adds and removes this block.',
    run('claude'),
    run('codex'),
    BLOCK_END,
  ].join('\n');
}

// The block's lines, from its start to its end, or null when there is none.
function findBlock(lines) {
  const start = lines.indexOf(BLOCK_START);
  if (start < 0) return null;
  const end = lines.indexOf(BLOCK_END, start);
  return end < 0 ? null : { start, end };
}

/** @return {string} `text` with the block in it, replacing an older one in place. */
export function withBlock(text, block) {
  const lines = text.split('\n');
  const found = findBlock(lines);
  if (found) {
    lines.splice(found.start, found.end - found.start + 1, ...block.split('\n'));
    return lines.join('\n');
  }
  const body = text === '' || text.endsWith('\n') ? text : `${text}\n`;
  return `${body}${body === '' ? '' : '\n'}${block}\n`;
}

/** @return {string} `text` without the block, and without the blank line withBlock put before it. */
export function withoutBlock(text) {
  const lines = text.split('\n');
  const found = findBlock(lines);
  if (!found) return text;
  const before = found.start > 0 && lines[found.start - 1] === '' ? 1 : 0;
  lines.splice(found.start - before, found.end - found.start + 1 + before);
  return lines.join('\n');
}

/** @return {boolean} Whether `text` holds the block. */
export const hasBlock = (text) => findBlock(text.split('\n')) !== null;

/**
 * The start files for this person: zsh's always on a Mac, and on Linux the
 * one of the login shell.
 *
 * @param {Object} where
 * @param {string} where.home
 * @param {string} where.shell The login shell's path
 * @param {string} [where.platform=process.platform]
 * @return {string[]} Empty when the login shell is neither zsh nor bash
 */
export function profilesFor({ home, shell, platform = process.platform }) {
  const name = path.basename(shell ?? '');
  const files = new Set();
  if (platform === 'darwin') files.add(START_FILES.zsh);
  if (START_FILES[name]) files.add(START_FILES[name]);
  return [...files].map((file) => path.join(home, file));
}

function read(file) {
  let stat;
  try {
    stat = fs.statSync(file);
  } catch (error) {
    if (error.code === 'ENOENT') return { text: '', mode: null };
    throw new ProfileError(`Your shell’s start file (${file}) can’t be read: ${error.code}.`);
  }
  if (!stat.isFile() || stat.size > MAX_PROFILE_BYTES)
    throw new ProfileError(`Your shell’s start file (${file}) isn’t a file Tidewatch can change.`);
  return { text: fs.readFileSync(file, 'utf8'), mode: stat.mode & 0o7777 };
}

/**
 * Rewrites a start file in one step, its mode kept.
 *
 * @param {string} file
 * @param {function(string): string} change
 * @throws {ProfileError}
 */
export function changeProfile(file, change) {
  const { text, mode } = read(file);
  const next = change(text);
  if (next === text || (mode === null && next === '')) return;
  try {
    // A home not made yet (a test copy's) gets its folder, private to the person.
    if (mode === null) fs.mkdirSync(path.dirname(file), { recursive: true, mode: 0o700 });
    // A start file kept elsewhere behind a link (a dotfiles folder) stays there.
    writeFileAtomically(mode === null ? file : fs.realpathSync(file), next, mode ?? 0o644);
  } catch (error) {
    throw new ProfileError(`Your shell’s start file (${file}) can’t be written: ${error.code ?? error.message}.`);
  }
}

/** @return {boolean} Whether every one of the files holds the block. */
export function profilesHold(files) {
  if (files.length === 0) return false;
  return files.every((file) => {
    try {
      return hasBlock(read(file).text);
    } catch {
      return false;
    }
  });
}
