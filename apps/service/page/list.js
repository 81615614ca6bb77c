// The list of requests: newest first, page by page, kept up to date by the stream.
import * as api from "./api.js";
import { byId, calmly, el } from "./dom.js";
import { count, isEventId, plural, timeOfDay } from "./format.js";
import { Listbox } from "./listbox.js";
import { guarded } from "./notice.js";

const kPage = 50;
// Past this many, rows are removed at the end as new ones arrive; "Show older" brings them back.
const kMostRows = 500;
const kSearchCalmMilliseconds = 250;

export function statusTag(summary) {
  if (!summary.sent) return el("span", { class: "tag warn" }, "closed");
  return el("span", { class: summary.status < 300 ? "tag good" : "tag bad" }, String(summary.status));
}

function tags(summary) {
  const duplicates = summary.events_again;
  return [
    summary.behaviour &&
      el("span", { class: "tag warn", title: `asked to misbehave: ${summary.behaviour}` }, "spoiled"),
    summary.refused && el("span", { class: "tag bad" }, "refused"),
    duplicates > 0 &&
      el("span", { class: "tag", title: plural(duplicates, "event") + " seen before" }, `${count(duplicates)} dup`),
    summary.events_new > 0 &&
      el("span", { class: "tag accent", title: plural(summary.events_new, "new event") },
        `+${count(summary.events_new)}`),
    statusTag(summary),
  ];
}

function row(summary) {
  return el("li", { class: "row" },
    el("span", { class: "id" }, String(summary.id)),
    el("span", { class: "time", title: summary.time }, timeOfDay(summary.time)),
    el("span", { class: "endpoint", title: summary.endpoint || summary.path },
      summary.endpoint || `${summary.method} ${summary.path}`),
    el("span", { class: "about" }, summary.refused || summary.about),
    el("span", { class: "tags" }, tags(summary)));
}

export class RequestList {
  constructor(open, openEvent) {
    this.openEvent = openEvent;
    this.newest = 0;
    this.nextBefore = 0;
    this.asked = 0;
    this.told = 0;
    this.element = byId("rows");
    this.box = new Listbox(this.element, (id) => open(Number(id)));
    this.reloadCalmly = calmly(() => this.reload(), kSearchCalmMilliseconds);
    byId("older").addEventListener("click", () => this.#more());
    byId("filter").addEventListener("submit", (event) => event.preventDefault());
    byId("filter").addEventListener("input", () => this.reloadCalmly());
    byId("search").addEventListener("input", () => {
      const text = byId("search").value.trim().toLowerCase();
      if (isEventId(text)) this.openEvent(text);
    });
    byId("search").addEventListener("keydown", (event) => {
      if (event.key === "ArrowDown") this.element.focus();
    });
  }

  filter() {
    return { search: byId("search").value.trim(), endpoint: byId("endpoint").value, refused: byId("refused").checked };
  }

  isFiltered() {
    const { search, endpoint, refused } = this.filter();
    return search !== "" || endpoint !== "" || refused;
  }

  offerEndpoints(names) {
    byId("endpoint").append(...names.map((name) => el("option", { value: name }, name)));
  }

  reload() {
    return guarded(async () => {
      const mine = ++this.asked;
      const told = this.told;
      const page = await api.summaries({ ...this.filter(), limit: kPage });
      // The search text changed meanwhile and started another request.
      if (mine !== this.asked) return;
      this.element.replaceChildren();
      this.#append(page);
      if (!this.isFiltered()) this.newest = page.requests[0]?.id ?? 0;
      else this.newest = Math.max(this.newest, page.requests[0]?.id ?? 0);
      // The answer may be older than what the stream sent meanwhile.
      if (told !== this.told) this.reloadCalmly();
    });
  }

  // A request from the stream.
  arrived(summary) {
    ++this.told;
    this.newest = Math.max(this.newest, summary.id);
    if (this.isFiltered()) {
      this.reloadCalmly();
      return;
    }
    if (this.element.firstChild && Number(this.element.firstChild.dataset.key) >= summary.id) return;
    const added = this.box.entry(summary.id, row(summary));
    added.classList.add("new");
    // Keeps the scroll position of a reader further down.
    const scrolled = this.element.scrollTop;
    this.element.prepend(added);
    if (scrolled > 0) this.element.scrollTop = scrolled + added.offsetHeight;
    while (this.element.children.length > kMostRows) {
      this.element.lastChild.remove();
      this.nextBefore = Number(this.element.lastChild.dataset.key);
      byId("older").hidden = false;
    }
    this.#tellFound();
  }

  #more() {
    return guarded(async () => {
      const mine = ++this.asked;
      const page = await api.summaries({ ...this.filter(), limit: kPage, before: this.nextBefore });
      if (mine === this.asked) this.#append(page);
    });
  }

  #append(page) {
    this.element.append(...page.requests.map((summary) => this.box.entry(summary.id, row(summary))));
    this.nextBefore = page.next_before;
    byId("older").hidden = page.complete;
    byId("older").textContent = this.isFiltered() ? "Search further back" : "Show older";
    this.#tellFound();
  }

  #tellFound() {
    const shown = this.element.children.length;
    const older = !byId("older").hidden;
    let text = shown === 0 ? "Nothing has arrived yet" : `${plural(shown, "request")} shown`;
    if (this.isFiltered()) {
      text = `${plural(shown, "request")} found`;
      if (older) text += `, looked back to number ${count(this.nextBefore)}`;
    }
    byId("found").textContent = text;
  }
}
