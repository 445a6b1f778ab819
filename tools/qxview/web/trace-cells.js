// Shows a trace entry as cells of a row.

import { element } from "./dom.js";
import { logTime } from "./format.js";
import { icon } from "./icons.js";
import { markedText, matches, textOf, visibleText } from "./text.js";

const repeatMs = 2000;

// The entries of a document. The newest of them may come again as live events, because they were being written.
export class ReadEntries {
  constructor(entries = []) {
    this.keys = new Set(entries.map(keyOf));
    this.readAt = performance.now();
  }

  withoutThese(entries) {
    return performance.now() - this.readAt < repeatMs ? entries.filter((entry) => !this.keys.has(keyOf(entry))) : entries;
  }
}

function keyOf({ file, timeMs, thread, text }) {
  return [file, timeMs, thread, text].join("\n");
}

export function passes(entry, level, filter) {
  const text = entry.text ?? textOf(entry, "text");
  const found = entry.severity;
  const levelFits = level === "" || found === "error" || (level === "warning" && found === "warning");
  return levelFits && (matches(text, filter) || matches(textOf(entry, "module"), filter));
}

// "/var/log/brollan/log.qxremconxfer" => "log.qxremconxfer"
export function fileName(path) {
  return visibleText(path).split("/").at(-1);
}

const kindTexts = { rest: "more of the entry", piece: "no known entry", gap: "overwritten", wrap: "wrapped" };

export function timeCell(entry, utc) {
  const time = typeof entry.timeMs === "number" ? logTime(entry.timeMs, utc) : kindTexts[entry.kind] ?? visibleText(entry.stamp ?? "");
  return element("td", { class: "log-time", title: entry.stamp ? `As written: ${visibleText(entry.stamp)}` : null }, time);
}

export function textCell(entry, filter) {
  const text = textOf(entry, "text");
  const level = entry.severity;
  return element("td", { class: `log-text ${level ? `level-${level}` : ""}` }, level && icon(level),
    markedText(text, filter));
}
