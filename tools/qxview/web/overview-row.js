// One report in the overview. The cells stay; only their texts change, so focus and selection survive an update.

import { element, setAttribute, setChildren, setText } from "./dom.js";
import { duration, number, rate } from "./format.js";
import { icon } from "./icons.js";
import { addressOf } from "./route.js";
import { sparkline } from "./sparkline.js";
import { encodedName, textOf } from "./text.js";

export const severityWords = { error: "Error", warning: "Warning", info: "Note", ok: "Good" };
const soonSeconds = 3600;

// A sign and a word, so that nothing depends on the colour.
export function severityBadge(severity) {
  return element("span", { class: `severity severity-${severity}` }, icon(severity), severityWords[severity]);
}

export class OverviewRow {
  constructor() {
    this.state = element("td", { class: "column-state" });
    this.link = element("a", { class: "report-link" });
    this.trouble = element("span", { class: "trouble" });
    this.age = element("td", { class: "number", "data-label": "Last record" });
    this.wrap = element("td", { class: "number", "data-label": "Wraps in" });
    this.rate = element("td", { class: "number", "data-label": "Rate" });
    this.value = element("span", { class: "value" });
    this.field = element("span", { class: "value-field" });
    this.valueCell = element("td", { class: "column-value" }, this.field, " ", this.value);
    this.spark = sparkline();
    this.findings = element("td", { class: "column-findings" });
    this.node = element("tr", {}, this.state, element("th", { scope: "row", class: "column-report" }, this.link, this.trouble),
      this.age, this.wrap, this.rate, this.valueCell,
      element("td", { class: "column-trend" }, this.spark.picture), this.findings);
  }

  // timeMs: the server's time of the row
  show(report, route, timeMs) {
    this.report = report;
    this.timeMs = timeMs;
    this.showState(report);
    this.showName(report, route);
    this.showTimes(timeMs);
    setText(this.wrap, report.secondsToWrap === null ? "\u2013" : duration(report.secondsToWrap));
    this.wrap.classList.toggle("soon", report.secondsToWrap !== null && report.secondsToWrap < soonSeconds);
    setText(this.rate, rate(report.recordsPerSecond));
    this.showValue(report);
    this.spark.draw(report.numbers);
    this.showFindings(report, route);
  }

  // The age of the newest record grows, although the server sends nothing.
  showTimes(now) {
    const { ageSeconds, silentSeconds } = this.report;
    const passed = Math.max(0, (now - this.timeMs) / 1000);
    const isSilent = silentSeconds !== null;
    if (this.isSilent !== isSilent) {
      this.isSilent = isSilent;
      this.ageText = element("span");
      this.age.replaceChildren(isSilent ? element("span", { class: "silent" }, icon("warning"), this.ageText) : this.ageText);
    }
    const age = isSilent ? silentSeconds : ageSeconds;
    setText(this.ageText, age === null ? "\u2013" : `${isSilent ? "silent for " : ""}${duration(age + passed)}${isSilent ? "" : " ago"}`);
  }

  showState({ severity, state }) {
    if (this.severity === `${severity} ${state}`) return;
    this.severity = `${severity} ${state}`;
    setAttribute(this.node, "data-severity", severity);
    this.state.replaceChildren(severityBadge(severity),
      state === "sound" ? "" : element("span", { class: "state-word" }, state));
  }

  // The directory of a report is its host on a collector.
  showName(report, route) {
    const name = textOf(report, "report");
    setAttribute(this.link, "href", addressOf("report", route, {}, encodedName(report, "report")));
    if (this.name !== name) {
      this.name = name;
      const at = name.lastIndexOf("/") + 1;
      this.link.replaceChildren(element("span", { class: "host" }, name.slice(0, at)), element("bdi", {}, name.slice(at)));
    }
    setText(this.trouble, textOf(report, "trouble"));
  }

  showValue(report) {
    setText(this.field, textOf(report, "field"));
    const value = report.number !== null && report.value === null ? number(report.number) : textOf(report, "value");
    setText(this.value, value === "" ? "\u2013" : value);
    setAttribute(this.value, "title", value);
    setAttribute(this.valueCell, "data-empty", value === "" ? "" : null);
  }

  showFindings(report, route) {
    if (this.codes === report.findings.join()) return;
    this.codes = report.findings.join();
    setChildren(this.findings, report.findings.map((code) =>
      element("a", { class: "code", href: addressOf("health", route, { code }) }, code)));
  }
}
