// Small pictures. Each shape has one meaning, so that a meaning never depends on a colour.

import { svg } from "./dom.js";

const shapes = {
  error: ["M5.2 1h5.6L15 5.2v5.6L10.8 15H5.2L1 10.8V5.2z", "M5.6 5.6l4.8 4.8m0-4.8l-4.8 4.8"],
  warning: ["M8 1.6L15.2 14.4H.8z", "M8 6v4m0 1.6v.9"],
  info: ["M8 1a7 7 0 110 14A7 7 0 018 1z", "M8 7.2v4m0-6.6v-.9"],
  ok: ["", "M2.5 8.5l3.6 3.8 7.4-8"],
  live: ["M8 4a4 4 0 110 8 4 4 0 010-8z", ""],
  lost: ["", "M1.5 1.5l13 13M2 7.2a8.6 8.6 0 013-2m3-.7a8.6 8.6 0 016 2.7M5 10.6a4.4 4.4 0 016 0"],
  paused: ["M3 2h3.4v12H3zM9.6 2H13v12H9.6z", ""],
  waiting: ["", "M4 8h.1M8 8h.1M12 8h.1"],
};

// The picture alone; the text next to it says the same.
export function icon(name, className = "") {
  const [filled, drawn] = shapes[name];
  return svg("svg", { class: `icon icon-${name} ${className}`, viewBox: "0 0 16 16", "aria-hidden": "true", focusable: "false" },
    filled && svg("path", { class: "icon-shape", d: filled }),
    drawn && svg("path", { class: "icon-line", d: drawn }));
}
