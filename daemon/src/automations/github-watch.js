// A GitHub trigger's watch: the local repository's GitHub remote, looked
// at every few minutes through the person's own `gh api` (so their sign-in
// and nothing of ours reaches GitHub). Each address is asked with the ETag
// of its last answer, so a look that finds nothing new costs no rate
// limit; news is what wasn't there at the look before.

import { execFile } from 'node:child_process';

import { isObject } from '../json.js';

/** The news a GitHub trigger can wait for. */
export const GITHUB_EVENTS = ['pr_opened', 'review_comment', 'checks_failed'];

/** How often it may look, in minutes; 10 when the trigger says otherwise. */
export const LOOK_EVERY_MINUTES = [5, 10, 15];

/** One call of gh or git gets this long, in ms. */
export const TOOL_TIMEOUT_MS = 30_000;

/** The most output one call may give, in bytes. */
export const MAX_TOOL_OUTPUT_BYTES = 4 * 1024 * 1024;

/** The person's own open pull requests looked into for reviews and checks. */
export const MAX_MY_PULLS = 10;

/** Things remembered as seen; the oldest goes first. */
export const MAX_SEEN = 5000;

/** Answers kept with their ETags; the oldest goes first. */
export const MAX_KEPT_ANSWERS = 100;

const NO_GH = 'GitHub’s gh is missing or signed out on the Mac.';
const NOT_GITHUB = 'That project has no GitHub remote.';
const HIDDEN = 'GitHub doesn’t show that repository to the account gh is signed in with.';
const FAILED_CONCLUSIONS = new Set(['failure', 'timed_out', 'action_required', 'startup_failure']);
const REVIEW_WORDS = { APPROVED: 'approved', CHANGES_REQUESTED: 'asked for changes on', COMMENTED: 'commented on' };
const NAME = /^[A-Za-z0-9_.-]+$/;

/** A call of gh that didn't give an answer to read; its message is a sentence. */
class GithubProblem extends Error {}

/**
 * Runs a tool with arguments (never through a shell).
 *
 * @return {Promise<{code: (number|null), stdout: string, stderr: string, missing: boolean}>}
 */
export function runTool(file, args, { cwd, env = process.env, timeoutMs = TOOL_TIMEOUT_MS } = {}) {
  return new Promise((resolve) => {
    execFile(file, args, { cwd, env, timeout: timeoutMs, maxBuffer: MAX_TOOL_OUTPUT_BYTES }, (error, stdout, stderr) => {
      resolve({
        code: error ? (typeof error.code === 'number' ? error.code : null) : 0,
        stdout: String(stdout ?? ''),
        stderr: String(stderr ?? ''),
        missing: error?.code === 'ENOENT',
      });
    });
  });
}

/**
 * Reads what `gh api -i` prints: the status line, the headers, a blank
 * line, the body. gh prints it for every status, and exits 1 above 299.
 *
 * @param {string} text
 * @return {{status: number, headers: Map<string, string>, body: string}|null} Header names in lower case
 */
export function parseGhResponse(text) {
  const status = /^HTTP\/[\d.]+ (\d{3})/.exec(text);
  const end = /\r?\n\r?\n/.exec(text);
  if (!status || !end) return null;
  const headers = new Map();
  for (const line of text.slice(0, end.index).split(/\r?\n/).slice(1)) {
    const colon = line.indexOf(':');
    if (colon > 0) headers.set(line.slice(0, colon).trim().toLowerCase(), line.slice(colon + 1).trim());
  }
  return { status: Number(status[1]), headers, body: text.slice(end.index + end[0].length) };
}

/** @return {string|null} "owner/name" of a GitHub remote's address (https, ssh or scp form); null for another host. */
export function githubRepoOf(url) {
  const match =
    /^(?:(?:https?|ssh|git):\/\/(?:[^@/\s]+@)?github\.com(?::\d+)?\/|[^@/\s]+@github\.com:)([^/\s]+)\/([^/\s]+?)(?:\.git)?\/?$/.exec(
      String(url).trim(),
    );
  if (!match || !NAME.test(match[1]) || !NAME.test(match[2])) return null;
  return `${match[1]}/${match[2]}`;
}

/**
 * The repository's GitHub remote: "origin" when it is one, else the first.
 *
 * @return {Promise<string|null>} "owner/name"
 */
export async function githubRemote(repoPath, { git = 'git', env = process.env } = {}) {
  const { code, stdout } = await runTool(git, ['-C', repoPath, 'remote', '-v'], { env });
  if (code !== 0) return null;
  const remotes = stdout
    .split('\n')
    .map((line) => /^(\S+)\s+(\S+)\s+\(fetch\)$/.exec(line.trim()))
    .filter(Boolean)
    .map(([, name, url]) => ({ name, repo: githubRepoOf(url) }))
    .filter((remote) => remote.repo !== null);
  return (remotes.find((remote) => remote.name === 'origin') ?? remotes[0])?.repo ?? null;
}

/**
 * Whether gh is there and signed in: it answers who the person is.
 *
 * @return {Promise<boolean>}
 */
export async function ghAvailable({ gh = 'gh', env = process.env } = {}) {
  const { stdout } = await runTool(gh, ['api', '-i', 'user'], { env });
  return parseGhResponse(stdout)?.status === 200;
}

const titled = (pull) => `#${pull.number} “${String(pull.title ?? '').slice(0, 200)}”`;

/**
 * Watches one repository for the news its trigger names. Its first look is
 * the baseline; `onMoment` gets the news of each later look that has any,
 * and `onProblem` a sentence when it can't look (null when it can).
 */
export class GithubWatch {
  #repoPath;
  #events;
  #everyMs;
  #onMoment;
  #onProblem;
  #gh;
  #git;
  #env;
  #kept = new Map();
  #seen = new Set();
  #looked = false;
  #timer = null;
  #closed = false;
  #looking = null;

  /**
   * @param {Object} options
   * @param {string} options.repoPath Absolute
   * @param {Array<string>} options.events From {@link GITHUB_EVENTS}
   * @param {number} [options.every=10] Minutes, one of {@link LOOK_EVERY_MINUTES}
   * @param {function({detail: string, payload: string}): void} options.onMoment
   * @param {function(string|null): void} [options.onProblem]
   * @param {string} [options.gh='gh'] The person's gh
   * @param {string} [options.git='git']
   * @param {Object} [options.env=process.env] gh's environment, with its sign-in
   */
  constructor({ repoPath, events, every = 10, onMoment, onProblem = () => {}, gh = 'gh', git = 'git', env = process.env }) {
    this.#repoPath = repoPath;
    this.#events = new Set(Array.isArray(events) ? events.filter((event) => GITHUB_EVENTS.includes(event)) : []);
    this.#everyMs = (LOOK_EVERY_MINUTES.includes(every) ? every : 10) * 60_000;
    this.#onMoment = onMoment;
    this.#onProblem = onProblem;
    this.#gh = gh;
    this.#git = git;
    this.#env = { ...env, GH_NO_UPDATE_NOTIFIER: '1', GH_PROMPT_DISABLED: '1', NO_COLOR: '1' };
  }

  /** @return {Promise<void>} The first look, then one every few minutes. */
  start() {
    return this.look();
  }

  /**
   * Looks once now (a look under way is joined, not doubled).
   *
   * @return {Promise<void>}
   */
  look() {
    this.#looking ??= this.#lookOnce().finally(() => {
      this.#looking = null;
      clearTimeout(this.#timer);
      if (!this.#closed) this.#timer = setTimeout(() => this.look(), this.#everyMs);
      this.#timer?.unref?.();
    });
    return this.#looking;
  }

  /** Stops looking. */
  close() {
    this.#closed = true;
    clearTimeout(this.#timer);
  }

  async #lookOnce() {
    if (this.#closed) return;
    let news;
    try {
      news = await this.#news();
    } catch (error) {
      if (!this.#closed) this.#onProblem(error instanceof GithubProblem ? error.message : `GitHub couldn’t be asked: ${error.message}`);
      return;
    }
    if (this.#closed) return;
    this.#onProblem(null);
    const first = !this.#looked;
    this.#looked = true;
    if (first || news.length === 0) return;
    const detail = news.length === 1 ? news[0].split('\n')[0] : `${news.length} things happened on GitHub`;
    this.#onMoment({ detail, payload: news.join('\n') });
  }

  async #news() {
    const repo = await githubRemote(this.#repoPath, { git: this.#git, env: this.#env });
    if (repo === null) throw new GithubProblem(NOT_GITHUB);
    const me = (await this.#api('user'))?.login;
    const pulls = await this.#api(`repos/${repo}/pulls?state=open&per_page=50`);
    if (!Array.isArray(pulls)) throw new GithubProblem('GitHub answered with something other than a list of pull requests.');
    const news = [];
    if (this.#events.has('pr_opened')) {
      for (const pull of pulls) {
        if (this.#saw(`pull ${pull.number}`)) continue;
        news.push(`Pull request ${titled(pull)} opened by @${pull.user?.login}\n${pull.html_url}`);
      }
    }
    const mine = pulls.filter((pull) => isObject(pull.user) && pull.user.login === me).slice(0, MAX_MY_PULLS);
    for (const pull of mine) {
      if (this.#events.has('review_comment')) {
        for (const review of await this.#list(`repos/${repo}/pulls/${pull.number}/reviews?per_page=100`)) {
          if (review.user?.login === me || review.state === 'PENDING' || this.#saw(`review ${review.id}`)) continue;
          const words = REVIEW_WORDS[review.state] ?? 'reviewed';
          news.push(`@${review.user?.login} ${words} ${titled(pull)}\n${review.html_url ?? pull.html_url}`);
        }
      }
      if (this.#events.has('checks_failed') && typeof pull.head?.sha === 'string' && /^[0-9a-f]{7,64}$/.test(pull.head.sha)) {
        const answer = await this.#api(`repos/${repo}/commits/${pull.head.sha}/check-runs?per_page=100`);
        for (const run of Array.isArray(answer?.check_runs) ? answer.check_runs : []) {
          if (run.status !== 'completed' || !FAILED_CONCLUSIONS.has(run.conclusion) || this.#saw(`check ${run.id}`)) continue;
          news.push(`Check “${run.name}” failed on ${titled(pull)}\n${run.html_url ?? pull.html_url}`);
        }
      }
    }
    return news;
  }

  // Marks a thing seen; says whether it was seen before.
  #saw(key) {
    if (this.#seen.has(key)) return true;
    this.#seen.add(key);
    if (this.#seen.size > MAX_SEEN) this.#seen.delete(this.#seen.values().next().value);
    return false;
  }

  async #list(endpoint) {
    const answer = await this.#api(endpoint);
    return Array.isArray(answer) ? answer.filter(isObject) : [];
  }

  // One GET through gh, with the kept ETag; a 304 gives the kept answer.
  async #api(endpoint) {
    const kept = this.#kept.get(endpoint);
    const args = ['api', '-i', ...(kept ? ['-H', `If-None-Match: ${kept.etag}`] : []), endpoint];
    const { stdout, stderr, missing } = await runTool(this.#gh, args, { env: this.#env });
    if (missing) throw new GithubProblem(NO_GH);
    const answer = parseGhResponse(stdout);
    if (answer === null) {
      if (/gh auth login|GH_TOKEN|authentication/i.test(stderr)) throw new GithubProblem(NO_GH);
      throw new GithubProblem(`GitHub couldn’t be reached; it looks again in ${this.#everyMs / 60_000} minutes.`);
    }
    if (answer.status === 304 && kept) return kept.data;
    if (answer.status === 401) throw new GithubProblem(NO_GH);
    if (answer.status === 404) throw new GithubProblem(HIDDEN);
    if (answer.status !== 200) {
      throw new GithubProblem(`GitHub answered ${answer.status}; it looks again in ${this.#everyMs / 60_000} minutes.`);
    }
    let data;
    try {
      data = JSON.parse(answer.body);
    } catch {
      throw new GithubProblem('GitHub’s answer couldn’t be read.');
    }
    const etag = answer.headers.get('etag');
    this.#kept.delete(endpoint);
    if (etag && !/[\r\n]/.test(etag)) this.#kept.set(endpoint, { etag, data });
    if (this.#kept.size > MAX_KEPT_ANSWERS) this.#kept.delete(this.#kept.keys().next().value);
    return data;
  }
}
