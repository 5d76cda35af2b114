// ---- Charts: drawn by dygraphs, zoomed and panned together, each with a table of its values.

// Lines differ in colour and in dashes, so that colour never says anything alone.
const lineDashes = [null, [7, 3], [2, 2], [9, 3, 2, 3], [4, 4], [12, 4], [2, 5], [7, 2, 2, 2, 2, 2], [1, 3]];
const lineColors = 9;
const chartHeight = 190;
// Rates of two samples are a single point.
const fewestSamples = 3;

// The legend of dygraphs makes style attributes, which the page's policy forbids. The page has its own.
Dygraph.PLUGINS = Dygraph.PLUGINS.filter((plugin) => plugin !== Dygraph.Plugins.Legend);

// element("p", { class: "x" }, "text", child...): texts become text and never markup.
function element(tag, attributes = {}, ...children) {
  const made = document.createElement(tag);
  for (const [name, value] of Object.entries(attributes)) {
    if (name.startsWith("on")) {
      made.addEventListener(name.slice(2), value);
    } else if (value !== false && value !== null) {
      made.setAttribute(name, value === true ? "" : value);
    }
  }
  made.append(...children);
  return made;
}

function styleValue(name) {
  return getComputedStyle(document.documentElement).getPropertyValue(name).trim();
}

// A sample of a line, beside its name.
function lineSample(at) {
  const svg = document.createElementNS("http://www.w3.org/2000/svg", "svg");
  svg.setAttribute("class", "sample");
  svg.setAttribute("viewBox", "0 0 28 8");
  svg.setAttribute("aria-hidden", "true");
  const line = document.createElementNS("http://www.w3.org/2000/svg", "line");
  line.setAttribute("class", `line-${at % lineColors}`);
  for (const [name, value] of Object.entries({ x1: 0, x2: 28, y1: 4, y2: 4 })) {
    line.setAttribute(name, value);
  }
  if (lineDashes[at % lineDashes.length]) {
    line.setAttribute("stroke-dasharray", lineDashes[at % lineDashes.length].join(" "));
  }
  svg.append(line);
  return svg;
}

class Chart {
  // board: told of zooms. definition: of the table of charts.
  constructor(board, definition) {
    this.board = board;
    this.definition = definition;
    this.values = []; // by series
    this.times = [];
    // dygraphs itself shows the range of the rows then, which may be less.
    this.canvas = element("div", { class: "canvas", "aria-hidden": "true", hidden: true,
      ondblclick: () => board.zoom(null) });
    this.empty = element("p", { class: "quiet", hidden: true });
    this.figures = definition.series.map(() =>
      element("span", { class: `figure ${definition.unit}` }, noFigure));
    this.legend = element("ul", { class: "legend" });
    definition.series.forEach((series, at) => {
      this.legend.append(element("li", {}, lineSample(at), ` ${series.label} `, this.figures[at]));
    });
    this.table = element("div", { class: "scroll", tabindex: "0", role: "region",
      "aria-label": `${definition.title}, table` });
    this.details = element("details", { ontoggle: () => this.fillTable() },
      element("summary", {}, "Values as a table"), this.table);
    this.root = element("figure", { class: "chart", id: `chart-${definition.name}`,
      "aria-labelledby": `chart-title-${definition.name}` },
      element("figcaption", { id: `chart-title-${definition.name}` }, definition.title),
      this.legend, this.canvas, this.empty, this.details);
  }

  // series: of the history that is shown. window: [from, to] in milliseconds.
  update(series, window) {
    this.times = series.rows.map((row) => row[0]);
    this.values = this.definition.series.map((one) => series.values(one));
    const known = Math.max(...this.values.map((line) => line.filter(isKnown).length));
    const isEmpty = this.times.length < fewestSamples || known < 2;
    this.empty.textContent = known === 0 ? "No values in this time." : "Too few values for a line.";
    this.empty.hidden = !isEmpty || this.times.length < fewestSamples;
    this.canvas.hidden = isEmpty;
    this.showFigures(this.times.length - 1);
    this.fillTable();
    if (isEmpty) {
      return;
    }
    const data = this.times.map((time, at) => [new Date(time * 1000), ...this.values.map((line) => line[at])]);
    if (this.graph) {
      this.graph.resize(); // it may have been out of sight
      this.graph.updateOptions({ file: data, dateWindow: window, valueRange: this.valueRange() });
    } else {
      this.draw(data, window);
    }
  }

  draw(data, window) {
    this.graph = new Dygraph(this.canvas, data, {
      labels: ["Time", ...this.definition.series.map((series) => series.label)],
      dateWindow: window,
      valueRange: this.valueRange(),
      height: chartHeight,
      legend: "never",
      axes: {
        x: { drawGrid: false, axisLabelFormatter: axisTimeText, pixelsPerLabel: 70 },
        y: { axisLabelFormatter: (value) => axisText(value, this.definition.unit), axisLabelWidth: 72,
          pixelsPerLabel: 34, ticker: (low, high, pixels, options) =>
            axisTicks(low, high, pixels / options("pixelsPerLabel"), this.definition.unit) },
      },
      series: Object.fromEntries(this.definition.series.map((series, at) =>
        [series.label, { strokePattern: lineDashes[at % lineDashes.length] }])),
      strokeWidth: 1.6,
      highlightCircleSize: 3,
      ...this.colors(),
      // A press and a move choose a time; with Shift they move it. Values always fit.
      zoomCallback: (from, to) => this.board.zoom([from, to]),
      highlightCallback: (event, x, points, row) => this.board.highlight(x, row),
      unhighlightCallback: () => this.board.highlight(null, null),
      drawCallback: (graph, isInitial) => {
        if (!isInitial) {
          this.board.follow(graph);
        }
      },
    });
  }

  valueRange() {
    if (this.definition.unit === "percent") {
      return [0, 103];
    }
    const highest = Math.max(0, ...this.values.flatMap((line) => line.filter(isKnown)));
    return [0, highest > 0 ? highest * 1.08 : 1];
  }

  colors() {
    return {
      colors: this.definition.series.map((series, at) => styleValue(`--line-${at % lineColors}`)),
      axisLineColor: styleValue("--rule"),
      gridLineColor: styleValue("--rule"),
    };
  }

  recolor() {
    this.graph?.updateOptions(this.colors());
  }

  setWindow(window) {
    this.graph?.updateOptions({ dateWindow: window });
  }

  // row: null for the last one.
  select(row) {
    if (row === null) {
      this.graph?.clearSelection();
    } else {
      this.graph?.setSelection(row);
    }
    this.showFigures(row ?? this.times.length - 1);
  }

  showFigures(row) {
    this.values.forEach((line, at) => {
      this.figures[at].textContent = valueText(line[row] ?? null, this.definition.unit);
    });
  }

  // Only while somebody looks at it.
  fillTable() {
    if (!this.details.open) {
      this.table.replaceChildren();
      return;
    }
    const most = 200;
    const head = element("tr", {}, element("th", { scope: "col" }, "Time"),
      ...this.definition.series.map((series) => element("th", { scope: "col" }, series.label)));
    const body = element("tbody");
    for (let row = this.times.length - 1; row >= Math.max(0, this.times.length - most); --row) {
      body.append(element("tr", {}, element("th", { scope: "row" }, timeText(this.times[row])),
        ...this.values.map((line) => element("td", {}, valueText(line[row], this.definition.unit)))));
    }
    this.table.replaceChildren(element("table", {},
      element("caption", {}, `${this.definition.title}, latest first`), element("thead", {}, head), body));
  }

  destroy() {
    this.graph?.destroy();
  }
}

// Round steps between ticks: of sizes in powers of 1024, of ages in minutes, hours and days.
function tickStep(least, unit) {
  if (unit === "age") {
    const steps = [1, 5, 10, 30, 60, 300, 600, 1800, 3600, 7200, 21600, 43200, 86400];
    return steps.find((step) => step >= least) ?? 86400 * Math.ceil(least / 86400);
  }
  const isSize = unit.startsWith("bytes");
  const base = isSize ? 1024 : 10;
  const power = base ** Math.floor(Math.log(Math.max(least, isSize ? 1 : 1e-9)) / Math.log(base));
  const factors = isSize ? [1, 2, 5, 10, 20, 50, 100, 200, 500] : [1, 2, 5];
  return power * (factors.find((factor) => power * factor >= least) ?? base);
}

function axisTicks(low, high, most, unit) {
  const step = tickStep((high - low) / Math.max(most, 2), unit);
  const ticks = [];
  for (let place = Math.ceil(low / step); place * step <= high; ++place) {
    ticks.push({ v: place * step, label: axisText(place * step, unit) });
  }
  return ticks;
}

// Shorter than elsewhere: ticks are round.
function axisText(value, unit) {
  if (value === 0) {
    return "0";
  }
  if (unit === "seconds") {
    return value < 1 ? `${Number((value * 1000).toPrecision(3))} ms` : `${Number(value.toPrecision(3))} s`;
  }
  if (unit === "percent") {
    return `${value}%`;
  }
  return unit === "count_per_second" ? `${Number(value.toPrecision(3))}/s` : valueText(value, unit).replace(".0 ", " ");
}

function axisTimeText(date, granularity) {
  const time = clockText(date / 1000);
  if (granularity >= Dygraph.DAILY) {
    return `${date.getMonth() + 1}/${date.getDate()}`;
  }
  return granularity >= Dygraph.MINUTELY || date.getSeconds() === 0 ? time.slice(0, 5) : time;
}

// All charts of one thing. They show the same time.
class ChartBoard {
  constructor(definitions) {
    this.charts = definitions.map((definition) => new Chart(this, definition));
    this.window = null; // that somebody zoomed to
    this.isFollowing = false;
    this.reset = element("button", { type: "button", class: "reset", hidden: true,
      onclick: () => this.zoom(null) }, "Show the whole range");
    this.hint = element("p", { class: "quiet hint", hidden: true },
      "Drag to zoom, Shift and drag to move, double-click for the whole range.");
    this.few = element("p", { class: "quiet", hidden: true });
    this.grid = element("div", { class: "grid" }, ...this.charts.map((chart) => chart.root));
    this.root = element("section", { class: "charts", "aria-label": "Charts" },
      element("div", { class: "charts-head" },
        element("h2", {}, "Charts"),
        this.hint, this.few, this.reset),
      this.grid);
  }

  // span: [from, to] of the whole range in seconds; that of the rows when it is not given.
  update(history, span) {
    const rows = history.rows;
    this.few.hidden = rows.length >= fewestSamples;
    this.few.textContent = rows.length === 0 ? "There are no samples of this time."
      : `A line needs ${fewestSamples} samples. There ${rows.length === 1 ? "is 1" : `are ${rows.length}`} of this time.`;
    this.hint.hidden = !this.few.hidden;
    this.grid.hidden = rows.length === 0;
    const whole = span ?? (rows.length > 0 ? [rows[0][0], rows[rows.length - 1][0]] : [0, 1]);
    this.whole = whole.map((seconds) => seconds * 1000);
    const series = new Series(history);
    this.following(() => this.charts.forEach((chart) => chart.update(series, this.window ?? this.whole)));
  }

  // window: [from, to] in milliseconds, null for the whole range.
  zoom(window) {
    const isWhole = window === null || (window[0] <= this.whole[0] && window[1] >= this.whole[1]);
    this.window = isWhole ? null : window;
    this.reset.hidden = isWhole;
    this.following(() => this.charts.forEach((chart) => chart.setWindow(this.window ?? this.whole)));
  }

  // A chart was moved by the mouse.
  follow(graph) {
    if (this.isFollowing) {
      return;
    }
    const window = graph.xAxisRange();
    const shown = this.window ?? this.whole;
    if (window[0] !== shown[0] || window[1] !== shown[1]) {
      this.zoom(window);
    }
  }

  // Charts that are redrawn by us have nothing to tell us.
  following(work) {
    this.isFollowing = true;
    try {
      work();
    } finally {
      this.isFollowing = false;
    }
  }

  highlight(x, row) {
    this.charts.forEach((chart) => chart.select(row));
  }

  recolor() {
    this.charts.forEach((chart) => chart.recolor());
  }

  destroy() {
    this.charts.forEach((chart) => chart.destroy());
  }
}
