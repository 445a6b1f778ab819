// Chooses the reports that the overview shows, and their order.

import { matches, textOf } from "./text.js";

export const severities = ["error", "warning", "info", "ok"];

export const columns = [
  { title: "State", sort: "worst", className: "column-state" },
  { title: "Report", sort: "report", className: "column-report" },
  { title: "Last record", sort: "silent", className: "number" },
  { title: "Wraps in", sort: "wrap", className: "number" },
  { title: "Rate", sort: "rate", className: "number" },
  { title: "Newest value", sort: null, className: "column-value" },
  { title: "Trend", sort: null, className: "column-trend" },
  { title: "Findings", sort: null, className: "column-findings" },
];

// In the order of the address: "silent" has the longest silence first, "-silent" the shortest. A report without the value is last.
const values = {
  report: (row) => textOf(row, "report"),
  silent: (row) => negative(row.silentSeconds ?? row.ageSeconds),
  wrap: (row) => row.secondsToWrap,
  rate: (row) => negative(row.recordsPerSecond),
};

function negative(value) {
  return value === null || value === undefined ? null : -value;
}

// Pressing a column sorts by it; pressing it again reverses the order. "worst" is the order without a parameter.
export function sortOf(current, column) {
  if (column === "worst") return (current ?? "worst") === "worst" ? "-worst" : null;
  return current === column ? `-${column}` : column;
}

export function chosenRows(reports, params) {
  const search = params.get("search") ?? "";
  const show = params.get("show");
  const chosen = reports.filter((row) => (!show || row.severity === show) && matches(searchedText(row), search));
  return sorted(chosen, params.get("sort") ?? "worst");
}

// The words of a search are found in the name, the state, the trouble and the findings.
function searchedText(row) {
  return [textOf(row, "report"), row.state, row.trouble, ...row.findings].join(" ");
}

function sorted(rows, sort) {
  const reversed = sort.startsWith("-");
  const value = values[sort.replace(/^-/, "")];
  if (!value) return reversed ? [...rows].reverse() : rows;  // The server's order is worst first.
  const known = rows.filter((row) => value(row) !== null && value(row) !== undefined);
  const unknown = rows.filter((row) => !known.includes(row));
  known.sort((a, b) => compare(value(a), value(b)));
  if (reversed) known.reverse();
  return [...known, ...unknown];
}

function compare(a, b) {
  if (typeof a === "string") return a.localeCompare(b, "en", { numeric: true });
  return a - b;
}

export function countBySeverity(reports) {
  const counts = Object.fromEntries(severities.map((severity) => [severity, 0]));
  for (const row of reports) counts[row.severity] += 1;
  return counts;
}
