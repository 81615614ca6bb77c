// What the service saw of one event: the requests with it, and their answers.
import * as api from "./api.js";
import { el } from "./dom.js";
import { count, moment, plural } from "./format.js";
import { jsonView } from "./json_view.js";
import { statusTag } from "./list.js";
import { guarded } from "./notice.js";

function arrivalTag(request) {
  const classes = { first: "tag accent", repeated: "tag", "not counted": "tag warn" };
  return el("span", { class: classes[request.arrival] }, request.arrival);
}

function summary(event) {
  if (!event.known) return event.requests.length > 0 ? "Arrived, but never counted." : "This event has not arrived.";
  const first = event.requests.find((each) => each.arrival === "first");
  const delivered = first ? `Delivered with request ${first.id}` : "Delivered with a request that has been deleted";
  if (event.arrivals <= 1) return `${delivered}.`;
  const times = event.arrivals === 2 ? "once" : `${count(event.arrivals - 1)} times`;
  return `${delivered}, and counted as a duplicate ${times}.`;
}

function notes(event) {
  const counted = event.requests.filter((each) => each.arrival !== "not counted");
  const left = event.arrivals - counted.reduce((sum, each) => sum + each.times, 0);
  return [
    left > 0 && `${plural(left, "arrival")} came with requests that have been deleted.`,
    !event.complete && `Requests that were not counted are looked at from number ${event.searched_from} on.`,
  ].filter(Boolean).map((text) => el("p", { class: "legend" }, text));
}

// Shares the pane of the details.
export class EventView {
  constructor(detail) {
    this.detail = detail;
  }

  open(id) {
    return guarded(async () => {
      const mine = this.detail.ask();
      const event = await api.event(id);
      if (!this.detail.isLatest(mine)) return;
      this.detail.show([
        this.#head(event), el("p", { class: "fate" }, summary(event)), this.#table(event), ...notes(event),
        event.event && jsonView(event.event, "The event as it arrived"),
      ]);
    });
  }

  #head(event) {
    return el("div", { class: "head" },
      el("button", { type: "button", class: "action back", onclick: () => this.detail.close() }, "Back"),
      el("h2", {}, `Event ${event.event_id}`));
  }

  #table(event) {
    if (event.requests.length === 0) return null;
    const behaviour = (each) => each.behaviour === null ? "" : `misbehaved on request: ${each.behaviour}`;
    const link = (id) => el("button", {
      type: "button",
      class: "link",
      "aria-label": `Open request ${id}`,
      onclick: () => this.detail.open(id),
    }, String(id));
    return el("table", { class: "moments", "aria-label": "Requests with this event, oldest first" },
      el("tbody", {}, event.requests.map((each) =>
        el("tr", {},
          el("td", {}, moment(each.time)),
          el("td", {}, arrivalTag(each)),
          el("td", {}, statusTag(each), " ", each.refused ?? behaviour(each)),
          el("td", {}, link(each.id))))));
  }
}
