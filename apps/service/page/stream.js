// The service's event stream, open while the page is visible.
import { byId } from "./dom.js";

const kAgainMilliseconds = 2000;

function showState(state, text) {
  byId("live").dataset.state = state;
  byId("live").textContent = text;
}

// `handlers`: request(summary), behaviours(list), ledgers(news), totals(numbers), gap(), resumed(). `newest()` is the
// number of the newest known request.
export function startStream(newest, handlers) {
  let source = null;
  let timer = 0;
  let lost = false;

  function close() {
    clearTimeout(timer);
    source?.close();
    source = null;
  }

  function open() {
    close();
    source = new EventSource(`/inspect/stream?after=${newest()}`);
    source.addEventListener("open", () => {
      showState("live", "live");
      // The service may have another store now.
      if (lost) handlers.resumed();
      lost = false;
    });
    source.addEventListener("error", () => {
      lost = true;
      showState("lost", "reconnecting");
      close();
      timer = setTimeout(open, kAgainMilliseconds);
    });
    for (const kind of ["request", "behaviours", "ledgers", "totals", "gap"])
      source.addEventListener(kind, (event) => handlers[kind](JSON.parse(event.data)));
  }

  // A hidden page holds no connection.
  document.addEventListener("visibilitychange", () => {
    if (document.hidden) {
      close();
      showState("paused", "paused");
    } else {
      open();
    }
  });
  open();
}
