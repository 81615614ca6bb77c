// Elements from names, attributes and children. Text goes in as text, never as markup.

const kSvg = "http://www.w3.org/2000/svg";

function fill(element, attributes, children) {
  for (const [name, value] of Object.entries(attributes ?? {})) {
    if (value === undefined || value === null || value === false) continue;
    if (name.startsWith("on")) element.addEventListener(name.slice(2), value);
    else element.setAttribute(name, value === true ? "" : value);
  }
  element.append(...children.flat().filter((child) => child !== null && child !== undefined && child !== false));
  return element;
}

export function el(name, attributes, ...children) {
  return fill(document.createElement(name), attributes, children);
}

export function svg(name, attributes, ...children) {
  return fill(document.createElementNS(kSvg, name), attributes, children);
}

export function byId(id) {
  return document.getElementById(id);
}

// Debounces `act`.
export function calmly(act, milliseconds) {
  let timer = 0;
  return () => {
    clearTimeout(timer);
    timer = setTimeout(act, milliseconds);
  };
}
