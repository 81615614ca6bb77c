// A list navigated with the arrow keys: one entry is active, Enter or a click opens it.

let lists = 0;

export class Listbox {
  // `open(key)` is called with the key of the entry that was opened.
  constructor(element, open) {
    this.element = element;
    this.open = open;
    this.prefix = `entry-${++lists}-`;
    this.activeKey = null;
    element.addEventListener("click", (event) => {
      const entry = event.target.closest("[role=option]");
      if (entry) this.choose(entry.dataset.key);
    });
    element.addEventListener("keydown", (event) => this.#onKey(event));
    element.addEventListener("focus", () => {
      if (!this.#entry(this.activeKey)) this.#activate(this.entries()[0]);
    });
  }

  entries() {
    return [...this.element.children];
  }

  // Makes an element an entry of this list.
  entry(key, element) {
    element.id = this.prefix + key;
    element.dataset.key = key;
    element.setAttribute("role", "option");
    element.setAttribute("aria-selected", String(key) === this.chosenKey);
    if (String(key) === this.activeKey) element.classList.add("active");
    return element;
  }

  choose(key) {
    this.#activate(this.#entry(key));
    this.chosenKey = String(key);
    for (const entry of this.entries()) entry.setAttribute("aria-selected", entry.dataset.key === this.chosenKey);
    this.open(key);
  }

  #entry(key) {
    return key === null ? null : document.getElementById(this.prefix + key);
  }

  #activate(entry) {
    if (!entry) return;
    this.#entry(this.activeKey)?.classList.remove("active");
    this.activeKey = entry.dataset.key;
    entry.classList.add("active");
    this.element.setAttribute("aria-activedescendant", entry.id);
    entry.scrollIntoView({ block: "nearest" });
  }

  #onKey(event) {
    const all = this.entries();
    const at = all.indexOf(this.#entry(this.activeKey));
    const targets = {
      ArrowDown: at + 1,
      ArrowUp: Math.max(at - 1, 0),
      Home: 0,
      End: all.length - 1,
      PageDown: Math.min(at + 10, all.length - 1),
      PageUp: Math.max(at - 10, 0),
    };
    if (event.key in targets) {
      event.preventDefault();
      this.#activate(all[targets[event.key]]);
    } else if ((event.key === "Enter" || event.key === " ") && at >= 0) {
      event.preventDefault();
      this.choose(this.activeKey);
    }
  }
}
