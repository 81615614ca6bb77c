// One line for what went wrong; it goes when the next thing works.
import { byId } from "./dom.js";

export function tell(text) {
  const notice = byId("notice");
  notice.textContent = text;
  notice.hidden = text === "";
}

// Runs something that may fail and says so when it does.
export async function guarded(act) {
  try {
    await act();
    tell("");
  } catch (error) {
    tell(error.message === "Failed to fetch" ? "The service does not answer. Is it still running?" : error.message);
  }
}
