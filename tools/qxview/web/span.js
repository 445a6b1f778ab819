// The span of time that a view shows: fixed (`from` and `to` in the address), the newest seconds (`last`), or everything.

import { numberParam } from "./route.js";

export function spanOf(route) {
  const from = numberParam(route, "from");
  const to = numberParam(route, "to");
  const last = numberParam(route, "last");
  if (from !== null && to !== null && from < to) return { fixed: true, from, to, last };
  return { fixed: false, from: null, to: null, last };
}

// The span that requests name. `now` is the server's time.
export function requestedSpan(span, now) {
  if (span.fixed) return [["from", span.from], ["to", span.to]];
  return span.last === null ? [] : [["from", now - span.last * 1000]];
}

// The edges of the chart. A live chart ends now, so that a silence is visible.
export function shownSpan(span, series, now) {
  if (span.fixed) return { from: span.from, to: span.to };
  const newest = series.newestMs ?? now;
  const to = Math.max(newest, now);
  const from = span.last === null ? Math.min(series.oldestMs ?? to - 60000, to - 1) : to - span.last * 1000;
  return { from, to };
}

// A span that is `factor` times as long, with the same middle, or with `anchor` at the same place.
export function scaledSpan({ from, to }, factor, anchor = (from + to) / 2) {
  const length = Math.max((to - from) * factor, 100);
  const share = (anchor - from) / (to - from);
  const begin = Math.max(0, Math.round(anchor - share * length));
  return { from: begin, to: Math.round(begin + length) };
}

export function movedSpan({ from, to }, share) {
  const by = Math.max(Math.round((to - from) * share), -from);
  return { from: from + by, to: to + by };
}
