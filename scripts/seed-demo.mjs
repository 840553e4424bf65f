// Waits for the test copy's service to answer, then puts the demonstration
// state in through its /qa interface. The admin key is read from its file and
// goes only into a request header.
import { readFile } from 'node:fs/promises';
import path from 'node:path';
import { fileURLToPath } from 'node:url';

const here = path.dirname(fileURLToPath(import.meta.url));
const support = process.env.TIDEWATCH_SUPPORT;
const apiPort = process.env.TIDEWATCH_API_PORT;
const localPort = process.env.TIDEWATCH_LOCAL_PORT;

const deadline = Date.now() + 20_000;
for (;;) {
  try {
    const health = await fetch(`http://127.0.0.1:${apiPort}/v1/health`);
    if (health.ok) break;
  } catch {
    // not up yet
  }
  if (Date.now() > deadline) {
    console.error('The background service didn’t start; see its output above.');
    process.exit(1);
  }
  await new Promise((resolve) => setTimeout(resolve, 200));
}

const token = (await readFile(path.join(support, 'admin-token'), 'utf8')).trim();
const now = Date.now();
const state = JSON.parse(await readFile(path.join(here, 'demo-state.json'), 'utf8'), (key, value) =>
  typeof value === 'string' && /^now[+-]\d+$/.test(value) ? now + Number(value.slice(3)) * 1000 : value);

for (const [route, body] of Object.entries(state)) {
  const reply = await fetch(`http://127.0.0.1:${localPort}${route}`, {
    method: 'POST',
    headers: { Authorization: `Bearer ${token}`, 'Content-Type': 'application/json' },
    body: JSON.stringify(body),
  });
  if (!reply.ok) {
    console.error(`The service refused the demonstration state (${route}: ${reply.status}).`);
    process.exit(1);
  }
}
