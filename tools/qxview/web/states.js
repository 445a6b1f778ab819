// The text of a part of a page without content: it is loading, it is empty, or it failed.

import { element } from "./dom.js";
import { icon } from "./icons.js";

export function loading(text) {
  return element("div", { class: "state state-loading", role: "status" },
    element("span", { class: "bars", "aria-hidden": "true" }, element("i"), element("i"), element("i")),
    element("p", {}, text));
}

export function empty(title, text, ...actions) {
  return element("div", { class: "state" }, element("p", { class: "state-title" }, title), element("p", {}, text),
    actions.length > 0 && element("p", { class: "state-actions" }, ...actions));
}

export function failed(error, retry) {
  const hint = error.code ? [" More with ", element("code", {}, `qxctl explain ${error.code}`), "."] : [];
  return element("div", { class: "state state-failed", role: "alert" }, icon("error"),
    element("p", { class: "state-title" }, "This cannot be shown"),
    element("p", {}, error.message, ...hint),
    retry && element("p", { class: "state-actions" },
      element("button", { type: "button", onclick: retry }, "Try again")));
}
