// Every refusal of a saved automation, with its code and field path, beside
// a twin that differs only in the fault and is taken; and the placeholder
// rule, place by place.

import assert from 'node:assert/strict';
import fs from 'node:fs';
import path from 'node:path';
import test from 'node:test';

import { MESSAGES } from '../src/automations/validate.js';
import { judgeRule } from '../src/automations/permission-rules.js';
import { startBook } from './support/automation-book.js';

const x = (n) => 'x'.repeat(n);

function bodies(P) {
  const start = (over) => ({
    id: 'st_a',
    kind: 'start',
    if: null,
    projectPath: P.app,
    prompt: 'Tidy {project}.',
    providerId: 'anthropic',
    model: null,
    permissionMode: 'dontAsk',
    allowedTools: ['Read'],
    ...over,
  });
  const shell = (over) => ({ id: 'st_s', kind: 'shell', if: null, projectPath: P.app, command: 'npm test', timeoutSec: 60, ...over });
  const notify = (over) => ({ id: 'st_n', kind: 'notify', if: null, text: 'Done.', glasses: false, ...over });
  const ask = (over) => ({ id: 'st_q', kind: 'ask', if: null, question: 'Ship it?', answers: ['Ship', 'Skip'], default: 'Skip', timeoutMin: 10, ...over });
  const cont = (over) => ({ id: 'st_c', kind: 'continue', if: null, target: 'working', prompt: 'Carry on.', providerId: null, ...over });
  const body = (over) => ({
    name: 'Nightly tidy',
    enabled: true,
    onlyOnce: false,
    trigger: { kind: 'cron', expr: '0 9 * * 1-5' },
    steps: [start()],
    outputs: [],
    budget: null,
    ...over,
  });
  const file = (over) => body({ trigger: { kind: 'file', path: P.app, glob: '*.md', event: 'created', ...over } });
  const github = (over) => body({ trigger: { kind: 'github', repoPath: P.app, events: ['pr_opened'], every: 10, ...over } });
  const withShell = (over) => body({ steps: [shell(over)], confirmShell: true });
  const hook = (over) => ({ kind: 'hook', event: 'Stop', from: 'mine', ...over });
  const output = (over) => body({ outputs: [{ id: 'ou_1', kind: 'notify', text: null, glasses: false, ...over }] });
  const webhook = (over) => output({ kind: 'webhook', preset: 'slack', url: 'https://hooks.slack.com/services/T0/B0/abcd', ...over });
  const telegram = (over) => output({ kind: 'webhook', preset: 'telegram', botToken: `123456:${x(35)}`, chatId: '-1001234567890', ...over });
  const fileOut = (value) => output({ kind: 'file', path: value });
  const steps = (...list) => body({ steps: list });

  // [what it proves, code, field, the bad body, its good twin, the world of each]
  return [
    ['a name longer than 60 characters', 'bad_name', 'name', body({ name: x(61) }), body({ name: x(60) })],
    ['a blank name', 'bad_name', 'name', body({ name: '   ' }), body({ name: ' A ' })],
    ['a trigger of no known kind', 'bad_trigger', 'trigger', body({ trigger: { kind: 'quantum' } }), body({ trigger: { kind: 'webhook' } })],
    ['a daily time that isn’t a clock', 'bad_trigger', 'trigger', body({ trigger: { kind: 'time', at: '25:00', days: [1] } }), body({ trigger: { kind: 'time', at: '07:30', days: [1] } })],
    ['a weekday past Saturday', 'bad_trigger', 'trigger', body({ trigger: { kind: 'time', at: '07:30', days: [7] } }), body({ trigger: { kind: 'time', at: '07:30', days: [0, 6] } })],
    ['a once that has passed', 'bad_trigger', 'trigger', body({ trigger: { kind: 'once', at: Date.parse('2026-03-01T08:00:00Z') } }), body({ trigger: { kind: 'once', at: Date.parse('2026-03-03T08:00:00Z') } })],
    ['an every whose span ends before it starts', 'bad_trigger', 'trigger', body({ trigger: { kind: 'every', hours: 2, from: '18:00', to: '09:00' } }), body({ trigger: { kind: 'every', hours: 2, from: '09:00', to: '18:00' } })],
    ['a reset of no known window', 'bad_trigger', 'trigger', body({ trigger: { kind: 'reset', window: 'hourly' } }), body({ trigger: { kind: 'reset', window: 'five_hour', afterLimit: true } })],
    ['a low battery without its level', 'bad_trigger', 'trigger', body({ trigger: { kind: 'power', event: 'low' } }), body({ trigger: { kind: 'power', event: 'low', below: 20 } })],
    ['a hook event Claude Code doesn’t send', 'bad_trigger', 'trigger', body({ trigger: hook({ event: 'Lunch' }) }), body({ trigger: hook({ event: 'PostToolUseFailure', tool: 'Bash' }) })],
    ['github without an event', 'bad_trigger', 'trigger', github({ events: [] }), github({ events: ['pr_opened', 'checks_failed'] })],
    ['github looking every 7 minutes', 'bad_trigger', 'trigger', github({ every: 7 }), github({ every: 15 })],
    ['a file event of no known kind', 'bad_trigger', 'trigger', file({ event: 'renamed' }), file({ event: 'deleted' })],
    ['a cron of four fields', 'bad_cron', 'trigger', body({ trigger: { kind: 'cron', expr: '0 9 * *' } }), body({ trigger: { kind: 'cron', expr: '0 9 * * *' } })],
    ['a cron of six fields', 'bad_cron', 'trigger', body({ trigger: { kind: 'cron', expr: '0 0 9 * * *' } }), body({ trigger: { kind: 'cron', expr: '0 9 * * *' } })],
    ['a cron nickname', 'bad_cron', 'trigger', body({ trigger: { kind: 'cron', expr: '@daily' } }), body({ trigger: { kind: 'cron', expr: '0 0 * * *' } })],
    ['a cron that never comes', 'bad_cron', 'trigger', body({ trigger: { kind: 'cron', expr: '0 9 31 2 *' } }), body({ trigger: { kind: 'cron', expr: '0 9 28 2 *' } })],
    ['a cron every 4 minutes', 'too_often', 'trigger', body({ trigger: { kind: 'cron', expr: '*/4 * * * *' } }), body({ trigger: { kind: 'cron', expr: '*/5 * * * *' } })],
    ['a cron 4 minutes apart across midnight', 'too_often', 'trigger', body({ trigger: { kind: 'cron', expr: '58,2 23,0 * * *' } }), body({ trigger: { kind: 'cron', expr: '55,0 23,0 * * *' } })],
    ['a pattern longer than 200 characters', 'bad_glob', 'trigger.glob', file({ glob: x(201) }), file({ glob: x(200) })],
    ['a pattern with five **', 'bad_glob', 'trigger.glob', file({ glob: '**/a/**/b/**/c/**/d/**' }), file({ glob: '**/a/**/b/**/c/**' })],
    ['a pattern that doesn’t read', 'bad_glob', 'trigger.glob', file({ glob: 'docs/[a' }), file({ glob: 'docs/[ab]*' })],
    ['a watched folder that isn’t there', 'no_project', 'trigger', file({ path: path.join(P.root, 'gone') }), file({ path: P.plain })],
    ['a watched folder outside the projects', 'outside_projects', 'trigger', file({ path: P.outside }), file({ path: P.app })],
    ['a link that leads out of the projects', 'outside_projects', 'trigger', file({ path: P.link }), file({ path: P.app })],
    ['the projects folder itself', 'outside_projects', 'trigger', file({ path: P.root }), file({ path: `${P.root}/app` })],
    ['a repository without a GitHub remote', 'not_github', 'trigger', github({ repoPath: P.plain }), github({ repoPath: P.app })],
    ['github without gh', 'no_gh', 'trigger', github({}), github({}), [{ gh: false }, { gh: true }]],
    ['no step', 'bad_steps', 'steps', body({ steps: [] }), body({})],
    ['six steps', 'bad_steps', 'steps', steps(...['1', '2', '3', '4', '5', '6'].map((id) => notify({ id }))), steps(...['1', '2', '3', '4', '5'].map((id) => notify({ id })))],
    ['a step of no known kind', 'bad_step', 'steps[0]', steps(notify({ kind: 'teleport' })), steps(notify({}))],
    ['two steps of one id', 'bad_step', 'steps[1].id', steps(notify({}), notify({})), steps(notify({}), notify({ id: 'st_m' }))],
    ['a start without a project', 'project_needed', 'steps[0].projectPath', steps(start({ projectPath: '' })), steps(start({ projectPath: '~/Programming/app' }))],
    ['a command in a folder that isn’t there', 'no_project', 'steps[0].projectPath', withShell({ projectPath: `${P.app}-gone` }), withShell({})],
    ['a start outside the projects', 'outside_projects', 'steps[0].projectPath', steps(start({ projectPath: P.outside })), steps(start({}))],
    ['a start without a prompt', 'no_prompt', 'steps[0].prompt', steps(start({ prompt: ' ' })), steps(start({ prompt: 'Go.' }))],
    ['a prompt past its limit', 'long_prompt', 'steps[0].prompt', steps(start({ prompt: x(32 * 1024 + 1) })), steps(start({ prompt: x(32 * 1024) }))],
    ['a provider that isn’t there', 'provider_needed', 'steps[0].providerId', steps(start({ providerId: 'pv_gone' })), steps(start({ providerId: 'anthropic' }))],
    ['a continue on a provider that isn’t there', 'provider_needed', 'steps[0].providerId', steps(cont({ providerId: 'pv_gone' })), steps(cont({ providerId: 'anthropic' }))],
    ['a Claude Code mode given to Codex', 'bad_mode', 'steps[0].permissionMode', steps(start({ providerId: 'codex', permissionMode: 'dontAsk', allowedTools: [] })), steps(start({ providerId: 'codex', permissionMode: 'read-only', allowedTools: [] }))],
    ['a model name past its limit', 'bad_model', 'steps[0].model', steps(start({ model: x(101) })), steps(start({ model: 'claude-opus-4-5' }))],
    ['a rule Claude Code doesn’t read', 'bad_rule', 'steps[0].allowedTools', steps(start({ allowedTools: ['Bsh(ls)'] })), steps(start({ allowedTools: ['Bash(ls)'] }))],
    ['rules for Codex', 'bad_rule', 'steps[0].allowedTools', steps(start({ providerId: 'codex', permissionMode: 'read-only', allowedTools: ['Read'] })), steps(start({ providerId: 'codex', permissionMode: 'read-only', allowedTools: [] }))],
    ['any command at all', 'rule_too_broad', 'steps[0].allowedTools', steps(start({ allowedTools: ['Bash'] })), steps(start({ allowedTools: ['Bash(npm test:*)'] }))],
    ['edits in the home folder', 'rule_too_broad', 'steps[0].allowedTools', steps(start({ allowedTools: ['Edit(~/**)'] })), steps(start({ allowedTools: ['Edit(src/**)'] }))],
    ['a first step with a condition', 'bad_guard', 'steps[0].if', steps(notify({ if: { on: 'ok' } })), steps(notify({}))],
    ['an answer the ask doesn’t offer', 'bad_guard', 'steps[1].if', steps(ask({}), notify({ if: { on: 'answer', text: 'Maybe' } })), steps(ask({}), notify({ if: { on: 'answer', text: 'Ship' } }))],
    ['news of a step that tells none', 'bad_guard', 'steps[1].if', steps(notify({ id: 'st_m' }), notify({ if: { on: 'quiet' } })), steps(start({}), notify({ if: { on: 'quiet' } }))],
    ['words to look for left out', 'guard_text', 'steps[1].if', steps(start({}), notify({ if: { on: 'contains', text: ' ' } })), steps(start({}), notify({ if: { on: 'contains', text: 'error' } }))],
    ['a question past 200 characters', 'bad_question', 'steps[0].question', steps(ask({ question: x(201) })), steps(ask({ question: x(200) }))],
    ['one answer', 'bad_answers', 'steps[0].answers', steps(ask({ answers: ['Skip'] })), steps(ask({ answers: ['Skip', 'Ship'] }))],
    ['four answers', 'bad_answers', 'steps[0].answers', steps(ask({ answers: ['Skip', 'A', 'B', 'C'] })), steps(ask({ answers: ['Skip', 'A', 'B'] }))],
    ['the same answer twice', 'bad_answers', 'steps[0].answers', steps(ask({ answers: ['Skip', 'skip'] })), steps(ask({ answers: ['Skip', 'Ship'] }))],
    ['an answer past 24 characters', 'bad_answers', 'steps[0].answers', steps(ask({ answers: ['Skip', x(25)] })), steps(ask({ answers: ['Skip', x(24)] }))],
    ['a default that isn’t an answer', 'bad_answers', 'steps[0].default', steps(ask({ default: 'Later' })), steps(ask({ default: 'Ship' }))],
    ['an ask that waits no time', 'bad_timeout', 'steps[0].timeoutMin', steps(ask({ timeoutMin: 0 })), steps(ask({ timeoutMin: 60 }))],
    ['a command that runs past an hour', 'bad_timeout', 'steps[0].timeoutSec', withShell({ timeoutSec: 3601 }), withShell({ timeoutSec: 3600 })],
    ['a command left empty', 'no_command', 'steps[0].command', withShell({ command: '' }), withShell({ command: 'make' })],
    ['a command past its limit', 'long_command', 'steps[0].command', withShell({ command: x(8 * 1024 + 1) }), withShell({ command: x(8 * 1024) })],
    ['a notice with nothing to say', 'text_needed', 'steps[0].text', steps(notify({ text: '' })), steps(notify({ text: 'Done.' }))],
    ['a notice past 500 characters', 'bad_text', 'steps[0].text', steps(notify({ text: x(501) })), steps(notify({ text: x(500) }))],
    ['the session that fired a cron', 'bad_target', 'steps[0].target', steps(cont({ target: 'trigger' })), body({ trigger: hook({}), steps: [cont({ target: 'trigger' })] })],
    ['the session of a step that starts none', 'bad_target', 'steps[1].target', steps(notify({}), cont({ target: 'step:st_n' })), steps(start({}), cont({ target: 'step:st_a' }))],
    ['the session of a later step', 'bad_target', 'steps[0].target', steps(cont({ target: 'step:st_a' }), start({})), steps(start({}), cont({ target: 'step:st_a' }))],
    ['reading aloud with no glasses', 'no_glasses', 'steps[0]', steps(notify({ kind: 'say' })), steps(notify({ kind: 'say' })), [{}, { glasses: true }]],
    ['a notice on glasses that aren’t there', 'no_glasses', 'steps[0].glasses', steps(notify({ glasses: true })), steps(notify({ glasses: true })), [{}, { glasses: true }]],
    ['three places to tell', 'bad_outputs', 'outputs', body({ outputs: ['1', '2', '3'].map((id) => ({ id, kind: 'notify' })) }), body({ outputs: ['1', '2'].map((id) => ({ id, kind: 'notify' })) })],
    ['a place of no known kind', 'bad_output', 'outputs[0]', output({ kind: 'pigeon' }), output({ kind: 'notify' })],
    ['a preset of no known service', 'bad_output', 'outputs[0].preset', webhook({ preset: 'myspace' }), webhook({ preset: 'slack' })],
    ['a message past 500 characters', 'bad_text', 'outputs[0].text', output({ text: x(501) }), output({ text: x(500) })],
    ['reading a result aloud with no glasses', 'no_glasses', 'outputs[0]', output({ kind: 'say' }), output({ kind: 'say' }), [{}, { glasses: true }]],
    ['a webhook without its address', 'url_needed', 'outputs[0].url', webhook({ url: '' }), webhook({})],
    ['a webhook over http', 'insecure_url', 'outputs[0].url', webhook({ preset: 'post', url: 'http://example.com/hook' }), webhook({ preset: 'post', url: 'https://example.com/hook' })],
    ['a Slack preset pointed elsewhere', 'bad_url', 'outputs[0].url', webhook({ url: 'https://example.com/services/T0/B0/abcd' }), webhook({})],
    ['a Discord address that isn’t a webhook', 'bad_url', 'outputs[0].url', webhook({ preset: 'discord', url: 'https://discord.com/channels/1/2' }), webhook({ preset: 'discord', url: 'https://discord.com/api/webhooks/123/abc-DEF' })],
    ['an ntfy address without a topic', 'bad_url', 'outputs[0].url', webhook({ preset: 'ntfy', url: 'https://ntfy.sh/' }), webhook({ preset: 'ntfy', url: 'https://ntfy.sh/tidewatch_builds' })],
    ['an address carrying a password', 'bad_url', 'outputs[0].url', webhook({ preset: 'post', url: 'https://me:pw@example.com/hook' }), webhook({ preset: 'post', url: 'https://example.com/hook' })],
    ['a bot token that isn’t one', 'bad_bot_token', 'outputs[0].botToken', telegram({ botToken: 'hello' }), telegram({})],
    ['a chat that isn’t one', 'bad_chat', 'outputs[0].chatId', telegram({ chatId: 'my chat' }), telegram({ chatId: '@tidewatch_news' })],
    ['a file that climbs out of the project', 'bad_path', 'outputs[0].path', fileOut('../notes.md'), fileOut('notes/briefs.md')],
    ['a file beside the project', 'bad_path', 'outputs[0].path', fileOut(path.join(P.plain, 'notes.md')), fileOut(path.join(P.app, 'notes.md'))],
    ['a file through a link that leads out', 'bad_path', 'outputs[0].path', body({ steps: [start({ projectPath: P.app })], outputs: [{ id: 'ou_1', kind: 'file', path: '../link/x.md' }] }), fileOut('x.md')],
    ['a file with no project to lie in', 'bad_path', 'outputs[0].path', body({ steps: [notify({})], outputs: [{ id: 'ou_1', kind: 'file', path: 'x.md' }] }), body({ trigger: { kind: 'file', path: P.app, event: 'created' }, steps: [notify({})], outputs: [{ id: 'ou_1', kind: 'file', path: 'x.md' }] })],
    ['an environment file', 'secret_file', 'outputs[0].path', fileOut('.env.local'), fileOut('env-notes.md')],
    ['a file inside .git', 'secret_file', 'outputs[0].path', fileOut('.git/notes.md'), fileOut('git/notes.md')],
    ['a key file', 'secret_file', 'outputs[0].path', fileOut('deploy/server.pem'), fileOut('deploy/server.md')],
    ['a budget past 720 minutes', 'bad_budget', 'budget', body({ budget: { minutes: 721, windowPct: null } }), body({ budget: { minutes: 720, windowPct: null } })],
    ['a budget past 100 points', 'bad_budget', 'budget', body({ budget: { minutes: null, windowPct: 101 } }), body({ budget: { minutes: null, windowPct: 100 } })],
    ['a budget with no limit', 'bad_budget', 'budget', body({ budget: { minutes: null, windowPct: null } }), body({ budget: { minutes: 30, windowPct: 25 } })],
    ['a command without the person’s agreement', 'confirm_shell', 'steps[0]', body({ steps: [shell({})] }), withShell({})],
    ['a session that asks nobody, not agreed', 'confirm_bypass', 'steps[0].permissionMode', steps(start({ permissionMode: 'bypassPermissions' })), body({ steps: [start({ permissionMode: 'bypassPermissions' })], confirmBypass: true })],
    ['a paid provider, not agreed', 'confirm_paid', undefined, steps(start({ providerId: 'pv_or' })), body({ steps: [start({ providerId: 'pv_or' })], confirmPaid: true })],
    // The placeholder rule, place by place.
    ['a step’s reply in a command', 'bad_placeholder', 'steps[1].command', body({ steps: [start({}), shell({ command: 'echo {prev}' })], confirmShell: true }), body({ steps: [start({}), shell({ command: 'echo "$TIDEWATCH_PREV"' })], confirmShell: true })],
    ['a webhook’s payload in a command', 'bad_placeholder', 'steps[0].command', body({ trigger: { kind: 'webhook' }, steps: [shell({ command: 'echo {payload}' })], confirmShell: true }), body({ trigger: { kind: 'webhook' }, steps: [shell({ command: 'echo "$TIDEWATCH_PAYLOAD" {project}' })], confirmShell: true })],
    ['an earlier step’s result in a command', 'bad_placeholder', 'steps[1].command', body({ steps: [start({}), shell({ command: 'echo {step:st_a}' })], confirmShell: true }), body({ steps: [start({}), shell({ command: 'echo "$TIDEWATCH_STEP_st_a"' })], confirmShell: true })],
    ['a payload reaching a session that asks nobody', 'bad_placeholder', 'steps[0].prompt', body({ trigger: { kind: 'webhook' }, steps: [start({ permissionMode: 'bypassPermissions', prompt: 'Do {payload}' })], confirmBypass: true }), body({ trigger: { kind: 'webhook' }, steps: [start({ prompt: 'Do {payload}' })] })],
    ['another session’s words reaching a session that asks nobody', 'bad_placeholder', 'steps[0].prompt', body({ trigger: hook({}), steps: [start({ permissionMode: 'bypassPermissions', prompt: 'Fix {result}' })], confirmBypass: true }), body({ trigger: hook({}), steps: [start({ permissionMode: 'bypassPermissions', prompt: 'Fix {project} at {time}' })], confirmBypass: true })],
    ['the result of a step that says nothing', 'bad_placeholder', 'steps[1].text', steps(notify({ id: 'st_m' }), notify({ text: 'Got {step:st_m}' })), steps(start({}), notify({ text: 'Got {step:st_a}' }))],
    ['the result of a later step', 'bad_placeholder', 'steps[0].text', steps(notify({ text: 'Got {step:st_a}' }), start({})), steps(start({}), notify({ text: 'Got {step:st_a}' }))],
    ['a payload where nothing brings one', 'bad_placeholder', 'outputs[0].text', output({ text: 'Got {payload}' }), body({ trigger: { kind: 'webhook' }, outputs: [{ id: 'ou_1', kind: 'notify', text: 'Got {payload}' }] })],
  ];
}

test('every refusal names its code and field, and its twin is taken', async (t) => {
  const book = await startBook(t);
  for (const [name, code, field, bad, good, worlds = [{}, {}]] of bodies(book.projects)) {
    await t.test(name, async () => {
      Object.assign(book.world, { glasses: false, gh: true }, worlds[0]);
      const refused = await book.local('POST', '/v1/automations', bad);
      assert.deepEqual(refused.json, { error: { code, message: MESSAGES[code], ...(field === undefined ? {} : { field }) } });
      assert.equal(refused.status, 400);
      assert.deepEqual(book.store.list(), [], 'nothing is kept');

      Object.assign(book.world, worlds[1]);
      const taken = await book.local('POST', '/v1/automations', good);
      assert.equal(taken.status, 200, JSON.stringify(taken.json));
      book.store.remove(taken.json.automation.id);
    });
  }
});

test('the rules a session may be given', () => {
  const rows = [
    ['a tool alone', 'Read', 'ok'],
    ['a command with its arguments', 'Bash(npm run build)', 'ok'],
    ['a command’s prefix', 'Bash(git diff:*)', 'ok'],
    ['edits under a folder of the project', 'Edit(docs/**)', 'ok'],
    ['one domain', 'WebFetch(domain:docs.anthropic.com)', 'ok'],
    ['an MCP server', 'mcp__github', 'ok'],
    ['an MCP tool', 'mcp__github__get_issue', 'ok'],
    ['any command', 'Bash', 'rule_too_broad'],
    ['any command, by wildcard', 'Bash(*)', 'rule_too_broad'],
    ['any command, by prefix wildcard', 'Bash(:*)', 'rule_too_broad'],
    ['reading the whole disk', 'Read(//**)', 'rule_too_broad'],
    ['writing out of the project', 'Write(../other/**)', 'rule_too_broad'],
    ['fetching anywhere', 'WebFetch', 'rule_too_broad'],
    ['fetching from any domain', 'WebFetch(domain:*)', 'rule_too_broad'],
    ['a tool that doesn’t exist', 'Teleport', 'bad_rule'],
    ['a specifier on a bare tool', 'Grep(src)', 'bad_rule'],
    ['an empty specifier', 'Bash()', 'bad_rule'],
    ['a lower-case tool', 'bash(ls)', 'bad_rule'],
    ['a line break', 'Bash(ls\nrm -rf /)', 'bad_rule'],
    ['a fetch rule without domain:', 'WebFetch(example.com)', 'bad_rule'],
  ];
  for (const [name, rule, verdict] of rows) assert.equal(judgeRule(rule), verdict, name);
});

test('an update without steps keeps the steps it has', async (t) => {
  const book = await startBook(t);
  const made = await book.local('POST', '/v1/automations', {
    name: 'Notes',
    trigger: { kind: 'webhook' },
    steps: [{ id: 'st_n', kind: 'notify', text: 'Fired.' }],
  });
  const id = made.json.automation.id;
  const older = await book.local('PUT', `/v1/automations/${id}`, { name: 'Notes', trigger: { kind: 'webhook' } });
  assert.deepEqual([older.status, older.json.error.code, older.json.error.field], [400, 'has_steps', 'steps']);
  assert.equal(book.store.get(id).steps.length, 1);
  // The files say nothing of the refusal.
  assert.ok(!fs.readFileSync(path.join(book.support, 'automations.json'), 'utf8').includes('has_steps'));
});
