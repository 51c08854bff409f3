// plot.js - requests a second, and how long the store took for each, over five minutes.
import uPlot from "./vendor/uPlot.esm.js";
import { byId } from "./dom.js";

const SPAN = 300;
const HEIGHT = 150;
const samples = [];
let plot;
let due = 0;

export function start() {
  const box = byId("plot");
  const style = getComputedStyle(document.documentElement);
  const colour = (name) => style.getPropertyValue(name).trim();
  const axis = { stroke: colour("--faint"), grid: { stroke: colour("--line"), width: 1 }, ticks: { stroke: colour("--line") } };
  plot = new uPlot({
    width: box.clientWidth, height: HEIGHT, cursor: { y: false }, legend: { live: true },
    scales: { x: { time: true, range: () => [Date.now() / 1000 - SPAN, Date.now() / 1000 + 4] }, ms: { range: (_, __, most) => [0, Math.max(10, (most || 0) * 1.15)] }, rate: { range: (_, __, most) => [0, Math.max(5, (most || 0) * 1.15)] } },
    axes: [{ ...axis, space: 80, values: (_, marks) => marks.map((at) => clock(at)) }, { ...axis, scale: "ms", label: "ms", labelSize: 16, size: 52 }, { ...axis, scale: "rate", side: 1, label: "a second", labelSize: 16, size: 44, grid: { show: false } }],
    series: [{ label: "UTC", value: (_, at) => at === null || at === undefined ? "-" : clock(at) },
      { label: "store took (ms)", scale: "ms", stroke: colour("--accent"), paths: () => null, points: { show: true, size: 5, fill: colour("--accent") } },
      { label: "requests a second", scale: "rate", stroke: colour("--odd"), width: 1.5, points: { show: false }, spanGaps: true }],
  }, [[], [], []], box);
  new ResizeObserver(() => plot.setSize({ width: box.clientWidth, height: HEIGHT })).observe(box);
  matchMedia("(prefers-color-scheme: dark)").addEventListener("change", () => { plot.destroy(); start(); });
  setInterval(draw, 1000);
  draw();
}

// The journal's time zone.
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

function draw() {
  const now = Date.now() / 1000;
  while (samples.length && samples[0][0] < now - SPAN) samples.shift();
  samples.sort((a, b) => a[0] - b[0]);
  const counts = new Map();
  for (const [at] of samples) counts.set(Math.floor(at), (counts.get(Math.floor(at)) ?? 0) + 1);
  const points = samples.map(([at, took]) => [at, took, null]);
  for (let second = Math.ceil(now - SPAN); second < now; second += 1) points.push([second + 0.5, null, counts.get(second) ?? 0]);
  points.sort((a, b) => a[0] - b[0]);
  plot.setData([0, 1, 2].map((column) => points.map((point) => point[column])));
}
