// ---- The page as a whole: its head, which view is shown, and when it is read again.

const updateEvery = 2500; // milliseconds
const retryEvery = 1000;  // while there is no engine or no server

// Which time charts show. Nothing can be chosen where there is no recording.
class Range {
  constructor(form, source, change) {
    this.form = form;
    this.isLiveSource = source.isLive;
    this.change = change;
    this.seconds = 0; // of the past up to now; 0 for the last minutes, live
    this.custom = null;
  }

  // charts: the document, which says what is recorded.
  start(charts) {
    this.recorded = charts.recorded ?? null;
    const minutes = Math.round((charts.live_seconds ?? 0) / 60);
    if (!this.isLiveSource) {
      return;
    }
    if (this.recorded === null) {
      this.form.replaceChildren(element("p", { class: "quiet" }, `Live, last ${minutes} minutes`));
      return;
    }
    const choices = [[0, `Live, last ${minutes} minutes`], [3600, "Last hour"], [21600, "Last 6 hours"],
      [86400, "Last 24 hours"], [604800, "Last 7 days"], [2592000, "Last 30 days"], [-1, "From … to …"]];
    this.select = element("select", { id: "range-choice", onchange: () => this.choose() },
      ...choices.map(([value, label]) => element("option", { value: String(value) }, label)));
    this.from = this.timeInput("range-from");
    this.to = this.timeInput("range-to");
    this.times_ = element("span", { class: "times", hidden: true },
      element("label", { for: "range-from" }, "from "), this.from, element("label", { for: "range-to" }, " to "),
      this.to);
    this.form.replaceChildren(element("label", { for: "range-choice" }, "Time "), this.select, this.times_);
    this.form.addEventListener("submit", (event) => event.preventDefault());
  }

  timeInput(id) {
    return element("input", { type: "datetime-local", id, step: "1", onchange: () => this.choose() });
  }

  choose() {
    const seconds = Number(this.select.value);
    const isCustom = seconds < 0;
    this.times_.hidden = !isCustom;
    this.seconds = isCustom ? 0 : seconds;
    this.custom = null;
    if (isCustom) {
      this.chooseTimes();
    }
    if (!isCustom || this.custom) {
      this.change();
    }
  }

  chooseTimes() {
    if (!this.from.value) {
      const local = (seconds) => new Date((seconds - new Date().getTimezoneOffset() * 60) * 1000).toISOString()
        .slice(0, 19);
      this.from.value = local(this.recorded.from);
      this.to.value = local(this.recorded.to);
    }
    const from = new Date(this.from.value).getTime() / 1000;
    const to = new Date(this.to.value).getTime() / 1000;
    const isSound = isKnown(from) && isKnown(to) && from < to;
    this.to.setCustomValidity(isSound ? "" : "not after the beginning");
    this.to.reportValidity();
    this.custom = isSound ? { from, to, isLive: false, isPast: true } : null;
  }

  times() {
    if (this.custom) {
      return this.custom;
    }
    const now = Date.now() / 1000;
    return this.seconds > 0 ? { from: now - this.seconds, to: now, isLive: false, isPast: true }
      : { from: null, to: null, isLive: this.isLiveSource, isPast: false };
  }
}

class Page {
  constructor() {
    this.source = makeSource();
    this.main = document.getElementById("main");
    this.health = null;
    this.lastRead = null; // seconds since the epoch
    this.range = new Range(document.getElementById("range"), this.source, () => this.update());
    this.links = Object.entries(views).map(([name, { title }]) =>
      element("a", { href: `#/${name}`, "data-view": name }, title));
    document.getElementById("nav").append(...this.links);
    addEventListener("hashchange", () => this.turn());
    matchMedia("(prefers-color-scheme: dark)").addEventListener("change", () => this.view?.recolor());
    document.addEventListener("visibilitychange", () => document.hidden || this.update());
  }

  async start() {
    while (!this.charts) {
      try {
        this.charts = await this.source.get("charts");
      } catch (error) {
        this.warn(error.message);
        await new Promise((resolve) => setTimeout(resolve, retryEvery));
      }
    }
    this.range.start(this.charts);
    document.getElementById("foot").textContent =
      `kavstat ${this.charts.kavstat_version}. Sizes are in powers of 1024. Times are in the time zone of this browser.`;
    this.turn();
  }

  // Shows the view of the fragment.
  turn() {
    const { name, view } = makeView(this, location.hash);
    this.view?.destroy();
    this.view = view;
    this.main.replaceChildren(view.root);
    for (const link of this.links) {
      if (link.dataset.view === name) {
        link.setAttribute("aria-current", "page");
        link.scrollIntoView({ inline: "nearest", block: "nearest" });
      } else {
        link.removeAttribute("aria-current");
      }
    }
    document.title = name === "overview" ? "KAV engine" : `${views[name].title} – KAV engine`;
    scrollTo(0, 0);
    this.update();
  }

  // Reads everything that is in sight, and comes again.
  async update() {
    clearTimeout(this.timer);
    const view = this.view;
    const started = performance.now();
    let wait = updateEvery;
    try {
      this.health = await this.source.get("health");
      this.showEngine();
      // The past can be read without an engine.
      if (this.health.reason !== null && this.range.times().isLive) {
        throw new Error(this.health.reason);
      }
      await view.update();
      this.lastRead = this.health.capture_time;
      this.calm();
    } catch (error) {
      this.warn(error.message);
      wait = retryEvery;
      if (this.health && view.health) {
        view.health.update(this.health);
      }
      await view.updateOld?.().catch(() => {}); // the reason has been said
    }
    if (this.source.isLive && view === this.view) {
      clearTimeout(this.timer);
      // What is much work for the server is asked for less often.
      const took = performance.now() - started;
      this.timer = setTimeout(() => document.hidden || this.update(), Math.max(wait, took * 10));
    }
    document.documentElement.dataset.updates = String(Number(document.documentElement.dataset.updates ?? 0) + 1);
  }

  showEngine() {
    const { status, engine_start_time: start, capture_time: now } = this.health;
    const words = { ok: "Healthy", warning: "Warning", critical: "Critical", unknown: "Unknown" };
    const badge = element("span", { class: `badge ${status}` }, words[status]);
    const engine = document.getElementById("engine");
    if (engine.textContent !== badge.textContent) {
      engine.replaceChildren(badge);
    }
    const facts = document.getElementById("facts");
    if (start === null) {
      facts.textContent = "";
    } else {
      const shown = this.source.isLive ? `up ${ageText(now - start)}, read ${clockText(now)}`
        : `${this.health.source}, ${timeText(now)}, up ${ageText(now - start)}`;
      facts.textContent = `${shown}, kavstat ${this.health.kavstat_version}`;
    }
  }

  // What is in sight is no longer so.
  warn(reason) {
    const since = this.lastRead === null ? "" : ` Figures are those of ${timeText(this.lastRead)}.`;
    const sentence = reason.charAt(0).toUpperCase() + reason.slice(1);
    const alert = document.getElementById("alert");
    const text = `${sentence}.${since}`;
    if (alert.textContent !== text) {
      alert.textContent = text;
    }
    alert.hidden = false;
    document.documentElement.classList.toggle("old", this.lastRead !== null);
    document.getElementById("engine").replaceChildren(element("span", { class: "badge unknown" }, "No figures"));
  }

  calm() {
    document.getElementById("alert").hidden = true;
    document.documentElement.classList.remove("old");
  }
}

new Page().start();
