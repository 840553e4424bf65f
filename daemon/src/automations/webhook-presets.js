// What each webhook preset sends, in its receiving service's own format, and
// how that service's reply reads: whether it took the message, how long it
// asks to wait, and its own words when it refused.

import { clip } from './one-line.js';

/** Discord's `content` holds at most 2000 characters. */
export const DISCORD_LIMIT = 2000;
/** Telegram's `sendMessage` text holds 1 to 4096 characters. */
export const TELEGRAM_LIMIT = 4096;
/** Slack cuts a message's text past this many characters; sending less keeps the end under control. */
export const SLACK_LIMIT = 40000;
/** What any text may hold before it is cut, for ntfy and a plain address. */
export const TEXT_LIMIT = 16000;

/** The Bot API's address; a bot token sits in its path. */
export const TELEGRAM_API = 'https://api.telegram.org';
/** A bot token as @BotFather makes them: the bot's number, a colon, the secret. */
export const BOT_TOKEN = /^[0-9]{1,20}:[A-Za-z0-9_-]{20,100}$/;

const JSON_TYPE = 'application/json; charset=utf-8';

// ntfy shows emoji for these tag names beside the title.
const NTFY_TAGS = { done: 'white_check_mark', failed: 'x', stopped: 'stop_sign', skipped: 'fast_forward' };

// ntfy reads UTF-8 in a header when it is written as an RFC 2047 encoded word.
function headerText(text) {
  const single = text.replace(/[\r\n]+/g, ' ');
  return /^[\x20-\x7e]*$/.test(single) ? single : `=?UTF-8?B?${Buffer.from(single, 'utf8').toString('base64')}?=`;
}

// Slack reads &, < and > as markup (links, mentions); its own escapes keep them text.
function slackEscaped(text) {
  return text.replaceAll('&', '&amp;').replaceAll('<', '&lt;').replaceAll('>', '&gt;');
}

const secondsOf = (value) => (typeof value === 'number' && Number.isFinite(value) && value >= 0 ? value : null);
// Retry-After in its seconds form; a date or nothing leaves the wait to the backoff.
const headerSeconds = (reply) => (reply.headers.get('retry-after') === null ? null : secondsOf(Number(reply.headers.get('retry-after'))));

/**
 * The presets by name. Each has `name` (the service, for sentences),
 * `request(message, target)` → `{headers, body}`, `accepted(reply)` for a 2xx
 * reply, `words(reply)` (the receiver's own explanation, or null) and
 * `retryAfterSec(reply)` for a 429 (or null when it doesn't say).
 * A reply is `{status, headers, text, json}`.
 */
export const PRESETS = {
  // POST to the topic's address, the text as the body, Title/Priority/Tags as headers;
  // errors come as {"code","http","error","link"}.
  ntfy: {
    name: 'ntfy',
    request({ automation, run, text }) {
      const headers = { 'Content-Type': 'text/plain; charset=utf-8', Title: headerText(automation.name), Priority: run?.state === 'failed' ? 'high' : 'default' };
      if (NTFY_TAGS[run?.state]) headers.Tags = NTFY_TAGS[run.state];
      return { headers, body: clip(text, TEXT_LIMIT) };
    },
    accepted: () => true,
    words: (reply) => (typeof reply.json?.error === 'string' ? reply.json.error : null),
    retryAfterSec: headerSeconds,
  },
  // Incoming webhook: {"text"}; it answers "ok", or a word such as invalid_payload.
  slack: {
    name: 'Slack',
    request: ({ text }) => ({ headers: { 'Content-Type': JSON_TYPE }, body: JSON.stringify({ text: clip(slackEscaped(text), SLACK_LIMIT) }) }),
    accepted: () => true,
    words: (reply) => reply.text.trim() || null,
    retryAfterSec: headerSeconds,
  },
  // Execute webhook: {"content"} of 2000 characters at most, 204 when taken; a 429
  // carries {"message","retry_after" (seconds),"global"}. Mentions stay text.
  discord: {
    name: 'Discord',
    request: ({ text }) => ({
      headers: { 'Content-Type': JSON_TYPE },
      body: JSON.stringify({ content: clip(text, DISCORD_LIMIT), allowed_mentions: { parse: [] } }),
    }),
    accepted: () => true,
    words: (reply) => (typeof reply.json?.message === 'string' ? reply.json.message : null),
    retryAfterSec: (reply) => secondsOf(reply.json?.retry_after) ?? headerSeconds(reply),
  },
  // sendMessage: {"chat_id","text"} with 1 to 4096 characters; it answers
  // {"ok":true,"result":…} or {"ok":false,"error_code","description","parameters":{"retry_after"}}.
  telegram: {
    name: 'Telegram',
    request: ({ text }, { chatId }) => ({ headers: { 'Content-Type': JSON_TYPE }, body: JSON.stringify({ chat_id: chatId, text: clip(text, TELEGRAM_LIMIT) }) }),
    accepted: (reply) => reply.json?.ok === true,
    words: (reply) => (typeof reply.json?.description === 'string' ? reply.json.description : null),
    retryAfterSec: (reply) => secondsOf(reply.json?.parameters?.retry_after),
  },
  // A plain address gets JSON: the automation, the run and the text.
  post: {
    name: null,
    request: ({ automation, run, text }) => ({
      headers: { 'Content-Type': JSON_TYPE },
      body: JSON.stringify({ automation: { id: automation.id, name: automation.name }, run: run ?? null, text: clip(text, TEXT_LIMIT) }),
    }),
    accepted: () => true,
    words: (reply) => reply.text.trim() || null,
    retryAfterSec: headerSeconds,
  },
};

/**
 * The preset an output names; no preset, or one this service doesn't know, is a plain address.
 *
 * @param {string|undefined} preset
 */
export function presetOf(preset) {
  return Object.hasOwn(PRESETS, preset ?? '') ? PRESETS[preset] : PRESETS.post;
}
