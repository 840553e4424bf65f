// The automations' book as the service mounts it: a store in a scratch
// support folder, the book's routes on a local listener behind an admin
// token and the webhook door on an API listener, both on free loopback
// ports, with projects in a scratch projects folder. The engine is a small
// one that keeps the runs it was asked to start.

import fs from 'node:fs';
import path from 'node:path';

import { AutomationStore } from '../../src/automations/automation-store.js';
import { addAutomationRoutes, addFireRoute } from '../../src/automations/automation-routes.js';
import { NO_FAULTS, PendingTimers } from '../../src/faults.js';
import { closeListener, createListener, listen } from '../../src/listener.js';
import { Log } from '../../src/log.js';
import { Router } from '../../src/router.js';
import { request, scratchFolder } from '../helpers.js';

export const ADMIN = 'admin-token-of-the-test';

/** Starts runs as far as the book can tell: it keeps them, newest first, per automation. */
export class RecordingEngine {
  runs = [];
  paused = false;

  fire(automation, fired) {
    const run = { id: `ru_${this.runs.length + 1}`, automationId: automation.id, state: 'queued', fired: { ...fired } };
    delete run.fired.payload;
    this.runs.unshift({ ...run, payload: fired.payload });
    return run;
  }

  runsOf(id, limit) {
    const runs = this.runs.filter((run) => run.automationId === id);
    return { runs: runs.slice(0, limit).map(({ payload, ...run }) => run), total: runs.length };
  }

  setPaused(on) {
    this.paused = on;
  }
}

/** A clock the test moves. */
export class TestClock {
  constructor(at = Date.parse('2026-03-02T08:00:00Z')) {
    this.at = at;
  }

  now() {
    return this.at;
  }
}

function git(folder, url) {
  fs.mkdirSync(path.join(folder, '.git'), { recursive: true });
  fs.writeFileSync(path.join(folder, '.git', 'config'), `[remote "origin"]\n\turl = ${url}\n\tfetch = +refs/heads/*:refs/remotes/origin/*\n`);
}

/**
 * The projects: `app` (a GitHub remote), `plain` (none), `outside` (beside
 * the projects folder) and `link` (inside, leading outside); made again over the same files.
 */
export function makeProjects(folder) {
  const root = path.join(folder, 'Programming');
  const places = {
    root,
    app: path.join(root, 'app'),
    plain: path.join(root, 'plain'),
    outside: path.join(folder, 'elsewhere'),
    link: path.join(root, 'link'),
  };
  for (const name of ['app', 'plain', 'outside']) fs.mkdirSync(places[name], { recursive: true });
  git(places.app, 'git@github.com:someone/app.git');
  if (!fs.existsSync(places.link)) fs.symlinkSync(places.outside, places.link);
  return places;
}

/**
 * Mounts a book in a scratch folder; closed after the test.
 *
 * @param {TestContext} t
 * @param {Object} [options]
 * @param {string} [options.folder] The scratch folder, to start again on the same files
 * @param {TestClock} [options.clock]
 */
export async function startBook(t, { folder, clock = new TestClock() } = {}) {
  folder ??= await scratchFolder(t);
  const support = path.join(folder, 'support');
  fs.mkdirSync(support, { recursive: true, mode: 0o700 });
  const projects = makeProjects(folder);
  const log = new Log(path.join(folder, 'logs'));
  const world = {
    glasses: false,
    gh: true,
    providers: [
      { id: 'anthropic', name: 'Claude Code', kind: 'anthropic', builtIn: true },
      { id: 'pv_or', name: 'OpenRouter', kind: 'openrouter' },
    ],
  };
  const engine = new RecordingEngine();
  const published = [];
  const pending = new PendingTimers();

  const apiRouter = new Router();
  const apiServer = createListener({ router: apiRouter, faults: NO_FAULTS, pending, log });
  const apiPort = await listen(apiServer, 0);
  const store = new AutomationStore({
    support,
    clock,
    log,
    fireUrl: (id) => `http://127.0.0.1:${apiPort}/v1/automations/${id}/fire`,
  });
  addFireRoute(apiRouter, { store, engine, clock });

  const localRouter = new Router();
  const status = addAutomationRoutes(localRouter, {
    store,
    engine,
    clock,
    publish: (part) => published.push(part),
    validationContext: () => ({
      projectsRoot: projects.root,
      home: folder,
      glasses: world.glasses,
      gh: { available: async () => world.gh },
      providers: world.providers,
    }),
  });
  const localServer = createListener({ router: localRouter, faults: NO_FAULTS, pending, log, token: ADMIN });
  const localPort = await listen(localServer, 0);
  t.after(async () => {
    status.close();
    await Promise.all([closeListener(apiServer), closeListener(localServer)]);
  });

  const local = (method, target, body) => request(localPort, method, target, { body, headers: { Authorization: `Bearer ${ADMIN}` } });
  const fire = (id, { token, body, headers = {} } = {}) =>
    request(apiPort, 'POST', `/v1/automations/${id}/fire`, {
      body,
      headers: token === undefined ? headers : { Authorization: `Bearer ${token}`, ...headers },
    });
  return { folder, support, projects, world, engine, published, store, status, clock, apiPort, local, fire };
}
