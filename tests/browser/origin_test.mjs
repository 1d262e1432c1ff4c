// What other servers of this machine can do to a browser that a host has let in: those on another port of the host's
// own name, which get its cookies, and those that had the host's port before.

import assert from "node:assert/strict";
import {execFileSync} from "node:child_process";
import {mkdtempSync, readFileSync, rmSync, writeFileSync} from "node:fs";
import http from "node:http";
import https from "node:https";
import {tmpdir} from "node:os";
import {join} from "node:path";
import {after, before, test} from "node:test";
import {Host, inProfile, launchBrowser, run, send, waitForState} from "./host.mjs";

const folder = mkdtempSync(join(tmpdir(), "vendra-origin-"));
let browser;
let host;

before(async () => {
  execFileSync("openssl", ["req", "-x509", "-newkey", "ec", "-pkeyopt", "ec_paramgen_curve:P-256", "-nodes", "-subj",
                           "/CN=stranger", "-keyout", join(folder, "key"), "-out", join(folder, "certificate")],
               {stdio: "ignore"});
  writeFileSync(join(folder, "report.html"), "<!doctype html><h1>Of the user</h1>");
  host = await Host.start({VENDRA_HTTP_CONTENT_ROOTS: "/mine=" + folder});
  browser = await launchBrowser();
});

after(async () => {
  await browser?.close();
  await host?.stop();
  rmSync(folder, {recursive: true});
});

const profile = (use) => inProfile(browser, use, {ignoreHTTPSErrors: true});

/// A server that keeps what it is sent; `answer(request, response)` may say more than a page.
async function strange(use, {tls = false, port = 0, answer = () => {}} = {}) {
  const received = [];
  const serve = (request, response) => {
    received.push({target: request.url, headers: request.headers});
    response.setHeader("Content-Type", "text/html");
    if (!answer(request, response))
      response.end("<!doctype html><title>stranger</title>");
  };
  const files = {key: readFileSync(join(folder, "key")), cert: readFileSync(join(folder, "certificate"))};
  const server = tls ? https.createServer(files, serve) : http.createServer(serve);
  server.on("upgrade", (request, socket) => {
    received.push({target: request.url, headers: request.headers});
    socket.destroy();
  });
  await new Promise((resolve) => server.listen(port, "127.0.0.1", resolve));
  try {
    await use(server.address().port, received);
  } finally {
    server.closeAllConnections();
    await new Promise((resolve) => server.close(resolve));
  }
}

/// What a page of the stranger on the same host tries: to be sent something, and to get at the host with it.
function attack(target) {
  return (async () => {
    const outcome = (work) => work().catch(() => "failed");
    const socket = (url) => new Promise((resolve) => {
      const made = new WebSocket(url);
      made.onopen = () => resolve("open");
      made.onerror = () => resolve("failed");
    });
    const message = {method: "POST", credentials: "include", headers: {"Content-Type": "application/json"}, body: "{}"};
    const sockets = location.origin.replace("http", "ws");
    await outcome(() => fetch("/messageservice/container", message));
    await outcome(() => fetch("/?nonce=" + "0".repeat(64)));
    await socket(sockets + "/messageservice/async");
    return {
      stored: Object.keys(localStorage),
      read: await outcome(async () => (await fetch(target + "/", {credentials: "include"})).status),
      posted: await outcome(async () => (await fetch(target + "/messageservice/container", message)).status),
      claimed: await outcome(async () => (await fetch(target + "/messageservice/ticket", message)).status),
      opened: await socket(target.replace("http", "ws") + "/messageservice/async"),
    };
  })();
}

for (const [ours, theirs] of [["plain", "plain"], ["plain", "tls"], ["tls", "plain"], ["tls", "tls"]])
  test(`a ${theirs} server on another port of a ${ours} host's name gains nothing`, async () => {
    const guarded = ours === "plain" ? host : await Host.start({VENDRA_HTTP_TLS: "true",
                                                                VENDRA_HTTP_CONTENT_ROOTS: "/mine=" + folder});
    try {
      await strange((port, received) => profile(async (page, context) => {
        await page.goto(ours === "plain" ? await guarded.freshEntry() : guarded.entry);
        await waitForState(page, "ready");
        const key = await page.evaluate(() => localStorage.getItem("vendra.key"));
        assert.match(key, /^[0-9a-f]{64}$/);

        const other = await context.newPage();
        await other.goto(`${theirs === "tls" ? "https" : "http"}://${guarded.name}:${port}/`);
        assert.deepEqual(await other.evaluate(attack, guarded.origin),
                         {stored: [], read: "failed", posted: "failed", claimed: "failed", opened: "failed"});

        const cookies = received.map(({headers}) => headers.cookie ?? "");
        assert.ok(cookies.some((each) => each.includes(`VENDRAACCESS_${guarded.port}=`)), "browsers do send it the cookie");
        assert.ok(!JSON.stringify(received).includes(key), "but not the page's key");
        assert.ok(!received.some(({target}) => target.includes("entry=") || target.includes("ticket=")));

        // With all it was sent, and all that a program can make up, it comes no further than to the files of the page.
        const base = {Host: `${guarded.name}:${guarded.port}`, Origin: guarded.origin, "Sec-Fetch-Site": "same-origin",
                      "Content-Type": "application/json"};
        const upgrade = {Connection: "Upgrade", Upgrade: "websocket", "Sec-WebSocket-Version": "13",
                         "Sec-WebSocket-Key": "AAAAAAAAAAAAAAAAAAAAAA=="};
        const at = guarded.discovery.url.slice(0, -1);
        for (const cookie of new Set(cookies)) {
          const secret = /VENDRAACCESS_\d+=([0-9a-f]{64})/.exec(cookie)?.[1] ?? "0".repeat(64);
          const headers = {...base, Cookie: cookie, "Vendra-Page": secret, "Vendra-Entry": secret};
          const body = JSON.stringify({type: "Eval", id: "1", code: "stolen = 1"});
          for (const [method, path, more] of [
            ["POST", "/messageservice/container"], ["POST", "/messageservice/async"], ["POST", "/messageservice/ticket"],
            ["POST", "/messageservice/entry"], ["POST", "/messageservice/nonce"], ["GET", "/messageservice/async", upgrade],
            ["GET", `/messageservice/async?ticket=${secret}`, upgrade], ["GET", "/mine/report.html"], ["GET", "/mine/"],
            ["GET", "/mine/no-such-file.html"], ["GET", `/mine/report.html?ticket=${secret}`], ["POST", "/"], ["PUT", "/"],
            ["POST", "/messageservice/container", {Authorization: "Bearer " + secret}]]) {
            const answer = await send(at + path, {method, headers: {...headers, ...more}},
                                      method === "GET" ? undefined : body);
            assert.equal(answer.status, 401, `${method} ${path}`);
            assert.equal(answer.headers["set-cookie"], undefined);
          }
        }
        const {value} = await guarded.ask({type: "Eval", code: "'stolen' in globals()"});
        assert.equal(value, false);

        await run(page, "print(6 * 7)"); // and the page works on
        await page.waitForSelector(".printed >> text=42");
      }), {tls: theirs === "tls"});
    } finally {
      if (guarded !== host)
        await guarded.stop();
    }
  });

test("cookies that another port sets do not log the browser out", async () => {
  const junk = (port) => {
    const name = `VENDRAACCESS_${port}`;
    const paths = ["/", "/messageservice", "/messageservice/container", "/messageservice/async", "/messageservice/ticket",
                   "/console.js", "/bus.js", "/access.js", "/console.css", "/a", "/b"];
    return [...paths.map((path) => `${name}=${"f".repeat(64)}; Path=${path}; HttpOnly`),
            ...Array.from({length: 200}, (_, n) => `junk${n}=${"j".repeat(60)}; Path=/`),
            `VENDRASESSION_${port}=x; Path=/`];
  };
  await strange((port) => profile(async (page, context) => {
    await page.goto(await host.freshEntry());
    await waitForState(page, "ready");
    const other = await context.newPage();
    await other.goto(`http://${host.name}:${port}/`);
    const kept = await context.cookies(host.origin);
    assert.ok(!kept.some(({name, value}) => name.startsWith("VENDRAACCESS") && !value.startsWith("ffff")),
              "our cookie is gone");

    await run(page, "print('still', 'here')");
    await page.waitForSelector("text=still here");
    await page.click("#interrupt");
    await page.reload();
    await waitForState(page, "ready");
    await page.waitForSelector("text=still here");
    assert.equal(page.url(), host.origin + "/");
    const second = await context.newPage();
    await second.goto(host.origin + "/");
    await waitForState(second, "ready");
  }), {answer: (request, response) => {
    response.setHeader("Set-Cookie", junk(host.port));
    return false;
  }});
});

test("a tab, another tab, a reload and another host beside it", async () => {
  const second = await Host.start();
  try {
    assert.notEqual(second.name, host.name);
    await profile(async (page, context, complaints) => {
      await page.goto(await host.command("--url"));
      await waitForState(page, "ready");
      const beside = await context.newPage();
      await beside.goto(await second.command("--url"));
      await waitForState(beside, "ready");
      await run(beside, "where = 'second'");
      await beside.waitForSelector("#variables >> text=where");
      await page.reload();
      await waitForState(page, "ready");
      const again = await context.newPage();
      await again.goto(host.origin + "/");
      await waitForState(again, "ready");
      await run(again, "print('where' in globals())");
      await again.waitForSelector(".printed >> text=False");
      assert.deepEqual(complaints, []);
    });
    await profile(async (page) => {
      assert.equal((await page.goto(host.origin + "/")).status(), 401, "another profile");
      assert.match(await page.textContent("body"), /vendra --url/);
    });
  } finally {
    await second.stop();
  }
});

test("files of the user's open in a browser that is in, also from a link elsewhere", async () => {
  await strange((port) => profile(async (page) => {
    await page.goto(await host.freshEntry());
    await waitForState(page, "ready");
    for (const open of [() => page.goto(host.origin + "/mine/report.html"), () => page.reload()]) {
      await open();
      await page.waitForSelector("text=Of the user");
    }
    await page.goto(`http://127.0.0.1:${port}/`);
    await page.click("a"); // browsers keep the cookie back
    await waitForState(page, "ready");
  }), {answer: (request, response) => response.end(`<!doctype html><a href="${host.origin}/">in</a>`)});
});

test("an address that another page leads to lets in", async () => {
  const entry = await host.freshEntry(); // browsers keep the new cookie back on such a way
  await strange((port) => profile(async (page) => {
    await page.goto(`http://127.0.0.1:${port}/`);
    await page.click("a");
    await waitForState(page, "ready");
    assert.equal(page.url(), host.origin + "/");
    assert.equal(await page.evaluate(() => history.length), 3, "a blank page, the other one, ours");
  }), {answer: (request, response) => response.end(`<!doctype html><a href="${entry}">in</a>`)});
  const left = join(folder, "open.html");
  writeFileSync(left, `<!doctype html><meta http-equiv="refresh" content="0; url=${await host.freshEntry()}">`);
  await profile(async (page) => {
    await page.goto("file://" + left);
    await waitForState(page, "ready");
  });
});

test("a service worker of an earlier server on the port cannot use an address", async () => {
  const worker = `
    const seen = [];
    self.addEventListener("install", () => self.skipWaiting());
    self.addEventListener("activate", (event) => event.waitUntil(clients.claim()));
    self.addEventListener("fetch", (event) => {
      if (event.request.url.endsWith("/seen"))
        return event.respondWith(new Response(JSON.stringify(seen)));
      event.respondWith((async () => {
        const answer = await fetch(event.request.url, {credentials: "include"}).catch((error) => ({status: String(error)}));
        seen.push({url: event.request.url, status: answer.status, text: answer.text ? await answer.text() : ""});
        return new Response("<!doctype html><title>worker</title>", {headers: {"Content-Type": "text/html"}});
      })());
    });`;
  await profile(async (page) => {
    let port;
    await strange(async (number) => {
      port = number;
      for (const name of ["127.0.0.1", "localhost"]) {
        await page.goto(`http://${name}:${port}/`);
        await page.evaluate(async () => {
          await navigator.serviceWorker.register("/worker.js");
          await navigator.serviceWorker.ready;
        });
      }
    }, {answer: (request, response) => request.url === "/worker.js" &&
                response.setHeader("Content-Type", "text/javascript").end(worker)});

    const heir = await Host.start({VENDRA_HTTP_PORT: String(port)});
    try {
      await page.goto(heir.entry);
      await waitForState(page, "ready");
      const seen = async (name) => {
        await page.goto(`http://${name}:${port}/`);
        assert.equal(await page.title(), "worker", "it stands before the port's other names");
        return page.evaluate(async () => (await fetch("/seen")).json());
      };
      for (const name of ["127.0.0.1", "localhost"]) {
        for (const {url} of await seen(name)) {
          assert.equal(new URL(url).host, `${name}:${port}`);
          assert.equal(new URL(url).search, "");
        }
        // Not even with an address that somebody changed.
        const entry = await heir.freshEntry();
        await page.goto(entry.replace(heir.name, name));
        const last = (await seen(name)).find(({url}) => url.includes("nonce="));
        assert.equal(last.status, 401);
        assert.ok(!JSON.stringify(last).includes(heir.name), "nor is it told the name");
        await page.goto(entry);
        await waitForState(page, "ready");
      }
    } finally {
      await heir.stop();
    }
  });
});

test("a tunnel's other port leads in", async () => {
  const {createServer, connect} = await import("node:net");
  const tunnel = createServer((near) => {
    const far = connect(host.port, "127.0.0.1");
    near.pipe(far).pipe(near);
    for (const [one, other] of [[near, far], [far, near]])
      one.on("error", () => other.destroy()).on("close", () => other.destroy());
  });
  await new Promise((resolve) => tunnel.listen(0, "127.0.0.1", resolve));
  const near = tunnel.address().port;
  try {
    await profile(async (page) => {
      await page.goto((await host.freshEntry()).replace(`:${host.port}/`, `:${near}/`));
      await waitForState(page, "ready");
      await page.reload();
      await waitForState(page, "ready");
      const refused = await page.goto(`http://localhost:${near}/`);
      assert.equal(refused.status(), 421);
      assert.match(await refused.text(), /tunnel/);
    });
  } finally {
    tunnel.close();
  }
});
