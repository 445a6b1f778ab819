// Shows the fields of a report as buttons with their newest values. A chosen field has the colour and pattern of its
// line.

import { valueText } from "./chart.js";
import { element, setAttribute, setChildren, setText } from "./dom.js";
import { lineSample, paintSample } from "./readout.js";
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
    this.node = element("div", { class: "legend" }, this.search, this.list);
  }

  // fields: [{ name, unit, newest }]
  show(fields, chosen) {
    this.fields = fields;
    this.chosen = chosen;
    this.search.hidden = fields.length < searchFrom;
    // Fields of the address that the newest record does not have keep their button.
    const missing = chosen.filter((name) => !fields.some((field) => field.name === name)).map((name) => ({ name, unit: "" }));
    this.all = [...fields, ...missing];
    setChildren(this.list, this.all.map((field) => this.buttonOf(field)));
    this.filter();
  }

  buttonOf(field) {
    let button = this.buttons.get(field.name);
    if (!button) {
      const swatch = lineSample(-1);
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
    paintSample(swatch, index);
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

  showNewest() {
    for (const field of this.all ?? []) setText(this.buttons.get(field.name).value, newestText(field));
  }
}

function newestText(field) {
  return typeof field.newest === "number" ? valueText([field.newest, field.newest, field.newest], field.unit) : "";
}
