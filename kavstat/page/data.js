// ---- Where documents come from, and what charts make of rows of counters.

// The server that the page came from.
class LiveSource {
  isLive = true;

  // Throws when there is no such document now; the error's text says why.
  async get(name, parameters = {}) {
    const query = new URLSearchParams(parameters).toString();
    let answer;
    try {
      answer = await fetch(`/api/v1/${name}${query ? `?${query}` : ""}`, { cache: "no-store" });
    } catch {
      throw new Error("kavstat does not answer");
    }
    const text = await answer.json().catch(() => null);
    if (!answer.ok || text === null) {
      throw Object.assign(new Error(text?.error ?? `kavstat answered with status ${answer.status}`),
        { status: answer.status });
    }
    return text;
  }
}

// Documents inside the page, in a report.
class EmbeddedSource {
  isLive = false;

  constructor(documents) {
    this.documents = documents;
  }

  async get(name, parameters = {}) {
    if (name === "history") {
      const key = `${parameters.scope}/${parameters.key ?? ""}`;
      return this.documents.histories[key] ?? { scope: parameters.scope, columns: [], rows: [] };
    }
    const found = this.documents[name];
    if (!found) {
      throw new Error("not in this report");
    }
    return found.rows && found.columns ? queryTable(found, parameters) : found;
  }
}

function makeSource() {
  const embedded = document.getElementById("kavstat-report");
  return embedded ? new EmbeddedSource(JSON.parse(embedded.textContent)) : new LiveSource();
}

// What the server does with a table for a query.
function queryTable(table, { search = "", sort, reverse = 0, top = Infinity }) {
  const lower = search.toLowerCase();
  const searched = table.columns.map((column) => ["text", "number", "key"].includes(column.unit));
  const rows = table.rows.filter((row) =>
    row.some((cell, at) => searched[at] && String(cell).toLowerCase().includes(lower)));
  const at = table.columns.findIndex((column) => column.key === sort);
  const order = (one, other) => {
    if (one === null || other === null) {
      return (one === null) - (other === null);
    }
    const isText = typeof one === "string";
    let forwards = isText ? (one < other ? -1 : one > other ? 1 : 0) : other - one;
    if (isText !== (typeof other === "string")) {
      forwards = isText ? 1 : -1; // numbers come before texts
    }
    return reverse ? -forwards : forwards;
  };
  if (at >= 0) {
    rows.sort((one, other) => order(one[at], other[at]));
  }
  return { ...table, matching: rows.length, sort: sort ?? table.sort, reverse: sort ? Boolean(reverse) : table.reverse,
    rows: rows.slice(0, top) };
}

// Rows as objects by the keys of their columns.
function tableObjects(table) {
  return table.rows.map((row) => Object.fromEntries(table.columns.map((column, at) => [column.key, row[at]])));
}

// Computes the lines of charts from a history: rows of counters at moments.
class Series {
  constructor(history) {
    this.rows = history.rows;
    this.isShort = Boolean(history.short_counters);
    this.places = Object.fromEntries(history.columns.map((key, at) => [key, at]));
    this.longestStep = Series.longestStep(history.rows);
  }

  // A line is not drawn across more than three times what lies between most rows.
  static longestStep(rows) {
    const steps = rows.slice(1).map((row, at) => row[0] - rows[at][0]).sort((one, other) => one - other);
    return steps.length > 0 ? 3 * steps[Math.floor(steps.length / 2)] : 0;
  }

  // A value for each row; null where there is none to be had.
  values(series) {
    return this.rows.map((row, at) => this.value(series, at));
  }

  value(series, at) {
    switch (series.kind) {
      case "level":
        return this.scaled(this.sum(series.part, at), series.scale);
      case "fill":
        return this.ratio(this.sum(series.part, at), this.sum(series.whole, at), 100);
      case "age": {
        const moment = this.sum(series.part, at);
        const now = this.rows[at][0];
        return moment !== null && moment > 0 && moment <= now ? now - moment : null;
      }
      default:
        return this.isContinuous(at) ? this.change(series, at) : null;
    }
  }

  // Whether growth since the row before means anything.
  isContinuous(at) {
    if (at === 0 || this.rows[at][1] !== this.rows[at - 1][1]) {
      return false;
    }
    const step = this.rows[at][0] - this.rows[at - 1][0];
    return step > 0 && step <= this.longestStep;
  }

  change(series, at) {
    const seconds = this.rows[at][0] - this.rows[at - 1][0];
    const part = this.growth(series.part, at);
    if (series.kind === "rate") {
      return this.scaled(part === null ? null : part / seconds, series.scale);
    }
    const whole = this.growth(series.whole, at);
    if (part === null || whole === null) {
      return null;
    }
    switch (series.kind) {
      case "rest_rate":
        return (Math.max(whole - part, 0) / seconds) * series.scale;
      case "saved":
        return whole > 0 ? savedPercent(whole, part) : null;
      default:
        return this.ratio(part, whole, series.scale);
    }
  }

  growth(keys, at) {
    let total = 0;
    for (const key of keys) {
      const before = this.rows[at - 1][this.places[key]] ?? null;
      const after = this.rows[at][this.places[key]] ?? null;
      if (before === null || after === null) {
        return null;
      }
      let by = after - before;
      if (by < 0 && this.isShort && by + 4294967296 < 2147483648) {
        by += 4294967296; // it wrapped
      }
      if (by < 0) {
        return null; // somebody reset it
      }
      total += by;
    }
    return total;
  }

  sum(keys, at) {
    let total = 0;
    for (const key of keys) {
      const value = this.rows[at][this.places[key]] ?? null;
      if (value === null) {
        return null;
      }
      total += value;
    }
    return total;
  }

  scaled(value, scale) {
    return value === null ? null : value * scale;
  }

  ratio(part, whole, scale) {
    return part !== null && whole !== null && whole > 0 ? (part / whole) * scale : null;
  }
}

// Percent that `after` is less; 0 while either is 0.
function savedPercent(before, after) {
  return after > 0 && after < before ? ((before - after) * 100) / before : 0;
}
