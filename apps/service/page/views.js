// The three views behind their tabs, and their addresses: #requests, #devices, #behaviour.
import { byId } from "./dom.js";

const tabs = () => [...document.querySelectorAll("[role=tab]")];
const listeners = new Map();

export function onShow(view, act) {
  listeners.set(view, act);
}

export function showView(name) {
  for (const tab of tabs()) {
    const chosen = tab.dataset.view === name;
    tab.setAttribute("aria-selected", chosen);
    tab.tabIndex = chosen ? 0 : -1;
    byId(`view-${tab.dataset.view}`).hidden = !chosen;
  }
  history.replaceState(null, "", `#${name}`);
  listeners.get(name)?.();
}

export function startViews() {
  for (const tab of tabs()) tab.addEventListener("click", () => showView(tab.dataset.view));
  document.querySelector("[role=tablist]").addEventListener("keydown", (event) => {
    const step = { ArrowRight: 1, ArrowLeft: -1 }[event.key];
    if (!step) return;
    event.preventDefault();
    const all = tabs();
    const next = all[(all.indexOf(document.activeElement) + step + all.length) % all.length];
    next.focus();
    showView(next.dataset.view);
  });
  const wanted = location.hash.slice(1);
  showView(tabs().some((tab) => tab.dataset.view === wanted) ? wanted : "requests");
}
