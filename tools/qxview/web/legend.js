// The fields of a report as buttons: each chosen one has the colour and pattern of its line, and its value at the cursor
// or, without a cursor, the newest one.

import { strokePattern, valueText } from "./chart.js";
import { element, setAttribute, setChildren, setText, svg } from "./dom.js";
import { matches, visibleText } from "./text.js";

export const fieldsMax = 6;
const searchFrom = 16;

export class Legend {
  // choose(names): the user chose these fields
  constructor(choose) {
    this.choose = choose;
    this.buttons = new Map();
    this.chosen = [];
    this.list = element("div", { class: "fields", role: "group", "aria-label": `Fields of the chart, at most ${fieldsMax}` });
    this.search = element("input", { type: "search", class: "fields-search", placeholder: "Find a field", "aria-label": "Find a field",
      hidden: true, oninput: () => this.filter() });
    this.time = element("span", { class: "legend-time" });
    this.node = element("div", { class: "legend" }, this.search, this.list, this.time);
  }

  // fields: [{ name, unit, newest }]
  show(fields, chosen) {
    this.fields = fields;
    this.chosen = chosen;
    this.search.hidden = fields.length < searchFrom;
    // Fields of the address that the newest record lacks keep their button.
    const missing = chosen.filter((name) => !fields.some((field) => field.name === name)).map((name) => ({ name, unit: "" }));
    this.all = [...fields, ...missing];
    setChildren(this.list, this.all.map((field) => this.buttonOf(field)));
    this.filter();
  }

  buttonOf(field) {
    let button = this.buttons.get(field.name);
    if (!button) {
      const swatch = svg("svg", { class: "swatch", viewBox: "0 0 22 8", "aria-hidden": "true", focusable: "false" },
        svg("line", { x1: "1", y1: "4", x2: "21", y2: "4" }));
      const value = element("span", { class: "field-value" });
      const node = element("button", { type: "button", class: "chip field-chip", onclick: () => this.toggle(field.name) }, swatch,
        element("span", { class: "field-name" }, visibleText(field.name)), value);
      button = { node, swatch, value };
      this.buttons.set(field.name, button);
    }
    this.paint(button, this.chosen.indexOf(field.name));
    return button.node;
  }

  paint({ node, swatch }, index) {
    setAttribute(node, "aria-pressed", String(index >= 0));
    setAttribute(node, "aria-disabled", index < 0 && this.chosen.length >= fieldsMax ? "true" : null);
    setAttribute(swatch, "class", index >= 0 ? `swatch series-${index + 1}` : "swatch");
    setAttribute(swatch.firstChild, "stroke-dasharray", index >= 0 ? strokePattern(index)?.join(" ") : null);
  }

  toggle(name) {
    const chosen = this.chosen.includes(name) ? this.chosen.filter((other) => other !== name) : [...this.chosen, name];
    if (chosen.length >= 1 && chosen.length <= fieldsMax) this.choose(chosen);
  }

  filter() {
    for (const field of this.all ?? []) {
      const shown = this.chosen.includes(field.name) || matches(field.name, this.search.value);
      this.buttons.get(field.name).node.hidden = !shown;
    }
  }

  // values: name => [min, max, last] or null, of the chosen fields
  values(values, timeText) {
    for (const field of this.all ?? []) {
      const known = values.has(field.name) ? values.get(field.name) : undefined;
      const text = known === undefined ? newestText(field) : valueText(known, field.unit);
      setText(this.buttons.get(field.name).value, text);
    }
    setText(this.time, timeText);
  }
}

function newestText(field) {
  return typeof field.newest === "number" ? valueText([field.newest, field.newest, field.newest], field.unit) : "";
}
