'use strict';
// One connection to a target of the debug server, by a WebSocket library that we did not write.

const http = require('http');
const WebSocket = require('ws');

/// What a path of the server answers.
function fetchJson(port, path) {
  return new Promise((resolve, reject) => {
    const request = http.get({host: '127.0.0.1', port, path}, (response) => {
      let text = '';
      response.setEncoding('utf8').on('data', (part) => { text += part; });
      response.on('end', () => { try { resolve(JSON.parse(text)); } catch (error) { reject(error); } });
    });
    request.on('error', reject);
  });
}

const listTargets = (port) => fetchJson(port, '/json/list');

class Connection {
  /// To the target that `choose` takes of the list. Has `onEvent` called with each event.
  static async open(port, choose, onEvent) {
    const self = new Connection();
    self.asked = new Map();
    self.socket = new WebSocket(choose(await listTargets(port)).webSocketDebuggerUrl, {maxPayload: 1 << 30});
    self.closed = new Promise((resolve) => self.socket.on('close', resolve));
    self.socket.on('message', (data) => {
      const message = JSON.parse(data);
      if (message.id === undefined) return onEvent(message);
      const {resolve, reject} = self.asked.get(message.id);
      self.asked.delete(message.id);
      return message.error ? reject(new Error(message.error.message)) : resolve(message.result);
    });
    await new Promise((resolve, reject) => self.socket.on('open', resolve).on('error', reject));
    return self;
  }

  send(method, params = {}) {
    const id = this.lastId = (this.lastId || 0) + 1;
    this.socket.send(JSON.stringify({id, method, params}));
    return new Promise((resolve, reject) => this.asked.set(id, {resolve, reject}));
  }

  close() {
    this.socket.close();
    return this.closed;
  }

  /// Without a word.
  vanish() { this.socket.terminate(); }
}

module.exports = {Connection, listTargets};
