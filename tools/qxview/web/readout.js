// Shows the values at the cursor in a box on the chart. The box is on the other side of the chart than the cursor, so
// that it does not hide these values, and nothing on the page moves when it appears.

import { strokePattern, valueText } from "./chart.js";
import { element, setAttribute, setText, svg } from "./dom.js";
import { visibleText } from "./text.js";

export class Readout {
  constructor() {
    this.time = element("p", { class: "readout-time" });
    this.list = element("dl");
    this.node = element("div", { class: "readout", hidden: true }, this.time, this.list);
    this.shape = "";
  }

  // fields: [{ name, unit }], values: one [min, max, last] or null for each
  show(timeText, fields, values, atLeft) {
    const shape = JSON.stringify(fields);
    if (this.shape !== shape) this.build(fields);
    this.shape = shape;
    this.node.hidden = false;
    setAttribute(this.node, "data-side", atLeft ? "left" : "right");
    setText(this.time, timeText);
    this.values.forEach((node, i) => setText(node, valueText(values[i], fields[i].unit)));
  }

  build(fields) {
    this.values = fields.map(() => element("dd"));
    this.list.replaceChildren(...fields.flatMap(({ name }, i) => [element("dt", {}, lineSample(i), visibleText(name)), this.values[i]]));
  }

  hide() {
    this.node.hidden = true;
  }
}

// A piece of the line of a field: its colour and its pattern. -1 is a field that is not drawn.
export function lineSample(index) {
  const line = svg("line", { x1: "1", y1: "4", x2: "21", y2: "4" });
  const sample = svg("svg", { class: "swatch", viewBox: "0 0 22 8", "aria-hidden": "true", focusable: "false" }, line);
  paintSample(sample, index);
  return sample;
}

export function paintSample(sample, index) {
  setAttribute(sample, "class", index >= 0 ? `swatch series-${index + 1}` : "swatch");
  setAttribute(sample.firstChild, "stroke-dasharray", index >= 0 ? strokePattern(index)?.join(" ") : null);
}
