// What a new terminal window runs to take over a session the service ran:
// the relay with the agent resuming the conversation, every word checked,
// and, where a shell must read it (Terminal's `do script`), every word
// quoted so the shell sees it as one word whatever it holds.

import fs from 'node:fs/promises';
import path from 'node:path';

import { HttpError } from '../http-reply.js';

/** A session's or a Codex thread's id: a UUID, nothing else goes into a command. */
export const CONVERSATION_ID = /^[0-9a-f]{8}-[0-9a-f]{4}-[0-9a-f]{4}-[0-9a-f]{4}-[0-9a-f]{12}$/i;

export const NO_PROGRAM = 'The agent’s program can’t be found any more, so no terminal can take the session on.';
export const NO_THREAD = 'Codex hasn’t named this session’s conversation yet, so a terminal can’t resume it.';
export const BAD_ID = 'This session’s id can’t be put into a command safely.';
export const projectGone = (project) => `The session’s folder ${project} isn’t there any more.`;

/**
 * The command that resumes the session in a terminal shared with the service.
 *
 * @param {Object} facts
 * @param {string} facts.relay The relay program (an absolute path)
 * @param {string} facts.agent "claude" or "codex"
 * @param {string|null} facts.program The agent's program (an absolute path)
 * @param {string} facts.sessionId
 * @param {string|null} [facts.threadId] Codex's thread
 * @return {string[]} The program and its arguments
 * @throws {HttpError} 409 naming what can't go in
 */
export function resumeCommand({ relay, agent, program, sessionId, threadId = null }) {
  if (typeof program !== 'string' || !path.isAbsolute(program)) throw new HttpError(409, 'no_program', NO_PROGRAM);
  if (agent === 'codex') {
    if (typeof threadId !== 'string') throw new HttpError(409, 'no_thread', NO_THREAD);
    if (!CONVERSATION_ID.test(threadId)) throw new HttpError(409, 'bad_id', BAD_ID);
    return [relay, program, 'resume', threadId];
  }
  if (!CONVERSATION_ID.test(sessionId)) throw new HttpError(409, 'bad_id', BAD_ID);
  // Without --fork-session the conversation goes on under the same id.
  return [relay, program, '--resume', sessionId];
}

/**
 * @param {string} project The session's folder, a real path
 * @return {Promise<string>} The folder, still there
 * @throws {HttpError} 409 when it is gone, or is no longer a folder itself
 */
export async function existingProject(project) {
  // Kept as a real path when the session started: a link there now leads elsewhere.
  const stat = await fs.lstat(project).catch(() => null);
  if (stat === null || !stat.isDirectory()) throw new HttpError(409, 'project_gone', projectGone(project));
  return project;
}

/** One word for a POSIX shell (sh, bash, zsh): in single quotes, each quote closed, escaped and reopened. */
export const shellWord = (word) => `'${String(word).replaceAll("'", `'\\''`)}'`;

/**
 * The line a shell runs to start the command in the folder with the
 * variables; the shell is replaced, so it runs nothing after.
 *
 * @param {string} cwd
 * @param {Object<string, string>} variables Names are checked by the caller
 * @param {string[]} command
 */
export function shellLine(cwd, variables, command) {
  const exports = Object.entries(variables).map(([name, value]) => `export ${name}=${shellWord(value)} && `);
  return `cd ${shellWord(cwd)} && ${exports.join('')}exec ${command.map(shellWord).join(' ')}`;
}
