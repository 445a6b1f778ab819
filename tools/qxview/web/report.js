// One report: its state, the chart, and below it the records and traces of the same span of time, with one cursor.
//
// The address has the chosen fields, the span, the filters and a pinned cursor. A fixed span (`from` and `to`) is a paused
// view: new records are counted but not shown. Without it the view follows the newest record.

import { getDocument, pathOf } from "./api.js";
import { TimeCursor } from "./cursor.js";
import { element, setAttribute, setChildren, setText, throttled } from "./dom.js";
import { counted } from "./format.js";
import { icon } from "./icons.js";
import { LiveEvents } from "./live.js";
import { ReportChart } from "./report-chart.js";
import { factsPanel, namesPanel, ReportHead } from "./report-facts.js";
import { RecordsPanel } from "./report-records.js";
import { TracesPanel } from "./report-traces.js";
import { addressOf, changed, numberParam } from "./route.js";
import { requestedSpan, spanOf } from "./span.js";
import { failed, loading } from "./states.js";
import { decodedName } from "./text.js";

export function showReport(context) {
  return new Report(context);
}

class Report {
  constructor({ root, route, frame, pages }) {
    Object.assign(this, { root, route, frame, pages });
    this.name = decodedName(route.report);
    this.abort = new AbortController();
    this.cursor = new TimeCursor();
    this.clockOffset = 0;
    this.newRecords = 0;
    this.show = throttled(200, () => this.draw());
    this.frame.title(this.name);
    this.root.replaceChildren(loading(`Reading ${this.name}`));
    this.load();
  }

  now() {
    return Date.now() + this.clockOffset;
  }

  ask(document, parameters = []) {
    return getDocument(document, [["report", this.route.report], ...parameters], this.abort.signal);
  }

  async load() {
    try {
      const [overview, info, fields, names] = await Promise.all(
        [this.ask("overview"), this.ask("report"), this.ask("fields"), this.ask("names").catch((error) => this.orNoNames(error))]);
      this.clockOffset = overview.timeMs - Date.now();
      this.build(overview.reports[0], info, fields.fields, names);
      await this.loadParts(["records", "chart", "traces"]);
    } catch (error) {
      return this.fail(error);
    }
    this.startLive();
  }

  // Most reports have no file of names.
  orNoNames(error) {
    if (error.kind !== "refused") throw error;
    return { instances: [] };
  }

  fail(error) {
    if (this.abort.signal.aborted) return;
    if (error.kind === "session") return this.pages.sessionEnded();
    this.root.replaceChildren(this.backLink(), element("h1", {}, this.name), failed(error, () => this.load()));
  }

  backLink() {
    return element("a", { class: "back", href: addressOf("overview", this.route) }, "\u2190 All reports");
  }

  build(row, info, fields, names) {
    this.release();
    this.head = new ReportHead();
    this.chart = new ReportChart(this);
    this.records = new RecordsPanel(this);
    this.traces = new TracesPanel(this);
    this.fields = fields;
    this.pause = element("button", { type: "button", class: "pause", onclick: () => this.togglePause() });
    this.download = element("a", { class: "button", download: "" }, "Download text");
    this.root.replaceChildren(
      element("div", { class: "report-head" }, this.backLink(), element("h1", {}, element("bdi", {}, this.name)), this.head.state,
        element("span", { class: "head-actions" }, this.pause, this.download)),
      this.head.facts, this.chart.node,
      element("div", { class: "columns" }, this.records.node, this.traces.node),
      element("div", { class: "columns" }, factsPanel(info), namesPanel(names.instances)));
    this.head.show(row, this.route, this.now());
    this.cursor.listen((time, source) => this.mark(time, source));
    this.showControls();
    this.cursor.pin(numberParam(this.route, "at"), "address");
    this.ticks = setInterval(() => this.tick(), 1000);
  }

  get span() {
    return spanOf(this.route);
  }

  // Only the chart can show a span of record numbers.
  requestedSpan() {
    return requestedSpan(this.span, this.now());
  }

  // The chart is read first, because it decides whether the axis shows times or numbers of records. So it can be older
  // than the records, and then gets the newer records from them.
  async loadParts(parts) {
    if (parts.includes("chart")) await this.loadPart(this.chart);
    this.draw();
    await Promise.all(["records", "traces"].filter((part) => parts.includes(part)).map((part) => this.loadPart(this[part])));
    this.chart.addMissed(this.records.entries());
    this.draw();
    this.mark(this.cursor.time, "load");
  }

  // A part that the server refuses shows the reason; the other parts are still shown.
  async loadPart(part) {
    try {
      await part.load();
    } catch (error) {
      if (error.kind !== "refused") throw error;
      part.fail(error);
    }
  }

  startLive() {
    if (this.abort.signal.aborted) return;
    this.live = new LiveEvents({
      parameters: () => [["view", "report"], ["report", this.route.report], ["traces", "1"]],
      cursor: this.records.cursor,
      onEvent: (type, document) => this.receive(type, document),
      onState: (state) => this.showState(state),
    });
  }

  showState(state) {
    this.liveState = state;
    const paused = this.span.fixed && state.name === "live";
    this.frame.state(paused ? { name: "paused" } : state, () => this.live.retryNow());
  }

  receive(type, document) {
    if (type === "overview") this.head.show(document.reports[0], this.route, document.timeMs);
    else if (type === "records") this.receiveRecords(document);
    else if (type === "traces") this.traces.receive(document.entries);
    this.show();
  }

  // If the new records do not continue the shown ones, or are incomplete, the parts are read again.
  receiveRecords({ records, lost, reset, omitted }) {
    if (reset || omitted > 0 || lost !== 0) {
      if (lost > 0) this.records.noteLost(lost);
      return this.reload(["records", "chart"]);
    }
    this.chart.receive(records);
    this.records.receive(records);
    const newest = records.at(-1)?.timeMs;
    if (typeof newest === "number") this.head.noteRecord(newest);
    const { fixed, to } = this.span;
    if (fixed) this.newRecords += records.filter(({ timeMs }) => timeMs > to).length;
  }

  reload(parts) {
    this.loadParts(parts).catch((error) => this.failLater(error));
  }

  // The view stays when a later request fails, because the live events notice a lost connection.
  failLater(error) {
    if (error.kind === "session") this.pages.sessionEnded();
  }

  draw() {
    if (this.abort.signal.aborted) return;
    this.chart.draw();
    this.records.draw();
    this.traces.draw();
    this.showPause();
  }

  tick() {
    if (!document.hidden && !this.frame.isLost) this.head.showTimes(this.now());
    if (!document.hidden && !this.span.fixed && this.chart.hasMoved()) this.chart.draw();
  }

  mark(time, source) {
    this.chart.mark(time);
    this.records.mark(time, source !== "records");
    this.traces.mark(time, source !== "traces");
  }

  // Called by the parts when the user points at a time. A pinned time is in the address.
  point(time, pinned, source) {
    if (!pinned) return this.cursor.hover(time, source);
    this.cursor.pin(time, source);
    this.pages.replace(changed(this.route, { at: time === null ? null : Math.round(time) }));
  }

  zoom({ from, to }) {
    this.cursor.leave("chart");
    this.pages.go(changed(this.route, { from, to }));
  }

  followNewest(last = this.span.last) {
    this.pages.go(changed(this.route, { from: null, to: null, last }));
  }

  togglePause() {
    if (this.span.fixed) return this.followNewest();
    const { from, to } = this.chart.shownSpan();
    this.zoom({ from: Math.floor(from), to: Math.ceil(to) });
  }

  update(route) {
    const before = this.route;
    this.route = route;
    if (!this.chart) return;
    this.showControls();
    const at = numberParam(route, "at");
    if (at !== this.cursor.pinned) this.cursor.pin(at, "address");
    const parts = changedParts(before, route);
    if (!this.span.fixed) this.newRecords = 0;
    if (parts.length > 0) this.reload(parts);
    else this.redrawTexts();
  }

  // Shows the times again: their zone, or the day, may have changed.
  redrawTexts() {
    this.records.rebuild();
    this.traces.rebuild();
    this.draw();
  }

  showControls() {
    const span = this.requestedSpan();
    setAttribute(this.download, "href", pathOf("text", [["report", this.route.report], ...(this.span.fixed ? span : []),
      ["filter", this.route.params.get("filter")]]));
    this.records.showControls(this.route);
    this.traces.showControls(this.route);
    this.showPause();
    if (this.liveState) this.showState(this.liveState);
  }

  showPause() {
    const { fixed } = this.span;
    if (this.wasFixed !== fixed) {
      this.wasFixed = fixed;
      this.pauseText = element("span");
      setChildren(this.pause, [icon(fixed ? "live" : "paused"), this.pauseText]);
      this.pause.classList.toggle("primary", fixed);
    }
    const waiting = this.newRecords > 0 ? ` (${counted(this.newRecords, "new record")})` : "";
    setText(this.pauseText, fixed ? `Resume${waiting}` : "Pause");
  }

  close() {
    this.abort.abort();
    this.live?.close();
    this.release();
  }

  release() {
    this.show.cancel();
    clearInterval(this.ticks);
    this.chart?.close();
    this.records?.close();
  }
}

const partParams = {
  records: ["from", "to", "last", "filter", "rows"],
  chart: ["from", "to", "last", "field"],
  traces: ["from", "to", "last", "level"],
};

// The parts of the view whose parameters differ between two addresses.
function changedParts(before, after) {
  const textOf = (route, names) => names.map((name) => route.params.getAll(name).join("\n")).join("\n\n");
  return Object.keys(partParams).filter((part) => textOf(before, partParams[part]) !== textOf(after, partParams[part]));
}
