// A small table of routes: a method, a path whose segments may be `:name`
// parameters, and the function that answers.

import { HttpError } from './http-reply.js';

/**
 * @callback Handler
 * @param {Object} call
 * @param {http.IncomingMessage} call.req
 * @param {http.ServerResponse} call.res
 * @param {URL} call.url
 * @param {Object<string, string>} call.params Decoded path parameters
 * @param {Object|null} call.device The paired device, on a route marked `device`
 * @return {*} A value to send as JSON with 200, or undefined when the
 *     handler answered by itself
 */

export class Router {
  constructor() {
    this.routes = [];
  }

  /**
   * @param {string} method
   * @param {string} pattern Such as "/qa/sessions/:id"
   * @param {Handler} handler
   * @param {Object} [options]
   * @param {boolean} [options.open=false] Answers without the admin token,
   *     for a page with nothing secret in it that a browser opens
   * @param {boolean} [options.hook=false] Also answers the hook credential
   *     (hook-token.js), for the door that takes reported hook events
   * @param {boolean} [options.device=false] Answers a paired device's token
   *     and nothing else; the handler's call carries the `device`
   * @return {Router} this, for chaining
   */
  add(method, pattern, handler, { open = false, hook = false, device = false } = {}) {
    this.routes.push({ method, segments: pattern.split('/'), handler, pattern, open, hook, device });
    return this;
  }

  /** @return {Array<string>} "METHOD /pattern" for every route, in order. */
  list() {
    return this.routes.map((route) => `${route.method} ${route.pattern}`);
  }

  /**
   * Finds the route for a request.
   *
   * @param {string} method
   * @param {string} pathname The raw path, still percent-encoded
   * @return {{handler: Handler, params: Object, open: boolean, hook: boolean, device: boolean}|{allowed: Array<string>}|null}
   *     the route; or the methods the path allows when the method is wrong;
   *     or null when no route has this path
   * @throws {HttpError} 400 when a parameter isn't valid percent-encoding
   */
  find(method, pathname) {
    const segments = pathname.split('/');
    const allowed = [];
    for (const route of this.routes) {
      const params = matchSegments(route.segments, segments);
      if (!params) continue;
      if (route.method === method) {
        return { handler: route.handler, params, open: route.open, hook: route.hook, device: route.device };
      }
      if (!allowed.includes(route.method)) allowed.push(route.method);
    }
    return allowed.length > 0 ? { allowed } : null;
  }
}

function matchSegments(pattern, segments) {
  if (pattern.length !== segments.length) return null;
  const params = {};
  for (let i = 0; i < pattern.length; i++) {
    if (pattern[i].startsWith(':')) {
      if (segments[i] === '') return null;
      params[pattern[i].slice(1)] = decodeSegment(segments[i]);
    } else if (pattern[i] !== segments[i]) {
      return null;
    }
  }
  return params;
}

function decodeSegment(segment) {
  try {
    return decodeURIComponent(segment);
  } catch {
    throw new HttpError(400, 'bad_path', 'A part of the path isn’t valid percent-encoding.');
  }
}
