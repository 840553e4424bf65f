// Automations end to end in one test copy of the service: fired by the
// command line its saved webhook trigger shows, a real Claude Code session
// against the Messages API stand-in, an ask answered through the service's
// route, a command reading what came before, and the outputs posted to each
// webhook service's stand-in in its own format; a file trigger's burst; a
// retry from a failed command that keeps the session's answer.

import assert from 'node:assert/strict';
import { spawn } from 'node:child_process';
import fs from 'node:fs';
import path from 'node:path';
import test from 'node:test';

import { eventually, sleep } from './helpers.js';
import { automationCalls } from './support/automation-calls.js';
import { missingClaude } from './support/claude-code.js';
import { prompts, setUp } from './support/service-sessions.js';
import { startReceivers } from './support/webhook-receivers.js';

const BOT = '123456789:AAHdqTcvCH1vGWJxfSeofSAs0K5PALDsaw';
const SAID = 'I’ll run that now.';
const SLOW = { skip: missingClaude() ?? false, timeout: 240000 };

// Each preset's saved output and what its stand-in must have seen for a run that said `text`.
const PRESETS = {
  ntfy: {
    input: { url: 'https://ntfy.sh/tidewatch-e2e' },
    check: (req, { name, text }) => {
      assert.deepEqual([req.path, req.body], ['/tidewatch-e2e', text]);
      const { 'content-type': type, title, priority, tags } = req.headers;
      assert.deepEqual({ type, title, priority, tags }, { type: 'text/plain; charset=utf-8', title: name, priority: 'default', tags: 'white_check_mark' });
    },
  },
  slack: {
    input: { url: 'https://hooks.slack.com/services/T0E2E0000/B0E2E0000/e2eSecretPart' },
    check: (req, { text }) => assert.deepEqual([req.path, JSON.parse(req.body)], ['/services/T0E2E0000/B0E2E0000/e2eSecretPart', { text }]),
  },
  discord: {
    input: { url: 'https://discord.com/api/webhooks/1234567890/e2e_Secret-part' },
    check: (req, { text }) =>
      assert.deepEqual([req.path, JSON.parse(req.body)], ['/api/webhooks/1234567890/e2e_Secret-part', { content: text, allowed_mentions: { parse: [] } }]),
  },
  telegram: {
    input: { botToken: BOT, chatId: '@tidewatch_news' },
    check: (req, { text }) => assert.deepEqual([req.path, JSON.parse(req.body)], [`/bot${BOT}/sendMessage`, { chat_id: '@tidewatch_news', text }]),
  },
  post: {
    input: { url: 'https://hooks.example.com/in?k=e2e' },
    check: (req, { id, name, text, run }) => {
      const body = JSON.parse(req.body);
      assert.equal(req.path, '/in?k=e2e');
      assert.deepEqual([body.automation, body.text], [{ id, name }, text]);
      assert.deepEqual([body.run.id, body.run.state, body.run.steps.map((step) => step.result)], [run.id, 'done', run.steps.map((step) => step.result)]);
    },
  },
};

// The service with real Claude Code whose own sign-in is the stand-in, and the webhook services' stand-ins.
async function world(t) {
  const receivers = await startReceivers(t);
  const timing = { recheckMs: 50, tickEveryMs: 50, quietMs: 1000, resolve: receivers.resolve };
  const running = await setUp(t, { tool: null }, { builtIn: true, automations: timing });
  const { local, post } = running.service;
  return { ...running, receivers, local, post, ...automationCalls(running.service) };
}

// The saved trigger's own command line under /bin/sh, the token in the variable it reads, the payload on its input.
function fireBy(command, token, payload) {
  return new Promise((resolve, reject) => {
    const child = spawn('/bin/sh', ['-c', command], { env: { PATH: process.env.PATH, TIDEWATCH_TOKEN: token }, stdio: ['pipe', 'pipe', 'pipe'] });
    let out = '';
    let err = '';
    child.stdout.on('data', (chunk) => (out += chunk));
    child.stderr.on('data', (chunk) => (err += chunk));
    child.on('error', reject);
    child.on('close', (code) => resolve({ code, out, err }));
    child.stdin.end(payload);
  });
}

const startStep = (project) => ({ id: 'st_a', kind: 'start', if: null, projectPath: project, prompt: 'Summarise {payload}', providerId: 'anthropic', permissionMode: 'dontAsk', allowedTools: [] });

test('slow: a webhook runs a session, an ask, a command, and posts to every preset in its own format', SLOW, async (t) => {
  const { project, standIn, save, post, receivers, runOf, ended, service } = await world(t);
  const pairs = [['ntfy', 'slack'], ['discord', 'telegram'], ['post', 'ntfy']];
  for (const [i, pair] of pairs.entries()) {
    await t.test(pair.join(' and '), async () => {
      const name = `Release check ${i + 1}`;
      const { automation, token } = await save({
        name,
        trigger: { kind: 'webhook' },
        steps: [
          startStep(project),
          { id: 'st_q', kind: 'ask', if: null, question: 'Ship it?', answers: ['Ship', 'Hold'], default: 'Hold', timeoutMin: 10 },
          { id: 'st_sh', kind: 'shell', if: { on: 'answer', text: 'Ship' }, projectPath: project, command: 'printf "answered %s" "$TIDEWATCH_PREV"', timeoutSec: 30 },
        ],
        outputs: pair.map((preset, n) => ({ id: `ou_${n}`, kind: 'webhook', preset, ...PRESETS[preset].input })),
        budget: null,
        confirmShell: true,
      });
      assert.ok(!automation.trigger.command.includes(token), 'the command line reads the token, never holds it');

      const payload = `build ${i + 41} of main passed`;
      const fired = await fireBy(automation.trigger.command, token, payload);
      assert.equal(fired.code, 0, fired.err);
      const { run: started } = JSON.parse(fired.out);

      await runOf(automation.id, started.id, (run) => run.state === 'needs_you' && run.ask?.stepId === 'st_q', 'the ask');
      const answered = await post(`/v1/automations/runs/${started.id}/answer`, { stepId: 'st_q', answer: 'Ship' });
      assert.equal(answered.status, 200, answered.text);
      const run = await ended(automation.id, started.id);

      assert.equal(run.state, 'done', JSON.stringify(run));
      assert.deepEqual([run.fired.by, run.fired.detail], ['webhook', payload]);
      assert.deepEqual(run.steps.map((step) => [step.id, step.state, step.result]), [
        ['st_a', 'done', SAID],
        ['st_q', 'done', 'Ship'],
        ['st_sh', 'done', 'answered Ship'],
      ]);
      assert.equal(prompts(standIn).filter((prompt) => prompt === `Summarise ${payload}`).length, 1, 'the session was given the payload’s words');
      assert.equal(service.service.state.session(run.sessionIds[0]).automation.runId, run.id);
      assert.deepEqual(run.outputs.map((output) => output.state), ['sent', 'sent']);
      for (const preset of pair) {
        const seen = receivers[preset].requests.at(-1);
        PRESETS[preset].check(seen, { id: automation.id, name, text: 'answered Ship', run });
      }
    });
  }
  assert.deepEqual(Object.keys(PRESETS).filter((preset) => receivers[preset].requests.length === 0), [], 'every preset was seen');
});

test('slow: a command retried from itself keeps the session’s answer and starts no second session', SLOW, async (t) => {
  const { project, standIn, save, post, ended, snapshot } = await world(t);
  const { automation } = await save({
    name: 'Notes after the brief',
    trigger: { kind: 'webhook' },
    steps: [startStep(project), { id: 'st_sh', kind: 'shell', if: null, projectPath: project, command: 'cat ready.txt', timeoutSec: 30 }],
    outputs: [],
    budget: null,
    confirmShell: true,
  });
  const first = await ended(automation.id, (await post(`/v1/automations/${automation.id}/run`, {})).json.run.id);
  assert.deepEqual([first.state, first.reason, first.steps.map((step) => step.state)], ['failed', 'exit', ['done', 'failed']]);

  fs.writeFileSync(path.join(project, 'ready.txt'), 'ready now\n');
  const retried = await post(`/v1/automations/runs/${first.id}/retry`, { fromStep: 'st_sh' });
  assert.equal(retried.status, 200, retried.text);
  const again = await ended(automation.id, retried.json.run.id);

  assert.equal(again.state, 'done', JSON.stringify(again));
  assert.deepEqual([again.retryOf, again.retryFrom], [first.id, 'st_sh']);
  assert.deepEqual(again.steps[0], { ...first.steps[0], reused: true });
  assert.equal(again.steps[1].result, 'ready now');
  assert.deepEqual(again.sessionIds, first.sessionIds);
  assert.equal(prompts(standIn).filter(Boolean).length, 1, 'Claude Code was asked once');
  assert.equal((await snapshot()).sessions.length, 1);
});

test('a file automation fires once for a burst of writes', async (t) => {
  const { project, save, runs } = await world(t);
  const { automation } = await save({
    name: 'Notes changed',
    trigger: { kind: 'file', path: project, glob: '**/*.md', event: 'created' },
    steps: [{ id: 'st_sh', kind: 'shell', if: null, projectPath: project, command: 'printf "%s" "$TIDEWATCH_PAYLOAD" | tr "\\n" " "', timeoutSec: 30 }],
    outputs: [],
    budget: null,
    confirmShell: true,
  });
  const results = async () => (await runs(automation.id)).filter((run) => run.state === 'done').map((run) => run.fired.detail).reverse();
  const heard = (count) => eventually(async () => ((await results()).length >= count ? results() : null), `${count} runs`, 15000);

  // What is there when the watch starts counts as there before: a new file each look, until one is heard.
  let looks = 0;
  await eventually(async () => {
    if (looks % 50 === 0) fs.writeFileSync(path.join(project, `first-${looks}.md`), 'one');
    looks += 1;
    return (await results()).length > 0;
  }, 'the watch at work', 15000);
  for (let i = 0; i < 20; i++) {
    fs.writeFileSync(path.join(project, `burst-${i % 4}.md`), `write ${i}`);
    await sleep(10);
  }
  await heard(2);
  // A later file after the burst: had the burst fired twice, it would be the fourth run.
  fs.writeFileSync(path.join(project, 'last.md'), 'end');
  assert.deepEqual((await heard(3)).slice(1), ['4 files were added', 'last.md was added']);
  const [burst] = await runs(automation.id).then((all) => all.filter((run) => run.fired.detail.startsWith('4 ')));
  assert.equal(burst.steps[0].result, 'burst-0.md burst-1.md burst-2.md burst-3.md', 'the files of the burst are its payload');
});
