// The view for an address that is not the address of a view.

import { element } from "./dom.js";
import { addressOf } from "./route.js";
import { empty } from "./states.js";

export function showMissing({ root, route, frame }) {
  frame.title("No such view");
  root.replaceChildren(element("h1", {}, "No such view"), empty("This address names no view of qxview.", "It may have been cut.",
    element("a", { class: "button", href: addressOf("overview", route) }, "Go to the overview")));
  return { update() {}, close() {} };
}
