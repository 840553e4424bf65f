// A program in a tmux server of its own: a real terminal for the suites that
// need one, read back as the person would see it.

import { spawnSync } from 'node:child_process';

import { eventually, sleep } from '../helpers.js';

const quote = (word) => `'${word.replace(/'/g, `'\\''`)}'`;

function alive(pid) {
  try {
    process.kill(pid, 0);
    return true;
  } catch {
    return false;
  }
}

/**
 * Starts `argv` with exactly `env` in a 160×50 pane; the server is killed
 * after the test, and `cleanup` runs once the program has ended.
 *
 * @return {{pid, tmux, screen, keys, type, waitFor}}
 */
export function tmuxPane(t, argv, { env, cwd, cleanup = () => {} }) {
  const socket = `tidewatch-test-${process.pid}-${Math.random().toString(16).slice(2, 8)}`;
  const tmux = (...args) => spawnSync('tmux', ['-L', socket, ...args], { encoding: 'utf8' });
  const command = ['env', '-i', ...Object.entries(env).map(([k, v]) => `${k}=${v}`), ...argv].map(quote).join(' ');
  const started = tmux('new-session', '-d', '-s', 'pane', '-x', '160', '-y', '50', '-c', cwd, command);
  if (started.status !== 0) throw new Error(`tmux didn’t start: ${started.stderr}`);
  const pid = Number(tmux('display-message', '-p', '-t', 'pane', '#{pane_pid}').stdout);
  t.after(async () => {
    tmux('kill-server');
    for (let waited = 0; pid > 0 && waited < 5000 && alive(pid); waited += 50) await sleep(50);
    // A cleanup that throws would skip the ones after it and leave servers open.
    try {
      cleanup();
    } catch {
      // left for the scratch folder's own cleanup
    }
  });
  const screen = () => tmux('capture-pane', '-p', '-t', 'pane').stdout ?? '';
  return {
    pid,
    tmux,
    screen,
    keys: (...keys) => tmux('send-keys', '-t', 'pane', ...keys),
    async type(text) {
      tmux('send-keys', '-t', 'pane', '-l', text);
      await sleep(300);
      tmux('send-keys', '-t', 'pane', 'Enter');
    },
    waitFor: (pattern, what, timeoutMs = 20000) => eventually(() => pattern.test(screen()) && screen(), what, timeoutMs),
  };
}
