'use strict';
// The protocol, spoken by a client library that we did not write: what is paused, shown and resumed, in what state the
// environment may be for it, and what clients may do to each other and to the host.

const assert = require('assert');
const fs = require('fs');
const path = require('path');
const {pathToFileURL} = require('url');
const {kSkipped, runTests, until, within} = require('./harness');

let CDP;
try {
  CDP = require('chrome-remote-interface');
} catch (error) {
  console.log(`skipped: ${error.message}`);
  process.exit(kSkipped);
}

const kFine = {text: 'undefined', failed: false, at: ':0'};
const kLamps = `function dim(lamp) {
  var level = lamp * 2;
  return level;
}
var sum = 0;
for (var i = 0; i < 5; ++i) sum += dim(i);
sum;
`;
const kWatch = 'var ticks = 0; var timer = setInterval(function tick() {\n  ++ticks;\n}, 20);';

/// One client of one environment. Remembers all events, so that none is missed.
class Client {
  static async attach(host, name, ...domains) {
    const address = {host: '127.0.0.1', port: await host.port, local: true};
    const target = (targets) => targets.find(({title}) => path.basename(title) === name);
    const self = new Client();
    self.events = [];
    self.cdp = await within(CDP({...address, target}), 'attaching');
    self.scripts = {};
    self.cdp.on('event', (event) => {
      self.events.push(event);
      if (event.method === 'Debugger.scriptParsed') self.scripts[event.params.scriptId] = event.params.url;
    });
    self.closed = new Promise((resolve) => self.cdp.on('disconnect', resolve));
    for (const domain of domains) await self.send(`${domain}.enable`);
    return self;
  }

  send(method, parameters) { return within(this.cdp.send(method, parameters), method); }

  /// Takes the first event of that name, and all before it, away.
  next(method) {
    return until(() => {
      const index = this.events.findIndex((event) => event.method === method);
      return index >= 0 && this.events.splice(0, index + 1)[index].params;
    }, method);
  }

  /// Where it has paused: "FUNCTION SOURCE:LINE".
  async paused() {
    const {callFrames: [frame], reason, data} = await this.next('Debugger.paused');
    this.frame = frame.callFrameId;
    this.reason = reason;
    this.data = data;
    return `${frame.functionName} ${this.scripts[frame.location.scriptId]}:${frame.location.lineNumber + 1}`;
  }

  async evaluate(expression) {
    return (await this.send('Runtime.evaluate', {expression, returnByValue: true})).result.value;
  }

  async evaluateOnFrame(expression) {
    const parameters = {callFrameId: this.frame, expression, returnByValue: true};
    return (await this.send('Debugger.evaluateOnCallFrame', parameters)).result.value;
  }

  breakAt(url, line, condition) {
    return this.send('Debugger.setBreakpointByUrl', {url, lineNumber: line - 1, condition});
  }

  resume() { return this.send('Debugger.resume'); }
  detach() { return within(this.cdp.close(), 'detaching'); }
  vanish() { this.cdp._ws.terminate(); }

  /// Messages of the console, of the kinds asked for.
  console(...types) {
    const isWanted = ({method, params}) => method === 'Runtime.consoleAPICalled' && types.includes(params.type);
    return this.events.filter(isWanted).map(({params}) => params.args.map(({value}) => value).join());
  }
}

function bothWays(test) {
  return async (host) => {
    for (const threaded of [true, false]) {
      const name = threaded ? 'threaded' : 'unthreaded';
      await host.make(name, threaded);
      // Gives the callbacks of both kinds their turn.
      await test(host, name, (time) => threaded ? null : host.send('pump', name, time));
      await host.send('destroy', name);
    }
  };
}

const tests = {
  busyLoop: bothWays(async (host, name) => {
    const result = host.run(name, 'var stop = false, n = 0;\nwhile (!stop) ++n;\n"ended"', 'loop.js');
    const client = await Client.attach(host, name, 'Runtime', 'Debugger');
    await until(() => client.evaluate('n > 1000'), 'the loop');
    await client.send('Debugger.pause');
    assert.equal(await client.paused(), ' loop.js:2');
    const n = await client.evaluateOnFrame('n');
    assert.equal(await client.evaluateOnFrame('n'), n);
    await client.resume();
    await until(async () => await client.evaluate('n') > n, 'the loop going on');
    await client.evaluate('stop = true');
    assert.deepEqual(await result, {...kFine, text: '"ended"'});
  }),

  breakpoints: bothWays(async (host, name) => {
    const client = await Client.attach(host, name, 'Debugger');
    const file = path.join(host.folder, 'lamps.js');
    fs.writeFileSync(file, kLamps);
    const url = pathToFileURL(file).href;
    await client.breakAt(url, 2, 'lamp == 3');
    const result = host.send('runFile', name, file);
    assert.equal(await client.paused(), `dim ${url}:2`);
    assert.deepEqual(await client.evaluateOnFrame('[lamp, i, sum]'), [3, 3, 6]);
    await client.evaluateOnFrame('lamp = 50');
    // A step is a statement, or a part of the loop's head.
    for (const [step, place] of [['Over', 'dim:3'], ['Out', ':6'], ['Over', ':6'], ['Into', ':6'], ['Into', 'dim:2']]) {
      await client.send(`Debugger.step${step}`);
      assert.equal(await client.paused(), place.replace(':', ` ${url}:`));
    }
    await client.resume();
    assert.deepEqual(await result, {...kFine, text: '114'});
    await client.detach();
  }),

  async scripts(host) {
    await host.make('house', true);
    await host.run('house', 'function old() {}\n', 'before/old.js');
    const client = await Client.attach(host, 'house', 'Debugger');
    await host.run('house', 'var a = 1;\nvar b = a +\n', 'broken.js');
    await host.run('house', kLamps, 'new lamps.js');
    await host.run('house', 'var ä = "\u{1F4A1}";', 'größe.js');
    for (const [url, kind, text] of [
             ['before/old.js', 'scriptParsed', 'function old() {}\n'], ['new lamps.js', 'scriptParsed', kLamps],
             ['broken.js', 'scriptFailedToParse', 'var a = 1;\nvar b = a +\n'],
             ['größe.js', 'scriptParsed', 'var ä = "\u{1F4A1}";']]) {
      const {method, params: {scriptId, startLine}} = client.events.find(({params}) => params.url === url);
      const {scriptSource} = await client.send('Debugger.getScriptSource', {scriptId});
      assert.deepEqual([method, startLine, scriptSource], [`Debugger.${kind}`, 0, text]);
    }
  },

  exceptions: bothWays(async (host, name, pump) => {
    const client = await Client.attach(host, name, 'Debugger');
    const code = 'try {\n  throw new Error("caught");\n} catch (e) {}\nthrow new Error("boom");';
    const failure = {text: 'Uncaught Error: boom', failed: true, at: 'throw.js:4'};
    for (const [state, lines] of [['all', [2, 4]], ['uncaught', [4]], ['none', []]]) {
      await client.send('Debugger.setPauseOnExceptions', {state});
      const result = host.run(name, code, 'throw.js');
      for (const line of lines) {
        assert.equal(await client.paused(), ` throw.js:${line}`, state);
        assert.deepEqual([client.reason, client.data.uncaught], ['exception', line === 4]);
        await client.resume();
      }
      assert.deepEqual(await result, failure, state);
      if (state === 'none') continue;
      await host.run(name, 'setTimeout(function late() {\n  throw 1;\n}, 1)', 'timer.js');
      const pumped = pump(100);
      assert.equal(await client.paused(), 'late timer.js:2', state);
      await client.resume();
      await pumped;
    }
    assert.deepEqual(client.events.filter(({method}) => method === 'Debugger.paused'), []);
    await client.detach();
  }),

  pauseWhileIdle: bothWays(async (host, name, pump) => {
    const client = await Client.attach(host, name, 'Debugger');
    assert.equal(await client.evaluate('typeof debugPrint'), 'function');
    await client.send('Debugger.pause');
    const result = host.run(name, '\nvar first = 1;', 'first.js');
    assert.equal(await client.paused(), ' first.js:2');
    await client.resume();
    assert.deepEqual(await result, kFine);
    await host.run(name, kWatch, 'watch.js');
    await client.send('Debugger.pause');
    const pumped = pump(200);
    assert.equal(await client.paused(), 'tick watch.js:2');
    const ticks = await client.evaluateOnFrame('ticks');
    await client.resume();
    await pumped;
    await until(async () => await client.evaluate('ticks') > ticks, 'the timer going on');
    await client.detach();
  }),

  async profiles(host) {
    await host.make('house', true);
    const client = await Client.attach(host, 'house', 'Profiler', 'HeapProfiler');
    await client.send('Profiler.start');
    const code = 'function burn() { for (var end = Date.now() + 200; Date.now() < end;); } burn();';
    await host.run('house', code, 'burn.js');
    const {profile} = await client.send('Profiler.stop');
    // A sample is enough: how many there are is the machine's affair.
    const burning = profile.nodes.find(({callFrame}) => callFrame.functionName === 'burn');
    assert.ok(burning, 'no sample of the busy function');
    assert.equal(burning.callFrame.url, 'burn.js');

    await host.run('house', 'class Lamp9000 {}; var kept = new Lamp9000();', 'lamp.js');
    await client.send('HeapProfiler.takeHeapSnapshot');
    const chunks = client.events.filter(({method}) => method === 'HeapProfiler.addHeapSnapshotChunk');
    const snapshot = JSON.parse(chunks.map(({params}) => params.chunk).join(''));
    assert.ok(chunks.length > 1 && snapshot.nodes.length > 10000);
    assert.ok(snapshot.strings.includes('Lamp9000'));
  },

  async console(host) {
    await host.make('house', true);
    await host.run('house', 'debugPrint("before", 1); nowhere();', 'a.js');
    const client = await Client.attach(host, 'house', 'Runtime');
    const before = ['Executing script: debugPrint("before", 1); nowhere();', 'before 1'];
    await until(() => client.console('log').length === 2, 'the lines from before');
    assert.deepEqual(client.console('log'), before);
    await host.run('house', 'debugPrint("\u00e4fter \u{1F4A1}"); setTimeout(function () { thrower(); }, 1);', 'b.js');
    await until(() => client.console('error').length === 2, 'the errors');
    assert.match(client.console('error')[0], /^result: Error: ReferenceError: nowhere is not defined\n +at a\.js:1:26/);
    assert.match(client.console('error')[1], /^Callback execution error: ReferenceError: thrower is/);
    assert.equal(client.console('log').pop(), '\u00e4fter \u{1F4A1}');
  },

  async twoClients(host) {
    await host.make('house', true);
    const [one, two] = [await Client.attach(host, 'house', 'Debugger'), await Client.attach(host, 'house', 'Debugger')];
    await one.breakAt('lamps.js', 7);
    let result = host.run('house', kLamps, 'lamps.js');
    for (const client of [one, two]) assert.equal(await client.paused(), ' lamps.js:7');
    assert.equal(await two.evaluateOnFrame('sum'), 20);
    await one.resume();
    await two.next('Debugger.resumed');
    assert.equal((await result).text, '20');

    // One goes and takes its breakpoints along; the other one's stay, and the one that comes again has none.
    await two.breakAt('lamps.js', 2, 'lamp == 4');
    await one.detach();
    result = host.run('house', kLamps, 'lamps.js');
    assert.equal(await two.paused(), 'dim lamps.js:2');
    const again = await Client.attach(host, 'house', 'Debugger');
    assert.equal(await again.paused(), 'dim lamps.js:2');
    await two.detach();
    assert.equal(await again.evaluateOnFrame('sum'), 12);
    await again.resume();
    assert.equal((await result).text, '20');
  },

  vanishing: bothWays(async (host, name) => {
    for (let i = 0; i < 3; ++i) {
      let client = await Client.attach(host, name, 'Debugger');
      await client.breakAt('lamps.js', 2);
      const result = host.run(name, kLamps, 'lamps.js');
      assert.equal(await client.paused(), 'dim lamps.js:2');
      client.vanish();
      assert.deepEqual(await result, {...kFine, text: '20'});

      client = await Client.attach(host, name, 'Debugger');
      client.cdp.send('Runtime.evaluate', {expression: 'debugger; var evaluated = true;'}).catch(() => {});
      await client.paused();
      client.vanish();
      assert.equal((await host.run(name, 'evaluated')).text, 'true');
    }
  }),

  async pausedBesideRunning(host) {
    for (const name of ['paused', 'running']) {
      await host.make(name, true);
      await host.run(name, kWatch, 'watch.js');
    }
    const [client, other] = [await Client.attach(host, 'paused', 'Debugger'), await Client.attach(host, 'running')];
    await client.breakAt('watch.js', 2);
    assert.equal(await client.paused(), 'tick watch.js:2');
    const ticks = await other.evaluate('ticks');
    await until(async () => Number((await host.run('running', 'ticks')).text) > ticks + 5, 'the other timer');
    const begin = Date.now();
    const late = {...kFine, text: 'Code took too long to return result', failed: true};
    assert.deepEqual(await host.run('paused', 'var ran = true'), late);
    assert.ok(Date.now() - begin >= 9900 && Date.now() - begin < 30000, `${Date.now() - begin} ms`);
    await client.detach();
    assert.deepEqual(await host.run('paused', 'typeof ran'), {...kFine, text: '"undefined"'});
  },

  async ending(host) {
    const threads = async () => (await host.send('threads')).sort().join();
    await until(async () => (await threads()).includes('V8 Default'), 'the engine\'s own thread');
    const before = await threads();
    const end = async (name, client) => {
      await host.send('destroy', name);
      assert.deepEqual(await client.next('Inspector.detached'), {reason: 'target_closed'});
      await within(client.closed, 'the close');
    };
    const pauseIn = async (name) => {
      await host.run(name, kWatch, 'watch.js');
      const client = await Client.attach(host, name, 'Debugger');
      await client.breakAt('watch.js', 2);
      assert.equal(await client.paused(), 'tick watch.js:2');
      return client;
    };
    for (let i = 0; i < 3; ++i) {
      // Each time, the first takes the process's current isolate, and the second one of its own.
      assert.equal(await host.make('first', true), true);
      assert.equal(await host.make('second', true), false);
      const [first, second] = [await pauseIn('first'), await pauseIn('second')];
      await first.evaluateOnFrame('global.name = "first"');
      assert.equal(await second.evaluateOnFrame('typeof global.name'), 'undefined');
      await end('first', first);
      await end('second', second);
      await until(async () => await threads() === before, 'no thread left');

      await host.make('first', true);
      await end('first', await Client.attach(host, 'first', 'Debugger', 'Runtime'));
      await until(async () => await threads() === before, 'no thread left');
      assert.deepEqual(await CDP.List({host: '127.0.0.1', port: await host.port}), []);
    }
  },

  /// What clients have set going for ever ends with the environment, wherever it runs.
  async endless(host) {
    const loop = {expression: 'for (;;);', includeCommandLineAPI: true};
    const start = {
      idle: (client) => [1, 2].forEach(() => client.cdp.send('Runtime.evaluate', loop).catch(() => {})),
      async busy(client) {
        host.run('house', 'setTimeout(function () { for (var end = Date.now() + 200; Date.now() < end;); }, 1)');
        await host.run('house', '1');
        client.cdp.send('Runtime.evaluate', loop).catch(() => {});
      },
      async paused(client) {
        await host.run('house', 'setTimeout(function () { debugger; }, 1)');
        await client.paused();
        const frame = {...loop, callFrameId: client.frame};
        client.cdp.send('Debugger.evaluateOnCallFrame', frame).catch(() => {});
      },
    };
    for (const [where, begin] of Object.entries(start)) {
      await host.make('house', true);
      const client = await Client.attach(host, 'house', 'Debugger');
      await begin(client);
      await new Promise((resolve) => setTimeout(resolve, 300));
      // Asks on and on, also while the environment ends.
      const asking = setInterval(() => client.cdp.send('Runtime.evaluate', {expression: '1'}).catch(() => {}), 1);
      await host.send('destroy', 'house');
      assert.deepEqual(await client.next('Inspector.detached'), {reason: 'target_closed'}, where);
      clearInterval(asking);
    }
  },

  /// What comes right after the end of a script was asked for is answered when it has ended.
  async terminating(host) {
    await host.make('house', true);
    const client = await Client.attach(host, 'house', 'Debugger', 'Runtime');
    const result = host.run('house', 'var n = 0; while (true) ++n;');
    await until(() => client.evaluate('n > 1000'), 'the loop');
    client.cdp.send('Runtime.terminateExecution');
    const {result: {value}} = await client.send('Runtime.evaluate', {expression: '1 + 2', includeCommandLineAPI: true});
    assert.equal(value, 3);
    assert.equal((await result).text, 'Script execution was interrupted');
  },

  async sourceMaps(host) {
    await host.make('house', true);
    const client = await Client.attach(host, 'house', 'Debugger');
    for (const map of ['data:application/json;base64,e30=', 'lamps.js.map', 'file:///srv/lamps.js.map']) {
      await host.run('house', `1;\n//# sourceMappingURL=${map}\n`, '/srv/größe #1.js');
      const {url, sourceMapURL} = await client.next('Debugger.scriptParsed');
      assert.deepEqual([url, sourceMapURL], [pathToFileURL('/srv/größe #1.js').href, map]);
    }
  },

  /// What scripts do is the same whether a client watches or not.
  async watching(host) {
    const codes = [
      '1 + 1', '({a: [1, {}]})', 'throw new Error("x")', 'throw "text"', 'null.f', '}', 'var f = function () {}; f',
      'Promise.reject(new Error("lost")); 1', 'new Promise(function (f) { f(); }).then(function () { throw 1; }); 2',
      'executeJS("throw 3")', 'try { executeJS("nowhere()") } catch (e) { e.message }', '(function f() { f(); })()',
      'processPendingCallbacks(); 4', 'setTimeout(function () { throw new Error("timer"); }, 0); 5', 'exit(); 6',
    ];
    const seen = {};
    for (const name of ['alone', 'watched']) {
      await host.make(name, false);
      const client = name === 'watched' && await Client.attach(host, name, 'Debugger', 'Runtime');
      seen[name] = [];
      for (const code of codes) seen[name].push(await host.run(name, code), await host.send('pump', name, 30));
      seen[name].push(await host.send('log', name));
      if (client) assert.ok(!client.events.some(({method}) => method === 'Debugger.paused'));
      await host.send('destroy', name);
    }
    assert.deepEqual(seen.watched, seen.alone);
    assert.ok(seen.alone[seen.alone.length - 1].length > codes.length);
  },
};

runTests(tests);
