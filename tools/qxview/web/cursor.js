// The time that chart, records and traces show together. A pinned time stays when the pointer leaves.

export class TimeCursor {
  constructor() {
    this.listeners = [];
    this.time = null;
    this.pinned = null;
  }

  // listener(time, source): time is null if there is no cursor.
  listen(listener) {
    this.listeners.push(listener);
  }

  hover(time, source) {
    if (this.pinned === null) this.move(time, source);
  }

  leave(source) {
    this.move(this.pinned, source);
  }

  pin(time, source) {
    this.pinned = time;
    this.move(time, source);
  }

  move(time, source) {
    if (time === this.time) return;
    this.time = time;
    for (const listener of this.listeners) listener(time, source);
  }
}

// The index of the entry nearest to `time` in a list in order of time (ascending or descending); -1 without entries.
export function nearestIndex(count, timeAt, time) {
  if (count === 0) return -1;
  const ascending = timeAt(0) <= timeAt(count - 1);
  let low = 0;
  let high = count - 1;
  while (low < high) {
    const middle = (low + high) >> 1;
    const before = ascending ? timeAt(middle) < time : timeAt(middle) > time;
    if (before) low = middle + 1;
    else high = middle;
  }
  if (low > 0 && Math.abs(timeAt(low - 1) - time) <= Math.abs(timeAt(low) - time)) return low - 1;
  return low;
}
