// The routes of the local port, every one behind the admin token but the
// testing checklist's page: the whole-state reads and the actions the app
// makes, and in a test copy the /qa interface.

import { addActionRoutes } from './action-routes.js';
import { addChecklistRoute } from './checklist.js';
import { addAwakeRoutes, addPowerQaRoutes } from './awake/awake-routes.js';
import { addClaudeRoutes } from './claude/claude-routes.js';
import { addIntegrationRoutes } from './integration.js';
import { addPairingRoutes } from './phone/phone-routes.js';
import { addQaRoutes } from './qa-routes.js';
import { Router } from './router.js';
import { addSettingsRoutes } from './settings-routes.js';
import { addPhoneAccessRoutes } from './tailscale/phone-access.js';
import { addSessionRoutes } from './sessions/session-routes.js';

/**
 * @param {Object} parts
 * @param {ServiceState} parts.state
 * @param {FaultBook} parts.faults
 * @param {FeedServer} parts.feed
 * @param {{answering: boolean}} parts.health The switch of the health route
 * @param {AwakeKeeper} parts.keeper Stay awake
 * @param {CodexAgent} [parts.codex] Codex, looked at again on a refresh
 * @param {ClaudeAgent} [parts.claude] Claude Code's hooks report here
 * @param {Integration} [parts.integration] Claude Code's settings
 * @param {TerminalHub} [parts.terminals] The shared terminals
 * @param {Continuer} [parts.continuer] Carries sessions on, now or when a limit lifts
 * @param {ClaudeSignIn} [parts.signIn] Claude Code's own sign-in
 * @param {SessionRunner} [parts.runner] Starts sessions; without it none can be
 * @param {string} [parts.home] The person's home folder, where those sessions must lie
 * @param {AgentPlaces} [parts.places] Where each session's agent runs
 * @param {SessionOpener} [parts.opener] Brings a session's terminal forward
 * @param {Object} [parts.pairing] What addPairingRoutes takes but the state:
 *     `codes`, `devices`, `origin`; without it nothing pairs and no device is forgotten
 * @param {Automations} [parts.automations] The automations' book and runs; without it they have no routes
 * @param {PhoneAccess} parts.access Tailscale, the app and the built-in node
 * @param {function(): void} parts.keep Writes the kept settings now
 * @param {function(): Promise<void>} [parts.settled] For /qa: settles once the start's lookups are done
 * @param {boolean} [parts.testCopy=false] Adds /qa, and leaves Tailscale's
 *     serving alone; elsewhere /qa's paths are unknown routes like any other
 * @return {Router}
 */
export function localRoutes({
  state,
  faults,
  feed,
  health,
  keeper,
  codex,
  claude,
  integration,
  terminals = null,
  continuer = null,
  signIn = null,
  runner = null,
  home = null,
  places = null,
  opener = null,
  pairing = null,
  automations = null,
  access,
  keep,
  testCopy = false,
  settled,
}) {
  const router = new Router()
    .add('GET', '/v1/snapshot', () => state.snapshot())
    // `fresh=1` reads Tailscale again first; the rest is current already.
    .add('GET', '/local/status', async ({ url }) => {
      if (url.searchParams.get('fresh') === '1') await access?.refresh();
      return state.localStatus({ qr: url.searchParams.get('qr') === '1' });
    })
    .add('GET', '/local/devices', () => state.devices());
  addChecklistRoute(router, { state });
  addActionRoutes(router, { state, codex, continuer, signIn, opener });
  if (runner) addSessionRoutes(router, { runner, home, codexProgram: () => codex?.program ?? null });
  automations?.addRoutes(router);
  addSettingsRoutes(router, { state, node: access.node, keep });
  addPhoneAccessRoutes(router, { state, access, testCopy });
  if (pairing) addPairingRoutes(router, { state, ...pairing });
  addAwakeRoutes(router, { keeper });
  if (claude) addClaudeRoutes(router, { claude, terminals, places, heard: automations ? (event) => automations.hook(event) : null });
  if (integration) addIntegrationRoutes(router, { integration, state });
  if (testCopy) {
    addQaRoutes(router, { state, faults, feed, health, settled, devices: pairing?.devices, automations });
    addPowerQaRoutes(router, { keeper });
  }
  return router;
}
