// Real Claude Code for the end-to-end suites, offline: the program pinned in
// test/tools (npm ci there), a scratch home with the integration installed
// in its settings, and the Messages API stand-in as its server. Nothing here
// reads or writes the person's own ~/.claude or ~/.config.

import { spawn, spawnSync } from 'node:child_process';
import fs from 'node:fs';
import path from 'node:path';
import { fileURLToPath } from 'node:url';

import { installIntoSettings } from '../../src/claude/hook-settings.js';
import { sleep } from '../helpers.js';
import { tmuxPane } from './tmux-pane.js';
import { startMessagesStandIn } from './messages-standin.js';

const here = path.dirname(fileURLToPath(import.meta.url));

/** The pinned `claude`; absent until `npm ci` ran in test/tools. */
export const CLAUDE = path.join(here, '..', 'tools', 'node_modules', '.bin', 'claude');

const API_KEY = 'sk-ant-tidewatch-test-key';

/** The hook program the integration installs. */
export const HOOK_PROGRAM = path.resolve(here, '..', '..', 'bin', 'tidewatch-hook.mjs');

/** Why the suites can't run here, or null when they can. */
export const missingClaude = () =>
  fs.existsSync(CLAUDE) ? null : 'Claude Code isn’t installed for the tests (npm ci in daemon/test/tools).';
export const missingTmux = () => (spawnSync('tmux', ['-V']).status === 0 ? null : 'tmux isn’t installed.');

/**
 * A scratch home for Claude Code: the integration installed over `settings`
 * (`place` changes where the hooks run and post), onboarding done, the project trusted.
 */
export function claudeHome(folder, support, { settings = {}, place = {} } = {}) {
  const home = path.join(folder, 'home');
  const project = path.join(folder, 'project');
  fs.mkdirSync(path.join(home, '.claude'), { recursive: true });
  fs.mkdirSync(project, { recursive: true });
  const settingsFile = path.join(home, '.claude', 'settings.json');
  const installed = installIntoSettings(settings, { node: process.execPath, program: HOOK_PROGRAM, support, ...place });
  fs.writeFileSync(settingsFile, JSON.stringify(installed, null, 2));
  fs.writeFileSync(
    path.join(home, '.claude.json'),
    JSON.stringify({
      hasCompletedOnboarding: true,
      theme: 'dark',
      // The test key, taken without the question Claude Code asks about a key it finds.
      customApiKeyResponses: { approved: [API_KEY.slice(-20)], rejected: [] },
      projects: { [project]: { hasTrustDialogAccepted: true, hasCompletedProjectOnboarding: true } },
    }),
  );
  return { home, project, settingsFile };
}

/** The environment Claude Code runs in: only what it needs, everything of the home in the scratch folder. */
export function claudeEnv(home, standIn, { subscription = false } = {}) {
  const env = {
    PATH: '/usr/local/bin:/usr/bin:/bin',
    HOME: home,
    XDG_CONFIG_HOME: path.join(home, '.config'),
    XDG_DATA_HOME: path.join(home, '.local', 'share'),
    XDG_STATE_HOME: path.join(home, '.local', 'state'),
    XDG_CACHE_HOME: path.join(home, '.cache'),
    TERM: 'xterm-256color',
    LANG: 'C.UTF-8',
    ANTHROPIC_BASE_URL: standIn.url,
    CLAUDE_CODE_DISABLE_NONESSENTIAL_TRAFFIC: '1',
    DISABLE_AUTOUPDATER: '1',
  };
  // A subscription sign-in is what makes Claude Code read the usage headers.
  if (subscription) env.CLAUDE_CODE_OAUTH_TOKEN = 'tidewatch-test-token';
  else env.ANTHROPIC_API_KEY = API_KEY;
  return env;
}

/** Starts the stand-in, closed after the test. */
export async function standInFor(t, script) {
  const standIn = await startMessagesStandIn({ script });
  t.after(() => standIn.close());
  return standIn;
}

/** Runs `claude -p` in the project folder; `done` gives {code, stdout, stderr, ms}. */
export function claudePrint(t, { home, project, standIn, prompt, extra = [], subscription = false }) {
  const started = Date.now();
  const child = spawn(CLAUDE, ['-p', '--permission-mode', 'default', ...extra, prompt], {
    cwd: project,
    env: claudeEnv(home, standIn, { subscription }),
    stdio: ['ignore', 'pipe', 'pipe'],
  });
  let stdout = '';
  let stderr = '';
  child.stdout.on('data', (chunk) => (stdout += chunk));
  child.stderr.on('data', (chunk) => (stderr += chunk));
  const done = new Promise((resolve) =>
    child.on('close', (code) => resolve({ code, stdout, stderr, ms: Date.now() - started })),
  );
  t.after(() => child.kill('SIGKILL'));
  return { child, done };
}

/** The interactive program in a tmux server of its own, ready for a prompt; with `shellRc`, typed into bash. */
export async function claudeInteractive(t, { home, project, standIn, subscription = false, shellRc = null, support = null }) {
  const env = claudeEnv(home, standIn, { subscription });
  // Typed into bash with the shell integration's start file, the way a
  // person starts it; the relay finds the service by its support folder.
  if (shellRc) Object.assign(env, { TIDEWATCH_SUPPORT: support, PATH: `${path.dirname(CLAUDE)}:${env.PATH}` });
  const program = shellRc ? ['bash', '--noprofile', '--rcfile', shellRc, '-i'] : [CLAUDE, '--permission-mode', 'default'];
  const session = tmuxPane(t, program, {
    env,
    cwd: project,
    // Claude Code writes its home on the way out, after the scratch folder
    // may be gone: clear the home after it, and the folder it recreated.
    cleanup: () => {
      fs.rmSync(home, { recursive: true, force: true, maxRetries: 5 });
      fs.rmdirSync(path.dirname(home));
    },
  });
  if (shellRc) {
    await sleep(300);
    session.keys('-l', 'claude --permission-mode default');
    session.keys('Enter');
  }
  // The status line is drawn once the program is ready for a prompt.
  await session.waitFor(/Tidewatch/, 'Claude Code ready, with its status line', 30000);
  return session;
}
