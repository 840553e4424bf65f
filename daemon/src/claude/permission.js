// A permission request of Claude Code as an approval on the wire, and the
// answer that goes back to Claude Code on the waiting hook's standard output.
// Pure functions of the request.

import { createHash } from 'node:crypto';
import { arrayOr, cut, isObject } from '../json.js';

/** A string in a tool's input kept for display is cut to this many characters. */
export const MAX_INPUT_STRING_CHARS = 2000;

/** The input kept for display is at most this many bytes of JSON; beyond, only a note. */
export const MAX_INPUT_JSON_BYTES = 16 * 1024;

/** Lists and objects in the input kept for display hold at most this many entries. */
export const MAX_INPUT_ENTRIES = 50;

/** Nesting kept for display; deeper values become a note. */
export const MAX_INPUT_DEPTH = 6;

/** A plan is cut to this many characters. */
export const MAX_PLAN_CHARS = 64 * 1024;

/** The one-line summary is cut to this many characters. */
export const MAX_SUMMARY_CHARS = 200;

/** What Claude (the model) reads when the person says no from Tidewatch. */
export const DENY_MESSAGE = 'The person declined this from Tidewatch.';

/** What Claude reads when the person sends a plan back from Tidewatch. */
export const PLAN_DENY_MESSAGE = 'The person didn’t approve this plan from Tidewatch; keep planning.';

/** What Claude reads when the person skips a question from Tidewatch. */
export const QUESTION_DENY_MESSAGE = 'The person skipped this question from Tidewatch.';

/**
 * A tool's input made small enough to keep and to show: long strings cut,
 * long lists and deep nesting noted, and the whole bounded in size.
 *
 * @param {*} input
 * @return {*} JSON data
 */
export function displayInput(input) {
  const shrink = (value, depth) => {
    if (typeof value === 'string') return cut(value, MAX_INPUT_STRING_CHARS);
    if (value === null || typeof value !== 'object')
      return typeof value === 'number' && !Number.isFinite(value) ? null : value;
    if (depth >= MAX_INPUT_DEPTH) return '…';
    if (Array.isArray(value)) {
      const kept = value.slice(0, MAX_INPUT_ENTRIES).map((element) => shrink(element, depth + 1));
      if (value.length > MAX_INPUT_ENTRIES) kept.push(`… ${value.length - MAX_INPUT_ENTRIES} more`);
      return kept;
    }
    const entries = Object.entries(value);
    const kept = Object.fromEntries(
      entries.slice(0, MAX_INPUT_ENTRIES).map(([key, each]) => [key, shrink(each, depth + 1)]),
    );
    if (entries.length > MAX_INPUT_ENTRIES) kept['…'] = `${entries.length - MAX_INPUT_ENTRIES} more`;
    return kept;
  };
  const small = shrink(input, 0);
  if (Buffer.byteLength(JSON.stringify(small) ?? 'null') <= MAX_INPUT_JSON_BYTES) return small ?? null;
  return { truncated: true };
}

/**
 * The key that ties a permission request to the tool call it is about: the
 * same tool with the same input (as kept for display, so that both sides
 * cut alike).
 *
 * @return {string}
 */
export function callKey(toolName, input) {
  return createHash('sha256')
    .update(`${toolName}\n${JSON.stringify(displayInput(input))}`)
    .digest('hex')
    .slice(0, 32);
}

/** @return {string} The approval's kind for a tool: "question", "plan" or "tool". */
export function approvalKind(toolName) {
  if (toolName === 'AskUserQuestion') return 'question';
  if (toolName === 'ExitPlanMode') return 'plan';
  return 'tool';
}

/**
 * One line that says what the tool is about to do: the command, the file,
 * the address; the tool's name when nothing better is there.
 *
 * @param {string} toolName
 * @param {*} input
 * @return {string}
 */
export function summaryOf(toolName, input) {
  const field = (name) => (isObject(input) && typeof input[name] === 'string' ? input[name].trim() : '');
  const detail =
    field('command') ||
    field('file_path') ||
    field('notebook_path') ||
    field('url') ||
    field('pattern') ||
    field('query') ||
    field('description') ||
    field('prompt');
  const line = detail.split('\n').find((each) => each.trim() !== '') ?? '';
  return cut(line.trim() || toolName, MAX_SUMMARY_CHARS);
}

/** @return {string} What a session is doing while it runs a tool: "Bash: npm test". */
export function activityOf(toolName, input) {
  const summary = summaryOf(toolName, input);
  return summary === toolName ? toolName : `${toolName}: ${summary}`;
}

function questionsOf(input) {
  if (!isObject(input) || !Array.isArray(input.questions)) return [];
  return input.questions
    .filter(isObject)
    .slice(0, MAX_INPUT_ENTRIES)
    .map((question) => {
      const kept = {};
      if (typeof question.question === 'string') kept.question = cut(question.question, MAX_INPUT_STRING_CHARS);
      if (typeof question.header === 'string') kept.header = cut(question.header, MAX_SUMMARY_CHARS);
      if (typeof question.multiSelect === 'boolean') kept.multiSelect = question.multiSelect;
      kept.options = arrayOr(question.options)
        .filter(isObject)
        .slice(0, MAX_INPUT_ENTRIES)
        .map((option) => {
          const each = {};
          if (typeof option.label === 'string') each.label = cut(option.label, MAX_SUMMARY_CHARS);
          if (typeof option.description === 'string')
            each.description = cut(option.description, MAX_INPUT_STRING_CHARS);
          return each;
        });
      return kept;
    });
}

/**
 * The approval for a permission request.
 *
 * @param {Object} event The PermissionRequest event, checked
 * @param {Object} about
 * @param {string} about.id
 * @param {number} about.now Epoch ms
 * @param {number} about.expiresAt Epoch ms: when the service stops waiting
 * @return {Object} An Approval record
 */
export function approvalFrom(event, { id, now, expiresAt }) {
  const toolName = event.tool_name;
  const input = event.tool_input;
  const kind = approvalKind(toolName);
  const approval = {
    id,
    sessionId: event.session_id,
    createdAt: now,
    expiresAt,
    kind,
    toolName,
    summary: summaryOf(toolName, input),
    input: displayInput(input ?? null),
  };
  if (isObject(input) && typeof input.description === 'string' && input.description.trim() !== '') {
    approval.reason = cut(input.description.trim(), MAX_INPUT_STRING_CHARS);
  }
  // The wider answers add a permission rule, which only means something for a tool.
  approval.canSession = kind === 'tool';
  approval.canAlways = kind === 'tool';
  if (kind === 'question') approval.questions = questionsOf(input);
  if (kind === 'plan' && isObject(input) && typeof input.plan === 'string')
    approval.plan = cut(input.plan, MAX_PLAN_CHARS);
  return approval;
}

/**
 * The permission rule that allows this very call again: the exact command
 * for Bash, the host for a fetch, the tool itself otherwise.
 *
 * @return {{toolName: string, ruleContent: (string|undefined)}}
 */
export function ruleFor(toolName, input) {
  if (toolName === 'Bash' && isObject(input) && typeof input.command === 'string') {
    return { toolName, ruleContent: input.command };
  }
  if (toolName === 'WebFetch' && isObject(input) && typeof input.url === 'string') {
    try {
      return { toolName, ruleContent: `domain:${new URL(input.url).hostname}` };
    } catch {
      // no host to name: the tool as a whole
    }
  }
  return { toolName };
}

// Claude Code's own suggested rules, re-aimed: for the session, or kept where
// it meant to keep them ("session" then means the project's local settings).
function suggestedRules(event, lasting) {
  const suggestions = arrayOr(event.permission_suggestions);
  return suggestions
    .filter(
      (each) =>
        isObject(each) &&
        each.type === 'addRules' &&
        each.behavior === 'allow' &&
        Array.isArray(each.rules) &&
        each.rules.every((rule) => isObject(rule) && typeof rule.toolName === 'string'),
    )
    .map((each) => ({
      type: 'addRules',
      rules: each.rules.map((rule) =>
        typeof rule.ruleContent === 'string'
          ? { toolName: rule.toolName, ruleContent: rule.ruleContent }
          : { toolName: rule.toolName },
      ),
      behavior: 'allow',
      destination: lasting
        ? typeof each.destination === 'string' && each.destination !== 'session'
          ? each.destination
          : 'localSettings'
        : 'session',
    }));
}

/**
 * What the waiting hook prints for an answer. A wider answer allows and adds
 * a rule: for the session ("session"), or in the project's local settings
 * ("always"), the same place Claude Code's own "don't ask again" uses.
 *
 * @param {string} decision "allow", "deny", "session" or "always"
 * @param {Object} event The PermissionRequest event
 * @return {Object|null} The JSON to print; null means print nothing and let
 *     Claude Code ask in the terminal (a question has no answer to give)
 */
export function answerFor(decision, event) {
  const kind = approvalKind(event.tool_name);
  const reply = (answer) => ({ hookSpecificOutput: { hookEventName: 'PermissionRequest', decision: answer } });
  if (decision === 'deny') {
    const message = kind === 'plan' ? PLAN_DENY_MESSAGE : kind === 'question' ? QUESTION_DENY_MESSAGE : DENY_MESSAGE;
    return reply({ behavior: 'deny', message });
  }
  if (!['allow', 'session', 'always'].includes(decision)) return null;
  // The options of a question are chosen where they are shown.
  if (kind === 'question') return null;
  if (kind === 'plan' || decision === 'allow') return reply({ behavior: 'allow' });
  const lasting = decision === 'always';
  const own = {
    type: 'addRules',
    rules: [ruleFor(event.tool_name, event.tool_input)],
    behavior: 'allow',
    destination: lasting ? 'localSettings' : 'session',
  };
  return reply({ behavior: 'allow', updatedPermissions: [own, ...suggestedRules(event, lasting)] });
}
