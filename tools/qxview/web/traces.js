// Shows all traces of the machine: logs and rings, merged in the order of time.

import { getDocument } from "./api.js";
import { TimeCursor } from "./cursor.js";
import { debounced, element, setChildren, setText, throttled } from "./dom.js";
import { counted, fullTime, zoneName } from "./format.js";
import { icon } from "./icons.js";
import { LiveEvents } from "./live.js";
import { levelChoice } from "./report-traces.js";
import { changed, numberParam } from "./route.js";
import { empty, failed, loading } from "./states.js";
import { textOf, visibleText } from "./text.js";
import { fileName, passes, ReadEntries, textCell, timeCell } from "./trace-cells.js";
import { TimeList } from "./time-list.js";

const rowsAtFirst = 500;
const rowsAtMost = 10000;
const rowsOfRequest = 1000;

export function showTraces(context) {
  return new Traces(context);
}

class Traces {
  constructor({ root, route, frame, pages }) {
    Object.assign(this, { root, route, frame, pages });
    this.abort = new AbortController();
    this.waiting = [];
    this.held = 0;
    this.read = new ReadEntries();
    this.cursor = new TimeCursor();
    this.filterLater = debounced(250, () => this.setParams({ filter: this.search.value }));
    this.show = throttled(200, () => this.draw());
    frame.title("Traces");
    this.build();
    this.load();
  }

  build() {
    this.search = element("input", { type: "search", placeholder: "Filter traces", "aria-label": "Filter traces",
      oninput: () => this.filterLater() });
    this.level = levelChoice(() => this.setParams({ level: this.level.value }));
    this.pause = element("button", { type: "button", class: "pause", onclick: () => this.togglePause() });
    this.count = element("p", { class: "where", role: "status" });
    this.place = element("div", { class: "place" });
    this.older = element("button", { type: "button", onclick: () => this.showOlder() });
    this.list = new TimeList({
      label: "Traces", columns: ["Time", "File", "Module", "Thread", "Text"], rowsMax: rowsAtFirst,
      cells: (entry) => this.cells(entry), timeOf: (entry) => entry.timeMs, point: (time, pinned) => this.point(time, pinned),
      leave: () => this.cursor.leave("list"),
    });
    this.cursor.listen((time) => this.list.mark(time, false));
    this.card = element("section", { class: "card log-card log-tall", "aria-label": "Traces", hidden: true }, this.list.scroller,
      element("div", { class: "log-end" }, this.older));
    this.root.replaceChildren(element("div", { class: "view-head" }, element("h1", {}, "Traces"), this.count),
      element("div", { class: "tools", role: "search" }, this.level, this.search, this.pause), this.card, this.place);
    this.showControls();
  }

  get rows() {
    return Math.min(rowsAtMost, Math.max(rowsAtFirst, numberParam(this.route, "rows") ?? 0));
  }

  get filter() {
    return this.route.params.get("filter") ?? "";
  }

  get span() {
    return { from: numberParam(this.route, "from"), to: numberParam(this.route, "to") };
  }

  get paused() {
    return this.span.to !== null;
  }

  cells(entry) {
    return [timeCell(entry, this.frame.utc), element("td", { class: "log-file" }, fileName(entry.file ?? "")),
      element("td", { class: "log-module" }, textOf(entry, "module")), element("td", { class: "log-thread" }, visibleText(entry.thread ?? "")),
      textCell(entry, this.filter)];
  }

  point(time, pinned) {
    if (!pinned) return this.cursor.hover(time, "list");
    this.cursor.pin(time, "list");
    this.setParams({ at: time === null ? null : Math.round(time) });
  }

  setParams(changes) {
    this.pages.replace(changed(this.route, changes));
  }

  togglePause() {
    this.setParams(this.paused ? { from: null, to: null } : { to: Date.now() });
  }

  async load() {
    this.place.replaceChildren(loading("Reading the traces"));
    this.live?.close();
    this.live = null;
    try {
      await this.fetch();
    } catch (error) {
      return this.fail(error);
    }
    this.place.replaceChildren();
    this.draw();
    this.cursor.pin(numberParam(this.route, "at"), "address");
    this.startLive();
  }

  // A request returns a limited number of entries, so a long list needs several requests.
  async fetch() {
    const { from, to } = this.span;
    const span = to === null ? [] : [["from", from ?? 0], ["to", to]];
    const request = this.requests = (this.requests ?? 0) + 1;
    const entries = [];
    let document = {};
    do {
      const count = Math.min(rowsOfRequest, this.rows - entries.length);
      document = await getDocument("traces", [...span, ["newest", count], ["before", document.before], ["level", this.level.value],
        ["filter", this.filter]], this.abort.signal);
      if (request !== this.requests) return;
      if (entries.length === 0) {
        this.startCursor = document.cursor;
        this.read = new ReadEntries(document.entries);
      }
      entries.push(...document.entries.reverse());
    } while (document.before && entries.length < this.rows);
    this.waiting = [];
    this.held = 0;
    this.list.rowsMax = this.rows;
    this.isCut = Boolean(document.before);
    this.list.replace(entries);
  }

  // Shows more rows. If the list has reached its limit, shows instead the entries up to the oldest time of the list.
  showOlder() {
    if (this.rows < rowsAtMost) return this.setParams({ rows: this.rows * 2 });
    const oldest = this.list.entries.findLast(({ timeMs }) => typeof timeMs === "number");
    if (oldest) this.setParams({ to: oldest.timeMs, rows: null });
  }

  startLive() {
    if (this.abort.signal.aborted || this.live) return;
    this.live = new LiveEvents({
      parameters: () => [["view", "traces"]],
      cursor: this.startCursor,
      onEvent: (type, document) => this.receive(type, document),
      onState: (state) => this.showState(state),
    });
  }

  showState(state) {
    this.liveState = state;
    this.frame.state(this.paused && state.name === "live" ? { name: "paused" } : state, () => this.live.retryNow());
  }

  fail(error) {
    if (this.abort.signal.aborted) return;
    if (error.kind === "session") return this.pages.sessionEnded();
    this.card.hidden = true;
    this.place.replaceChildren(failed(error, () => this.load()));
  }

  receive(type, { entries }) {
    if (type !== "traces") return;
    const shown = this.read.withoutThese(entries).filter((entry) => passes(entry, this.level.value, this.filter));
    if (this.paused) this.held += shown.length;
    else this.waiting.push(...shown);
    this.show();
  }

  draw() {
    if (this.waiting.length > 0) {
      this.isCut ||= this.list.size + this.waiting.length > this.rows;
      this.list.prepend(this.waiting.reverse());
    }
    this.waiting = [];
    const none = this.list.size === 0;
    this.card.hidden = none;
    this.older.hidden = !this.isCut;
    setText(this.older, this.rows < rowsAtMost ? "Show older" : "Go to older");
    this.showCount();
    this.showPause();
    if (!none) this.place.replaceChildren();
    else this.showNothing();
  }

  showCount() {
    const { from, to } = this.span;
    const { utc } = this.frame;
    const many = counted(this.list.size, "entry").replace("entrys", "entries");
    const span = to === null ? "" : ` ${from === null ? "up to" : `from ${fullTime(from, utc)} to`} ${fullTime(to, utc)} ${zoneName(to, utc)}`;
    setText(this.count, `${this.isCut ? "newest " : ""}${many}${span}`);
  }

  showNothing() {
    const filtered = this.filter !== "" || this.level.value !== "";
    const text = filtered ? "No trace of this level contains the filter." :
      "The trace directory has no entries. A service writes traces only if its settings choose level 1 or higher.";
    const action = filtered ? element("button", { type: "button", onclick: () => this.clear() }, "Show all traces") :
      element("code", { class: "command" }, "qxctl trace config");
    if (!this.place.textContent.includes(text)) this.place.replaceChildren(empty("No traces", text, action));
  }

  clear() {
    this.search.value = "";
    this.setParams({ filter: null, level: null });
  }

  update(route) {
    const before = this.route;
    this.route = route;
    this.showControls();
    const asked = ({ params }) => ["from", "to", "level", "filter", "rows"].map((name) => params.get(name)).join("\n");
    if (asked(before) !== asked(route)) this.load();
    else this.redrawTexts();
    this.showCount();
  }

  // Shows the times again: their zone, or the day, may have changed.
  redrawTexts() {
    this.list.rebuild();
    this.list.mark(this.cursor.time, false);
  }

  showControls() {
    this.level.value = this.route.params.get("level") ?? "";
    if (document.activeElement !== this.search) this.search.value = this.filter;
    this.showPause();
    if (this.liveState) this.showState(this.liveState);
  }

  showPause() {
    if (this.wasPaused !== this.paused) {
      this.wasPaused = this.paused;
      this.pauseText = element("span");
      setChildren(this.pause, [icon(this.paused ? "live" : "paused"), this.pauseText]);
      this.pause.classList.toggle("primary", this.paused);
    }
    setText(this.pauseText, this.paused ? `Resume${this.held > 0 ? ` (${this.held} new)` : ""}` : "Pause");
  }

  close() {
    this.filterLater.cancel();
    this.show.cancel();
    this.abort.abort();
    this.live?.close();
  }
}
