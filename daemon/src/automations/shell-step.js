// A shell step's command: run by /bin/sh in the project folder, in a session
// of its own (no terminal, its own process group), so that its time limit
// ends everything it started, not just the shell.

import { spawn } from 'node:child_process';
import os from 'node:os';

/** What a command keeps of its output: the last 64 KiB, where the end of a failure is told. */
export const OUTPUT_LIMIT = 64 * 1024;
/** How long a command has to end after SIGTERM before SIGKILL. */
export const KILL_GRACE_MS = 5000;
/** The limit of a step that gives none that holds, as a new shell step has. */
export const DEFAULT_TIMEOUT_SEC = 60;
/** The PATH a command gets, whatever the service itself was started with. */
export const CLEAN_PATH =
  process.platform === 'darwin'
    ? '/opt/homebrew/bin:/usr/local/bin:/usr/bin:/bin:/usr/sbin:/sbin'
    : '/usr/local/bin:/usr/bin:/bin:/usr/sbin:/sbin';

/**
 * Runs one command under `/bin/sh -c` and gives what came of it. Standard
 * output and error are taken together, in the order they came.
 *
 * @param {Object} step
 * @param {string} step.command The script, as the person wrote it; outside words reach it only through `env`
 * @param {string} step.cwd The folder it runs in
 * @param {Object<string, string>} [step.env={}] Its whole environment, but for PATH, which is {@link CLEAN_PATH}
 * @param {number} [step.timeoutSec=DEFAULT_TIMEOUT_SEC] Its limit: SIGTERM to its process group then, SIGKILL `killGraceMs` later
 * @param {number} [step.killGraceMs=KILL_GRACE_MS]
 * @return {Promise<{exit: (number|null), output: string, timedOut: boolean, dropped: number, error?: string}>}
 *     `exit` is the shell's status, 128 + the signal's number when a signal ended it, null when it
 *     never started (then `error` says why); `output` is the last {@link OUTPUT_LIMIT} bytes, and
 *     when `dropped` bytes before them were left out its first line says so
 */
export function runShell({ command, cwd, env = {}, timeoutSec, killGraceMs = KILL_GRACE_MS }) {
  return new Promise((resolve) => {
    const output = new OutputTail(OUTPUT_LIMIT);
    let timedOut = false;
    let killTimer = null;
    const child = spawn('/bin/sh', ['-c', command], {
      cwd,
      env: { ...env, PATH: CLEAN_PATH },
      stdio: ['ignore', 'pipe', 'pipe'],
      detached: true,
    });
    const signalGroup = (signal) => {
      try {
        process.kill(-child.pid, signal);
      } catch {
        // the group is gone already
      }
    };
    const limitTimer = setTimeout(() => {
      timedOut = true;
      signalGroup('SIGTERM');
      killTimer = setTimeout(() => signalGroup('SIGKILL'), killGraceMs);
    }, (Number.isFinite(timeoutSec) && timeoutSec > 0 ? timeoutSec : DEFAULT_TIMEOUT_SEC) * 1000);
    let done = false;
    const finish = (result) => {
      if (done) return;
      done = true;
      clearTimeout(limitTimer);
      clearTimeout(killTimer);
      resolve({ ...output.result(), timedOut, ...result });
    };
    child.stdout.on('data', (chunk) => output.add(chunk));
    child.stderr.on('data', (chunk) => output.add(chunk));
    child.on('error', (error) => finish({ exit: null, error: `The command couldn’t start in ${cwd} (${error.code ?? error.message}).` }));
    // 'close' waits for the pipes as well, so what a child left running
    // still writes is kept until the group ends or the limit ends it.
    child.on('close', (code, signal) => {
      finish({ exit: signal ? 128 + (os.constants.signals[signal] ?? 0) : code });
    });
  });
}

// Keeps the last `limit` bytes of a stream without holding the rest.
class OutputTail {
  #chunks = [];
  #kept = 0;
  #dropped = 0;

  constructor(limit) {
    this.limit = limit;
  }

  add(chunk) {
    this.#chunks.push(chunk);
    this.#kept += chunk.length;
    while (this.#kept - this.#chunks[0].length >= this.limit) {
      this.#kept -= this.#chunks[0].length;
      this.#dropped += this.#chunks.shift().length;
    }
  }

  result() {
    let bytes = Buffer.concat(this.#chunks);
    let dropped = this.#dropped;
    if (bytes.length > this.limit) {
      dropped += bytes.length - this.limit;
      bytes = bytes.subarray(bytes.length - this.limit);
    }
    // A cut may fall inside a character: its continuation bytes go too.
    let start = 0;
    while (dropped > 0 && start < bytes.length && start < 3 && (bytes[start] & 0xc0) === 0x80) start += 1;
    dropped += start;
    const text = bytes.subarray(start).toString('utf8');
    return { output: dropped > 0 ? `[the first ${dropped} bytes of output were left out]\n${text}` : text, dropped };
  }
}
