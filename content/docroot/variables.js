// The variables of the workspace, listed anew when they change.

import {ask} from "./bus.js";

const kListed = 500;

export class Variables {
  constructor(table, title) {
    this.table = table;
    this.title = title;
    this.asking = false;
    this.again = false;
  }

  /// Asks at once; what changes meanwhile is asked for once more afterwards.
  async refresh() {
    if (this.asking) {
      this.again = true;
      return;
    }
    this.asking = true;
    try {
      do {
        this.again = false;
        this.list(await ask("Workspace", {limit: kListed}));
      } while (this.again);
    } catch (error) {
      this.title.textContent = `Variables (${error.message})`;
    } finally {
      this.asking = false;
    }
  }

  list({variables, total}) {
    this.title.textContent = total > variables.length ? `Variables (${variables.length} of ${total})` : "Variables";
    this.table.replaceChildren(...variables.map(({name, class: type, size, preview}) => {
      const row = document.createElement("tr");
      for (const text of [name, size.length > 0 ? `${type} ${size.join("×")}` : type, preview]) {
        const cell = document.createElement("td");
        cell.textContent = text;
        row.append(cell);
      }
      row.title = preview;
      return row;
    }));
  }
}
