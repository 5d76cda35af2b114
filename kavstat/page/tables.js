// ---- Tables that can be sorted and searched. The source orders and chooses rows; it may have a million of them.

const shownAtFirst = 100;
const mostRows = 5000;

// Columns with these keys open something: what the link's text is, and where it leads.
const columnLinks = {
  peers: { peer: (row) => `#/peer/${encodeURIComponent(row.key)}` },
  applications: { application: (row) => `#/application/${encodeURIComponent(row.key)}` },
};

class TableView {
  // name: of the document.
  constructor(source, name, { title, none }) {
    this.source = source;
    this.name = name;
    this.none = none;
    this.at = null;   // a past moment; null for the running engine
    this.asked = 0;
    this.sort = null; // the key of a column; null for the document's own order
    this.reverse = false;
    this.search = "";
    this.top = shownAtFirst;
    this.heads = [];
    this.input = element("input", { type: "search", id: `search-${name}`, autocomplete: "off", spellcheck: "false",
      oninput: () => this.changeSearch() });
    this.count = element("p", { class: "quiet", "aria-live": "polite" });
    this.when = element("p", { class: "when", hidden: true });
    this.body = element("tbody");
    this.head = element("tr");
    this.more = element("button", { type: "button", hidden: true, onclick: () => this.showMore() }, "Show more rows");
    this.root = element("section", { class: "table-view", "aria-label": title },
      element("div", { class: "table-head" },
        element("h2", {}, title),
        element("label", { for: `search-${name}` }, "Search ", this.input),
        this.count, this.when),
      element("div", { class: "scroll", tabindex: "0", role: "region", "aria-label": `${title}, table` },
        element("table", { id: `table-${name}` }, element("thead", {}, this.head), this.body)),
      this.more);
  }

  parameters() {
    const parameters = { top: this.top };
    if (this.at !== null) {
      parameters.at = this.at;
    }
    if (this.search) {
      parameters.search = this.search;
    }
    if (this.sort) {
      parameters.sort = this.sort;
      parameters.reverse = this.reverse ? 1 : 0;
    }
    return parameters;
  }

  // Reads the table and shows it. Throws when it cannot be read.
  async update() {
    const asked = ++this.asked;
    const { at } = this;
    const table = await this.source.get(this.name, this.parameters());
    // A later request may have other parameters.
    if (asked === this.asked) {
      this.show(table);
      this.setWhen(at === null ? "" : `Recorded at ${timeText(table.capture_time)}`);
    }
  }

  setWhen(text) {
    this.when.textContent = text;
    this.when.hidden = text === "";
  }

  // reason: why there are no rows.
  showNothing(reason) {
    this.body.replaceChildren();
    this.count.textContent = reason;
    this.more.hidden = true;
    this.setWhen("");
  }

  refresh() {
    this.update().catch((error) => {
      this.count.textContent = error.message;
    });
  }

  changeSearch() {
    this.search = this.input.value;
    clearTimeout(this.searchTimer);
    this.searchTimer = setTimeout(() => this.refresh(), 150);
  }

  changeSort(key) {
    const isSame = key === (this.sort ?? this.shownSort);
    this.reverse = isSame && !(this.sort === null ? this.shownReverse : this.reverse);
    this.sort = key;
    this.refresh();
  }

  showMore() {
    this.top = Math.min(this.top * 5, mostRows);
    this.refresh();
  }

  show(table) {
    this.columns = table.columns.filter((column) => column.unit !== "key" && column.key !== "unit");
    this.shownSort = table.sort;
    this.shownReverse = table.reverse;
    this.showHead();
    const rows = tableObjects(table);
    while (this.body.rows.length > rows.length) {
      this.body.deleteRow(-1);
    }
    rows.forEach((row, at) => this.showRow(this.body.rows[at] ?? this.addRow(), row));
    this.showCount(table, rows.length);
  }

  showCount(table, shown) {
    const found = table.total === table.matching ? `${table.total} in all` : `${table.matching} of ${table.total} found`;
    const text = table.total === 0 ? this.none : shown < table.matching ? `${found}, ${shown} shown` : found;
    if (this.count.textContent !== text) {
      this.count.textContent = text;
    }
    this.more.hidden = shown >= table.matching || this.top >= mostRows;
  }

  // Made once: a button keeps its focus while figures change.
  showHead() {
    if (this.heads.length === 0) {
      this.heads = this.columns.map((column) => element("th", { scope: "col",
        class: isTextUnit(column.unit) ? "text" : null },
        element("button", { type: "button", "data-key": column.key, onclick: () => this.changeSort(column.key) },
          column.title)));
      this.head.replaceChildren(...this.heads);
    }
    this.columns.forEach((column, at) => {
      if (column.key !== this.shownSort) {
        this.heads[at].removeAttribute("aria-sort");
        return;
      }
      const isRising = isTextUnit(column.unit) !== this.shownReverse;
      this.heads[at].setAttribute("aria-sort", isRising ? "ascending" : "descending");
    });
  }

  addRow() {
    const row = this.body.insertRow();
    this.columns.forEach((column, at) => {
      const cell = element(at === 0 ? "th" : "td", at === 0 ? { scope: "row" } : {});
      cell.classList.toggle("text", isTextUnit(column.unit));
      row.append(cell);
    });
    return row;
  }

  // Rows are used again, so that a link that has the focus keeps it.
  showRow(element, row) {
    this.columns.forEach((column, at) => {
      const unit = column.unit === "value" ? row.unit : column.unit;
      const text = column.key === "peer" && row.peer < 0 ? noFigure : valueText(row[column.key], unit);
      const link = columnLinks[this.name]?.[column.key];
      const cell = element.cells[at];
      if (link) {
        showLink(cell, text, link(row));
      } else if (column.unit === "health") {
        showSeverity(cell, text);
      } else if (cell.textContent !== text) {
        cell.textContent = text;
      }
    });
  }
}

function isTextUnit(unit) {
  return ["text", "health", "value"].includes(unit);
}

function showLink(cell, text, target) {
  if (!cell.firstElementChild) {
    cell.append(element("a"));
  }
  const link = cell.firstElementChild;
  link.textContent = text;
  link.setAttribute("href", target);
}

// A word with a mark and a colour.
function severityBadge(word) {
  return element("span", { class: `badge ${word}` }, word);
}

function showSeverity(cell, word) {
  if (cell.textContent !== word) {
    cell.replaceChildren(severityBadge(word));
  }
}
