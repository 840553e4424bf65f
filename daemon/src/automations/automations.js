// The automations as one part of the service: the book that keeps them, the
// engine that runs them, the hub that knows their moments and the places
// they tell, wired to each other and to what the service hears.

import { createOutputs } from './outputs.js';
import { FileWatch } from './file-watch.js';
import { notifierOptions } from './notify.js';
import { AutomationStore } from './automation-store.js';
import { addAutomationRoutes, addFireRoute } from './automation-routes.js';
import { ghAvailable } from './github-watch.js';
import { RunEngine } from './run-engine.js';
import { addRunRoutes } from './run-routes.js';
import { BUILT_IN_PROVIDER, serviceSessions } from './session-steps.js';
import { runShell } from './shell-step.js';
import { resolvePath, TriggerHub } from './trigger-hub.js';
import { isObject } from '../json.js';

const ENDED = ['done', 'failed', 'stopped', 'skipped'];

/** The hook a turn's end stands in for, by the state it ends in. */
const TURN_ENDS = { idle: 'Stop', error: 'StopFailure' };

/** How long a run at work keeps its own changes from its file trigger. */
const OWN_WORK_MS = 24 * 60 * 60 * 1000;

// The service's own Claude Code sign-in, which every install has whatever providers were added.
const BUILT_IN = Object.freeze({ id: BUILT_IN_PROVIDER, name: 'Claude Code', kind: 'anthropic', builtIn: true });

export class Automations {
  #state;
  #store;
  #engine;
  #hub;
  #status = null;
  #projects;
  #home;
  #gh;
  #clock;
  #runner;
  #onChange;
  /** id → state, of the sessions the service runs itself: they send no hooks, so their turns' ends stand in. */
  #turns = new Map();

  /**
   * @param {Object} options
   * @param {string} options.support The support folder, where the book and the runs are kept
   * @param {ServiceState} options.state
   * @param {{now: function(): number}} options.clock
   * @param {Log} options.log
   * @param {string} options.home Where "~" in a typed folder leads
   * @param {string} options.projects The person's projects folder: every automation's project lies inside it
   * @param {boolean} options.testCopy A test copy shows no desktop notifications unless told to
   * @param {function(): number} options.apiPort The port the webhook door answers on
   * @param {SessionRunner} options.runner
   * @param {TerminalHub} options.terminals
   * @param {{claude: function(): (string|null), codex: function(): (string|null)}} options.programs
   * @param {Object<string, string>} [options.env=process.env] Where the notifier and gh are found
   * @param {Object} [options.timing] For tests: `recheckMs`, how often the moments are
   *     looked at again (see TriggerHub), `tickEveryMs` (see RunEngine) and `quietMs` (see FileWatch)
   * @param {function(string): string} [options.resolve] For tests: where a webhook output's
   *     checked https address is really sent (see deliver)
   */
  constructor({ support, state, clock, log, home, projects, testCopy, apiPort, runner, terminals, programs, env = process.env, timing = {}, resolve }) {
    this.#state = state;
    this.#clock = clock;
    this.#runner = runner;
    this.#home = home;
    this.#projects = projects;
    this.#store = new AutomationStore({
      support,
      clock,
      log,
      fireUrl: (id) => `http://127.0.0.1:${apiPort()}/v1/automations/${encodeURIComponent(id)}/fire`,
    });
    const outputs = createOutputs({ now: () => clock.now(), notifier: { ...notifierOptions(env, { testCopy }), env }, resolve });
    this.#engine = new RunEngine({
      clock,
      store: this.#store,
      steps: { runShell, notifyDesktop: outputs.notifyDesktop, sayAloud: outputs.sayAloud },
      outputs,
      usage: () => state.part('usage') ?? null,
      publish: (automationId, run) => {
        this.#followRun(automationId, run);
        this.#status?.refresh();
      },
      support,
      sessions: serviceSessions({ state, runner, terminals, programs }),
      facts: { battery: () => state.part('mac')?.battery?.percent ?? null },
      projectsRoot: () => projects,
      log,
      tickEveryMs: timing.tickEveryMs,
    });
    this.#engine.restore();
    this.#engine.setPaused(this.#store.paused);
    this.#hub = new TriggerHub({
      clock,
      log,
      home,
      recheckMs: timing.recheckMs,
      watch: (options) => new FileWatch({ ...options, quietMs: timing.quietMs }),
      fire: (automation, fired) => this.#engine.fire(automation, fired),
    });
    this.#gh = { available: () => ghAvailable({ env }) };
    // The hub hears of a change before the status is built from it, so that a new moment is in the list.
    this.#store.onChange((change) => {
      if (change.kind === 'removed') this.#engine.forget(change.id);
      this.#engine.setPaused(this.#store.paused);
      this.#sync();
    });
    this.#onChange = (change) => this.#heard(change);
    state.on('change', this.#onChange);
  }

  /** What the hub keeps across a restart: the due times, so a moment missed while the service was off fires once. */
  saved() {
    return this.#hub.saved();
  }

  /** @param {*} saved What {@link saved} gave; taken before the first moments are counted. */
  restore(saved) {
    this.#hub.restore(saved);
  }

  /**
   * Adds the book's and the runs' routes to the local port's table and
   * starts publishing the snapshot's `automations` part.
   *
   * @param {Router} router
   */
  addRoutes(router) {
    this.#status = addAutomationRoutes(router, {
      store: this.#store,
      engine: this.#engine,
      clock: this.#clock,
      validationContext: () => this.#validationContext(),
      publish: (part) => this.#state.setSnapshotParts({ automations: part }),
      nextAt: (automation) => this.#hub.nextAt(automation.id),
      problemOf: (id) => this.#hub.problemOf(id),
    });
    addRunRoutes(router, { engine: this.#engine, store: this.#store });
    this.#hub.onChange(() => this.#status.refresh());
    this.#sync();
  }

  /**
   * Adds the webhook door to the API port's table.
   *
   * @param {Router} router
   */
  addApiRoutes(router) {
    addFireRoute(router, { store: this.#store, engine: this.#engine, clock: this.#clock });
  }

  /** @param {Object} event A Claude Code hook event the service took */
  hook(event) {
    this.#hub.hook(event);
  }

  /** Forgets every automation and its runs, and resumes: a fresh start's book. */
  forgetAll() {
    for (const { id } of this.#store.list()) this.#store.remove(id);
    this.#store.setPaused(false);
    this.#status?.republish();
  }

  close() {
    this.#state.off('change', this.#onChange);
    this.#hub.close();
    this.#engine.close();
    this.#status?.close();
  }

  // A run's own changes to its folders don't fire its file trigger again, or
  // it would run for ever: they are held while it works (for a day at most);
  // the system tells a change as it is made, so they are all heard by its end.
  // An automation that runs only once is finished when its moment's run ends.
  #followRun(automationId, run) {
    const automation = this.#store.get(automationId);
    if (!automation || !isObject(run)) return;
    const ended = ENDED.includes(run.state);
    if (automation.trigger?.kind === 'file') {
      const folders = (automation.steps ?? []).map((step) => resolvePath(step?.projectPath, this.#home)).filter(Boolean);
      this.#hub.ignore(automationId, folders, this.#clock.now() + (ended ? 0 : OWN_WORK_MS));
    }
    if (ended && automation.onlyOnce === true && automation.enabled !== false && run.fired?.by === automation.trigger?.kind) {
      this.#store.setEnabled(automationId, false);
    }
  }

  #sessionNow(session) {
    this.#hub.session(session);
    if (!this.#runner?.owns(session.id)) return;
    const before = this.#turns.get(session.id);
    this.#turns.set(session.id, session.state);
    if (before !== 'working' || !TURN_ENDS[session.state]) return;
    const event = { hook_event_name: TURN_ENDS[session.state], session_id: session.id, cwd: session.cwd };
    if (typeof session.lastText === 'string') event.last_assistant_message = session.lastText;
    this.#hub.hook(event);
  }

  #sync() {
    this.#hub.sync(this.#store.list(), this.#store.paused);
    this.#status?.refresh();
  }

  #validationContext() {
    const devices = this.#state.devices();
    const list = Array.isArray(devices) ? devices : [];
    const providers = Array.isArray(this.#state.part('providers')) ? this.#state.part('providers') : [];
    return {
      projectsRoot: this.#projects,
      home: this.#home,
      glasses: list.some((device) => isObject(device) && device.client === 'lens'),
      gh: this.#gh,
      providers: providers.some((each) => isObject(each) && each.id === BUILT_IN_PROVIDER) ? providers : [BUILT_IN, ...providers],
    };
  }

  // What the service hears that may be an automation's moment: sessions, usage, the battery.
  #heard({ snapshot, item }) {
    if (item?.kind === 'session') {
      if (isObject(item.value)) this.#sessionNow(item.value);
      else this.#turns.delete(item.id);
    } else if (snapshot.includes('sessions')) {
      for (const session of this.#state.part('sessions') ?? []) if (isObject(session)) this.#sessionNow(session);
    }
    if (snapshot.includes('usage')) this.#hub.usage(this.#state.part('usage'));
    if (snapshot.includes('mac')) this.#hub.power(this.#state.part('mac')?.battery ?? null);
  }
}
