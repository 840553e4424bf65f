// A file trigger's watch on a real folder: a burst of writes is one moment
// after the quiet period, the kinds of change are told apart by the files'
// stats, and what must never fire it doesn't.

import assert from 'node:assert/strict';
import { EventEmitter } from 'node:events';
import fs from 'node:fs';
import path from 'node:path';
import test from 'node:test';

import { FileWatch, filesMoment, MAX_PAYLOAD_FILES, QUIET_MS } from '../src/automations/file-watch.js';
import { isSecretFile } from '../src/automations/secret-file.js';
import { eventually, scratchFolder } from './helpers.js';

const QUIET = 150;

function write(folder, relative, text = 'x') {
  fs.mkdirSync(path.dirname(path.join(folder, relative)), { recursive: true });
  fs.writeFileSync(path.join(folder, relative), text);
}

// A watch on a scratch folder with `before` in it, started and learnt.
async function watching(t, { glob = null, event = 'created', before = [], watch } = {}) {
  const folder = await scratchFolder(t);
  for (const file of before) write(folder, file);
  const moments = [];
  const problems = [];
  const fileWatch = new FileWatch({
    folder,
    glob,
    event,
    quietMs: QUIET,
    onMoment: (moment) => moments.push(moment),
    onProblem: (problem) => problems.push(problem),
    ...(watch ? { watch } : {}),
  });
  t.after(() => fileWatch.close());
  await fileWatch.start();
  return { folder, moments, problems, fileWatch };
}

test('the quiet period is ten seconds unless a test says otherwise', () => {
  assert.equal(QUIET_MS, 10_000);
});

test('a burst of writes fires once, after the folder has been quiet', async (t) => {
  const { folder, moments, fileWatch } = await watching(t, { event: 'changed', before: ['notes.md'] });
  for (let i = 0; i < 20; i += 1) fs.appendFileSync(path.join(folder, 'notes.md'), `line ${i}\n`);
  await eventually(() => moments.length > 0, 'a moment after the burst');
  await fileWatch.settled();
  assert.deepEqual(moments, [{ detail: 'notes.md changed', payload: 'notes.md' }]);
});

const KINDS = [
  { name: 'added files are told from changed and deleted ones', event: 'created', files: ['fresh.md', 'sub/new.md'] },
  { name: 'a changed file is told from added and deleted ones', event: 'changed', files: ['keep.md'] },
  { name: 'a deleted file is told from added and changed ones', event: 'deleted', files: ['gone.md'] },
];

for (const row of KINDS) {
  test(row.name, async (t) => {
    const { folder, moments } = await watching(t, { event: row.event, before: ['keep.md', 'gone.md'] });
    write(folder, 'fresh.md');
    write(folder, 'sub/new.md');
    fs.appendFileSync(path.join(folder, 'keep.md'), 'more');
    fs.rmSync(path.join(folder, 'gone.md'));
    await eventually(() => moments.length > 0, `the ${row.event} moment`);
    assert.deepEqual(moments[0].payload.split('\n'), row.files);
  });
}

test('a file saved by replacing it counts as changed, not added', async (t) => {
  const { folder, moments } = await watching(t, { event: 'changed', before: ['doc.md'] });
  write(folder, '.doc.md.tmp', 'new text');
  fs.renameSync(path.join(folder, '.doc.md.tmp'), path.join(folder, 'doc.md'));
  await eventually(() => moments.length > 0, 'the change');
  assert.equal(moments[0].payload, 'doc.md');
});

const NEVER = ['.git/HEAD.md', 'node_modules/pkg/readme.md', 'app/node_modules/x.md', '.env', '.env.local', 'keys/server.pem',
  '.ssh/config.md', 'credentials.json', 'notes.md.swp', 'notes.md~'];

const EXCLUSIONS = [
  { name: 'nothing in .git or node_modules, no secret file and no editor leftover fires a watch of any file', glob: null, fires: ['docs/real.md'] },
  { name: 'a pattern without a slash matches a file’s name in any folder', glob: '*.md', fires: ['docs/real.md', 'top.md'], extra: ['top.md', 'other.txt'] },
  { name: 'a pattern with a folder matches from the watched folder', glob: 'docs/**', fires: ['docs/real.md'], extra: ['top.md'] },
];

for (const row of EXCLUSIONS) {
  test(row.name, async (t) => {
    const { folder, moments } = await watching(t, { glob: row.glob });
    for (const file of [...NEVER, ...(row.extra ?? []), 'docs/real.md']) write(folder, file);
    await eventually(() => moments.length > 0, 'the moment');
    assert.deepEqual(moments[0].payload.split('\n'), row.fires);
  });
}

test('what the automation’s own runs change is ignored until the time given', async (t) => {
  const { folder, moments, fileWatch } = await watching(t);
  fileWatch.ignore([path.join(folder, 'build'), 'log.md'], Date.now() + 60_000);
  fileWatch.ignore(['../elsewhere'], Date.now() + 60_000);
  write(folder, 'build/out.md');
  write(folder, 'log.md');
  write(folder, 'mine.md');
  await eventually(() => moments.length > 0, 'the moment');
  assert.equal(moments[0].payload, 'mine.md');
});

test('secret files are known by name and by the folder they are in', () => {
  for (const secret of ['.env', 'a/.env.production', 'id_ed25519', 'x/.aws/config', 'tls.key', '.npmrc']) {
    assert.equal(isSecretFile(secret), true, secret);
  }
  for (const plain of ['env.md', 'src/keyboard.js', 'docs/secretary.md', 'README.md']) assert.equal(isSecretFile(plain), false, plain);
});

test('a long list of files is named up to its limit and counted after it', () => {
  const files = Array.from({ length: MAX_PAYLOAD_FILES + 5 }, (_, i) => `f${i}.md`);
  const moment = filesMoment('deleted', files);
  assert.equal(moment.detail, `${files.length} files were deleted`);
  assert.equal(moment.payload.split('\n').length, MAX_PAYLOAD_FILES + 1);
  assert.match(moment.payload, /\nand 5 more$/);
});

const FAILURES = [
  {
    name: 'the system out of watches (ENOSPC) at the start gives a sentence, not a crash',
    watch: () => {
      throw Object.assign(new Error('watch failed'), { code: 'ENOSPC' });
    },
    problem: /fs\.inotify\.max_user_watches/,
  },
  {
    name: 'the system out of watches later gives the same sentence',
    watch: () => {
      const watcher = Object.assign(new EventEmitter(), { close() {} });
      setImmediate(() => watcher.emit('error', Object.assign(new Error('watch failed'), { code: 'ENOSPC' })));
      return watcher;
    },
    problem: /fs\.inotify\.max_user_watches/,
  },
];

for (const row of FAILURES) {
  test(row.name, async (t) => {
    const { problems } = await watching(t, { watch: row.watch });
    await eventually(() => problems.some((problem) => row.problem.test(problem ?? '')), 'the sentence');
  });
}

test('a folder that isn’t there is a sentence on the automation', async (t) => {
  const folder = await scratchFolder(t);
  const problems = [];
  const fileWatch = new FileWatch({ folder: path.join(folder, 'gone'), event: 'created', onMoment() {}, onProblem: (p) => problems.push(p) });
  t.after(() => fileWatch.close());
  await fileWatch.start();
  assert.deepEqual(problems, ['That project folder isn’t there.']);
});
