'use strict';
// Debuggers that we did not write, Node's own and a client library: what is paused, shown and resumed, in what state the
// environment may be for it, and what clients may do to each other and to the host.

const assert = require('assert');
const fs = require('fs');
const path = require('path');
const {pathToFileURL} = require('url');
const {pause, runTests, start, until, vnjsProgram, within} = require('./harness');

let Connection, listTargets;
try {
  ({Connection, listTargets} = require('./protocol'));
} catch (error) {
  console.log(`skipped: ${error.message}`);
  process.exit(77);
}

const kAutomation = `var lamps = ['hall', 'stairs'];
function brightness(lamp) {
  var level = lamp.length * 10;
  return level + 1;
}
debugPrint(lamps.map(brightness).join());
`;
const kWatch = 'var ticks = 0; var timer = setInterval(function tick() {\n  ++ticks;\n}, 20);';

/// One client of one environment. Remembers all events, so that none is missed.
class Client {
  static async attach(host, {folder}, ...domains) {
    const self = new Client();
    self.events = [];
    self.scripts = {};
    const target = (targets) => targets.find(({title}) => title === folder + '/');
    const onEvent = (event) => {
      self.events.push(event);
      if (event.method === 'Debugger.scriptParsed') self.scripts[event.params.scriptId] = event.params.url;
    };
    self.connection = await within(Connection.open(host.port, target, onEvent), 'attaching');
    self.closed = self.connection.closed;
    for (const domain of ['Debugger', ...domains]) await self.send(`${domain}.enable`);
    return self;
  }

  send(method, parameters) { return within(this.connection.send(method, parameters), method); }

  /// Asks, and waits for no answer.
  tell(method, parameters) { this.connection.send(method, parameters).catch(() => {}); }

  /// The value of an expression.
  async ask(method, parameters) { return (await this.send(method, {...parameters, returnByValue: true})).result.value; }
  evaluate(expression) { return this.ask('Runtime.evaluate', {expression}); }
  onFrame(expression) { return this.ask('Debugger.evaluateOnCallFrame', {callFrameId: this.frame, expression}); }

  all(method) { return this.events.filter((event) => event.method === method).map(({params}) => params); }

  /// Takes the first event of that name, and all before it, away.
  next(method) {
    return until(() => {
      const index = this.events.findIndex((event) => event.method === method);
      return index >= 0 && this.events.splice(0, index + 1)[index].params;
    }, method);
  }

  /// Waits for a pause there: "FUNCTION SOURCE:LINE".
  async expectPause(place) {
    const event = await this.next('Debugger.paused');
    const [{callFrameId, functionName, location}] = event.callFrames;
    this.frame = callFrameId;
    assert.equal(`${functionName} ${this.scripts[location.scriptId]}:${location.lineNumber + 1}`, place);
    return event;
  }

  breakAt(url, line) { return this.send('Debugger.setBreakpointByUrl', {url, lineNumber: line - 1}); }
  resume() { return this.send('Debugger.resume'); }
  vanish() { this.connection.vanish(); }
}

/// A client that has stopped the timer of that environment.
async function pauseIn(host, environment) {
  await environment.run(kWatch, 'watch.js');
  const client = await Client.attach(host, environment);
  await client.breakAt('watch.js', 2);
  await client.expectPause('tick watch.js:2');
  return client;
}

const kRunner = `var done = 0;
on('work', () => {
  ++done;
});
on('spin', () => { for (;;); });
`;

const testsOfBoth = {
  async busyLoop(house, host) {
    const result = house.run('var stop = false, n = 0;\nwhile (!stop) ++n;\n"ended"', 'loop.js');
    const client = await Client.attach(host, house, 'Runtime');
    await until(() => client.evaluate('n > 1000'), 'the loop');
    await client.send('Debugger.pause');
    await client.expectPause(' loop.js:2');
    const n = await client.onFrame('n');
    assert.equal(await client.onFrame('n'), n);
    await client.resume();
    await until(async () => await client.evaluate('n') > n, 'the loop going on');
    await client.evaluate('stop = true');
    assert.equal(await result, '"ended"');
  },

  async exceptions(house, host) {
    const client = await Client.attach(host, house);
    const code = 'try {\n  throw new Error("caught");\n} catch (e) {}\nthrow new Error("boom");';
    for (const [state, lines] of [['all', [2, 4]], ['uncaught', [4]], ['none', []]]) {
      await client.send('Debugger.setPauseOnExceptions', {state});
      const result = house.run(code, 'throw.js');
      for (const line of lines) {
        const {reason, data} = await client.expectPause(` throw.js:${line}`);
        assert.deepEqual([reason, data.uncaught], ['exception', line === 4]);
        await client.resume();
      }
      assert.equal(await result, 'Uncaught Error: boom', state);
    }
    assert.deepEqual(client.all('Debugger.paused'), []);
  },

  async pauseWhileIdle(house, host) {
    const client = await Client.attach(host, house);
    await client.send('Debugger.pause');
    const result = house.run('\n' + kWatch, 'watch.js');
    await client.expectPause(' watch.js:2');
    await client.resume();
    assert.equal(await result, 'undefined');
    await client.send('Debugger.pause');
    const pumped = house.pump(200);
    await client.expectPause('tick watch.js:3');
    const ticks = await client.onFrame('ticks');
    await client.resume();
    await pumped;
    await until(async () => await client.evaluate('ticks') > ticks, 'the timer going on');
  },

  /// What a client has paused goes on when it has gone, and its breakpoints have gone with it.
  async vanishing(house, host) {
    for (let i = 0; i < 3; ++i) {
      let client = await Client.attach(host, house);
      await client.breakAt('loop.js', 2);
      const result = house.run('for (var i = 0; i < 5; ++i)\n  i += 0;\ni', 'loop.js');
      await client.expectPause(' loop.js:2');
      client.vanish();
      assert.equal(await result, '5');

      client = await Client.attach(host, house);
      client.tell('Runtime.evaluate', {expression: 'debugger; var evaluated = true;'});
      await client.next('Debugger.paused');
      client.vanish();
      assert.equal(await house.run('evaluated'), 'true');
    }
  },
};

const tests = {
  /// Node's command-line debugger finds an automation, stops in it, shows variables, steps and lets it go on.
  async inspect(house, host) {
    const file = path.join(host.folder, 'lamps.js');
    fs.writeFileSync(file, kAutomation);
    const refused = start(vnjsProgram, 'run', `--debug-brk=${host.port}`, file);
    assert.notEqual(await refused.ended, 0);
    assert.match(refused.output, /cannot open port/);
    // The one free port that is known: the host's, once it has ended.
    await host.end();
    const program = start(vnjsProgram, 'run', `--debug-brk=${host.port}`, file);
    await until(() => program.output.includes(`127.0.0.1:${host.port}`), 'the address');
    const inspector = start(process.execPath, 'inspect', `127.0.0.1:${host.port}`);
    // What a person types, and what the debugger must say to it.
    for (const [command, pattern] of [
             ['', /Break on start in .*lamps\.js:1/], ['setBreakpoint(3)', /debug> /],
             ['cont', /break in .*lamps\.js:3[^]*> 3   var level/], ['exec lamp', /'hall'/],
             ['backtrace', /#0 brightness .*lamps\.js:3:\d+\s+.*#1/], ['next', /break in .*lamps\.js:4/],
             ['exec [lamp, level].join()', /'hall,40'/], ['cont', /break in .*lamps\.js:3/], ['exec lamp', /'stairs'/],
             ['clearBreakpoint("lamps.js", 3)', /debug> /]]) {
      if (command !== '') inspector.stdin.write(command + '\n');
      const found = await until(() => pattern.exec(inspector.output), pattern);
      inspector.output = inspector.output.slice(found.index + found[0].length);
    }
    assert.ok(!program.output.includes('41,61'));
    inspector.stdin.write('cont\n');
    assert.equal(await program.ended, 0);
    assert.match(program.output, /41,61/);
    inspector.stdin.write('.exit\n');
    assert.equal(await inspector.ended, 0);
  },

  async profiles(house, host) {
    const client = await Client.attach(host, house, 'Profiler', 'HeapProfiler');
    await client.send('Profiler.start');
    await house.run('function burn() { for (var end = Date.now() + 200; Date.now() < end;); } burn();', 'burn.js');
    const {profile: {nodes}} = await client.send('Profiler.stop');
    // A sample is enough: how many there are is the machine's affair.
    assert.ok(nodes.some(({callFrame: {functionName, url}}) => functionName === 'burn' && url === 'burn.js'));

    await house.run('class Lamp9000 {}; var kept = new Lamp9000();', 'lamp.js');
    await client.send('HeapProfiler.takeHeapSnapshot');
    const chunks = client.all('HeapProfiler.addHeapSnapshotChunk').map(({chunk}) => chunk);
    const snapshot = JSON.parse(chunks.join(''));
    assert.ok(chunks.length > 1 && snapshot.nodes.length > 10000 && snapshot.strings.includes('Lamp9000'));
  },

  async console(house, host) {
    await house.run('debugPrint("before", 1); nowhere();', 'a.js');
    const client = await Client.attach(host, house, 'Runtime');
    await house.run('debugPrint("\u00e4fter \u{1F4A1}"); setTimeout(function () { thrower(); }, 1);', 'b.js');
    const lines = () => client.all('Runtime.consoleAPICalled').map(({type, args: [{value}]}) => `${type} ${value}`);
    await until(() => lines().length === 6, 'the lines');
    [/^log Executing script: debugPrint/, /^log before 1$/, /^error result: Error: ReferenceError: .*\n +at a\.js:1:26/,
     /^log Executing/, /^log \u00e4fter \u{1F4A1}$/u, /^error Callback execution error: ReferenceError: thrower is/]
        .forEach((pattern, i) => assert.match(lines()[i], pattern));
  },

  async pausedBesideRunning(house, host) {
    await house.run(kWatch, 'watch.js');
    const garden = await host.make('garden');
    const client = await pauseIn(host, garden);
    await until(async () => Number(await house.run('ticks')) > 5, 'the timer of the other environment');
    assert.equal(await garden.run('var ran = true'), 'Code took too long to return result');
    await within(client.connection.close(), 'detaching');
    assert.equal(await garden.run('typeof ran'), '"undefined"');
  },

  async ending(house, host) {
    await house.destroy();
    const name = (entry) => fs.readFileSync(`${entry}/comm`, 'utf8').trim();
    const threads = () => host.listProcess('task', name).sort().join();
    await until(() => /V8 Default.*vorn.debug$/.test(threads()), 'the threads that stay');
    const before = threads();
    for (let i = 0; i < 3; ++i) {
      const environments = [await host.make('first'), await host.make('second')];
      assert.deepEqual(environments.map(({hasCurrentIsolate}) => hasCurrentIsolate), [true, false]);
      const clients = [await pauseIn(host, environments[0]), await pauseIn(host, environments[1])];
      await clients[0].onFrame('global.name = "first"');
      assert.equal(await clients[1].onFrame('typeof global.name'), 'undefined');
      for (const client of clients) {
        await environments.shift().destroy();
        assert.deepEqual(await client.next('Inspector.detached'), {reason: 'target_closed'});
        await within(client.closed, 'the close');
      }
      await until(() => threads() === before, 'no thread left');
      assert.deepEqual(await listTargets(host.port), []);
    }
  },

  /// Time in which a client has a runner's callback paused does not count against its limit; what spins is ended.
  async runner(house, host) {
    const folder = path.join(host.folder, 'runner');
    assert.equal(await host.send('make_runner', 'runner', folder, kRunner), '');
    const client = await Client.attach(host, {folder});
    await client.breakAt('runner.js', 3);
    await host.send('emit', 'runner', 'work');
    await client.expectPause(' runner.js:3');
    await pause(1000);
    await client.resume();
    await until(() => client.evaluate('done'), 'the rest of the callback');
    assert.deepEqual(await host.send('figures', 'runner'), [1, 0, 0]);
    await host.send('emit', 'runner', 'spin');
    await until(async () => (await host.send('figures', 'runner'))[1] === 1, 'the end of what spins');
    await host.send('emit', 'runner', 'work');
    await client.expectPause(' runner.js:3');
    await client.resume();
    await until(async () => await client.evaluate('done') === 2, 'the next callback');
    assert.deepEqual((await host.send('figures', 'runner')).slice(1), [1, 0]);
  },

  /// What clients have set going for ever ends with the environment, wherever it runs.
  async endless(house, host) {
    await house.destroy();
    const loop = {expression: 'for (;;);', includeCommandLineAPI: true};
    const begin = {
      idle: (client) => [1, 2].forEach(() => client.tell('Runtime.evaluate', loop)),
      async busy(client, environment) {
        environment.run('setTimeout(function () { for (var end = Date.now() + 200; Date.now() < end;); }, 1)');
        await environment.run('1');
        client.tell('Runtime.evaluate', loop);
      },
      async paused(client, environment) {
        await environment.run('setTimeout(function late() { debugger; }, 1)', 'late.js');
        await client.expectPause('late late.js:1');
        client.tell('Debugger.evaluateOnCallFrame', {...loop, callFrameId: client.frame});
      },
    };
    for (const name of ['idle', 'busy', 'paused']) {
      const environment = await host.make(name);
      const client = await Client.attach(host, environment);
      await begin[name](client, environment);
      await pause(300);
      // Asks on and on, also while the environment ends.
      const asking = setInterval(() => client.tell('Runtime.evaluate', {expression: '1'}), 1);
      await environment.destroy();
      assert.deepEqual(await client.next('Inspector.detached'), {reason: 'target_closed'});
      clearInterval(asking);
    }
  },

  /// What comes right after the end of a script was asked for is answered when it has ended.
  async terminating(house, host) {
    const client = await Client.attach(host, house, 'Runtime');
    const result = house.run('var n = 0; while (true) ++n;');
    await until(() => client.evaluate('n > 1000'), 'the loop');
    client.tell('Runtime.terminateExecution');
    const {result: {value}} = await client.send('Runtime.evaluate', {expression: '1 + 2', includeCommandLineAPI: true});
    assert.equal(value, 3);
    assert.equal(await result, 'Script execution was interrupted');
  },

  /// Neither a client's code nor the engine's debugger, which gives a full heap more room, gets in the way.
  async limits(house, host) {
    const client = await Client.attach(host, house, 'Runtime');
    await house.run('setTimeout(() => { for (;;); }, 1)');
    client.tell('Runtime.evaluate', {expression: 'for (;;);'});
    await pause(300);
    await host.send('interrupt', 'house');
    assert.equal(await house.run('let list = []; for (;;) list.push(Array(1000).fill(list))'), 'Script ran out of memory');
    assert.equal(await client.evaluate('1'), 1);
  },

  async sources(house, host) {
    const client = await Client.attach(host, house);
    const file = '/srv/gr\u00f6\u00dfe #1.js';
    for (const map of ['data:application/json;base64,e30=', 'lamps.js.map', 'file:///srv/lamps.js.map']) {
      const code = `var \u00e4 = "\u{1F4A1}";\n//# sourceMappingURL=${map}\n`;
      await house.run(code, file);
      const {url, sourceMapURL, scriptId} = await client.next('Debugger.scriptParsed');
      const {scriptSource} = await client.send('Debugger.getScriptSource', {scriptId});
      assert.deepEqual([url, sourceMapURL, scriptSource], [pathToFileURL(file).href, map, code]);
    }
  },
};

runTests(tests, testsOfBoth);
