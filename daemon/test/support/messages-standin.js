// A stand-in for the Messages API that Claude Code talks to, so that the real
// program runs here without the internet: ANTHROPIC_BASE_URL points at it and
// any test key is taken. Every POST /v1/messages is answered from a script as
// the real API streams (server-sent events: message_start, content blocks with
// their deltas, message_delta with the stop reason, message_stop):
//
//   - a request for the main loop (it offers tools) whose last user turn is a
//     prompt gets the script's text, then a `tool_use` of the script's tool,
//     and stops for the tool;
//   - the same after a `tool_result` gets the closing text and ends the turn;
//   - anything else (a title, a summary, a quota check) gets a short text.
//
// Every answer carries the unified rate-limit headers a subscription sees,
// from the script's `limits`. Requests are kept, parsed, for tests to read.
//
// As a program: node messages-standin.js [--port N] prints its address.

import { randomBytes } from 'node:crypto';
import http from 'node:http';
import { fileURLToPath } from 'node:url';

/**
 * @typedef {Object} StandInScript
 * @property {string} [text] Said before the tool call
 * @property {{name: string, input: Object}|null} [tool] The tool to call;
 *     null answers the prompt with the text alone
 * @property {string} [after] Said once the tool's result is back
 * @property {{fiveHour: number, fiveHourReset: number, sevenDay: number,
 *     sevenDayReset: number}|null} [limits] Utilizations (0 to 1) and resets
 *     (epoch seconds) sent as headers; null sends none
 * @property {number} [delayMs] Held this long before answering
 * @property {{status: number, type: string, message: string,
 *     headers: (Object|undefined)}|null} [error] The main loop's prompts
 *     are refused with this API error instead (a limit reached, a key refused)
 */

export const DEFAULT_SCRIPT = Object.freeze({
  text: 'I’ll run that now.',
  tool: { name: 'Bash', input: { command: 'echo hello', description: 'Say hello' } },
  after: 'Done.',
  limits: null,
  delayMs: 0,
  error: null,
});

const id = (prefix) => `${prefix}_${randomBytes(12).toString('hex')}`;

function lastUserContent(body) {
  const messages = Array.isArray(body?.messages) ? body.messages : [];
  for (let i = messages.length - 1; i >= 0; i--) {
    if (messages[i]?.role === 'user') return messages[i].content;
  }
  return null;
}

/**
 * @return {boolean} Whether the request's last user turn ends with a tool's
 *     result. A refused call and the next prompt arrive merged into one turn,
 *     so what counts is the last block that a person or a tool wrote, not
 *     the reminders Claude Code adds.
 */
export function answersTool(body) {
  const content = lastUserContent(body);
  if (!Array.isArray(content)) return false;
  for (let i = content.length - 1; i >= 0; i--) {
    const block = content[i];
    if (block?.type === 'tool_result') return true;
    if (block?.type !== 'text' || typeof block.text !== 'string') continue;
    const text = block.text.trim();
    if (text.startsWith('<system-reminder>') || text.startsWith('[Request interrupted')) continue;
    return false;
  }
  return false;
}

/**
 * The content blocks and stop reason for one request.
 *
 * @param {Object} body The parsed request
 * @param {StandInScript} script
 * @return {{blocks: Array<Object>, stop: string}}
 */
export function plan(body, script) {
  const mainLoop = Array.isArray(body?.tools) && body.tools.length > 0;
  if (!mainLoop) return { blocks: [{ type: 'text', text: 'Tidewatch test' }], stop: 'end_turn' };
  if (answersTool(body)) return { blocks: [{ type: 'text', text: script.after }], stop: 'end_turn' };
  const blocks = [{ type: 'text', text: script.text }];
  if (!script.tool) return { blocks, stop: 'end_turn' };
  blocks.push({ type: 'tool_use', id: id('toolu'), name: script.tool.name, input: script.tool.input });
  return { blocks, stop: 'tool_use' };
}

function sse(event, data) {
  return `event: ${event}\ndata: ${JSON.stringify({ type: event, ...data })}\n\n`;
}

/** @return {string} The whole stream of one answer. */
export function streamOf({ blocks, stop }, model) {
  let out = sse('message_start', {
    message: {
      id: id('msg'),
      type: 'message',
      role: 'assistant',
      model,
      content: [],
      stop_reason: null,
      stop_sequence: null,
      usage: { input_tokens: 12, output_tokens: 1, cache_creation_input_tokens: 0, cache_read_input_tokens: 0 },
    },
  });
  blocks.forEach((block, index) => {
    if (block.type === 'text') {
      out += sse('content_block_start', { index, content_block: { type: 'text', text: '' } });
      out += sse('content_block_delta', { index, delta: { type: 'text_delta', text: block.text } });
    } else {
      out += sse('content_block_start', {
        index,
        content_block: { type: 'tool_use', id: block.id, name: block.name, input: {} },
      });
      out += sse('content_block_delta', {
        index,
        delta: { type: 'input_json_delta', partial_json: JSON.stringify(block.input) },
      });
    }
    out += sse('content_block_stop', { index });
  });
  out += sse('message_delta', { delta: { stop_reason: stop, stop_sequence: null }, usage: { output_tokens: 20 } });
  out += sse('message_stop', {});
  return out;
}

function limitHeaders(limits) {
  if (!limits) return {};
  return {
    'anthropic-ratelimit-unified-status': 'allowed',
    'anthropic-ratelimit-unified-5h-utilization': String(limits.fiveHour),
    'anthropic-ratelimit-unified-5h-reset': String(limits.fiveHourReset),
    'anthropic-ratelimit-unified-7d-utilization': String(limits.sevenDay),
    'anthropic-ratelimit-unified-7d-reset': String(limits.sevenDayReset),
  };
}

/**
 * Starts the stand-in on a loopback port.
 *
 * @param {Object} [options]
 * @param {number} [options.port=0]
 * @param {StandInScript} [options.script] Changeable later through `script`
 * @return {Promise<{url: string, port: number, requests: Array<Object>,
 *     script: StandInScript, close: function(): Promise<void>}>} `requests`
 *     holds {method, path, body} of every request, in order
 */
export async function startMessagesStandIn({ port = 0, script = {} } = {}) {
  const standIn = { requests: [], script: { ...DEFAULT_SCRIPT, ...script } };
  const server = http.createServer((req, res) => {
    const chunks = [];
    req.on('data', (chunk) => chunks.push(chunk));
    req.on('end', async () => {
      let body = null;
      try {
        body = JSON.parse(Buffer.concat(chunks).toString('utf8') || 'null');
      } catch {
        body = null;
      }
      const path = req.url.split('?')[0];
      standIn.requests.push({ method: req.method, path, body });
      const current = standIn.script;
      const headers = { 'request-id': id('req'), ...limitHeaders(current.limits) };
      if (current.delayMs > 0) await new Promise((resolve) => setTimeout(resolve, current.delayMs));

      if (req.method === 'POST' && path === '/v1/messages/count_tokens') {
        res.writeHead(200, { 'Content-Type': 'application/json', ...headers });
        res.end(JSON.stringify({ input_tokens: 100 }));
        return;
      }
      if (req.method !== 'POST' || path !== '/v1/messages') {
        res.writeHead(404, { 'Content-Type': 'application/json', ...headers });
        res.end(JSON.stringify({ type: 'error', error: { type: 'not_found_error', message: `No ${path} here.` } }));
        return;
      }
      if (current.error && Array.isArray(body?.tools) && body.tools.length > 0) {
        const { status, type, message, headers: more = {} } = current.error;
        res.writeHead(status, { 'Content-Type': 'application/json', ...headers, ...more });
        res.end(JSON.stringify({ type: 'error', error: { type, message } }));
        return;
      }
      const answer = plan(body, current);
      const model = typeof body?.model === 'string' ? body.model : 'claude-sonnet-4-5';
      if (body?.stream) {
        res.writeHead(200, { 'Content-Type': 'text/event-stream', 'Cache-Control': 'no-cache', ...headers });
        res.end(streamOf(answer, model));
        return;
      }
      res.writeHead(200, { 'Content-Type': 'application/json', ...headers });
      res.end(
        JSON.stringify({
          id: id('msg'),
          type: 'message',
          role: 'assistant',
          model,
          content: answer.blocks,
          stop_reason: answer.stop,
          stop_sequence: null,
          usage: { input_tokens: 12, output_tokens: 20 },
        }),
      );
    });
  });
  await new Promise((resolve) => server.listen({ port, host: '127.0.0.1' }, resolve));
  const bound = server.address().port;
  return Object.assign(standIn, {
    port: bound,
    url: `http://127.0.0.1:${bound}`,
    close: () =>
      new Promise((resolve) => {
        server.close(() => resolve());
        server.closeAllConnections();
      }),
  });
}

if (process.argv[1] === fileURLToPath(import.meta.url)) {
  const at = process.argv.indexOf('--port');
  const standIn = await startMessagesStandIn({ port: at > 0 ? Number(process.argv[at + 1]) : 0 });
  console.log(standIn.url);
}
