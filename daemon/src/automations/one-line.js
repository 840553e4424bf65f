// Texts that leave the service in a bounded space: a notification, an error
// on a run's output, a line of a file.

/** The text on one line: breaks and tabs become spaces. */
export function oneLine(text) {
  return String(text ?? '').replace(/[\r\n\t\v\f\u2028\u2029]+/g, ' ');
}

/** The text cut to `limit` characters (code points), with "…" where it was cut. */
export function clip(text, limit) {
  const chars = Array.from(text);
  return chars.length <= limit ? text : `${chars.slice(0, limit - 1).join('').trimEnd()}…`;
}
