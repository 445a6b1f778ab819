// Sends requests to the server. Each failure is an ApiError, whose `kind` decides what the page shows.

export class ApiError extends Error {
  // kind: "session" (log in again), "connection" (no answer), "refused" (an error document)
  constructor(kind, message, code = "", status = 0) {
    super(message);
    this.kind = kind;
    this.code = code;
    this.status = status;
  }
}

// Parameters are [name, value] pairs; those with the value null or "" are left out. The name of a report is encoded
// already.
export function pathOf(name, parameters = []) {
  const parts = parameters
    .filter(([, value]) => value !== null && value !== undefined && value !== "")
    .map(([key, value]) => `${key}=${key === "report" ? value : encodeURIComponent(value)}`);
  return `/api/v1/${name}${parts.length > 0 ? "?" : ""}${parts.join("&")}`;
}

export async function request(path, options = {}) {
  let response;
  try {
    response = await fetch(path, { cache: "no-store", credentials: "same-origin", ...options });
  } catch (error) {
    if (options.signal?.aborted) throw error;
    throw new ApiError("connection", "qxview does not answer.");
  }
  if (!response.ok) throw await failureOf(response);
  return response;
}

export async function getDocument(name, parameters, signal) {
  const response = await request(pathOf(name, parameters), { signal });
  try {
    return await response.json();
  } catch (error) {
    if (signal?.aborted) throw error;
    throw new ApiError("connection", "The answer of qxview ended too early.");
  }
}

export function openSession(token) {
  return request("/api/v1/session", { method: "POST", body: new URLSearchParams({ token }) });
}

async function failureOf(response) {
  const document = await response.json().catch(() => ({}));
  const message = document.message ?? `qxview answered with the status ${response.status}.`;
  const kind = response.status === 401 ? "session" : "refused";
  return new ApiError(kind, message, document.code ?? "", response.status);
}
