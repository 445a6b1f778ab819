// Shows all reports, the worst first: those that are silent, those that wrap soon, and those with findings of doctor.

import { getDocument } from "./api.js";
import { debounced, element, setAttribute, setChildren, setText } from "./dom.js";
import { counted } from "./format.js";
import { icon } from "./icons.js";
import { LiveEvents } from "./live.js";
import { OverviewRow } from "./overview-row.js";
import { changed } from "./route.js";
import { chosenRows, columns, countBySeverity, severities, sortOf } from "./overview-rows.js";
import { empty, failed, loading } from "./states.js";

const severityTexts = { error: "Errors", warning: "Warnings", info: "Notes", ok: "Good" };

export function showOverview(context) {
  return new Overview(context);
}

class Overview {
  constructor({ root, route, frame, pages }) {
    Object.assign(this, { root, route, frame, pages });
    this.rows = new Map();
    this.abort = new AbortController();
    this.searchLater = debounced(250, () => this.setParams({ search: this.search.value }));
    frame.title("Overview");
    this.build();
    this.ticks = setInterval(() => this.tick(), 1000);
    this.load();
  }

  build() {
    this.where = element("p", { class: "where" });
    this.search = element("input", { type: "search", id: "search", placeholder: "Search reports and findings",
      value: this.route.params.get("search"), oninput: () => this.searchLater() });
    this.filters = Object.fromEntries(severities.map((severity) => [severity, this.severityFilter(severity)]));
    this.body = element("tbody");
    this.heads = columns.map((column) => this.head(column));
    const table = element("table", { class: "reports" }, element("caption", { class: "hidden" }, "Reports, worst first"),
      element("thead", {}, element("tr", {}, this.heads)), this.body);
    this.place = element("div", { class: "place" });
    this.table = element("div", { class: "card table-card", hidden: true }, table);
    this.root.replaceChildren(
      element("div", { class: "view-head" }, element("h1", {}, "Overview"), this.where),
      element("div", { class: "tools", role: "search" },
        element("div", { class: "chips", role: "group", "aria-label": "Show only" }, Object.values(this.filters)),
        element("label", { class: "field" }, element("span", { class: "hidden" }, "Search"), this.search)),
      this.table, this.place);
  }

  severityFilter(severity) {
    const show = () => {
      const now = this.route.params.get("show");
      this.setParams({ show: now === severity ? null : severity });
    };
    return element("button", { type: "button", class: `chip severity-${severity}`, onclick: show }, icon(severity),
      element("span", {}, severityTexts[severity]), element("b", {}, "0"));
  }

  head(column) {
    if (!column.sort) return element("th", { scope: "col", class: column.className }, column.title);
    const press = () => this.setParams({ sort: sortOf(this.route.params.get("sort"), column.sort) });
    return element("th", { scope: "col", class: column.className, "data-sort": column.sort },
      element("button", { type: "button", class: "sort", onclick: press }, column.title));
  }

  setParams(changes) {
    this.pages.replace(changed(this.route, changes));
  }

  update(route) {
    this.route = route;
    const search = route.params.get("search") ?? "";
    if (document.activeElement !== this.search) this.search.value = search;
    if (this.document) this.show();
  }

  async load() {
    this.place.replaceChildren(loading("Reading the reports"));
    try {
      this.document = await getDocument("overview", [], this.abort.signal);
    } catch (error) {
      return this.fail(error);
    }
    this.clockOffset = this.document.timeMs - Date.now();
    this.show();
    this.live = new LiveEvents({
      parameters: () => [["view", "overview"]],
      cursor: this.document.cursor,
      onEvent: (type, document) => this.receive(type, document),
      onState: (state) => this.frame.state(state, () => this.live.retryNow()),
    });
  }

  fail(error) {
    if (this.abort.signal.aborted) return;
    if (error.kind === "session") return this.pages.sessionEnded();
    this.place.replaceChildren(failed(error, () => this.load()));
  }

  receive(type, document) {
    if (type !== "overview") return;
    this.document = document;
    this.clockOffset = document.timeMs - Date.now();
    this.show();
  }

  show() {
    const { reports } = this.document;
    this.showSummary(reports);
    this.showSort();
    const chosen = chosenRows(reports, this.route.params);
    this.table.hidden = chosen.length === 0;
    setChildren(this.body, chosen.map((report) => this.rowOf(report)));
    this.dropRowsWithout(reports);
    if (chosen.length > 0) this.place.replaceChildren();
    else this.showNothing(reports);
  }

  showSummary(reports) {
    const partial = this.document.allReports ? "" : "; a directory in it could not be read";
    setText(this.where, `${counted(reports.length, "report")} in ${this.document.reportDirectory ?? "the report directory"}${partial}`);
    const counts = countBySeverity(reports);
    for (const severity of severities) {
      const chip = this.filters[severity];
      setText(chip.querySelector("b"), String(counts[severity]));
      setAttribute(chip, "aria-pressed", String(this.route.params.get("show") === severity));
    }
  }

  showSort() {
    const current = this.route.params.get("sort") ?? "worst";
    for (const head of this.heads) {
      const name = head.dataset.sort;
      const direction = current === name ? "ascending" : current === `-${name}` ? "descending" : null;
      setAttribute(head, "aria-sort", name ? direction : null);
    }
  }

  rowOf(report) {
    const key = report.report ?? report.reportBase64;
    let row = this.rows.get(key);
    if (!row) {
      row = new OverviewRow();
      this.rows.set(key, row);
    }
    row.show(report, this.route, this.document.timeMs);
    return row.node;
  }

  // Ages are updated here, because the server sends no event if only time passes.
  tick() {
    if (document.hidden || !this.document || this.frame.isLost) return;
    const now = Date.now() + this.clockOffset;
    for (const row of this.rows.values()) row.showTimes(now);
  }

  dropRowsWithout(reports) {
    const kept = new Set(reports.map((report) => report.report ?? report.reportBase64));
    for (const key of this.rows.keys()) {
      if (!kept.has(key)) this.rows.delete(key);
    }
  }

  showNothing(reports) {
    if (reports.length > 0) {
      this.place.replaceChildren(empty("No report matches", `None of ${counted(reports.length, "report")} has this text and state.`,
        element("button", { type: "button", onclick: () => this.clear() }, "Show all reports")));
      return;
    }
    this.place.replaceChildren(empty("No report yet", "A report appears here as soon as an agent creates it, or you do:",
      element("code", { class: "command" }, "qxctl report create NAME --slots 1000")));
  }

  clear() {
    this.search.value = "";
    this.setParams({ search: null, show: null });
  }

  close() {
    this.searchLater.cancel();
    clearInterval(this.ticks);
    this.abort.abort();
    this.live?.close();
  }
}
