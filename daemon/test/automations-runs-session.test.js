// A run whose steps start and continue a real Claude Code session through
// the service's own session road (the runner, the agent SDK), offline
// against the Messages API stand-in, and whose provider is a test's own.

import assert from 'node:assert/strict';
import path from 'node:path';
import test from 'node:test';

import { serviceSessions } from '../src/automations/session-steps.js';
import { eventually } from './helpers.js';
import { claudeEnv, missingClaude } from './support/claude-code.js';
import { engineParts } from './support/run-parts.js';
import { prompts, setUp } from './support/service-sessions.js';

test('slow: a run starts a Claude Code session, continues it, and tells what it said', { skip: missingClaude() ?? false, timeout: 120000 }, async (t) => {
  const { folder, project, standIn, service: scratch } = await setUp(t, { tool: null });
  const { service } = scratch;
  const { ANTHROPIC_BASE_URL, ANTHROPIC_API_KEY } = claudeEnv(path.join(folder, 'home'), standIn);
  const sessions = serviceSessions({
    state: service.state,
    runner: service.runner,
    terminals: service.terminals,
    providerEnv: (id) => (id === 'stand-in' ? { ANTHROPIC_BASE_URL, ANTHROPIC_API_KEY } : null),
    programs: { claude: () => null, codex: () => null },
  });
  const parts = await engineParts(t, { folder: path.join(folder, 'engine'), projects: folder, sessions, tickEveryMs: 20 });
  const automation = {
    id: 'au_1',
    name: 'Morning brief',
    trigger: { kind: 'webhook' },
    steps: [
      { id: 'st_a', kind: 'start', if: null, projectPath: project, prompt: 'Summarise {payload}', providerId: 'stand-in', permissionMode: 'dontAsk', allowedTools: [] },
      { id: 'st_b', kind: 'continue', if: { on: 'ok' }, target: 'step:st_a', prompt: 'And then: {prev}' },
      { id: 'st_c', kind: 'notify', if: null, text: '{step:st_a}' },
    ],
  };
  const unknown = { ...automation, id: 'au_2', steps: [{ ...automation.steps[0], providerId: 'gone' }] };
  parts.book.set('au_1', automation);

  const run = parts.engine.fire(automation, { by: 'webhook', at: 1, payload: 'the news' });
  const after = await eventually(() => {
    const now = parts.engine.runsOf('au_1').runs[0];
    return ['done', 'failed', 'stopped'].includes(now.state) && now;
  }, 'the run’s end', 90000);
  assert.equal(after.state, 'done', JSON.stringify(after.steps));
  const [sessionId] = after.steps[0].sessionIds;
  assert.deepEqual(after.sessionIds, [sessionId]);
  assert.deepEqual(after.steps.map((step) => [step.state, step.result]), [
    ['done', 'I’ll run that now.'],
    ['done', 'I’ll run that now.'],
    ['done', 'I’ll run that now.'],
  ]);
  const session = service.state.session(sessionId);
  assert.deepEqual([session.origin, session.cwd, session.automation], ['automation', project, { id: 'au_1', name: 'Morning brief', runId: run.id }]);
  assert.deepEqual(prompts(standIn).filter(Boolean), ['Summarise the news', 'And then: I’ll run that now.']);
  assert.deepEqual(parts.notified, [{ title: 'Morning brief', text: 'I’ll run that now.' }]);

  const refused = parts.engine.runNow(unknown);
  const gone = await eventually(() => parts.engine.runsOf('au_2').runs.find((each) => each.id === refused.id && each.state === 'failed'), 'the refusal');
  assert.deepEqual([gone.reason, gone.steps[0].reason], ['no_provider', 'no_provider']);
});
