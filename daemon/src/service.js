// The service as one piece: folders, token, log, state, the two listeners
// and the feed, started together and closed together.

import os from 'node:os';

import { loadAdminToken } from './admin-token.js';
import { apiRoutes } from './api-routes.js';
import { DEFAULT_API_PORT, DEFAULT_LOCAL_PORT } from './config.js';
import { FaultBook, PendingTimers } from './faults.js';
import { FeedServer } from './feed-server.js';
import { closeListener, createListener, HOST, listen } from './listener.js';
import { localRoutes } from './local-routes.js';
import { Log } from './log.js';
import { ensurePrivateFolder } from './private-files.js';
import { ServiceState } from './state.js';
import { VERSION } from './version.js';

/**
 * @typedef {Object} RunningService
 * @property {number} apiPort The port the API listener got
 * @property {number} localPort The port the local listener got
 * @property {ServiceState} state
 * @property {FaultBook} faults
 * @property {http.Server} apiServer Where the feed attaches (its upgrade event)
 * @property {http.Server} localServer
 * @property {FeedServer} feed
 * @property {Log} log
 * @property {string} startLine The sentence that announces the start
 * @property {function(): Promise<void>} close Closes the feed's clients
 *     (1001), then ends both listeners and every connection; safe to call
 *     more than once
 */

/**
 * Starts the service. The support and log folders are made private (0700),
 * the admin token is read or made, and both listeners bind to 127.0.0.1.
 *
 * @param {Object} options
 * @param {string} options.support The support folder
 * @param {string} options.logs The log folder
 * @param {number} [options.apiPort=47321] 0 for any free port
 * @param {number} [options.localPort=47322] 0 for any free port
 * @param {Object} [options.feed] The feed's timing and limits, for tests:
 *     `pingIntervalMs`, `coalesceMs`, `maxBufferedBytes` (see FeedServer)
 * @return {Promise<RunningService>}
 * @throws {Error} A port that can't be bound gives code "TIDEWATCH_PORT" and
 *     a sentence as its message, already written to the log
 */
export async function startService({
  support,
  logs,
  apiPort = DEFAULT_API_PORT,
  localPort = DEFAULT_LOCAL_PORT,
  feed: feedOptions = {},
}) {
  ensurePrivateFolder(support);
  ensurePrivateFolder(logs);
  const log = new Log(logs);

  const { token, created, tightened } = loadAdminToken(support);
  log.addSecret(token);
  if (created) log.info('Made a new admin token.');
  if (tightened) log.warn('The admin token file was readable by others; it is private (0600) again.');

  const state = new ServiceState({ hostname: os.hostname(), daemonVersion: VERSION, home: os.homedir() });
  const faults = new FaultBook();
  const pending = new PendingTimers();
  // Switched by /qa to make the service look hung while its feed lives on.
  const health = { answering: true };
  const apiServer = createListener({ router: apiRoutes({ health }), faults, pending, log });
  const feed = new FeedServer({ server: apiServer, state, token, faults, pending, log, ...feedOptions });
  const localServer = createListener({
    router: localRoutes({ state, faults, feed, health }),
    faults,
    pending,
    log,
    token,
  });

  let ports;
  try {
    const api = await listen(apiServer, apiPort);
    const local = await listen(localServer, localPort).catch(async (error) => {
      await closeListener(apiServer);
      throw error;
    });
    ports = { api, local };
  } catch (error) {
    await feed.close();
    log.error(error.message);
    throw error;
  }
  state.setApiPort(ports.api);

  const startLine =
    `Tidewatch service ${VERSION} is listening on ${HOST}:${ports.api} (API) and ${HOST}:${ports.local} (local); ` +
    `support folder ${support}.`;
  log.info(startLine);

  let closing = null;
  const close = () => {
    closing ??= (async () => {
      pending.clear();
      await feed.close();
      await Promise.all([closeListener(apiServer), closeListener(localServer)]);
    })();
    return closing;
  };

  return {
    apiPort: ports.api,
    localPort: ports.local,
    state,
    faults,
    apiServer,
    localServer,
    feed,
    log,
    startLine,
    close,
  };
}
