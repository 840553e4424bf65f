// Real Claude Code typed into bash with the shell integration, so it runs
// through the terminal relay, offline against the
// Messages API stand-in: the session shows its shared terminal, a usage
// limit blocks it, Claude Code's own plan to carry on is read, and Tidewatch
// carries it on by typing into that terminal, when asked and by itself once
// the limit lifts. Slow (a real program).

import assert from 'node:assert/strict';
import path from 'node:path';
import { test } from 'node:test';

import { eventually, scratchFolder, sleep, startScratchService } from './helpers.js';
import { claudeHome, claudeInteractive, missingClaude, missingTmux, standInFor } from './support/claude-code.js';
import { continuePrompts, fiveHourLimit } from './support/messages-standin.js';
import { missingRelay, RELAY } from './support/relay.js';

test(
  'slow: a limited session in a shared terminal is continued by hand, then by itself once the limit lifts',
  { skip: missingClaude() ?? missingTmux() ?? missingRelay() ?? false, timeout: 120000 },
  async (t) => {
    const folder = await scratchFolder(t);
    const shellHome = path.join(folder, 'home');
    const service = await startScratchService(t, {
      folder,
      sessions: { checkEveryMs: 200 },
      shellHome,
      shell: '/bin/bash',
      relay: RELAY,
    });
    const { home, project } = claudeHome(folder, service.support);
    assert.equal((await service.post('/local/integration/install', {})).status, 200);
    const reset = Math.floor(Date.now() / 1000) + 3600;
    const standIn = await standInFor(t, { tool: null, error: fiveHourLimit(reset) });
    const claude = await claudeInteractive(t, {
      home,
      project,
      standIn,
      subscription: true,
      shellRc: path.join(shellHome, '.bashrc'),
      support: service.support,
    });
    const session = () => service.snapshot().then((snapshot) => snapshot.sessions[0]);

    await claude.type('say hello');
    const blocked = await eventually(async () => {
      const now = await session();
      return now?.blocked?.resetsAt && now.term && now;
    }, 'the session blocked until the reset, in its shared terminal', 30000);
    assert.deepEqual(blocked.term, { id: blocked.term.id, mac: 1, phone: 0 });
    assert.equal(blocked.blocked.resetsAt, reset * 1000);
    // Claude Code plans to go on by itself at the reset, and says so in its transcript.
    const claudePlan = { state: 'armed', at: reset * 1000, by: 'claude', canCancel: false, canArm: false };
    await eventually(async () => (await session()).blocked?.resume?.by === 'claude', 'Claude Code’s own plan read');
    assert.deepEqual((await session()).blocked.resume, claudePlan);
    assert.equal((await session()).blocked.autoResumeAt, reset * 1000);
    assert.equal((await service.post(`/v1/sessions/${blocked.id}/auto-continue`, { on: false })).status, 409);
    // The service's screen model shows what the person's terminal shows.
    const [terminal] = service.service.terminals.terminals();
    assert.match((await terminal.screenLines()).join('\n'), /say hello/);

    // By hand: the limit is still there, so the continue prompt is refused again.
    const before = (await session()).lastActivityAt;
    assert.equal((await service.post(`/v1/sessions/${blocked.id}/continue`, {})).status, 200);
    await eventually(() => continuePrompts(standIn) === 1, 'the continue prompt reached the API', 20000);

    // Blocked again, the person stops Claude Code's own plan in the terminal; Tidewatch's stands in.
    const again = async () => {
      const now = await session();
      return now.lastActivityAt > before && now.blocked?.resume?.by === 'claude';
    };
    await eventually(again, 'blocked again, Claude Code’s plan read', 20000);
    claude.keys('Escape');
    await eventually(async () => (await session()).blocked?.resume?.canArm, 'the carry-on offered', 20000);
    assert.equal((await session()).blocked.autoResumeAt, undefined);
    assert.equal((await service.post(`/v1/sessions/${blocked.id}/auto-continue`, { on: true })).status, 200);
    const armed = (await session()).blocked.resume;
    assert.deepEqual(armed, { state: 'armed', at: reset * 1000, by: 'tidewatch', canCancel: true, canArm: false });
    await sleep(600);
    assert.equal(continuePrompts(standIn), 1, 'nothing carried on before the reset');
    standIn.script.error = null;
    await service.post('/qa/power', { offsetMs: reset * 1000 - Date.now() + 1000 });
    await eventually(() => continuePrompts(standIn) === 2, 'the armed session carried on', 20000);
    await eventually(async () => (await session()).state === 'idle' && !(await session()).blocked, 'the turn done, the block gone', 20000);
    await sleep(600);
    assert.equal(continuePrompts(standIn), 2, 'carried on once');
  },
);
