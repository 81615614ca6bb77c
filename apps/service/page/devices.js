// The list of installs, and the timeline of one.
import * as api from "./api.js";
import { byId, calmly, el, svg } from "./dom.js";
import { duration, moment, plural } from "./format.js";
import { ledgerPart } from "./ledger.js";
import { Listbox } from "./listbox.js";
import { guarded } from "./notice.js";
import { diamond, drawTimeline } from "./timeline.js";
import { onShow } from "./views.js";

const kCalmMilliseconds = 500;
const kMostMoments = 200;

function installRow(install) {
  return el("li", { class: "row install" },
    el("span", { class: "name", title: install.install }, install.install),
    el("span", { class: "count" }, install.sound === false
      ? el("span", { class: "tag bad" }, "not sound")
      : plural(install.requests, "request")),
    el("span", { class: "time" }, moment(install.last_time)));
}

// The installs that sent something, with their ledgers, and those that only sent a ledger.
function withLedgers(installs, ledgers) {
  const all = new Map(installs.map((each) => [each.install, each]));
  for (const { install, sound, time } of ledgers)
    all.set(install, { requests: 0, last_time: time, ...all.get(install), install, sound });
  return [...all.values()].sort((a, b) => b.last_time.localeCompare(a.last_time));
}

function moments(timeline) {
  const sessions = timeline.sessions.map((each) => ({
    time: each.start,
    kind: "session",
    text: each.end === null ? "no end told yet" : duration(each.end - each.start),
  }));
  const activities = timeline.activities.map((each) => ({
    time: each.time,
    kind: "activity",
    text: [`${each.group}/${each.activity}`, each.param].filter(Boolean).join("  "),
    request: each.request,
    event: each.event_id,
  }));
  return [...sessions, ...activities, ...timeline.marks].sort((a, b) => b.time - a.time);
}

function legend() {
  const entry = (shape, text) =>
    el("span", {}, svg("svg", { viewBox: "0 0 12 12", "aria-hidden": "true" }, shape), text);
  return el("div", { class: "legend chart" },
    entry(svg("rect", { class: "session", x: 0, y: 3, width: 12, height: 6, rx: 2 }), "session"),
    entry(svg("circle", { class: "activity", cx: 6, cy: 6, r: 4 }), "activity"),
    entry(diamond(6, 6, 5, "attribution"), "attribution, demographics"),
    entry(diamond(6, 6, 5, "deep link"), "deep link, click"),
    entry(diamond(6, 6, 5, "crash"), "crash, erasure"));
}

export class Devices {
  constructor(showRequest, showEvent) {
    this.showRequest = showRequest;
    this.showEvent = showEvent;
    this.install = null;
    this.asked = 0;
    this.isToScale = false;
    this.element = byId("device");
    this.split = byId("view-devices");
    this.box = new Listbox(byId("installs"), (install) => this.open(install));
    this.refreshCalmly = calmly(() => this.refresh(), kCalmMilliseconds);
    onShow("devices", () => this.refresh());
    addEventListener("resize", calmly(() => this.#draw(), kCalmMilliseconds));
    this.element.addEventListener("keydown", (event) => {
      if (event.key === "Escape") this.close();
    });
  }

  // Something arrived.
  changed() {
    if (!this.split.hidden) this.refreshCalmly();
  }

  refresh() {
    return guarded(async () => {
      const [{ installs: sending, complete }, { ledgers }] = await Promise.all([api.installs(), api.ledgers()]);
      const installs = withLedgers(sending, ledgers);
      byId("installs").replaceChildren(...installs.map((each) => this.box.entry(each.install, installRow(each))));
      byId("installs-found").textContent =
        plural(installs.length, "install") + (complete ? "" : ", older ones are not shown");
      if (this.install !== null) await this.#load();
    });
  }

  open(install) {
    return guarded(async () => {
      this.install = install;
      await this.#load();
      this.split.classList.add("open");
      if (getComputedStyle(this.element.querySelector(".back")).display !== "none") this.element.focus();
    });
  }

  choose(install) {
    this.box.chosenKey = install;
    return this.open(install);
  }

  close() {
    this.split.classList.remove("open");
    byId("installs").focus();
  }

  async #load() {
    const mine = ++this.asked;
    const [timeline, { ledgers }] = await Promise.all([api.timeline(this.install), api.ledgerOf(this.install)]);
    // Another install was selected meanwhile.
    if (mine !== this.asked) return;
    this.timeline = timeline;
    this.ledger = ledgers[0] ?? null;
    this.#draw();
  }

  #draw() {
    if (!this.timeline || this.split.hidden) return;
    const all = moments(this.timeline);
    const scaleButton = el("button", {
      type: "button",
      class: "action",
      "aria-pressed": String(this.isToScale),
      onclick: () => this.#switchScale(),
    }, this.isToScale ? "Shorten silences" : "Draw to scale");
    const isFirst = this.element.querySelector(".chart") === null;
    this.element.replaceChildren(
      el("div", { class: "head" },
        el("button", { type: "button", class: "action back", onclick: () => this.close() }, "Back"),
        el("h2", {}, this.install), all.length > 0 && scaleButton));
    if (isFirst) this.split.classList.add("open");
    if (all.length === 0) {
      this.element.append(ledgerPart(this.ledger),
        el("p", { class: "empty" }, "Nothing of this install can be drawn yet."));
      return;
    }
    const chart = el("div", { class: "chart" });
    this.element.append(chart, legend());
    chart.append(drawTimeline(this.timeline, Math.max(320, chart.clientWidth - 32), this.isToScale));
    const left = all.length - kMostMoments;
    const notes = [
      !this.timeline.complete && "Older requests are not looked at.",
      left > 0 && `The table leaves out ${plural(left, "older moment")}.`,
    ].filter(Boolean);
    if (notes.length > 0) this.element.append(el("p", { class: "legend" }, notes.join(" ")));
    this.element.append(ledgerPart(this.ledger), this.#table(all.slice(0, kMostMoments)));
  }

  #switchScale() {
    this.isToScale = !this.isToScale;
    this.#draw();
    this.element.querySelector("[aria-pressed]").focus();
  }

  #table(all) {
    const link = (label, onclick, text) =>
      el("button", { type: "button", class: "link", "aria-label": label, onclick }, text);
    const links = (each) => [
      each.request && link(`Open request ${each.request}`, () => this.showRequest(each.request), String(each.request)),
      each.event && [" ", link(`What became of event ${each.event}`, () => this.showEvent(each.event), "event")],
    ];
    return el("table", { class: "moments", "aria-label": "What happened, newest first" },
      el("tbody", {}, all.map((each) =>
        el("tr", {}, el("td", {}, moment(each.time)), el("td", {}, each.kind), el("td", {}, each.text),
          el("td", {}, ...links(each))))));
  }
}
