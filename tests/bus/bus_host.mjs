// A host whose interpreter the test types into, clients of its bus, and a way between them that can be cut.

import {spawn} from "node:child_process";
import {mkdtempSync, readFileSync, rmSync} from "node:fs";
import net from "node:net";
import {tmpdir} from "node:os";
import {join} from "node:path";
import {createInterface} from "node:readline";
import {CometD} from "cometd";
import {AckExtension} from "cometd/AckExtension.js";
import {adapt} from "cometd-nodejs-client";
import faye from "faye";
import {WebSocket} from "ws";

const kPath = "/messageservice/async";

async function freePort() {
  const server = net.createServer();
  await new Promise((resolve) => server.listen(0, "127.0.0.1", resolve));
  const {port} = server.address();
  await new Promise((resolve) => server.close(resolve));
  return port;
}

export class BusHost {
  /// Serves on a port that stays the same when the connector stops and starts.
  static async start() {
    const host = new BusHost();
    host.port = await freePort();
    host.folder = mkdtempSync(join(tmpdir(), "vendra-bus-"));
    const env = {...process.env, HOME: host.folder, XDG_RUNTIME_DIR: host.folder, XDG_CONFIG_HOME: host.folder,
                 VENDRA_HTTP_PORT: String(host.port), VENDRA_HTTP_ALLOWED_HOSTS: "127.0.0.1"};
    host.process = spawn(process.env.VENDRA, ["--connector", "-i"], {env, stdio: ["pipe", "pipe", "inherit"]});
    host.lines = createInterface({input: host.process.stdout})[Symbol.asyncIterator]();
    const file = await host.line("Token file: ");
    host.token = JSON.parse(readFileSync(file, "utf8")).token;
    return host;
  }

  /// What stands behind `label` in the next line that has it.
  async line(label) {
    for (;;) {
      const {value, done} = await this.lines.next();
      if (done)
        throw new Error(`the host ended without saying "${label}"`);
      if (value.includes(label))
        return value.slice(value.indexOf(label) + label.length);
    }
  }

  /// Types a line, and waits until it has run.
  async type(code) {
    this.typed = (this.typed ?? 0) + 1;
    this.process.stdin.write(`${code}; print("ran", ${this.typed})\n`);
    await this.line(`ran ${this.typed}`);
  }

  get headers() { return {Authorization: "Bearer " + this.token}; }

  async stop() {
    const ended = new Promise((resolve) => this.process.once("exit", resolve));
    this.process.kill("SIGTERM");
    await ended;
    rmSync(this.folder, {recursive: true});
  }
}

/// Passes bytes on to a port of this machine, and breaks when it is told to.
export class Way {
  static async to(port) {
    const way = new Way();
    way.sockets = new Set();
    way.breaks = 0;
    way.server = net.createServer((near) => {
      const far = net.connect(port, "127.0.0.1");
      near.on("data", (bytes) => far.write(bytes));
      far.on("data", (bytes) => way.breaking ? way.reset() : near.write(bytes));
      for (const [socket, other] of [[near, far], [far, near]]) {
        way.sockets.add(socket);
        socket.on("error", () => {});
        socket.on("close", () => (way.sockets.delete(socket), other.destroy()));
      }
    });
    await new Promise((resolve) => way.server.listen(0, "127.0.0.1", resolve));
    way.port = way.server.address().port;
    return way;
  }

  /// The next bytes from the server are lost, and with them all connections of the moment; later ones pass.
  breakNext() { this.breaking = true; }

  reset() {
    this.breaks += this.breaking ? 1 : 0;
    this.breaking = false;
    for (const socket of this.sockets)
      socket.resetAndDestroy();
  }

  close() {
    this.server.close();
    this.reset();
  }
}

/// Settles as the callback's reply says.
export const replied = (call) => new Promise((resolve, reject) => call((reply) =>
  reply.successful ? resolve(reply) : reject(new Error(JSON.stringify(reply)))));

adapt();

/// A `cometd` client of one transport that has shaken hands.
export async function openCometd(host, transport, {ack = false, port = host.port} = {}) {
  window.WebSocket = class extends WebSocket {
    constructor(url, protocols) { super(url, protocols, {headers: host.headers}); }
  };
  const client = new CometD();
  for (const type of client.getTransportTypes()) {
    if (type !== transport)
      client.unregisterTransport(type);
  }
  if (ack)
    client.registerExtension("ack", new AckExtension());
  client.configure({url: `http://127.0.0.1:${port}${kPath}`, requestHeaders: host.headers, logLevel: "error",
                    backoffIncrement: 50, maxBackoff: 200});
  await replied((done) => client.handshake(done));
  return client;
}

/// A `faye` client; it shakes hands with its first call.
export function openFaye(host, transport) {
  const client = new faye.Client(`http://127.0.0.1:${host.port}${kPath}`, {retry: 0.2});
  client.setHeader("Authorization", host.headers.Authorization);
  if (transport !== "websocket")
    client.disable("websocket");
  return client;
}

/// Collects what a subscriber gets.
export class Inbox {
  constructor() {
    this.messages = [];
    this.waiting = [];
  }

  take(data) {
    this.messages.push(data);
    this.waiting = this.waiting.filter(({count, resolve}) => this.messages.length < count || resolve());
  }

  /// Once so many messages are there.
  has(count) {
    if (this.messages.length >= count)
      return Promise.resolve();
    return new Promise((resolve) => this.waiting.push({count, resolve}));
  }
}
