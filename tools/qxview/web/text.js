// Makes hostile text visible, and finds filters in texts.

// Control characters, invisible characters and marks that change the direction of text. A tab and a line feed may stay.
const unseen = /[\u0000-\u0008\u000b-\u001f\u007f-\u009f\u00ad\u061c\u200b-\u200f\u2028-\u202e\u2060-\u206f\ufeff]/g;

// "a\u001b[1mb" => "a\\x1B[1mb"
export function visibleText(text) {
  return text.replace(unseen, (character) => {
    const code = character.charCodeAt(0);
    const digits = code.toString(16).toUpperCase();
    return code < 0x100 ? `\\x${digits.padStart(2, "0")}` : `\\u${digits.padStart(4, "0")}`;
  });
}

// The text KEY of a document. If it is not UTF-8, KEY is null, and KEYBase64 has its bytes in base64.
export function textOf(object, key) {
  if (typeof object[key] === "string") return visibleText(object[key]);
  const base64 = object[`${key}Base64`];
  if (typeof base64 !== "string") return "";
  return visibleText(new TextDecoder().decode(bytesOf(base64)));
}

// The form of a name in an address: "hostA/cpu load" => "hostA/cpu%20load". It also carries names that are not UTF-8.
export function encodedName(object, key) {
  if (typeof object[key] === "string") return encodeName(object[key]);
  const bytes = [...bytesOf(object[`${key}Base64`] ?? "")];
  return bytes.map((byte) => `%${byte.toString(16).toUpperCase().padStart(2, "0")}`).join("");
}

export function encodeName(name) {
  return encodeURIComponent(name).replaceAll("%2F", "/");
}

// The name of a report for people: "hostA/cpu%20load" => "hostA/cpu load"; bytes that are not UTF-8 become U+FFFD.
export function decodedName(encoded) {
  const bytes = [];
  for (let i = 0; i < encoded.length; ++i) {
    const hex = encoded[i] === "%" ? parseInt(encoded.slice(i + 1, i + 3), 16) : NaN;
    if (Number.isNaN(hex)) {
      bytes.push(...new TextEncoder().encode(encoded[i]));
    } else {
      bytes.push(hex);
      i += 2;
    }
  }
  return visibleText(new TextDecoder().decode(new Uint8Array(bytes)));
}

function bytesOf(base64) {
  return Uint8Array.from(atob(base64), (character) => character.charCodeAt(0));
}

function foldAscii(text) {
  return text.replace(/[A-Z]/g, (letter) => letter.toLowerCase());
}

// The rule of the server's `filter`: the text contains the filter, ASCII letters compared without case.
export function matches(text, filter) {
  return filter === "" || foldAscii(text).includes(foldAscii(filter));
}

// The text as nodes, with each match of the filter in a <mark>.
export function markedText(text, filter) {
  if (filter === "") return [text];
  const folded = foldAscii(text);
  const sought = foldAscii(filter);
  const nodes = [];
  let from = 0;
  for (let at = folded.indexOf(sought); at >= 0; at = folded.indexOf(sought, from)) {
    const mark = document.createElement("mark");
    mark.textContent = text.slice(at, at + sought.length);
    nodes.push(text.slice(from, at), mark);
    from = at + sought.length;
  }
  return [...nodes, text.slice(from)];
}
