// The terminal relay built with the app (term/), for the suites that share a
// terminal with the service. CI builds it before the service's tests run.

import fs from 'node:fs';
import path from 'node:path';

import { DAEMON } from '../helpers.js';

/** The built relay: $TIDEWATCH_BUILD/bin, else the checkout's build folder. */
export const RELAY = path.join(process.env.TIDEWATCH_BUILD ?? path.join(DAEMON, '..', 'build'), 'bin', 'tidewatch-term');

/** Why the suites can't run here, or null when they can. */
export const missingRelay = () =>
  fs.existsSync(RELAY) ? null : 'The terminal relay isn’t built (cmake --build build --target tidewatch-term).';
