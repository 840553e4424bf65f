// One turn of a Codex session the service runs itself: `codex exec --json`
// in the project, its events (JSON lines) told to the session record. Codex
// runs it without asking anyone, within the sandbox its mode gives.

import { MAX_LAST_TEXT_CHARS } from '../claude/hook-event.js';
import { cut, isObject } from '../json.js';
import { runJsonLines } from '../json-lines-process.js';

export const NO_CODEX = 'Codex isn’t installed on this computer, so Tidewatch can’t start a session with it.';

// Codex's sandbox for each of the modes a request may name.
function sandboxArgs(permissionMode) {
  if (permissionMode === 'plan') return ['--sandbox', 'read-only'];
  if (permissionMode === 'bypassPermissions') return ['--dangerously-bypass-approvals-and-sandbox'];
  return ['--sandbox', 'workspace-write'];
}

/**
 * The session after one event of `codex exec --json`.
 *
 * @param {Object} session
 * @param {Object} event
 * @param {number} now Epoch ms
 * @return {Object}
 */
export function sessionAfterCodexEvent(session, event, now) {
  if (!isObject(event)) return session;
  const next = { ...session, lastActivityAt: now };
  const item = isObject(event.item) ? event.item : {};
  switch (event.type) {
    case 'thread.started':
      if (typeof event.thread_id === 'string') next.codexThreadId = event.thread_id;
      return next;
    case 'item.started':
      if (item.type === 'command_execution' && typeof item.command === 'string') next.activity = cut(item.command, 200);
      next.state = 'working';
      return next;
    case 'item.completed':
      if (item.type === 'agent_message' && typeof item.text === 'string' && item.text.trim() !== '')
        next.lastText = cut(item.text, MAX_LAST_TEXT_CHARS);
      delete next.activity;
      return next;
    case 'turn.completed':
      delete next.activity;
      next.state = 'idle';
      return next;
    case 'turn.failed':
    case 'error': {
      const text = event.error?.message ?? event.message;
      delete next.activity;
      next.state = 'error';
      if (typeof text === 'string' && text.trim() !== '') next.lastText = cut(text, MAX_LAST_TEXT_CHARS);
      return next;
    }
    default:
      return session;
  }
}

export class CodexRun {
  #options;
  #abort = new AbortController();

  /**
   * @param {Object} options
   * @param {SessionRequest} options.request
   * @param {string} options.prompt
   * @param {string|null} options.resumeThread Codex's own id of the conversation to go on with
   * @param {string} options.program The `codex` to run
   * @param {Object<string, string>} options.env The whole environment it runs in
   * @param {function(Object): void} options.message Hears each event
   */
  constructor(options) {
    this.#options = options;
  }

  async usesSdk() {
    return false;
  }

  stop() {
    this.#abort.abort();
  }

  async run() {
    const { request, prompt, resumeThread, program, env, message } = this.#options;
    const args = ['exec', ...(resumeThread ? ['resume', resumeThread] : []), '--json', '--skip-git-repo-check'];
    if (request.model) args.push('--model', request.model);
    args.push(...sandboxArgs(request.permissionMode), '-');
    await runJsonLines(program, args, {
      cwd: request.project,
      env,
      input: prompt,
      signal: this.#abort.signal,
      line: message,
      name: 'Codex',
    });
  }
}
