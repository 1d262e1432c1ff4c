// The page in a real browser, at a real host.

import assert from "node:assert/strict";
import http from "node:http";
import {after, before, test} from "node:test";
import {Host, inProfile, launchBrowser} from "./host.mjs";

let host;
let entry; // the printed address
let origin;
let browser;

const ask = (message) => host.ask(message);
const freshEntry = () => host.freshEntry();
const profile = (use) => inProfile(browser, use);

before(async () => {
  host = await Host.start();
  ({entry, origin} = host);
  browser = await launchBrowser();
});

after(async () => {
  await browser?.close();
  await host?.stop();
});

test("the printed address lets one browser in, once", async () => {
  assert.match(entry, /^http:\/\/vendra-[0-9a-f]{32}\.localhost:\d+\/\?nonce=[0-9a-f]{64}$/);
  await profile(async (page, context, complaints) => {
    await page.goto(entry);
    assert.equal(page.url(), origin + "/");
    assert.equal(await page.textContent("h1"), "Connector");
    const [cookie] = await context.cookies();
    assert.equal(cookie.httpOnly, true);
    assert.equal(cookie.sameSite, "Strict");

    await page.fill("#code", "answer = 6 * 7\nprint('it is', answer)");
    await page.press("#code", "Enter");
    await page.waitForSelector("text=it is 42");
    assert.equal((await ask({type: "Eval", code: "answer"})).value, 42);
    await page.fill("#code", "int('three')");
    await page.press("#code", "Enter");
    await page.waitForSelector(".fault >> text=ValueError");
    await page.fill("#code", "while True: pass");
    await page.press("#code", "Enter");
    await page.waitForSelector("text=busy");
    await page.click("#interrupt");
    await page.waitForSelector(".fault >> text=KeyboardInterrupt");

    await page.waitForSelector("#variables >> text=answer");
    await page.fill("#code", "answ");
    await page.press("#code", "Tab");
    await page.waitForFunction(() => document.getElementById("code").value === "answer");
    await page.fill("#code", "print('Hello,', input('Who? '))\nfor i in range(100_000): print(i)");
    await page.press("#code", "Enter");
    await page.waitForSelector("text=waits for input");
    await page.reload();
    assert.equal(await page.textContent("h1"), "Connector");
    await page.waitForSelector("text=waits for input");
    await page.waitForSelector("text=it is 42"); // what was printed before is there again
    await page.fill("#code", "Ada");
    await page.press("#code", "Enter");
    await page.waitForSelector("text=earlier output is not shown");
    await page.waitForSelector("text=99999");
    await page.goto(entry);
    assert.equal(page.url(), origin + "/", "a used address of a browser that is in leads to the page");
    assert.deepEqual(complaints, []);
  });
  await profile(async (page) => {
    assert.equal((await page.goto(entry)).status(), 401, "used up");
    assert.equal((await page.goto(origin + "/")).status(), 401, "another profile");
    assert.equal(await page.$("h1"), null);
  });
});

test("a page counts every message of a script's loop", async () => {
  await profile(async (page) => {
    await page.goto(await freshEntry());
    await page.evaluate(async () => {
      const {ticket} = await import("/access.js");
      window.ticket = await ticket();
    });
    await page.evaluate(() => new Promise((resolve, reject) => {
      const socket = new WebSocket(`${location.origin.replace("http", "ws")}/messageservice/async?ticket=${window.ticket}`);
      const send = (message) => socket.send(JSON.stringify([{...message, clientId: window.clientId}]));
      window.next = 0;
      socket.onopen = () => send({channel: "/meta/handshake", version: "1.0", supportedConnectionTypes: ["websocket"]});
      socket.onerror = reject;
      socket.onmessage = (event) => {
        for (const message of JSON.parse(event.data)) {
          if (message.channel === "/meta/handshake") {
            window.clientId = message.clientId;
            send({channel: "/meta/subscribe", subscription: "/count"});
          } else if (message.channel === "/meta/subscribe") {
            send({channel: "/meta/connect", connectionType: "websocket"});
            resolve();
          } else if (message.channel === "/meta/connect") {
            send({channel: "/meta/connect", connectionType: "websocket"});
          } else if (message.data === window.next) {
            ++window.next;
          }
        }
      };
    }));
    const done = await ask({type: "Eval", code: "import connector\nfor n in range(100_000):\n    connector.publish('/count', n)"});
    assert.equal(done.type, "EvalResponse", JSON.stringify(done));
    await page.waitForFunction(() => window.next === 100_000);
  });
});

test("pages of another port neither read nor post nor open a socket", async () => {
  const stranger = http.createServer((request, response) => {
    response.setHeader("Content-Type", "text/html");
    response.end("<!doctype html><title>stranger</title>");
  });
  await new Promise((resolve) => stranger.listen(0, "127.0.0.1", resolve));
  try {
    await profile(async (page) => {
      await page.goto(await freshEntry()); // the browser holds a valid cookie
      await page.goto(`http://127.0.0.1:${stranger.address().port}/`);
      const seen = await page.evaluate(async (target) => {
        const outcome = async (work) => {
          try {
            return await work();
          } catch {
            return "failed";
          }
        };
        const body = JSON.stringify({type: "Eval", id: "1", code: "stolen = 1"});
        const send = (mode, type) => outcome(async () => {
          const response = await fetch(target + "/messageservice/container",
                                       {method: "POST", mode, credentials: "include", body, headers: {"Content-Type": type}});
          return response.type === "opaque" ? "opaque" : response.status;
        });
        const element = (name, property) => new Promise((resolve) => {
          const made = document.createElement(name);
          made.onload = () => resolve("loaded");
          made.onerror = () => resolve("failed");
          made[property] = target + (name === "script" ? "/console.js" : "/icon.svg");
          document.body.append(made);
        });
        const socket = (path) => new Promise((resolve) => {
          const made = new WebSocket(target.replace("http", "ws") + path);
          made.onopen = () => resolve("open");
          made.onerror = () => resolve("failed");
        });
        return {
          read: await outcome(async () => (await fetch(target + "/", {credentials: "include"})).status),
          posts: [await send("cors", "application/json"), await send("no-cors", "text/plain"),
                  await send("no-cors", "application/json")],
          script: await element("script", "src"),
          picture: await element("img", "src"),
          sockets: [await socket("/"), await socket("/messageservice/async"), await socket("/messageservice/container")],
        };
      }, origin);
      assert.equal(seen.read, "failed");
      assert.equal(seen.posts[0], "failed");
      assert.ok(seen.posts.every((each) => each === "failed" || each === "opaque"));
      assert.equal(seen.script, "failed");
      assert.equal(seen.picture, "failed");
      assert.deepEqual(seen.sockets, ["failed", "failed", "failed"]);

      // Nor is the page shown within another.
      await page.evaluate((target) => {
        const frame = document.createElement("iframe");
        frame.src = target + "/";
        document.body.append(frame);
        return new Promise((resolve) => (frame.onload = resolve));
      }, origin);
      const frame = page.frames().find((each) => each !== page.mainFrame());
      assert.equal(await frame.$("h1"), null);
    });
    assert.equal((await ask({type: "Eval", code: "'stolen' in globals()"})).value, false);
  } finally {
    stranger.close();
  }
});

test("a name that somebody leads to this machine is refused", async () => {
  await profile(async (page) => {
    const foreign = (await freshEntry()).replace(host.name, "rebound.example");
    assert.equal((await page.goto(foreign)).status(), 421);
  });
});
