// Receives the live events of a page: one stream, which is closed while the page is hidden, and opened again after the
// last cursor.
//
// A browser allows six connections to one server. So only a few pages of a browser have a stream: those that hold a
// lock. The others request the same events at intervals. The stream is read with fetch, because EventSource hides the
// status of a refusal, and the comments by which a dead connection is noticed.

import { ApiError, getDocument, pathOf, request } from "./api.js";

const streamLocks = ["qxview-stream-1", "qxview-stream-2", "qxview-stream-3", "qxview-stream-4"];
const pollMs = 600;
const silenceMs = 40000;  // The server sends a comment every 15 s.
const retryMs = [300, 1000, 2000, 4000, 8000];

export class LiveEvents {
  // parameters(): the [name, value] pairs of the view, without the cursor.
  // onEvent(type, document) and onState(state), with state one of
  //   { name: "live" }, { name: "connecting" }, { name: "hidden" }, { name: "lost", error, retryAt }, { name: "session" }
  constructor({ parameters, cursor = "", onEvent, onState }) {
    this.parameters = parameters;
    this.cursor = cursor;
    this.onEvent = onEvent;
    this.onState = onState;
    this.running = null;
    this.failures = 0;
    this.isLive = false;
    this.onVisibility = () => (document.hidden ? this.pause("hidden") : this.resume());
    document.addEventListener("visibilitychange", this.onVisibility);
    if (document.hidden) this.onState({ name: "hidden" });
    else this.resume();
  }

  resume() {
    if (this.running || this.closed) return;
    this.running = new AbortController();
    this.run(this.running.signal);
  }

  pause(state) {
    this.running?.abort();
    this.running = null;
    this.isLive = false;
    this.onState({ name: state });
  }

  retryNow() {
    this.failures = 0;
    this.running?.abort();
    this.running = null;
    this.resume();
  }

  close() {
    this.closed = true;
    document.removeEventListener("visibilitychange", this.onVisibility);
    this.running?.abort();
    this.running = null;
  }

  async run(signal) {
    while (!signal.aborted) {
      try {
        if (this.failures === 0 && !this.isLive) this.onState({ name: "connecting" });
        await withStreamLock(signal, (locked) => (locked ? this.stream(signal) : this.poll(signal)));
      } catch (error) {
        if (signal.aborted) return;
        if (error.kind === "session") return this.pause("session");
        await this.waitAfter(error, signal);
      }
    }
  }

  async waitAfter(error, signal) {
    const wait = retryMs[Math.min(this.failures, retryMs.length - 1)];
    this.failures += 1;
    this.isLive = false;
    this.onState({ name: "lost", error, retryAt: Date.now() + wait });
    await sleep(wait, signal);
  }

  works() {
    this.failures = 0;
    this.isLive = true;
    this.onState({ name: "live" });
  }

  deliver(type, text, id) {
    const document = JSON.parse(text);
    if (id !== "") this.cursor = id;
    this.onEvent(type, document);
  }

  async stream(signal) {
    const attempt = new AbortController();
    const stop = () => attempt.abort();
    signal.addEventListener("abort", stop);
    const watchdog = new Watchdog(silenceMs, stop);
    try {
      const response = await request(pathOf("events", this.allParameters()), { signal: attempt.signal });
      this.works();
      await readEvents(response.body, () => watchdog.feed(), (...event) => this.deliver(...event));
      throw new ApiError("connection", "qxview ended the stream.");
    } catch (error) {
      if (error instanceof ApiError || signal.aborted) throw error;
      throw new ApiError("connection", "The connection to qxview broke.");
    } finally {
      watchdog.stop();
      signal.removeEventListener("abort", stop);
    }
  }

  async poll(signal) {
    const until = Date.now() + 15000;  // Then a lock may be free.
    while (!signal.aborted && Date.now() < until) {
      const reply = await getDocument("changes", this.allParameters(), signal);
      this.works();
      for (const event of reply.events) this.onEvent(event.event, event.data);
      if (reply.cursor) this.cursor = reply.cursor;
      await sleep(pollMs, signal);
    }
  }

  allParameters() {
    return [...this.parameters(), ["after", this.cursor]];
  }
}

class Watchdog {
  constructor(milliseconds, run) {
    this.milliseconds = milliseconds;
    this.run = run;
    this.feed();
  }

  feed() {
    clearTimeout(this.timer);
    this.timer = setTimeout(this.run, this.milliseconds);
  }

  stop() {
    clearTimeout(this.timer);
  }
}

// Holds a free lock while `run` runs. If the browser has no locks (on a page that is not from this machine), there is
// no stream.
async function withStreamLock(signal, run) {
  for (const name of navigator.locks ? streamLocks : []) {
    let held = false;
    await navigator.locks.request(name, { ifAvailable: true }, async (lock) => {
      if (lock === null || signal.aborted) return;
      held = true;
      await run(true);
    });
    if (held || signal.aborted) return;
  }
  await run(false);
}

// Reads server-sent events: blocks of lines "event: TYPE", "id: CURSOR", "data: TEXT", each ended by an empty line.
export async function readEvents(body, onBytes, onEvent) {
  const reader = body.pipeThrough(new TextDecoderStream()).getReader();
  let rest = "";
  for (;;) {
    const { done, value } = await reader.read();
    if (done) return;
    onBytes();
    const blocks = (rest + value).split(/\r?\n\r?\n/);
    rest = blocks.pop();
    for (const block of blocks) readBlock(block, onEvent);
  }
}

function readBlock(block, onEvent) {
  const fields = { event: "message", id: "", data: [] };
  for (const line of block.split(/\r?\n/)) {
    const [, name, value] = /^(event|id|data): ?(.*)$/.exec(line) ?? [];
    if (name === "data") fields.data.push(value);
    else if (name) fields[name] = value;
  }
  if (fields.data.length > 0) onEvent(fields.event, fields.data.join("\n"), fields.id);
}

function sleep(milliseconds, signal) {
  return new Promise((resolve) => {
    const timer = setTimeout(resolve, milliseconds);
    signal.addEventListener("abort", () => {
      clearTimeout(timer);
      resolve();
    }, { once: true });
  });
}
