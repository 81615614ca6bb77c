// Draws the timeline of a device: sessions are bars, activities points, everything else diamonds above.
import { svg } from "./dom.js";
import { day, duration, moment, timeOfDay } from "./format.js";
import { Scale } from "./scale.js";

const kLeft = 112;
const kRight = 24;
const kLane = 24;
const kMostLanes = 8;
const kLeastBar = 3;

export function markClass(kind) {
  const classes = {
    crash: "mark crash",
    erasure: "mark erasure",
    "deep link": "mark link",
    "commerce click": "mark link",
  };
  return classes[kind] ?? "mark";
}

export function diamond(x, y, size, kind) {
  const outline = `M${x} ${y - size}L${x + size} ${y}L${x} ${y + size}L${x - size} ${y}Z`;
  return svg("path", { class: markClass(kind), d: outline });
}

function title(element, text) {
  element.append(svg("title", {}, text));
  return element;
}

// The groups with their own lane; the others share the last.
function lanesOf(activities) {
  const groups = [...new Set(activities.map((each) => each.group))];
  return groups.length <= kMostLanes ? groups : [...groups.slice(0, kMostLanes - 1), "others"];
}

function shorten(text) {
  return text.length > 16 ? `${text.slice(0, 15)}…` : text;
}

export function drawTimeline(timeline, fullWidth, isToScale) {
  const ends = timeline.sessions.flatMap((each) => [each.start, each.end ?? each.start]);
  const times = [...ends, ...timeline.activities.map((each) => each.time), ...timeline.marks.map((each) => each.time)];
  const scale = new Scale(times, fullWidth - kLeft - kRight, isToScale);
  const x = (time) => kLeft + scale.place(time);
  const lanes = lanesOf(timeline.activities);
  const laneY = (index) => 20 + kLane * index;
  const height = laneY(2 + lanes.length) + 28;
  const bottom = height - 34;

  const picture = svg("svg", {
    viewBox: `0 0 ${fullWidth} ${height}`,
    role: "img",
    "aria-label": "Timeline; the table below tells the same",
  });
  const label = (text, y) => picture.append(title(svg("text", { x: 0, y: y + 4 }, shorten(text)), text));
  const tickCount = fullWidth > 700 ? 6 : 3;
  scale.ticks(tickCount).forEach(({ place, time }, index, all) => {
    const anchor = index === 0 ? "start" : index === all.length - 1 ? "end" : "middle";
    picture.append(svg("line", { class: "axis", x1: kLeft + place, x2: kLeft + place, y1: 6, y2: bottom }));
    picture.append(svg("text", { x: kLeft + place, y: bottom + 14, "text-anchor": anchor }, timeOfDay(time)));
    picture.append(svg("text", { x: kLeft + place, y: bottom + 27, "text-anchor": anchor }, day(time)));
  });

  label("events of life", laneY(0));
  for (const mark of timeline.marks) {
    const shape = diamond(x(mark.time), laneY(0), 6, mark.kind);
    picture.append(title(shape, `${moment(mark.time)} ${mark.kind} ${mark.text}`));
  }
  label("sessions", laneY(1));
  for (const session of timeline.sessions) {
    const end = session.end ?? session.start;
    const told = session.end === null ? "no end told yet" : duration(end - session.start);
    const bar = svg("rect", {
      class: session.end === null ? "session open" : "session",
      x: x(session.start),
      y: laneY(1) - 6,
      height: 12,
      rx: 2,
      width: Math.max(kLeastBar, x(end) - x(session.start)),
    });
    picture.append(title(bar, `${moment(session.start)}, ${told}`));
  }
  lanes.forEach((group, index) => label(group || "(no group)", laneY(2 + index)));
  for (const activity of timeline.activities) {
    const lane = lanes.indexOf(activity.group);
    const y = laneY(2 + (lane < 0 ? lanes.length - 1 : lane));
    const point = svg("circle", { class: "activity", cx: x(activity.time), cy: y, r: 4 });
    const text = `${moment(activity.time)} ${activity.group}/${activity.activity} ${activity.param}`;
    picture.append(title(point, text));
  }
  return picture;
}
