// Which placeholders may stand where. Words that came from outside (another
// session, a web call, a file change, a step's reply) never become part of a
// command's text and never reach a session that asks nobody: there they are
// refused, and a command reads them from its environment instead.

/** Every placeholder's name; `{step:<id>}` is the one with a part of its own. */
export const PLACEHOLDERS = [
  'project',
  'time',
  'battery',
  'week',
  'session',
  'result',
  'ask',
  'prev',
  'exit',
  'output',
  'answer',
  'payload',
];

const TOKEN = new RegExp(`\\{(${PLACEHOLDERS.join('|')}|step:[^{}\\s]*)\\}`, 'g');

/** The step kinds that say something a later step may read. */
const SAYS = new Set(['start', 'continue', 'ask', 'shell']);

/** Where a text stands: a prompt or message, the prompt of a session that asks nobody, or a command. */
export const PLACES = Object.freeze({ text: 'text', unasked: 'unasked', command: 'command' });

/**
 * The placeholders a text may hold.
 *
 * @param {string} place One of PLACES
 * @param {string} triggerKind
 * @param {Array<{id: string, kind: string}>} before The steps ahead of it
 * @return {Set<string>} Tokens as written, such as "{prev}" and "{step:st_a}"
 */
export function allowedPlaceholders(place, triggerKind, before) {
  const hasShell = before.some((step) => step.kind === 'shell');
  const hasAsk = before.some((step) => step.kind === 'ask');
  const names = place === PLACES.command ? ['project', 'time', 'battery'] : ['project', 'time', 'battery', 'week'];
  if (place === PLACES.text) {
    if (['session', 'hook'].includes(triggerKind)) names.push('session', 'result');
    if (triggerKind === 'session') names.push('ask');
    if (before.some((step) => step.kind !== 'notify' && step.kind !== 'say')) names.push('prev');
    if (hasShell) names.push('output');
    if (['webhook', 'file', 'github', 'hook'].includes(triggerKind)) names.push('payload');
  }
  if (hasShell) names.push('exit');
  if (hasAsk) names.push('answer');
  const allowed = new Set(names.map((name) => `{${name}}`));
  if (place === PLACES.text) for (const step of before) if (SAYS.has(step.kind)) allowed.add(`{step:${step.id}}`);
  return allowed;
}

/**
 * @param {string} text
 * @param {Set<string>} allowed From allowedPlaceholders
 * @return {string|null} The first placeholder that may not stand there, or null
 */
export function forbiddenPlaceholder(text, allowed) {
  for (const [token] of text.matchAll(TOKEN)) if (!allowed.has(token)) return token;
  return null;
}
