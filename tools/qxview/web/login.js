// The page for a browser without a session. The program prints an address with a token when it starts; a token is valid
// once.

import { openSession } from "./api.js";
import { element, setText } from "./dom.js";
import { icon } from "./icons.js";

// The token of an address: "http://127.0.0.1:8070/#token=abc" => "abc". A token alone is accepted, too.
export function tokenIn(text) {
  const [, token] = /(?:^|[#?&])token=([^&\s]+)/.exec(text.trim()) ?? [];
  if (token !== undefined) return token;
  return /^[\w.~-]{8,}$/.test(text.trim()) ? text.trim() : "";
}

// Shows the form in `root`. `problem` says why there is no session, `done()` is called when there is one.
export function showLogin(root, problem, done) {
  const input = element("input", { id: "address", type: "text", autocomplete: "off", spellcheck: "false", autocapitalize: "off",
    placeholder: `${location.origin}/#token=\u2026`, "aria-describedby": "login-problem login-help" });
  const message = element("p", { id: "login-problem", class: "login-problem", role: "alert" });
  const submit = async (event) => {
    event.preventDefault();
    show(message, await openWith(tokenIn(input.value), done));
    input.focus();
  };
  root.replaceChildren(element("main", { class: "login", id: "content" }, element("div", { class: "card" },
    element("p", { class: "brand" }, element("img", { src: "/assets/icon.svg", alt: "", width: "20", height: "20" }), "qxview"),
    element("h1", {}, "Log in with the address of this server"),
    element("p", { id: "login-help" }, "qxview prints an address when it starts, and another one on the signal HUP. Open the newest ",
      "address, or paste it here. Each is valid once, for five minutes. For a service:"),
    element("pre", { class: "command" }, "systemctl reload qxview\njournalctl --unit=qxview --lines=5"),
    element("form", { class: "login-form", onsubmit: submit },
      element("label", { for: "address" }, "Address printed by qxview"),
      input,
      element("button", { type: "submit", class: "primary" }, "Open")),
    message)));
  show(message, problem);
  document.title = "Log in \u00b7 qxview";
  input.focus();
}

async function openWith(token, done) {
  if (token === "") return "This is not an address with a token. It looks like the example in the field.";
  try {
    await openSession(token);
  } catch (error) {
    return error.message;
  }
  done();
  return "";
}

function show(message, problem) {
  message.replaceChildren();
  if (problem) message.append(icon("error"), element("span", {}, problem));
  else setText(message, "");
}
