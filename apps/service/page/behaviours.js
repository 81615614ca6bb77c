// The switches of misbehaviour and the queue of pending ones.
import * as api from "./api.js";
import { byId, el } from "./dom.js";
import { plural } from "./format.js";
import { guarded } from "./notice.js";

const kTexts = {
  status: { name: "Bad status", why: "answers with the status at the right" },
  delay: { name: "Late answer", why: "the usual answer, late by the milliseconds at the right" },
  close_before: { name: "Close, not counted", why: "closes the connection before anything is counted" },
  close_after: { name: "Close, counted", why: "counts, then closes the connection: the answer is lost" },
  garbage: { name: "Garbage", why: "200 with bytes that are not JSON, or the text at the right" },
  truncated_json: { name: "Half an answer", why: "200 with the first half of the usual JSON" },
  not_object: { name: "Not an object", why: "200 with a JSON array" },
  huge_body: { name: "Huge answer", why: "200 with a JSON object of 5 MiB" },
  json: { name: "Your own JSON", why: "200 with the JSON at the right" },
};

const kOwn = {
  status: () => el("input", { type: "number", min: 200, max: 599, value: 500 }),
  milliseconds: () => el("input", { type: "number", min: 0, max: 600000, value: 2000 }),
  text: () => el("input", { type: "text", placeholder: "bytes to send" }),
  json: () => el("textarea", { rows: 1, spellcheck: "false" }, '{"Result":false}'),
};

function ownValue(member, input) {
  if (member === "text") return input.value === "" ? undefined : input.value;
  if (member !== "json") return Number(input.value);
  try {
    return JSON.parse(input.value);
  } catch {
    throw new Error("Your JSON cannot be read; write something like {\"Result\":false}");
  }
}

export class Behaviours {
  constructor() {
    this.waiting = [];
    this.endpoint = byId("behaviour-endpoint");
    this.endpoint.addEventListener("change", () => this.#showSwitches());
    const clear = () => guarded(async () => this.show((await api.clearBehaviours()).behaviours));
    byId("clear").addEventListener("click", clear);
  }

  offer({ endpoints, kinds }) {
    this.endpoint.replaceChildren(...endpoints.map((name) => el("option", { value: name }, name)));
    this.endpoint.value = "tracking";
    byId("kinds").replaceChildren(...kinds.map((kind) => this.#kindRow(kind)));
    this.#showSwitches();
  }

  show(waiting) {
    this.waiting = waiting;
    byId("waiting").replaceChildren(...waiting.map((each) => this.#waitingRow(each)));
    byId("waiting-found").textContent = waiting.length === 0
      ? "Every answer arrives as it should"
      : plural(waiting.length, "entry").replace("entrys", "entries");
    byId("clear").hidden = waiting.length === 0;
    this.#showSwitches();
  }

  #kindRow({ kind, own_member: member }) {
    const text = kTexts[kind] ?? { name: kind, why: "" };
    const input = member && kOwn[member] ? kOwn[member]() : null;
    input?.setAttribute("aria-label", `${text.name}: ${member}`);
    const button = el("button", {
      type: "button",
      class: "switch",
      role: "switch",
      "aria-checked": "false",
      "aria-label": text.name,
      "data-kind": kind,
      onclick: () => this.#turn(kind, member, input, button),
    });
    return el("li", {}, button,
      el("div", {}, el("div", { class: "name" }, text.name), el("div", { class: "why" }, text.why)),
      el("div", { class: "own" }, input));
  }

  #turn(kind, member, input, button) {
    return guarded(async () => {
      if (button.getAttribute("aria-checked") === "true") {
        this.show((await api.removeBehaviour(this.endpoint.value, kind)).behaviours);
        return;
      }
      const behaviour = { endpoint: this.endpoint.value, kind, count: Number(byId("behaviour-count").value) };
      if (input) behaviour[member] = ownValue(member, input);
      if (byId("behaviour-counts").value !== "") behaviour.count_events = byId("behaviour-counts").value === "true";
      this.show((await api.addBehaviour(behaviour)).behaviours);
    });
  }

  #waitingRow(each) {
    const name = (kTexts[each.kind]?.name ?? each.kind).toLowerCase();
    const more = each.status ?? (each.milliseconds === undefined ? "" : `${each.milliseconds} ms`);
    const remove = () =>
      guarded(async () => this.show((await api.removeBehaviour(each.endpoint, each.kind)).behaviours));
    return el("li", {}, el("span", { class: "what" }, el("strong", {}, each.endpoint), ` ${name} ${more}`),
      el("span", { class: "left" }, `${plural(each.count, "answer")} left`),
      el("button", {
        type: "button",
        class: "action",
        "aria-label": `Remove ${name} of ${each.endpoint}`,
        onclick: remove,
      }, "Remove"));
  }

  #showSwitches() {
    for (const button of document.querySelectorAll("[role=switch]")) {
      const isOn = this.waiting.some((each) =>
        each.endpoint === this.endpoint.value && each.kind === button.dataset.kind);
      button.setAttribute("aria-checked", String(isOn));
    }
  }
}
