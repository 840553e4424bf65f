// The pair link the app shows as a QR code: the pairing origin, "/pair",
// and a fragment that a browser never sends to any server, carrying the
// phone address, the code, this machine's name and, with a LAN route, the
// certificate's fingerprint and the local address and port.

import { isObject } from '../json.js';

/** The version of the link's layout (`v`). */
export const LINK_VERSION = 1;

/**
 * The phone address: the Tailscale app's URL trimmed of one trailing "/",
 * else the built-in node's URL while it is the chosen road.
 *
 * @param {*} tailscale The local status's `tailscale` part
 * @param {*} tsnet The local status's `tsnet` part
 * @return {string|null}
 */
export function phoneAddress(tailscale, tsnet) {
  const url = isObject(tailscale) && typeof tailscale.url === 'string' ? tailscale.url.replace(/\/$/, '') : '';
  if (url !== '') return url;
  if (isObject(tsnet) && tsnet.mode === 'builtIn' && typeof tsnet.url === 'string' && tsnet.url !== '') return tsnet.url;
  return null;
}

/**
 * @param {Object} parts
 * @param {string} parts.origin The pairing origin, such as "https://tidewatch.app"
 * @param {string} parts.code
 * @param {string|null} parts.url The phone address; "" in the link when there is none
 * @param {string} parts.name This machine's name
 * @param {{fingerprint: string, address: string, port: number}|null} parts.lan The LAN route, if any
 * @return {string}
 */
export function pairLink({ origin, code, url, name, lan }) {
  const keys = [
    ['v', String(LINK_VERSION)],
    ['u', url ?? ''],
    ['c', code],
    ['n', name],
  ];
  if (lan) keys.push(['fp', lan.fingerprint], ['lan', lan.address], ['lp', String(lan.port)]);
  // Percent-encoding throughout ("%20", never "+"), which form decoders read alike.
  const fragment = keys.map(([key, value]) => `${key}=${encodeURIComponent(value)}`).join('&');
  return `${origin}/pair#${fragment}`;
}

/**
 * Reads a link's fragment back, as a phone does.
 *
 * @param {string} link
 * @return {Object<string, string>} The keys present, decoded
 */
export function readPairLink(link) {
  const hash = new URL(link).hash.slice(1);
  return Object.fromEntries(new URLSearchParams(hash));
}
