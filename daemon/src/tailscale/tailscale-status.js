// The Tailscale app as the local status tells it (`TailscaleStatus`), read
// from what its command line prints: `tailscale status --json` (the
// ipnstate.Status record) and `tailscale serve status --json` (the
// ServeConfig record, or null when nothing is served).

import { arrayOr, isObject, objectOr } from '../json.js';

/** Backend states in which the node is up, whether signed in or not. */
const RUNNING_STATES = new Set(['Starting', 'Running', 'NeedsLogin', 'NeedsMachineAuth']);

/** Backend states of a node signed in and admitted to its tailnet. */
const SIGNED_IN_STATES = new Set(['Starting', 'Running']);

/** The local address `tailscale serve` is pointed at for the API port. */
export const serveTarget = (apiPort) => `http://127.0.0.1:${apiPort}`;

// Tailscale writes names fully qualified, with a final dot.
const bareName = (name) => (typeof name === 'string' ? name.replace(/\.$/, '') : '');

// What `tailscale serve` may have made of the target it was given.
function proxiesTo(proxy, apiPort) {
  if (typeof proxy !== 'string') return false;
  const trimmed = proxy.replace(/\/$/, '');
  return trimmed === serveTarget(apiPort) || trimmed === `http://localhost:${apiPort}`;
}

/**
 * The https address at which Tailscale serves the API port, from a
 * ServeConfig: a web handler for "/" that proxies to the port, on a port
 * whose TCP handler terminates HTTPS.
 *
 * @param {*} serve The ServeConfig as printed
 * @param {number|null} apiPort
 * @return {string|null} Such as "https://mac.tail1234.ts.net", with the port
 *     only when it isn't 443
 */
export function servedUrl(serve, apiPort) {
  if (!isObject(serve) || !isObject(serve.Web) || apiPort === null) return null;
  for (const [hostPort, web] of Object.entries(serve.Web)) {
    const handler = objectOr(objectOr(objectOr(web, {}).Handlers, {})['/'], {});
    if (!proxiesTo(handler.Proxy, apiPort)) continue;
    const colon = hostPort.lastIndexOf(':');
    if (colon <= 0) continue;
    const host = hostPort.slice(0, colon);
    const port = hostPort.slice(colon + 1);
    if (objectOr(objectOr(serve.TCP, {})[port], {}).HTTPS !== true) continue;
    return port === '443' ? `https://${host}` : `https://${host}:${port}`;
  }
  return null;
}

/**
 * `TailscaleStatus` from the command line's answers.
 *
 * @param {Object} read
 * @param {string|null} read.cliPath The `tailscale` program; null when there is none
 * @param {*} [read.status] `tailscale status --json` parsed; undefined when it couldn't be read
 * @param {*} [read.serve] `tailscale serve status --json` parsed
 * @param {number|null} [read.apiPort] The port phone access serves
 * @return {Object}
 */
export function tailscaleStatus({ cliPath, status, serve = null, apiPort = null }) {
  if (cliPath === null) return { installed: false, running: false, loggedIn: false };
  if (!isObject(status)) return { installed: true, running: false, loggedIn: false, cliPath, serveOn: false };
  const backend = typeof status.BackendState === 'string' ? status.BackendState : 'NoState';
  const self = objectOr(status.Self, {});
  const record = {
    installed: true,
    running: RUNNING_STATES.has(backend),
    // Switched off (`tailscale down`) still counts as signed in while it keeps its key.
    loggedIn: SIGNED_IN_STATES.has(backend) || (backend === 'Stopped' && status.HaveNodeKey === true),
    cliPath,
  };
  const dnsName = bareName(self.DNSName);
  if (dnsName !== '') record.dnsName = dnsName;
  const ips = arrayOr(self.TailscaleIPs ?? status.TailscaleIPs).filter((ip) => typeof ip === 'string');
  const ip = ips.find((each) => !each.includes(':')) ?? ips[0];
  if (ip !== undefined) record.ip = ip;
  record.httpsEnabled = arrayOr(status.CertDomains).some((domain) => typeof domain === 'string' && domain !== '');
  const url = record.running ? servedUrl(serve, apiPort) : null;
  record.serveOn = url !== null;
  if (url !== null) record.url = url;
  if (typeof self.KeyExpiry === 'string' && self.KeyExpiry !== '') record.keyExpiry = self.KeyExpiry;
  return record;
}
