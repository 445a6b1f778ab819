// The frame of every view: the name, the links to the views, the state of the connection, and the zone of all times.

import { element, setAttribute, setText } from "./dom.js";
import { clockTime, zoneName } from "./format.js";
import { icon } from "./icons.js";
import { addressOf, changed } from "./route.js";

const links = [["overview", "Overview"], ["traces", "Traces"], ["health", "Health"]];
const stateTexts = { live: "Live", connecting: "Connecting", hidden: "Waiting", lost: "Connection lost", idle: "", paused: "Paused" };
const stateIcons = { live: "live", connecting: "waiting", hidden: "waiting", lost: "lost", paused: "paused" };

export class Frame {
  constructor(body, pages) {
    this.pages = pages;
    this.route = pages.route;
    this.content = element("main", { id: "content", tabindex: "-1" });
    this.links = links.map(([view, text]) => [view, element("a", {}, text)]);
    this.connection = element("span", { class: "connection", role: "status" });
    this.zone = element("button", { type: "button", class: "zone", onclick: () => this.switchZone() });
    this.banner = element("div", { class: "banner", role: "alert", hidden: true });
    body.replaceChildren(this.skipLink(), this.header(), this.banner, this.content);
    this.countdown = setInterval(() => this.showLost(), 500);
  }

  skipLink() {
    return element("a", { class: "skip", href: "#content", onclick: (event) => this.skip(event) }, "Skip to the content");
  }

  // The fragment is the address of the view, so the link moves the focus itself.
  skip(event) {
    event.preventDefault();
    this.focusContent();
  }

  focusContent() {
    this.content.focus({ preventScroll: true });
    window.scrollTo(0, 0);
  }

  header() {
    const nav = element("nav", { "aria-label": "Views" }, this.links.map(([, link]) => link));
    const logo = element("img", { src: "/assets/icon.svg", alt: "", width: "20", height: "20" });
    return element("header", { class: "top" }, element("span", { class: "brand" }, logo, "qxview"), nav,
      element("span", { class: "top-end" }, this.connection, this.zone));
  }

  get utc() {
    return this.route.params.get("utc") === "1";
  }

  get isLost() {
    return Boolean(this.lost);
  }

  enter(route) {
    this.update(route);
    this.state({ name: "idle" });
    this.content.replaceChildren();
  }

  update(route) {
    this.route = route;
    for (const [view, link] of this.links) {
      setAttribute(link, "href", addressOf(view, route));
      setAttribute(link, "aria-current", route.view === view ? "page" : null);
    }
    setText(this.zone, this.utc ? "UTC" : `Local (${zoneName(Date.now(), false)})`);
    setAttribute(this.zone, "aria-pressed", String(this.utc));
    setAttribute(this.zone, "aria-label", `Times in UTC. Now ${this.utc ? "UTC" : "the local zone"}.`);
    setAttribute(this.zone, "title", this.utc ? "Show local times" : "Show times in UTC");
  }

  title(text) {
    document.title = `${text} \u00b7 qxview`;
  }

  switchZone() {
    this.pages.replace(changed(this.pages.route, { utc: this.utc ? null : "1" }));
  }

  // Shows a state of LiveEvents, or { name: "idle" } for a view without live events, or { name: "paused" }.
  state(state, retry = null) {
    if (state.name === "session") return this.pages.sessionEnded();
    this.retry = retry;
    if (state.name !== "lost") this.lostSince = null;
    else this.lostSince ??= Date.now();
    this.lost = state.name === "lost" ? state : null;
    if (this.shown !== state.name) {
      this.shown = state.name;
      setAttribute(this.connection, "data-state", state.name);
      const text = stateTexts[state.name];
      this.connection.replaceChildren(...(text ? [icon(stateIcons[state.name]), element("span", {}, text)] : []));
    }
    this.showLost();
  }

  // A short loss needs no banner: most restarts are over in a second.
  showLost() {
    const visible = this.lost !== null && this.lost !== undefined && Date.now() - this.lostSince > 800;
    if (!visible) {
      if (!this.banner.hidden) this.hideBanner();
      return;
    }
    if (this.banner.hidden) this.fillBanner();
    const seconds = Math.ceil((this.lost.retryAt - Date.now()) / 1000);
    setText(this.bannerNext, seconds > 0 ? `Next try in ${seconds} s.` : "Trying\u2026");
  }

  fillBanner() {
    this.bannerNext = element("span", { class: "banner-next", "aria-live": "off" });
    const since = clockTime(this.lostSince, this.utc);
    this.banner.replaceChildren(icon("lost"),
      element("span", {}, `${this.lost.error.message} What you see is from ${since}. `), this.bannerNext,
      element("button", { type: "button", onclick: () => this.retry?.() }, "Try now"));
    this.banner.hidden = false;
  }

  hideBanner() {
    this.banner.hidden = true;
    this.banner.replaceChildren();
  }
}
