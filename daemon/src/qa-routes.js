// The /qa interface: tests and demonstrations put state into the service,
// plant faults, and push the feed and the health route around through it.
// Values are stored as given; the only checks are that a body is a JSON
// object and that an item has an id to be found by.

import { HttpError, invalid, notFound, send } from './http-reply.js';
import { readJsonObject, requireBoolean } from './request-body.js';
import { MAX_SESSIONS } from './state.js';

const ROUTES = [
  ['GET', '/qa', 'this page'],
  [
    'GET',
    '/qa/state',
    '{"snapshot":…,"local":…,"feedClients":…,"decisions":[…]}: the whole state as the two reads give it, the clients on the feed and the last answers to approvals',
  ],
  ['POST', '/qa/snapshot', 'an object of snapshot parts; each key replaces its part, null removes it'],
  ['POST', '/qa/local', 'an object of local status parts, likewise'],
  ['POST', '/qa/sessions', 'one session with an "id": put in, or replaced where it stands'],
  ['DELETE', '/qa/sessions/:id', 'takes that session out'],
  ['POST', '/qa/approvals', 'one approval with an "id"; its id joins its session’s pendingApprovalIds'],
  ['DELETE', '/qa/approvals/:id', 'takes that approval out, and its id from every session'],
  ['POST', '/qa/devices', 'one device with an "id"'],
  ['DELETE', '/qa/devices/:id', 'takes that device out'],
  ['POST', '/qa/reset', 'everything back to the state of a fresh start (faults stay)'],
  ['GET', '/qa/settled', 'answers once the start’s own lookups (the agents, the LAN route) are done, so what is put in stands'],
  ['GET', '/qa/faults', 'the faults still waiting'],
  [
    'POST',
    '/qa/faults',
    '{"route":"GET /v1/snapshot","status":502,"body":"…","contentType":"text/plain","delayMs":3000,"drop":true,"times":1}',
  ],
  ['DELETE', '/qa/faults', 'clears every fault, and turns health and the feed back on'],
  ['POST', '/qa/feed/frame', '{"frame":"…"} sends that text as it stands, or {"json":…} that value as JSON text, to every feed client'],
  ['POST', '/qa/feed/ping', 'sends {"t":"ping"} to every feed client now'],
  ['POST', '/qa/feed/drop', 'cuts every feed client off without a close frame; new ones are still taken'],
  ['POST', '/qa/feed/refuse', '{"on":true} refuses new feed connections with 503 until {"on":false}'],
  ['POST', '/qa/health', '{"answering":false} holds every /v1/health request unanswered until {"answering":true}'],
  [
    'GET',
    '/qa/power',
    'Stay awake from inside: the service’s clock, the stand-ins, the last power reading, what runs, and what the power lock was asked',
  ],
  [
    'POST',
    '/qa/power',
    '{"now":ms} stops the clock there, {"offsetMs":n} runs it n ms ahead; {"battery":{"percent":12,"onAC":false}} (false: none), {"lidClosed":true}, {"temperature":95}, {"hotAt":80}, {"backpackReady":false} stand in for the machine; null gives a part back',
  ],
];

const escapeHtml = (text) =>
  text.replace(/[&<>"]/g, (c) => ({ '&': '&amp;', '<': '&lt;', '>': '&gt;', '"': '&quot;' })[c]);

const PAGE = `<!doctype html>
<html lang="en">
<head><meta charset="utf-8"><title>Tidewatch service: /qa</title>
<style>body{font:14px/1.5 system-ui,sans-serif;margin:2em;max-width:60em}code{font:13px ui-monospace,monospace}td{padding:.2em 1em .2em 0;vertical-align:top}</style>
</head>
<body>
<h1>Tidewatch service: /qa</h1>
<p>Every route here needs the admin token from the support folder’s <code>admin-token</code> file,
sent as <code>Authorization: Bearer &lt;token&gt;</code>. Bodies are JSON objects of at most 1 MiB.</p>
<table>
${ROUTES.map(([method, path, what]) => `<tr><td><code>${method} ${escapeHtml(path)}</code></td><td>${escapeHtml(what)}</td></tr>`).join('\n')}
</table>
<p>A fault answers the next matching requests on either port (never /qa) in place of the real answer:
after <code>delayMs</code>, it drops the connection (<code>drop</code>), or sends <code>status</code> with
<code>body</code>, or, with neither, lets the real answer through late.</p>
</body>
</html>
`;

function tooManySessions() {
  throw new HttpError(
    409,
    'too_many_sessions',
    `The service keeps at most ${MAX_SESSIONS} sessions and none of them has ended, so this one isn’t kept.`,
  );
}

function requireId(body, kind) {
  if (typeof body.id !== 'string' || body.id === '') {
    throw new HttpError(400, 'invalid', `A ${kind} needs an "id" that is a non-empty string.`, { field: 'id' });
  }
  return body;
}

/**
 * Adds the /qa routes to the local port's table.
 *
 * @param {Router} router
 * @param {Object} parts
 * @param {ServiceState} parts.state
 * @param {FaultBook} parts.faults
 * @param {FeedServer} parts.feed
 * @param {{answering: boolean}} parts.health The switch of the health route
 * @param {function(): Promise<void>} [parts.settled] Settles once the start's own lookups are done
 * @param {{forgetAll: function(): void}} [parts.devices] The paired devices, whose tokens a reset revokes
 * @param {{forgetAll: function(): void}} [parts.automations] The automations, which a reset forgets with their runs
 */
export function addQaRoutes(router, { state, faults, feed, health, settled = () => Promise.resolve(), devices = null, automations = null }) {
  router
    .add('GET', '/qa', ({ res }) => send(res, 200, PAGE, 'text/html; charset=utf-8'))
    .add('GET', '/qa/state', () => ({
      snapshot: state.snapshot(),
      local: state.localStatus(),
      feedClients: feed.count,
      decisions: state.decisions(),
    }))
    .add('POST', '/qa/snapshot', async ({ req }) => {
      state.setSnapshotParts(await readJsonObject(req));
      return { snapshot: state.snapshot() };
    })
    .add('POST', '/qa/local', async ({ req }) => {
      state.setLocalParts(await readJsonObject(req));
      return { local: state.localStatus() };
    })
    .add('GET', '/qa/settled', async () => {
      await settled();
      return { ok: true };
    })
    .add('POST', '/qa/reset', async ({ req }) => {
      await readJsonObject(req);
      // A fresh start has no paired phone: a token kept past the reset would still open the phone's routes.
      devices?.forgetAll();
      state.reset();
      // After the state's reset, so that the empty book is what the snapshot says.
      automations?.forgetAll();
      return { snapshot: state.snapshot(), local: state.localStatus() };
    });

  const items = [
    ['sessions', 'session', (value) => state.upsertSession(value) || tooManySessions(), (id) => state.removeSession(id)],
    ['approvals', 'approval', (value) => state.upsertApproval(value), (id) => state.removeApproval(id)],
    ['devices', 'device', (value) => state.upsertDevice(value), (id) => state.removeDevice(id)],
  ];
  for (const [plural, kind, upsert, remove] of items) {
    router
      .add('POST', `/qa/${plural}`, async ({ req }) => {
        const value = requireId(await readJsonObject(req), kind);
        upsert(value);
        return { [kind]: value };
      })
      .add('DELETE', `/qa/${plural}/:id`, ({ params }) => {
        if (!remove(params.id)) throw notFound(kind, params.id);
        return { removed: params.id };
      });
  }

  router
    .add('GET', '/qa/faults', () => ({ faults: faults.list() }))
    .add('POST', '/qa/faults', async ({ req }) => {
      faults.add(await readJsonObject(req));
      return { faults: faults.list() };
    })
    .add('DELETE', '/qa/faults', () => {
      faults.clear();
      feed.refusing = false;
      health.answering = true;
      return { faults: [] };
    });

  router
    .add('POST', '/qa/feed/frame', async ({ req }) => {
      const body = await readJsonObject(req);
      const hasFrame = Object.hasOwn(body, 'frame');
      if (hasFrame === Object.hasOwn(body, 'json')) {
        throw invalid('frame', 'Give either “frame”, a text sent as it stands, or “json”, a value sent as JSON text.');
      }
      if (hasFrame && typeof body.frame !== 'string') {
        throw invalid('frame', 'The frame must be a string; send any other value as “json”.');
      }
      return { sent: feed.sendText(hasFrame ? body.frame : JSON.stringify(body.json)) };
    })
    .add('POST', '/qa/feed/ping', async ({ req }) => {
      await readJsonObject(req);
      return { sent: feed.ping() };
    })
    .add('POST', '/qa/feed/drop', async ({ req }) => {
      await readJsonObject(req);
      return { dropped: feed.drop() };
    })
    .add('POST', '/qa/feed/refuse', async ({ req }) => {
      feed.refusing = requireBoolean(await readJsonObject(req), 'on');
      return { refusing: feed.refusing };
    })
    .add('POST', '/qa/health', async ({ req }) => {
      health.answering = requireBoolean(await readJsonObject(req), 'answering');
      return { answering: health.answering };
    });
}
