// Reads and makes the addresses of views. A view is the fragment of the address, so the server never gets it.
//
//   #/?sort=silent&search=host1              { view: "overview", report: "", params }
//   #/report/hostA/cpu%20load?field=user     { view: "report", report: "hostA/cpu%20load", params }
//   #/traces?level=error                     { view: "traces", report: "", params }
//
// The name of a report stays encoded, because it need not be UTF-8.

const views = ["traces", "health"];

export function parseRoute(fragment) {
  const [path, query = ""] = split(fragment.replace(/^#/, ""), "?");
  const params = new URLSearchParams(query);
  if (path === "" || path === "/") return { view: "overview", report: "", params };
  if (path.startsWith("/report/") && path.length > 8) return { view: "report", report: path.slice(8), params };
  const view = path.slice(1);
  return { view: views.includes(view) ? view : "missing", report: "", params };
}

export function formatRoute({ view, report = "", params = new URLSearchParams() }) {
  const path = view === "overview" ? "/" : view === "report" ? `/report/${report}` : `/${view}`;
  const query = params.toString();
  return query === "" ? `#${path}` : `#${path}?${query}`;
}

// A copy of the route with some parameters replaced. null and "" remove a parameter; an array repeats it.
export function changed(route, changes) {
  const params = new URLSearchParams(route.params);
  for (const [name, value] of Object.entries(changes)) {
    params.delete(name);
    for (const one of [value].flat()) {
      if (one !== null && one !== undefined && one !== "") params.append(name, one);
    }
  }
  return { ...route, params };
}

// The address of a view. Parameters that belong to all views are kept.
export function addressOf(view, current, changes = {}, report = "") {
  const kept = new URLSearchParams();
  if (current.params.get("utc") === "1") kept.set("utc", "1");
  return formatRoute(changed({ view, report, params: kept }, changes));
}

// A time or a count of an address; null if it is missing or not a number.
export function numberParam(route, name) {
  const text = route.params.get(name);
  return text !== null && /^\d{1,15}$/.test(text) ? Number(text) : null;
}

function split(text, separator) {
  const at = text.indexOf(separator);
  return at < 0 ? [text] : [text.slice(0, at), text.slice(at + 1)];
}
