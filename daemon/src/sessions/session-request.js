// A request to start a session (`POST /v1/sessions`), checked whole before
// anything runs: every field within its limit, the project a folder inside
// the person's home, and refusals as sentences that name the field.

import fs from 'node:fs/promises';
import path from 'node:path';

import { invalid } from '../http-reply.js';
import { isObject } from '../json.js';

/** The longest prompt taken, in characters. */
export const MAX_PROMPT_CHARS = 32 * 1024;

/** The longest project path taken, in characters. */
export const MAX_PROJECT_CHARS = 4096;

/** Entries of `allowedTools` taken, and the longest one. */
export const MAX_ALLOWED_TOOLS = 50;
export const MAX_TOOL_CHARS = 200;

/** Variables of `env` taken, and the longest name and value. */
export const MAX_ENV_VARS = 32;
export const MAX_ENV_NAME_CHARS = 64;
export const MAX_ENV_VALUE_CHARS = 4096;

export const AGENTS = ['claude', 'codex'];

/** The modes the pinned agent SDK takes. */
export const PERMISSION_MODES = ['default', 'acceptEdits', 'plan', 'bypassPermissions', 'dontAsk', 'auto'];

/** Who may start a session here. */
export const ORIGINS = ['mac', 'phone', 'automation'];

const ENV_NAME = /^[A-Z_][A-Z0-9_]*$/;

// Variables that decide which programs run and how they load, or whose
// home they see: a provider's environment has no business with them.
const RESERVED_ENV = /^(PATH|HOME|SHELL|ENV|BASH_ENV|NODE_OPTIONS|NODE_PATH|LD_.*|DYLD_.*)$/;

const listed = (words) => {
  const quoted = words.map((word) => `“${word}”`);
  return `${quoted.slice(0, -1).join(', ')} or ${quoted.at(-1)}`;
};

function oneOf(body, field, words) {
  const value = body[field] ?? words[0];
  if (!words.includes(value)) throw invalid(field, `“${field}” must be ${listed(words)}.`);
  return value;
}

function promptOf(body) {
  const { prompt } = body;
  if (typeof prompt !== 'string' || prompt.trim() === '') throw invalid('prompt', 'Say what the session should do in “prompt”.');
  if (prompt.length > MAX_PROMPT_CHARS)
    throw invalid('prompt', `The prompt is longer than ${MAX_PROMPT_CHARS} characters, the most a session starts with.`);
  return prompt;
}

function toolsOf(body) {
  const tools = body.allowedTools ?? [];
  const fits = (tool) => typeof tool === 'string' && tool.trim() !== '' && tool.length <= MAX_TOOL_CHARS;
  if (!Array.isArray(tools) || tools.length > MAX_ALLOWED_TOOLS || !tools.every(fits)) {
    throw invalid(
      'allowedTools',
      `“allowedTools” must be a list of at most ${MAX_ALLOWED_TOOLS} tool names, each at most ${MAX_TOOL_CHARS} characters.`,
    );
  }
  return tools;
}

function envOf(body) {
  const env = body.env ?? {};
  if (!isObject(env) || Object.keys(env).length > MAX_ENV_VARS)
    throw invalid('env', `“env” must be an object of at most ${MAX_ENV_VARS} variables.`);
  for (const [name, value] of Object.entries(env)) {
    if (name.length > MAX_ENV_NAME_CHARS || !ENV_NAME.test(name) || RESERVED_ENV.test(name)) {
      throw invalid(
        'env',
        `“${name.slice(0, MAX_ENV_NAME_CHARS)}” can’t be set: a variable’s name is capitals, digits and “_”, at most ${MAX_ENV_NAME_CHARS} long, and not one that decides what runs (PATH, HOME, LD_…).`,
      );
    }
    if (typeof value !== 'string' || value.length > MAX_ENV_VALUE_CHARS || value.includes('\0'))
      throw invalid('env', `The value of “${name}” must be text of at most ${MAX_ENV_VALUE_CHARS} characters.`);
  }
  return env;
}

// The project as a real path, so that a link can't lead it out of the home.
async function projectOf(body, home) {
  const { project } = body;
  if (typeof project !== 'string' || !path.isAbsolute(project) || project.length > MAX_PROJECT_CHARS || project.includes('\0'))
    throw invalid('project', `“project” must be the absolute path of a folder, at most ${MAX_PROJECT_CHARS} characters.`);
  let real;
  try {
    real = await fs.realpath(project);
  } catch {
    throw invalid('project', `There’s no folder at ${project}.`);
  }
  if (!(await fs.stat(real)).isDirectory()) throw invalid('project', `${project} isn’t a folder.`);
  const inside = path.relative(await fs.realpath(home), real);
  if (inside.startsWith('..') || path.isAbsolute(inside))
    throw invalid('project', `A session starts only in a folder inside your home folder, and ${project} isn’t.`);
  return real;
}

/**
 * @typedef {Object} SessionRequest
 * @property {string} project The folder, as a real path
 * @property {string} prompt
 * @property {string} agent "claude" or "codex"
 * @property {string} permissionMode
 * @property {Array<string>} allowedTools
 * @property {Object<string, string>} env Added to the agent's environment
 * @property {string} origin "mac", "phone" or "automation"
 */

/**
 * @param {Object} body The request's JSON object
 * @param {string} home The person's home folder
 * @return {Promise<SessionRequest>}
 * @throws {HttpError} 400 naming the first field at fault
 */
export async function checkSessionRequest(body, home) {
  const request = {
    prompt: promptOf(body),
    agent: oneOf(body, 'agent', AGENTS),
    permissionMode: oneOf(body, 'permissionMode', PERMISSION_MODES),
    allowedTools: toolsOf(body),
    env: envOf(body),
    origin: oneOf(body, 'origin', ORIGINS),
  };
  return { project: await projectOf(body, home), ...request };
}
