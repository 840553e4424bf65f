// What the service reads in a Claude Code transcript (JSON lines, one record
// a line, appended as the session goes): the last words, the tool calls, and
// how each call ended, which is the only trace of a request refused in the
// terminal; and a turn the API refused, which `claude -p` may leave no
// other trace of (it can exit before its background hooks report). Reading
// goes on from where it stopped, never from the start again; line kinds it
// doesn't know are passed over.

import fs from 'node:fs/promises';

import { freshCursor, readNewLines } from '../codex/line-tail.js';
import { isObject } from '../json.js';

/** A longer transcript line is passed over unread. */
export const MAX_TRANSCRIPT_LINE_BYTES = 1024 * 1024;

/** At most this much is read in one go; the rest waits for the next read. */
export const MAX_TRANSCRIPT_READ_BYTES = 4 * 1024 * 1024;

/**
 * A transcript seen for the first time is read from this far before its end,
 * not from its start: a long session's early lines say nothing of now.
 */
export const FIRST_READ_BYTES = 1024 * 1024;

/** What Claude Code writes when the person refuses a tool call in the terminal. */
export const INTERRUPTED_FOR_TOOL = '[Request interrupted by user for tool use]';

/**
 * @typedef {Object} TranscriptFacts
 * @property {string|undefined} lastText The assistant's last words
 * @property {Array<{id: string, name: string, input: *}>} toolUses Tool calls, in order
 * @property {Array<{id: string, outcome: string}>} outcomes How calls ended:
 *     "done", "failed", or "refused" (refused by the person in the terminal)
 * @property {boolean} interrupted The turn stopped on the person's refusal
 * @property {string|undefined} model The model of the last answer
 * @property {Array<string>} pendingErrors Calls that failed with nothing after
 *     them yet to tell a refusal from a failure
 * @property {TurnFailure|null|undefined} failure How the last answer read
 *     ended: a failure; null for a good answer; undefined when none was read
 * @property {{prompt: (string|null), failed: boolean}|null} turn The last turn
 *     told of, with what was known of it before these lines: its prompt, and
 *     whether an error answer ended it
 * @property {string|undefined} carryOn Claude Code's own plan after a usage
 *     limit, as last told: "armed" (it goes on by itself at the reset) or
 *     "off" (the person cancelled it); undefined when nothing was told
 */

/**
 * @typedef {Object} TurnFailure A turn the API refused, as Claude Code wrote it down
 * @property {string} error Claude Code's word: "rate_limit", "authentication_failed", …
 * @property {string} [text] What it told the person
 * @property {number} [resetsAt] When a usage limit lifts, epoch ms
 * @property {string} [window] The limit's window: "five_hour", "seven_day"
 * @property {boolean} [usingCredits] It went on on usage credits
 * @property {number} [at] When it was written, epoch ms
 */

/**
 * How Claude Code tells, in its own notices, that it will go on by itself at
 * the reset, and that it won't after all.
 */
const CARRY_ON_ARMED = /^Usage limit reached( again)? · set to continue automatically/;
const CARRY_ON_OFF = /^Automatic continue (cancelled|stopped)/;

// Claude Code's own plan after a limit, from one of its notices.
function carryOnOf(record) {
  if (record.subtype !== 'informational' || typeof record.content !== 'string') return undefined;
  if (CARRY_ON_ARMED.test(record.content)) return 'armed';
  return CARRY_ON_OFF.test(record.content) ? 'off' : undefined;
}

// A prompt's words as its hook reports them.
function promptOf(content) {
  if (typeof content === 'string') return content;
  const texts = Array.isArray(content) ? content.filter((block) => isObject(block) && block.type === 'text') : [];
  return texts.map((block) => String(block.text ?? '')).join('\n');
}

/** The longest failure text kept. */
export const MAX_FAILURE_TEXT_CHARS = 500;

// Claude Code's names of the usage windows, by the records' own.
function windowOf(rateLimitType) {
  if (typeof rateLimitType !== 'string') return undefined;
  if (rateLimitType === 'five_hour') return 'five_hour';
  if (rateLimitType.startsWith('seven_day')) return 'seven_day';
  return undefined;
}

/**
 * The failure an API error answer records; Claude Code writes it in place of
 * the answer, with the usage limit that refused it when it was one.
 *
 * @param {Object} record A transcript record with `isApiErrorMessage`
 * @return {TurnFailure|null} null when it names no failure
 */
export function failureOf(record) {
  if (typeof record.error !== 'string' || record.error === '' || record.error.length > 200) return null;
  const failure = { error: record.error };
  const at = typeof record.timestamp === 'string' ? Date.parse(record.timestamp) : NaN;
  if (Number.isFinite(at)) failure.at = at;
  const content = Array.isArray(record.message?.content) ? record.message.content : [];
  const text = content.find((block) => isObject(block) && block.type === 'text' && typeof block.text === 'string');
  if (text && text.text.trim() !== '') failure.text = text.text.trim().slice(0, MAX_FAILURE_TEXT_CHARS);
  const quota = isObject(record.quotaLimits) ? record.quotaLimits : record.apiErrorParams?.rate_limit_info;
  if (isObject(quota) && quota.status === 'rejected') {
    // Epoch seconds as written; a number this large is milliseconds already.
    if (Number.isFinite(quota.resetsAt) && quota.resetsAt > 0)
      failure.resetsAt = quota.resetsAt > 1e11 ? quota.resetsAt : quota.resetsAt * 1000;
    const window = windowOf(quota.rateLimitType);
    if (window) failure.window = window;
    if (typeof quota.isUsingOverage === 'boolean') failure.usingCredits = quota.isUsingOverage;
  }
  return failure;
}

/**
 * Reads facts out of transcript lines. A call whose result is an error
 * counts as refused once the interruption line follows it (or when Claude
 * Code marks the result as the person's rejection); alone it has failed.
 *
 * @param {Array<string>} lines
 * @param {Object} [options]
 * @param {Object|null} [options.turn] The last turn as the lines before told it
 * @return {TranscriptFacts}
 */
export function transcriptFacts(lines, { turn = null } = {}) {
  const facts = {
    turn,
    lastText: undefined,
    toolUses: [],
    outcomes: [],
    interrupted: false,
    model: undefined,
    failure: undefined,
    carryOn: undefined,
  };
  let erred = [];
  const settle = (outcome) => {
    for (const id of erred) facts.outcomes.push({ id, outcome });
    erred = [];
  };
  for (const line of lines) {
    let record;
    try {
      record = JSON.parse(line);
    } catch {
      continue;
    }
    if (!isObject(record) || record.isSidechain === true) continue;
    if (record.type === 'system') facts.carryOn = carryOnOf(record) ?? facts.carryOn;
    if (!isObject(record.message)) continue;
    const content = record.message.content;
    if (record.type === 'assistant' && Array.isArray(content)) {
      if (record.isApiErrorMessage === true) {
        facts.failure = failureOf(record) ?? facts.failure;
        facts.turn = { prompt: facts.turn?.prompt ?? null, failed: true };
      } else if (typeof record.message.model === 'string' && !record.message.model.startsWith('<')) {
        facts.model = record.message.model;
        facts.failure = null;
        facts.carryOn = undefined;
      }
      for (const block of content) {
        if (!isObject(block)) continue;
        if (block.type === 'text' && typeof block.text === 'string' && block.text.trim() !== '')
          facts.lastText = block.text;
        if (block.type === 'tool_use' && typeof block.id === 'string' && typeof block.name === 'string') {
          facts.toolUses.push({ id: block.id, name: block.name, input: block.input });
        }
      }
    } else if (record.type === 'user') {
      if (typeof record.promptSource === 'string') facts.turn = { prompt: promptOf(content), failed: false };
      const blocks =
        typeof content === 'string' ? [{ type: 'text', text: content }] : Array.isArray(content) ? content : [];
      for (const block of blocks) {
        if (!isObject(block)) continue;
        if (block.type === 'tool_result' && typeof block.tool_use_id === 'string') {
          if (block.is_error !== true) {
            facts.outcomes.push({ id: block.tool_use_id, outcome: 'done' });
          } else if (record.toolDenialKind === 'user-rejected' || record.toolUseResult === 'User rejected tool use') {
            facts.outcomes.push({ id: block.tool_use_id, outcome: 'refused' });
          } else {
            erred.push(block.tool_use_id);
          }
        } else if (block.type === 'text' && typeof block.text === 'string') {
          if (block.text.trim() === INTERRUPTED_FOR_TOOL) {
            settle('refused');
            facts.interrupted = true;
          } else if (!block.text.startsWith('<')) {
            settle('failed');
            facts.interrupted = false;
          }
        }
      }
    }
  }
  // Errors not followed by the interruption in what was read so far stay
  // open; the next read may bring it.
  facts.pendingErrors = erred;
  return facts;
}

/**
 * Follows one transcript file: each read gives the facts of the lines added
 * since the last one.
 */
export class TranscriptTail {
  #file;
  #cursor;
  #pendingErrors = [];
  #turn = null;
  #reading = Promise.resolve(null);

  /**
   * @param {string} file
   * @param {Object|null} [saved] What {@link saved} gave before a restart
   */
  constructor(file, saved = null) {
    this.#file = file;
    this.#cursor = isObject(saved?.cursor) ? { ...freshCursor(), ...saved.cursor } : null;
    this.#pendingErrors = Array.isArray(saved?.pendingErrors)
      ? saved.pendingErrors.filter((id) => typeof id === 'string')
      : [];
    if (isObject(saved?.turn) && typeof saved.turn.failed === 'boolean') {
      this.#turn = { prompt: typeof saved.turn.prompt === 'string' ? saved.turn.prompt : null, failed: saved.turn.failed };
    }
  }

  /**
   * @return {{prompt: (string|null), failed: boolean}|null} The last turn read
   *     of: its prompt, and whether it failed; null before any
   */
  get turn() {
    return this.#turn;
  }

  get file() {
    return this.#file;
  }

  /** @return {Object} Where reading stands, as plain data. */
  saved() {
    return { cursor: this.#cursor, pendingErrors: this.#pendingErrors, turn: this.#turn };
  }

  /**
   * Reads what was added.
   *
   * @return {Promise<TranscriptFacts|null>} null when the file can't be read
   */
  read() {
    // One read at a time: two from the same place would tell the same lines twice.
    this.#reading = this.#reading.then(() => this.#readOn());
    return this.#reading;
  }

  async #readOn() {
    try {
      if (this.#cursor === null) {
        const stat = await fs.stat(this.#file);
        // Starting inside a line is fine: that part doesn't parse and is passed over.
        this.#cursor = { ...freshCursor(), ino: stat.ino, offset: Math.max(0, stat.size - FIRST_READ_BYTES) };
      }
      const { lines, cursor } = await readNewLines(this.#file, this.#cursor, {
        maxLineBytes: MAX_TRANSCRIPT_LINE_BYTES,
        maxReadBytes: MAX_TRANSCRIPT_READ_BYTES,
      });
      this.#cursor = cursor;
      // A refusal's error and its interruption line may land in two reads.
      const carried = this.#pendingErrors.map((id) =>
        JSON.stringify({
          type: 'user',
          message: { content: [{ type: 'tool_result', tool_use_id: id, is_error: true }] },
        }),
      );
      const facts = transcriptFacts([...carried, ...lines], { turn: this.#turn });
      this.#pendingErrors = facts.pendingErrors;
      this.#turn = facts.turn;
      return facts;
    } catch {
      return null;
    }
  }
}
