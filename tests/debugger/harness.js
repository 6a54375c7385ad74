'use strict';
// What tests of debuggers share: a table of tests, each with a host and an environment of its own, and a deadline for
// whatever they wait for.

const {spawn} = require('child_process');
const fs = require('fs');
const os = require('os');
const path = require('path');
const readline = require('readline');

const [hostProgram, vnjsProgram, ...chosen] = process.argv.slice(2);
// What takes a moment may take half a minute where a sanitizer watches.
const kDeadline = 60000;
const running = new Set();
const pause = (ms) => new Promise((resolve) => setTimeout(resolve, ms));

function within(promise, what) {
  let timer;
  const late = new Promise((_, reject) => {
    timer = setTimeout(() => reject(new Error(`nothing came within ${kDeadline} ms: ${what}`)), kDeadline);
  });
  return Promise.race([promise, late]).finally(() => clearTimeout(timer));
}

/// Waits until the condition gives something.
async function until(condition, what) {
  for (const end = Date.now() + kDeadline; Date.now() < end; await pause(5)) {
    const result = await condition();
    if (result) return result;
  }
  throw new Error(`did not come to be: ${what}`);
}

/// A process that ends with the test.
function start(program, ...options) {
  const child = spawn(program, options);
  running.add(child);
  child.output = '';
  for (const stream of [child.stdout, child.stderr])
    stream.setEncoding('utf8').on('data', (text) => { child.output += text; });
  child.stdin.on('error', () => {});
  child.ended = new Promise((resolve) => child.on('close', (code, signal) => resolve(signal || code)));
  return child;
}

/// The process debug_host.
class Host {
  constructor() {
    this.folder = fs.mkdtempSync(path.join(os.tmpdir(), 'vnjs-debugger-'));
    this.child = start(hostProgram);
    this.ready = new Promise((resolve) => this.waiting = [resolve]).then((port) => this.port = port);
    const lines = readline.createInterface({input: this.child.stdout});
    lines.on('line', (line) => this.waiting.shift()(JSON.parse(line)));
  }

  /// Has a command carried out; see debug_host.cpp.
  send(...command) {
    const result = within(new Promise((resolve) => this.waiting.push(resolve)), `the answer to ${command}`);
    this.child.stdin.write(JSON.stringify(command) + '\n');
    // A test that fails before it asks for the result is reported once.
    result.catch(() => {});
    return result;
  }

  /// Makes an environment with a worker, or without.
  async make(name, threaded = true) {
    const folder = path.join(this.folder, name);
    fs.mkdirSync(path.join(folder, 'storage'), {recursive: true});
    return {
      name, folder, hasCurrentIsolate: await this.send('make', name, folder, threaded),
      run: (code, source = 'test.js') => this.send('run', name, code, source),
      // Gives callbacks their turn.
      pump: (time) => threaded ? pause(time) : this.send('pump', name, time),
      destroy: () => this.send('destroy', name),
    };
  }

  /// What `read` makes of the entries of a folder that the system keeps of the process, but for those that go meanwhile.
  listProcess(folder, read) {
    folder = `/proc/${this.child.pid}/${folder}/`;
    const tryRead = (name) => { try { return read(folder + name); } catch (error) { return []; } };
    return fs.readdirSync(folder).flatMap(tryRead);
  }

  async end() {
    this.child.stdin.end();
    const status = await within(this.child.ended, 'the end of the host');
    if (status !== 0) throw new Error(`the host ended with ${status}`);
  }
}

/// Runs those tests whose names were asked for, or all, in an environment with a worker; those of the second table in
/// one without as well.
async function runTests(tests, testsOfBoth = {}) {
  const threaded = Object.entries({...tests, ...testsOfBoth}).map((entry) => [...entry, true]);
  for (const [name, test, worker] of [...threaded, ...Object.entries(testsOfBoth)]) {
    if (chosen.length > 0 && !chosen.includes(name)) continue;
    const host = new Host();
    try {
      await within(host.ready, 'the port');
      await test(await host.make('house', worker === true), host);
      await host.end();
      console.log(`passed  ${name}`);
    } catch (error) {
      process.exitCode = 1;
      console.log(`FAILED  ${name}${worker ? '' : ' without a worker'}: ${error.stack}`);
      for (const {pid, output} of running) console.log(`--- process ${pid}:\n${output.slice(-4000)}`);
    }
    for (const child of running) child.kill('SIGKILL');
    await Promise.all([...running].map((child) => child.ended));
    running.clear();
    fs.rmSync(host.folder, {recursive: true});
  }
  process.exit();
}

module.exports = {pause, runTests, start, until, vnjsProgram, within};
