// journal.js - the list of the journal's entries. Only visible rows have elements, so that ten thousand entries cost as
// much as thirty.
import { byId, make, memory, options } from "./dom.js";
import { showDetail } from "./detail.js";

// On a narrow screen a row has two lines.
const narrow = matchMedia("(max-width: 900px)");
let ROW = 28;
const KEPT = 10000;
const MARGIN = 6;
const list = byId("journal-list");
const rows = byId("journal-rows");
const entries = [];
const places = new Map();
let visible = [];
let selected = memory.get("selected", null);
let scheduled = false;
let hint = "";

const filter = {
  text: byId("filter-text"), endpoint: byId("filter-endpoint"), kind: byId("filter-kind"), follow: byId("follow"),
};

const KINDS = {
  "": () => true,
  odd: (entry) => entry.differences?.length > 0,
  fault: (entry) => Boolean(entry.fault),
  bad: (entry) => entry.kind === "request" && entry.answer.status !== 200,
  handshake: (entry) => entry.kind === "handshake",
};

function wanted(entry) {
  if (!KINDS[filter.kind.value](entry)) return false;
  if (filter.endpoint.value && entry.endpoint !== filter.endpoint.value) return false;
  const text = filter.text.value.trim().toLowerCase();
  if (!text) return true;
  const { url, reason, headers, body, answer, fault, protocol } = entry;
  entry.searched ??= JSON.stringify([url, reason, headers, body, answer, fault, protocol]).toLowerCase();
  return entry.searched.includes(text);
}

export function start(endpoints, emptyHint) {
  hint = emptyHint;
  options(filter.endpoint, [["", "all"], ...endpoints.map((name) => [name, name])], "");
  const kept = memory.get("filter", {});
  for (const [name, element] of Object.entries(filter)) {
    if (name in kept) element[element.type === "checkbox" ? "checked" : "value"] = kept[name];
    element.addEventListener(name === "text" ? "input" : "change", changed);
  }
  list.addEventListener("scroll", onScroll, { passive: true });
  list.addEventListener("keydown", onKey);
  narrow.addEventListener("change", fit);
  fit();
  new ResizeObserver(schedule).observe(list);
  schedule();
}

function fit() {
  ROW = narrow.matches ? 46 : 28;
  schedule();
}

function changed() {
  const values = Object.entries(filter).map(([name, input]) => [name, input.type === "checkbox" ? input.checked : input.value]);
  memory.set("filter", Object.fromEntries(values));
  visible = entries.filter(wanted);
  schedule();
}

/** Adds a new entry, or updates a known one. */
export function add(entry) {
  const known = places.get(entry.seq);
  if (known) {
    Object.assign(known, entry, { searched: undefined });
  } else {
    places.set(entry.seq, entry);
    entries.push(entry);
    if (wanted(entry)) visible.push(entry);
    if (entries.length > KEPT) {
      const gone = entries.shift();
      places.delete(gone.seq);
      if (visible[0] === gone) visible.shift();
    }
  }
  schedule();
}

export function clear() {
  entries.length = 0;
  places.clear();
  visible = [];
  schedule();
}

/** Removes entries that the lab no longer has. @param first the number of the first entry that it has, or will have */
export function forgetBefore(first) {
  const kept = entries.filter((entry) => entry.seq >= first);
  if (kept.length === entries.length) return;
  entries.splice(0, entries.length, ...kept);
  for (const seq of [...places.keys()]) if (seq < first) places.delete(seq);
  visible = entries.filter(wanted);
  schedule();
}

export const latest = () => entries.at(-1)?.seq ?? 0;
export const since = (seq) => entries.filter((entry) => entry.seq > seq);

function onScroll() {
  const atEnd = list.scrollTop + list.clientHeight >= list.scrollHeight - ROW;
  if (!atEnd && filter.follow.checked && list.matches(":hover, :focus")) {
    filter.follow.checked = false;
    memory.set("filter", { ...memory.get("filter", {}), follow: false });
  }
  schedule();
}

function schedule() {
  if (scheduled) return;
  scheduled = true;
  requestAnimationFrame(() => { scheduled = false; draw(); });
}

function draw() {
  rows.style.height = `${visible.length * ROW}px`;
  if (filter.follow.checked) list.scrollTop = list.scrollHeight;
  const first = Math.max(0, Math.floor(list.scrollTop / ROW) - MARGIN);
  const last = Math.min(visible.length, Math.ceil((list.scrollTop + list.clientHeight) / ROW) + MARGIN);
  rows.replaceChildren(...visible.slice(first, last).map((entry, index) => rowOf(entry, first + index)));
  const none = entries.length ? "Nothing of the journal fits the filter." : hint;
  if (visible.length === 0) rows.replaceChildren(make("div", { class: "empty" }, none));
  list.setAttribute("aria-activedescendant", places.has(selected) ? `entry-${selected}` : "");
  const all = `${entries.length} ${entries.length === 1 ? "entry" : "entries"}`;
  byId("journal-count").textContent = visible.length === entries.length ? all : `${visible.length} of ${entries.length}`;
  showDetail(places.get(selected));
}

function rowOf(entry, index) {
  const time = entry.time.slice(11, 23);
  const cells = entry.kind === "handshake"
    ? [time, make("span", { class: "bad" }, "no connection"), "", "", "", make("span", { class: "bad" }, entry.reason)]
    : [time, `${entry.method} ${entry.endpoint ?? new URL(entry.url).pathname}`,
      make("span", { class: entry.answer.status === 200 ? "good" : "bad" }, String(entry.answer.status ?? "-")),
      String(entry.answer.bytes), entry.answer.milliseconds?.toFixed(1) ?? "", endOf(entry)];
  const row = make("div", { class: "row", id: `entry-${entry.seq}`, role: "option", onclick: () => select(entry.seq) },
    ...cells.map((cell) => cell instanceof Element ? cell : make("span", {}, cell)));
  row.setAttribute("aria-selected", String(entry.seq === selected));
  row.setAttribute("aria-posinset", String(index + 1));
  row.setAttribute("aria-setsize", String(visible.length));
  row.style.top = `${index * ROW}px`;
  return row;
}

function endOf(entry) {
  const parts = [entry.protocol ?? "HTTP/1.1", entry.answer.end === "whole" ? entry.handshake : entry.answer.end];
  if (entry.fault) parts.push(`fault ${entry.fault}`);
  if (entry.differences.length) parts.push("not exact");
  return make("span", { class: entry.differences.length ? "odd" : entry.fault ? "bad" : "faint" }, parts.join(", "));
}

function select(seq) {
  selected = seq;
  memory.set("selected", seq);
  schedule();
}

function onKey(event) {
  const at = visible.findIndex((entry) => entry.seq === selected);
  const end = visible.length - 1;
  const goals = { ArrowDown: at + 1, ArrowUp: at < 0 ? end : at - 1, PageDown: at + 12, PageUp: at - 12, Home: 0, End: end };
  if (!(event.key in goals) || end < 0) return;
  event.preventDefault();
  filter.follow.checked = false;
  const next = Math.min(end, Math.max(0, goals[event.key]));
  select(visible[next].seq);
  if (next * ROW < list.scrollTop) list.scrollTop = next * ROW;
  if ((next + 1) * ROW > list.scrollTop + list.clientHeight) list.scrollTop = (next + 1) * ROW - list.clientHeight;
}
