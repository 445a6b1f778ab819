// Builders for elements. Reports, records and traces are hostile text: every string reaches the document as a text node
// or as an attribute that the page names itself. Nothing here parses HTML.

const svgNamespace = "http://www.w3.org/2000/svg";

// element("td", { class: "number", title: "..." }, "text", node) => <td class="number" title="...">text<node></td>
// A property that begins with "on" is a listener; false, null and undefined leave an attribute out; true sets it empty.
export function element(name, properties, ...children) {
  return fill(document.createElement(name), properties, children);
}

export function svg(name, properties, ...children) {
  return fill(document.createElementNS(svgNamespace, name), properties, children);
}

function fill(node, properties, children) {
  for (const [name, value] of Object.entries(properties ?? {})) {
    if (typeof value === "function") node.addEventListener(name.slice(2), value);
    else if (value === true) node.setAttribute(name, "");
    else if (value !== false && value !== null && value !== undefined) node.setAttribute(name, value);
  }
  node.append(...children.flat().filter((child) => child !== null && child !== undefined && child !== false));
  return node;
}

// A text that has not changed is not set again, so that a selection in it stays.
export function setText(node, text) {
  if (node.textContent !== text) node.textContent = text;
}

export function setAttribute(node, name, value) {
  if (value === null || value === undefined || value === false) node.removeAttribute(name);
  else if (node.getAttribute(name) !== String(value)) node.setAttribute(name, value);
}

// Makes `nodes` the children of `parent` in this order. Nodes that are at their place already are not moved, so focus
// stays.
export function setChildren(parent, nodes) {
  let next = parent.firstChild;
  for (const node of nodes) {
    if (node === next) next = next.nextSibling;
    else parent.insertBefore(node, next);
  }
  while (next) {
    const removed = next;
    next = next.nextSibling;
    removed.remove();
  }
}

// Calls `run` at most once in `milliseconds`, and always once after the last request.
export function throttled(milliseconds, run) {
  let timer = 0;
  let last = 0;
  const fire = () => {
    timer = 0;
    last = performance.now();
    run();
  };
  const request = () => {
    if (timer === 0) timer = setTimeout(fire, Math.max(0, last + milliseconds - performance.now()));
  };
  request.cancel = () => {
    clearTimeout(timer);
    timer = 0;
  };
  return request;
}

// Calls `run` when no request has come for `milliseconds`.
export function debounced(milliseconds, run) {
  let timer = 0;
  const request = (...values) => {
    clearTimeout(timer);
    timer = setTimeout(run, milliseconds, ...values);
  };
  request.cancel = () => clearTimeout(timer);
  return request;
}
