// The live feed: one WebSocket per client on the API port, at /v1/ws, behind
// the admin token; a phone (`client=phone`) comes with its device token
// instead, there or on the LAN route, and only so. A client gets the whole snapshot when it connects and
// then every change of the state as a small message, bursts folded; it is
// pinged now and then, and a client that can't keep up is let go rather
// than buffered without end.

import http from 'node:http';

import { WebSocket, WebSocketServer } from 'ws';

import { bearerMatches } from './admin-token.js';
import { Coalescer, COALESCE_MS } from './coalescer.js';
import { FeedMessages } from './feed-messages.js';
import { HttpError, JSON_TYPE } from './http-reply.js';
import { NOT_PAIRED, pairedDevice, readTarget } from './listener.js';

export const FEED_PATH = '/v1/ws';

/** How often every client gets {"t":"ping"}, in milliseconds. */
export const PING_INTERVAL_MS = 25_000;

/**
 * The largest frame a client may send (64 KiB): clients send only pongs and
 * other small frames. A larger one closes that client's socket with 1009.
 */
export const MAX_CLIENT_FRAME_BYTES = 64 * 1024;

/**
 * Bytes that may wait to be sent to one client (64 MiB, the size of the
 * largest message the app reads). A client further behind is cut off.
 */
export const MAX_BUFFERED_BYTES = 64 * 1024 * 1024;

/** How long closing waits for clients to answer the close frame, in milliseconds. */
export const CLOSE_GRACE_MS = 500;

/** The longest client name kept (from `?client=`); it is only ever logged. */
export const MAX_CLIENT_NAME_CHARS = 64;

const PING = Buffer.from('{"t":"ping"}');

/** The `client` a phone names itself; it alone is let in with a device token. */
export const PHONE_CLIENT = 'phone';

/** The close code of a forgotten device's connections (policy violation). */
export const FORGOTTEN_CLOSE = 1008;

const clientName = (raw) =>
  (raw ?? '')
    // eslint-disable-next-line no-control-regex -- control characters are exactly what a name for the log must lose
    .replace(/[\u0000-\u001f\u007f]/g, '')
    .slice(0, MAX_CLIENT_NAME_CHARS) || 'unnamed';

// An answer to a handshake that isn't taken, written on the bare socket.
function refuse(socket, status, body, contentType = JSON_TYPE, headers = {}) {
  if (socket.destroyed) return;
  const lines = [
    `HTTP/1.1 ${status} ${http.STATUS_CODES[status] ?? 'Unknown'}`,
    `Content-Type: ${contentType}`,
    `Content-Length: ${Buffer.byteLength(body)}`,
    'Cache-Control: no-store',
    'Connection: close',
    ...Object.entries(headers).map(([name, value]) => `${name}: ${value}`),
  ];
  socket.once('finish', () => socket.destroy());
  socket.end(`${lines.join('\r\n')}\r\n\r\n${body}`);
}

function refuseWithError(socket, error) {
  const inner = { code: error.code, message: error.message };
  refuse(socket, error.status, JSON.stringify({ error: inner }), JSON_TYPE, error.headers);
}

/**
 * The feed, attached to the API listener's `upgrade` event.
 */
export class FeedServer {
  /** While true, new connections are refused with 503 (set by /qa). */
  refusing = false;

  #state;
  #token;
  #phone;
  #faults;
  #pending;
  #log;
  #maxBufferedBytes;
  #sockets;
  #clients;
  #reportCount;
  #held;
  #changes;
  #messages;
  #coalescer;
  #pinger;
  #closing;

  /**
   * @param {Object} options
   * @param {http.Server} options.server The API listener
   * @param {ServiceState} options.state
   * @param {string} options.token The admin token
   * @param {{devices: DeviceBook, limiter: AttemptLimiter}} [options.phone] Who may
   *     join as a phone; without it no phone can
   * @param {FaultBook} options.faults Faults apply to the handshake too
   * @param {PendingTimers} options.pending
   * @param {Log} options.log
   * @param {number} [options.pingIntervalMs=PING_INTERVAL_MS]
   * @param {number} [options.coalesceMs=COALESCE_MS]
   * @param {number} [options.maxBufferedBytes=MAX_BUFFERED_BYTES]
   * @param {function(number): void} [options.reportCount] Hears the number of
   *     clients on each change; the state's `connectedClients` by default
   */
  constructor({
    server,
    state,
    token,
    phone = null,
    faults,
    pending,
    log,
    pingIntervalMs = PING_INTERVAL_MS,
    coalesceMs = COALESCE_MS,
    maxBufferedBytes = MAX_BUFFERED_BYTES,
    reportCount = (count) => state.setConnectedClients(count),
  }) {
    this.#reportCount = reportCount;
    this.#state = state;
    this.#token = token;
    this.#phone = phone;
    this.#faults = faults;
    this.#pending = pending;
    this.#log = log;
    this.#maxBufferedBytes = maxBufferedBytes;
    this.#sockets = new WebSocketServer({
      noServer: true,
      maxPayload: MAX_CLIENT_FRAME_BYTES,
      clientTracking: false,
      perMessageDeflate: false,
      // Nothing reads what clients send, so a text frame that isn't UTF-8 is
      // passed over like any other instead of closing the socket.
      skipUTF8Validation: true,
    });
    this.#clients = new Map();
    // Handshakes that a delayed fault holds: the listener can't close under them.
    this.#held = new Set();
    // Changes are counted so that a frame goes only to the clients that
    // joined before its change: a later one has it in its first snapshot.
    this.#changes = 0;
    this.#messages = new FeedMessages(state.snapshot());
    this.#coalescer = new Coalescer({ windowMs: coalesceMs, send: (entry) => this.#broadcast(entry) });
    this.#closing = null;

    state.on('change', this.#onChange);
    phone?.devices.on('revoked', this.#onRevoked);
    this.attach(server);
    this.#pinger = setInterval(() => this.ping(), pingIntervalMs);
    // The listeners keep the process alive; the ping alone must not.
    this.#pinger.unref();
  }

  /**
   * Takes the handshakes of one more listener.
   *
   * @param {http.Server} server
   * @param {Object} [options]
   * @param {boolean} [options.phoneOnly=false] Phones alone, for the LAN route
   */
  attach(server, { phoneOnly = false } = {}) {
    server.on('upgrade', (req, socket, head) => this.#onUpgrade(req, socket, head, phoneOnly));
  }

  /** @return {number} The clients connected now. */
  get count() {
    return this.#clients.size;
  }

  /**
   * Sends one text frame, as it stands, to every client.
   *
   * @param {string} text
   * @return {number} The clients it went to
   */
  sendText(text) {
    return this.#sendAll(Buffer.from(text, 'utf8'));
  }

  /** @return {number} The clients pinged */
  ping() {
    return this.#sendAll(PING);
  }

  /**
   * Cuts every client off without a close frame, as a lost link would;
   * new connections are still taken.
   *
   * @return {number} The clients cut off
   */
  drop() {
    const sockets = [...this.#clients.keys()];
    for (const socket of sockets) this.#cutOff(socket);
    return sockets.length;
  }

  /**
   * Closes every client with 1001 (going away) and stops taking new ones.
   * Clients that don't answer the close within {@link CLOSE_GRACE_MS} are cut
   * off. Safe to call more than once.
   *
   * @return {Promise<void>}
   */
  close() {
    this.#closing ??= new Promise((resolve) => {
      clearInterval(this.#pinger);
      this.#coalescer.clear();
      this.#state.off('change', this.#onChange);
      this.#phone?.devices.off('revoked', this.#onRevoked);
      for (const socket of this.#held) socket.destroy();
      const open = [...this.#clients.keys()];
      let left = open.length;
      if (left === 0) {
        resolve();
        return;
      }
      const timer = setTimeout(() => {
        for (const socket of open) this.#cutOff(socket);
        resolve();
      }, CLOSE_GRACE_MS);
      for (const socket of open) {
        socket.once('close', () => {
          left -= 1;
          if (left > 0) return;
          clearTimeout(timer);
          resolve();
        });
        socket.close(1001, 'The service is stopping.');
      }
    });
    return this.#closing;
  }

  // A forgotten device hears nothing more: its connections close at once.
  #onRevoked = (id) => {
    for (const [socket, client] of [...this.#clients]) {
      if (client.device !== id) continue;
      this.#forget(socket, 'was forgotten');
      socket.close(FORGOTTEN_CLOSE, 'This device was forgotten.');
      setTimeout(() => socket.terminate(), CLOSE_GRACE_MS).unref();
    }
  };

  #onChange = (change) => {
    this.#changes += 1;
    const seq = this.#changes;
    const snapshot = change.snapshot.length > 0 ? this.#state.snapshot() : null;
    for (const { key, message } of this.#messages.read(change, snapshot)) {
      // A snapshot carries every item's latest value; what waited is needless.
      if (key === 'snapshot') this.#coalescer.discard((other) => other !== 'devices');
      // An answer is never held back: clients fold the approval away on it.
      if (message?.t === 'approval.resolved') this.#coalescer.pushNow(key, { seq, message });
      else this.#coalescer.push(key, { seq, message });
    }
  };

  #sendAll(data) {
    let sent = 0;
    for (const socket of [...this.#clients.keys()]) if (this.#deliver(socket, data)) sent += 1;
    return sent;
  }

  #broadcast({ seq, message }) {
    const data = Buffer.from(JSON.stringify(message ?? { t: 'snapshot', snapshot: this.#state.snapshot() }), 'utf8');
    for (const [socket, client] of [...this.#clients]) if (client.joined < seq) this.#deliver(socket, data);
  }

  // Sends one frame; a client left too far behind is cut off instead.
  #deliver(socket, data) {
    const client = this.#clients.get(socket);
    if (!client || socket.readyState !== WebSocket.OPEN) return false;
    socket.send(data, { binary: false });
    if (socket.bufferedAmount > this.#maxBufferedBytes) {
      const mib = Number((this.#maxBufferedBytes / (1024 * 1024)).toFixed(2));
      this.#log.warn(`Feed client “${client.name}” fell more than ${mib} MiB behind; its connection was closed.`);
      this.#cutOff(socket);
    }
    return true;
  }

  #cutOff(socket) {
    socket.terminate();
    this.#forget(socket, 'cut off');
  }

  #forget(socket, how) {
    const client = this.#clients.get(socket);
    if (!client) return;
    this.#clients.delete(socket);
    this.#log.info(`Feed client “${client.name}” ${how}; ${this.#clients.size} connected.`);
    this.#reportCount(this.#clients.size);
  }

  #onUpgrade = (req, socket, head, phoneOnly) => {
    // A client that resets mid-handshake must not take the service with it.
    socket.on('error', () => {});
    const target = readTarget(req.url);
    if (target === null) {
      refuseWithError(socket, new HttpError(400, 'bad_request', 'The request’s path can’t be read.'));
      return;
    }
    const proceed = () => this.#admit(req, socket, head, target, phoneOnly);
    const fault = this.#faults.take(req.method, target.path);
    if (!fault) {
      proceed();
      return;
    }
    const act = () => {
      this.#held.delete(socket);
      if (socket.destroyed) return;
      if (fault.drop) socket.destroy();
      else if (fault.status !== null) refuse(socket, fault.status, fault.body, fault.contentType);
      else proceed();
    };
    if (fault.delayMs === 0) {
      act();
      return;
    }
    this.#held.add(socket);
    socket.once('close', () => this.#held.delete(socket));
    this.#pending.after(fault.delayMs, act);
  };

  #admit(req, socket, head, { path, url }, phoneOnly) {
    if (socket.destroyed) return;
    const name = clientName(url.searchParams.get('client'));
    let error = null;
    let device = null;
    if (path !== FEED_PATH) {
      error = new HttpError(404, 'not_found', `Nothing here answers ${req.method} ${path}.`);
    } else if (req.method !== 'GET') {
      error = new HttpError(405, 'method_not_allowed', `${path} doesn’t take ${req.method}; it takes GET.`, {
        headers: { Allow: 'GET' },
      });
    } else if (name === PHONE_CLIENT || phoneOnly) {
      try {
        if (name !== PHONE_CLIENT) throw new HttpError(401, 'unauthorized', NOT_PAIRED);
        device = pairedDevice(req, this.#phone).id;
      } catch (refusal) {
        error = refusal;
      }
    } else if (!bearerMatches(req.headers.authorization, this.#token)) {
      error = new HttpError(401, 'unauthorized', 'The feed needs the admin token, sent as “Authorization: Bearer <token>”.', {
        headers: { 'WWW-Authenticate': 'Bearer' },
      });
    }
    if (error === null && (this.refusing || this.#closing !== null)) {
      error = new HttpError(503, 'unavailable', 'The feed isn’t taking new connections just now.');
    }
    if (error !== null) {
      refuseWithError(socket, error);
      return;
    }
    this.#sockets.handleUpgrade(req, socket, head, (ws) => this.#join(ws, name, device));
  }

  #join(socket, name, device) {
    // Closing, or the device was forgotten during the handshake.
    if (this.#closing !== null || (device !== null && !this.#phone.devices.has(device))) {
      socket.terminate();
      return;
    }
    this.#clients.set(socket, { name, device, joined: this.#changes });
    // Clients send only pongs, and nothing reads what they send, so no frame
    // of theirs can do harm. A frame over the limit or broken at the
    // protocol level makes ws close that one socket; its error is expected.
    socket.on('error', () => {});
    socket.on('close', (code) => this.#forget(socket, `left (${code})`));
    this.#log.info(`Feed client “${name}” connected; ${this.#clients.size} connected.`);
    this.#reportCount(this.#clients.size);
    this.#deliver(socket, Buffer.from(JSON.stringify({ t: 'snapshot', snapshot: this.#state.snapshot() }), 'utf8'));
  }
}
