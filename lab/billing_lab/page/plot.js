// plot.js - draws the requests a second, and the store's time for each request, of the last five minutes.
import { byId, make } from "./dom.js";

const SPAN = 300;
const HEIGHT = 150;
const [LEFT, RIGHT, TOP, BOTTOM] = [52, 44, 6, 18];
const MARK_SECONDS = 60;
const samples = [];
let due = 0;
let pointer = null;

export function start() {
  const box = byId("plot");
  box.append(svg("svg", { height: HEIGHT }), make("p", { className: "legend" }));
  box.firstChild.addEventListener("pointermove", (event) => { pointer = event.offsetX; draw(); });
  box.firstChild.addEventListener("pointerleave", () => { pointer = null; draw(); });
  new ResizeObserver(draw).observe(box);
  setInterval(draw, 1000);
  draw();
}

// In UTC, as the journal's times.
const clock = (at) => new Date(at * 1000).toISOString().slice(11, 19);

export function add(entry) {
  if (entry.kind !== "request" || entry.answer.end === "under way") return;
  samples.push([Date.parse(entry.time) / 1000, entry.answer.milliseconds ?? null]);
  if (performance.now() > due) {
    due = performance.now() + 250;
    setTimeout(draw, 250);
  }
}

export function clear() {
  samples.length = 0;
}

function svg(name, attributes, text = "") {
  const element = document.createElementNS("http://www.w3.org/2000/svg", name);
  for (const [key, value] of Object.entries(attributes)) element.setAttribute(key, value);
  element.textContent = text;
  return element;
}

/** The distance of the labels of an axis: 1, 2 or 5 times a power of ten, so that there are three to eight. */
function step(most) {
  const ten = 10 ** Math.floor(Math.log10(most / 2));
  return [5, 2, 1].map((factor) => factor * ten).find((size) => most / size >= 3) ?? ten;
}

/** Requests of each whole second of the span. */
function countsUntil(now) {
  const counts = new Map();
  for (let second = Math.ceil(now - SPAN); second < now; second += 1) counts.set(second, 0);
  for (const [at] of samples) if (counts.has(Math.floor(at))) counts.set(Math.floor(at), counts.get(Math.floor(at)) + 1);
  return counts;
}

function draw() {
  const now = Date.now() / 1000;
  while (samples.length && samples[0][0] < now - SPAN) samples.shift();
  samples.sort((a, b) => a[0] - b[0]);
  const counts = countsUntil(now);
  const took = samples.filter(([, milliseconds]) => milliseconds !== null);
  const [picture, legend] = byId("plot").children;
  const right = byId("plot").clientWidth - RIGHT;
  const mostMs = Math.max(10, ...took.map(([, milliseconds]) => milliseconds * 1.15));
  const mostRate = Math.max(5, ...[...counts.values()].map((count) => count * 1.15));
  const x = (at) => LEFT + ((at - now + SPAN) / (SPAN + 4)) * (right - LEFT);
  const y = (value, most) => HEIGHT - BOTTOM - (value / most) * (HEIGHT - BOTTOM - TOP);
  const parts = [];
  for (let at = Math.ceil((now - SPAN) / MARK_SECONDS) * MARK_SECONDS; at < now; at += MARK_SECONDS) {
    parts.push(svg("line", { class: "grid", x1: x(at), x2: x(at), y1: TOP, y2: HEIGHT - BOTTOM }));
    parts.push(svg("text", { x: x(at), y: HEIGHT - 4, "text-anchor": "middle" }, clock(at)));
  }
  for (let value = 0; value <= mostMs; value += step(mostMs)) {
    parts.push(svg("line", { class: "grid", x1: LEFT, x2: right, y1: y(value, mostMs), y2: y(value, mostMs) }));
    parts.push(svg("text", { x: LEFT - 6, y: y(value, mostMs) + 4, "text-anchor": "end" }, value));
  }
  for (let value = 0; value <= mostRate; value += step(mostRate)) parts.push(svg("text", { x: right + 6, y: y(value, mostRate) + 4 }, value));
  parts.push(svg("polyline", { points: [...counts].map(([second, count]) => `${x(second + 0.5)},${y(count, mostRate)}`).join(" ") }));
  parts.push(...took.map(([at, milliseconds]) => svg("circle", { cx: x(at), cy: y(milliseconds, mostMs), r: 2.5 })));
  picture.setAttribute("width", right + RIGHT);
  picture.replaceChildren(...parts);
  legend.replaceChildren(...legendAt(pointer === null ? null : now - SPAN + ((pointer - LEFT) / (right - LEFT)) * (SPAN + 4), counts, took));
}

/** @param at the second under the pointer, null without one */
function legendAt(at, counts, took) {
  const nearest = took.reduce((best, one) => (best && Math.abs(best[0] - at) < Math.abs(one[0] - at) ? best : one), null);
  const values = at === null ? ["", "", ""] : [clock(at), nearest?.[1] ?? "-", counts.get(Math.floor(at)) ?? "-"];
  return ["UTC", "store took (ms)", "requests a second"].map((name, i) => make("span", { className: ["", "took", "rate"][i] }, `${name} ${values[i]}`));
}
