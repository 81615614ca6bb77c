// Looks for elements that overlap or leave the page.

// Runs in the page.
function findTroubles() {
  const kSlack = 1;
  const troubles = [];
  const nameOf = (element) => {
    const id = element.id ? `#${element.id}` : "";
    const classes = [...element.classList].map((name) => `.${name}`).join("");
    return `${element.tagName.toLowerCase()}${id}${classes}`;
  };
  // Shapes in a picture overlap on purpose; running text has no boxes.
  const isWhole = (element) => element.matches("svg, pre, select");
  const clips = (element) => ["auto", "scroll", "hidden", "clip"].includes(getComputedStyle(element).overflowX);

  // The visible part of an element: its boxes, clipped by its ancestors.
  function visibleBoxes(element) {
    let boxes = [...element.getClientRects()].map(({ left, top, right, bottom }) => ({ left, top, right, bottom }));
    for (let each = element.parentElement; each && each !== document.body; each = each.parentElement) {
      if (!clips(each)) continue;
      const frame = each.getBoundingClientRect();
      boxes = boxes.map((box) => ({
        left: Math.max(box.left, frame.left),
        top: Math.max(box.top, frame.top),
        right: Math.min(box.right, frame.right),
        bottom: Math.min(box.bottom, frame.bottom),
      }));
    }
    return boxes.filter((box) => box.right - box.left > kSlack && box.bottom - box.top > kSlack);
  }
  const overlap = (a, b) =>
    Math.min(a.right, b.right) - Math.max(a.left, b.left) > kSlack &&
    Math.min(a.bottom, b.bottom) - Math.max(a.top, b.top) > kSlack;

  function walk(element) {
    const seen = [];
    for (const child of element.children) {
      if (!child.checkVisibility()) continue;
      const boxes = visibleBoxes(child);
      if (boxes.some((box) => box.left < -kSlack || box.right > innerWidth + kSlack))
        troubles.push(`${nameOf(child)} leaves the page`);
      for (const other of seen) {
        if (boxes.some((box) => other.boxes.some((its) => overlap(box, its))))
          troubles.push(`${nameOf(child)} lies upon ${nameOf(other.child)}`);
      }
      seen.push({ child, boxes });
      if (!isWhole(child)) walk(child);
    }
    return seen.length;
  }

  const count = walk(document.body);
  const width = document.documentElement.scrollWidth;
  if (width > innerWidth) troubles.push(`the page is ${width} wide, its window ${innerWidth}`);
  return { troubles: [...new Set(troubles)], count };
}

// Problems with the current page; empty if there are none.
export async function layoutTroubles(page) {
  const { troubles, count } = await page.evaluate(findTroubles);
  if (count === 0) troubles.push("there is nothing on the page");
  return troubles;
}
