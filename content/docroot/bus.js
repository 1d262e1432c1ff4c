// The message bus over one WebSocket, which is opened again whenever it is lost, and messages over HTTP.

import {ask as post, NotLetIn, ticket} from "./access.js";

const kFirstDelay = 250; // ms
const kLongestDelay = 5000;
const kGrace = 10_000; // ms that the host's sign of life may be late

const kProblems = {
  connecting: "The connection to the host was lost.",
  gone: "The host is gone: it has ended, or cannot be reached.",
  out: "The host does not let this page in.",
};

/// The text of "code:argument:text".
function refusalText(error = "") {
  return error.split(":").slice(2).join(":") || "The host refused the message.";
}

export class Bus {
  /// `changed()` is called when `state` is another: "connecting", "up", "gone" (nobody answers; tried again) or "out"
  /// (somebody has to enter anew; not tried again). `refused(error)` hears of subscriptions that were refused.
  constructor({changed, refused}) {
    this.changed = changed;
    this.refused = refused;
    this.state = "connecting";
    this.id = null; // of this client, while there is a connection
    this.timeout = 30_000; // ms after which a held connect is answered, unless the host says otherwise
    this.calls = new Map(); // tag -> {resolve, reject}
    this.early = []; // messages for the time when there is a connection
    this.listeners = new Map(); // channel -> function
    this.subscriptions = new Set();
    this.lastTag = 0;
    this.delay = kFirstDelay;
    this.open();
  }

  async open() {
    let pass;
    try {
      pass = await ticket();
    } catch (error) {
      return this.leave(error instanceof NotLetIn ? "out" : "gone");
    }
    const scheme = location.protocol === "https:" ? "wss:" : "ws:";
    const socket = new WebSocket(`${scheme}//${location.host}/messageservice/async?ticket=${pass}`);
    this.socket = socket;
    socket.onopen = () => this.post({channel: "/meta/handshake", version: "1.0",
                                     supportedConnectionTypes: ["websocket"]});
    socket.onmessage = ({data}) => {
      if (this.socket !== socket)
        return;
      this.listenFor(this.timeout);
      JSON.parse(data).forEach((message) => this.take(message));
    };
    socket.onclose = () => this.socket === socket && this.lost();
    this.listenFor(0);
  }

  /// A host that is cut off, or stands still, closes no socket.
  listenFor(timeout) {
    clearTimeout(this.silence);
    this.silence = setTimeout(() => this.lost(), timeout + kGrace);
  }

  lost() {
    clearTimeout(this.silence);
    this.socket.onclose = null;
    this.socket.close();
    this.socket = null;
    const wasUp = this.id !== null;
    this.id = null;
    this.leave(wasUp ? "connecting" : "gone");
  }

  /// The new state without a connection. What was asked on the old one gets no answer; what waits for a new one is not
  /// kept for later when nobody is there.
  leave(state) {
    if (state !== "connecting")
      this.early = [];
    const early = new Set(this.early.map(({data}) => data.tag));
    for (const [tag, {reject}] of this.calls)
      if (!early.has(tag)) {
        this.calls.delete(tag);
        reject(new Error(kProblems[state]));
      }
    if (state !== "out") {
      setTimeout(() => this.open(), this.delay);
      this.delay = Math.min(2 * this.delay, kLongestDelay);
    }
    this.become(state);
  }

  become(state) {
    if (this.state === state)
      return;
    this.state = state;
    this.changed();
  }

  post(message) {
    this.socket.send(JSON.stringify([this.id ? {clientId: this.id, ...message} : message]));
  }

  take(message) {
    if (!("successful" in message))
      this.event(message);
    else if (message.successful)
      this.succeeded(message);
    else if (message.channel === "/meta/subscribe" && !message.error?.startsWith("402:"))
      this.refused(new Error(`${message.subscription}: ${refusalText(message.error)}`));
    else if (message.channel?.startsWith("/service/"))
      this.settle(message.id, ({reject}) => reject(new Error(refusalText(message.error))));
    else
      this.lost(); // the server does not know this client any more
  }

  succeeded({channel, clientId, advice}) {
    this.timeout = advice?.timeout ?? this.timeout;
    if (channel === "/meta/handshake") {
      this.id = clientId;
      this.delay = kFirstDelay;
      if (this.subscriptions.size > 0)
        this.post({channel: "/meta/subscribe", subscription: [...this.subscriptions]});
      this.early.splice(0).forEach((early) => this.post(early));
      this.become("up");
    }
    if (channel === "/meta/handshake" || channel === "/meta/connect")
      this.post({channel: "/meta/connect", connectionType: "websocket"});
  }

  event({channel, data}) {
    if (!channel.startsWith("/service/"))
      this.listeners.get(channel)?.(data);
    else
      this.settle(data?.tag, ({resolve, reject}) =>
        data.fault ? reject(new Error(data.fault.message)) : resolve(data));
  }

  settle(tag, how) {
    const call = this.calls.get(tag);
    this.calls.delete(tag);
    if (call)
      how(call);
  }

  /// What the interpreter's service answers; while the connection is made, it is asked as soon as there is one.
  call(verb, data = {}) {
    const tag = ++this.lastTag;
    const message = {channel: "/service/interpreter/" + verb, id: tag, data: {...data, tag}};
    if (this.state === "gone" || this.state === "out")
      return Promise.reject(new Error(kProblems[this.state]));
    if (this.id)
      this.post(message);
    else
      this.early.push(message);
    return new Promise((resolve, reject) => this.calls.set(tag, {resolve, reject}));
  }

  /// Messages that come to this client without a subscription, too.
  listen(channel, listener) { this.listeners.set(channel, listener); }
  forget(channel) { this.listeners.delete(channel); }

  subscribe(channel, listener) {
    this.listen(channel, listener);
    this.subscriptions.add(channel);
    if (this.id)
      this.post({channel: "/meta/subscribe", subscription: channel});
  }
}

/// One message over HTTP; its answer, or an error with the fault's text.
export async function ask(type, members = {}) {
  const response = await post("/messageservice/container",
                              {"Content-Type": "application/json", "Accept": "application/json"},
                              JSON.stringify({type, id: "1", ...members}));
  const answer = await response.json().catch(() => ({}));
  if (!response.ok)
    throw new Error(answer.error ?? `The host answered with status ${response.status}.`);
  if (answer.type === "Fault")
    throw new Error(answer.message);
  return answer;
}
