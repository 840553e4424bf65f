// Entry: `node src/main` from the daemon folder. Reads the environment,
// starts the service, and stops it cleanly on SIGTERM or SIGINT.

import { awakeOptions } from './awake/awake-keeper.js';
import { readConfig } from './config.js';
import { startService } from './service.js';

/** A stop that takes longer than this, in milliseconds, ends the process anyway. */
const STOP_LIMIT_MS = 1500;

async function main() {
  const config = readConfig();
  let service;
  try {
    service = await startService({ ...config, awake: awakeOptions(process.env, { testCopy: config.testCopy }) });
  } catch (error) {
    const sentence =
      error.code === 'TIDEWATCH_PORT' ? error.message : `The background service couldn’t start (${error.message}).`;
    process.stderr.write(`${sentence}\n`);
    // Nothing is left running, so the process ends by itself with this code
    // once stderr is flushed.
    process.exitCode = 1;
    return;
  }
  console.log(service.startLine);

  process.on('uncaughtException', (error) => {
    service.log.error(`Stopped by an unexpected failure: ${error?.stack ?? error}`);
    process.exit(1);
  });

  let stopping = false;
  const stop = (signal) => {
    if (stopping) return;
    stopping = true;
    service.log.info(`Stopping (${signal}).`);
    setTimeout(() => process.exit(0), STOP_LIMIT_MS).unref();
    service.close().then(() => {
      service.log.info('Stopped.');
      process.exit(0);
    });
  };
  process.on('SIGTERM', () => stop('SIGTERM'));
  process.on('SIGINT', () => stop('SIGINT'));
}

await main();
