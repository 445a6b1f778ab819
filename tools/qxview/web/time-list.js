// A list of entries with times, the newest first: records, or traces. The entry nearest to the shared cursor is marked.

import { nearestIndex } from "./cursor.js";
import { element, setAttribute } from "./dom.js";

export class TimeList {
  // columns: titles; cells(entry): the cells of a row; timeOf(entry): ms or null; point(time, pinned): the user points there
  constructor({ label, columns, cells, timeOf, point, leave, rowsMax }) {
    Object.assign(this, { cells, timeOf, point, rowsMax });
    this.entries = [];
    this.body = element("tbody");
    this.marked = null;
    this.scroller = element("div", { class: "log", tabindex: "0", role: "region", "aria-label": label,
      onkeydown: (event) => this.key(event), onpointerleave: leave },
      element("table", {}, element("caption", { class: "hidden" }, label),
        element("thead", { class: "hidden" }, element("tr", {}, columns.map((title) => element("th", { scope: "col" }, title)))),
        this.body));
    this.body.addEventListener("pointerover", (event) => this.pointed(event, false));
    this.body.addEventListener("click", (event) => this.pointed(event, true));
  }

  get size() {
    return this.entries.length;
  }

  // The newest entry comes first.
  replace(entries) {
    this.entries = entries.slice(0, this.rowsMax);
    this.scroller.scrollTop = 0;
    this.rebuild();
  }

  rebuild() {
    this.marked = null;
    this.body.replaceChildren(...this.entries.map((entry) => this.row(entry)));
  }

  // Adds entries above the others. The rows that are visible stay at their place.
  prepend(entries) {
    const added = entries.slice(0, this.rowsMax);
    const before = this.scroller.scrollHeight;
    this.body.prepend(...added.map((entry) => this.row(entry, true)));
    this.entries = [...added, ...this.entries].slice(0, this.rowsMax);
    if (this.scroller.scrollTop > 0) this.scroller.scrollTop += this.scroller.scrollHeight - before;
    while (this.body.childElementCount > this.entries.length) this.body.lastElementChild.remove();
  }

  append(entries) {
    this.rowsMax = Math.max(this.rowsMax, this.entries.length + entries.length);
    this.entries = [...this.entries, ...entries];
    this.body.append(...entries.map((entry) => this.row(entry)));
  }

  dropBefore(time) {
    while (this.entries.length > 0 && (this.timeOf(this.entries.at(-1)) ?? time) < time) {
      this.entries.pop();
      this.body.lastElementChild.remove();
    }
  }

  row(entry, isNew = false) {
    return element("tr", { class: isNew ? "new" : null }, this.cells(entry));
  }

  pointed(event, pinned) {
    const row = event.target.closest("tr");
    if (!row || (pinned && String(getSelection()) !== "")) return;
    const time = this.timeOf(this.entries[row.sectionRowIndex]);
    if (time !== null && time !== undefined) this.point(time, pinned);
  }

  // Moves the mark, and scrolls to it if the cursor was moved in another part of the page.
  mark(time, scroll) {
    const row = time === null ? null : this.body.rows[this.indexAt(time)] ?? null;
    if (row !== this.marked) {
      setAttribute(this.marked ?? document.createElement("tr"), "aria-current", null);
      if (row) setAttribute(row, "aria-current", "true");
      this.marked = row;
    }
    if (row && scroll) this.scrollTo(row);
  }

  indexAt(time) {
    let known = 0;
    const times = this.entries.map((entry) => (known = this.timeOf(entry) ?? known));
    return nearestIndex(times.length, (i) => times[i], time);
  }

  scrollTo(row) {
    const top = row.offsetTop;
    const { scrollTop, clientHeight } = this.scroller;
    if (top < scrollTop || top + row.offsetHeight > scrollTop + clientHeight) {
      this.scroller.scrollTop = top - (clientHeight - row.offsetHeight) / 2;
    }
  }

  key(event) {
    const step = { ArrowDown: 1, ArrowUp: -1 }[event.key];
    if (step === undefined || event.target !== this.scroller || this.size === 0) return;
    event.preventDefault();
    const now = this.marked ? this.marked.sectionRowIndex + step : step > 0 ? 0 : this.size - 1;
    const index = Math.min(this.size - 1, Math.max(0, now));
    const time = this.timeOf(this.entries[index]);
    if (time === null || time === undefined) return;
    this.point(time, true);
    this.mark(time, true);
    this.markRow(this.body.rows[index]);
  }

  // Several entries may have the same time; the keys reach each of them.
  markRow(row) {
    if (this.marked) setAttribute(this.marked, "aria-current", null);
    this.marked = row;
    setAttribute(row, "aria-current", "true");
    this.scrollTo(row);
  }
}
