// Puts the page together.
import * as api from "./api.js";
import { Behaviours } from "./behaviours.js";
import { Detail } from "./detail.js";
import { Devices } from "./devices.js";
import { EventView } from "./event.js";
import { RequestList } from "./list.js";
import { guarded } from "./notice.js";
import { startStream } from "./stream.js";
import { startTheme } from "./theme.js";
import { showTotals } from "./totals.js";
import { showView, startViews } from "./views.js";

startTheme();
const detail = new Detail((install) => {
  showView("devices");
  devices.choose(install);
});
const events = new EventView(detail);
const devices = new Devices((id) => {
  showView("requests");
  detail.open(id);
}, (eventId) => {
  showView("requests");
  events.open(eventId);
});
const list = new RequestList((id) => detail.open(id), (eventId) => events.open(eventId));
const behaviours = new Behaviours();
startViews();

await Promise.all([
  list.reload(),
  guarded(async () => {
    const forms = await api.forms();
    list.offerEndpoints(forms.endpoints);
    behaviours.offer(forms);
  }),
]);

startStream(() => list.newest, {
  request: (summary) => {
    list.arrived(summary);
    devices.changed();
  },
  behaviours: (waiting) => behaviours.show(waiting),
  ledgers: () => devices.changed(),
  totals: showTotals,
  gap: () => list.reload(),
  resumed: () => list.reload(),
});
