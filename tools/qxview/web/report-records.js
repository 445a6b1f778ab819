// The part of a report's view with the records of the shown span.

import { debounced, element, setAttribute, setChildren, setText } from "./dom.js";
import { counted, logTime } from "./format.js";
import { changed, numberParam } from "./route.js";
import { empty, failed } from "./states.js";
import { markedText, matches, textOf } from "./text.js";
import { TimeList } from "./time-list.js";

const rowsAtFirst = 300;
const stamp = /^\[?(?:\d{4}[-/]\d\d[-/]\d\d|\d\d\.\d\d\.\d{4})[ T]\d\d:\d\d(?::\d\d(?:[.,]\d{1,9})?)?(?: ?(?:Z|[+-]\d\d:?\d\d))?\]?\s*/;

export class RecordsPanel {
  constructor(report) {
    this.report = report;
    this.cursor = "";
    this.waiting = [];
    this.lost = 0;
    this.newest = -1;  // the number of the newest record of the list or of those that wait
    this.search = element("input", { type: "search", class: "filter", placeholder: "Filter records", "aria-label": "Filter records",
      oninput: () => this.filterLater() });
    this.filterLater = debounced(250, () => report.pages.replace(changed(report.route, { filter: this.search.value })));
    this.count = element("span", { class: "count", role: "status" });
    this.older = element("button", { type: "button", onclick: () => this.showOlder() }, "Show older");
    this.nothing = element("div", { hidden: true });
    this.list = new TimeList({
      label: "Records", columns: ["Time", "Text"], rowsMax: rowsAtFirst, cells: (record) => this.cells(record),
      timeOf: (record) => report.chart.placeOf(record), point: (time, pinned) => report.point(time, pinned, "records"),
      leave: () => report.cursor.leave("records"),
    });
    this.node = element("section", { class: "card log-card", "aria-label": "Records" },
      element("div", { class: "tools" }, element("h2", {}, "Records"), this.count, this.search), this.list.scroller, this.nothing,
      element("div", { class: "log-end" }, this.older));
  }

  entries() {
    return this.list.entries;
  }

  get filter() {
    return this.report.route.params.get("filter") ?? "";
  }

  get rows() {
    return Math.min(5000, Math.max(rowsAtFirst, numberParam(this.report.route, "rows") ?? 0));
  }

  cells({ timeMs, ...record }) {
    const text = textOf(record, "text");
    const shown = typeof timeMs === "number" ? text.replace(stamp, "") : text;
    const time = typeof timeMs === "number" ? logTime(timeMs, this.report.frame.utc) : `#${record.index}`;
    return [element("td", { class: "log-time", title: `As written: ${text.slice(0, 200)}` }, time),
      element("td", { class: "log-text" }, markedText(shown, this.filter))];
  }

  async load() {
    const span = this.report.chart.isNumbered ? [] : this.report.requestedSpan();
    const amount = span.length > 0 ? [...span, ["max", this.rows]] : [["newest", this.rows]];
    this.waiting = [];
    this.failure = null;
    const document = await this.report.ask("records", [...amount, ["filter", this.filter]]);
    this.cursor = document.cursor;
    this.newest = document.records.at(-1)?.index ?? -1;
    this.waiting = this.waiting.filter(({ index }) => index > this.newest);  // came while the request was under way
    this.list.rowsMax = this.rows;
    this.isCut = document.records.length >= this.rows;
    this.list.replace(document.records.reverse());
  }

  fail(error) {
    this.failure = failed(error, () => this.report.reload(["records"]));
  }

  receive(records) {
    const { fixed, from, to } = this.report.span;
    const filter = this.filter;
    const place = (record) => this.report.chart.placeOf(record);
    const shown = records.filter((record) => record.index > this.newest && (!fixed || (place(record) >= from && place(record) <= to)) &&
      matches(record.text ?? textOf(record, "text"), filter));
    this.newest = Math.max(this.newest, shown.at(-1)?.index ?? -1);
    this.waiting.push(...shown);
    if (this.waiting.length > this.rows) this.waiting.splice(0, this.waiting.length - this.rows);
  }

  // Called when the ring has overwritten records after the last ones that this page got.
  noteLost(count) {
    this.lost += count;
  }

  draw() {
    if (this.waiting.length > 0) {
      this.isCut ||= this.list.size + this.waiting.length > this.rows;
      this.list.prepend(this.waiting.reverse());
      this.waiting = [];
    }
    const { fixed, last } = this.report.span;
    if (!fixed && last !== null && !this.report.chart.isNumbered) this.list.dropBefore(this.report.now() - last * 1000);
    const lost = this.lost > 0 ? `; ${counted(this.lost, "record")} overwritten before they were read` : "";
    setText(this.count, `${this.isCut ? "newest " : ""}${counted(this.list.size, "record")}${lost}`);
    this.older.hidden = !this.isCut || this.rows >= 5000;
    this.showNothing();
  }

  showNothing() {
    const none = this.list.size === 0 || this.failure;
    this.list.scroller.hidden = none;
    this.nothing.hidden = !none;
    if (this.failure) return setChildren(this.nothing, [this.failure]);
    const text = this.filter === "" ? "No record in this span of time." : "No record in this span of time contains the filter.";
    if (this.emptyText !== text) this.emptyState = empty("No records", text);
    this.emptyText = text;
    setChildren(this.nothing, none ? [this.emptyState] : []);
  }

  showOlder() {
    this.report.pages.replace(changed(this.report.route, { rows: this.rows * 2 }));
  }

  rebuild() {
    this.list.rebuild();
  }

  showControls(route) {
    const filter = route.params.get("filter") ?? "";
    if (document.activeElement !== this.search) this.search.value = filter;
    setAttribute(this.search, "data-used", filter === "" ? null : "");
  }

  // A time before the oldest record of a list that was cut marks no row: its record is not in the list.
  mark(time, scroll) {
    const oldest = this.list.size > 0 ? this.report.chart.placeOf(this.list.entries.at(-1)) : null;
    this.list.mark(this.isCut && time < oldest ? null : time, scroll);
  }

  close() {
    this.filterLater.cancel();
  }
}
