// Bytes that are not text, sixteen per line.
import { el } from "./dom.js";

const kPerLine = 16;
const kMostShown = 4096;

function decode(base64url) {
  const padded = base64url.replaceAll("-", "+").replaceAll("_", "/");
  const whole = padded.slice(0, padded.length - (padded.length % 4 === 1 ? 1 : 0));
  return Uint8Array.from(atob(whole), (letter) => letter.charCodeAt(0));
}

function line(bytes, offset) {
  const part = [...bytes.slice(offset, offset + kPerLine)];
  const digits = part.map((byte) => byte.toString(16).padStart(2, "0")).join(" ").padEnd(kPerLine * 3 - 1);
  const letters = part.map((byte) => (byte > 31 && byte < 127 ? String.fromCharCode(byte) : ".")).join("");
  return `${offset.toString(16).padStart(6, "0")}  ${digits}  ${letters}`;
}

export function bytesView(base64url, label) {
  const bytes = decode(base64url).slice(0, kMostShown);
  const lines = [];
  for (let offset = 0; offset < bytes.length; offset += kPerLine) lines.push(line(bytes, offset));
  return el("pre", { class: "bytes", tabindex: 0, "aria-label": label }, lines.join("\n"));
}
