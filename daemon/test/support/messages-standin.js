// A stand-in for the Messages API that Claude Code talks to, so that the real
// program runs here without the internet: ANTHROPIC_BASE_URL points at it and
// any test key is taken. Every POST /v1/messages is answered from a script as
// the real API streams (server-sent events):
//
//   - a request for the main loop (it offers tools) whose last user turn is a
//     prompt gets the script's text, then a `tool_use` of the script's tool,
//     and stops for the tool;
//   - the same after a `tool_result` gets the closing text and ends the turn;
//   - anything else (a title, a summary, a quota check) gets a short text.
//
// Every answer carries the unified rate-limit headers a subscription sees,
// from the script's `limits`. Requests are kept, parsed, for tests to read.

import { randomBytes } from 'node:crypto';
import http from 'node:http';

import { CONTINUE_PROMPT } from '../../src/sessions/continuer.js';

/**
 * @typedef {Object} StandInScript
 * @property {string} [text] Said before the tool call
 * @property {{name: string, input: Object}|null} [tool] The tool to call;
 *     null answers the prompt with the text alone
 * @property {string} [after] Said once the tool's result is back
 * @property {{fiveHour, fiveHourReset, sevenDay, sevenDayReset}|null} [limits]
 *     Utilizations (0 to 1) and resets (epoch seconds) sent as headers
 * @property {{status, type, message, headers}|null} [error] The main loop's
 *     prompts are refused with this API error instead
 */
const DEFAULT_SCRIPT = {
  text: 'I’ll run that now.',
  tool: { name: 'Bash', input: { command: 'echo hello', description: 'Say hello' } },
  after: 'Done.',
  limits: null,
  error: null,
};

/** The refusal a subscription gets at its five-hour limit, lifting at `reset` (epoch seconds). */
/** The requests of the main loop that carried the continue prompt. */
export const continuePrompts = (standIn) =>
  standIn.requests.filter((request) => {
    if (!(request.body?.tools?.length > 0)) return false;
    const last = request.body.messages?.findLast((message) => message.role === 'user');
    const blocks = typeof last?.content === 'string' ? [{ type: 'text', text: last.content }] : (last?.content ?? []);
    return blocks.some((block) => block?.type === 'text' && block.text.trim() === CONTINUE_PROMPT);
  }).length;

export const fiveHourLimit = (reset) => ({
  status: 429,
  type: 'rate_limit_error',
  message: 'Rate limited',
  headers: {
    'anthropic-ratelimit-unified-status': 'rejected',
    'anthropic-ratelimit-unified-representative-claim': 'five_hour',
    'anthropic-ratelimit-unified-reset': String(reset),
    'anthropic-ratelimit-unified-5h-status': 'rejected',
    'anthropic-ratelimit-unified-5h-utilization': '1.0',
    'anthropic-ratelimit-unified-5h-reset': String(reset),
  },
});

const id = (prefix) => `${prefix}_${randomBytes(12).toString('hex')}`;

// Whether the last user turn ends with a tool's result. A refused call and the
// next prompt arrive merged into one turn, so what counts is the last block a
// person or a tool wrote, not the reminders Claude Code adds.
function answersTool(body) {
  const content = (body?.messages ?? []).findLast((message) => message?.role === 'user')?.content;
  for (const block of Array.isArray(content) ? [...content].reverse() : []) {
    if (block?.type === 'tool_result') return true;
    const text = block?.type === 'text' && typeof block.text === 'string' ? block.text.trim() : null;
    if (text !== null && !text.startsWith('<system-reminder>') && !text.startsWith('[Request interrupted')) return false;
  }
  return false;
}

// The content blocks and stop reason for one request.
function plan(body, script) {
  if (!(body?.tools?.length > 0)) return { blocks: [{ type: 'text', text: 'Tidewatch test' }], stop: 'end_turn' };
  if (answersTool(body)) return { blocks: [{ type: 'text', text: script.after }], stop: 'end_turn' };
  const blocks = [{ type: 'text', text: script.text }];
  if (!script.tool) return { blocks, stop: 'end_turn' };
  blocks.push({ type: 'tool_use', id: id('toolu'), name: script.tool.name, input: script.tool.input });
  return { blocks, stop: 'tool_use' };
}

const sse = (event, data) => `event: ${event}\ndata: ${JSON.stringify({ type: event, ...data })}\n\n`;

function streamOf({ blocks, stop }, message) {
  let out = sse('message_start', { message: { ...message, content: [], stop_reason: null, stop_sequence: null } });
  blocks.forEach((block, index) => {
    const start = block.type === 'text' ? { type: 'text', text: '' } : { type: 'tool_use', id: block.id, name: block.name, input: {} };
    const delta = block.type === 'text' ? { type: 'text_delta', text: block.text } : { type: 'input_json_delta', partial_json: JSON.stringify(block.input) };
    out += sse('content_block_start', { index, content_block: start }) + sse('content_block_delta', { index, delta }) + sse('content_block_stop', { index });
  });
  return out + sse('message_delta', { delta: { stop_reason: stop, stop_sequence: null }, usage: { output_tokens: 20 } }) + sse('message_stop', {});
}

function limitHeaders(limits) {
  if (!limits) return {};
  const header = 'anthropic-ratelimit-unified';
  return {
    [`${header}-status`]: 'allowed',
    [`${header}-5h-utilization`]: String(limits.fiveHour),
    [`${header}-5h-reset`]: String(limits.fiveHourReset),
    [`${header}-7d-utilization`]: String(limits.sevenDay),
    [`${header}-7d-reset`]: String(limits.sevenDayReset),
  };
}

/** The stand-in on a loopback port: {url, port, requests ({method, path, body} in order), script, close}. */
export async function startMessagesStandIn({ script = {} } = {}) {
  const standIn = { requests: [], script: { ...DEFAULT_SCRIPT, ...script } };
  const server = http.createServer((req, res) => {
    const chunks = [];
    req.on('data', (chunk) => chunks.push(chunk));
    req.on('end', () => {
      let body = null;
      try {
        body = JSON.parse(Buffer.concat(chunks).toString('utf8') || 'null');
      } catch {
        // kept as null
      }
      const path = req.url.split('?')[0];
      standIn.requests.push({ method: req.method, path, body });
      const { script: current } = standIn;
      const headers = { 'request-id': id('req'), ...limitHeaders(current.limits) };
      const reply = (status, value, more = {}) => {
        res.writeHead(status, { 'Content-Type': 'application/json', ...headers, ...more });
        res.end(JSON.stringify(value));
      };
      if (req.method === 'POST' && path === '/v1/messages/count_tokens') return reply(200, { input_tokens: 100 });
      if (req.method !== 'POST' || path !== '/v1/messages') return reply(404, { type: 'error', error: { type: 'not_found_error', message: `No ${path} here.` } });
      if (current.error && body?.tools?.length > 0) {
        const { status, type, message, headers: more } = current.error;
        return reply(status, { type: 'error', error: { type, message } }, more);
      }
      const answer = plan(body, current);
      const usage = { input_tokens: 12, output_tokens: 20 };
      const message = { id: id('msg'), type: 'message', role: 'assistant', model: body?.model ?? 'claude-sonnet-4-5', usage };
      if (!body?.stream) return reply(200, { ...message, content: answer.blocks, stop_reason: answer.stop, stop_sequence: null });
      res.writeHead(200, { 'Content-Type': 'text/event-stream', 'Cache-Control': 'no-cache', ...headers });
      res.end(streamOf(answer, message));
    });
  });
  await new Promise((resolve) => server.listen({ port: 0, host: '127.0.0.1' }, resolve));
  const { port } = server.address();
  return Object.assign(standIn, {
    port,
    url: `http://127.0.0.1:${port}`,
    close: () =>
      new Promise((resolve) => {
        server.close(() => resolve());
        server.closeAllConnections();
      }),
  });
}
