// The terminal channel's frames, as the relay (term/) writes them: one kind
// byte, a four-byte big-endian length, then the payload. What can't be a
// frame of the channel breaks it, and nothing it said is taken.

/** The kinds, by their byte. */
export const FRAME = Object.freeze({
  hello: 'H',
  output: 'O',
  size: 'W',
  exit: 'X',
  input: 'I',
});

const HEADER_BYTES = 5;

/** The largest payload either side sends or takes, in bytes. */
export const MAX_PAYLOAD_BYTES = 256 * 1024;

const FROM_RELAY = new Set([FRAME.hello, FRAME.output, FRAME.size, FRAME.exit]);

/** A message on the channel that isn't one; its message says what was wrong. */
export class TermChannelError extends Error {}

/** @return {Buffer} One frame of `kind` carrying `payload` (a Buffer or a string). */
export function encodeFrame(kind, payload) {
  const body = Buffer.isBuffer(payload) ? payload : Buffer.from(payload, 'utf8');
  const header = Buffer.alloc(HEADER_BYTES);
  header.write(kind, 0, 'latin1');
  header.writeUInt32BE(body.length, 1);
  return Buffer.concat([header, body]);
}

/** Cuts the relay's frames out of its byte stream; holds at most one frame's bytes. */
export class FrameReader {
  #buffer = Buffer.alloc(0);

  /**
   * @param {Buffer} chunk
   * @return {Array<{kind: string, payload: Buffer}>} The frames completed by it
   * @throws {TermChannelError}
   */
  feed(chunk) {
    this.#buffer = this.#buffer.length === 0 ? chunk : Buffer.concat([this.#buffer, chunk]);
    const frames = [];
    while (this.#buffer.length >= HEADER_BYTES) {
      const kind = String.fromCharCode(this.#buffer[0]);
      if (!FROM_RELAY.has(kind)) throw new TermChannelError('The terminal channel carries no such frame.');
      const size = this.#buffer.readUInt32BE(1);
      if (size > MAX_PAYLOAD_BYTES) throw new TermChannelError('A frame on the terminal channel is over its limit.');
      if (this.#buffer.length < HEADER_BYTES + size) break;
      frames.push({ kind, payload: this.#buffer.subarray(HEADER_BYTES, HEADER_BYTES + size) });
      this.#buffer = this.#buffer.subarray(HEADER_BYTES + size);
    }
    return frames;
  }
}
