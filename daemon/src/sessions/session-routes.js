// The door where sessions are started: `POST /v1/sessions`, with the admin
// token like every local route. The reply is the new session's record.

import { invalid } from '../http-reply.js';
import { readJsonObject } from '../request-body.js';
import { NO_CODEX } from '../codex/codex-run.js';
import { checkSessionRequest } from './session-request.js';

/**
 * @param {Router} router
 * @param {Object} parts
 * @param {SessionRunner} parts.runner
 * @param {string} parts.home The person's home folder, where projects must lie
 * @param {function(): (string|null)} parts.codexProgram The `codex` found, or null
 */
export function addSessionRoutes(router, { runner, home, codexProgram }) {
  router.add('POST', '/v1/sessions', async ({ req }) => {
    const request = await checkSessionRequest(await readJsonObject(req), home);
    if (request.agent === 'codex' && codexProgram() === null) throw invalid('agent', NO_CODEX);
    return { session: runner.start(request) };
  });
}
