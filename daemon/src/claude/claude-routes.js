// The local port's doors for Claude Code's hooks: the events that only
// report (from the hook program, or posted by Claude Code's HTTP hooks with
// the hook credential), the permission request that waits for its answer (a
// long poll the hook repeats until it hears one), and the status line. Each body is the
// payload as Claude Code gave it; one that can't be taken is a 400 and
// changes nothing.

import { HttpError, invalid } from '../http-reply.js';
import { readJsonObject } from '../request-body.js';
import { checkHookEvent, HookEventError, MAX_ID_CHARS } from './hook-event.js';
import { MAX_POLL_MS } from './approval-broker.js';
import { answerFor } from './permission.js';
import { TERM_ID } from '../terminals/shared-terminal.js';
import { TTY } from '../windows/window-raiser-mac.js';
import { HOOK_REPORT_PATH, TERM_HEADER, WAITING_EVENT } from './hook-settings.js';

/** The largest payload a hook may post, in bytes; the hook cuts larger ones down first. */
export const MAX_HOOK_BODY_BYTES = 1024 * 1024;

/** The largest status line input taken, in bytes. */
export const MAX_STATUS_BODY_BYTES = 64 * 1024;

const REQUEST = /^[A-Za-z0-9-]{8,64}$/;

/** A process id as the hook tells it: the agent's, on this machine. */
const PID = /^[1-9][0-9]{0,9}$/;

/** @return {AgentPlace|null} Where the hook said the agent runs, from its query. */
function placeFrom(url) {
  const pid = url.searchParams.get('pid');
  const tty = url.searchParams.get('tty_path');
  if (pid === null) return null;
  if (!PID.test(pid) || !Number.isSafeInteger(Number(pid))) throw invalid('pid', '“pid” must be a process id.');
  if (tty !== null && !TTY.test(tty)) throw invalid('tty_path', '“tty_path” must be a terminal device such as /dev/ttys003.');
  return tty === null ? { pid: Number(pid) } : { pid: Number(pid), tty };
}

function checked(event) {
  try {
    return checkHookEvent(event);
  } catch (error) {
    if (error instanceof HookEventError) {
      throw error.field ? invalid(error.field, error.message) : new HttpError(400, 'invalid', error.message);
    }
    throw error;
  }
}

/**
 * Adds the hook program's routes to the local port's table.
 *
 * @param {Router} router
 * @param {Object} parts
 * @param {ClaudeAgent} parts.claude
 * @param {TerminalHub} [parts.terminals] Told which terminal a session runs in
 * @param {AgentPlaces} [parts.places] Told which process runs a session
 * @param {function(Object): void} [parts.heard] Told of each hook event once Claude Code's side took it
 */
export function addClaudeRoutes(router, { claude, terminals = null, places = null, heard = null }) {
  const report = async (event, { tty, term, place = null }) => {
    if (term !== null && !TERM_ID.test(term)) throw invalid('term', '“term” must be a terminal’s id: 32 hex digits.');
    await claude.hookEvent(event, { tty: tty || term !== null });
    if (term !== null) terminals?.link(event.session_id, term);
    if (place !== null) places?.note(event.session_id, place);
    heard?.(event);
  };
  router
    .add('POST', '/claude/hook', async ({ req, url }) => {
      const event = checked(await readJsonObject(req, MAX_HOOK_BODY_BYTES));
      await report(event, {
        tty: url.searchParams.get('tty') === '1',
        term: url.searchParams.get('term'),
        place: placeFrom(url),
      });
      return { ok: true };
    })
    .add(
      'POST',
      HOOK_REPORT_PATH,
      async ({ req }) => {
        const event = checked(await readJsonObject(req, MAX_HOOK_BODY_BYTES));
        // A report can't stand for a request: those wait on their own door, with the admin token.
        if (event.hook_event_name === WAITING_EVENT)
          throw invalid('hook_event_name', 'A “PermissionRequest” waits for its answer on its own door.');
        // Claude Code sends the header empty where the relay set no terminal.
        const term = req.headers[TERM_HEADER.toLowerCase()] || null;
        await report(event, { tty: false, term });
        // Read by Claude Code as a hook's output: nothing to add.
        return {};
      },
      { hook: true },
    )
    .add('POST', '/claude/permission', async ({ req, res, url }) => {
      const request = url.searchParams.get('request') ?? '';
      if (!REQUEST.test(request))
        throw invalid('request', 'The request needs its “request” nonce: 8 to 64 letters, digits or “-”.');
      const waitText = url.searchParams.get('wait');
      const waitMs = waitText === null ? MAX_POLL_MS : Number(waitText);
      if (!Number.isInteger(waitMs) || waitMs < 0)
        throw invalid('wait', '“wait” must be a whole number of milliseconds.');
      const event = checked(await readJsonObject(req, MAX_HOOK_BODY_BYTES));
      if (event.hook_event_name !== 'PermissionRequest') {
        throw invalid('hook_event_name', 'Only a “PermissionRequest” waits for an answer.');
      }
      const gone = new AbortController();
      res.on('close', () => gone.abort());
      const reply = await claude.permission(event, { request, waitMs, signal: gone.signal });
      if (reply.state !== 'answered') return reply;
      // The answer is built from the request as this hook sent it, so it
      // always fits the call it allows.
      const output = answerFor(reply.decision, event);
      return output === null ? { state: 'released', id: reply.id } : { ...reply, output };
    })
    .add('POST', '/claude/status-line', async ({ req }) => {
      const input = await readJsonObject(req, MAX_STATUS_BODY_BYTES);
      const id = input.session_id;
      if (
        id !== undefined &&
        (typeof id !== 'string' || id.length === 0 || id.length > MAX_ID_CHARS || !/^[A-Za-z0-9._:-]+$/.test(id))
      ) {
        throw invalid('session_id', '“session_id” must be an id of letters, digits, “.”, “_”, “:” or “-”.');
      }
      if (
        input.cwd !== undefined &&
        (typeof input.cwd !== 'string' || input.cwd.length > 4096 || !input.cwd.startsWith('/'))
      ) {
        throw invalid('cwd', '“cwd” must be an absolute path.');
      }
      claude.statusLine(input);
      return { ok: true };
    });
}
