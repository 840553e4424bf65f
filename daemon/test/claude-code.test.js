// Real Claude Code, offline against the Messages API stand-in, with the
// integration installed in a scratch home: `claude -p` and the interactive
// program under tmux, each answered from Tidewatch, in the terminal or by
// nobody, and Claude Code acts on that answer alone. Then what only one way
// shows (refusals from the API, the status line, the service gone), and the
// waiting hook against a service killed again and again. Slow tests (a real
// program each); select them with --test-name-pattern='^slow:'.

import assert from 'node:assert/strict';
import { spawn } from 'node:child_process';
import fs from 'node:fs';
import path from 'node:path';
import { test } from 'node:test';

import { DENY_MESSAGE } from '../src/claude/permission.js';
import { claudeFixture, eventually, freePorts, scratchFolder, sleep, spawnMain, startScratchService } from './helpers.js';
import { HOOK_TOKEN_FILE } from '../src/hook-token.js';
import {
  CLAUDE,
  claudeHome,
  claudeInteractive,
  claudePrint,
  HOOK_PROGRAM,
  missingClaude,
  missingTmux,
  standInFor,
} from './support/claude-code.js';
import { fiveHourLimit } from './support/messages-standin.js';

const GIVE_UP_MS = 3000;

// With `http`, Claude Code posts its reports itself, and the hook program
// runs through a Node.js that notes each event it is given.
async function setUp(t, { claude, script, http = false } = {}) {
  const service = await startScratchService(t, { claude, claudeProgram: http ? { named: CLAUDE } : {} });
  const noted = path.join(service.folder, 'hook-runs');
  const node = path.join(service.folder, 'noting-node');
  fs.writeFileSync(node, `#!/bin/sh\ninput=$(cat)\nprintf '%s\\n' "$input" >> '${noted}'\nprintf '%s' "$input" | exec '${process.execPath}' "$@"\n`, { mode: 0o755 });
  const token = fs.readFileSync(path.join(service.support, HOOK_TOKEN_FILE), 'utf8').trim();
  const place = http ? { node, http: { port: service.service.localPort, token } } : {};
  const { home, project } = claudeHome(service.folder, service.support, { place });
  const target = path.join(project, 'made-by-claude');
  const standIn = await standInFor(t, {
    tool: { name: 'Bash', input: { command: `touch ${target}`, description: 'Make a file' } },
    ...script,
  });
  const snapshot = async () => (await service.local('GET', '/v1/snapshot')).json;
  const hookRuns = () => fs.readFileSync(noted, 'utf8').trim().split('\n').map((line) => JSON.parse(line).hook_event_name);
  return { service, home, project, target, standIn, snapshot, hookRuns };
}

// The tool results Claude Code sent back to the model.
const toolResults = (standIn) =>
  standIn.requests.flatMap((request) =>
    (request.body?.messages ?? []).flatMap((message) =>
      Array.isArray(message.content) ? message.content.filter((block) => block?.type === 'tool_result') : [],
    ),
  );

// Each way runs the prompt, waits until Claude Code asks, and later says how the turn ended.
const WAYS = {
  'claude -p': {
    skip: missingClaude() ?? false,
    async run(t, setup) {
      const run = claudePrint(t, { ...setup, prompt: 'make a file please' });
      return {
        finished: async () => {
          const result = await run.done;
          assert.equal(result.code, 0, result.stderr);
          const ended = await eventually(async () => (await setup.snapshot()).sessions.find((s) => s.state === 'ended'), 'the session ended');
          assert.equal(ended.lastText, 'Done.');
        },
      };
    },
  },
  interactive: {
    skip: missingClaude() ?? missingTmux() ?? false,
    async run(t, setup) {
      const claude = await claudeInteractive(t, setup);
      await claude.type('make a file please');
      await claude.waitFor(/Do you want to proceed\?/, 'Claude Code’s own prompt');
      // The prompt takes keys a moment after it is drawn.
      await sleep(1500);
      return {
        claude,
        // Claude Code runs on after the answer (the command, another turn unless refused) to its Stop.
        finished: () => eventually(async () => (await setup.snapshot()).sessions[0].state === 'idle', 'the session idle again', 30000),
      };
    },
  },
};

WAYS['claude -p, HTTP hooks'] = WAYS['claude -p'];

// Who answers: Tidewatch (a decision posted), the terminal (keys), or nobody
// (the request is given up at its time and Claude Code decides alone).
const ANSWERS = [
  { ways: ['claude -p', 'claude -p, HTTP hooks', 'interactive'], name: 'allow from Tidewatch runs the command', post: 'allow', made: true },
  { ways: ['claude -p', 'interactive'], name: 'deny from Tidewatch leaves nothing done', post: 'deny', made: false },
  { ways: ['interactive'], name: 'allowed in the terminal, the card leaves by itself', keys: ['1'], made: true },
  { ways: ['interactive'], name: 'refused in the terminal, the card leaves by itself', keys: ['Escape'], made: false },
  { ways: ['claude -p'], name: 'with nobody answering, Claude Code decides alone', made: false },
];

for (const { ways, name, post, keys, made } of ANSWERS) {
  for (const way of ways) {
    test(`slow: ${way}: ${name}`, { skip: WAYS[way].skip, timeout: 60000 }, async (t) => {
      const nobody = !post && !keys;
      const setup = await setUp(t, { claude: nobody ? { approvalWaitMs: GIVE_UP_MS } : undefined, http: way.includes('HTTP') });
      const { service, target, standIn, snapshot } = setup;
      const feed = await service.feed();
      const started = Date.now();
      const run = await WAYS[way].run(t, setup);

      const approval = await eventually(async () => (await snapshot()).approvals[0], 'an approval', 30000);
      assert.deepEqual(
        [approval.kind, approval.toolName, approval.summary, approval.canSession],
        ['tool', 'Bash', `touch ${target}`, true],
      );
      const session = (await snapshot()).sessions.find((each) => each.id === approval.sessionId);
      assert.deepEqual([session.state, session.pendingApprovalIds, session.title], ['needs_you', [approval.id], 'make a file please']);
      if (way === 'interactive') assert.equal(session.origin, 'terminal');
      assert.equal((await feed.next('approval', 10000)).approval.id, approval.id);

      if (post) {
        const answer = await service.local('POST', `/v1/approvals/${approval.id}/decision`, { body: { decision: post } });
        assert.equal(answer.status, 200);
      }
      if (keys) run.claude.keys(...keys);
      const resolved = await feed.next('approval.resolved', nobody ? GIVE_UP_MS + 15000 : 15000);
      const decision = post ?? (keys ? (made ? 'allow' : 'deny') : null);
      const by = post ? 'mac' : keys ? 'terminal' : null;
      assert.deepEqual(resolved, { t: 'approval.resolved', id: approval.id, sessionId: approval.sessionId, decision, by });

      await run.finished();
      assert.equal(fs.existsSync(target), made);
      if (nobody) assert.ok(Date.now() - started >= GIVE_UP_MS - 500, 'it waited for an answer first');
      // Our refusal's words reach the model only when Tidewatch refused.
      assert.equal(JSON.stringify(toolResults(standIn)).includes(DENY_MESSAGE), post === 'deny');
      assert.deepEqual((await snapshot()).approvals, []);
      const decisions = (await service.local('GET', '/qa/state')).json.decisions;
      assert.deepEqual(
        decisions.map((each) => [each.decision, each.by]),
        decision ? [[decision, by]] : [],
      );
      if (run.claude) assert.doesNotMatch(run.claude.screen(), /Do you want to proceed\?/);
      // Answered once: another answer now is late.
      const late = await service.local('POST', `/v1/approvals/${approval.id}/decision`, { body: { decision: 'allow' } });
      assert.equal(late.status, 409);
      // Over HTTP, the hook program ran for the session's start and the waiting request alone.
      if (way.includes('HTTP')) assert.deepEqual([...new Set(setup.hookRuns())].sort(), ['PermissionRequest', 'SessionStart']);
    });
  }
}

test('slow: claude -p: with the service gone, Claude Code runs as if Tidewatch weren’t there', { skip: WAYS['claude -p'].skip, timeout: 60000 }, async (t) => {
  const { service, home, project, target, standIn } = await setUp(t);
  await service.service.close();
  const result = await claudePrint(t, { home, project, standIn, prompt: 'make a file please' }).done;
  assert.equal(result.code, 0, result.stderr);
  assert.equal(fs.existsSync(target), false);
  assert.ok(result.ms < 20000, `it took ${result.ms} ms`);
});

// A refusal as the API gives it to a subscription. `claude -p` exits at once
// and may take its StopFailure hooks with it; the service has it from the
// transcript either way. A refused sign-in takes the same road, from the
// transcript this program wrote (fixtures/claude) in claude-routes.test.js.
test('slow: claude -p: a usage limit blocks the session until its reset, and the account is limited', { skip: WAYS['claude -p'].skip, timeout: 60000 }, async (t) => {
  const reset = Math.floor(Date.now() / 1000) + 3600;
  const { service, home, project, standIn, snapshot } = await setUp(t, { script: { tool: null, error: fiveHourLimit(reset) } });
  const feed = await service.feed();
  const result = await claudePrint(t, { home, project, standIn, prompt: 'say hello', subscription: true }).done;
  assert.equal(result.code, 1);
  assert.match(result.stdout, /hit your 5-hour limit/);

  // The session's end and the failed turn's hook are separate processes: either may land first.
  const ended = (s) => s.state === 'ended' && s.blocked;
  const session = await eventually(async () => (await snapshot()).sessions.find(ended), 'the session ended, blocked', 15000);
  assert.deepEqual([session.blocked.kind, session.blocked.resetsAt], ['limit', reset * 1000]);
  assert.match(session.blocked.text, /hit your 5-hour limit/);
  const { account } = await snapshot();
  assert.deepEqual([account.state, account.limit], ['limited', { window: 'five_hour', resetsAt: reset * 1000, usingCredits: false }]);
  // The app hears it on the feed, not only on its next read.
  await eventually(() => feed.ofType('account').some((m) => m.account.state === 'limited'), 'the account on the feed');
  await eventually(() => feed.ofType('session').some((m) => m.session.blocked?.kind === 'limit'), 'the block on the feed');
});

test('slow: interactive: the status line brings the usage windows, the model and the cost', { skip: WAYS.interactive.skip, timeout: 60000 }, async (t) => {
  const now = Math.floor(Date.now() / 1000);
  const limits = { fiveHour: 0.64, fiveHourReset: now + 3600, sevenDay: 0.2, sevenDayReset: now + 3 * 86400 };
  const setup = await setUp(t, { script: { tool: null, limits } });
  const feed = await setup.service.feed();
  const claude = await claudeInteractive(t, { ...setup, subscription: true });
  await claude.type('say hello');
  const usage = await eventually(async () => (await setup.snapshot()).usage.fiveHour && (await setup.snapshot()).usage, 'a usage reading', 30000);
  assert.equal(usage.source, 'official');
  assert.deepEqual(usage.fiveHour, { pct: 64, resetsAt: limits.fiveHourReset * 1000 });
  assert.deepEqual(usage.sevenDay, { pct: 20, resetsAt: limits.sevenDayReset * 1000 });
  assert.ok(Math.abs(usage.observedAt - Date.now()) < 60000);
  assert.ok(feed.ofType('usage').some((m) => m.usage.fiveHour?.pct === 64));
  const session = (await setup.snapshot()).sessions[0];
  assert.match(session.model, /\S/);
  assert.equal(typeof session.costUsd, 'number');
  // Claude Code's status bar still shows a line of its own.
  await claude.waitFor(/Tidewatch · .*5h 64%/, 'the status line');
});

function startHook(t, support, event) {
  const child = spawn(process.execPath, [HOOK_PROGRAM, '--support', support], { stdio: ['pipe', 'pipe', 'ignore'] });
  t.after(() => child.kill('SIGKILL'));
  let stdout = '';
  child.stdout.on('data', (chunk) => (stdout += chunk));
  child.stdin.end(JSON.stringify(event));
  return new Promise((resolve) => child.on('close', (code) => resolve({ code, stdout })));
}

test('slow: hard restarts while requests wait lose none and answer none twice', { timeout: 90000 }, async (t) => {
  const folder = await scratchFolder(t);
  const support = path.join(folder, 'support');
  const [apiPort, localPort] = await freePorts(2);
  const start = () => spawnMain(t, folder, { TIDEWATCH_API_PORT: String(apiPort), TIDEWATCH_LOCAL_PORT: String(localPort) });
  let main = start();
  const { local, post } = await main.started();
  const open = async () => {
    for (;;) {
      try {
        return (await local('GET', '/v1/snapshot')).json.approvals;
      } catch {
        await sleep(20);
      }
    }
  };
  const fixture = claudeFixture('permission-request-bash.json');
  const decisions = ['allow', 'deny', 'always'];
  const hooks = decisions.map((_, i) =>
    startHook(t, support, {
      ...fixture,
      session_id: `s${i}`,
      transcript_path: `/nonexistent/s${i}.jsonl`,
      tool_input: { command: `touch /nonexistent/file-${i}`, description: 'Make a file' },
    }),
  );
  await eventually(async () => (await open()).length === decisions.length, 'every request waiting', 20000);
  const ids = new Map((await open()).map((approval) => [approval.sessionId, approval.id]));

  const answered = new Set();
  for (let round = 0; round < 6; round++) {
    main.child.kill('SIGKILL');
    await main.exited;
    main = start();
    await main.started();
    // The same requests wait again, with the same ids: none new, none lost.
    const waiting = (await open()).map((approval) => approval.id).sort();
    assert.deepEqual(waiting, [...ids.values()].filter((id) => !answered.has(id)).sort(), `after restart ${round + 1}`);
    // Every other round one is answered, right before the next kill.
    if (round % 2 === 1 && answered.size < decisions.length) {
      const index = answered.size;
      assert.equal((await post(`/v1/approvals/${ids.get(`s${index}`)}/decision`, { decision: decisions[index] })).status, 200);
      answered.add(ids.get(`s${index}`));
    }
  }
  const results = await Promise.all(hooks);
  results.forEach(({ code, stdout }, index) => {
    assert.equal(code, 0);
    const lines = stdout.trim().split('\n');
    assert.equal(lines.length, 1, `hook ${index} printed ${stdout}`);
    assert.equal(JSON.parse(lines[0]).hookSpecificOutput.decision.behavior, decisions[index] === 'deny' ? 'deny' : 'allow');
  });
  const kept = (await local('GET', '/qa/state')).json.decisions.map((each) => each.id).sort();
  assert.deepEqual(kept, [...ids.values()].sort(), 'each request answered exactly once');
  // Answered already: a second answer is late, never a second question.
  assert.equal((await post(`/v1/approvals/${ids.get('s0')}/decision`, { decision: 'deny' })).status, 409);
});
