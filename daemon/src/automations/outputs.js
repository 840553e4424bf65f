// The places a run tells when it is done: a desktop notification, reading
// aloud, a line in a file, or a webhook. A webhook goes to https addresses
// only, is tried again on a server's failure or a lost connection (three
// tries in all) and after the wait a 429 asks for, never on another refusal;
// what the receiver said comes back as one bounded line, with no address or
// bot token in it.

import { setTimeout as delay } from 'node:timers/promises';

import { appendRunLine } from './file-output.js';
import { notifyDesktop, sayAloud } from './notify.js';
import { clip, oneLine } from './one-line.js';
import { BOT_TOKEN, presetOf, TELEGRAM_API } from './webhook-presets.js';

/** Tries of one webhook, the first included. */
export const TRIES = 3;
/** The waits before the second and third try after a failure that may pass. */
export const BACKOFF_MS = [1000, 4000];
/** A 429 that asks for a longer wait than this fails at once. */
export const MAX_RETRY_AFTER_MS = 60000;
/** One request may take this long. */
export const REQUEST_TIMEOUT_MS = 15000;
/** What is read of a reply, and what an error keeps of it. */
export const REPLY_LIMIT = 16 * 1024;
export const ERROR_LIMIT = 200;

const WORDS = {
  noAddress: 'Its address isn’t kept any more. Paste it again.',
  insecure: 'It sends only to https addresses.',
  badToken: 'Its bot token isn’t one from @BotFather.',
  noChat: 'It has no chat to write to.',
  broke: (kind) => `It couldn’t be sent (${clip(oneLine(kind), 40)}).`,
  unknownKind: (kind) => `Tidewatch can’t send to “${clip(oneLine(kind), 40)}”.`,
};

/**
 * Tells one place what a run said.
 *
 * @param {{id: string, kind: string, preset?: string, path?: string, chatId?: string}} output A stored `WFOutput`
 * @param {string|{url?: string, botToken?: string, chatId?: string}|null} secret What the store keeps for a
 *     webhook output: its address, or Telegram's bot token and chat
 * @param {{automation: {id: string, name: string, projectPath?: string}, run: Object, text: string}} message
 *     `projectPath` is the folder a file output writes in; `text` is what to say, filled in already
 * @param {Object} [options]
 * @param {function(string): string} [options.resolve] Where a checked https address is really sent; tests point it at stand-ins
 * @param {function(number): Promise} [options.sleep] Waits between tries
 * @param {function(): number} [options.now=Date.now]
 * @param {Object} [options.notifier] Options for {@link notifyDesktop}
 * @param {number} [options.timeoutMs=REQUEST_TIMEOUT_MS]
 * @return {Promise<{state: ('sent'|'failed'), error?: string, at: number}>} `at` when it was sent or given up
 */
export async function deliver(output, secret, message, options = {}) {
  const now = options.now ?? Date.now;
  const text = String(message.text ?? '').trim() || message.automation.name;
  try {
    switch (output.kind) {
      case 'notify':
        return await notifyDesktop(message.automation.name, text, { ...options.notifier, now });
      case 'say':
        return await sayAloud(text, { now });
      case 'file':
        return appendRunLine(output, { ...message, text }, now());
      case 'webhook':
        return await postWebhook(output, secret, { ...message, text }, { ...options, now });
      default:
        return { state: 'failed', error: WORDS.unknownKind(output.kind), at: now() };
    }
  } catch (error) {
    // Only the error's kind: its message might carry an address.
    return { state: 'failed', error: WORDS.broke(error.code ?? error.name), at: now() };
  }
}

/**
 * This part's places with their options bound, for the run engine: outputs
 * through `deliver`, and the notify and say steps.
 *
 * @param {Object} options As {@link deliver}'s
 * @return {{deliver: function(Object, *, Object): Promise<Object>, notifyDesktop: function(string, string): Promise<Object>,
 *     sayAloud: function(string): Promise<Object>}}
 */
export function createOutputs(options = {}) {
  const now = options.now ?? Date.now;
  return {
    deliver: (output, secret, message) => deliver(output, secret, message, options),
    notifyDesktop: (title, text) => notifyDesktop(title, text, { ...options.notifier, now }),
    sayAloud: (text) => sayAloud(text, { now }),
  };
}

// Where a webhook goes and what may never show in an error: the address
// itself and, for Telegram, the bot token in its path.
function webhookTarget(output, secret) {
  if (output.preset === 'telegram') {
    const token = secret?.botToken;
    const chatId = secret?.chatId ?? output.chatId;
    if (typeof token !== 'string' || !BOT_TOKEN.test(token)) return { error: WORDS.badToken };
    if (!(typeof chatId === 'string' && chatId !== '') && !Number.isSafeInteger(chatId)) return { error: WORDS.noChat };
    return { url: new URL(`${TELEGRAM_API}/bot${token}/sendMessage`), chatId, hidden: [token] };
  }
  const address = typeof secret === 'string' ? secret : secret?.url;
  if (typeof address !== 'string' || address === '') return { error: WORDS.noAddress };
  let url;
  try {
    url = new URL(address);
  } catch {
    return { error: WORDS.noAddress };
  }
  if (url.protocol !== 'https:' || url.username !== '' || url.password !== '') return { error: WORDS.insecure };
  return { url, hidden: [address, url.pathname, url.search].filter((part) => part.length > 1) };
}

async function postWebhook(output, secret, message, { resolve = (url) => url, sleep = delay, now, timeoutMs = REQUEST_TIMEOUT_MS }) {
  const target = webhookTarget(output, secret);
  if (target.error) return { state: 'failed', error: target.error, at: now() };
  const preset = presetOf(output.preset);
  const { headers, body } = preset.request(message, target);
  const service = preset.name ?? target.url.host;
  const said = (words) => {
    let line = oneLine(words);
    for (const part of target.hidden) line = line.replaceAll(part, '…');
    return clip(line, ERROR_LIMIT);
  };
  let error = null;
  for (let attempt = 1; attempt <= TRIES; attempt += 1) {
    let reply;
    let waitMs = BACKOFF_MS[attempt - 1] ?? BACKOFF_MS.at(-1);
    try {
      reply = await exchange(resolve(target.url.href), { headers, body }, timeoutMs);
    } catch (failure) {
      error = said(reachWords(target.url.host, failure));
      if (attempt < TRIES) await sleep(waitMs);
      continue;
    }
    if (reply.status >= 200 && reply.status < 300 && preset.accepted(reply)) return { state: 'sent', at: now() };
    const words = preset.words(reply);
    error = said(`${service} answered ${reply.status}${words ? `: ${words}` : '.'}`);
    if (reply.status === 429) {
      const asked = preset.retryAfterSec(reply);
      if (asked !== null) waitMs = Math.ceil(asked * 1000);
      if (waitMs > MAX_RETRY_AFTER_MS) break;
    } else if (reply.status < 500) {
      break;
    }
    if (attempt < TRIES) await sleep(waitMs);
  }
  return { state: 'failed', error, at: now() };
}

// Why a request got no answer, by its cause's code; the address stays out.
function reachWords(host, failure) {
  if (failure.name === 'TimeoutError') return `${host} didn’t answer in time.`;
  const code = failure.cause?.code ?? failure.code;
  return `Couldn’t reach ${host}${typeof code === 'string' ? ` (${code})` : ''}.`;
}

// One POST, redirects not followed (an https address may not lead elsewhere);
// the reply's body is read up to REPLY_LIMIT.
async function exchange(url, { headers, body }, timeoutMs) {
  const response = await fetch(url, { method: 'POST', headers, body, redirect: 'manual', signal: AbortSignal.timeout(timeoutMs) });
  const chunks = [];
  let size = 0;
  if (response.body) {
    for await (const chunk of response.body) {
      chunks.push(chunk);
      size += chunk.length;
      if (size >= REPLY_LIMIT) break;
    }
  }
  const text = Buffer.concat(chunks).subarray(0, REPLY_LIMIT).toString('utf8');
  let json = null;
  try {
    json = JSON.parse(text);
  } catch {
    // not JSON: the text stands
  }
  return { status: response.status, headers: response.headers, text, json };
}
