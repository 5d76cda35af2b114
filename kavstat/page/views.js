// ---- Views: what the page shows below its head. Each has a root element, and update(), which reads what it shows.

const historyPoints = 1000;

// A figure with its name, and what else is worth knowing about it.
class FigureStrip {
  constructor(names) {
    this.figures = Object.fromEntries(names.map(([key, label]) => [key, {
      label, value: element("dd", { class: "value", id: `figure-${key}` }, noFigure),
      note: element("dd", { class: "note" }),
    }]));
    this.root = element("dl", { class: "strip" }, ...Object.values(this.figures).map((figure) =>
      element("div", {}, element("dt", {}, figure.label), figure.value, figure.note)));
  }

  // note: stays the same when it is not given.
  set(key, value, note = null) {
    this.figures[key].value.textContent = value;
    if (note !== null) {
      this.figures[key].note.textContent = note;
    }
  }

  clearNotes() {
    Object.values(this.figures).forEach((figure) => {
      figure.note.textContent = "";
    });
  }
}

// What is wrong, with what to do about it.
class HealthPanel {
  // concerns: which findings are shown.
  constructor({ concerns = () => true, title }) {
    this.concerns = concerns;
    this.status = element("p", { class: "verdict", "aria-live": "polite", id: "verdict" });
    this.list = element("ol", { class: "findings" });
    this.title = element("h2", {}, title);
    this.root = element("section", { class: "health", "aria-label": title }, this.title, this.status, this.list);
    this.shown = null;
  }

  setTitle(title) {
    this.title.textContent = title;
  }

  update(health) {
    const findings = health.findings.filter(this.concerns);
    const shown = JSON.stringify([health.status, health.reason, findings]);
    if (shown === this.shown) {
      return;
    }
    this.shown = shown;
    this.showVerdict(health, findings);
    // Those that are open stay open.
    const open = new Set([...this.list.querySelectorAll("details[open]")].map((details) => details.dataset.rule));
    this.list.replaceChildren(...groupFindings(findings).map((group) => findingItem(group, open)));
  }

  showVerdict(health, findings) {
    const worst = findings.some((finding) => finding.severity === "critical") ? "critical" : "warning";
    const looked = health.looked_at;
    if (health.reason !== null && findings.length === 0) {
      this.setVerdict("unknown", `Unknown: ${health.reason}`);
    } else if (findings.length > 0) {
      this.setVerdict(worst, findings.length === 1 ? "1 problem" : `${findings.length} problems`);
    } else {
      const window = health.seconds === null ? "" : `, rates over ${health.seconds.toFixed(0)} s`;
      this.setVerdict("ok", `Healthy: none of ${looked.rules} rules found anything wrong${window}`);
    }
  }

  setVerdict(word, text) {
    const shown = `${word} ${text}`;
    if (this.verdict !== shown) {
      this.verdict = shown;
      this.status.replaceChildren(severityBadge(word), ` ${text}`);
    }
  }
}

// Findings of one rule stand together, as their meaning and remedy are the same.
function groupFindings(findings) {
  const groups = new Map();
  for (const finding of findings) {
    groups.set(finding.rule, [...(groups.get(finding.rule) ?? []), finding]);
  }
  return [...groups.values()];
}

const mostSubjects = 10;

function findingItem(group, open) {
  const [first] = group;
  const subjects = group.slice(0, mostSubjects).map((finding) => element("li", {},
    subjectLink(finding), " ", element("span", { class: "quiet" }, sinceText(finding))));
  if (group.length > mostSubjects) {
    subjects.push(element("li", { class: "quiet" }, `and ${group.length - mostSubjects} more`));
  }
  return element("li", { class: `finding ${first.severity}` },
    element("div", { class: "finding-head" }, severityBadge(first.severity), element("ul", {}, ...subjects)),
    element("p", { class: "remedy" }, first.remedy),
    element("details", { "data-rule": first.rule, open: open.has(first.rule) },
      element("summary", {}, "What it means"), element("p", {}, first.meaning)));
}

// Peers and applications have views of their own.
function subjectLink(finding) {
  const text = `${finding.subject}: ${finding.text}`;
  if (finding.kav_peer_id === null) {
    return element("span", {}, text);
  }
  const identity = encodeURIComponent(finding.kav_peer_id);
  const target = finding.scope === "application"
    ? `#/application/${encodeURIComponent(`${finding.kav_peer_id}/${finding.application}`)}` : `#/peer/${identity}`;
  return element("a", { href: target }, text);
}

function sinceText(finding) {
  if (finding.since !== null) {
    return `since ${timeText(finding.since)}`;
  }
  return finding.for_at_least_seconds > 0 ? `for at least ${ageText(finding.for_at_least_seconds)}` : "";
}

// The latest known value of a line.
function latest(series, definition) {
  for (let at = series.rows.length - 1; at >= Math.max(0, series.rows.length - 3); --at) {
    const value = series.value(definition, at);
    if (value !== null) {
      return value;
    }
  }
  return null;
}

class ThingWithCharts {
  constructor(page, scope, key) {
    this.page = page;
    this.scope = scope;
    this.key = key;
    this.board = new ChartBoard(page.charts[scope]);
    this.when = element("p", { class: "when", hidden: true });
  }

  // The figures below the health, and their time.
  nowSection() {
    return element("section", { "aria-label": "Figures" }, this.when, this.strip.root);
  }

  async updateCharts() {
    const { from, to, isLive, isPast } = this.page.range.times();
    this.past = isPast ? { at: Math.ceil(to) } : null;
    const parameters = { scope: this.scope, points: historyPoints };
    if (this.key) {
      parameters.key = this.key;
    }
    if (from !== null) {
      Object.assign(parameters, { from: Math.floor(from), to: Math.ceil(to) });
    }
    const history = await this.page.source.get("history", parameters);
    this.board.update(history, this.span(history, from, to, isLive));
    this.showWhen(history);
    return new Series(history);
  }

  showWhen({ rows }) {
    this.when.hidden = this.past === null;
    this.when.textContent = rows.length > 0 ? `Figures recorded at ${timeText(rows[rows.length - 1][0])}`
      : "Nothing was recorded in this time.";
  }

  // The row of this peer or application in its table. In the past, nothing when nothing was recorded.
  async ownRow(name) {
    let table;
    try {
      table = await this.page.source.get(name, { search: this.key, top: mostRows, ...this.past });
    } catch (error) {
      if (error.status === 404) {
        return undefined;
      }
      throw error;
    }
    return tableObjects(table).find((row) => row.key === this.key);
  }

  // Live charts grow to what the server keeps, from a minute on.
  span(history, from, to, isLive) {
    if (from !== null) {
      return [from, to];
    }
    const { rows } = history;
    if (!isLive || rows.length === 0) {
      return undefined;
    }
    const last = rows[rows.length - 1][0];
    return [Math.min(rows[0][0], last - 60), last];
  }

  // While no engine is running, the server still has the last minutes.
  async updateOld() {
    const series = await this.updateCharts();
    this.showSeries(series);
    const { rows } = series;
    if (this.past === null && rows.length > 0) {
      this.when.hidden = false;
      this.when.textContent = `The engine's last figures, of ${timeText(rows[rows.length - 1][0])}`;
    }
  }

  showSeries(series) {
    this.showTraffic(this.strip, series);
  }

  recolor() {
    this.board.recolor();
  }

  destroy() {
    this.board.destroy();
  }

  // The figure of a chart's line now.
  now(series, chart, line) {
    const definition = this.page.charts[this.scope].find((one) => one.name === chart);
    return latest(series, definition.series[line]);
  }

  // The traffic of both directions, before and after.
  traffic(series) {
    const values = [0, 1, 2, 3].map((line) => this.now(series, "traffic", line));
    if (values.includes(null)) {
      return { before: null, after: null, saved: null };
    }
    const before = values[0] + values[2];
    const after = values[1] + values[3];
    return { before, after, saved: before > 0 || after > 0 ? savedPercent(before, after) : null };
  }

  showTraffic(strip, series) {
    const { before, after, saved } = this.traffic(series);
    strip.set("before", valueText(before, "bytes_per_second"));
    strip.set("after", valueText(after, "bytes_per_second"));
    strip.set("saved", valueText(saved, "percent"));
  }
}

class OverviewView extends ThingWithCharts {
  constructor(page) {
    super(page, "engine", "");
    this.health = new HealthPanel({ title: "Health" });
    this.strip = new FigureStrip([["before", "Traffic before"], ["after", "Traffic after"], ["saved", "Saved"],
      ["latency", "Encoding latency"], ["nacks", "NACKs"], ["connections", "Open connections"],
      ["cache", "Cache in use"]]);
    this.root = element("div", {}, this.health.root, this.nowSection(), this.board.root);
  }

  async update() {
    this.health.update(this.page.health);
    const series = await this.updateCharts();
    this.showSeries(series, !this.past);
    this.health.setTitle(this.past ? "Health now" : "Health");
    if (this.past) {
      this.strip.clearNotes();
    } else {
      await this.updateTotals();
    }
  }

  // hasTotals: the number of connections comes with the totals.
  showSeries(series, hasTotals = false) {
    super.showSeries(series);
    this.strip.set("latency", valueText(this.now(series, "latency", 0), "seconds"));
    const nacks = [0, 1, 2, 3].map((line) => this.now(series, "nacks", line));
    this.strip.set("nacks", valueText(nacks.includes(null) ? null : nacks.reduce((sum, one) => sum + one),
      "count_per_second"));
    this.strip.set("cache", valueText(this.now(series, "cache", 0), "percent"));
    if (!hasTotals) {
      this.strip.set("connections", valueText(this.now(series, "connections", 0), "count"));
    }
  }

  async updateTotals() {
    const { global } = await this.page.source.get("statistics", { scope: "global" });
    const totals = global.connection_counters;
    const before = totals.encode_in_bytes + totals.decode_out_bytes;
    const after = totals.encode_out_bytes + totals.decode_in_bytes;
    const note = (key, text) => {
      this.strip.figures[key].note.textContent = text;
    };
    note("before", `${sizeText(before)} in all`);
    note("after", `${sizeText(after)} in all`);
    note("saved", `${savedPercent(before, after).toFixed(1)}% in all`);
    note("nacks", `${countText(totals.num_total_nack_msgs)} in all`);
    this.strip.set("connections", countText(global.active_connections),
      `${countText(global.counters.num_total_conns)} in all`);
    note("cache", `of ${unitTexts.megabytes(global.counters.total_cache_size)}`);
  }
}

class PeerView extends ThingWithCharts {
  constructor(page, key) {
    super(page, "peer", key);
    this.health = new HealthPanel({ title: "Health",
      concerns: (finding) => finding.kav_peer_id === key && finding.scope === "peer" });
    this.title = element("h2", {}, "Peer");
    this.identity = element("p", { class: "quiet" }, key);
    this.strip = new FigureStrip([["before", "Traffic before"], ["after", "Traffic after"], ["saved", "Saved"],
      ["round-trip", "Round-trip time"], ["ack-queue", "Ack queue"], ["connections", "Open connections"]]);
    this.root = element("div", {}, backLink("peers", "All peers"), this.title, this.identity, this.health.root,
      this.nowSection(), this.board.root);
  }

  async update() {
    this.health.update(this.page.health);
    this.showSeries(await this.updateCharts());
    const peer = await this.ownRow("peers");
    if (!peer) {
      this.identity.textContent = `${this.key} ${this.past ? "was not" : "is no longer"} among the engine's peers.`;
      return;
    }
    this.title.textContent = `Peer ${peer.peer}${peer.host_name ? `, ${peer.host_name}` : ""}`;
    this.identity.textContent = `${peer.ip}, identity ${peer.key}`;
    this.strip.figures.before.note.textContent = `${sizeText(peer.encode_in + peer.decode_out)} in all`;
    this.strip.figures.after.note.textContent = `${sizeText(peer.encode_out + peer.decode_in)} in all`;
    this.strip.figures.saved.note.textContent = `${valueText(peer.saved_total, "percent")} in all`;
    this.strip.set("round-trip", valueText(peer.round_trip, "seconds"));
    this.strip.set("ack-queue", valueText(peer.ack_queue, "bytes"));
    this.strip.set("connections", countText(peer.connections));
  }
}

class ApplicationView extends ThingWithCharts {
  constructor(page, key) {
    super(page, "application", key);
    this.title = element("h2", {}, "Application");
    this.identity = element("p", { class: "quiet" }, key);
    this.strip = new FigureStrip([["before", "Traffic before"], ["after", "Traffic after"], ["saved", "Saved"]]);
    this.root = element("div", {}, backLink("applications", "All applications"), this.title, this.identity,
      this.nowSection(), this.board.root);
  }

  async update() {
    this.showSeries(await this.updateCharts());
    const application = await this.ownRow("applications");
    if (!application) {
      this.identity.textContent =
        `${this.key} ${this.past ? "was not" : "is no longer"} among the engine's applications.`;
      return;
    }
    this.title.textContent = `Application ${application.application}`;
    const host = application.host_name ? `, ${application.host_name}` : "";
    this.identity.textContent = application.peer >= 0 ? `with peer ${application.peer}${host}` : "its peer is gone";
    this.strip.figures.before.note.textContent =
      `${sizeText(application.encode_in + application.decode_out)} in all`;
    this.strip.figures.after.note.textContent =
      `${sizeText(application.encode_out + application.decode_in)} in all`;
    this.strip.figures.saved.note.textContent = `${valueText(application.saved_total, "percent")} in all`;
  }
}

function backLink(view, text) {
  return element("p", { class: "back" }, element("a", { href: `#/${view}` }, `← ${text}`));
}

class ListView {
  constructor(page, name, texts) {
    this.page = page;
    this.isRecorded = texts.isRecorded ?? false;
    this.table = new TableView(page.source, name, texts);
    this.root = this.table.root;
  }

  async update() {
    const { to, isPast } = this.page.range.times();
    this.table.at = isPast && this.isRecorded ? Math.ceil(to) : null;
    try {
      await this.table.update();
    } catch (error) {
      if (error.status !== 404) {
        throw error;
      }
      this.table.showNothing(error.message);
    }
    if (isPast && !this.isRecorded) {
      this.table.setWhen("Of the running engine, not of the past");
    }
  }

  recolor() {}

  destroy() {}
}

// In the order of the navigation.
const views = {
  overview: { title: "Overview", make: (page) => new OverviewView(page) },
  peers: { title: "Peers", none: "There are no peers.", isRecorded: true },
  applications: { title: "Applications", none: "There are no applications.", isRecorded: true },
  connections: { title: "Connections", none: "There are no connections." },
  nacks: { title: "NACKs", none: "Nothing was nacked." },
  bypass: { title: "Auto-bypass", none: "No server is bypassed." },
  configuration: { title: "Configuration", none: "The engine has published none." },
};

// The view that a fragment names: "#/peers", "#/peer/KEY".
function makeView(page, fragment) {
  const [, name = "", key = ""] = fragment.match(/^#\/([a-z]+)(?:\/(.+))?$/) ?? [];
  let decoded;
  try {
    decoded = decodeURIComponent(key);
  } catch {
    decoded = key;
  }
  if (name === "peer" && key) {
    return { name: "peers", view: new PeerView(page, decoded) };
  }
  if (name === "application" && key) {
    return { name: "applications", view: new ApplicationView(page, decoded) };
  }
  if (!Object.hasOwn(views, name) || name === "overview") {
    return { name: "overview", view: new OverviewView(page) };
  }
  return { name, view: new ListView(page, name, views[name]) };
}
