// Starts the pages: opens a session with the token of the address, builds the frame, and shows the view of the address.

import { openSession } from "./api.js";
import { prepareLibrary } from "./chart.js";
import { logDay } from "./format.js";
import { Frame } from "./frame.js";
import { showHealth } from "./health.js";
import { showLogin, tokenIn } from "./login.js";
import { showMissing } from "./missing.js";
import { showOverview } from "./overview.js";
import { showReport } from "./report.js";
import { formatRoute, parseRoute } from "./route.js";
import { showTraces } from "./traces.js";

const views = { overview: showOverview, report: showReport, traces: showTraces, health: showHealth, missing: showMissing };

class Pages {
  constructor() {
    this.frame = null;
    this.view = null;
    this.route = parseRoute(location.hash);
    this.day = logDay(Date.now(), false);
    window.addEventListener("hashchange", () => this.follow());
    setInterval(() => this.followDay(), 1000);
  }

  async start() {
    const problem = await this.useToken();
    if (problem === null) this.show();
    else this.logIn(problem);
  }

  // The token is removed from the address before anything else happens. null: there was no token, or it was accepted.
  async useToken() {
    if (!location.hash.startsWith("#token=")) return null;
    const token = tokenIn(location.hash);
    this.replace(parseRoute(""));
    try {
      await openSession(token);
      return null;
    } catch (error) {
      return error.message;
    }
  }

  // Times of today are shown without their day, so they are shown again when the day changes.
  followDay() {
    const day = logDay(Date.now(), this.frame?.utc);
    if (this.day === day) return;
    this.day = day;
    this.view?.redrawTexts?.();
  }

  logIn(problem) {
    this.leave();
    this.frame = null;
    showLogin(document.body, problem, () => this.show());
  }

  leave() {
    this.view?.close();
    this.view = null;
  }

  show() {
    this.leave();
    this.frame ??= new Frame(document.body, this);
    this.frame.enter(this.route);
    this.view = views[this.route.view]({ root: this.frame.content, route: this.route, frame: this.frame, pages: this });
  }

  // If the address of a view changes, the view stays and changes only the parts that differ.
  async follow() {
    if (location.hash.startsWith("#token=")) {
      const problem = await this.useToken();
      if (problem !== null) this.logIn(problem);
      else this.show();
      return;
    }
    this.apply(parseRoute(location.hash));
  }

  apply(route) {
    const before = this.route;
    this.route = route;
    if (!this.frame) return;
    if (!this.view || before.view !== this.route.view || before.report !== this.route.report) {
      this.show();
      this.frame.focusContent();
    } else {
      this.frame.update(this.route);
      this.view.update(this.route);
    }
  }

  // Goes to an address of this view: as a new entry of the history, or in place of the current one.
  go(route) {
    if (formatRoute(route) !== location.hash) history.pushState(null, "", formatRoute(route));
    this.apply(route);
  }

  replace(route) {
    history.replaceState(null, "", formatRoute(route));
    this.route = route;
    this.frame?.update(route);
    this.view?.update(route);
  }

  sessionEnded() {
    this.logIn("There is no session in this browser, or it has ended.");
  }
}

if (globalThis.Dygraph) prepareLibrary();
new Pages().start();
