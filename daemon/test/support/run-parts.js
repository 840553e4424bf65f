// Small real versions of the places a run reaches, for the run suites: a
// shell step that really runs /bin/sh in its own process group, a desktop
// notification that is recorded, reading aloud that fails as the service's
// does without a voice engine, outputs that are recorded as delivered, the
// automations as a plain book, and a clock a test moves.

import { spawn } from 'node:child_process';
import fs from 'node:fs';
import path from 'node:path';

import { RunEngine } from '../../src/automations/run-engine.js';
import { scratchFolder } from '../helpers.js';

export const NO_VOICE = 'Tidewatch has no voice to read aloud with yet.';

/** /bin/sh -c in the folder, its group ended at the limit or when the signal aborts. */
export function runShell({ command, cwd, env, timeoutSec, signal }) {
  return new Promise((resolve) => {
    const child = spawn('/bin/sh', ['-c', command], { cwd, env: { ...env, PATH: '/usr/bin:/bin' }, detached: true });
    let output = '';
    let timedOut = false;
    const end = () => {
      try {
        process.kill(-child.pid, 'SIGKILL');
      } catch {
        // already gone
      }
    };
    child.stdout.on('data', (chunk) => (output += chunk));
    child.stderr.on('data', (chunk) => (output += chunk));
    const timer = setTimeout(() => {
      timedOut = true;
      end();
    }, timeoutSec * 1000);
    signal?.addEventListener('abort', end);
    child.on('close', (code) => {
      clearTimeout(timer);
      resolve({ exit: code, output, timedOut });
    });
  });
}

/** The parts of an engine, and the engine, over a scratch support folder. */
export async function engineParts(t, { folder, projects, automations = [], usage = null, sessions = null, tickEveryMs = 0 } = {}) {
  folder ??= await scratchFolder(t);
  fs.mkdirSync(path.join(folder, 'support'), { recursive: true, mode: 0o700 });
  const book = new Map(automations.map((each) => [each.id, each]));
  const parts = {
    folder,
    support: path.join(folder, 'support'),
    book,
    clock: { t: Date.UTC(2026, 10, 30, 8, 0), now() { return this.t; } },
    notified: [],
    delivered: [],
    published: [],
    usage: { value: usage },
  };
  const make = () => {
    const engine = new RunEngine({
      clock: parts.clock,
      store: { get: (id) => book.get(id) ?? null, secretOf: (id, outputId) => `secret-of-${outputId}` },
      steps: {
        runShell,
        notifyDesktop: async (title, text) => parts.notified.push({ title, text }),
        sayAloud: async () => ({ state: 'failed', error: NO_VOICE }),
      },
      outputs: {
        deliver: async (output, secret, message) => {
          parts.delivered.push({ output, secret, message });
          return { state: 'sent', at: parts.clock.now() };
        },
      },
      usage: () => parts.usage.value,
      publish: (id, run) => parts.published.push({ id, run }),
      support: parts.support,
      sessions,
      facts: { battery: () => 81 },
      projectsRoot: () => projects ?? folder,
      tickEveryMs,
    });
    t.after(() => engine.close());
    return engine;
  };
  return { ...parts, engine: make(), make };
}
