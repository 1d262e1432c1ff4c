// A console on the host's workspace: posts Eval and Interrupt messages and shows what comes back.

const log = document.getElementById("log");
const code = document.getElementById("code");
const state = document.getElementById("state");

const history = [];
let shown = 0; // index into history while the arrow keys leaf through it
let running = 0;

async function ask(message) {
  const response = await fetch("/messageservice/container", {
    method: "POST",
    headers: {"Content-Type": "application/json", "Accept": "application/json"},
    body: JSON.stringify({id: "1", ...message}),
  });
  const answer = await response.json().catch(() => ({}));
  if (!response.ok)
    throw new Error(answer.error ?? `The host answered with status ${response.status}.`);
  return answer;
}

function append(kind, text) {
  if (!text)
    return;
  const entry = document.createElement("pre");
  entry.className = kind;
  entry.textContent = text;
  log.append(entry);
  entry.scrollIntoView({block: "end"});
}

function count(change) {
  running += change;
  state.textContent = running > 0 ? "busy" : "ready";
}

async function run(source) {
  append("asked", source);
  count(+1);
  try {
    const answer = await ask({type: "Eval", code: source, echo: true, wantValue: false});
    append("printed", answer.output?.replace(/\n$/, ""));
    if (answer.type === "Fault")
      append("fault", answer.traceback?.trimEnd() || answer.message);
  } catch (error) {
    append("fault", String(error.message));
  } finally {
    count(-1);
  }
}

function fit() {
  code.rows = Math.min(code.value.split("\n").length, 12);
}

function submit() {
  const source = code.value.trimEnd();
  if (!source.trim())
    return;
  history.push(source);
  shown = history.length;
  code.value = "";
  fit();
  run(source);
}

function leaf(step) {
  const target = shown + step;
  if (target < 0 || target > history.length)
    return;
  shown = target;
  code.value = history[shown] ?? "";
  fit();
}

code.addEventListener("keydown", (event) => {
  if (event.key === "Enter" && !event.shiftKey) {
    event.preventDefault();
    submit();
  } else if (event.key === "ArrowUp" && !code.value.includes("\n")) {
    event.preventDefault();
    leaf(-1);
  } else if (event.key === "ArrowDown" && !code.value.includes("\n")) {
    event.preventDefault();
    leaf(+1);
  }
});
code.addEventListener("input", fit);

document.getElementById("form").addEventListener("submit", (event) => {
  event.preventDefault();
  submit();
});

document.getElementById("interrupt").addEventListener("click", () => {
  ask({type: "Interrupt"}).catch((error) => append("fault", String(error.message)));
  code.focus();
});
