// Writes times, durations and numbers for people.

const pad = (number, digits = 2) => String(number).padStart(digits, "0");

function partsOf(ms, utc) {
  const date = new Date(ms);
  if (utc) {
    return [date.getUTCFullYear(), date.getUTCMonth() + 1, date.getUTCDate(), date.getUTCHours(), date.getUTCMinutes(),
      date.getUTCSeconds(), date.getUTCMilliseconds()];
  }
  return [date.getFullYear(), date.getMonth() + 1, date.getDate(), date.getHours(), date.getMinutes(), date.getSeconds(),
    date.getMilliseconds()];
}

// 2026-01-31 10:20:30.123
export function fullTime(ms, utc) {
  const [year, month, day, hour, minute, second, rest] = partsOf(ms, utc);
  return `${year}-${pad(month)}-${pad(day)} ${pad(hour)}:${pad(minute)}:${pad(second)}.${pad(rest, 3)}`;
}

// 2026-01-31 10:20:30
export function secondTime(ms, utc) {
  return fullTime(ms, utc).slice(0, 19);
}

// 10:20:30
export function clockTime(ms, utc) {
  return fullTime(ms, utc).slice(11, 19);
}

// 2026-01-31
export function logDay(ms, utc) {
  return fullTime(ms, utc).slice(0, 10);
}

// Without the date for a time of today: 10:20:30.123; otherwise 2026-01-31 10:20:30.123.
export function logTime(ms, utc) {
  const text = fullTime(ms, utc);
  return text.startsWith(logDay(Date.now(), utc)) ? text.slice(11) : text;
}

// The text of a label on an axis whose labels are `step` milliseconds apart.
export function axisTime(ms, step, utc) {
  const [year, month, day, hour, minute, second, rest] = partsOf(ms, utc);
  const date = `${pad(month)}-${pad(day)}`;
  if (step >= 27 * 86400000) return `${year}-${pad(month)}`;
  if (step >= 86400000) return date;
  if (hour === 0 && minute === 0 && second === 0 && rest === 0) return date;
  if (step >= 60000) return `${pad(hour)}:${pad(minute)}`;
  if (step >= 1000) return `${pad(hour)}:${pad(minute)}:${pad(second)}`;
  return `${pad(hour)}:${pad(minute)}:${pad(second)}.${pad(rest, 3)}`;
}

// The viewer's zone at that time: "UTC+01:00".
export function zoneName(ms, utc) {
  if (utc) return "UTC";
  const offset = -new Date(ms).getTimezoneOffset();
  if (offset === 0) return "UTC";
  const minutes = Math.abs(offset);
  return `UTC${offset < 0 ? "\u2212" : "+"}${pad(Math.floor(minutes / 60))}:${pad(minutes % 60)}`;
}

// 0.4 => "0 s", 75 => "1 min 15 s", 7500 => "2 h 5 min", 200000 => "2 d 7 h"
export function duration(seconds) {
  const units = [["d", 86400], ["h", 3600], ["min", 60], ["s", 1]];
  const whole = Math.max(0, Math.floor(seconds));
  const first = units.findIndex(([, size]) => whole >= size);
  if (first < 0) return "0 s";
  const [unit, size] = units[first];
  const head = `${grouped(Math.floor(whole / size))} ${unit}`;
  if (first === units.length - 1) return head;
  const [small, smallSize] = units[first + 1];
  const rest = Math.floor((whole % size) / smallSize);
  return rest === 0 ? head : `${head} ${rest} ${small}`;
}

const groups = new Intl.NumberFormat("en", { maximumFractionDigits: 0 });
const plain = new Intl.NumberFormat("en", { maximumSignificantDigits: 6 });
const compact = new Intl.NumberFormat("en", { notation: "compact", maximumSignificantDigits: 4 });

// 1234567 => "1,234,567"
export function grouped(number) {
  return groups.format(number);
}

// 0.1234567 => "0.123457", 1234567.8 => "1,234,568"
export function number(value) {
  if (!Number.isFinite(value)) return "\u2013";
  return Math.abs(value) >= 1e6 && Math.abs(value) < 1e15 ? grouped(value) : plain.format(value);
}

// For axes: 1234567 => "1.23M"
export function shortNumber(value) {
  return Math.abs(value) >= 10000 ? compact.format(value) : plain.format(value);
}

// 0.5 => "0.5/s"; slow reports are easier to read per minute or hour.
export function rate(perSecond) {
  if (perSecond === null || perSecond === undefined) return "\u2013";
  if (perSecond === 0) return "0/s";
  if (perSecond >= 1) return `${three(perSecond)}/s`;
  if (perSecond * 60 >= 1) return `${three(perSecond * 60)}/min`;
  return `${three(perSecond * 3600)}/h`;
}

function three(value) {
  return new Intl.NumberFormat("en", { maximumSignificantDigits: 3 }).format(value);
}

// 1 => "1 record", 2 => "2 records"
export function counted(count, noun) {
  return `${grouped(count)} ${noun}${count === 1 ? "" : "s"}`;
}

export function bytes(count) {
  const units = ["B", "KiB", "MiB", "GiB"];
  let value = count;
  let unit = 0;
  while (value >= 1024 && unit < units.length - 1) {
    value /= 1024;
    ++unit;
  }
  return `${three(value)} ${units[unit]}`;
}
