// The chart of a report. dygraphs draws the lines; this page does everything else (pointer, keys, cursor, legend),
// because the library's own legend and titles set HTML, and its own gestures do not change the address.
//
// Fields of the same unit and size share a plot. Other fields have a plot of their own below it, with the same time
// axis.

import { ChartGestures } from "./chart-gestures.js";
import { element, setAttribute } from "./dom.js";
import { axisTime, grouped, number, secondTime, shortNumber } from "./format.js";
import { visibleText } from "./text.js";

const patterns = [null, [7, 3], [2, 3], [10, 3, 2, 3], [5, 2, 1, 2, 1, 2], [14, 4]];
const axisLabelWidth = 56;
const timeLabelPixels = 90;

export function strokePattern(index) {
  return patterns[index % patterns.length];
}

export class Chart {
  // actions: { zoom(span), reset(), hover(time), leave(), pin(time) }
  constructor(actions) {
    this.graphs = [];
    this.plots = element("div", { class: "plots" });
    this.line = element("div", { class: "plot-cursor", hidden: true });
    this.band = element("div", { class: "plot-band", hidden: true });
    this.node = element("div", { class: "chart", tabindex: "0", role: "slider", "aria-label": "Chart", "aria-valuemin": "0",
      "aria-valuemax": "0", "aria-valuenow": "0", "aria-describedby": "chart-keys" }, this.plots, this.line, this.band);
    this.gestures = new ChartGestures(this, actions);
    this.sizes = new ResizeObserver(() => this.resize());
    this.sizes.observe(this.node);
    this.scheme = matchMedia("(prefers-color-scheme: dark)");
    this.onScheme = () => this.rebuild();
    this.scheme.addEventListener("change", this.onScheme);
  }

  get width() {
    return Math.min(4000, Math.max(50, Math.round(this.node.clientWidth) - axisLabelWidth));
  }

  get isReady() {
    return this.graphs.length > 0;
  }

  // fields: [{ name, unit }], one for each field of the series; span: { from, to }; x axis: "time" or "number"
  show(series, fields, span, { utc, axis }) {
    const shape = JSON.stringify([fields, utc, axis, series.panels]);
    this.content = { series, fields, span, utc, axis };
    if (this.shape !== shape) this.build(shape);
    else this.graphs.forEach((graph, i) => graph.updateOptions({ file: this.rows(i), dateWindow: [span.from, span.to] }));
    this.describe();
    this.mark(this.time ?? null);
  }

  // Shows another span of the same numbers, while the pointer drags.
  preview({ from, to }) {
    for (const graph of this.graphs) graph.updateOptions({ dateWindow: [from, to] });
  }

  rebuild() {
    if (this.isReady) this.build(this.shape);
  }

  rows(panel) {
    const { series, span } = this.content;
    const rows = series.rows(series.panels[panel]);
    return rows.length > 0 ? rows : [[span.from, ...series.panels[panel].map(() => [null, null, null])]];
  }

  build(shape) {
    this.shape = shape;
    this.destroyGraphs();
    const { panels } = this.content.series;
    const nodes = panels.map((panel) => this.plotOf(panel));
    setAttribute(this.plots, "data-plots", Math.min(panels.length, 3));
    this.plots.replaceChildren(...nodes.map(({ node }) => node));
    this.graphs = nodes.map(({ canvas }, i) => new globalThis.Dygraph(canvas, this.rows(i), this.options(i)));
  }

  plotOf(panel) {
    const units = [...new Set(panel.map((i) => this.content.fields[i].unit))].filter((unit) => unit !== "");
    const canvas = element("div", { class: "plot-canvas" });
    return { canvas, node: element("div", { class: "plot" }, canvas, units.length > 0 &&
      element("span", { class: "plot-unit" }, visibleText(units[0]))) };
  }

  options(index) {
    const { series, span, utc, axis } = this.content;
    const { Dygraph } = globalThis;
    const style = getComputedStyle(this.node);
    const color = (name) => style.getPropertyValue(name).trim();
    const panel = series.panels[index];
    const isLast = index === series.panels.length - 1;
    return {
      // The library uses labels as keys, so it gets names of this page.
      labels: ["x", ...panel.map((i) => `f${i}`)],
      colors: panel.map((i) => color(`--series-${i + 1}`)),
      series: Object.fromEntries(panel.map((i) => [`f${i}`, { strokePattern: strokePattern(i) }])),
      customBars: true, plotter: [plotRanges, Dygraph.Plotters.linePlotter], strokeWidth: 1.6, connectSeparatedPoints: false, drawPoints: false, pointSize: 2,
      legend: "never", showLabelsOnHighlight: false, highlightCircleSize: 0, interactionModel: {}, labelsUTC: utc,
      dateWindow: [span.from, span.to], axisLabelFontSize: 11, axisLineColor: color("--line"), gridLineColor: color("--grid"),
      gridLineWidth: 1, rightGap: 12, xRangePad: 0, yRangePad: 6, xAxisHeight: isLast ? undefined : 6,
      axes: {
        x: { ticker: axis === "time" ? Dygraph.dateTicker : Dygraph.numericLinearTicks, axisLabelWidth: 76,
          axisLabelFormatter: (value) => (isLast ? this.axisLabel(Number(value)) : ""), pixelsPerLabel: timeLabelPixels },
        y: { axisLabelFormatter: (value) => shortNumber(value), axisLabelWidth, pixelsPerLabel: 32 },
      },
      underlayCallback: (context, area, graph) => this.shadeGaps(context, area, graph, index === 0, color),
    };
  }

  axisLabel(value) {
    const { span, utc, axis } = this.content;
    if (axis === "number") return grouped(value);
    return axisTime(value, ((span.to - span.from) / Math.max(1, this.width)) * timeLabelPixels, utc);
  }

  shadeGaps(context, area, graph, isFirst, color) {
    context.font = `12px ${getComputedStyle(this.node).fontFamily}`;
    for (const gap of this.content.series.gaps) {
      const from = Math.max(area.x, graph.toDomXCoord(gap.from));
      const to = Math.min(area.x + area.w, graph.toDomXCoord(gap.to));
      if (to - from < 1) continue;
      context.fillStyle = color("--gap");
      context.fillRect(from, area.y, to - from, area.h);
      context.fillStyle = color("--muted");
      context.textAlign = "center";
      if (isFirst && to - from > 90) context.fillText("no records", (from + to) / 2, area.y + area.h / 2);
    }
  }

  resize() {
    if (this.node.clientWidth > 0) this.graphs.forEach((graph) => graph.resize());
    this.mark(this.time ?? null);
  }

  // Converts a time to pixels from the left edge of the chart, and back.
  timeAt(x) {
    const { from, to } = this.content.span;
    return Math.min(to, Math.max(from, this.graphs[0].toDataXCoord(x)));
  }

  placeOf(time) {
    return this.graphs[0].toDomXCoord(time);
  }

  // The plotted area in pixels, over all plots.
  get area() {
    const { x, y, w } = this.graphs[0].getArea();
    const last = this.graphs.at(-1).getArea();
    return { x, y, w, h: this.plots.lastElementChild.offsetTop + last.y + last.h - y };
  }

  isShown(time) {
    return time !== null && this.isReady && time >= this.content.span.from && time <= this.content.span.to;
  }

  isInRightHalf(time) {
    const { from, to } = this.content.span;
    return time > (from + to) / 2;
  }

  mark(time) {
    this.time = time;
    const inside = this.isShown(time);
    this.line.hidden = !inside;
    if (inside) {
      const { y, h } = this.area;
      Object.assign(this.line.style, { left: `${this.placeOf(time)}px`, top: `${y}px`, height: `${h}px` });
    }
    if (this.isReady) this.describe();
  }

  // For screen readers: the chart is a slider over time, whose text is the time and the values there.
  describe() {
    const { series, fields, span, utc, axis } = this.content;
    const at = this.time ?? series.newestMs ?? span.to;
    const column = series.at(at);
    const place = axis === "number" ? `record ${grouped(column?.timeMs ?? at)}` : secondTime(column?.timeMs ?? at, utc);
    const values = fields.map((field, i) => `${visibleText(field.name)} ${valueText(column?.values[i], field.unit)}`).join(", ");
    setAttribute(this.node, "aria-label", `Chart of ${fields.map((field) => visibleText(field.name)).join(", ")}`);
    setAttribute(this.node, "aria-valuemin", Math.round(span.from));
    setAttribute(this.node, "aria-valuemax", Math.round(span.to));
    setAttribute(this.node, "aria-valuenow", Math.round(at));
    setAttribute(this.node, "aria-valuetext", `${place}, ${values}`);
  }

  destroyGraphs() {
    for (const graph of this.graphs) graph.destroy();
    this.graphs = [];
  }

  close() {
    this.sizes.disconnect();
    this.scheme.removeEventListener("change", this.onScheme);
    this.gestures.close();
    this.destroyGraphs();
  }
}

// These plugins of the library set HTML and inline styles, so they are not used and not created.
export function prepareLibrary() {
  const { Dygraph } = globalThis;
  const { Legend, ChartLabels, RangeSelector, Annotations } = Dygraph.Plugins;
  Dygraph.PLUGINS = Dygraph.PLUGINS.filter((plugin) => ![Legend, ChartLabels, RangeSelector, Annotations].includes(plugin));
}

// Draws a line from the lowest to the highest value of each pixel column, so that a single peak among many records is
// visible.
function plotRanges({ drawingContext, color, plotArea, points }) {
  const place = (share) => plotArea.y + plotArea.h * share;
  drawingContext.save();
  drawingContext.globalAlpha = 0.5;
  drawingContext.strokeStyle = color;
  drawingContext.lineWidth = 1.4;
  drawingContext.beginPath();
  for (const { canvasx, y_top: top, y_bottom: bottom } of points) {
    if (!(Math.abs(bottom - top) > 0)) continue;
    drawingContext.moveTo(canvasx, place(top));
    drawingContext.lineTo(canvasx, place(bottom));
  }
  drawingContext.stroke();
  drawingContext.restore();
}

// [10, 15, 12] and "%" => "12 % (10 to 15)"
export function valueText(values, unit) {
  if (!values) return "no value";
  const [low, high, last] = values;
  const space = unit ? `\u00a0${visibleText(unit)}` : "";
  const range = low < high ? ` (${number(low)} to ${number(high)})` : "";
  return `${number(last)}${space}${range}`;
}
