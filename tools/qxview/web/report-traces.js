// The part of a report's view with the traces of the shown span, so that a step in the chart has its cause next to it.

import { getDocument } from "./api.js";
import { element, setChildren, setText } from "./dom.js";
import { counted } from "./format.js";
import { addressOf, changed } from "./route.js";
import { empty, failed } from "./states.js";
import { passes, ReadEntries, textCell, timeCell } from "./trace-cells.js";
import { TimeList } from "./time-list.js";

const rowsMax = 300;
export const levels = [["", "All levels"], ["warning", "Warnings and errors"], ["error", "Errors"]];

export function levelChoice(onchange) {
  return element("select", { class: "level", "aria-label": "Level of traces", onchange },
    levels.map(([value, text]) => element("option", { value }, text)));
}

export class TracesPanel {
  constructor(report) {
    this.report = report;
    this.waiting = [];
    this.read = new ReadEntries();
    this.level = levelChoice(() => report.pages.replace(changed(report.route, { level: this.level.value })));
    this.count = element("span", { class: "count", role: "status" });
    this.all = element("a", { class: "button" }, "All traces");
    this.nothing = element("div", { hidden: true });
    this.emptyState = empty("No traces", "No trace of this level in this span of time.");
    this.list = new TimeList({
      label: "Traces", columns: ["Time", "Text"], rowsMax, cells: (entry) => [timeCell(entry, report.frame.utc), textCell(entry, "")],
      timeOf: (entry) => entry.timeMs, point: (time, pinned) => report.point(time, pinned, "traces"),
      leave: () => report.cursor.leave("traces"),
    });
    this.node = element("section", { class: "card log-card", "aria-label": "Traces" },
      element("div", { class: "tools" }, element("h2", {}, "Traces"), this.count, this.level), this.list.scroller, this.nothing,
      element("div", { class: "log-end" }, this.all));
  }

  async load() {
    const span = this.report.chart.isNumbered ? [] : this.report.requestedSpan();
    const amount = span.length > 0 ? [...span, ["max", rowsMax]] : [["newest", rowsMax]];
    this.failure = null;
    const { entries } = await getDocument("traces", [...amount, ["level", this.level.value]], this.report.abort.signal);
    this.read = new ReadEntries(entries);
    this.waiting = this.read.withoutThese(this.waiting);  // came while the request was under way
    this.list.replace(entries.reverse());
  }

  fail(error) {
    this.failure = failed(error, () => this.report.reload(["traces"]));
  }

  receive(entries) {
    const { fixed, from, to } = this.report.span;
    if (fixed && this.report.chart.isNumbered) return;
    this.waiting.push(...this.read.withoutThese(entries).filter((entry) => (!fixed || (entry.timeMs >= from && entry.timeMs <= to)) &&
      passes(entry, this.level.value, "")));
  }

  draw() {
    if (this.waiting.length > 0) this.list.prepend(this.waiting.reverse());
    this.waiting = [];
    const { fixed, last } = this.report.span;
    if (!fixed && last !== null) this.list.dropBefore(this.report.now() - last * 1000);
    setText(this.count, this.list.size === 0 ? "" : counted(this.list.size, "entry").replace("entrys", "entries"));
    const none = this.list.size === 0 || this.failure;
    this.list.scroller.hidden = none;
    this.nothing.hidden = !none;
    setChildren(this.nothing, [this.failure ?? this.emptyState]);
  }

  rebuild() {
    this.list.rebuild();
  }

  showControls(route) {
    this.level.value = route.params.get("level") ?? "";
    const { fixed, from, to } = this.report.span;
    this.all.href = addressOf("traces", route, { level: this.level.value, ...(fixed ? { from, to } : {}) });
  }

  mark(time, scroll) {
    this.list.mark(time, scroll);
  }
}
