// A stand-in for Codex that writes its session records the way Codex does:
// one file per session under $CODEX_HOME/sessions/YYYY/MM/DD, named
// rollout-<local time>-<uuid>.jsonl, each line one JSON record
// {timestamp, type, payload} written whole with a single write. The shapes
// follow Codex's public protocol; see test/fixtures/codex/README.md.
//
// As a module it gives CodexStandIn, to write a session step by step. As a
// program it stands in for the `codex` binary's `--version`, saying
// "codex-cli $STANDIN_CODEX_VERSION".

import { randomUUID } from 'node:crypto';
import fs from 'node:fs';
import path from 'node:path';
import { fileURLToPath } from 'node:url';

const two = (n) => String(n).padStart(2, '0');

/** One Codex session being written; `clock` gives the time of each line. */
export class CodexStandIn {
  constructor({ home, cwd = process.cwd(), clock = () => new Date() }) {
    Object.assign(this, { cwd, clock, id: randomUUID(), calls: 0, started: clock() });
    // The folder and the name carry local time, the lines UTC.
    const s = this.started;
    const day = [s.getFullYear(), two(s.getMonth() + 1), two(s.getDate())];
    const stamp = `${day.join('-')}T${two(s.getHours())}-${two(s.getMinutes())}-${two(s.getSeconds())}`;
    this.file = path.join(home, 'sessions', ...day.map(String), `rollout-${stamp}-${this.id}.jsonl`);
  }

  /** Appends one record as one line, in one write. */
  write(type, payload) {
    fs.mkdirSync(path.dirname(this.file), { recursive: true });
    fs.appendFileSync(this.file, `${JSON.stringify({ timestamp: this.clock().toISOString(), type, payload })}\n`);
    return this;
  }

  /** The first line of every session file. */
  meta() {
    const { id, cwd } = this;
    return this.write('session_meta', { id, timestamp: this.started.toISOString(), cwd, originator: 'codex_cli_rs', cli_version: '0.170.0', source: 'cli', model_provider: 'openai' });
  }

  /** The person's request: the environment context first in a session, the request as item and event, the turn's context. */
  prompt(text) {
    const said = (words) => this.write('response_item', { type: 'message', role: 'user', content: [{ type: 'input_text', text: words }] });
    if (!this.prompted) said(`<environment_context>\n  <cwd>${this.cwd}</cwd>\n  <sandbox_mode>workspace-write</sandbox_mode>\n</environment_context>`);
    this.prompted = true;
    said(text);
    this.write('event_msg', { type: 'user_message', message: text, kind: 'plain' });
    return this.write('turn_context', { cwd: this.cwd, approval_policy: 'on-request', sandbox_policy: { mode: 'workspace-write' }, model: 'gpt-5-codex' });
  }

  /** A shell command the model runs; gives its call id. */
  shell(command) {
    const callId = `call_standin${++this.calls}`;
    const args = JSON.stringify({ command: ['bash', '-lc', command], workdir: this.cwd });
    this.write('response_item', { type: 'function_call', name: 'shell', arguments: args, call_id: callId });
    return callId;
  }

  /** What the command gave back. */
  toolOutput(callId, output) {
    return this.write('response_item', { type: 'function_call_output', call_id: callId, output: JSON.stringify({ output, metadata: { exit_code: 0 } }) });
  }

  /** The model's answer: the event, then the message item. */
  answer(text) {
    this.write('event_msg', { type: 'agent_message', message: text });
    return this.write('response_item', { type: 'message', role: 'assistant', content: [{ type: 'output_text', text }] });
  }

  /** A token count with the five-hour and weekly windows' percentages used, resetting in the seconds given. */
  tokenCount({ primary, secondary, primaryResetS = 3600, secondaryResetS = 86400 }) {
    const resetsAt = (seconds) => Math.floor(this.clock().getTime() / 1000) + seconds;
    const window = (used, minutes, seconds) => ({ used_percent: used, window_minutes: minutes, resets_at: resetsAt(seconds) });
    const rateLimits = { primary: window(primary, 300, primaryResetS), secondary: window(secondary, 10080, secondaryResetS) };
    return this.write('event_msg', { type: 'token_count', info: null, rate_limits: rateLimits });
  }
}

/**
 * Puts an executable `codex` into a folder that runs this stand-in with the
 * given version, for the service to find; gives its path.
 */
export function installStandInProgram(folder, { version = '0.170.0' } = {}) {
  fs.mkdirSync(folder, { recursive: true });
  const program = path.join(folder, 'codex');
  const quote = (text) => `'${text.replace(/'/g, `'\\''`)}'`;
  const script = `#!/bin/sh\nSTANDIN_CODEX_VERSION=${quote(version)} exec ${quote(process.execPath)} ${quote(fileURLToPath(import.meta.url))} "$@"\n`;
  fs.writeFileSync(program, script, { mode: 0o755 });
  return program;
}

if (process.argv[1] && fs.realpathSync(process.argv[1]) === fileURLToPath(import.meta.url)) {
  if (process.argv[2] === '--version') process.stdout.write(`codex-cli ${process.env.STANDIN_CODEX_VERSION}\n`);
  else process.exitCode = 2;
}
