// The service as one piece: folders, token, log, state, the two listeners
// and the feed, started together and closed together.

import os from 'node:os';
import path from 'node:path';

import { loadAdminToken } from './admin-token.js';
import { apiRoutes } from './api-routes.js';
import { Automations } from './automations/automations.js';
import { AwakeKeeper, ServiceClock } from './awake/awake-keeper.js';
import { ClaudeSignIn } from './claude/sign-in.js';
import { ClaudeAgent } from './claude/claude-agent.js';
import { CodexAgent } from './codex/codex-agent.js';
import { DEFAULT_API_PORT, DEFAULT_LAN_PORT, DEFAULT_LOCAL_PORT, DEFAULT_PAIR_ORIGIN } from './config.js';
import { ConnectionCount } from './connection-count.js';
import { FaultBook, NO_FAULTS, PendingTimers } from './faults.js';
import { FeedServer } from './feed-server.js';
import { hookPlace, Integration } from './integration.js';
import { loadHookToken } from './hook-token.js';
import { detectClaude, takesHttpHooks } from './claude/claude-binary.js';
import { usualFolders } from './codex/codex-binary.js';
import { closeListener, createListener, HOST, listen } from './listener.js';
import { localRoutes } from './local-routes.js';
import { Log } from './log.js';
import { AttemptLimiter } from './phone/attempt-limiter.js';
import { DeviceBook } from './phone/device-book.js';
import { startLanRoute } from './phone/lan-route.js';
import { PairCodes } from './phone/pair-codes.js';
import { StatePersister } from './persist.js';
import { Continuer } from './sessions/continuer.js';
import { SessionRunner } from './sessions/session-runner.js';
import { profilesFor } from './shell-profile.js';
import { RELAY_NAME, TerminalHub } from './terminals/terminal-hub.js';
import { AgentPlaces } from './windows/agent-places.js';
import { SessionOpener } from './windows/session-opener.js';
import { windowRaiser } from './windows/window-raiser.js';
import { ensurePrivateFolder } from './private-files.js';
import { keptSettings } from './settings-routes.js';
import { ServiceState } from './state.js';
import { BuiltInNode } from './tailscale/built-in-node.js';
import { PhoneAccess } from './tailscale/phone-access.js';
import { TailscaleApp } from './tailscale/tailscale-app.js';
import { VERSION } from './version.js';

/**
 * @typedef {Object} RunningService
 * @property {number} apiPort The port the API listener got
 * @property {number} localPort The port the local listener got
 * @property {number|null} lanPort The port the LAN route got; null when it couldn't open
 * @property {DeviceBook} devices The paired devices and their tokens
 * @property {ServiceState} state
 * @property {FaultBook|NO_FAULTS} faults A book only in a test copy
 * @property {http.Server} apiServer Where the feed attaches (its upgrade event)
 * @property {http.Server} localServer
 * @property {FeedServer} feed
 * @property {ConnectionCount} connections The clients connected now, every
 *     kind together; a new kind of connection reports through its reporter()
 * @property {PhoneAccess} access Tailscale: the app and the built-in node
 * @property {AwakeKeeper} awake
 * @property {CodexAgent} codex
 * @property {Promise<void>} codexReady When Codex's first look (program and files) is done
 * @property {Promise<void>} claudeReady When Claude Code's version is known and the hooks fit it
 * @property {ClaudeAgent} claude Claude Code through its hooks and status line
 * @property {TerminalHub} terminals The shared terminals
 * @property {SessionRunner} runner The sessions the service starts itself
 * @property {Integration} integration Claude Code's settings, connected on request
 * @property {StatePersister} persister
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
 * @param {number} [options.lanPort=47323] The LAN route's port, 0 for any free port
 * @param {string} [options.lanHost='0.0.0.0'] Where the LAN route listens
 * @param {function(): Object} [options.interfaces] The network interfaces, for tests
 *     (os.networkInterfaces by default)
 * @param {string} [options.pairOrigin] The origin of the pair links
 * @param {boolean} [options.testCopy=false] Only a test copy has the /qa
 *     routes and takes planted faults; a real install answers /qa with 404
 * @param {Object} [options.feed] The feed's timing and limits, for tests:
 *     `pingIntervalMs`, `coalesceMs`, `maxBufferedBytes` (see FeedServer)
 * @param {Object} [options.awake] Stay awake's reach: `source` and `lock`
 *     (see awakeOptions), `clock`, `hotAt`; without it nothing of the
 *     machine is read or held
 * @param {string|null} [options.codexHome=null] Codex's own folder, whose
 *     sessions are followed while Codex is switched on; null follows none
 * @param {string|null} [options.codexPath=null] The `codex` program to use;
 *     null looks for it on PATH and in the usual folders
 * @param {Object} [options.codex] More for Codex, for tests: `searchPath`,
 *     `folders`, `now`, `detectEveryMs`, `versionTimeoutMs`, `watch`
 *     (see CodexAgent)
 * @param {Object} [options.claude] For tests: `approvalWaitMs`,
 *     `transcriptPollMs`, `carryOnNewsMs`, `now` (see ClaudeAgent)
 * @param {string|null} [options.shellHome=null] Whose start files get the
 *     shell integration; null changes none
 * @param {string} [options.shell='/bin/sh'] The login shell, which decides the start files
 * @param {string|null} [options.relay] The terminal relay the shell, and a
 *     new window opened on a session the service ran, run the agents
 *     through; the copy in the support folder's bin/ when null
 * @param {Object} [options.sessions] For tests: `checkEveryMs` (see Continuer)
 * @param {string} [options.home] The person's home folder, where the
 *     sessions the service starts must lie; the home it runs under by default
 * @param {string} [options.projects] The person's projects folder, where
 *     every automation's project lies; "Programming" in the home folder by default
 * @param {Object} [options.automations] For tests: `recheckMs`, `tickEveryMs`, `quietMs`
 *     and `resolve`, where a webhook output's checked https address is really sent (see Automations)
 * @param {Object<string, string>} [options.agentEnv] The environment of the
 *     agents it starts, before a request's own; its own by default
 * @param {function(): Promise<Object|null>} [options.agentSdk] Loads the agent SDK; for tests
 * @param {Object} [options.windows] For tests: `env`, where the screen
 *     (DISPLAY) and the terminal emulator (PATH, TERMINAL) are found
 *     (see window-raiser.js)
 * @param {string} [options.claudeSettings] Claude Code's user settings file;
 *     ~/.claude/settings.json of the home the service runs under
 * @param {Object} [options.claudeProgram] Where `claude` is looked for:
 *     `named`, `searchPath`, `folders` (see findProgram); PATH and the usual
 *     folders by default
 * @param {Object} [options.persist] For tests: `now`, `saveDelayMs`,
 *     `saveMaxDelayMs`, `sweepEveryMs` (see StatePersister)
 * @param {Object} [options.tailscale] Where the `tailscale` command line is
 *     looked for (`program`: `named`, `searchPath`, `folders`, `app`; see
 *     TailscaleApp), the `env` it and the helper run in, and `everyMs`, the
 *     pace of reading them; PATH and the usual folders by default
 * @param {string|null} [options.tsnetHelper=null] The built-in Tailscale
 *     node's helper program; none by default
 * @return {Promise<RunningService>}
 * @throws {Error} A port that can't be bound gives code "TIDEWATCH_PORT" and
 *     a sentence as its message, already written to the log
 */
export async function startService({
  support,
  logs,
  apiPort = DEFAULT_API_PORT,
  localPort = DEFAULT_LOCAL_PORT,
  lanPort = DEFAULT_LAN_PORT,
  lanHost,
  interfaces,
  pairOrigin = DEFAULT_PAIR_ORIGIN,
  testCopy = false,
  feed: feedOptions = {},
  awake: awakeOptions = {},
  codexHome = null,
  codexPath = null,
  codex: codexOptions = {},
  persist: persistOptions = {},
  claude: claudeOptions = {},
  sessions: sessionOptions = {},
  home = os.homedir(),
  projects = path.join(home, 'Programming'),
  automations: { resolve: resolveWebhook, ...automationTiming } = {},
  agentEnv = process.env,
  agentSdk,
  windows: windowOptions = {},
  claudeSettings = path.join(os.homedir(), '.claude', 'settings.json'),
  claudeProgram = {},
  shellHome = null,
  shell = '/bin/sh',
  relay = null,
  tailscale: tailscaleOptions = {},
  tsnetHelper = null,
}) {
  ensurePrivateFolder(support);
  ensurePrivateFolder(logs);
  const log = new Log(logs);

  const { token, created, tightened } = loadAdminToken(support);
  log.addSecret(token);
  if (created) log.info('Made a new admin token.');
  if (tightened) log.warn('The admin token file was readable by others; it is private (0600) again.');
  const hookToken = loadHookToken(support).token;
  log.addSecret(hookToken);

  let keeper = null;
  const state = new ServiceState({
    hostname: os.hostname(),
    daemonVersion: VERSION,
    home: os.homedir(),
    machine: () => keeper?.machine() ?? {},
  });
  // What was kept before a restart comes back before anyone can ask.
  const persister = new StatePersister({ support, state, log, ...persistOptions });
  persister.load();
  const clock = awakeOptions.clock ?? new ServiceClock();
  const devices = new DeviceBook({ support, state, log, clock });
  devices.load();
  const phone = { devices, limiter: new AttemptLimiter(clock) };
  const codes = new PairCodes(clock);
  const codex = new CodexAgent({
    state,
    log,
    home: codexHome,
    named: codexPath,
    onProgress: () => persister.markDirty(),
    ...codexOptions,
  });
  persister.addSection('codex', { save: () => codex.saved(), restore: (saved) => codex.restore(saved) });
  const claude = new ClaudeAgent({
    state,
    support,
    log,
    claudeDir: path.dirname(claudeSettings),
    saveSoon: () => persister.markDirty(),
    saveNow: () => {
      persister.markDirty();
      persister.flush();
    },
    ...claudeOptions,
  });
  persister.addSection('claude', { save: () => claude.saved(), restore: (saved) => claude.restore(saved) });
  // Claude Code is looked for once the ports are open; a sign-in waits for that look.
  let claudeReady = Promise.resolve();
  // The start's own lookups, done: what /qa puts in after them stands.
  let markSettled;
  const settled = new Promise((resolve) => {
    markSettled = resolve;
  });
  let claudeFound = null;
  const signIn = new ClaudeSignIn({
    state,
    claudeDir: path.dirname(claudeSettings),
    program: async () => {
      await claudeReady;
      return claudeFound?.path ?? null;
    },
    refreshAccount: () => claude.refreshAccount(),
    browser: !testCopy,
    log,
  });
  const relayProgram = relay ?? path.join(support, 'bin', RELAY_NAME);
  const integration = new Integration({
    state,
    settingsFile: claudeSettings,
    place: hookPlace(support),
    log,
    shell: {
      files: shellHome === null ? [] : profilesFor({ home: shellHome, shell }),
      relay: relayProgram,
    },
  });
  const faults = testCopy ? new FaultBook() : NO_FAULTS;
  const pending = new PendingTimers();
  // Switched by /qa to make the service look hung while its feed lives on.
  const health = { answering: true };
  const connections = new ConnectionCount(state);
  const access = new PhoneAccess({
    app: new TailscaleApp({ state, log, program: tailscaleOptions.program, env: tailscaleOptions.env }),
    node: new BuiltInNode({ state, helper: tsnetHelper, env: tailscaleOptions.env, log }),
    everyMs: tailscaleOptions.everyMs,
  });
  persister.addSection('settings', keptSettings({ state, node: access.node }));
  const keepSettings = () => {
    persister.markDirty();
    persister.flush();
  };
  const terminals = new TerminalHub({ state, support, log });
  const runner = new SessionRunner({
    state,
    claude,
    log,
    env: agentEnv,
    sdk: agentSdk,
    programs: {
      claude: () => state.localPart('claude')?.path ?? null,
      codex: () => codex.program,
    },
  });
  let ports;
  const automations = new Automations({
    support,
    state,
    clock,
    log,
    home,
    projects,
    testCopy,
    apiPort: () => ports?.api ?? apiPort,
    runner,
    terminals,
    programs: { claude: () => state.localPart('claude')?.path ?? null, codex: () => codex.program },
    timing: automationTiming,
    resolve: resolveWebhook,
  });
  persister.addSection('triggers', { save: () => automations.saved(), restore: (saved) => automations.restore(saved) });
  const continuer = new Continuer({ state, terminals, runner, clock, log, ...sessionOptions });
  const places = new AgentPlaces();
  const raiser = windowRaiser(process.platform, windowOptions);
  const opener = new SessionOpener({ terminals, places, raiser, runner, relay: relayProgram, support });
  const apiRouter = apiRoutes({ health, phone: { state, codes, ...phone, actions: { continuer, opener } }, automations });
  const apiServer = createListener({ router: apiRouter, faults, pending, log, phone });
  const feed = new FeedServer({
    server: apiServer,
    state,
    token,
    phone,
    faults,
    pending,
    log,
    reportCount: connections.reporter('feed'),
    ...feedOptions,
  });
  keeper = new AwakeKeeper({
    state,
    support,
    log,
    clock,
    source: awakeOptions.source,
    lock: awakeOptions.lock,
    hotAt: awakeOptions.hotAt,
  });
  const localServer = createListener({
    router: localRoutes({
      state,
      faults,
      feed,
      health,
      keeper,
      codex,
      claude,
      integration,
      terminals,
      continuer,
      signIn,
      runner,
      home,
      places,
      opener,
      pairing: { codes, devices, origin: pairOrigin },
      automations,
      access,
      keep: keepSettings,
      testCopy,
      settled: () => settled,
    }),
    faults,
    pending,
    log,
    token,
    hookToken,
  });

  try {
    // Decided before anyone can ask, so that the first snapshot is current.
    await keeper.start();
    const api = await listen(apiServer, apiPort);
    const local = await listen(localServer, localPort).catch(async (error) => {
      await closeListener(apiServer);
      throw error;
    });
    ports = { api, local };
  } catch (error) {
    automations.close();
    await feed.close();
    await keeper.close();
    log.error(error.message);
    throw error;
  }
  state.setApiPort(ports.api);
  // Phones still have Tailscale without it, so a LAN port that can't be had stops nothing else.
  // Its certificate may take a moment the first time: the agents are looked for meanwhile.
  const lanStarting = startLanRoute({
    support,
    state,
    router: apiRouter,
    feed,
    phone,
    faults,
    pending,
    log,
    port: lanPort,
    host: lanHost,
    interfaces,
  }).catch((error) => {
    log.error(`Phones on the local network can’t connect: ${error.message}`);
    return null;
  });
  persister.start();
  // The served port is known now, so whether Tailscale serves it can be told.
  access.start();
  try {
    await terminals.start();
  } catch (error) {
    // Sessions are still watched; they just can't be driven from here.
    log.error(`Shared terminals can’t be offered: ${error.message}`);
  }
  continuer.start();
  integration.start();
  claude.start({ localPort: ports.local });
  let closing = null;
  // Which hooks this Claude Code takes; until it is known, the command hooks.
  claudeReady = detectClaude({
    searchPath: (process.env.PATH ?? '').split(path.delimiter),
    folders: usualFolders(os.homedir()),
    ...claudeProgram,
  })
    .then((found) => {
      if (closing) return;
      claudeFound = found;
      state.setLocalParts({ claude: found });
      integration.useHttp(takesHttpHooks(found.version) ? { port: ports.local, token: hookToken } : null);
    })
    .catch((error) => log.error(`Claude Code couldn’t be looked for: ${error?.stack ?? error}`));
  const codexReady = codex.start().catch((error) => log.error(`Codex couldn’t be followed: ${error?.stack ?? error}`));
  const lan = await lanStarting;
  Promise.all([claudeReady, codexReady]).then(markSettled);

  const startLine =
    `Tidewatch service ${VERSION} is listening on ${HOST}:${ports.api} (API) and ${HOST}:${ports.local} (local); ` +
    `support folder ${support}.`;
  log.info(startLine);

  const close = () => {
    closing ??= (async () => {
      runner.close();
      access.close();
      codex.close();
      claude.close();
      signIn.close();
      continuer.close();
      terminals.close();
      integration.close();
      persister.close();
      // After the last save, which keeps the moments it knows.
      automations.close();
      pending.clear();
      await feed.close();
      await Promise.all([closeListener(apiServer), closeListener(localServer), lan?.close(), keeper.close()]);
    })();
    return closing;
  };

  return {
    apiPort: ports.api,
    localPort: ports.local,
    lanPort: lan?.port ?? null,
    devices,
    state,
    faults,
    apiServer,
    localServer,
    feed,
    connections,
    access,
    awake: keeper,
    codex,
    codexReady,
    claude,
    claudeReady,
    signIn,
    terminals,
    runner,
    integration,
    persister,
    log,
    startLine,
    close,
  };
}
