// The details of a request: broken rules, content, answer.
import * as api from "./api.js";
import { bytesView } from "./bytes_view.js";
import { byId, el } from "./dom.js";
import { bytes, moment, plural } from "./format.js";
import { jsonView, textView } from "./json_view.js";
import { statusTag } from "./list.js";
import { guarded } from "./notice.js";

function part(title, open, ...content) {
  return el("details", { class: "part", open }, el("summary", {}, title), content);
}

function note(text) {
  return el("p", { class: "note" }, text);
}

function rules(request) {
  if (request.rules.length === 0) return null;
  const refused = request.refusal !== null;
  return el("section", { class: refused ? "rules refused" : "rules", "aria-label": "Broken rules" },
    el("h3", {}, refused ? "Refused" : "Taken in, but it does not keep to the wire format"),
    el("ul", {}, request.rules.map((rule) =>
      el("li", {}, el("div", {}, rule.what), el("div", { class: "where" }, `${rule.where}: ${rule.fix}`)))));
}

function fact(name, ...values) {
  return [el("dt", {}, name), el("dd", {}, values)];
}

function counted(request) {
  const parts = [];
  if (request.events_new > 0) parts.push(plural(request.events_new, "new event"));
  if (request.events_again > 0) parts.push(`${plural(request.events_again, "event")} seen before`);
  if (request.events_without_id > 0) parts.push(`${plural(request.events_without_id, "event")} without id`);
  if (request.impressions > 0) parts.push(plural(request.impressions, "impression"));
  if (parts.length === 0) parts.push(request.counted ? "its payload" : "nothing");
  return parts.join(", ");
}

function facts(request, showInstall) {
  const install = request.payload?.install_id;
  return el("dl", { class: "facts" },
    fact("Arrived", moment(request.time)),
    fact("Counted", counted(request)),
    request.behaviour && fact("Misbehaved", `on request: ${request.behaviour.kind}`),
    install && fact("Install",
      el("button", { type: "button", class: "link", onclick: () => showInstall(install) }, install)));
}

function payloadPart(request) {
  if (request.payload_start !== undefined)
    return part("Decoded payload", true, note(`${bytes(request.payload_bytes)}; the beginning:`),
      el("pre", { tabindex: 0, "aria-label": "Decoded payload" }, request.payload_start));
  if (request.payload === null) return part("Decoded payload", true, note("There is none, or it could not be opened."));
  return part("Decoded payload", true, jsonView(request.payload, "Decoded payload"));
}

function answerPart(request) {
  const { answer } = request;
  if (!answer.sent) return part("Answer", true, note("The connection was closed without an answer."));
  const isCut = answer.body.length < answer.body_bytes;
  const shown = isCut ? `${bytes(answer.body_bytes)}; the beginning:` : bytes(answer.body_bytes);
  return part("Answer", true, note(`Status ${answer.status}, ${shown}`), textView(answer.body, "Answer"));
}

function headersPart(request) {
  return part("Headers", false, el("table", {}, el("tbody", {}, request.headers.map(([name, value]) =>
    el("tr", {}, el("th", { scope: "row" }, name), el("td", {}, value))))));
}

function bodyPart(request) {
  if (request.body_bytes === 0) return part("Raw body", false, note("Empty."));
  const view = request.body === undefined
    ? bytesView(request.body_base64url, "Raw body")
    : el("pre", { tabindex: 0, "aria-label": "Raw body" }, request.body);
  return part("Raw body", false, note(bytes(request.body_bytes)), view);
}

function head(request, close) {
  return el("div", { class: "head" },
    el("button", { type: "button", class: "action back", onclick: close }, "Back"),
    el("h2", {}, `${request.method} ${request.path}`),
    statusTag({ sent: request.answer.sent, status: request.answer.status }),
    el("span", { class: "tag" }, `number ${request.id}`));
}

export class Detail {
  constructor(showInstall) {
    this.showInstall = showInstall;
    this.element = byId("detail");
    this.split = byId("view-requests");
    this.asked = 0;
    this.element.addEventListener("keydown", (event) => {
      if (event.key === "Escape") this.close();
    });
  }

  // Whoever asks last is shown.
  ask() {
    return ++this.asked;
  }

  isLatest(mine) {
    return mine === this.asked;
  }

  show(parts) {
    this.element.replaceChildren(...parts.filter(Boolean));
    this.element.scrollTop = 0;
    this.split.classList.add("open");
    if (getComputedStyle(this.element.querySelector(".back")).display !== "none") this.element.focus();
  }

  open(id) {
    return guarded(async () => {
      const mine = this.ask();
      const request = await api.request(id);
      if (!this.isLatest(mine)) return;
      this.show([head(request, () => this.close()), rules(request), facts(request, this.showInstall),
        payloadPart(request), answerPart(request), headersPart(request), bodyPart(request)]);
    });
  }

  close() {
    this.split.classList.remove("open");
    byId("rows").focus();
  }
}
