// What the agent SDK's messages (the same as `claude -p --output-format
// stream-json` prints) do to the session they belong to. A pure function of
// the session as it stands and one message, so that it tests without Claude Code.

import { cut, isObject } from '../json.js';
import { MAX_LAST_TEXT_CHARS } from './hook-event.js';
import { activityOf } from './permission.js';

const waitsOnPerson = (session) =>
  Array.isArray(session.pendingApprovalIds) && session.pendingApprovalIds.length > 0;

/**
 * @param {Object} session As it stands
 * @param {Object} message One message of the query
 * @param {number} now Epoch ms
 * @return {Object} The new session
 */
export function sessionAfterMessage(session, message, now) {
  if (!isObject(message) || message.parent_tool_use_id) return session;
  const next = { ...session, lastActivityAt: now };
  const busy = () => {
    next.state = waitsOnPerson(next) ? 'needs_you' : 'working';
  };
  switch (message.type) {
    case 'system':
      if (message.subtype !== 'init') return session;
      if (typeof message.model === 'string' && message.model !== '') next.model = message.model;
      if (typeof message.permissionMode === 'string') next.permissionMode = message.permissionMode;
      busy();
      break;
    case 'assistant': {
      const content = Array.isArray(message.message?.content) ? message.message.content : [];
      for (const block of content.filter(isObject)) {
        if (block.type === 'text' && typeof block.text === 'string' && block.text.trim() !== '')
          next.lastText = cut(block.text, MAX_LAST_TEXT_CHARS);
        if (block.type === 'tool_use' && typeof block.name === 'string') next.activity = activityOf(block.name, block.input);
      }
      const model = message.message?.model;
      if (typeof model === 'string' && model !== '' && !model.startsWith('<')) next.model = model;
      busy();
      break;
    }
    case 'user':
      delete next.activity;
      busy();
      break;
    case 'result': {
      delete next.activity;
      next.state = message.subtype === 'success' && message.is_error !== true ? 'idle' : 'error';
      if (typeof message.result === 'string' && message.result.trim() !== '')
        next.lastText = cut(message.result, MAX_LAST_TEXT_CHARS);
      const cost = message.total_cost_usd;
      if (Number.isFinite(cost) && cost >= 0) next.costUsd = Math.round(((session.costUsd ?? 0) + cost) * 1e6) / 1e6;
      break;
    }
    default:
      return session;
  }
  return next;
}
