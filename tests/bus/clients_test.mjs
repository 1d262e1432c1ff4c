// Two client libraries in use, at the bus of a real host, the executable that VENDRA names.

import assert from "node:assert/strict";
import {after, before, test} from "node:test";
import {BusHost, Inbox, openCometd, openFaye, replied, Way} from "./bus_host.mjs";

const kTransports = ["long-polling", "websocket"];
const options = {timeout: 60_000};

let host;

before(async () => (host = await BusHost.start()));
after(() => host.stop());

const subscribe = (client, channel, take) => replied((done) => client.subscribe(channel, take, done));
const publish = (client, channel, data) => replied((done) => client.publish(channel, data, done));

async function restartConnector() {
  await host.type("import connector; connector.stop()");
  await assert.rejects(fetch(`http://127.0.0.1:${host.port}/`), "the port is closed");
  await host.type("connector.start()");
}

for (const transport of kTransports) {
  test(`cometd over ${transport}: patterns, batches, replies`, options, async () => {
    const [near, far] = [await openCometd(host, transport), await openCometd(host, transport)];
    try {
      assert.equal(near.getTransport().type, transport);
      const [one, deep, exact] = [new Inbox(), new Inbox(), new Inbox()];
      await subscribe(near, "/room/*", (message) => one.take([message.channel, message.data]));
      await subscribe(near, "/room/**", (message) => deep.take([message.channel, message.data]));
      await subscribe(far, "/room/a", (message) => exact.take(message.data));

      const acknowledged = [];
      await new Promise((resolve) => far.batch(() => {
        for (const [channel, data] of [["/room/a", 1], ["/room/a/b", {"x": [2.5, null, "ü"]}], ["/other", 3], ["/room/c", 4]])
          far.publish(channel, data, (reply) => acknowledged.push(reply.successful) === 4 && resolve());
      }));
      assert.deepEqual(acknowledged, [true, true, true, true]);
      await deep.has(3);
      await exact.has(1);
      assert.deepEqual(deep.messages, [["/room/a", 1], ["/room/a/b", {"x": [2.5, null, "ü"]}], ["/room/c", 4]]);
      assert.deepEqual(one.messages, [["/room/a", 1], ["/room/c", 4]]);
      assert.deepEqual(exact.messages, [1], "the publisher gets its own message as any subscriber does");

      await assert.rejects(publish(far, "/room/*", 5), /40\d/);
      await assert.rejects(publish(far, "/service/nobody", 6), /40\d/);
      await publish(far, "/room/d", 7);
      await deep.has(4);
      assert.deepEqual(one.messages.at(-1), ["/room/d", 7], "an error costs the connection nothing");
    } finally {
      await Promise.all([near, far].map((client) => replied((done) => client.disconnect(done))));
    }
  });

  test(`cometd over ${transport}: the connector stops and starts`, options, async () => {
    const [near, far] = [await openCometd(host, transport), await openCometd(host, transport)];
    const inbox = new Inbox();
    const again = new Map();
    for (const client of [near, far]) {
      again.set(client, new Promise((resolve) => client.addListener("/meta/handshake", async (reply) => {
        if (!reply.successful)
          return;
        if (client === near)
          await subscribe(near, "/news", (message) => inbox.take(message.data));
        resolve();
      })));
    }
    try {
      await subscribe(near, "/news", (message) => inbox.take(message.data));
      await publish(far, "/news", "before");
      await inbox.has(1);
      await restartConnector();
      await Promise.all(again.values());
      await publish(far, "/news", "after");
      await inbox.has(2);
      assert.deepEqual(inbox.messages, ["before", "after"]);
    } finally {
      await Promise.all([near, far].map((client) => replied((done) => client.disconnect(done))));
    }
  });

  test(`cometd over ${transport}: nothing is lost or doubled when the connection breaks`, options, async () => {
    const way = await Way.to(host.port);
    const [near, far] = [await openCometd(host, transport, {ack: true, port: way.port}),
                         await openCometd(host, "websocket")];
    const inbox = new Inbox();
    const count = 600;
    try {
      await subscribe(near, "/burst", (message) => inbox.take(message.data));
      const breaks = (async () => {
        for (const reached of [1, 90, 200, 300, 400]) {
          await inbox.has(reached);
          way.breakNext();
        }
      })();
      for (let next = 0; next < count; next += 10) {
        await inbox.has(next - 40); // what is on its way spans a break, not all of them
        const sent = [];
        for (let i = next; i < next + 10; ++i)
          sent.push(publish(far, "/burst", i));
        await Promise.all(sent);
      }
      await breaks;
      await inbox.has(count);
      await publish(far, "/burst", "end");
      await inbox.has(count + 1);
      assert.deepEqual(inbox.messages, [...Array(count).keys(), "end"]);
      assert.equal(way.breaks, 5);
    } finally {
      await Promise.all([near, far].map((client) => replied((done) => client.disconnect(done))));
      way.close();
    }
  });

  test(`faye over ${transport}: patterns, replies, and the connector stops and starts`, options, async () => {
    const [near, far] = [openFaye(host, transport), openFaye(host, transport)];
    const other = await openCometd(host, transport);
    try {
      const [one, deep, foreign] = [new Inbox(), new Inbox(), new Inbox()];
      await near.subscribe("/hall/*", (data) => one.take(data));
      await near.subscribe("/hall/**", (data) => deep.take(data));
      await subscribe(other, "/hall/a", (message) => foreign.take(message.data));
      assert.equal(near._dispatcher.connectionType, transport);
      await far.publish("/hall/a", {n: 1});
      await far.publish("/hall/a/b", {n: 2});
      await publish(other, "/hall/c", {n: 3});
      await deep.has(3);
      await foreign.has(1);
      assert.deepEqual(deep.messages.map(({n}) => n).sort(), [1, 2, 3]);
      assert.deepEqual(one.messages.map(({n}) => n).sort(), [1, 3]);
      assert.deepEqual(foreign.messages, [{n: 1}]);
      await assert.rejects(async () => far.publish("/service/nobody", 4), /40\d/);

      // Subscribes again by itself; what comes before that goes to nobody.
      await restartConnector();
      while (deep.messages.length === 3)
        await Promise.resolve(far.publish("/hall/d", {n: 5})).catch(() => {});
      assert.deepEqual(deep.messages[3], {n: 5});
    } finally {
      near.disconnect();
      far.disconnect();
      await new Promise((resolve) => other.disconnect(resolve));
    }
  });
}

for (const transport of kTransports) {
  test(`a script serves cometd and faye over ${transport}`, options, async () => {
    await host.type("exec('import connector\\n@connector.serve(\\'/service/half\\')\\n" +
                    "def half(channel, data, session): return 1 / data')");
    const near = await openCometd(host, transport);
    const far = openFaye(host, transport);
    try {
      const call = (data) => new Promise((resolve) => near.remoteCall("half", data, 20_000, resolve));
      assert.equal((await call(4)).data, 0.25);
      const failed = await call(0);
      assert.deepEqual([failed.successful, failed.error], [false, "500:ZeroDivisionError:division by zero"]);
      const inbox = new Inbox();
      await far.subscribe("/service/half", (data) => inbox.take(data));
      await far.publish("/service/half", 8);
      await inbox.has(1);
      await Promise.resolve(far.publish("/service/half", 0)).catch(() => {}); // as the answer or its acknowledgement comes first
      await inbox.has(2);
      assert.deepEqual(inbox.messages, [0.125, {error: "ZeroDivisionError", message: "division by zero"}]);
    } finally {
      await replied((done) => near.disconnect(done));
      await far.disconnect();
    }
  });
}
