// The message bus over one WebSocket, which is opened again whenever it is lost.

const kFirstDelay = 250; // ms
const kLongestDelay = 5000;

export class Bus {
  /// `changed(up)` is told when the bus comes and goes.
  constructor(changed) {
    this.changed = changed;
    this.calls = new Map(); // tag -> {resolve, reject}
    this.early = []; // messages for the time when there is a connection
    this.listeners = new Map(); // channel -> function
    this.subscriptions = new Set();
    this.lastTag = 0;
    this.delay = kFirstDelay;
    this.open();
  }

  open() {
    const scheme = location.protocol === "https:" ? "wss:" : "ws:";
    this.socket = new WebSocket(`${scheme}//${location.host}/messageservice/async`);
    this.socket.onopen = () => this.post({channel: "/meta/handshake", version: "1.0",
                                          supportedConnectionTypes: ["websocket"]});
    this.socket.onmessage = ({data}) => JSON.parse(data).forEach((message) => this.take(message));
    this.socket.onclose = () => this.lost();
  }

  post(message) {
    this.socket.send(JSON.stringify([this.id ? {clientId: this.id, ...message} : message]));
  }

  lost() {
    if (this.id)
      this.changed(false);
    this.id = null;
    const early = new Set(this.early.map(({data}) => data.tag));
    for (const [tag, {reject}] of this.calls)
      if (!early.has(tag)) {
        this.calls.delete(tag);
        reject(new Error("The connection to the host was lost."));
      }
    setTimeout(() => this.open(), this.delay);
    this.delay = Math.min(2 * this.delay, kLongestDelay);
  }

  take(message) {
    if (!("successful" in message))
      return this.event(message);
    if (message.channel === "/meta/handshake" && message.successful) {
      this.id = message.clientId;
      this.delay = kFirstDelay;
      this.post({channel: "/meta/connect", connectionType: "websocket"});
      if (this.subscriptions.size > 0)
        this.post({channel: "/meta/subscribe", subscription: [...this.subscriptions]});
      this.changed(true);
      this.early.splice(0).forEach((early) => this.post(early));
    } else if (message.channel === "/meta/connect" && message.successful) {
      this.post({channel: "/meta/connect", connectionType: "websocket"});
    } else if (!message.successful && message.channel.startsWith("/meta/")) {
      this.socket.close(); // the server does not know this client any more
    }
  }

  event({channel, data}) {
    const call = this.calls.get(data?.tag);
    if (!channel.startsWith("/service/")) {
      this.listeners.get(channel)?.(data);
    } else if (call) {
      this.calls.delete(data.tag);
      if (data.fault)
        call.reject(new Error(data.fault.message));
      else
        call.resolve(data);
    }
  }

  /// What the interpreter's service answers; without a connection it is asked when there is one.
  call(verb, data = {}) {
    const tag = ++this.lastTag;
    const message = {channel: "/service/interpreter/" + verb, data: {...data, tag}};
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
  const response = await fetch("/messageservice/container", {
    method: "POST",
    headers: {"Content-Type": "application/json", "Accept": "application/json"},
    body: JSON.stringify({type, id: "1", ...members}),
  });
  const answer = await response.json().catch(() => ({}));
  if (!response.ok)
    throw new Error(answer.error ?? `The host answered with status ${response.status}.`);
  if (answer.type === "Fault")
    throw new Error(answer.message);
  return answer;
}
