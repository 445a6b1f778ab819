// The findings of doctor, the worst first, each with the action to take and a command to copy. The page changes
// nothing.

import { getDocument } from "./api.js";
import { element, setAttribute, setText } from "./dom.js";
import { clockTime, counted } from "./format.js";
import { icon } from "./icons.js";
import { LiveEvents } from "./live.js";
import { severityBadge } from "./overview-row.js";
import { severities } from "./overview-rows.js";
import { empty, failed, loading } from "./states.js";
import { visibleText } from "./text.js";

export function showHealth(context) {
  return new Health(context);
}

class Health {
  constructor({ root, route, frame, pages }) {
    Object.assign(this, { root, route, frame, pages });
    this.abort = new AbortController();
    this.where = element("p", { class: "where", role: "status" });
    this.place = element("div", { class: "place" }, loading("Checking"));
    frame.title("Health");
    root.replaceChildren(element("div", { class: "view-head" }, element("h1", {}, "Health"), this.where), this.place);
    this.load();
  }

  async load() {
    try {
      this.document = await getDocument("findings", [], this.abort.signal);
    } catch (error) {
      return this.fail(error);
    }
    this.show();
    this.goToCode();
    this.live = new LiveEvents({
      parameters: () => [["view", "health"]],
      cursor: this.document.cursor ?? "",
      onEvent: (type, document) => this.receive(type, document),
      onState: (state) => this.frame.state(state, () => this.live.retryNow()),
    });
  }

  fail(error) {
    if (this.abort.signal.aborted) return;
    if (error.kind === "session") return this.pages.sessionEnded();
    this.place.replaceChildren(failed(error, () => this.load()));
  }

  receive(type, document) {
    if (type !== "findings") return;
    const same = JSON.stringify(document.findings) === JSON.stringify(this.document.findings);
    this.document = document;
    if (same) this.showWhere();
    else this.show();
  }

  // The document has the order of codes; here the worst findings come first.
  show() {
    const { findings } = this.document;
    const bySeverity = severities.map((severity) => [severity, findings.filter((finding) => finding.severity === severity)]);
    const trouble = bySeverity.filter(([severity]) => severity !== "ok").flatMap(([, some]) => some);
    const good = findings.filter((finding) => finding.severity === "ok");
    this.showWhere();
    this.place.replaceChildren(
      trouble.length > 0 ? element("ul", { class: "findings" }, trouble.map((finding) => this.finding(finding))) :
        element("div", { class: "all-good" }, icon("ok"), empty("Nothing to do", "Doctor found no error and no warning.")),
      good.length > 0 ? this.good(good) : "");
    this.markCode();
  }

  showWhere() {
    const bad = this.document.findings.filter(({ severity }) => severity === "error" || severity === "warning").length;
    const text = bad === 0 ? "no error and no warning" : `${counted(bad, "finding")} to look at`;
    setText(this.where, `${text}; checked at ${clockTime(Date.now(), this.frame.utc)}`);
  }

  good(findings) {
    return element("details", { class: "good", "aria-label": "Checks without a finding", open: findings.some(({ code }) => code === this.route.params.get("code")) },
      element("summary", {}, icon("ok"), `${counted(findings.length, "check")} without a finding`),
      element("ul", { class: "findings" }, findings.map((finding) => this.finding(finding))));
  }

  finding({ section, code, severity, fact, fix, command }) {
    return element("li", { class: "card finding", "data-severity": severity, "data-code": code, tabindex: "-1" },
      element("div", { class: "finding-head" }, severityBadge(severity), element("span", { class: "code" }, code), element("span", { class: "section" }, section)),
      element("p", { class: "fact" }, withCode(fact)),
      fix && element("p", { class: "fix" }, withCode(fix)),
      command && this.command(visibleText(command)));
  }

  command(text) {
    const code = element("code", {}, text);
    const copy = element("button", { type: "button", "aria-label": `Copy the command ${text}` }, "Copy");
    copy.addEventListener("click", () => copyText(code, copy));
    return element("div", { class: "command command-copy" }, code, copy);
  }

  markCode() {
    const code = this.route.params.get("code");
    for (const item of this.place.querySelectorAll(".finding")) {
      setAttribute(item, "aria-current", item.dataset.code === code ? "true" : null);
    }
  }

  goToCode() {
    const item = this.place.querySelector("[aria-current]");
    item?.scrollIntoView({ block: "center" });
    item?.focus({ preventScroll: true });
  }

  update(route) {
    this.route = route;
    if (!this.document) return;
    this.showWhere();
    this.markCode();
    this.goToCode();
  }

  close() {
    this.abort.abort();
    this.live?.close();
  }
}

// "See `qxctl top`" => "See ", <code>qxctl top</code>
function withCode(text) {
  return visibleText(text).split("`").map((part, i) => (i % 2 === 1 ? element("code", {}, part) : part));
}

// Without the clipboard (on a page that is not from this machine) the command is selected, so that it can be copied by
// keys.
async function copyText(code, button) {
  try {
    await navigator.clipboard.writeText(code.textContent);
    setText(button, "Copied");
  } catch {
    getSelection().selectAllChildren(code);
    setText(button, "Selected");
  }
  setTimeout(() => setText(button, "Copy"), 1500);
}
