// What Linux's /proc tells about a process: its parents, its name, its
// environment and the Unix sockets it listens on. Every read is of the
// person's own processes; one that can't be read counts as gone.

import fs from 'node:fs';

/** Parents followed at most, so that a loop in a broken table ends. */
export const MAX_ANCESTORS = 64;

/** The most of a process's environment read, in bytes. */
const MAX_ENVIRON_BYTES = 256 * 1024;

/** Open files looked at for a listening socket. */
const MAX_FDS = 1024;

const isPid = (pid) => Number.isSafeInteger(pid) && pid > 0;

// The fields after the name, which may hold spaces and parentheses itself.
function statFields(pid) {
  try {
    const stat = fs.readFileSync(`/proc/${pid}/stat`, 'utf8');
    return { comm: stat.slice(stat.indexOf('(') + 1, stat.lastIndexOf(')')), rest: stat.slice(stat.lastIndexOf(')') + 2).split(' ') };
  } catch {
    return null;
  }
}

/** @return {string|null} The process's short name (its comm), or null when it is gone. */
export function commOf(pid) {
  return isPid(pid) ? (statFields(pid)?.comm ?? null) : null;
}

/** @return {number|null} When the process started, in clock ticks since boot: with the pid, who it is. */
export function startOf(pid) {
  const fields = isPid(pid) ? statFields(pid) : null;
  return fields === null ? null : Number(fields.rest[19]);
}

/** @return {number[]} The process and its parents up to init, nearest first; empty when it is gone. */
export function ancestorsOf(pid) {
  const chain = [];
  for (let at = pid; isPid(at) && at !== 1 && chain.length < MAX_ANCESTORS; ) {
    const fields = statFields(at);
    if (fields === null) break;
    chain.push(at);
    at = Number(fields.rest[1]);
  }
  return chain;
}

/** @return {Object<string, string>} The environment the process started with; empty when it can't be read. */
export function environOf(pid) {
  let raw;
  try {
    const handle = fs.openSync(`/proc/${pid}/environ`, 'r');
    try {
      const buffer = Buffer.alloc(MAX_ENVIRON_BYTES);
      raw = buffer.subarray(0, fs.readSync(handle, buffer, 0, MAX_ENVIRON_BYTES, 0)).toString('utf8');
    } finally {
      fs.closeSync(handle);
    }
  } catch {
    return {};
  }
  const environment = {};
  for (const entry of raw.split('\0')) {
    const at = entry.indexOf('=');
    if (at > 0) environment[entry.slice(0, at)] = entry.slice(at + 1);
  }
  return environment;
}

/** @return {string[]} The paths of the Unix sockets the process holds open with a name. */
export function socketPathsOf(pid) {
  const inodes = new Set();
  try {
    for (const fd of fs.readdirSync(`/proc/${pid}/fd`).slice(0, MAX_FDS)) {
      let target = '';
      try {
        target = fs.readlinkSync(`/proc/${pid}/fd/${fd}`);
      } catch {
        // closed meanwhile
      }
      const inode = /^socket:\[(\d+)\]$/.exec(target)?.[1];
      if (inode) inodes.add(inode);
    }
    // Num RefCount Protocol Flags Type St Inode Path
    return fs
      .readFileSync('/proc/net/unix', 'utf8')
      .split('\n')
      .slice(1)
      .map((line) => line.trim().split(/\s+/))
      .filter((fields) => fields.length >= 8 && inodes.has(fields[6]) && fields[7].startsWith('/'))
      .map((fields) => fields[7]);
  } catch {
    return [];
  }
}
