// Handles pointer and keys on a chart: point, drag to zoom, drag with shift or one finger to pan, pinch, and the same
// with keys. A gesture changes the address; the chart follows the address.

import { movedSpan, scaledSpan } from "./span.js";

const dragPixels = 5;

export class ChartGestures {
  constructor(chart, actions) {
    this.chart = chart;
    this.actions = actions;
    this.pointers = new Map();
    this.drag = null;
    const node = chart.node;
    const listeners = {
      pointerdown: (event) => this.down(event), pointermove: (event) => this.move(event), pointerup: (event) => this.up(event),
      pointercancel: (event) => this.abandon(event), pointerleave: () => this.actions.leave(),
      dblclick: () => this.actions.reset(), keydown: (event) => this.key(event),
    };
    for (const [name, listener] of Object.entries(listeners)) node.addEventListener(name, listener);
  }

  get ready() {
    return this.chart.isReady;
  }

  xOf(event) {
    return event.clientX - this.chart.plots.getBoundingClientRect().left;
  }

  down(event) {
    if (!this.ready || event.button !== 0) return;
    this.pointers.set(event.pointerId, this.xOf(event));
    this.chart.node.setPointerCapture(event.pointerId);
    const mode = event.shiftKey || event.pointerType === "touch" ? "pan" : "zoom";
    this.drag = { mode, x: this.xOf(event), span: { ...this.chart.content.span }, moved: false, pinch: null };
    if (this.pointers.size === 2) this.drag.pinch = this.distance();
  }

  distance() {
    const [a, b] = [...this.pointers.values()];
    return Math.max(1, Math.abs(a - b));
  }

  move(event) {
    if (!this.ready) return;
    const x = this.xOf(event);
    if (!this.drag && this.pointers.size > 0) return;  // one finger of a pinch is still down
    if (!this.drag) return this.actions.hover(this.snapped(x));
    this.pointers.set(event.pointerId, x);
    if (Math.abs(x - this.drag.x) > dragPixels) this.drag.moved = true;
    if (!this.drag.moved) return;
    if (this.drag.mode === "zoom") this.showBand(this.drag.x, x);
    else this.preview(this.draggedSpan(x));
  }

  // Hovering points at the nearest column, so that the values are those of real records.
  snapped(x) {
    const time = this.chart.timeAt(x);
    return this.chart.content.series.at(time)?.timeMs ?? Math.round(time);
  }

  draggedSpan(x) {
    const { span, pinch } = this.drag;
    if (pinch !== null && this.pointers.size === 2) return scaledSpan(span, pinch / this.distance());
    return movedSpan(span, (this.drag.x - x) / this.chart.area.w);
  }

  preview(span) {
    this.drag.preview = span;
    this.chart.preview(span);
  }

  showBand(a, b) {
    const { x, y, w, h } = this.chart.area;
    const left = Math.max(x, Math.min(a, b));
    const right = Math.min(x + w, Math.max(a, b));
    Object.assign(this.chart.band.style, { left: `${left}px`, width: `${Math.max(0, right - left)}px`, top: `${y}px`, height: `${h}px` });
    this.chart.band.hidden = false;
  }

  up(event) {
    const drag = this.drag;
    const known = this.pointers.has(event.pointerId);
    this.cancel(event);
    if (!this.ready || !drag || !known) return;
    if (drag.pinch !== null) this.drag = null;
    const x = this.xOf(event);
    if (!drag.moved) this.actions.pin(this.snapped(x));
    else if (drag.mode === "zoom") this.zoomTo(this.chart.timeAt(Math.min(drag.x, x)), this.chart.timeAt(Math.max(drag.x, x)));
    else if (drag.preview) this.actions.zoom(drag.preview);
  }

  zoomTo(from, to) {
    if (to - from >= 1) this.actions.zoom({ from: Math.floor(from), to: Math.max(Math.ceil(to), Math.floor(from) + 10) });
  }

  // The browser takes over the gesture, to scroll the page.
  abandon(event) {
    if (this.drag?.preview) this.preview(this.drag.span);
    this.cancel(event);
  }

  cancel(event) {
    this.pointers.delete(event.pointerId);
    if (this.pointers.size === 0) this.drag = null;
    this.chart.band.hidden = true;
  }

  key(event) {
    if (!this.ready || event.ctrlKey || event.altKey || event.metaKey) return;
    const action = this.actionOf(event.key, event.shiftKey);
    if (!action) return;
    event.preventDefault();
    action();
  }

  actionOf(key, shift) {
    const span = this.chart.content.span;
    const pan = (share) => () => this.actions.zoom(movedSpan(span, share));
    const zoom = (factor) => () => this.actions.zoom(scaledSpan(span, factor, this.chart.time ?? undefined));
    const columns = this.chart.content.series.columns.length;
    const actions = {
      ArrowLeft: shift ? pan(-0.25) : () => this.step(-1), ArrowRight: shift ? pan(0.25) : () => this.step(1),
      PageDown: () => this.step(-20), PageUp: () => this.step(20), Home: () => this.step(-columns), End: () => this.step(columns),
      "+": zoom(0.5), "=": zoom(0.5), "-": zoom(2), 0: () => this.actions.reset(), Escape: () => this.actions.pin(null),
    };
    return actions[key];
  }

  step(by) {
    const { series, span } = this.chart.content;
    const shown = series.columns.filter(({ timeMs }) => timeMs >= span.from && timeMs <= span.to);
    if (shown.length === 0) return;
    const now = this.chart.time === null ? shown.length : shown.findIndex(({ timeMs }) => timeMs >= this.chart.time);
    const index = (now < 0 ? shown.length - 1 : now) + by;
    this.actions.pin(shown[Math.min(shown.length - 1, Math.max(0, index))].timeMs);
  }

  close() {
    this.pointers.clear();
    this.drag = null;
  }
}
