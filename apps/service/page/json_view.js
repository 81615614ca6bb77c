// JSON, formatted and coloured, in one preformatted element.
import { el } from "./dom.js";

const kIndent = "  ";
const kParameter = "param";

// A number as written: a double would round long ones.
class WrittenNumber {
  constructor(text) {
    this.text = text;
  }
}

// The object in a structured parameter's JSON text; undefined for any other parameter.
function openedParameter(name, text) {
  if (name !== kParameter || typeof text !== "string" || !text.startsWith("{")) return undefined;
  try {
    return JSON.parse(text, (_, value, context) =>
      typeof value === "number" && context?.source ? new WrittenNumber(context.source) : value);
  } catch {
    return undefined;
  }
}

function scalar(value) {
  if (value instanceof WrittenNumber) return el("span", { class: "j-number" }, value.text);
  if (typeof value === "string") return el("span", { class: "j-text" }, JSON.stringify(value));
  return el("span", { class: typeof value === "number" ? "j-number" : "j-word" }, String(value));
}

function write(value, indent, out) {
  if (value === null || typeof value !== "object" || value instanceof WrittenNumber) {
    out.push(scalar(value));
    return;
  }
  const isList = Array.isArray(value);
  const entries = Object.entries(value);
  const [open, close] = isList ? ["[", "]"] : ["{", "}"];
  if (entries.length === 0) {
    out.push(open + close);
    return;
  }
  const deeper = indent + kIndent;
  out.push(`${open}\n`);
  entries.forEach(([name, member], index) => {
    out.push(deeper);
    if (!isList) out.push(el("span", { class: "j-key" }, JSON.stringify(name)), ": ");
    const parameter = isList ? undefined : openedParameter(name, member);
    if (parameter !== undefined)
      out.push(el("span", { class: "j-note", title: "Sent as text; opened here" }, "text of "));
    write(parameter ?? member, deeper, out);
    out.push(index + 1 < entries.length ? ",\n" : "\n");
  });
  out.push(indent + close);
}

export function jsonView(value, label) {
  const out = [];
  write(value, "", out);
  return el("pre", { tabindex: 0, "aria-label": label }, out);
}

// Text that may be JSON.
export function textView(text, label) {
  try {
    return jsonView(JSON.parse(text), label);
  } catch {
    return el("pre", { tabindex: 0, "aria-label": label }, text);
  }
}
