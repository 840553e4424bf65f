// Stand-ins for the services a webhook output posts to, each a local HTTP
// server that checks a request as its service does and answers in that
// service's own words: ntfy's message event or error envelope, Slack's "ok"
// or error word, Discord's 204 or JSON error with `retry_after`, Telegram's
// {"ok":…} replies. Each keeps every request it got, exactly: method, path,
// headers, body. A test queues named answers (`plan('rate_limited')`) for
// what a service does only now and then; otherwise the request decides.

import http from 'node:http';

const json = (status, value, headers = {}) => ({ status, headers: { 'Content-Type': 'application/json', ...headers }, body: `${JSON.stringify(value)}\n` });
const text = (status, body, headers = {}) => ({ status, headers: { 'Content-Type': 'text/html', ...headers }, body });
const seconds = () => Math.floor(Date.now() / 1000);

// ntfy decodes RFC 2047 words in headers, as a mail reader would.
function decodedHeader(value) {
  const match = /^=\?UTF-8\?B\?([A-Za-z0-9+/=]*)\?=$/i.exec(value ?? '');
  return match ? Buffer.from(match[1], 'base64').toString('utf8') : value;
}

const NTFY_PRIORITIES = { min: 1, low: 2, default: 3, high: 4, max: 5, urgent: 5 };

const ntfy = {
  planned: {
    rate_limited: () => json(429, { code: 42901, http: 429, error: 'limit reached: too many requests; increase your limits with a paid plan, see https://ntfy.sh' }),
    server_error: () => json(500, { code: 50001, http: 500, error: 'internal server error' }),
  },
  answer({ path, headers, body }) {
    const topic = path.slice(1);
    if (!/^[-_A-Za-z0-9]{1,64}$/.test(topic)) return json(404, { code: 40401, http: 404, error: 'page not found' });
    const wanted = (headers.priority ?? 'default').toLowerCase();
    const priority = NTFY_PRIORITIES[wanted] ?? (/^[1-5]$/.test(wanted) ? Number(wanted) : null);
    if (priority === null) return json(400, { code: 40007, http: 400, error: 'invalid priority', link: 'https://ntfy.sh/docs/publish/#message-priority' });
    const event = { id: Math.random().toString(36).slice(2, 14), time: seconds(), expires: seconds() + 43200, event: 'message', topic, message: body };
    if (headers.title) event.title = decodedHeader(headers.title);
    if (headers.tags) event.tags = headers.tags.split(',').map((tag) => tag.trim());
    if (priority !== 3) event.priority = priority;
    return json(200, event);
  },
};

const slack = {
  planned: {
    no_service: () => text(404, 'no_service'),
    channel_is_archived: () => text(410, 'channel_is_archived'),
    rollup_error: () => text(500, 'rollup_error'),
    rate_limited: () => text(429, 'rate_limited', { 'Retry-After': '2' }),
  },
  answer({ path, body }) {
    if (!/^\/services\/T[A-Z0-9]+\/B[A-Z0-9]+\/[A-Za-z0-9]+$/.test(path)) return text(404, 'no_service');
    let payload;
    try {
      payload = JSON.parse(body);
    } catch {
      return text(400, 'invalid_payload');
    }
    if (typeof payload?.text !== 'string' || payload.text === '') return text(400, 'no_text');
    return text(200, 'ok');
  },
};

const discord = {
  planned: {
    rate_limited: () => json(429, { message: 'You are being rate limited.', retry_after: 1.5, global: false }, { 'Retry-After': '2' }),
    slow_down: () => json(429, { message: 'You are being rate limited.', retry_after: 3600, global: false }, { 'Retry-After': '3600' }),
    unknown_webhook: () => json(404, { message: 'Unknown Webhook', code: 10015 }),
    bad_gateway: () => text(502, '<html><body>502 Bad Gateway</body></html>'),
  },
  answer({ path, body }) {
    if (!/^\/api\/webhooks\/[0-9]+\/[A-Za-z0-9_-]+$/.test(path)) return json(404, { message: 'Unknown Webhook', code: 10015 });
    let payload;
    try {
      payload = JSON.parse(body);
    } catch {
      return json(400, { message: 'Cannot send an empty message', code: 50006 });
    }
    if (typeof payload.content !== 'string' || payload.content === '') return json(400, { message: 'Cannot send an empty message', code: 50006 });
    if (Array.from(payload.content).length > 2000) {
      const errors = { content: { _errors: [{ code: 'BASE_TYPE_MAX_LENGTH', message: 'Must be 2000 or fewer in length.' }] } };
      return json(400, { message: 'Invalid Form Body', code: 50035, errors });
    }
    return { status: 204, headers: {}, body: '' };
  },
};

const telegramFailure = (code, description, parameters) =>
  json(code, { ok: false, error_code: code, description, ...(parameters ? { parameters } : {}) });

const telegram = {
  planned: {
    chat_not_found: () => telegramFailure(400, 'Bad Request: chat not found'),
    flood: () => telegramFailure(429, 'Too Many Requests: retry after 2', { retry_after: 2 }),
    bad_gateway: () => telegramFailure(502, 'Bad Gateway'),
  },
  answer({ path, body }) {
    const match = /^\/bot([0-9]+):[A-Za-z0-9_-]+\/sendMessage$/i.exec(path);
    if (!match) return json(404, { ok: false, error_code: 404, description: 'Not Found' });
    let payload;
    try {
      payload = JSON.parse(body);
    } catch {
      return telegramFailure(400, 'Bad Request: message text is empty');
    }
    if (payload.chat_id === undefined || payload.chat_id === '') return telegramFailure(400, 'Bad Request: chat_id is empty');
    if (typeof payload.text !== 'string' || payload.text === '') return telegramFailure(400, 'Bad Request: message text is empty');
    if (Array.from(payload.text).length > 4096) return telegramFailure(400, 'Bad Request: message is too long');
    const channel = String(payload.chat_id).startsWith('@');
    const chat = channel
      ? { id: -1001234567890, title: 'Tidewatch', username: String(payload.chat_id).slice(1), type: 'channel' }
      : { id: Number(payload.chat_id), first_name: 'Test', type: 'private' };
    const result = { message_id: 1, from: { id: Number(match[1]), is_bot: true, first_name: 'Tidewatch', username: 'tidewatch_test_bot' }, chat, date: seconds(), text: payload.text };
    return json(200, { ok: true, result });
  },
};

const post = {
  planned: {
    server_error: () => text(500, 'Internal Server Error'),
    // Many servers name the path they couldn't find, as Express does.
    not_found: ({ path }) => text(404, `Cannot POST ${path}`),
    moved: () => ({ status: 302, headers: { Location: 'http://127.0.0.1:9/elsewhere' }, body: '' }),
  },
  answer: () => ({ status: 200, headers: { 'Content-Type': 'application/json' }, body: '{"received":true}' }),
};

const SERVICES = { ntfy, slack, discord, telegram, post };
/** The public host each stand-in answers for; any other https host reaches `post`. */
export const HOSTS = { 'ntfy.sh': 'ntfy', 'hooks.slack.com': 'slack', 'discord.com': 'discord', 'api.telegram.org': 'telegram' };

async function startReceiver(t, service) {
  const requests = [];
  const queue = [];
  const server = http.createServer((req, res) => {
    const chunks = [];
    req.on('data', (chunk) => chunks.push(chunk));
    req.on('end', () => {
      const request = { method: req.method, path: req.url, headers: req.headers, body: Buffer.concat(chunks).toString('utf8') };
      requests.push(request);
      const planned = queue.shift();
      const reply = req.method !== 'POST' ? text(405, 'Method Not Allowed') : planned ? service.planned[planned](request) : service.answer(request);
      res.writeHead(reply.status, reply.headers);
      res.end(reply.body);
    });
  });
  await new Promise((resolve) => server.listen(0, '127.0.0.1', resolve));
  t.after(() => new Promise((resolve) => server.close(resolve)));
  return {
    port: server.address().port,
    requests,
    /** Answers the next requests with these named answers, in order. */
    plan: (...names) => {
      for (const name of names) if (!service.planned[name]) throw new Error(`No planned answer “${name}”.`);
      queue.push(...names);
    },
  };
}

/**
 * One stand-in per preset, and the `resolve(url)` that sends a real
 * service's https address to its stand-in over plain HTTP on loopback.
 *
 * @param {import('node:test').TestContext} t
 */
export async function startReceivers(t) {
  const receivers = {};
  for (const [name, service] of Object.entries(SERVICES)) receivers[name] = await startReceiver(t, service);
  const resolve = (address) => {
    const url = new URL(address);
    const receiver = receivers[HOSTS[url.host] ?? 'post'];
    return `http://127.0.0.1:${receiver.port}${url.pathname}${url.search}`;
  };
  return { ...receivers, resolve };
}
