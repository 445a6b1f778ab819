// The numbers of a chart: for each pixel column the lowest, highest and last value of each field. The server reduces the
// records that exist; new records are merged here by the same rule, so that no peak is lost.

import { nearestIndex } from "./cursor.js";

const comparable = 20;

export class Series {
  // units: one for each field of the document
  constructor(document, wantedColumns, units) {
    this.fields = document.fields;
    this.columns = document.columns;
    this.gaps = document.gaps;
    this.from = document.from;
    this.oldestMs = document.oldestMs;
    this.newestMs = document.newestMs;
    this.wantedColumns = wantedColumns;
    this.columnMs = Math.max(1, (document.to - document.from) / wantedColumns);
    this.usualMs = usualDistance(this.columns);
    this.panels = panelsOf(units, this.fields.map((_, i) => this.extent(i)));
  }

  // Merges a record. False if the chart must be requested again, because there is a gap or there are too many columns.
  add(timeMs, values) {
    const last = this.columns.at(-1);
    this.newestMs = Math.max(this.newestMs ?? timeMs, timeMs);
    this.oldestMs ??= timeMs;
    if (last && this.columnOf(timeMs) <= this.columnOf(last.timeMs)) {
      this.merge(last, timeMs, values);
      return true;
    }
    this.columns.push({ timeMs, values: this.fields.map((name) => single(values[name])) });
    const gap = last && this.usualMs > 0 && timeMs - last.timeMs > 5 * Math.max(this.usualMs, this.columnMs);
    return !gap && this.columns.length < 2 * this.wantedColumns;
  }

  merge(column, timeMs, values) {
    column.timeMs = Math.max(column.timeMs, timeMs);
    column.values = column.values.map((old, i) => merged(old, single(values[this.fields[i]])));
  }

  columnOf(timeMs) {
    return Math.floor((timeMs - this.from) / this.columnMs);
  }

  dropBefore(timeMs) {
    const first = this.columns.findIndex((column) => column.timeMs >= timeMs);
    if (first > 1) this.columns.splice(0, first - 1);  // One is left, so that the line reaches the edge.
    this.gaps = this.gaps.filter((gap) => gap.to >= timeMs);
  }

  // Rows of some fields as the chart library draws them: [time, [low, last, high], ...], with an empty row in each gap.
  rows(fields) {
    const none = fields.map(() => [null, null, null]);
    const rows = this.columns.map(({ timeMs, values }) => [timeMs, ...fields.map((i) => bar(values[i]))]);
    for (const gap of this.gaps) rows.push([(gap.from + gap.to) / 2, ...none]);
    return rows.sort((a, b) => a[0] - b[0]);
  }

  // The column nearest to a time; undefined without columns.
  at(timeMs) {
    return this.columns[this.indexAt(timeMs)];
  }

  indexAt(timeMs) {
    return nearestIndex(this.columns.length, (i) => this.columns[i].timeMs, timeMs);
  }

  // [lowest, highest] of a field; null without a number.
  extent(index) {
    let low = Infinity;
    let high = -Infinity;
    for (const { values } of this.columns) {
      if (!values[index]) continue;
      low = Math.min(low, values[index][0]);
      high = Math.max(high, values[index][1]);
    }
    return low <= high ? [low, high] : null;
  }
}

function single(value) {
  return typeof value === "number" ? [value, value, value] : null;
}

// [min, max, last] of two parts of one column
function merged(old, added) {
  if (!old || !added) return old ?? added;
  return [Math.min(old[0], added[0]), Math.max(old[1], added[1]), added[2]];
}

function bar(values) {
  return values ? [values[0], values[2], values[1]] : [null, null, null];
}

// The median of the distances of the newest columns.
function usualDistance(columns) {
  const newest = columns.slice(-50);
  const distances = newest.slice(1).map((column, i) => column.timeMs - newest[i].timeMs).sort((a, b) => a - b);
  return distances[distances.length >> 1] ?? 0;
}

// Groups the fields that share a plot: those of the same unit and size. Each group has the indices of its fields, in
// their order.
export function panelsOf(units, extents) {
  const sizes = extents.map((extent) => (extent ? Math.max(Math.abs(extent[0]), Math.abs(extent[1]), 1e-9) : null));
  const alike = (a, b) => units[a] === units[b] && (sizes[a] === null || sizes[b] === null ||
    (sizes[a] / sizes[b] < comparable && sizes[b] / sizes[a] < comparable));
  const panels = [];
  for (let i = 0; i < units.length; ++i) {
    const panel = panels.find((other) => alike(other[0], i));
    if (panel) panel.push(i);
    else panels.push([i]);
  }
  return panels;
}
