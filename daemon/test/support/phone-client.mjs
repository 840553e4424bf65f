// A phone as the app on it talks to the service: it takes a pair link (the
// QR code's text), reads the fragment, connects over the LAN route with the
// certificate pinned to the link's fingerprint, registers with the code,
// and then reads, listens and answers with its device token.
//
// As a module: `PhoneClient.fromLink(link)`, then `pair()`, `call()`,
// `feed()`, `answer()`. `PhoneClient.overTailnet(link, reach)` goes to the
// link's `u` instead, through the place where the tailnet name leads on
// this machine (the stand-in serve's port). As a program, for tests in
// another language:
//
//   node phone-client.mjs [--host <address>]
//
// One command a line on standard input, one event a line on standard output:
//
//   {"do":"pair","link":"…","name":"Pixel 8"}   says {"event":"paired", device}
//       or {"event":"refused", status, error}
//   {"do":"call","method":"GET","path":"/phone/snapshot","body":{…}}
//       says {"event":"reply", status, json}
//   {"do":"feed"}     opens the feed; says {"event":"open"}, then
//       {"event":"frame", message} for each frame and {"event":"closed", code}
//   {"do":"answer","id":"ap_…","decision":"allow"}   says {"event":"reply", status, json}
//   {"do":"end"}      ends; so does the end of input
//
// Anything that goes wrong is said as {"event":"error", message}.
// `--host` reaches the LAN route at another address than the link's (the
// port and the pin stay the link's).

import { createHash } from 'node:crypto';
import http from 'node:http';
import net from 'node:net';
import readline from 'node:readline';
import tls from 'node:tls';
import { fileURLToPath } from 'node:url';
import { parseArgs } from 'node:util';

import { WebSocket } from 'ws';

import { readPairLink } from '../../src/phone/pair-link.js';

/**
 * Compares the DER SHA-256 of a server's certificate with the pin; shaped
 * as tls.connect's checkServerIdentity. Node calls that only for a chain it
 * trusts, and a certificate of the service's own never is one, so the
 * connection runs it itself before a byte of a request goes out.
 *
 * @param {string} fingerprint Lower-case hex, as the link's `fp`
 * @return {function(string, Object): (Error|undefined)}
 */
export function checkPin(fingerprint) {
  return (host, cert) => {
    const got = cert?.raw ? createHash('sha256').update(cert.raw).digest('hex') : '';
    if (got !== fingerprint) return new Error(`The certificate at ${host} isn’t the one this phone paired with.`);
    return undefined;
  };
}

/**
 * A TLS connection whose certificate matched the pin.
 *
 * @return {Promise<tls.TLSSocket>}
 */
export function pinnedConnect({ host, port, fingerprint }) {
  return new Promise((resolve, reject) => {
    const socket = tls.connect({ host, port, rejectUnauthorized: false });
    socket.once('error', reject);
    socket.once('secureConnect', () => {
      const error = checkPin(fingerprint)(host, socket.getPeerCertificate(true));
      if (error) {
        socket.destroy();
        reject(error);
        return;
      }
      socket.off('error', reject);
      resolve(socket);
    });
  });
}

export class PhoneClient {
  /**
   * @param {string} link The pair link
   * @param {Object} [options]
   * @param {string} [options.host] Another address for the LAN route
   * @param {string} [options.fingerprint] Another pin than the link's, to prove it is refused
   */
  static fromLink(link, { host, fingerprint } = {}) {
    const keys = readPairLink(link);
    if (!keys.lan || !keys.lp || !keys.fp) throw new Error('The link has no LAN route.');
    return new PhoneClient({ keys, route: { host: host ?? keys.lan, port: Number(keys.lp), fingerprint: fingerprint ?? keys.fp } });
  }

  /**
   * A phone away from home, which reaches the service at the link's `u`.
   *
   * @param {string} link The pair link
   * @param {{host: string, port: number, localAddress: (string|undefined)}} reach Where `u`
   *     leads on this machine, and the address this phone comes from
   */
  static overTailnet(link, reach) {
    const keys = readPairLink(link);
    if (!keys.u) throw new Error('The link has no address for away from home.');
    return new PhoneClient({ keys, route: { ...reach, tailnet: new URL(keys.u).host } });
  }

  constructor({ keys, route }) {
    /** The link's keys: v, u, c, n, fp, lan, lp. */
    this.keys = keys;
    this.route = route;
    /** The device token, once paired. */
    this.token = null;
    this.device = null;
  }

  /**
   * One exchange on the LAN route, with the device token when there is one.
   *
   * @return {Promise<{status: number, json: *, text: string}>}
   */
  async call(method, path, { body, token = this.token, raw } = {}) {
    const socket = await this.#connect();
    const payload = raw ?? (body === undefined ? undefined : JSON.stringify(body));
    const headers = this.#hostHeader();
    if (payload !== undefined) Object.assign(headers, { 'Content-Type': 'application/json', 'Content-Length': Buffer.byteLength(payload) });
    if (token) headers.Authorization = `Bearer ${token}`;
    return new Promise((resolve, reject) => {
      // No agent: a request with its own connection uses it and nothing else.
      const { host, port } = this.route;
      const req = http.request({ host, port, method, path, headers, createConnection: () => socket }, (res) => {
        const chunks = [];
        res.on('data', (chunk) => chunks.push(chunk));
        res.on('end', () => {
          const text = Buffer.concat(chunks).toString('utf8');
          let json;
          try {
            json = JSON.parse(text);
          } catch {
            json = undefined;
          }
          socket.destroy();
          resolve({ status: res.statusCode, json, text });
        });
      });
      req.on('error', reject);
      req.end(payload);
    });
  }

  /**
   * Registers with the link's code.
   *
   * @return {Promise<{status: number, json: *}>} The reply; on success the token is kept
   */
  async pair({ name = 'Test phone', code = this.keys.c, ...more } = {}) {
    const reply = await this.call('POST', '/phone/pair', { body: { code, name, client: 'phone', ...more }, token: null });
    if (reply.status === 200) {
      this.token = reply.json.token;
      this.device = reply.json.device;
    }
    return reply;
  }

  /** @return {Promise<{status: number, json: *}>} */
  answer(id, decision) {
    return this.call('POST', `/phone/approvals/${encodeURIComponent(id)}/decision`, { body: { decision } });
  }

  /**
   * The feed as the phone hears it.
   *
   * @return {Promise<{socket: WebSocket, messages: Array<Object>, closed: Promise<number>, next: function(string, number=): Promise<Object>}>}
   */
  async feed({ token = this.token } = {}) {
    const socket = await this.#connect();
    const scheme = this.route.tailnet ? 'ws' : 'wss';
    const ws = new WebSocket(`${scheme}://${this.route.host}:${this.route.port}/v1/ws?client=phone`, {
      headers: { ...this.#hostHeader(), ...(token ? { Authorization: `Bearer ${token}` } : {}) },
      createConnection: () => socket,
    });
    const messages = [];
    const waiting = [];
    ws.on('message', (data) => {
      messages.push(JSON.parse(data.toString('utf8')));
      for (const wake of waiting.splice(0)) wake();
    });
    const closed = new Promise((resolve) => ws.on('close', (code) => resolve(code)));
    await new Promise((resolve, reject) => {
      ws.once('open', resolve);
      ws.once('unexpected-response', (req, res) => reject(Object.assign(new Error(`The feed answered ${res.statusCode}.`), { status: res.statusCode })));
      ws.once('error', reject);
    });
    ws.on('error', () => {});
    let taken = 0;
    const next = async (type, timeoutMs = 5000) => {
      const deadline = Date.now() + timeoutMs;
      for (;;) {
        const index = messages.findIndex((message, i) => i >= taken && message?.t === type);
        if (index >= 0) {
          taken = index + 1;
          return messages[index];
        }
        if (Date.now() > deadline) throw new Error(`No “${type}” frame came.`);
        await new Promise((resolve) => {
          waiting.push(resolve);
          setTimeout(resolve, 50);
        });
      }
    };
    return { socket: ws, messages, closed, next };
  }

  // The tailnet's own TLS ends at the serve proxy; the LAN route's is the service's, pinned.
  #connect() {
    if (!this.route.tailnet) return pinnedConnect(this.route);
    const { host, port, localAddress } = this.route;
    return new Promise((resolve, reject) => {
      const socket = net.connect({ host, port, localAddress }, () => {
        socket.off('error', reject);
        resolve(socket);
      });
      socket.once('error', reject);
    });
  }

  #hostHeader() {
    return this.route.tailnet ? { Host: this.route.tailnet } : {};
  }
}

async function runCommands({ host }) {
  const say = (event, fields = {}) => process.stdout.write(`${JSON.stringify({ event, ...fields })}\n`);
  let phone = null;
  const feeds = [];
  const lines = readline.createInterface({ input: process.stdin });
  for await (const line of lines) {
    if (line.trim() === '') continue;
    try {
      const command = JSON.parse(line);
      if (command.do === 'end') break;
      if (command.do === 'pair') {
        phone = PhoneClient.fromLink(command.link, { host });
        const reply = await phone.pair({ name: command.name });
        if (reply.status === 200) say('paired', { device: reply.json.device });
        else say('refused', { status: reply.status, error: reply.json?.error });
      } else if (!phone) {
        say('error', { message: 'Pair first.' });
      } else if (command.do === 'call') {
        const reply = await phone.call(command.method ?? 'GET', command.path, { body: command.body });
        say('reply', { status: reply.status, json: reply.json });
      } else if (command.do === 'answer') {
        const reply = await phone.answer(command.id, command.decision);
        say('reply', { status: reply.status, json: reply.json });
      } else if (command.do === 'feed') {
        const feed = await phone.feed();
        feeds.push(feed);
        let told = 0;
        feed.socket.on('message', () => {
          for (; told < feed.messages.length; told++) say('frame', { message: feed.messages[told] });
        });
        feed.closed.then((code) => say('closed', { code }));
        say('open');
        for (; told < feed.messages.length; told++) say('frame', { message: feed.messages[told] });
      } else {
        say('error', { message: `Unknown command “${command.do}”.` });
      }
    } catch (error) {
      say('error', { message: error.message });
    }
  }
  for (const feed of feeds) feed.socket.terminate();
  lines.close();
}

if (process.argv[1] === fileURLToPath(import.meta.url)) {
  const { values } = parseArgs({ options: { host: { type: 'string' } } });
  await runCommands(values);
}
