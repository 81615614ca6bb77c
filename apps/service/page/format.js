// Numbers, times and sizes as people read them.

const kNumber = new Intl.NumberFormat("en");

export function count(value) {
  return kNumber.format(value);
}

export function plural(value, word) {
  return `${count(value)} ${word}${value === 1 ? "" : "s"}`;
}

const two = (value) => String(value).padStart(2, "0");

export function timeOfDay(time) {
  const date = new Date(time);
  return `${two(date.getHours())}:${two(date.getMinutes())}:${two(date.getSeconds())}`;
}

export function day(time) {
  const date = new Date(time);
  return `${date.getFullYear()}-${two(date.getMonth() + 1)}-${two(date.getDate())}`;
}

export function moment(time) {
  return `${day(time)} ${timeOfDay(time)}`;
}

export function bytes(value) {
  if (value < 1000) return plural(value, "byte");
  return value < 1e6 ? `${(value / 1e3).toFixed(1)} kB` : `${(value / 1e6).toFixed(1)} MB`;
}

export function duration(milliseconds) {
  const seconds = Math.round(milliseconds / 1000);
  if (seconds < 60) return `${seconds} s`;
  if (seconds < 3600) return `${Math.floor(seconds / 60)} min ${seconds % 60} s`;
  return `${Math.floor(seconds / 3600)} h ${Math.floor((seconds % 3600) / 60)} min`;
}

const kEventIdForm = /^[0-9a-f]{8}-[0-9a-f]{4}-[0-9a-f]{4}-[0-9a-f]{4}-[0-9a-f]{12}$/;

export function isEventId(text) {
  return kEventIdForm.test(text);
}
