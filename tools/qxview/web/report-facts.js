// The state of a report in numbers, the facts of its ring, and the names of its instances.

import { element, setAttribute, setChildren, setText } from "./dom.js";
import { bytes, counted, duration, grouped, rate } from "./format.js";
import { icon } from "./icons.js";
import { severityWords } from "./overview-row.js";
import { addressOf } from "./route.js";
import { empty } from "./states.js";
import { textOf, visibleText } from "./text.js";

export class ReportHead {
  constructor() {
    this.state = element("span", { class: "severity" });
    this.values = Object.fromEntries(["age", "rate", "wraps", "ring"].map((name) => [name, element("dd")]));
    this.meter = element("meter", { min: "0", low: "0", "aria-label": "Slots in use" });
    this.ringText = element("span");
    this.values.ring.append(this.ringText, this.meter);
    this.findings = element("dd", { class: "head-findings" });
    this.trouble = element("p", { class: "trouble", role: "status" });
    const item = (title, value) => element("div", {}, element("dt", {}, title), value);
    this.facts = element("div", { class: "head-facts" }, element("dl", {}, item("Last record", this.values.age),
      item("Rate", this.values.rate), item("Ring", this.values.ring), item("Wraps in", this.values.wraps),
      item("Findings", this.findings)), this.trouble);
  }

  // row: the report's row of the overview, from the server's time timeMs
  show(row, route, timeMs) {
    if (!row) return;
    if (this.severity !== row.severity + row.state) {
      this.severity = row.severity + row.state;
      setAttribute(this.state, "class", `severity severity-${row.severity}`);
      this.state.replaceChildren(icon(row.severity), row.state === "sound" ? severityWords[row.severity] : `${severityWords[row.severity]}: ${row.state}`);
    }
    this.row = row;
    this.timeMs = timeMs;
    this.showTimes(timeMs);
    setText(this.values.rate, rate(row.recordsPerSecond));
    setText(this.values.wraps, row.secondsToWrap === null ? "\u2013" : duration(row.secondsToWrap));
    setText(this.ringText, row.slots === null ? grouped(row.records) : `${grouped(row.records)} of ${grouped(row.slots)} slots`);
    setAttribute(this.meter, "max", row.slots ?? 1);
    setAttribute(this.meter, "value", row.records);
    setText(this.trouble, textOf(row, "trouble"));
    this.showFindings(row.findings, route);
  }

  noteRecord(timeMs) {
    if (this.row) this.newestMs = timeMs;
  }

  showTimes(now) {
    if (!this.row) return;
    const { ageSeconds, silentSeconds } = this.row;
    const passed = (now - this.timeMs) / 1000;
    const ages = [silentSeconds ?? ageSeconds].filter((age) => age !== null).map((age) => age + passed);
    if (this.newestMs !== undefined) ages.push((now - this.newestMs) / 1000);
    const isSilent = silentSeconds !== null && ages.length === 1;
    setText(this.values.age, ages.length === 0 ? "\u2013" : `${isSilent ? "silent for " : ""}${duration(Math.min(...ages))}${isSilent ? "" : " ago"}`);
    this.values.age.classList.toggle("silent", isSilent);
  }

  showFindings(findings, route) {
    if (this.codes === findings.join()) return;
    this.codes = findings.join();
    setChildren(this.findings, findings.length === 0 ? [element("span", {}, "none")] :
      findings.map((code) => element("a", { class: "code", href: addressOf("health", route, { code }) }, code)));
  }
}

const ringWords = { unwritten: "no record was ever written", empty: "empty", filling: "filling", full: "full: new records replace the oldest",
  damaged: "damaged" };

export function factsPanel(info) {
  const restart = info.recordsUntilRestart === null ? "never" : `in ${counted(info.recordsUntilRestart, "record")}`;
  const facts = [
    ["Path", visibleText(info.path)], ["State", ringWords[info.ring] ?? info.ring], ["Slots", grouped(info.maxRecord)],
    ["Slots in use", grouped(info.highestIndex)], ["Records written so far", grouped(info.elementCount)],
    ["Data file", bytes(info.dataFileBytes)], ["Index file", bytes(info.indexFileBytes)], ["Data file starts over", restart],
    ["Oldest record in slot", grouped(info.oldestIndex)],
  ];
  return element("section", { class: "card", "aria-label": "Facts of the ring" },
    element("div", { class: "tools" }, element("h2", {}, "Ring")),
    element("dl", { class: "facts" }, facts.map(([title, value]) => [element("dt", {}, title), element("dd", {}, value)]).flat()));
}

export function namesPanel(instances) {
  const rows = instances.map((instance) => element("tr", {}, element("th", { scope: "row", class: "number" }, textOf(instance, "number")),
    element("td", {}, textOf(instance, "name"))));
  const table = element("table", {}, element("thead", {}, element("tr", {}, element("th", { scope: "col", class: "number" }, "Number"),
    element("th", { scope: "col" }, "Name"))), element("tbody", {}, rows));
  return element("section", { class: "card", "aria-label": "Names of instances" },
    element("div", { class: "tools" }, element("h2", {}, "Names of instances"), element("span", { class: "count" }, grouped(rows.length))),
    rows.length > 0 ? element("div", { class: "names", tabindex: "0", role: "region", "aria-label": "List of names" }, table) :
      empty("No names", "This report has no file of names."));
}
