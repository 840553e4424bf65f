// Folders and files that only this user may read: the support folder, the
// log folder and the secrets inside them.

import { randomBytes } from 'node:crypto';
import fs from 'node:fs';
import path from 'node:path';

export const PRIVATE_FOLDER_MODE = 0o700;
export const PRIVATE_FILE_MODE = 0o600;

/**
 * Creates the folder (and its parents) and sets it to 0700, also when it was
 * already there with looser permissions.
 *
 * @param {string} folder
 */
export function ensurePrivateFolder(folder) {
  fs.mkdirSync(folder, { recursive: true, mode: PRIVATE_FOLDER_MODE });
  fs.chmodSync(folder, PRIVATE_FOLDER_MODE);
}

/**
 * Replaces a file in one step: the text goes into a file beside it that is
 * private from its creation, reaches the disk, and is then renamed over the
 * target. A reader sees the old file or the new one, never a part.
 *
 * @param {string} file
 * @param {string} text
 * @param {number} [mode=0o600]
 */
export function writeFileAtomically(file, text, mode = PRIVATE_FILE_MODE) {
  const temporary = path.join(path.dirname(file), `.${path.basename(file)}.${randomBytes(6).toString('hex')}.tmp`);
  let fd = fs.openSync(temporary, 'wx', mode);
  try {
    // The umask may have taken bits away; it never adds any, but be exact.
    fs.fchmodSync(fd, mode);
    fs.writeSync(fd, text);
    fs.fsyncSync(fd);
    fs.closeSync(fd);
    fd = null;
    fs.renameSync(temporary, file);
  } catch (error) {
    if (fd !== null) fs.closeSync(fd);
    fs.rmSync(temporary, { force: true });
    throw error;
  }
  syncFolder(path.dirname(file));
}

// Makes the rename itself durable. Not every file system allows a folder to
// be opened for this, and the file is already in place, so failure is fine.
function syncFolder(folder) {
  try {
    const fd = fs.openSync(folder, 'r');
    try {
      fs.fsyncSync(fd);
    } finally {
      fs.closeSync(fd);
    }
  } catch {
    // best effort
  }
}
