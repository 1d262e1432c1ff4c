// A console on the host's workspace. What it starts runs on when the page goes, and is there when it comes back.

import {ask, Bus} from "./bus.js";
import {Cell} from "./cell.js";
import {Variables} from "./variables.js";

const log = document.getElementById("log");
const code = document.getElementById("code");
const state = document.getElementById("state");
const candidates = document.getElementById("candidates");
const notice = document.getElementById("notice");
const interrupt = document.getElementById("interrupt");
const kPlaceholder = code.placeholder;
const kReadBack = 100; // events of an evaluation that a new page asks for

/// What is said while there is no connection.
const kConnections = {
  connecting: {state: "connecting", notice: ""},
  gone: {state: "host gone", notice: "The host is gone: it has ended, or cannot be reached. This page keeps trying."},
  out: {state: "not let in", notice: "The host does not let this page in. Run \"vendra --url\" on its machine and open " +
                                     "the address that it prints."},
};

const cells = new Map(); // id -> Cell
const history = [];
let leafed = 0; // index into history while the arrow keys leaf through it
let asking = null; // id of the evaluation that waits for input

const variables = new Variables(document.querySelector("#variables tbody"), document.querySelector("#variables h2"));
let others = {state: "idle", queued: 0}; // what the host told of all work

const bus = new Bus({changed: connectionChanged, refused: report});
bus.subscribe("/interpreter/variables", () => variables.refresh());
bus.subscribe("/interpreter/folder", ({folder}) => showFolder(folder));
bus.subscribe("/interpreter/state", (told) => {
  others = told;
  show();
});

function connectionChanged() {
  others = {state: "idle", queued: 0};
  if (bus.state === "up")
    resume();
  show();
}

function workState() {
  if (asking)
    return "waits for input";
  const open = [...cells.values()].filter((cell) => !cell.ended);
  if (open.some((cell) => cell.running))
    return "busy";
  if (others.state === "busy")
    return open.length > 0 ? "waits for other work" : "busy with other work";
  return open.length > 0 ? "busy" : "ready";
}

function show() {
  const connection = kConnections[bus.state];
  state.textContent = connection?.state ?? workState();
  document.body.dataset.state = bus.state;
  notice.textContent = connection?.notice ?? "";
  interrupt.disabled = Boolean(connection);
  document.body.classList.toggle("asking", asking !== null);
  code.placeholder = asking ? "Input for the running code. Enter: send. Ctrl+D: end of input." : kPlaceholder;
}

function showFolder(folder) { document.getElementById("folder").textContent = folder; }

function report(error) {
  const line = document.createElement("pre");
  line.className = "fault";
  line.textContent = error.message;
  log.append(line);
}

/// After the page was loaded, and after the connection was lost.
async function resume() {
  try {
    const {evaluations} = await bus.call("list");
    for (const {id, channel, code: source, last} of evaluations) {
      const cell = cells.get(id) ?? new Cell(log, source, Math.max(0, last - kReadBack));
      if (cell.ended)
        continue;
      follow(id, channel, cell);
      await bus.call("attach", {id, after: cell.last});
    }
    const known = new Set(evaluations.map(({id}) => id));
    for (const [id, cell] of cells)
      if (!cell.ended && !known.has(id)) {
        cell.ended = true;
        cell.fail("The host does not know this evaluation any more.");
      }
    variables.refresh();
    showFolder((await ask("CurrentFolder")).folder);
  } catch (error) {
    report(error);
  }
  show();
}

function follow(id, channel, cell) {
  cells.set(id, cell);
  bus.listen(channel, (event) => {
    if (!cell.take(event))
      return;
    if (event.kind === "input")
      asking = id;
    else if (asking === id)
      asking = null;
    if (cell.ended)
      bus.forget(channel);
    show();
  });
}

async function run(source) {
  const cell = new Cell(log, source);
  try {
    const {id, channel} = await bus.call("start", {code: source, echo: true, wantValue: false});
    follow(id, channel, cell);
  } catch (error) {
    cell.fail(error.message);
  }
  show();
}

function answer(members) {
  bus.call("input", {id: asking, ...members}).catch(report);
  if (members.text !== undefined)
    cells.get(asking).print("printed", members.text + "\n");
  asking = null;
  show();
}

function fit() {
  code.rows = Math.min(code.value.split("\n").length, 12);
  candidates.replaceChildren();
}

function submit() {
  const text = code.value;
  if (!asking && !text.trim())
    return;
  code.value = "";
  fit();
  if (asking)
    return answer({text});
  history.push(text.trimEnd());
  leafed = history.length;
  run(text.trimEnd());
}

function leaf(step) {
  const target = leafed + step;
  if (target < 0 || target > history.length)
    return;
  leafed = target;
  code.value = history[leafed] ?? "";
  fit();
}

/// What all the texts begin with.
function common(texts) {
  const [first, ...others] = texts;
  let length = first.length;
  for (const other of others)
    while (!other.startsWith(first.slice(0, length)))
      --length;
  return first.slice(0, length);
}

async function complete() {
  const text = code.value.slice(0, code.selectionStart);
  const found = await ask("TabCompletion", {text, limit: 50});
  if (found.candidates.length === 0 || code.value.slice(0, code.selectionStart) !== text)
    return;
  const from = [...text].slice(0, found.replaceFrom).join("").length; // from code points to UTF-16
  const chosen = common(found.candidates);
  if (chosen.length > text.length - from)
    code.setRangeText(chosen, from, code.selectionStart, "end");
  fit();
  if (found.candidates.length > 1)
    candidates.textContent = found.candidates.join("  ") + (found.total > found.candidates.length ? "  …" : "");
}

code.addEventListener("keydown", (event) => {
  const plain = !event.shiftKey && !event.ctrlKey && !event.altKey && !event.metaKey;
  const beforeCursor = code.value.slice(0, code.selectionStart);
  if (event.isComposing)
    return;
  if (event.key === "Enter" && !event.shiftKey) {
    submit();
  } else if (event.key === "Tab" && plain && /[^\s]$/.test(beforeCursor)) {
    complete().catch(report);
  } else if (event.key === "Tab" && plain && code.value !== "") {
    code.setRangeText("    ", code.selectionStart, code.selectionEnd, "end");
  } else if (event.key === "d" && event.ctrlKey && asking && code.value === "") {
    answer({end: true});
  } else if (event.key === "ArrowUp" && !beforeCursor.includes("\n")) {
    leaf(-1);
  } else if (event.key === "ArrowDown" && !code.value.slice(code.selectionEnd).includes("\n")) {
    leaf(+1);
  } else {
    return;
  }
  event.preventDefault();
});
code.addEventListener("input", fit);

// The end stays in sight, unless somebody scrolled up.
let atEnd = true;
log.addEventListener("scroll", () => {
  atEnd = log.scrollHeight - log.scrollTop - log.clientHeight < 50;
});
new MutationObserver(() => {
  if (atEnd)
    log.scrollTop = log.scrollHeight;
}).observe(log, {childList: true, subtree: true, characterData: true});

document.getElementById("form").addEventListener("submit", (event) => {
  event.preventDefault();
  submit();
});

interrupt.addEventListener("click", () => {
  bus.call("interrupt").catch(report); // on the bus, where it was started: no cookie tells whose it is
  code.focus();
});

show();
