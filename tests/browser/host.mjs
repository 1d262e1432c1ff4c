// A real host for the tests, the executable that VENDRA names, and the browser; CHROMIUM names another one.

import {spawn} from "node:child_process";
import {mkdtempSync, readFileSync, rmSync} from "node:fs";
import http from "node:http";
import https from "node:https";
import {tmpdir} from "node:os";
import {join} from "node:path";
import {createInterface} from "node:readline";
import {chromium} from "playwright-core";

const flags = ["--no-sandbox", "--disable-gpu", "--disable-quic", "--no-first-run", "--disable-background-networking",
               "--disable-component-update", "--disable-sync", "--host-resolver-rules=MAP rebound.example 127.0.0.1"];

/// One request as the headers say, be it what a browser would never send; the answer's status, headers and text.
export function send(url, options = {}, body = undefined) {
  const {request} = url.startsWith("https:") ? https : http;
  return new Promise((resolve, reject) => {
    const sent = request(url, {...options, rejectUnauthorized: false}, (response) => {
      let text = "";
      response.setEncoding("utf8");
      response.on("data", (piece) => (text += piece));
      response.on("end", () => resolve({status: response.statusCode, headers: response.headers, text}));
    });
    sent.on("upgrade", (response, socket) => {
      socket.destroy();
      resolve({status: response.statusCode, headers: response.headers, text: ""});
    });
    sent.on("error", reject);
    sent.end(body);
  });
}

export class Host {
  /// `settings`: environment variables. Started and announced when it is there.
  static async start(settings = {}) {
    const host = new Host();
    host.folder = mkdtempSync(join(tmpdir(), "vendra-browser-"));
    host.environment = {...process.env, HOME: host.folder, XDG_RUNTIME_DIR: host.folder, XDG_CONFIG_HOME: host.folder,
                        ...settings};
    host.process = spawn(process.env.VENDRA, ["--connector"], {env: host.environment, stdio: ["ignore", "pipe", "inherit"]});
    host.ended = new Promise((resolve) => host.process.once("exit", resolve));
    for await (const line of createInterface({input: host.process.stdout})) {
      if (line.startsWith("Connector: "))
        host.entry = line.slice("Connector: ".length);
      if (line.startsWith("Token file: ")) {
        host.discovery = JSON.parse(readFileSync(line.slice("Token file: ".length), "utf8"));
        break;
      }
    }
    host.process.stdout.resume();
    host.origin = new URL(host.entry).origin; // what browsers know it by
    host.name = new URL(host.entry).hostname;
    host.port = Number(new URL(host.entry).port);
    return host;
  }

  async stop(signal = "SIGTERM") {
    this.process.kill(signal);
    await this.ended;
    rmSync(this.folder, {recursive: true, force: true});
  }

  /// What a program with the token is answered, at the address for programs.
  async post(path, body) {
    const headers = {"Content-Type": "application/json", "Authorization": "Bearer " + this.discovery.token};
    return JSON.parse((await send(this.discovery.url + path, {method: "POST", headers}, body)).text);
  }

  ask(message) { return this.post("messageservice/container", JSON.stringify({id: "1", ...message})); }

  async freshEntry() { return (await this.post("messageservice/nonce")).url; }

  /// What another `vendra` of the user prints.
  async command(...words) {
    const child = spawn(process.env.VENDRA, words, {env: this.environment, stdio: ["ignore", "pipe", "inherit"]});
    let text = "";
    for await (const piece of child.stdout)
      text += piece;
    return text.trim();
  }
}

export function launchBrowser() {
  return chromium.launch({executablePath: process.env.CHROMIUM ?? "/usr/bin/chromium", args: flags});
}

/// A profile of its own. `complaints` gathers what the browser's console says.
export async function inProfile(browser, use, options = {}) {
  const context = await browser.newContext(options);
  try {
    const page = await context.newPage();
    const complaints = [];
    page.on("console", (message) => message.type() === "error" && complaints.push(message.text()));
    page.on("pageerror", (error) => complaints.push(String(error)));
    await use(page, context, complaints);
  } finally {
    await context.close();
  }
}

/// Types into the console's input.
export async function run(page, source) {
  await page.fill("#code", source);
  await page.press("#code", "Enter");
}

/// Until the header says so; fails with what it says instead.
export async function waitForState(page, text) {
  try {
    await page.waitForFunction((wanted) => document.getElementById("state")?.textContent === wanted, text,
                               {timeout: 20_000});
  } catch {
    throw new Error(`The page says "${await page.textContent("#state")}", not "${text}".`);
  }
}
