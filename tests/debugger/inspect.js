'use strict';
// Node's command-line debugger: whether it finds an automation, stops in it, shows variables, steps and lets it go on.

const assert = require('assert');
const fs = require('fs');
const path = require('path');
const {runTests, start, until, vnjsProgram} = require('./harness');

const kAutomation = `var lamps = ['hall', 'stairs'];
function brightness(lamp) {
  var level = lamp.length * 10;
  return level + 1;
}
debugPrint(lamps.map(brightness).join());
`;

/// What a person types, and what the debugger must say to it.
class Inspector {
  constructor(port) {
    this.child = start(process.execPath, 'inspect', `127.0.0.1:${port}`);
    this.seen = 0;
  }

  async expect(pattern) {
    const found = await until(() => pattern.exec(this.child.output.slice(this.seen)), pattern);
    this.seen += found.index + found[0].length;
    return found;
  }

  async type(command, pattern) {
    this.child.stdin.write(command + '\n');
    return this.expect(pattern);
  }

  async end() {
    this.child.stdin.write('.exit\n');
    assert.equal(await this.child.ended, 0);
  }
}

runTests({
  async breakpoint(host) {
    await host.make('kitchen', true);
    const inspector = new Inspector(await host.port);
    await inspector.expect(/debug> /);
    await inspector.type("setBreakpoint('lamps.js', 3)", /debug> /);
    const result = host.run('kitchen', kAutomation, 'lamps.js');
    await inspector.expect(/break in .*lamps\.js:3/);
    await inspector.expect(/> 3   var level/);
    await inspector.type('exec lamp', /'hall'/);
    await inspector.type('backtrace', /#0 brightness lamps\.js:3:\d+\s+.*#1/);
    await inspector.type('next', /break in .*lamps\.js:4/);
    await inspector.type('exec level', /\b40\b/);
    await inspector.type('cont', /break in .*lamps\.js:3/);
    await inspector.type('exec lamp', /'stairs'/);
    await inspector.type("clearBreakpoint('lamps.js', 3)", /debug> /);
    await inspector.type('cont', /debug> /);
    assert.deepEqual(await result, {text: 'undefined', failed: false, at: ':0'});
    await inspector.end();
  },

  async breakOnStart(host) {
    const file = path.join(host.folder, 'lamps.js');
    fs.writeFileSync(file, kAutomation);
    // The one free port that is known: the host's, once it has ended.
    const port = await host.port;
    await host.end();
    const program = start(vnjsProgram, 'run', `--debug-brk=${port}`, file);
    await until(() => program.output.includes(`127.0.0.1:${port}`), 'the address');
    const inspector = new Inspector(port);
    await inspector.expect(/Break on start in .*lamps\.js:1/);
    assert.ok(!program.output.includes('41,61'));
    await inspector.type("setBreakpoint(4)", /debug> /);
    await inspector.type('cont', /break in .*lamps\.js:4/);
    await inspector.type('exec [lamp, level].join()', /'hall,40'/);
    await inspector.type('clearBreakpoint("lamps.js", 4)', /debug> /);
    await inspector.type('cont', /debug> /);
    assert.equal(await program.ended, 0);
    assert.match(program.output, /41,61/);
    await inspector.end();
  },
});
