// The part of a report's view with the chart: the fields, the spans to choose from, and the legend with the values at
// the cursor.

import { Chart } from "./chart.js";
import { element, setAttribute, setText } from "./dom.js";
import { duration, fullTime, grouped, secondTime, zoneName } from "./format.js";
import { Legend, fieldsMax } from "./legend.js";
import { Readout } from "./readout.js";
import { changed } from "./route.js";
import { Series } from "./series.js";
import { scaledSpan, shownSpan } from "./span.js";
import { empty, failed } from "./states.js";

const spans = [[300, "5 min"], [3600, "1 h"], [86400, "1 d"], [null, "All"]];
const keysText = "Left and right arrow keys move the cursor, with shift they move the chart. Plus and minus zoom. 0 shows all. " +
  "Escape removes the cursor.";

export class ReportChart {
  constructor(report) {
    this.report = report;
    this.pending = [];
    this.requests = 0;
    this.drawnTo = 0;
    this.legend = new Legend((names) => report.pages.replace(changed(report.route, { field: names })));
    this.chart = new Chart({
      zoom: (span) => report.zoom(span), reset: () => report.followNewest(null), leave: () => report.cursor.leave("chart"),
      hover: (time) => report.point(time, false, "chart"), pin: (time) => report.point(time, true, "chart"),
    });
    this.spanButtons = spans.map(([last, text]) => [last, this.spanButton(last, text)]);
    this.spanText = element("span", { class: "span-text" });
    this.place = element("div", { class: "chart-place" });
    this.note = element("p", { class: "chart-note" });
    this.readout = new Readout();
    this.show(this.chart.node, this.note, this.readout.node);
    this.node = element("section", { class: "card chart-card", "aria-label": "Chart" },
      element("div", { class: "tools" }, this.legend.node, this.tools()), this.place,
      element("p", { class: "hidden", id: "chart-keys" }, keysText));
  }

  tools() {
    const zoom = (factor) => this.report.zoom(scaledSpan(this.shownSpan(), factor));
    const button = (text, label, onclick) => element("button", { type: "button", "aria-label": label, title: label, onclick }, text);
    return element("div", { class: "chart-tools" }, this.spanText,
      element("div", { class: "group", role: "group", "aria-label": "Newest part" }, this.spanButtons.map(([, node]) => node)),
      element("div", { class: "group", role: "group", "aria-label": "Zoom" }, button("\u2212", "Zoom out", () => zoom(2)),
        button("+", "Zoom in", () => zoom(0.5))));
  }

  spanButton(last, text) {
    return element("button", { type: "button", onclick: () => this.report.followNewest(last) }, text);
  }

  show(...nodes) {
    if (this.place.firstChild !== nodes[0]) this.place.replaceChildren(...nodes);
  }

  // The fields of the address, or the first field.
  chosen() {
    const names = [...new Set(this.report.route.params.getAll("field"))].slice(0, fieldsMax);
    if (names.length > 0) return names;
    return this.report.fields.slice(0, 1).map((field) => field.name);
  }

  shownSpan() {
    return shownSpan(this.report.span, this.series ?? { newestMs: null, oldestMs: null }, this.isNumbered ? 0 : this.report.now());
  }

  // Records that arrive while the request is under way are merged into its reply.
  async load() {
    const names = this.chosen();
    this.legend.show(this.report.fields, names);
    if (names.length === 0) return this.showNoField();
    const request = ++this.requests;
    this.pending = [];
    const columns = this.chart.width;
    const parameters = [...names.map((name) => ["field", name]), ...this.report.requestedSpan(), ["columns", columns]];
    const document = await this.report.ask("chart", parameters);
    if (request !== this.requests) return;
    this.axis = document.axis ?? "time";
    this.series = new Series(document, columns, names.map((name) => this.unitOf(name)));
    this.addMissed([...this.report.records.entries(), ...this.pending]);
    this.reloading = false;
  }

  get isNumbered() {
    return this.axis === "number";
  }

  // The records that are newer than the chart, in any order.
  addMissed(records) {
    if (!this.series) return;
    const newest = this.series.newestMs ?? -1;
    const missed = records.filter((record) => this.placeOf(record) > newest);
    for (const record of missed.sort((a, b) => this.placeOf(a) - this.placeOf(b))) this.merge(record);
  }

  // The place of a record on the axis.
  placeOf(record) {
    return this.isNumbered ? record.index : record.timeMs;
  }

  unitOf(name) {
    return this.report.fields.find((field) => field.name === name)?.unit ?? "";
  }

  showNoField() {
    this.series = null;
    this.show(empty("No field with a number",
      "A record needs a number with a name, such as cpu=12%, to be drawn. The records are below."));
  }

  fail(error) {
    this.show(failed(error, () => this.report.reload(["chart"])));
  }

  receive(records) {
    this.pending.push(...records);
    if (this.pending.length > 5000) this.pending.splice(0, this.pending.length - 5000);
    let complete = true;
    for (const record of records) complete = this.merge(record) && complete;
    this.noteNewest(records.at(-1));
    if (!complete && !this.reloading && !this.report.span.fixed) {
      this.reloading = true;
      this.report.reload(["chart"]);
    }
  }

  merge(record) {
    const place = this.placeOf(record);
    if (!this.series || typeof place !== "number") return true;
    const { fixed, from, to } = this.report.span;
    if (fixed && (place < from || place > to)) return true;
    return this.series.add(place, record.fields ?? {});
  }

  noteNewest(record) {
    for (const field of this.report.fields) {
      const value = record?.fields?.[field.name];
      if (typeof value === "number") field.newest = value;
    }
  }

  hasMoved() {
    const { from, to } = this.shownSpan();
    return to - this.drawnTo > (to - from) / (2 * this.chart.width);
  }

  draw() {
    this.showSpan();
    if (!this.series) return;
    if (!globalThis.Dygraph) return this.showNoLibrary();
    const span = this.shownSpan();
    this.drawnTo = span.to;
    if (!this.report.span.fixed && this.report.span.last !== null) this.series.dropBefore(span.from);
    this.show(this.chart.node, this.note, this.readout.node);
    this.chart.show(this.series, this.fields(), span, { utc: this.report.frame.utc, axis: this.axis });
    this.showNote(span);
    this.showValues();
  }

  fields() {
    return this.series.fields.map((name) => ({ name, unit: this.unitOf(name) }));
  }

  showNoLibrary() {
    this.show(empty("No chart on this machine",
      "The package libjs-dygraphs is not installed where qxview runs. Records and traces are shown without it.",
      element("code", { class: "command" }, "apt-get install libjs-dygraphs")));
  }

  // An empty chart says why it is empty.
  showNote({ from, to }) {
    const shown = this.series.columns.some(({ timeMs }) => timeMs >= from && timeMs <= to);
    const newest = this.series.newestMs;
    const silence = newest === null || newest === undefined || this.isNumbered ? "" : ` The newest record is ${duration((this.report.now() - newest) / 1000)} old.`;
    setText(this.note, shown ? "" : `No record in this span of time.${silence}`);
    this.note.hidden = shown;
  }

  showSpan() {
    const { fixed, last } = this.report.span;
    const { utc } = this.report.frame;
    const { from, to } = this.shownSpan();
    for (const [seconds, node] of this.spanButtons) {
      setAttribute(node, "aria-pressed", String(!fixed && seconds === last));
      node.hidden = this.isNumbered && seconds !== null;
    }
    if (this.isNumbered) setText(this.spanText, `records ${grouped(from)} \u2013 ${grouped(to)}`);
    else setText(this.spanText, `${secondTime(from, utc)} \u2013 ${secondTime(to, utc).slice(sameDay(from, to, utc) ? 11 : 0)} ${zoneName(to, utc)}`);
  }

  mark(time) {
    this.time = time;
    this.chart.mark(time);
    this.showValues();
  }

  showValues() {
    this.legend.showNewest();
    const time = this.time ?? null;
    const column = time === null ? undefined : this.series?.at(time);
    if (!column || !this.chart.isShown(time)) return this.readout.hide();
    const text = this.isNumbered ? `record ${grouped(time)}` : `${fullTime(time, this.report.frame.utc)}`;
    this.readout.show(text, this.fields(), column.values, this.chart.isInRightHalf(time));
  }

  close() {
    this.chart.close();
  }
}

function sameDay(a, b, utc) {
  return secondTime(a, utc).slice(0, 10) === secondTime(b, utc).slice(0, 10);
}
