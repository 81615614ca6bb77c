// Shows the latest error in one line, until the next action succeeds.
import { byId } from "./dom.js";

export function tell(text) {
  const notice = byId("notice");
  notice.textContent = text;
  notice.hidden = text === "";
}

// Runs an action and shows its error if it fails.
export async function guarded(act) {
  try {
    await act();
    tell("");
  } catch (error) {
    tell(error.message === "Failed to fetch" ? "The service does not answer. Is it still running?" : error.message);
  }
}
