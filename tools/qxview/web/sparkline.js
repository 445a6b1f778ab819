// Draws the newest numbers of a report as a small line without axes. The numbers are next to it as text.

import { setAttribute, svg } from "./dom.js";

const width = 96;
const height = 22;

export function sparkline() {
  const line = svg("polyline", { class: "spark-line" });
  const dot = svg("circle", { class: "spark-dot", r: "2" });
  const picture = svg("svg", { class: "spark", viewBox: `0 0 ${width} ${height}`, "aria-hidden": "true", focusable: "false" },
    line, dot);
  return { picture, draw: (numbers) => draw(picture, line, dot, numbers) };
}

function draw(picture, line, dot, numbers) {
  const points = pointsOf(numbers);
  picture.toggleAttribute("data-empty", points.length === 0);
  setAttribute(line, "points", points.map((point) => point.join(",")).join(" "));
  const [x, y] = points.at(-1) ?? [0, 0];
  setAttribute(dot, "cx", x);
  setAttribute(dot, "cy", y);
}

// The newest number is at the right edge. Equal numbers are a line in the middle.
export function pointsOf(numbers) {
  const low = Math.min(...numbers);
  const high = Math.max(...numbers);
  const step = numbers.length > 1 ? (width - 6) / (numbers.length - 1) : 0;
  const first = numbers.length > 1 ? 3 : width / 2;
  return numbers.map((value, i) => {
    const share = high > low ? (value - low) / (high - low) : 0.5;
    return [round(first + i * step), round(height - 3 - share * (height - 6))];
  });
}

function round(value) {
  return Math.round(value * 10) / 10;
}
