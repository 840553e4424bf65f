// One turn of a Claude Code session the service runs itself: through the
// agent SDK, whose permission callback waits on the same held approval a
// terminal session's hook waits on; or, where the SDK can't be loaded,
// through `claude -p` printing the same messages as JSON lines, whose
// requests reach the approvals through the installed hooks.

import { runJsonLines } from '../json-lines-process.js';
import { answerFor, QUESTION_DENY_MESSAGE } from './permission.js';

/** What Claude (the model) reads when nobody answered a request in time. */
export const NOBODY_ANSWERED = 'Nobody answered this request in Tidewatch in time.';

export const NO_CLAUDE = 'Claude Code isn’t installed on this computer, so Tidewatch can’t start a session with it.';

let sdkLoading = null;

/** @return {Promise<Object|null>} The agent SDK's module, or null when it can't be loaded. */
export function loadClaudeSdk() {
  sdkLoading ??= import('@anthropic-ai/claude-agent-sdk').catch(() => null);
  return sdkLoading;
}

/** The SDK's answer for a decision given to an approval; a request nobody answered is refused. */
function permissionResult(answer, input) {
  if (answer === null) return { behavior: 'deny', message: NOBODY_ANSWERED };
  // A question's options are chosen where they are shown, which a session without a terminal hasn't.
  const decision = answerFor(answer.decision, answer.event)?.hookSpecificOutput.decision;
  if (!decision) return { behavior: 'deny', message: QUESTION_DENY_MESSAGE };
  if (decision.behavior === 'deny') return { behavior: 'deny', message: decision.message };
  const result = { behavior: 'allow', updatedInput: input };
  if (decision.updatedPermissions) result.updatedPermissions = decision.updatedPermissions;
  return result;
}

export class ClaudeRun {
  #options;
  #abort = new AbortController();

  /**
   * @param {Object} options
   * @param {string} options.sessionId Ours from the start: the SDK takes it as the session's id
   * @param {SessionRequest} options.request
   * @param {string} options.prompt This turn's prompt
   * @param {boolean} options.resume Goes on with the session's conversation
   * @param {string|null} options.program The `claude` to run; null lets the SDK use its own
   * @param {Object<string, string>} options.env The whole environment it runs in
   * @param {ClaudeAgent} options.claude Holds the approvals
   * @param {function(Object): void} options.message Hears each message
   * @param {function(): Promise<Object|null>} [options.sdk=loadClaudeSdk]
   */
  constructor(options) {
    this.#options = { sdk: loadClaudeSdk, ...options };
  }

  /** @return {Promise<boolean>} Whether the SDK runs it (its requests wait here, not on the hooks). */
  async usesSdk() {
    return (await this.#options.sdk()) !== null;
  }

  /**
   * Runs the turn to its end.
   *
   * @throws {Error} With a sentence when Claude Code couldn't run
   */
  async run() {
    const sdk = await this.#options.sdk();
    if (sdk) return this.#runSdk(sdk);
    if (!this.#options.program) throw new Error(NO_CLAUDE);
    return this.#runPrint();
  }

  stop() {
    this.#abort.abort();
  }

  async #runSdk(sdk) {
    const { sessionId, request, prompt, resume, program, env, claude, message } = this.#options;
    const options = {
      cwd: request.project,
      env,
      permissionMode: request.permissionMode,
      allowedTools: request.allowedTools,
      abortController: this.#abort,
      canUseTool: async (toolName, input, { signal, suggestions, toolUseID }) =>
        permissionResult(
          await claude.decide({ sessionId, toolName, input, toolUseId: toolUseID, suggestions, cwd: request.project, signal }),
          input,
        ),
    };
    if (request.permissionMode === 'bypassPermissions') options.allowDangerouslySkipPermissions = true;
    if (program) options.pathToClaudeCodeExecutable = program;
    if (resume) options.resume = sessionId;
    else options.sessionId = sessionId;
    for await (const each of sdk.query({ prompt, options })) message(each);
  }

  async #runPrint() {
    const { sessionId, request, prompt, resume, program, env, message } = this.#options;
    const args = ['-p', '--output-format', 'stream-json', '--verbose', '--permission-mode', request.permissionMode];
    args.push(...(resume ? ['--resume', sessionId] : ['--session-id', sessionId]));
    if (request.allowedTools.length > 0) args.push('--allowedTools', ...request.allowedTools);
    // The prompt on standard input: a prompt starting with “-” is no option.
    await runJsonLines(program, args, {
      cwd: request.project,
      env,
      input: prompt,
      signal: this.#abort.signal,
      line: message,
      name: 'Claude Code',
    });
  }
}
