// Judging a saved automation whole before anything is kept: every field
// within its stated limit, projects that exist inside the person's projects
// folder, placeholders only where they are safe, and the person's agreement
// to commands, to sessions that ask nobody and to paid providers on every
// save that needs it. A refusal names its code and the field at fault.

import fs from 'node:fs/promises';
import path from 'node:path';

import picomatch from 'picomatch';

import { HttpError, invalid } from '../http-reply.js';
import { isObject } from '../json.js';
import { MAX_ALLOWED_TOOLS, MAX_PROJECT_CHARS, MAX_PROMPT_CHARS } from '../sessions/session-request.js';
import { clockMinutes, cronOf, NOT_A_MOMENT, NOT_A_SCHEDULE } from './schedule.js';
import { judgeRule } from './permission-rules.js';
import { allowedPlaceholders, forbiddenPlaceholder, PLACES } from './placeholder-rules.js';
import { isSecretFile } from './secret-file.js';

/** The limits, as the refusals' sentences state them. */
export const LIMITS = Object.freeze({
  name: 60,
  question: 200,
  answers: [2, 3],
  answer: 24,
  text: 500,
  budgetMinutes: 720,
  windowPct: 100,
  glob: 200,
  globStars: 4,
  steps: 5,
  outputs: 2,
  automations: 50,
  cronEveryMs: 5 * 60 * 1000,
});

/** Limits of fields whose sentences name none. */
export const MAX_COMMAND_CHARS = 8 * 1024;
export const MAX_URL_CHARS = 2048;
export const MAX_TEMPLATE_CHARS = 100;
export const MAX_MODEL_CHARS = 100;
export const MAX_TOOL_NAME_CHARS = 100;
export const MAX_WAIT_MIN = 24 * 60;
export const MAX_SHELL_SEC = 60 * 60;
export const MAX_EVERY_HOURS = 23;
/** Cron runs looked at for the shortest gap: enough to cross days, weeks and month ends. */
export const CRON_RUNS_LOOKED_AT = 1000;

/** The sentence of each refusal. */
export const MESSAGES = Object.freeze({
  bad_name: 'Give it a name, 60 characters at most.',
  project_needed: 'Pick the project.',
  no_prompt: 'Write what it should do.',
  long_prompt: `A prompt is ${MAX_PROMPT_CHARS} characters at most.`,
  text_needed: 'Write what to say.',
  provider_needed: 'Pick where it runs.',
  bad_model: `A model is named in ${MAX_MODEL_CHARS} characters at most.`,
  bad_mode: 'Pick how much it may do on its own.',
  bad_target: 'That session isn’t there to continue.',
  bad_placeholder: 'Words from another session or from outside can’t go there. A command reads them from its environment.',
  bad_rule: 'That isn’t a rule Claude Code reads.',
  rule_too_broad: 'That rule allows too much.',
  bad_guard: 'That condition doesn’t fit here.',
  guard_text: 'Write the words to look for.',
  bad_question: 'Write the question, 200 characters at most.',
  bad_answers: 'Give 2 or 3 different answers, 24 characters each at most.',
  bad_timeout: 'Pick how long it waits.',
  no_command: 'Write the command to run.',
  long_command: `A command is ${MAX_COMMAND_CHARS} characters at most.`,
  bad_step: 'Your Mac can’t run this step yet. Update Tidewatch on the Mac, or pick another.',
  bad_steps: 'A workflow has 1 to 5 steps.',
  bad_outputs: 'Tell two places at most.',
  bad_output: 'Your Mac can’t send there yet.',
  bad_text: '500 characters at most.',
  url_needed: 'Paste its address.',
  bad_url: 'That isn’t this service’s address.',
  insecure_url: 'Use an https address.',
  bad_bot_token: 'That isn’t a bot token from @BotFather.',
  bad_chat: 'A chat is a number or @channel.',
  bad_path: 'Pick a file inside the project.',
  secret_file: 'That file holds secrets. Pick another.',
  bad_budget: 'A budget is 1 to 720 minutes, or 1 to 100 points of the window.',
  bad_cron: NOT_A_SCHEDULE,
  too_often: 'That runs more often than every 5 minutes.',
  not_github: 'That project has no GitHub remote.',
  no_gh: 'GitHub’s gh is missing or signed out on the Mac.',
  bad_glob: 'That pattern doesn’t read: 200 characters and four ** at most.',
  no_project: 'That project folder isn’t there.',
  outside_projects: 'That folder is outside your projects folder.',
  bad_trigger: NOT_A_MOMENT,
  has_steps: 'This automation has steps. Edit it in a newer Tidewatch.',
  confirm_shell: 'A command needs Touch ID or your password first.',
  confirm_bypass: 'A session that asks nobody needs Touch ID or your password first.',
  confirm_paid: 'It runs on a paid provider: each run is billed by that provider, not by your plan. Agree to that first.',
  no_glasses: 'No glasses are paired to read aloud on.',
  too_many: 'That’s 50 automations, the most there can be.',
});

export const TRIGGER_KINDS = ['time', 'once', 'every', 'reset', 'limit', 'session', 'power', 'cron', 'file', 'github', 'hook', 'webhook'];
export const STEP_KINDS = ['start', 'continue', 'ask', 'shell', 'notify', 'say'];
export const OUTPUT_KINDS = ['notify', 'say', 'webhook', 'file'];
export const PRESETS = ['ntfy', 'slack', 'discord', 'telegram', 'post'];
export const GUARDS = ['ok', 'failed', 'quiet', 'not_quiet', 'contains', 'answer'];
const WINDOWS = ['five_hour', 'seven_day'];
const FILE_EVENTS = ['created', 'changed', 'deleted'];
const GITHUB_EVENTS = ['pr_opened', 'review_comment', 'checks_failed'];
const GITHUB_EVERY = [5, 10, 15];
const HOOK_EVENTS = ['Stop', 'StopFailure', 'PostToolUseFailure', 'PreCompact', 'SessionEnd'];
const FROM = ['mine', 'automated', 'any'];
const CLAUDE_MODES = ['dontAsk', 'default', 'acceptEdits', 'auto', 'bypassPermissions'];
const CODEX_MODES = ['read-only', 'workspace-write'];
const TARGETS = ['trigger', 'working', 'limited'];

/** What the book takes, as the app's feature flags say it. */
export const FEATURES = Object.freeze([
  'steps',
  'ask',
  'shell',
  'budget',
  'step.output',
  'trigger.cron',
  'trigger.webhook',
  'trigger.file',
  'trigger.github',
  'trigger.hook',
  'output.webhook',
  'output.file',
]);

const ID = /^[A-Za-z0-9_-]{1,40}$/;
const BOT_TOKEN = /^\d{5,15}:[A-Za-z0-9_-]{30,60}$/;
const CHAT = /^(-?\d{1,20}|@[A-Za-z][A-Za-z0-9_]{4,31})$/;
const TOOL_NAME = new RegExp(`^[A-Za-z0-9_.-]{1,${MAX_TOOL_NAME_CHARS}}$`);
const GITHUB_URL = /^\s*url\s*=\s*(?:https:\/\/|ssh:\/\/git@|git@)(?:www\.)?github\.com[/:]/im;
/** The most of a git config read when looking for the remote. */
const MAX_GIT_CONFIG_BYTES = 256 * 1024;

/** Where each preset's addresses live. */
const PRESET_ADDRESS = {
  ntfy: (url) => /^\/[A-Za-z0-9_-]{1,64}$/.test(url.pathname),
  slack: (url) => url.hostname === 'hooks.slack.com' && url.pathname.startsWith('/services/'),
  discord: (url) =>
    ['discord.com', 'discordapp.com', 'canary.discord.com', 'ptb.discord.com'].includes(url.hostname) &&
    /^\/api\/webhooks\/\d+\/[A-Za-z0-9_-]+$/.test(url.pathname),
  post: () => true,
};
const TELEGRAM_HOST = 'api.telegram.org';

/**
 * A refusal of the book.
 *
 * @param {string} code A key of MESSAGES
 * @param {string} [field] The field path, such as "steps[2].command"
 * @param {number} [status=400]
 * @return {HttpError}
 */
export function refusal(code, field, status = 400) {
  return new HttpError(status, code, MESSAGES[code], { field });
}

const chars = (text) => [...text].length;
const last4 = (text) => [...text].slice(-4).join('');
const isInt = (value, min, max) => Number.isInteger(value) && value >= min && value <= max;

// A text of 1 to max characters once trimmed; the trimmed text.
function textOf(value, max, emptyCode, longCode, field) {
  if (typeof value !== 'string' || value.trim() === '') throw refusal(emptyCode, field);
  if (chars(value.trim()) > max) throw refusal(longCode, field);
  return value.trim();
}

function checkPlaceholders(text, place, triggerKind, before, field) {
  if (forbiddenPlaceholder(text, allowedPlaceholders(place, triggerKind, before)) !== null) throw refusal('bad_placeholder', field);
}

const expandHome = (text, home) => (text === '~' || text.startsWith('~/') ? path.join(home, text.slice(1)) : text);

// Whether `inner` is `outer` or lies inside it; both real paths.
function within(outer, inner) {
  const relative = path.relative(outer, inner);
  return !relative.startsWith('..') && !path.isAbsolute(relative);
}

/**
 * A project folder inside the projects folder, links followed.
 *
 * @return {Promise<string>} Its real path
 */
async function projectAt(value, field, context) {
  if (typeof value !== 'string' || value.trim() === '') throw refusal('project_needed', field);
  const given = expandHome(value.trim(), context.home);
  if (given.length > MAX_PROJECT_CHARS || given.includes('\0')) throw refusal('no_project', field);
  if (!path.isAbsolute(given)) throw refusal('outside_projects', field);
  let real;
  try {
    real = await fs.realpath(given);
    if (!(await fs.stat(real)).isDirectory()) throw new Error('not a folder');
  } catch {
    throw refusal('no_project', field);
  }
  const root = await fs.realpath(context.projectsRoot).catch(() => null);
  if (root === null || real === root || !within(root, real)) throw refusal('outside_projects', field);
  return real;
}

async function readSmall(file, max) {
  const handle = await fs.open(file, 'r');
  try {
    const buffer = Buffer.alloc(max);
    const { bytesRead } = await handle.read(buffer, 0, max, 0);
    return buffer.subarray(0, bytesRead).toString('utf8');
  } finally {
    await handle.close();
  }
}

/**
 * @param {string} repo A project's real path
 * @return {Promise<boolean>} Whether its git configuration names a GitHub remote
 */
export async function hasGithubRemote(repo) {
  try {
    let gitDir = path.join(repo, '.git');
    if ((await fs.stat(gitDir)).isFile()) {
      const pointer = /^gitdir:\s*(.+)$/m.exec(await readSmall(gitDir, 4096));
      if (!pointer) return false;
      gitDir = path.resolve(repo, pointer[1].trim());
    }
    const common = await readSmall(path.join(gitDir, 'commondir'), 4096).catch(() => null);
    if (common !== null) gitDir = path.resolve(gitDir, common.trim());
    return GITHUB_URL.test(await readSmall(path.join(gitDir, 'config'), MAX_GIT_CONFIG_BYTES));
  } catch {
    return false;
  }
}

function daysOf(value) {
  if (value === undefined || value === null) return [];
  const fits = Array.isArray(value) && value.length <= 7 && value.every((day) => isInt(day, 0, 6));
  if (!fits || new Set(value).size !== value.length) throw refusal('bad_trigger', 'trigger');
  return value;
}

function clockOrNull(value) {
  if (value === undefined || value === null) return null;
  if (clockMinutes(value) === null) throw refusal('bad_trigger', 'trigger');
  return value;
}

function oneOf(value, words, fallback, code, field) {
  const chosen = value ?? fallback;
  if (!words.includes(chosen)) throw refusal(code, field);
  return chosen;
}

// The shortest gap between two runs, over the runs ahead.
function tooOften(cron, now) {
  const runs = cron.nextRuns(CRON_RUNS_LOOKED_AT, new Date(now)).map((date) => date.getTime());
  return runs.some((at, i) => i > 0 && at - runs[i - 1] < LIMITS.cronEveryMs);
}

function globOf(value) {
  if (value === undefined || value === null || value === '') return null;
  const field = 'trigger.glob';
  if (typeof value !== 'string' || chars(value) > LIMITS.glob || value.split('**').length - 1 > LIMITS.globStars) {
    throw refusal('bad_glob', field);
  }
  try {
    picomatch.makeRe(value, { strictBrackets: true });
  } catch {
    throw refusal('bad_glob', field);
  }
  return value;
}

async function optionalProject(value, context) {
  return value === undefined || value === null || value === '' ? null : projectAt(value, 'trigger', context);
}

/**
 * The trigger as kept: only its kind's fields.
 *
 * @return {Promise<{trigger: Object, project: (string|null)}>} `project` is the real path of a folder it names
 */
async function triggerOf(value, context) {
  const field = 'trigger';
  if (!isObject(value) || !TRIGGER_KINDS.includes(value.kind)) throw refusal('bad_trigger', field);
  const { kind } = value;
  const now = context.now ?? Date.now();
  switch (kind) {
    case 'time':
      if (clockMinutes(value.at) === null) throw refusal('bad_trigger', field);
      return { trigger: { kind, at: value.at, days: daysOf(value.days) }, project: null };
    case 'once': {
      const kept = context.existing?.trigger?.kind === 'once' && context.existing.trigger.at === value.at;
      if (!Number.isSafeInteger(value.at) || (value.at <= now && !kept)) throw refusal('bad_trigger', field);
      return { trigger: { kind, at: value.at }, project: null };
    }
    case 'every': {
      if (!isInt(value.hours, 1, MAX_EVERY_HOURS) || clockMinutes(value.from) === null) throw refusal('bad_trigger', field);
      const to = clockOrNull(value.to);
      if (to !== null && to < value.from) throw refusal('bad_trigger', field);
      return { trigger: { kind, hours: value.hours, from: value.from, to, days: daysOf(value.days) }, project: null };
    }
    case 'reset': {
      if (value.afterLimit !== undefined && typeof value.afterLimit !== 'boolean') throw refusal('bad_trigger', field);
      const trigger = { kind, window: oneOf(value.window, WINDOWS, undefined, 'bad_trigger', field), afterLimit: value.afterLimit === true };
      return { trigger: { ...trigger, from: clockOrNull(value.from), to: clockOrNull(value.to) }, project: null };
    }
    case 'limit':
      return { trigger: { kind, window: oneOf(value.window, WINDOWS, undefined, 'bad_trigger', field) }, project: null };
    case 'session': {
      if (typeof value.event !== 'string' || !/^[a-z_]{1,40}$/.test(value.event)) throw refusal('bad_trigger', field);
      const project = await optionalProject(value.projectPath, context);
      const from = oneOf(value.from, FROM, 'any', 'bad_trigger', field);
      return { trigger: { kind, event: value.event, projectPath: project ? value.projectPath.trim() : null, from }, project };
    }
    case 'power': {
      if (value.event === 'low' && !isInt(value.below, 1, 99)) throw refusal('bad_trigger', field);
      if (value.event !== 'low' && value.event !== 'plugged') throw refusal('bad_trigger', field);
      return { trigger: { kind, event: value.event, ...(value.event === 'low' ? { below: value.below } : {}) }, project: null };
    }
    case 'cron': {
      const cron = cronOf(value.expr);
      if (cron === null || cron.nextRun(new Date(now)) === null) throw refusal('bad_cron', field);
      if (tooOften(cron, now)) throw refusal('too_often', field);
      return { trigger: { kind, expr: value.expr.trim() }, project: null };
    }
    case 'file': {
      const project = await projectAt(value.path, field, context);
      const glob = globOf(value.glob);
      const event = oneOf(value.event, FILE_EVENTS, undefined, 'bad_trigger', field);
      return { trigger: { kind, path: value.path.trim(), glob, event }, project };
    }
    case 'github': {
      const project = await projectAt(value.repoPath, field, context);
      const events = value.events;
      const fits = Array.isArray(events) && events.length > 0 && events.every((each) => GITHUB_EVENTS.includes(each));
      if (!fits || new Set(events).size !== events.length || !GITHUB_EVERY.includes(value.every)) throw refusal('bad_trigger', field);
      if (!(await hasGithubRemote(project))) throw refusal('not_github', field);
      if (!(await context.gh.available())) throw refusal('no_gh', field);
      return { trigger: { kind, repoPath: value.repoPath.trim(), events, every: value.every }, project };
    }
    case 'hook': {
      const event = oneOf(value.event, HOOK_EVENTS, undefined, 'bad_trigger', field);
      let tool = null;
      if (event === 'PostToolUseFailure' && value.tool !== undefined && value.tool !== null && value.tool !== '') {
        if (typeof value.tool !== 'string' || !TOOL_NAME.test(value.tool)) throw refusal('bad_trigger', field);
        tool = value.tool;
      }
      const project = await optionalProject(value.projectPath, context);
      const from = oneOf(value.from, FROM, 'mine', 'bad_trigger', field);
      return { trigger: { kind, event, tool, projectPath: project ? value.projectPath.trim() : null, from }, project };
    }
    default:
      return { trigger: { kind: 'webhook' }, project: null };
  }
}

function guardOf(value, index, steps) {
  const field = `steps[${index}].if`;
  if (value === undefined || value === null) return null;
  if (index === 0 || !isObject(value) || !GUARDS.includes(value.on)) throw refusal('bad_guard', field);
  const before = steps[index - 1];
  const reads = ['start', 'continue', 'shell'].includes(before.kind);
  if (['quiet', 'not_quiet', 'contains'].includes(value.on) && !reads) throw refusal('bad_guard', field);
  if (value.on === 'contains') return { on: 'contains', text: textOf(value.text, LIMITS.text, 'guard_text', 'bad_text', field) };
  if (value.on === 'answer') {
    if (before.kind !== 'ask' || !Array.isArray(before.answers) || !before.answers.includes(value.text)) throw refusal('bad_guard', field);
    return { on: 'answer', text: value.text };
  }
  return { on: value.on };
}

function providerOf(value, field, context, optional) {
  if (optional && (value === undefined || value === null || value === '')) return null;
  if (value === 'codex') return { id: 'codex', paid: false };
  const provider = (context.providers ?? []).find((each) => isObject(each) && each.id === value);
  if (typeof value !== 'string' || !provider) throw refusal('provider_needed', field);
  return { id: value, paid: provider.builtIn !== true && provider.kind !== 'anthropic' };
}

function promptOf(value, field) {
  return textOf(value, MAX_PROMPT_CHARS, 'no_prompt', 'long_prompt', field);
}

function waitOf(value, fallback, max, field) {
  const chosen = value ?? fallback;
  if (!isInt(chosen, 1, max)) throw refusal('bad_timeout', field);
  return chosen;
}

function answersOf(step, at) {
  const { answers } = step;
  const field = `${at}.answers`;
  const [fewest, most] = LIMITS.answers;
  if (!Array.isArray(answers) || answers.length < fewest || answers.length > most) throw refusal('bad_answers', field);
  const trimmed = answers.map((answer) => textOf(answer, LIMITS.answer, 'bad_answers', 'bad_answers', field));
  if (new Set(trimmed.map((answer) => answer.toLowerCase())).size !== trimmed.length) throw refusal('bad_answers', field);
  if (!trimmed.includes(step.default)) throw refusal('bad_answers', `${at}.default`);
  return trimmed;
}

function glassesOf(value, context, field) {
  if (value !== undefined && value !== null && typeof value !== 'boolean') throw invalid(field, '“glasses” must be true or false.');
  if (value === true && !context.glasses) throw refusal('no_glasses', field);
  return value === true;
}

/**
 * One step as kept: its id, kind and guard, then its kind's fields.
 *
 * @return {Promise<{step: Object, project: (string|null), paid: boolean}>}
 */
async function stepOf(value, index, steps, kept, context, triggerKind) {
  const at = `steps[${index}]`;
  const before = kept.map(({ step }) => step);
  const head = { id: value.id, kind: value.kind, if: guardOf(value.if, index, steps) };
  switch (value.kind) {
    case 'start': {
      const project = await projectAt(value.projectPath, `${at}.projectPath`, context);
      const prompt = promptOf(value.prompt, `${at}.prompt`);
      const provider = providerOf(value.providerId, `${at}.providerId`, context, false);
      const codex = provider.id === 'codex';
      const mode = oneOf(value.permissionMode, codex ? CODEX_MODES : CLAUDE_MODES, undefined, 'bad_mode', `${at}.permissionMode`);
      const model = value.model ?? null;
      if (model !== null && (typeof model !== 'string' || model.trim() === '' || chars(model) > MAX_MODEL_CHARS)) {
        throw refusal('bad_model', `${at}.model`);
      }
      const tools = value.allowedTools ?? [];
      if (!Array.isArray(tools) || tools.length > MAX_ALLOWED_TOOLS || (codex && tools.length > 0)) {
        throw refusal('bad_rule', `${at}.allowedTools`);
      }
      for (const rule of tools) {
        const verdict = judgeRule(rule);
        if (verdict !== 'ok') throw refusal(verdict, `${at}.allowedTools`);
      }
      const place = mode === 'bypassPermissions' ? PLACES.unasked : PLACES.text;
      checkPlaceholders(prompt, place, triggerKind, before, `${at}.prompt`);
      const step = { ...head, projectPath: value.projectPath.trim(), prompt, providerId: provider.id, model, permissionMode: mode, allowedTools: tools };
      return { step, project, paid: provider.paid };
    }
    case 'continue': {
      const target = value.target;
      const earlier = typeof target === 'string' && target.startsWith('step:') ? before.find((step) => `step:${step.id}` === target) : null;
      const fits =
        (TARGETS.includes(target) && (target !== 'trigger' || ['session', 'hook'].includes(triggerKind))) ||
        (earlier && ['start', 'continue'].includes(earlier.kind));
      if (!fits) throw refusal('bad_target', `${at}.target`);
      const prompt = promptOf(value.prompt, `${at}.prompt`);
      checkPlaceholders(prompt, PLACES.text, triggerKind, before, `${at}.prompt`);
      const provider = providerOf(value.providerId, `${at}.providerId`, context, true);
      return { step: { ...head, target, prompt, providerId: provider?.id ?? null }, project: null, paid: provider?.paid === true };
    }
    case 'ask': {
      const question = textOf(value.question, LIMITS.question, 'bad_question', 'bad_question', `${at}.question`);
      const answers = answersOf(value, at);
      const timeoutMin = waitOf(value.timeoutMin, 10, MAX_WAIT_MIN, `${at}.timeoutMin`);
      return { step: { ...head, question, answers, default: value.default, timeoutMin }, project: null, paid: false };
    }
    case 'shell': {
      const project = await projectAt(value.projectPath, `${at}.projectPath`, context);
      const command = textOf(value.command, MAX_COMMAND_CHARS, 'no_command', 'long_command', `${at}.command`);
      checkPlaceholders(command, PLACES.command, triggerKind, before, `${at}.command`);
      const timeoutSec = waitOf(value.timeoutSec, 60, MAX_SHELL_SEC, `${at}.timeoutSec`);
      return { step: { ...head, projectPath: value.projectPath.trim(), command, timeoutSec }, project, paid: false };
    }
    default: {
      const text = textOf(value.text, LIMITS.text, 'text_needed', 'bad_text', `${at}.text`);
      checkPlaceholders(text, PLACES.text, triggerKind, before, `${at}.text`);
      if (value.kind === 'say' && !context.glasses) throw refusal('no_glasses', at);
      return { step: { ...head, text, glasses: glassesOf(value.glasses, context, `${at}.glasses`) }, project: null, paid: false };
    }
  }
}

async function stepsOf(body, context, triggerKind) {
  if (body.steps === undefined && Array.isArray(context.existing?.steps) && context.existing.steps.length > 0) {
    throw refusal('has_steps', 'steps');
  }
  const { steps } = body;
  if (!Array.isArray(steps) || steps.length < 1 || steps.length > LIMITS.steps) throw refusal('bad_steps', 'steps');
  const ids = new Set();
  for (const [index, step] of steps.entries()) {
    if (!isObject(step) || !STEP_KINDS.includes(step.kind)) throw refusal('bad_step', `steps[${index}]`);
    if (typeof step.id !== 'string' || !ID.test(step.id) || ids.has(step.id)) throw refusal('bad_step', `steps[${index}].id`);
    ids.add(step.id);
  }
  const kept = [];
  for (const [index, step] of steps.entries()) kept.push(await stepOf(step, index, steps, kept, context, triggerKind));
  return kept;
}

// A file output's path: inside the project, links followed as far as they exist, never a secret file.
async function filePathOf(value, project, context, field) {
  if (typeof value !== 'string' || value.trim() === '' || value.length > MAX_PROJECT_CHARS || value.includes('\0')) {
    throw refusal('bad_path', field);
  }
  if (project === null) throw refusal('bad_path', field);
  const given = expandHome(value.trim(), context.home);
  const full = path.resolve(project, given);
  if (full === project || !within(project, full)) throw refusal('bad_path', field);
  if (isSecretFile(path.relative(project, full))) throw refusal('secret_file', field);
  let existing = full;
  for (;;) {
    const real = await fs.realpath(existing).catch(() => null);
    if (real !== null) {
      if (!within(project, real)) throw refusal('bad_path', field);
      if (existing === full && (await fs.stat(real)).isDirectory()) throw refusal('bad_path', field);
      if (existing === full && isSecretFile(path.relative(project, real))) throw refusal('secret_file', field);
      return value.trim();
    }
    existing = path.dirname(existing);
  }
}

function webhookUrl(value, preset, field) {
  if (typeof value !== 'string' || chars(value) > MAX_URL_CHARS) throw refusal('bad_url', field);
  let url;
  try {
    url = new URL(value.trim());
  } catch {
    throw refusal('bad_url', field);
  }
  if (url.protocol === 'http:') throw refusal('insecure_url', field);
  if (url.protocol !== 'https:' || url.username !== '' || url.password !== '' || !PRESET_ADDRESS[preset](url)) {
    throw refusal('bad_url', field);
  }
  return url;
}

const typed = (value) => typeof value === 'string' && value.trim() !== '';

/**
 * A webhook output as kept (host and last four only) and the secret typed this time.
 *
 * @return {{output: Object, secret: (Object|null)}}
 */
function webhookOf(value, head, at, context) {
  const preset = oneOf(value.preset, PRESETS, 'post', 'bad_output', `${at}.preset`);
  const before = (context.existing?.outputs ?? []).find((each) => isObject(each) && each.id === value.id);
  const keeps = before?.kind === 'webhook' && (before.preset ?? 'post') === preset && typeof before.last4 === 'string';
  if (preset === 'telegram') {
    const secret = {};
    if (typed(value.botToken)) {
      if (!BOT_TOKEN.test(value.botToken.trim())) throw refusal('bad_bot_token', `${at}.botToken`);
      secret.botToken = value.botToken.trim();
    } else if (!keeps) throw refusal('bad_bot_token', `${at}.botToken`);
    if (typed(value.chatId)) {
      if (!CHAT.test(value.chatId.trim())) throw refusal('bad_chat', `${at}.chatId`);
      secret.chatId = value.chatId.trim();
    } else if (!keeps) throw refusal('bad_chat', `${at}.chatId`);
    const tail = secret.botToken ? last4(secret.botToken) : before.last4;
    return { output: { ...head, preset, host: TELEGRAM_HOST, last4: tail }, secret: Object.keys(secret).length > 0 ? secret : null };
  }
  if (!typed(value.url)) {
    if (!keeps) throw refusal('url_needed', `${at}.url`);
    return { output: { ...head, preset, host: before.host, last4: before.last4 }, secret: null };
  }
  const url = webhookUrl(value.url, preset, `${at}.url`);
  return { output: { ...head, preset, host: url.host, last4: last4(url.href) }, secret: { url: url.href } };
}

async function outputsOf(body, context, triggerKind, steps, project) {
  const outputs = body.outputs ?? [];
  if (!Array.isArray(outputs) || outputs.length > LIMITS.outputs) throw refusal('bad_outputs', 'outputs');
  const ids = new Set();
  const kept = [];
  const secrets = {};
  for (const [index, value] of outputs.entries()) {
    const at = `outputs[${index}]`;
    if (!isObject(value) || !OUTPUT_KINDS.includes(value.kind)) throw refusal('bad_output', at);
    if (typeof value.id !== 'string' || !ID.test(value.id) || ids.has(value.id)) throw refusal('bad_output', `${at}.id`);
    ids.add(value.id);
    let text = null;
    if (value.text !== undefined && value.text !== null && value.text !== '') {
      if (typeof value.text !== 'string' || chars(value.text) > LIMITS.text) throw refusal('bad_text', `${at}.text`);
      checkPlaceholders(value.text, PLACES.text, triggerKind, steps, `${at}.text`);
      text = value.text;
    }
    const head = { id: value.id, kind: value.kind, text };
    if (value.kind === 'say' && !context.glasses) throw refusal('no_glasses', at);
    if (value.kind === 'notify') kept.push({ ...head, glasses: glassesOf(value.glasses, context, `${at}.glasses`) });
    else if (value.kind === 'file') kept.push({ ...head, path: await filePathOf(value.path, project, context, `${at}.path`) });
    else if (value.kind === 'webhook') {
      const { output, secret } = webhookOf(value, head, at, context);
      kept.push(output);
      if (secret) secrets[value.id] = secret;
    } else kept.push(head);
  }
  return { outputs: kept, secrets };
}

function budgetOf(value) {
  if (value === undefined || value === null) return null;
  const fits = (amount, max) => amount === undefined || amount === null || isInt(amount, 1, max);
  if (!isObject(value) || !fits(value.minutes, LIMITS.budgetMinutes) || !fits(value.windowPct, LIMITS.windowPct)) {
    throw refusal('bad_budget', 'budget');
  }
  const budget = { minutes: value.minutes ?? null, windowPct: value.windowPct ?? null };
  if (budget.minutes === null && budget.windowPct === null) throw refusal('bad_budget', 'budget');
  return budget;
}

function flagOf(body, field, fallback) {
  if (body[field] === undefined || body[field] === null) return fallback;
  if (typeof body[field] !== 'boolean') throw invalid(field, `“${field}” must be true or false.`);
  return body[field];
}

/**
 * Judges a trigger alone, as a schedule under edit is checked.
 *
 * @param {*} value A `WFTrigger`
 * @param {ValidationContext} context
 * @return {Promise<Object>} The trigger as it would be kept
 * @throws {HttpError} 400 with the code of its fault
 */
export async function validateTrigger(value, context) {
  return (await triggerOf(value, context)).trigger;
}

/**
 * @typedef {Object} ValidationContext
 * @property {string} projectsRoot The person's projects folder; every project lies inside it
 * @property {string} home The person's home folder, for paths written with "~"
 * @property {Object|null} [existing] The stored automation on an update: its
 *     kept webhook addresses stay when none is typed
 * @property {boolean} glasses Whether glasses are paired
 * @property {{available: function(): Promise<boolean>}} gh Whether GitHub's gh is there and signed in
 * @property {Array<Object>} providers The providers (id, kind, builtIn)
 * @property {number} [now] Epoch ms; Date.now() when absent
 */

/**
 * Judges the body of a save.
 *
 * @param {Object} body A `WFInput`
 * @param {ValidationContext} context
 * @return {Promise<{automation: Object, secrets: Object<string, Object>, confirms: {shell: boolean, bypass: boolean, paid: boolean}}>}
 *     The automation as kept (no id, no secret); the webhook secrets typed
 *     this time by output id ({url} or {botToken, chatId}, either part
 *     alone on a kept Telegram output); which agreements it needed
 * @throws {HttpError} 400 with the code and field path of the first fault
 */
export async function validateInput(body, context) {
  if (typeof body.name !== 'string' || body.name.trim() === '' || chars(body.name.trim()) > LIMITS.name) throw refusal('bad_name', 'name');
  const enabled = flagOf(body, 'enabled', context.existing?.enabled ?? true);
  const onlyOnce = flagOf(body, 'onlyOnce', false);
  const { trigger, project: triggerProject } = await triggerOf(body.trigger, context);
  const kept = await stepsOf(body, context, trigger.kind);
  const steps = kept.map(({ step }) => step);
  const project = kept.findLast((each) => each.project !== null)?.project ?? triggerProject;
  const { outputs, secrets } = await outputsOf(body, context, trigger.kind, steps, project);
  const budget = budgetOf(body.budget);
  if (body.template !== undefined && body.template !== null) {
    if (typeof body.template !== 'string' || chars(body.template) > MAX_TEMPLATE_CHARS) {
      throw invalid('template', `“template” is a name of at most ${MAX_TEMPLATE_CHARS} characters.`);
    }
  }

  const shell = steps.findIndex((step) => step.kind === 'shell');
  if (shell >= 0 && flagOf(body, 'confirmShell', false) !== true) throw refusal('confirm_shell', `steps[${shell}]`);
  const bypass = steps.findIndex((step) => step.permissionMode === 'bypassPermissions');
  if (bypass >= 0 && flagOf(body, 'confirmBypass', false) !== true) throw refusal('confirm_bypass', `steps[${bypass}].permissionMode`);
  const paid = kept.some((each) => each.paid);
  if (paid && flagOf(body, 'confirmPaid', false) !== true) throw refusal('confirm_paid');

  const automation = { name: body.name.trim(), enabled, onlyOnce, trigger, steps, outputs, budget };
  if (typeof body.template === 'string') automation.template = body.template;
  if (paid) automation.paid = true;
  return { automation, secrets, confirms: { shell: shell >= 0, bypass: bypass >= 0, paid } };
}
