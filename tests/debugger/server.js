'use strict';
// What debuggers and others may do to the server, on sockets of their own: web pages that ask, requests of all kinds,
// messages of all sizes, clients that stall, break the rules, read nothing or vanish, and a server without descriptors.

const assert = require('assert');
const {execFileSync} = require('child_process');
const fs = require('fs');
const net = require('net');
const path = require('path');
const {pause, runTests, until, within} = require('./harness');

const kUpgrade = 'Connection: Upgrade\r\nUpgrade: websocket\r\nSec-WebSocket-Version: 13\r\n' +
    'Sec-WebSocket-Key: AAAAAAAAAAAAAAAAAAAAAA==\r\n';
const kMegabyte = 1 << 20;

/// A request with its Host header and further ones, each of which ends with "\r\n".
const request = (method, target, headers = '', name = 'localhost') =>
    `${method} ${target} HTTP/1.1\r\nHost: ${name}\r\n${headers}\r\n`;

/// What a WebSocket sends in one piece. The opcodes are 1 text, 2 binary, 8 close, 9 ping, 10 pong; 0 goes on with a
/// message. The mask that clients must have is zero.
function frame(opcode, payload = '', final = true) {
  const data = Buffer.from(payload);
  const bytes = (count) => Array.from({length: count}, (_, i) => data.length / 256 ** (count - 1 - i) & 255);
  const length = data.length < 126 ? bytes(1) : data.length < 65536 ? [126, ...bytes(2)] : [127, ...bytes(8)];
  length[0] |= 0x80;
  return Buffer.concat([Buffer.from([opcode | (final ? 0x80 : 0), ...length, 0, 0, 0, 0]), data]);
}

/// A message of at least that size.
const evaluation = (expression, size = 0) => frame(
    1, JSON.stringify({id: 1, method: 'Runtime.evaluate', params: {expression, returnByValue: true}}).padEnd(size));

/// A client that is able to do everything wrong.
class Client {
  constructor(host) {
    this.data = Buffer.alloc(0);
    this.socket = net.connect(host.port, '127.0.0.1').on('error', () => {});
    this.socket.on('data', (chunk) => { this.data = Buffer.concat([this.data, chunk]); });
    this.ended = new Promise((resolve) => this.socket.on('close', () => resolve(this.isEnded = true)));
  }

  /// One with a WebSocket at that environment.
  static async join(host, {name}, headers = '') {
    const {id} = (await targets(host)).find(({url}) => url.endsWith(`/${name}/`));
    const self = new Client(host);
    assert.equal(await self.upgrade('/' + id, headers), 101);
    return self;
  }

  send(bytes) {
    this.socket.write(bytes);
    return this;
  }

  /// All that comes until the server closes.
  all() { return within(this.ended, 'the end of the connection').then(() => String(this.data)); }

  /// So many bytes; less when the connection has ended.
  async take(count) {
    await until(() => this.isEnded || this.data.length >= count, 'an answer');
    const taken = this.data.subarray(0, count);
    this.data = this.data.subarray(taken.length);
    return taken;
  }

  /// The status of the answer to a request for a WebSocket.
  async upgrade(target, headers, name) {
    this.send(request('GET', target, kUpgrade + headers, name));
    await until(() => this.isEnded || this.data.includes('\r\n\r\n'), 'an answer');
    return Number(String(await this.take(this.data.indexOf('\r\n\r\n') + 4)).slice(9, 12));
  }

  async frame() {
    const head = await this.take(2);
    if (head.length < 2) return {};
    const length = head[1] < 126 ? head.subarray(1) : await this.take(head[1] === 126 ? 2 : 8);
    const payload = await this.take(parseInt(length.toString('hex'), 16));
    const opcode = head[0] & 15;
    return {opcode, final: head[0] >= 128, code: opcode === 8 && payload.readUInt16BE(), text: String(payload)};
  }

  async evaluate(expression, size) {
    this.send(evaluation(expression, size));
    const {opcode, final, text} = await this.frame();
    assert.deepEqual([opcode, final], [1, true]);
    return JSON.parse(text).result.result.value;
  }

  /// Asks for so many megabytes, and reads none of them. The environment counts in its variable n.
  fill(count) {
    this.socket.pause();
    for (let i = 0; i < count; ++i) this.send(evaluation(`n = (global.n || 0) + 1; 'x'.repeat(${kMegabyte})`));
  }
}

const ask = (host, text) => new Client(host).send(text).all();

const targets = async (host) => JSON.parse((await ask(host, request('GET', '/json/list'))).split('\r\n\r\n')[1]);

/// The numbers of the host's descriptors that are sockets: its own two streams, the server's, those of clients.
const sockets = (host) =>
    host.listProcess('fd', (entry) => fs.readlinkSync(entry).startsWith('socket:') ? Number(path.basename(entry)) : []);
const untilClients = (host, count) => until(() => sockets(host).length === 4 + count, `${count} clients`);

/// Others are served as ever.
async function expectService(host, house) {
  const client = await Client.join(host, house);
  assert.equal(await client.evaluate('6 * 7'), 42);
  client.socket.destroy();
}

runTests({
  async trust(house, host) {
    const [{id}] = await targets(host);
    const expect = async (served, name, origin) => {
      const headers = origin === undefined ? '' : `Origin: ${origin}\r\n`;
      const list = await ask(host, request('GET', '/json', headers, name));
      assert.ok(list.startsWith(`HTTP/1.1 ${served ? 200 : 403} `), `${name} ${origin} ${list}`);
      assert.equal(list.includes(`"ws://${name}/`), served);
      assert.equal(await new Client(host).upgrade('/' + id, headers, name), served ? 101 : 403);
    };
    for (const name of ['127.0.0.1:9229', '127.255.3.1:1', 'localhost:9229', 'LocalHost', '[::1]:9229', '[::1]'])
      await expect(true, name);
    for (const name of ['', ':9229', 'rebound.example:9229', 'localhost.rebound.example', 'localhost.', '127.1',
                        '127.0.0.1.example', '2130706433', '128.0.0.1', '0.0.0.0', '[::2]', '[::1', '[::1]x', '::1',
                        'localhost:80x', 'localhost@rebound.example', 'localhost\r\nHost: x', 'x\r\nHost: localhost'])
      await expect(false, name);
    for (const origin of ['devtools://devtools', 'Chrome-DevTools://devtools']) await expect(true, 'localhost', origin);
    for (const origin of ['http://localhost:9229', 'null', 'file://', '', 'devtools\r\nOrigin: http://page.example',
                          'devtools.example://devtools', 'http://devtools://devtools'])
      await expect(false, 'localhost', origin);
  },

  async requests(house, host) {
    await host.make('garden');
    const ids = (await targets(host)).map((target) => target.id);
    for (const each of ids) assert.match(each, /^[\da-f]{8}-[\da-f]{4}-4[\da-f]{3}-[89ab][\da-f]{3}-[\da-f]{12}$/);
    // Nothing of an address follows from another.
    assert.equal(new Set(ids.flatMap((each) => [each.slice(0, 8), each.slice(24)])).size, 4);
    const target = '/' + ids[0];
    for (const [text, answer] of [
             [request('GET', '/json'), /^HTTP.1.1 200 [^]*Content-Type: application.json; charset=UTF-8\r\n/],
             [request('GET', '/json/version'), /^HTTP.1.1 200 [^]*"Protocol-Version": "1.3"/],
             ['GET /json HTTP/1.1\r\n\r\n', /^HTTP.1.1 403 /], [request('GET', '/'), /^HTTP.1.1 404 /],
             [request('GET', target), /^HTTP.1.1 404 /], [request('GET', ids[0], kUpgrade), /^HTTP.1.1 404 /],
             [request('GET', target.replace(/.$/, '-'), kUpgrade), /^HTTP.1.1 404 /],
             [request('POST', '/json', 'Content-Length: 5\r\n') + 'hello', /^HTTP.1.1 405 [^]*\r\nAllow: GET\r\n/],
             [request('POST', target, kUpgrade), /^HTTP.1.1 405 /],
             [request('GET', target, 'Connection: Upgrade\r\nUpgrade: websocket\r\n'), /^HTTP.1.1 400 /],
             [request('GET', target, kUpgrade) + 'early', /^HTTP.1.1 400 /],
             [request('GET', '/json', `X: ${'x'.repeat(8192)}\r\n`), /^$/], ['\r\n\r\n', /^$/]])
      assert.match(await ask(host, text), answer, text.slice(0, 200));
  },

  async messages(house, host) {
    const client = await Client.join(host, house);
    const text = 'a\u00e4\u20ac\u{1F527}'.repeat(100000);
    assert.equal(await client.evaluate(`'${text}'`), text);
    assert.equal(await client.evaluate('1', 16 * kMegabyte), 1);
    const half = 'x'.repeat(9 * kMegabyte);
    for (const [bytes, code] of [
             [frame(2, 'x'), 1003],
             // Refused by its head alone.
             [Buffer.from('81ff000000000100000100000000', 'hex'), 1009],
             [Buffer.concat([frame(1, half, false), frame(0, half)]), 1009]]) {
      const wrong = (await Client.join(host, house)).send(bytes);
      assert.equal((await wrong.frame()).code, code);
      wrong.socket.destroy();
      await untilClients(host, 1);
    }
  },

  /// All of them are dropped after about five seconds, at the same time. What they have asked for comes before that.
  async stalling(house, host) {
    const begin = Date.now();
    const [silent, slow] = [new Client(host), new Client(host)];
    const half = new Client(host).send('GET /json HTTP/1.1\r\nHost: loc');
    const trickle = setInterval(() => slow.send('G'), 50);
    const garden = await host.make('garden');
    const [deaf, clogged] = [await Client.join(host, garden), await Client.join(host, garden)];
    deaf.fill(20);
    clogged.fill(20);
    await until(async () => await garden.run('n') === '40', 'the answers');
    await garden.destroy();
    const end = Date.now() + 10000;
    deaf.socket.resume();
    for (let i = 0; i < 20; ++i) assert.ok((await deaf.frame()).text.length > kMegabyte);
    assert.match((await deaf.frame()).text, /Inspector.detached/);
    assert.equal((await deaf.frame()).code, 1000);
    await expectService(host, house);
    assert.deepEqual([await silent.all(), await half.all()], ['', '']);
    await untilClients(host, 0);
    clearInterval(trickle);
    assert.ok(Date.now() > begin + 4000 && Date.now() < end);
  },

  /// Takes a minute.
  async pings(house, host) {
    const offer = 'Sec-WebSocket-Extensions: permessage-deflate\r\n';
    const simple = await Client.join(host, house);
    const [mute, awake] = [await Client.join(host, house, offer), await Client.join(host, house, offer)];
    await pause(25000);
    assert.equal((await awake.frame()).opcode, 9);
    awake.send(frame(10));
    assert.equal((await mute.frame()).opcode, 9);
    await pause(20000);
    assert.ok(!mute.isEnded);
    await untilClients(host, 2);
    assert.equal((await awake.frame()).opcode, 9);
    for (const client of [awake, simple]) assert.equal(await client.evaluate('1'), 1);
  },

  async overload(house, host) {
    const [reader, idle] = [await Client.join(host, house), await Client.join(host, house)];
    idle.fill(40);
    assert.equal(await reader.evaluate('1'), 1);
    await untilClients(host, 2);
    idle.fill(40);
    await untilClients(host, 1);
    await expectService(host, house);

    // More than an environment has time to read.
    const busy = path.join(house.folder, 'busy');
    execFileSync('mkfifo', [busy]);
    fs.writeFileSync(path.join(house.folder, '.syscommands'), 'cat\n');
    reader.send(evaluation(`system("cat ${busy}")`));
    for (let i = 0; i < 3; ++i) reader.send(evaluation('1', 15 * kMegabyte));
    await untilClients(host, 0);
    fs.writeFileSync(busy, '');
    await expectService(host, house);
  },

  async sixteen(house, host) {
    const joined = [];
    for (; joined.length < 16; await untilClients(host, joined.length)) joined.push(await Client.join(host, house));
    assert.equal(await ask(host, request('GET', '/json')), '');
    joined.pop().socket.end(frame(8));
    await until(() => ask(host, request('GET', '/json')), 'a free place');
    for (const client of joined) assert.equal(await client.evaluate('1'), 1);
  },

  async descriptors(house, host) {
    const early = await Client.join(host, house);
    const hex = host.port.toString(16).toUpperCase().padStart(4, '0');
    assert.match(fs.readFileSync('/proc/net/tcp', 'utf8'), new RegExp(`: 0100007F:${hex} 00000000:0000 0A`));
    // Processes that the host starts get none of it; the first ones are the host's own streams.
    const flags = (number) => fs.readFileSync(`/proc/${host.child.pid}/fdinfo/${number}`, 'utf8').match(/flags:\s+(\d+)/)[1];
    for (const number of sockets(host)) assert.ok(number <= 2 || parseInt(flags(number), 8) & 0o2000000);
    const limit = (count) => execFileSync('prlimit', [`--pid=${host.child.pid}`, `--nofile=${count}:`]);
    limit(5);
    const waiting = new Client(host).send(request('GET', '/json'));
    const ticks = () => fs.readFileSync(`/proc/${host.child.pid}/stat`, 'utf8').split(' ').slice(13, 15).map(Number);
    const before = ticks();
    await pause(1000);
    ticks().forEach((count, i) => assert.ok(count < before[i] + 10, 'busy'));
    assert.equal(await early.evaluate('1'), 1);
    assert.equal(waiting.data.length, 0);
    limit(1000);
    assert.match(await waiting.all(), /^HTTP.1.1 200 /);
  },
});
