// Whether a step runs, by its guard and the step before it: the nearest
// earlier one that ran, as a skipped step has nothing to say. So a failure
// reaches past a step its guard skipped, and an answer past a step it chose against.

/** The guards a step may carry. */
export const GUARDS = Object.freeze(['ok', 'failed', 'quiet', 'not_quiet', 'contains', 'answer']);

/** A step that went wrong. */
export const wentWrong = (step) => step.state === 'failed' || step.state === 'stopped';

/**
 * @param {{on: string, text: string}|null|undefined} guard The step's `if`
 * @param {Object|null} before The run's record of the nearest earlier step that ran; null for the first
 * @param {string} [beforeWhole=''] That step's whole reply or output
 * @return {null|'guard'|'failed_before'} null when the step runs, else why it is skipped
 */
export function skipReason(guard, before, beforeWhole = '') {
  if (before === null) return null;
  if (!guard?.on) return wentWrong(before) ? 'failed_before' : null;
  const fine = before.state === 'done';
  const words = typeof guard.text === 'string' ? guard.text.trim().toLowerCase() : '';
  const holds = {
    ok: () => fine,
    failed: () => wentWrong(before),
    quiet: () => fine && before.quiet === true,
    not_quiet: () => fine && before.quiet !== true,
    // Plain words in any case, anywhere: not a pattern.
    contains: () => words !== '' && String(beforeWhole).toLowerCase().includes(words),
    answer: () => before.answer?.text === guard.text,
  }[guard.on];
  return holds?.() ? null : 'guard';
}
