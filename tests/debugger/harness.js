'use strict';
// What tests of debuggers share: a table of tests, each with a host of its own, and a deadline for whatever they wait
// for.

const {spawn} = require('child_process');
const fs = require('fs');
const os = require('os');
const path = require('path');
const readline = require('readline');

const [hostProgram, vnjsProgram, ...chosen] = process.argv.slice(2);
const kSkipped = 77;
const kDeadline = 20000;
const running = new Set();

function within(promise, what, time = kDeadline) {
  let timer;
  const late = new Promise((_, reject) => {
    timer = setTimeout(() => reject(new Error(`nothing came within ${time} ms: ${what}`)), time);
  });
  return Promise.race([promise, late]).finally(() => clearTimeout(timer));
}

/// Waits until the condition gives something.
async function until(condition, what) {
  const end = Date.now() + kDeadline;
  for (;;) {
    const result = await condition();
    if (result) return result;
    if (Date.now() > end) throw new Error(`did not come to be: ${what}`);
    await new Promise((resolve) => setTimeout(resolve, 5));
  }
}

/// A process that ends with the test.
function start(program, ...options) {
  const child = spawn(program, options, {stdio: ['pipe', 'pipe', 'pipe']});
  running.add(child);
  child.output = '';
  for (const stream of [child.stdout, child.stderr])
    stream.setEncoding('utf8').on('data', (text) => { child.output += text; });
  child.stdin.on('error', () => {});
  child.ended = new Promise((resolve) => child.on('close', (code, signal) => {
    running.delete(child);
    resolve(signal || code);
  }));
  return child;
}

/// The process debug_host.
class Host {
  constructor(folder) {
    this.folder = folder;
    this.waiting = new Map();
    this.lastId = 0;
    this.child = start(hostProgram);
    this.port = new Promise((resolve) => readline.createInterface({input: this.child.stdout}).on('line', (line) => {
      const {id, port, result, error} = JSON.parse(line);
      if (port) return resolve(port);
      const {done, failed} = this.waiting.get(id);
      error === undefined ? done(result) : failed(new Error(error));
    }));
  }

  /// Sends a command; see debug_host.cpp.
  send(...command) {
    const answer = new Promise((done, failed) => this.waiting.set(++this.lastId, {done, failed}));
    this.child.stdin.write(JSON.stringify([this.lastId, ...command]) + '\n');
    const result = within(answer, `the answer to ${command}`);
    // A test that fails before it asks for the result is reported once.
    result.catch(() => {});
    return result;
  }

  /// Makes an environment; gives whether it has the thread's current isolate.
  make(name, threaded) {
    fs.mkdirSync(path.join(this.folder, name, 'storage'), {recursive: true});
    return this.send('make', name, path.join(this.folder, name), threaded);
  }

  run(name, code, source = 'test.js') { return this.send('run', name, code, source); }

  async end() {
    this.child.stdin.end();
    return within(this.child.ended, 'the end of the host');
  }
}

/// Runs those tests whose names were asked for, or all.
async function runTests(tests) {
  let failures = 0;
  for (const [name, test] of Object.entries(tests)) {
    if (chosen.length > 0 && !chosen.includes(name)) continue;
    const folder = fs.mkdtempSync(path.join(os.tmpdir(), 'vnjs-debugger-'));
    const host = new Host(folder);
    const begin = Date.now();
    try {
      await within(host.port, 'the port');
      await test(host);
      const status = await host.end();
      if (status !== 0) throw new Error(`the host ended with ${status}`);
      console.log(`passed  ${name} (${Date.now() - begin} ms)`);
    } catch (error) {
      ++failures;
      console.log(`FAILED  ${name}: ${error.stack}`);
      for (const child of new Set([host.child, ...running]))
        console.log(`--- output of process ${child.pid}:\n${child.output.slice(-4000)}`);
    } finally {
      for (const child of running) child.kill('SIGKILL');
      await Promise.all([...running].map((child) => child.ended));
      fs.rmSync(folder, {recursive: true});
    }
  }
  process.exit(failures > 0 ? 1 : 0);
}

module.exports = {kSkipped, runTests, start, until, vnjsProgram, within};
