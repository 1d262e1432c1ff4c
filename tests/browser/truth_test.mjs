// The page says what is so: of a host that is gone, that is another one, that works for others, and of refusals.

import assert from "node:assert/strict";
import {after, before, test} from "node:test";
import {Host, inProfile, launchBrowser, run, waitForState} from "./host.mjs";

let browser;

before(async () => {
  browser = await launchBrowser();
});

after(async () => {
  await browser?.close();
});

const profile = (use) => inProfile(browser, use);

test("a host that was killed is gone, and another one on its port wants somebody to enter", async () => {
  const host = await Host.start();
  await profile(async (page) => {
    await page.goto(host.entry);
    await waitForState(page, "ready");
    await run(page, "print('begun', flush=True)\nwhile True: pass");
    await page.waitForSelector(".printed >> text=begun");
    await waitForState(page, "busy");
    await host.stop("SIGKILL");
    await waitForState(page, "host gone");
    assert.match(await page.textContent("#notice"), /is gone/);
    assert.equal(await page.isDisabled("#interrupt"), true);
    await run(page, "print('lost')"); // is not kept for whoever comes
    await page.waitForSelector(".fault >> text=The host is gone");

    const next = await Host.start({VENDRA_HTTP_PORT: String(host.port)});
    try {
      await waitForState(page, "not let in");
      assert.match(await page.textContent("#notice"), /vendra --url/);
      await run(page, "print('lost, too')");
      await page.waitForSelector(".fault >> text=does not let this page in");
      assert.equal((await next.ask({type: "Eval", code: "1"})).value, 1);
      await page.goto(await next.freshEntry());
      await waitForState(page, "ready");
    } finally {
      await next.stop();
    }
  });
});

test("a connector that was started anew on its port wants somebody to enter", async () => {
  const host = await Host.start({VENDRA_HTTP_PORT: "0"});
  try {
    await profile(async (page) => {
      await page.goto(host.entry);
      await waitForState(page, "ready");
      await run(page, `import os, connector\nos.environ["VENDRA_HTTP_PORT"] = "${host.port}"\n` +
                      "connector.stop()\nconnector.start()");
      await waitForState(page, "not let in");
      assert.match(await page.textContent("#notice"), /vendra --url/);
    });
  } finally {
    await host.stop();
  }
});

test("a host that stands still is gone, and back when it goes on", {timeout: 60_000}, async () => {
  const host = await Host.start();
  try {
    await profile(async (page) => {
      await page.clock.install();
      await page.goto(host.entry);
      await waitForState(page, "ready");
      host.process.kill("SIGSTOP");
      await page.clock.fastForward(45_000);
      await waitForState(page, "connecting");
      host.process.kill("SIGCONT");
      await page.clock.fastForward(10_000);
      await waitForState(page, "ready");
    });
  } finally {
    host.process.kill("SIGCONT");
    await host.stop();
  }
});

test("work for others shows, be it begun before the page came", async () => {
  const host = await Host.start();
  try {
    await profile(async (page, context) => {
      await page.goto(host.entry);
      await waitForState(page, "ready");
      const work = host.ask({type: "Eval", code: "while True: pass"});
      await waitForState(page, "busy with other work");
      const late = await context.newPage();
      await late.goto(host.origin + "/");
      await waitForState(late, "busy with other work");
      await run(late, "print('after')");
      await waitForState(late, "waits for other work");
      await host.ask({type: "Interrupt"});
      assert.equal((await work).type, "Fault");
      await late.waitForSelector(".printed >> text=after");
      for (const each of [page, late])
        await waitForState(each, "ready");
    });
  } finally {
    await host.stop();
  }
});

test("what is refused settles its call", async () => {
  const host = await Host.start();
  try {
    await profile(async (page) => {
      await page.goto(host.entry);
      await waitForState(page, "ready");
      const said = await page.evaluate(async () => {
        const {Bus} = await import("/bus.js");
        const refused = [];
        const bus = await new Promise((resolve) => {
          const made = new Bus({changed: () => made.state === "up" && resolve(made),
                                refused: (error) => refused.push(error.message)});
        });
        const outcome = (verb, data) => bus.call(verb, data).then(() => "done", (error) => error.message);
        const answers = [await outcome("no/such/service"), await outcome("nosuch"), await outcome("list")];
        bus.subscribe("/meta/secret", () => {});
        await outcome("list");
        return {answers, refused, open: bus.calls.size, state: bus.state};
      });
      assert.match(said.answers[0], /service/i);
      assert.match(said.answers[1], /nosuch/);
      assert.equal(said.answers[2], "done");
      assert.equal(said.refused.length, 1);
      assert.deepEqual([said.open, said.state], [0, "up"]);
    });
  } finally {
    await host.stop();
  }
});
