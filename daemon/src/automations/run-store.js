// The runs of every automation, newest first, the last RUNS_KEPT of each,
// kept in one private file in the support folder, replaced in one step a
// moment after a change (a run changes several times a second at work, and
// each write is the whole file), so a restart finds them as they stood.

import fs from 'node:fs';
import path from 'node:path';

import { isObject } from '../json.js';
import { writeFileAtomically } from '../private-files.js';

/** The file in the support folder. */
export const RUNS_FILE = 'automation-runs.json';

/** Runs kept for each automation. */
export const RUNS_KEPT = 20;

/** Runs of each automation that keep their steps' whole results, for a retry to reuse. */
export const WHOLE_KEPT = 3;

/** A larger file is not read: it can't be one this service wrote. */
export const MAX_RUNS_FILE_BYTES = 64 * 1024 * 1024;

/** How long changes gather before the file is written, in milliseconds. */
export const WRITE_DELAY_MS = 250;

const FORMAT = 1;

const withoutWhole = (run) => ({ ...run, steps: run.steps.map(({ whole, ...step }) => step) });

export class RunStore {
  #file;
  /** automation id → {total, runs (newest first)} */
  #book = new Map();
  #timer = null;

  /** @param {{support: string}} options */
  constructor({ support }) {
    this.#file = path.join(support, RUNS_FILE);
  }

  /** Reads the file; a missing or unreadable one leaves the store empty. */
  load() {
    let saved;
    try {
      if (fs.statSync(this.#file).size > MAX_RUNS_FILE_BYTES) return;
      saved = JSON.parse(fs.readFileSync(this.#file, 'utf8'));
    } catch {
      return;
    }
    if (!isObject(saved) || saved.format !== FORMAT || !isObject(saved.automations)) return;
    for (const [id, kept] of Object.entries(saved.automations)) {
      const runs = Array.isArray(kept?.runs) ? kept.runs.filter((run) => isObject(run) && Array.isArray(run.steps)) : [];
      this.#book.set(id, { total: Number.isInteger(kept.total) ? kept.total : runs.length, runs: runs.slice(0, RUNS_KEPT) });
    }
  }

  /** @return {Array<Object>} The automation's runs, newest first. */
  runs(automationId) {
    return this.#book.get(automationId)?.runs ?? [];
  }

  /** @return {number} Runs the automation ever had. */
  total(automationId) {
    return this.#book.get(automationId)?.total ?? 0;
  }

  /** @return {Object|null} */
  find(runId) {
    for (const { runs } of this.#book.values()) {
      const run = runs.find((each) => each.id === runId);
      if (run) return run;
    }
    return null;
  }

  /** @return {Array<Object>} Every run kept. */
  all() {
    return [...this.#book.values()].flatMap(({ runs }) => runs);
  }

  /** Keeps a run, new or changed, and writes the file. */
  put(run) {
    const kept = this.#book.get(run.automationId) ?? { total: 0, runs: [] };
    const index = kept.runs.findIndex((each) => each.id === run.id);
    if (index >= 0) kept.runs[index] = run;
    else {
      kept.runs.unshift(run);
      kept.total += 1;
      kept.runs = kept.runs.slice(0, RUNS_KEPT).map((each, i) => (i < WHOLE_KEPT ? each : withoutWhole(each)));
    }
    this.#book.set(run.automationId, kept);
    this.#writeSoon();
  }

  /** Lets an automation's runs go, as when it is deleted. */
  forget(automationId) {
    if (this.#book.delete(automationId)) this.#writeSoon();
  }

  /** Writes what is waiting now, as the service stops. */
  flush() {
    if (this.#timer === null) return;
    clearTimeout(this.#timer);
    this.#timer = null;
    this.#write();
  }

  #writeSoon() {
    if (this.#timer !== null) return;
    this.#timer = setTimeout(() => {
      try {
        this.flush();
      } catch {
        // The runs stay in memory as they are; the next change writes them all again.
      }
    }, WRITE_DELAY_MS);
    this.#timer.unref?.();
  }

  #write() {
    const automations = Object.fromEntries(this.#book);
    writeFileAtomically(this.#file, JSON.stringify({ format: FORMAT, automations }));
  }
}
