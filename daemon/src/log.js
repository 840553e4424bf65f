// The daemon log: one line per event, `<ISO time> <level> <message>`,
// appended to daemon.log in the log folder.

import fs from 'node:fs';
import path from 'node:path';

import { PRIVATE_FILE_MODE } from './private-files.js';

export const LOG_FILE = 'daemon.log';

/**
 * A log larger than this at start is moved to daemon.log.1 (replacing an
 * older one), so that two files of this size are the most it ever takes.
 */
export const MAX_LOG_BYTES = 5 * 1024 * 1024;

/** A longer message is cut here, so that one runaway value can't flood the file. */
export const MAX_LINE_CHARS = 4096;

export class Log {
  /**
   * @param {string} folder The log folder, which must exist
   */
  constructor(folder) {
    this.file = path.join(folder, LOG_FILE);
    this.secrets = [];
    try {
      if (fs.statSync(this.file).size > MAX_LOG_BYTES) fs.renameSync(this.file, `${this.file}.1`);
    } catch {
      // no log yet
    }
  }

  /**
   * Names a value that must never reach the file, such as the admin token:
   * should it turn up in a message all the same, it is masked.
   *
   * @param {string} secret
   */
  addSecret(secret) {
    if (secret) this.secrets.push(secret);
  }

  info(message) {
    this.write('info', message);
  }

  warn(message) {
    this.write('warn', message);
  }

  error(message) {
    this.write('error', message);
  }

  /**
   * Appends one line. Written synchronously, so that the line of a failure
   * is on disk before the process exits; a log that can't be written is
   * never a reason to fail.
   */
  write(level, message) {
    let text = String(message).replace(/\r?\n/g, ' | ');
    for (const secret of this.secrets) text = text.split(secret).join('[admin token]');
    if (text.length > MAX_LINE_CHARS) text = `${text.slice(0, MAX_LINE_CHARS)}…`;
    try {
      fs.appendFileSync(this.file, `${new Date().toISOString()} ${level} ${text}\n`, { mode: PRIVATE_FILE_MODE });
    } catch {
      // nowhere left to say it
    }
  }
}

