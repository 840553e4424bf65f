// A stand-in for Codex that writes its session records the way Codex does:
// one file per session under $CODEX_HOME/sessions/YYYY/MM/DD, named
// rollout-<local time>-<uuid>.jsonl, each line one JSON record
// {timestamp, type, payload} written whole with a single write. The shapes
// follow Codex's public protocol (RolloutLine, SessionMeta, TurnContextItem,
// ResponseItem, EventMsg, TokenCountEvent, RateLimitSnapshot); see
// test/fixtures/codex/README.md.
//
// As a module it gives CodexStandIn, to write a session step by step. As a
// program it stands in for the `codex` binary:
//
//   node codex-standin.js --version            prints "codex-cli <version>"
//   node codex-standin.js exec [--step-ms N] [--limits P,S] "<prompt>"
//                                              plays one turn into $CODEX_HOME
//
// The version is STANDIN_CODEX_VERSION, or 0.170.0.

import { randomUUID } from 'node:crypto';
import fs from 'node:fs';
import path from 'node:path';
import { setTimeout as sleep } from 'node:timers/promises';
import { fileURLToPath } from 'node:url';

export const DEFAULT_STANDIN_VERSION = '0.170.0';

const two = (n) => String(n).padStart(2, '0');

/**
 * One Codex session being written.
 */
export class CodexStandIn {
  /**
   * @param {Object} options
   * @param {string} options.home The Codex home ($CODEX_HOME)
   * @param {string} [options.cwd=process.cwd()]
   * @param {string} [options.version=DEFAULT_STANDIN_VERSION] Goes into `cli_version`
   * @param {string|Object} [options.source='cli'] "cli", "exec", "vscode", or {subagent: …}
   * @param {string} [options.id] The session's uuid
   * @param {function(): Date} [options.clock] The time written on each line
   * @param {string} [options.resets='at'] "at" writes `resets_at` (epoch
   *     seconds), "in" the older `resets_in_seconds`
   */
  constructor({
    home,
    cwd = process.cwd(),
    version = DEFAULT_STANDIN_VERSION,
    source = 'cli',
    id = randomUUID(),
    clock = () => new Date(),
    resets = 'at',
  }) {
    this.home = home;
    this.cwd = cwd;
    this.version = version;
    this.source = source;
    this.id = id;
    this.clock = clock;
    this.resets = resets;
    this.calls = 0;
    const started = clock();
    // The folder and the name carry local time, the lines UTC.
    const folder = path.join(
      home,
      'sessions',
      String(started.getFullYear()),
      two(started.getMonth() + 1),
      two(started.getDate()),
    );
    const stamp =
      `${started.getFullYear()}-${two(started.getMonth() + 1)}-${two(started.getDate())}` +
      `T${two(started.getHours())}-${two(started.getMinutes())}-${two(started.getSeconds())}`;
    this.file = path.join(folder, `rollout-${stamp}-${id}.jsonl`);
    this.started = started;
  }

  /** Appends one record as one line, in one write. */
  write(type, payload) {
    fs.mkdirSync(path.dirname(this.file), { recursive: true });
    const line = `${JSON.stringify({ timestamp: this.clock().toISOString(), type, payload })}\n`;
    fs.appendFileSync(this.file, line);
    return this;
  }

  /** Appends raw text, for a line caught half-written or a broken one. */
  writeRaw(text) {
    fs.mkdirSync(path.dirname(this.file), { recursive: true });
    fs.appendFileSync(this.file, text);
    return this;
  }

  /** The first line of every session file. */
  meta() {
    return this.write('session_meta', {
      id: this.id,
      timestamp: this.started.toISOString(),
      cwd: this.cwd,
      originator: this.source === 'exec' ? 'codex_exec' : 'codex_cli_rs',
      cli_version: this.version,
      instructions: null,
      source: this.source,
      model_provider: 'openai',
      git: {},
    });
  }

  /**
   * The person's request: the environment context Codex sends first in a
   * session, the request as the model sees it and as an event, and the
   * turn's context.
   */
  prompt(text, { model = 'gpt-5-codex', sandbox = 'workspace-write', approval = 'on-request' } = {}) {
    if (!this.prompted) {
      this.write('response_item', {
        type: 'message',
        role: 'user',
        content: [
          {
            type: 'input_text',
            text: [
              '<environment_context>',
              `  <cwd>${this.cwd}</cwd>`,
              `  <approval_policy>${approval}</approval_policy>`,
              `  <sandbox_mode>${sandbox}</sandbox_mode>`,
              '  <network_access>restricted</network_access>',
              '  <shell>bash</shell>',
              '</environment_context>',
            ].join('\n'),
          },
        ],
      });
      this.prompted = true;
    }
    this.write('response_item', { type: 'message', role: 'user', content: [{ type: 'input_text', text }] });
    this.write('event_msg', { type: 'user_message', message: text, kind: 'plain' });
    return this.write('turn_context', {
      cwd: this.cwd,
      approval_policy: approval,
      sandbox_policy: { mode: sandbox, network_access: false, exclude_tmpdir_env_var: false, exclude_slash_tmp: false },
      model,
      effort: 'medium',
      summary: 'auto',
    });
  }

  /** A reasoning summary: as an event, and the item with its encrypted content. */
  reasoning(text) {
    this.write('event_msg', { type: 'agent_reasoning', text });
    return this.write('response_item', {
      type: 'reasoning',
      summary: [{ type: 'summary_text', text }],
      content: null,
      encrypted_content: 'gAAAAABstandin',
    });
  }

  /**
   * A shell command the model runs.
   *
   * @return {string} Its call id, for {@link toolOutput}
   */
  shell(command) {
    this.calls += 1;
    const callId = `call_standin${this.calls}`;
    this.write('response_item', {
      type: 'function_call',
      name: 'shell',
      arguments: JSON.stringify({ command: ['bash', '-lc', command], workdir: this.cwd }),
      call_id: callId,
    });
    return callId;
  }

  /** What the command gave back. */
  toolOutput(callId, output, exitCode = 0) {
    return this.write('response_item', {
      type: 'function_call_output',
      call_id: callId,
      output: JSON.stringify({ output, metadata: { exit_code: exitCode, duration_seconds: 0.1 } }),
    });
  }

  /** The model's answer: the event, then the message item. */
  answer(text) {
    this.write('event_msg', { type: 'agent_message', message: text });
    return this.write('response_item', { type: 'message', role: 'assistant', content: [{ type: 'output_text', text }] });
  }

  /**
   * A token count with the rate-limit windows, as Codex writes after each
   * model response.
   *
   * @param {Object} [limits]
   * @param {number} [limits.primary] Percent of the five-hour window used
   * @param {number} [limits.secondary] Percent of the weekly window used
   * @param {number} [limits.primaryResetS=3600] Seconds until it resets
   * @param {number} [limits.secondaryResetS=86400]
   */
  tokenCount({ primary, secondary, primaryResetS = 3600, secondaryResetS = 86400 } = {}) {
    const window = (used, minutes, inSeconds) => {
      if (used === undefined) return null;
      const reset =
        this.resets === 'in'
          ? { resets_in_seconds: inSeconds }
          : { resets_at: Math.floor(this.clock().getTime() / 1000) + inSeconds };
      return { used_percent: used, window_minutes: minutes, ...reset };
    };
    const usage = { input_tokens: 2946, cached_input_tokens: 0, output_tokens: 7, reasoning_output_tokens: 0, total_tokens: 2953 };
    return this.write('event_msg', {
      type: 'token_count',
      info: { total_token_usage: usage, last_token_usage: usage, model_context_window: 272000 },
      rate_limits:
        primary === undefined && secondary === undefined
          ? null
          : { primary: window(primary, 300, primaryResetS), secondary: window(secondary, 10080, secondaryResetS) },
    });
  }

  /** The person pressed Esc: the turn stops. */
  aborted() {
    return this.write('event_msg', { type: 'turn_aborted', reason: 'interrupted' });
  }
}

/**
 * Puts an executable `codex` into a folder that runs this stand-in with the
 * given version, for the service to find.
 *
 * @param {string} folder
 * @param {Object} [options]
 * @param {string} [options.version=DEFAULT_STANDIN_VERSION]
 * @return {string} The program's path
 */
export function installStandInProgram(folder, { version = DEFAULT_STANDIN_VERSION } = {}) {
  fs.mkdirSync(folder, { recursive: true });
  const program = path.join(folder, 'codex');
  const quote = (text) => `'${text.replace(/'/g, `'\\''`)}'`;
  fs.writeFileSync(
    program,
    `#!/bin/sh\nSTANDIN_CODEX_VERSION=${quote(version)} exec ${quote(process.execPath)} ${quote(fileURLToPath(import.meta.url))} "$@"\n`,
    { mode: 0o755 },
  );
  return program;
}

// One scripted turn, a step every `stepMs`: the request, a command and its
// output, the answer, the token count.
async function playTurn(prompt, { stepMs, limits }) {
  const home = process.env.CODEX_HOME;
  const session = new CodexStandIn({ home, version: process.env.STANDIN_CODEX_VERSION ?? DEFAULT_STANDIN_VERSION });
  process.stdout.write(`${session.file}\n`);
  const steps = [
    () => session.meta(),
    () => session.prompt(prompt),
    () => session.reasoning('**Running the tests**'),
    () => session.shell('npm test'),
    () => session.toolOutput(`call_standin${session.calls}`, 'ok 1 - all good\n'),
    () => session.answer('The tests pass.'),
    () => session.tokenCount({ primary: limits[0], secondary: limits[1] }),
  ];
  for (const step of steps) {
    step();
    await sleep(stepMs);
  }
}

async function main(args) {
  if (args[0] === '--version') {
    process.stdout.write(`codex-cli ${process.env.STANDIN_CODEX_VERSION ?? DEFAULT_STANDIN_VERSION}\n`);
    return;
  }
  if (args[0] === 'exec') {
    if (!process.env.CODEX_HOME) {
      process.stderr.write('Set CODEX_HOME: the stand-in never writes into a real ~/.codex.\n');
      process.exitCode = 2;
      return;
    }
    let stepMs = 0;
    let limits = [12.5, 40];
    const rest = args.slice(1);
    while (rest[0]?.startsWith('--')) {
      const flag = rest.shift();
      const value = rest.shift();
      if (flag === '--step-ms') stepMs = Number(value);
      else if (flag === '--limits') limits = value.split(',').map(Number);
    }
    await playTurn(rest.join(' '), { stepMs, limits });
    return;
  }
  process.stderr.write('The stand-in knows only --version and exec.\n');
  process.exitCode = 2;
}

if (process.argv[1] && fs.realpathSync(process.argv[1]) === fileURLToPath(import.meta.url)) {
  await main(process.argv.slice(2));
}
