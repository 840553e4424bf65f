// Small readers of JSON values, shared so that every module judges a value's
// shape the same way.

/** A plain object: not null and not an array. */
export const isObject = (value) => value !== null && typeof value === 'object' && !Array.isArray(value);

/** The value when it is a plain object, else the fallback. */
export const objectOr = (value, fallback) => (isObject(value) ? value : fallback);

/** The value when it is an array, else an empty one. */
export const arrayOr = (value) => (Array.isArray(value) ? value : []);

/** Equal as JSON data, key order included: what the feed would send is the same. */
export const sameJson = (a, b) => JSON.stringify(a) === JSON.stringify(b);

/** The text cut to `max` characters, with an ellipsis when anything went. */
export const cut = (text, max) => (text.length > max ? `${text.slice(0, max)}…` : text);
