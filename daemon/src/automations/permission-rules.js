// Judging the permission rules an automation's Claude Code session may run
// with: only rules Claude Code reads, and none that lets a session nobody
// watches run any command, touch files outside its project, or fetch from
// anywhere.

/** Tools whose rules may name what they allow, in parentheses. */
const NARROWED = new Set(['Bash', 'Read', 'Edit', 'Write', 'MultiEdit', 'NotebookEdit', 'WebFetch']);

/** Tools whose rules are the bare name. */
const BARE = new Set(['Glob', 'Grep', 'LS', 'NotebookRead', 'WebSearch', 'Task', 'TodoWrite', 'BashOutput', 'KillShell', 'Skill']);

const PATH_TOOLS = new Set(['Read', 'Edit', 'Write', 'MultiEdit', 'NotebookEdit']);

const RULE = /^([A-Za-z][A-Za-z0-9_]*)(?:\((.+)\))?$/s;
const MCP = /^mcp__[A-Za-z0-9_-]+(__[A-Za-z0-9_-]+)?$/;
const DOMAIN = /^domain:((\*\.)?[A-Za-z0-9-]+(\.[A-Za-z0-9-]+)+)$/;

// A path pattern that reaches the whole disk or the home folder, or climbs out.
const outside = (pattern) => pattern.startsWith('//') || pattern.startsWith('~') || pattern.split('/').includes('..');

/**
 * @param {string} rule Such as "Bash(npm test:*)" or "Read"
 * @return {'ok'|'bad_rule'|'rule_too_broad'}
 */
export function judgeRule(rule) {
  // eslint-disable-next-line no-control-regex
  if (typeof rule !== 'string' || /[\u0000-\u001f\u007f]/.test(rule)) return 'bad_rule';
  if (MCP.test(rule)) return 'ok';
  const match = RULE.exec(rule.trim());
  if (!match) return 'bad_rule';
  const [, tool, specifier] = match;
  if (BARE.has(tool)) return specifier === undefined ? 'ok' : 'bad_rule';
  if (!NARROWED.has(tool)) return 'bad_rule';
  if (specifier !== undefined && specifier.trim() === '') return 'bad_rule';
  if (tool === 'Bash') return specifier === undefined || /^[\s*:]*$/.test(specifier) ? 'rule_too_broad' : 'ok';
  if (tool === 'WebFetch') {
    if (specifier === undefined) return 'rule_too_broad';
    const domain = DOMAIN.exec(specifier);
    return domain ? 'ok' : specifier.startsWith('domain:') ? 'rule_too_broad' : 'bad_rule';
  }
  return PATH_TOOLS.has(tool) && specifier !== undefined && outside(specifier.trim()) ? 'rule_too_broad' : 'ok';
}
