// A terminal window that can't be brought forward, and the sentences that
// say why: the app shows them after its own opening words.

/** A window that can't be brought forward; the message says why, to the person. */
export class RaiseError extends Error {
  constructor(code, message) {
    super(message);
    this.code = code;
  }
}

/** The sentences of a window that can't be raised, on a machine called `machine`. */
export const raiseWords = (machine) => ({
  unknown: 'Tidewatch doesn’t know yet where this session runs: it learns that from the session’s next step.',
  ended: 'The session’s process has ended, so no terminal holds it any more.',
  noScreen: `Tidewatch can’t reach the screen of ${machine}.`,
  noWindow: `No terminal window on ${machine} holds the session.`,
  unsupported: `Tidewatch can’t bring windows forward on ${machine}.`,
  noEmulator: `No terminal app Tidewatch knows is installed on ${machine}.`,
  notOpened: 'The terminal window couldn’t be opened.',
});

