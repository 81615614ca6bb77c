// The colour theme: the system's, or the one chosen here.
import { byId } from "./dom.js";

const kThemes = [
  { name: "auto", label: "Auto", says: "as the system" },
  { name: "light", label: "Light", says: "light" },
  { name: "dark", label: "Dark", says: "dark" },
];
const kKey = "morvik-theme";

function show(theme) {
  if (theme.name === "auto") delete document.documentElement.dataset.theme;
  else document.documentElement.dataset.theme = theme.name;
  byId("theme").textContent = theme.label;
  byId("theme").setAttribute("aria-label", `Colours: ${theme.says}`);
}

export function startTheme() {
  let at = Math.max(0, kThemes.findIndex((theme) => theme.name === localStorage.getItem(kKey)));
  show(kThemes[at]);
  byId("theme").addEventListener("click", () => {
    at = (at + 1) % kThemes.length;
    localStorage.setItem(kKey, kThemes[at].name);
    show(kThemes[at]);
  });
}
