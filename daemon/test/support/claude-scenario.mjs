// Real Claude Code for a test written in another language: this program
// holds the Messages API stand-in, the scratch home and the running
// `claude`, and talks in JSON lines, commands on standard input and events
// on standard output.
//
//   node claude-scenario.mjs --folder <scratch> --support <service support> --mode print|interactive|shared
//
// "shared" types `claude` into bash with the service's shell integration
// (the test copy's shell-home/.bashrc), so it runs in a shared terminal, on
// a subscription sign-in, and the stand-in answers with text, no tool call.
//
// It first prepares the home and says {"event":"ready", home, project,
// claudeDir, target} (or {"event":"missing", reason} and ends). The home has
// no settings file: the service under test writes it with its own install.
// Then, one command a line:
//
//   {"do":"run","prompt":"…"}   starts Claude Code and types the prompt;
//       says {"event":"started"}, and in print mode later {"event":"exit",
//       code, ms, result, toolResults: [{text, isError}], denials, stderr}
//   {"do":"waitFor","pattern":"…","timeoutMs":20000}   (interactive) says
//       {"event":"screen", matched, screen} once the pattern is on screen or
//       the time is up
//   {"do":"keys","keys":["1"]}  (interactive) presses them; says {"event":"keys"}
//   {"do":"limit","resetsAt":<epoch s>}   the stand-in refuses with the
//       five-hour limit from now on; without resetsAt it answers again;
//       says {"event":"limit"}
//   {"do":"continues"}           says {"event":"continues", count}: the
//       requests that carried the continue prompt
//   {"do":"end"}                 ends everything; so does the end of input
//
// Anything that goes wrong is said as {"event":"error", message}.

import fs from 'node:fs';
import path from 'node:path';
import readline from 'node:readline';
import { setTimeout as sleep } from 'node:timers/promises';
import { parseArgs } from 'node:util';

import { claudeHome, claudeInteractive, claudePrint, missingClaude, missingTmux } from './claude-code.js';
import { continuePrompts, fiveHourLimit, startMessagesStandIn } from './messages-standin.js';

const say = (event, fields = {}) => process.stdout.write(`${JSON.stringify({ event, ...fields })}\n`);

const { values } = parseArgs({
  options: { folder: { type: 'string' }, support: { type: 'string' }, mode: { type: 'string', default: 'print' } },
});
const shared = values.mode === 'shared';
const interactive = shared || values.mode === 'interactive';

const missing = missingClaude() ?? (interactive ? missingTmux() : null);
if (missing) {
  say('missing', { reason: missing });
  process.exit(0);
}

// The helpers take a test's context for what to undo; this is ours.
const undo = [];
const t = { after: (step) => undo.push(step) };
let ending = null;
function end() {
  ending ??= (async () => {
    for (const step of undo.reverse()) {
      try {
        await step();
      } catch {
        // one step failing must not keep the others from running
      }
    }
    process.exit(0);
  })();
  return ending;
}
process.on('SIGTERM', end);

const { home, project, settingsFile } = claudeHome(values.folder, values.support);
// Only the service's own install may connect this home.
fs.rmSync(settingsFile, { force: true });
const target = path.join(project, 'made-by-claude');
const standIn = await startMessagesStandIn({
  script: { tool: shared ? null : { name: 'Bash', input: { command: `touch ${target}`, description: 'Make a file' } } },
});
t.after(() => standIn.close());
say('ready', { home, project, claudeDir: path.dirname(settingsFile), target });

// What `claude -p --output-format stream-json` told: the last result and the
// tool results it gave the model, the way a person reading its output sees them.
function digest(stdout) {
  const out = { result: null, toolResults: [], denials: 0 };
  for (const line of stdout.split('\n')) {
    let message;
    try {
      message = JSON.parse(line);
    } catch {
      continue;
    }
    if (message?.type === 'result') {
      out.result = message.result ?? null;
      out.denials = Array.isArray(message.permission_denials) ? message.permission_denials.length : 0;
    }
    const content = message?.type === 'user' ? message.message?.content : null;
    for (const block of Array.isArray(content) ? content : []) {
      if (block?.type !== 'tool_result') continue;
      const text = Array.isArray(block.content)
        ? block.content.map((part) => part?.text ?? '').join('\n')
        : String(block.content ?? '');
      out.toolResults.push({ text, isError: block.is_error === true });
    }
  }
  return out;
}

let terminal = null;

async function perform(command) {
  switch (command.do) {
    case 'run':
      if (interactive) {
        terminal = await claudeInteractive(
          t,
          shared
            ? { home, project, standIn, subscription: true, support: values.support, shellRc: path.join(values.support, 'shell-home', '.bashrc') }
            : { home, project, standIn },
        );
        await terminal.type(command.prompt);
        say('started');
      } else {
        const run = claudePrint(t, {
          home,
          project,
          standIn,
          prompt: command.prompt,
          extra: ['--output-format', 'stream-json', '--verbose'],
        });
        say('started');
        run.done.then(({ code, ms, stdout, stderr }) => say('exit', { code, ms, ...digest(stdout), stderr }));
      }
      return;
    case 'waitFor': {
      const pattern = new RegExp(command.pattern);
      const until = Date.now() + (command.timeoutMs ?? 20000);
      let screen = terminal?.screen() ?? '';
      while (!pattern.test(screen) && Date.now() < until) {
        await sleep(100);
        screen = terminal?.screen() ?? '';
      }
      say('screen', { matched: pattern.test(screen), screen });
      return;
    }
    case 'keys':
      terminal?.keys(...command.keys);
      say('keys');
      return;
    case 'limit':
      standIn.script.error = Number.isFinite(command.resetsAt) ? fiveHourLimit(command.resetsAt) : null;
      say('limit');
      return;
    case 'continues':
      say('continues', { count: continuePrompts(standIn) });
      return;
    case 'end':
      await end();
      return;
    default:
      say('error', { message: `No command “${command.do}”.` });
  }
}

// One command at a time, in their order.
let queue = Promise.resolve();
readline.createInterface({ input: process.stdin }).on('line', (line) => {
  let command;
  try {
    command = JSON.parse(line);
  } catch {
    say('error', { message: `Not a command: ${line}` });
    return;
  }
  queue = queue.then(() => perform(command)).catch((error) => say('error', { message: error.message }));
}).on('close', () => queue.then(end));
