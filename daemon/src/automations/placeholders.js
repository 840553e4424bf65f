// The words a run fills into its steps' texts. A prompt or a text gets
// `{name}` placeholders filled in place; a shell command never gets words
// spliced into its text: its placeholders become references to variables of
// its environment, which hold the words, so nothing from outside (another
// session, a web call, a file change, a step's reply) is ever read as script.

import { cut } from '../json.js';

/** The longest value a placeholder or a variable holds, in characters (64 KiB). */
export const MAX_VALUE_CHARS = 64 * 1024;

/** The longest short result (two sentences, a command's last lines), in characters. */
export const MAX_RESULT_CHARS = 300;

const TOKEN = /\{(project|time|battery|week|session|result|ask|prev|exit|output|answer|payload|step:[A-Za-z0-9_-]{1,100})\}/g;

/** Words of the service's own or the person's choosing: all a prompt that asks nobody may hold. */
export const OWN_WORDS = Object.freeze(['project', 'time', 'battery', 'week', 'exit', 'answer']);

/** The placeholders a command may hold, each read from the variable of its name. */
const COMMAND_WORDS = Object.freeze({
  project: 'TIDEWATCH_PROJECT',
  time: 'TIDEWATCH_TIME',
  battery: 'TIDEWATCH_BATTERY',
  exit: 'TIDEWATCH_EXIT',
  answer: 'TIDEWATCH_ANSWER',
});

/** The variable that holds a step's whole result: "-" in its id becomes "_". */
export const stepVariable = (id) => `TIDEWATCH_STEP_${id.replaceAll('-', '_')}`;

// A variable can't hold NUL, and every value has its limit.
const bounded = (text) => String(text ?? '').replaceAll('\0', '').slice(0, MAX_VALUE_CHARS);

/** The first two sentences of a text, on one line, within MAX_RESULT_CHARS. */
export function twoSentences(text) {
  const flat = String(text ?? '').replace(/\s+/g, ' ').trim();
  const sentences = flat.match(/[^.!?]+(?:[.!?]+|$)/g) ?? [];
  return cut(sentences.slice(0, 2).join('').trim(), MAX_RESULT_CHARS);
}

/** A command's last three non-empty lines, within MAX_RESULT_CHARS. */
export function lastLines(text) {
  const lines = String(text ?? '').split(/\r?\n/).filter((line) => line.trim() !== '');
  const tail = lines.slice(-3).join('\n');
  return tail.length > MAX_RESULT_CHARS ? `…${tail.slice(-MAX_RESULT_CHARS)}` : tail;
}

/**
 * @typedef {Object} Words What a run has to fill in at one step
 * @property {string} project The project's name
 * @property {string} time When the run began, such as "9:00"
 * @property {string} battery Such as "80%"
 * @property {string} week
 * @property {string} session The title of the session that fired it
 * @property {string} result That session's last reply, two sentences
 * @property {string} ask What that session asks
 * @property {string} prev What the step before said, two sentences, or why it failed
 * @property {string} prevWhole The step before's whole result
 * @property {string} exit The last command's exit code
 * @property {string} output The last command's whole output
 * @property {string} answer The last answer given
 * @property {string} payload What fired it
 * @property {Object<string, {short: string, whole: string}>} steps The earlier steps' results by id
 */

/**
 * Fills a prompt or a text.
 *
 * @param {string} text
 * @param {Words} words
 * @param {Array<string>|null} [only] The placeholders that may be filled; others stay as written
 * @return {string}
 */
export function fillText(text, words, only = null) {
  return String(text ?? '').replace(TOKEN, (token, name) => {
    if (only && !only.includes(name)) return token;
    const value = name.startsWith('step:') ? words.steps[name.slice(5)]?.short : words[name];
    return bounded(value);
  });
}

/**
 * A command with its placeholders turned into references to its variables;
 * any other placeholder stays as written.
 */
export function commandText(command) {
  return String(command ?? '').replace(TOKEN, (token, name) => (COMMAND_WORDS[name] ? `\${${COMMAND_WORDS[name]}}` : token));
}

/**
 * The variables a shell step runs with.
 *
 * @param {Words} words
 * @return {Object<string, string>}
 */
export function shellEnv(words) {
  const env = {};
  for (const [name, variable] of Object.entries(COMMAND_WORDS)) env[variable] = bounded(words[name]);
  Object.assign(env, {
    TIDEWATCH_PREV: bounded(words.prevWhole),
    TIDEWATCH_PAYLOAD: bounded(words.payload),
    TIDEWATCH_OUTPUT: bounded(words.output),
  });
  for (const [id, { whole }] of Object.entries(words.steps)) env[stepVariable(id)] = bounded(whole);
  return env;
}
