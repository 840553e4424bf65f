// The LAN route: the phone's interface over HTTPS on the local network,
// with this machine's own certificate, which a phone pins from the pair
// link. Its port, addresses and fingerprint are the local status's `lan`.

import os from 'node:os';

import { closeListener, createListener, listen } from '../listener.js';
import { loadLanCertificate } from './lan-certificate.js';

/** Every IPv4 interface: phones come from the network, not the loopback. */
export const LAN_HOST = '0.0.0.0';

/** How often the addresses are read again (a new Wi‑Fi, a new lease), in milliseconds. */
export const ADDRESSES_EVERY_MS = 30 * 1000;

/**
 * @param {Object<string, Array<Object>>} interfaces As os.networkInterfaces() gives them
 * @return {Array<string>} The IPv4 addresses that aren't internal, in order
 */
export function lanAddresses(interfaces) {
  return Object.values(interfaces ?? {})
    .flat()
    .filter((entry) => entry && (entry.family === 'IPv4' || entry.family === 4) && !entry.internal)
    .map((entry) => entry.address);
}

/**
 * Starts the LAN route.
 *
 * @param {Object} parts
 * @param {string} parts.support Where the certificate is kept
 * @param {ServiceState} parts.state
 * @param {Router} parts.router The API port's routes: health, the feed's door and the phone's
 * @param {FeedServer} parts.feed Takes the phones' feed handshakes here too
 * @param {Object} parts.phone `devices` and `limiter`
 * @param {FaultBook} parts.faults
 * @param {PendingTimers} parts.pending
 * @param {Log} parts.log
 * @param {number} parts.port 0 for any free port
 * @param {string} [parts.host=LAN_HOST]
 * @param {function(): Object} [parts.interfaces=os.networkInterfaces] For tests
 * @return {Promise<{port: number, fingerprint: string, close: function(): Promise<void>}>}
 * @throws {Error} As listen() does, when the port can't be had
 */
export async function startLanRoute({
  support,
  state,
  router,
  feed,
  phone,
  faults,
  pending,
  log,
  port,
  host = LAN_HOST,
  interfaces = os.networkInterfaces,
}) {
  const addresses = () => lanAddresses(interfaces());
  const tls = await loadLanCertificate(support, { hostname: state.about.hostname, addresses: addresses() });
  if (tls.created) log.info(`Made this machine’s certificate for the local network (SHA-256 ${tls.fingerprint}).`);
  const server = createListener({ router, faults, pending, log, phone, tls });
  feed.attach(server, { phoneOnly: true });
  const got = await listen(server, port, host);
  const publish = () => state.setLocalParts({ lan: { port: got, addresses: addresses(), fingerprint: tls.fingerprint } });
  publish();
  const timer = setInterval(publish, ADDRESSES_EVERY_MS);
  timer.unref();
  return {
    port: got,
    fingerprint: tls.fingerprint,
    close: () => {
      clearInterval(timer);
      return closeListener(server);
    },
  };
}
