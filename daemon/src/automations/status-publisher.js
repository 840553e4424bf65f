// The snapshot's `automations` part ({paused, list, features}), kept current:
// built again after every change of the book, and again when the soonest
// next time has passed, so the next time a client sees is never one gone by.

import { sameJson } from '../json.js';
import { nextAt as scheduledAt } from './schedule.js';
import { FEATURES } from './validate.js';

/** The longest wait of the timer, in milliseconds: setTimeout takes no more. */
const MAX_WAIT_MS = 2 ** 31 - 1;

/**
 * Builds the part and publishes it when it changed.
 */
export class StatusPublisher {
  #store;
  #publish;
  #clock;
  #nextAt;
  #lastRun;
  #problemOf;
  #last = null;
  #timer = null;
  #stop;

  /**
   * @param {Object} options
   * @param {AutomationStore} options.store
   * @param {function(Object): void} options.publish Gets the whole part
   * @param {{now: function(): number}} options.clock
   * @param {function(Object, number): (number|null)} [options.nextAt] The next
   *     start of an automation, by its trigger and now
   * @param {function(string): (Object|null)} [options.lastRun] The last run of an automation, by id
   * @param {function(string): (string|null)} [options.problemOf] Why an automation can't run as it stands, by id
   */
  constructor({
    store,
    publish,
    clock,
    nextAt = (automation, now) => scheduledAt(automation.trigger, now),
    lastRun = () => null,
    problemOf = () => null,
  }) {
    this.#store = store;
    this.#publish = publish;
    this.#clock = clock;
    this.#nextAt = nextAt;
    this.#lastRun = lastRun;
    this.#problemOf = problemOf;
    this.#stop = store.onChange(() => this.refresh());
  }

  /** @return {Array<Object>} Every automation with its `nextAt` and `lastRun`, as the list route shows them. */
  list() {
    const now = this.#clock.now();
    return this.#store.list().map((automation) => {
      const problem = this.#problemOf(automation.id);
      return {
        ...automation,
        nextAt: automation.enabled === false ? null : this.#nextAt(automation, now),
        lastRun: this.#lastRun(automation.id) ?? null,
        ...(problem ? { problem } : {}),
      };
    });
  }

  /** @return {{paused: boolean, list: Array<Object>, features: Array<string>}} */
  part() {
    return { paused: this.#store.paused, list: this.list(), features: [...FEATURES] };
  }

  /** Builds the part again; publishes it when it differs from the last one. */
  refresh() {
    const part = this.part();
    this.#arm(part.list);
    if (this.#last !== null && sameJson(part, this.#last)) return;
    this.#last = part;
    this.#publish(part);
  }

  /** Publishes the part even when it seems unchanged, as after the state was reset under it. */
  republish() {
    this.#last = null;
    this.refresh();
  }

  /** Stops following the book. */
  close() {
    this.#stop();
    clearTimeout(this.#timer);
  }

  #arm(list) {
    clearTimeout(this.#timer);
    const soonest = Math.min(...list.map((automation) => automation.nextAt ?? Infinity));
    if (soonest === Infinity) return;
    this.#timer = setTimeout(() => this.refresh(), Math.min(MAX_WAIT_MS, Math.max(0, soonest - this.#clock.now()) + 1));
    this.#timer.unref?.();
  }
}
