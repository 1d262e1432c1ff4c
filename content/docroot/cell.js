// One evaluation on the page: what was asked, what was printed, how it ended.

const kShownCharacters = 400_000; // of one cell's output

export class Cell {
  /// `after`: the number of the last event that is not wanted.
  constructor(log, source, after = 0) {
    this.last = after; // number of the last event
    this.running = false;
    this.ended = false;
    this.waiting = []; // output that is not shown yet
    this.shown = 0;
    this.element = document.createElement("section");
    this.element.append(this.line("asked", source));
    if (after > 0)
      this.noteCut();
    log.append(this.element);
  }

  line(kind, text) {
    const line = document.createElement("pre");
    line.className = kind;
    line.textContent = text;
    return line;
  }

  noteCut() {
    this.note ??= this.element.firstElementChild.insertAdjacentElement(
      "afterend", this.line("note", "[earlier output is not shown]"));
  }

  /// True when the event is new. What was missed is said.
  take(event) {
    if (event.seq <= this.last)
      return false;
    this.last = event.seq;
    if (event.kind === "output")
      this.print(event.stream === "error" ? "error" : "printed", event.text);
    else if (event.kind === "error")
      this.fail(event.traceback?.trimEnd() || event.message);
    else if (event.kind === "gap")
      this.print("note", `[${event.missing} earlier pieces of output are not kept any more]\n`);
    else if (event.kind === "state")
      this.ended = event.state === "ended";
    this.running = !this.ended;
    return true;
  }

  fail(text) {
    this.flush();
    this.element.append(this.line("fault", text));
  }

  /// Gathers until the browser paints: much output in small pieces costs no more than in large ones.
  print(kind, text) {
    if (this.waiting.length === 0)
      requestAnimationFrame(() => this.flush());
    const latest = this.waiting.at(-1);
    if (latest?.kind === kind)
      latest.texts.push(text);
    else
      this.waiting.push({kind, texts: [text]});
  }

  flush() {
    for (const {kind, texts} of this.waiting.splice(0)) {
      const text = texts.join("").slice(-kShownCharacters);
      let line = this.element.lastElementChild;
      if (line.className !== kind)
        this.element.append(line = this.line(kind, ""));
      line.append(text);
      this.shown += text.length;
    }
    this.trim();
  }

  /// Takes the oldest output off the page; the host has it still.
  trim() {
    while (this.shown > kShownCharacters) {
      const line = this.element.querySelector(".printed, .error");
      const oldest = line?.firstChild;
      if (!oldest)
        return;
      this.shown -= oldest.length;
      oldest.remove();
      if (!line.firstChild && line !== this.element.lastElementChild)
        line.remove();
      this.noteCut();
    }
  }
}
