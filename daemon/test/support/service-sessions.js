// Sessions the service starts itself, for the suites that start them: real
// Claude Code through the agent SDK against the Messages API stand-in, the
// service's home the scratch folder that holds the project.

import path from 'node:path';

import { scratchFolder, startScratchService } from '../helpers.js';
import { CLAUDE, claudeEnv, claudeHome, standInFor } from './claude-code.js';

const PROVIDER_VARIABLES = ['ANTHROPIC_BASE_URL', 'ANTHROPIC_API_KEY'];

// The service's home is the scratch folder, which holds the project; the
// agent's environment is Claude Code's scratch home, and the request brings
// the provider (the stand-in and its key) as a provider's environment; with
// `builtIn`, the stand-in is the agent environment's own, as a sign-in is.
export async function setUp(t, script, { builtIn = false, ...more } = {}) {
  const folder = await scratchFolder(t);
  const standIn = await standInFor(t, script ?? {});
  const { home, project } = claudeHome(folder, path.join(folder, 'support'));
  const env = claudeEnv(home, standIn);
  const provider = Object.fromEntries(PROVIDER_VARIABLES.map((name) => [name, env[name]]));
  if (!builtIn) for (const name of PROVIDER_VARIABLES) delete env[name];
  const service = await startScratchService(t, { folder, home: folder, projects: folder, agentEnv: env, claudeProgram: { named: CLAUDE }, ...more });
  const target = path.join(project, 'made-by-claude');
  standIn.script.tool = { name: 'Bash', input: { command: `touch ${target}`, description: 'Make a file' } };
  if (script?.tool === null) standIn.script.tool = null;
  const snapshot = async () => (await service.local('GET', '/v1/snapshot')).json;
  const start = (body = {}) =>
    service.local('POST', '/v1/sessions', { body: { project, prompt: 'make a file please', env: provider, ...body } });
  return { folder, project, target, standIn, service, snapshot, start };
}

// The last prompt text of each main-loop request the stand-in had.
export const prompts = (standIn) =>
  standIn.requests
    .filter((request) => request.body?.tools?.length > 0)
    .map((request) => {
      const last = request.body.messages?.findLast((message) => message.role === 'user');
      const blocks = typeof last?.content === 'string' ? [{ type: 'text', text: last.content }] : (last?.content ?? []);
      return blocks.findLast((block) => block?.type === 'text' && !block.text.startsWith('<'))?.text?.trim();
    });

