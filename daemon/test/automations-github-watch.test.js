// A GitHub trigger's watch against the stand-in gh, in a real git
// repository: the first look is the baseline, later looks fire only on
// news, and unchanged answers are asked with their ETags.

import assert from 'node:assert/strict';
import { execFileSync } from 'node:child_process';
import fs from 'node:fs';
import path from 'node:path';
import test from 'node:test';

import { ghAvailable, githubRepoOf, GithubWatch, parseGhResponse } from '../src/automations/github-watch.js';
import { DAEMON, scratchFolder } from './helpers.js';

const GH = path.join(DAEMON, 'test', 'fakes', 'gh');
const SHA = 'a1b2c3d4e5f6';

const pull = (number, login, sha = SHA) => ({
  number,
  title: `Change ${number}`,
  user: { login },
  head: { sha },
  html_url: `https://github.com/octo/shop/pull/${number}`,
});

async function place(t, { remote = 'git@github.com:octo/shop.git', world = { login: 'me', repos: { 'octo/shop': { pulls: [] } } } } = {}) {
  const folder = await scratchFolder(t);
  const repo = path.join(folder, 'shop');
  const tools = path.join(folder, 'tools');
  fs.mkdirSync(repo);
  fs.mkdirSync(tools);
  execFileSync('git', ['init', '-q', repo]);
  if (remote) execFileSync('git', ['-C', repo, 'remote', 'add', 'origin', remote]);
  const env = { ...process.env, TIDEWATCH_FAKE_TOOLS: tools, PATH: `${path.dirname(process.execPath)}:${process.env.PATH}` };
  const setWorld = (next) => fs.writeFileSync(path.join(tools, 'github.json'), JSON.stringify(next));
  setWorld(world);
  const calls = () => fs.readFileSync(path.join(tools, 'calls'), 'utf8').trim().split('\n');
  return { repo, env, setWorld, calls };
}

function watcher(t, spot, { events = ['pr_opened', 'review_comment', 'checks_failed'], gh = GH } = {}) {
  const moments = [];
  const problems = [];
  const watch = new GithubWatch({
    repoPath: spot.repo,
    events,
    every: 5,
    gh,
    env: spot.env,
    onMoment: (moment) => moments.push(moment),
    onProblem: (problem) => problems.push(problem),
  });
  t.after(() => watch.close());
  return { watch, moments, problems };
}

test('news fires once, only when something changed, and each answer is asked again with its ETag', async (t) => {
  const spot = await place(t, { world: { login: 'me', repos: { 'octo/shop': { pulls: [pull(1, 'ann')] } } } });
  const { watch, moments, problems } = watcher(t, spot);
  await watch.start();
  assert.deepEqual(moments, [], 'the first look is the baseline');
  assert.equal(problems.at(-1), null);

  await watch.look();
  assert.deepEqual(moments, [], 'nothing changed');
  const second = spot.calls().slice(-2);
  assert.ok(second.every((call) => /^api -i -H If-None-Match: W\/"[0-9a-f]{64}" /.test(call)), second.join('\n'));

  spot.setWorld({
    login: 'me',
    repos: {
      'octo/shop': {
        pulls: [pull(1, 'ann'), pull(2, 'me')],
        reviews: { 2: [{ id: 71, user: { login: 'bob' }, state: 'CHANGES_REQUESTED', html_url: 'https://github.com/octo/shop/pull/2#r71' }] },
        checkRuns: { [SHA]: [{ id: 9, name: 'build', status: 'completed', conclusion: 'failure', html_url: 'https://github.com/octo/shop/runs/9' }] },
      },
    },
  });
  await watch.look();
  assert.equal(moments.length, 1);
  assert.equal(moments[0].detail, '3 things happened on GitHub');
  assert.deepEqual(moments[0].payload.split('\n'), [
    'Pull request #2 “Change 2” opened by @me',
    'https://github.com/octo/shop/pull/2',
    '@bob asked for changes on #2 “Change 2”',
    'https://github.com/octo/shop/pull/2#r71',
    'Check “build” failed on #2 “Change 2”',
    'https://github.com/octo/shop/runs/9',
  ]);

  await watch.look();
  assert.equal(moments.length, 1, 'the same news fires no more');
});

const CHOSEN = [
  {
    name: 'a watch of new pull requests only hears of them',
    events: ['pr_opened'],
    news: ['Pull request #3 “Change 3” opened by @ann', 'Pull request #4 “Change 4” opened by @me'],
  },
  { name: 'a watch of failed checks hears only of the person’s own pull requests', events: ['checks_failed'], news: ['Check “lint” failed on #4 “Change 4”'] },
];

for (const row of CHOSEN) {
  test(row.name, async (t) => {
    const spot = await place(t);
    const { watch, moments } = watcher(t, spot, { events: row.events });
    await watch.start();
    const failed = (id, name) => ({ id, name, status: 'completed', conclusion: 'failure' });
    spot.setWorld({
      login: 'me',
      repos: { 'octo/shop': { pulls: [pull(3, 'ann', 'aaaa111'), pull(4, 'me', 'bbbb222')], checkRuns: { aaaa111: [failed(1, 'test')], bbbb222: [failed(2, 'lint')] } } },
    });
    await watch.look();
    assert.equal(moments.length, 1);
    assert.deepEqual(moments[0].payload.split('\n').filter((line) => !line.startsWith('https:')), row.news);
  });
}

const PROBLEMS = [
  { name: 'a folder without a GitHub remote', remote: 'https://gitlab.com/octo/shop.git', problem: 'That project has no GitHub remote.' },
  { name: 'gh signed out', world: { login: null }, problem: 'GitHub’s gh is missing or signed out on the Mac.' },
  { name: 'no gh at all', gh: '/nonexistent/gh', problem: 'GitHub’s gh is missing or signed out on the Mac.' },
  { name: 'a repository GitHub doesn’t show', world: { login: 'me', repos: {} }, problem: 'GitHub doesn’t show that repository to the account gh is signed in with.' },
];

for (const row of PROBLEMS) {
  test(`a sentence on the automation for ${row.name}`, async (t) => {
    const spot = await place(t, { ...(row.remote ? { remote: row.remote } : {}), ...(row.world ? { world: row.world } : {}) });
    const { watch, moments, problems } = watcher(t, spot, { gh: row.gh ?? GH });
    await watch.start();
    assert.deepEqual(problems, [row.problem]);
    assert.deepEqual(moments, []);
  });
}

test('gh is available when it answers who the person is', async (t) => {
  const spot = await place(t);
  assert.equal(await ghAvailable({ gh: GH, env: spot.env }), true);
  spot.setWorld({ login: null });
  assert.equal(await ghAvailable({ gh: GH, env: spot.env }), false);
  assert.equal(await ghAvailable({ gh: '/nonexistent/gh', env: spot.env }), false);
});

const REMOTES = [
  ['https://github.com/octo/shop.git', 'octo/shop'],
  ['https://github.com/octo/shop', 'octo/shop'],
  ['git@github.com:octo/shop.git', 'octo/shop'],
  ['ssh://git@github.com:22/octo/shop.git', 'octo/shop'],
  ['https://token@github.com/octo/my.repo.git', 'octo/my.repo'],
  ['https://github.com.evil.example/octo/shop.git', null],
  ['git@gitlab.com:octo/shop.git', null],
  ['https://github.com/octo/shop/extra', null],
];

test('a GitHub remote is read from each of git’s address forms, and no other host passes', () => {
  for (const [url, repo] of REMOTES) assert.equal(githubRepoOf(url), repo, url);
});

test('gh’s output with -i is read as status, headers and body', () => {
  const answer = parseGhResponse('HTTP/2.0 200 OK\nContent-Type: application/json\r\nEtag: W/"abc"\r\n\r\n[1]');
  assert.equal(answer.status, 200);
  assert.equal(answer.headers.get('etag'), 'W/"abc"');
  assert.equal(answer.body, '[1]');
  assert.equal(parseGhResponse('gh: Not Found (HTTP 404)'), null);
});
