// The totals in the header.
import { count } from "./format.js";

export function showTotals(totals) {
  for (const place of document.querySelectorAll("[data-total]")) {
    const value = totals[place.dataset.total];
    if (value !== undefined) place.textContent = count(value);
  }
}
