// Reading what was added to a growing file of lines, from where the last
// read stopped. The position only ever moves past whole lines, so a line
// that is still being written is read again, whole, next time; a line longer
// than the limit is passed over without being held in memory.

import fs from 'node:fs/promises';

/** A longer line is passed over unread. */
export const MAX_LINE_BYTES = 2 * 1024 * 1024;

/** At most this much is read in one call; the rest waits for the next. */
export const MAX_READ_BYTES = 16 * 1024 * 1024;

const CHUNK_BYTES = 256 * 1024;
const NEWLINE = 0x0a;

/**
 * @typedef {Object} TailCursor Where reading stands in one file (plain data)
 * @property {number|null} ino The file it belongs to; another inode is another file
 * @property {number} offset Bytes consumed: everything before is read
 * @property {boolean} skipping Inside an overlong line, passing over it
 */

/** @return {TailCursor} */
export function freshCursor() {
  return { ino: null, offset: 0, skipping: false };
}

/**
 * Reads the whole lines added since the cursor.
 *
 * @param {string} file
 * @param {TailCursor} cursor Not changed; the new one is returned
 * @param {Object} [limits]
 * @param {number} [limits.maxLineBytes=MAX_LINE_BYTES]
 * @param {number} [limits.maxReadBytes=MAX_READ_BYTES]
 * @return {Promise<{lines: Array<string>, cursor: TailCursor, restarted: boolean,
 *     more: boolean, skipped: number, size: number, mtimeMs: number}>}
 *     `restarted` when the file was replaced or cut short, so reading began
 *     again at its start; `more` when bytes are left for the next call;
 *     `skipped` counts the overlong lines passed over
 * @throws the file system's error when the file can't be opened
 */
export async function readNewLines(file, cursor, { maxLineBytes = MAX_LINE_BYTES, maxReadBytes = MAX_READ_BYTES } = {}) {
  const handle = await fs.open(file, 'r');
  try {
    const stat = await handle.stat();
    let { offset, skipping } = cursor;
    let restarted = false;
    if ((cursor.ino !== null && cursor.ino !== stat.ino) || stat.size < offset) {
      offset = 0;
      skipping = false;
      restarted = true;
    }

    const lines = [];
    let skipped = 0;
    const end = Math.min(stat.size, offset + maxReadBytes);
    // `pending` holds the start of a line not yet ended, from `offset` on.
    let pending = [];
    let pendingBytes = 0;
    let position = offset;
    const buffer = Buffer.allocUnsafe(CHUNK_BYTES);
    while (position < end) {
      const { bytesRead } = await handle.read(buffer, 0, Math.min(CHUNK_BYTES, end - position), position);
      if (bytesRead === 0) break;
      let start = 0;
      for (;;) {
        const newline = buffer.indexOf(NEWLINE, start);
        if (newline < 0 || newline >= bytesRead) break;
        if (skipping) {
          skipping = false;
        } else {
          pending.push(Buffer.from(buffer.subarray(start, newline)));
          const line = Buffer.concat(pending).toString('utf8');
          if (line.trim() !== '') lines.push(line);
        }
        pending = [];
        pendingBytes = 0;
        start = newline + 1;
        offset = position + start;
      }
      if (!skipping && start < bytesRead) {
        pending.push(Buffer.from(buffer.subarray(start, bytesRead)));
        pendingBytes += bytesRead - start;
        if (pendingBytes > maxLineBytes) {
          skipping = true;
          skipped += 1;
          pending = [];
          pendingBytes = 0;
        }
      }
      position += bytesRead;
      // Inside an overlong line nothing before the read point is wanted.
      if (skipping) offset = position;
    }
    return {
      lines,
      cursor: { ino: stat.ino, offset, skipping },
      restarted,
      more: end < stat.size,
      skipped,
      size: stat.size,
      mtimeMs: stat.mtimeMs,
    };
  } finally {
    await handle.close();
  }
}
