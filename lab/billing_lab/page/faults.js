// faults.js - sets, lists and ends the faults of answers and of connections.
import { ask, send } from "./api.js";
import { conditions, numbers } from "./conditions.js";
import { byId, field, make, options, refill } from "./dom.js";
import { voice } from "./controls.js";

const UNSHOWN = ["over", "chance", "seed", "done", "struck"];

/** A choice of a kind of fault, with fields for the options of the chosen kind. */
function faultChoice(kinds) {
  const kind = make("select");
  options(kind, Object.entries(kinds).map(([name, fault]) => [name, `${name}: ${fault.what}`]));
  const inputs = make("div", { class: "inner" });
  kind.addEventListener("change", show);
  show();

  function show() {
    const fields = Object.entries(kinds[kind.value].options).map(([name, { unit, least, most, many, default: usual }]) =>
      (many ? field(name, make("input", { name, placeholder: "50, 50, 3000", title: unit, autocomplete: "off" }))
        : field(name, make("input", { type: "number", name, min: least, max: most, placeholder: usual, title: unit }))));
    inputs.replaceChildren(...fields.flat());
    inputs.hidden = !inputs.children.length;
  }

  /** The options whose fields are not empty; the others have their defaults. */
  function chosen() {
    const said = [...inputs.querySelectorAll("input")].filter((input) => input.value.trim());
    return Object.fromEntries(said.map((input) =>
      [input.name, input.type === "number" ? input.valueAsNumber : input.value.split(",").map(Number)]));
  }
  return { kind, inputs, chosen };
}

export function startFaults(meta) {
  const said = voice();
  const list = make("ul", { class: "plain" });
  const end = () => make("button", { type: "button", onclick: () => said.hear(endAll) }, "End all faults");
  byId("faults").append(answers(meta, said, refresh, end()), connections(meta, said, refresh), said.line, list);

  async function endAll() {
    await ask("faults", { method: "DELETE" });
    await send("connection", { fault: "none" });
    await refresh();
  }

  async function refresh() {
    show(await ask("status"));
  }

  function item(text, ended, number = "") {
    const act = () => said.hear(async () => { await ended(); await refresh(); });
    return make("li", { "data-number": number }, make("span", { class: "grow" }, text),
      make("button", { type: "button", "aria-label": `End ${text}`, onclick: act }, "End"));
  }

  function show(status) {
    const all = ofConnections(meta, status);
    refill(list, "No fault is on: every answer is as it should be.",
      ...(all ? [item(all, () => send("connection", { fault: "none" }))] : []),
      ...status.faults.filter((fault) => !fault.over).map((fault) =>
        item(textOf(fault), () => ask(`faults?number=${fault.number}`, { method: "DELETE" }), fault.number)));
  }
  return { refresh, show };
}

function answers(meta, said, refresh, endAll) {
  const answer = faultChoice(meta.faults);
  const match = conditions(meta, "every endpoint");
  const often = numbers([["count", "How often", { min: 1, placeholder: "until it is ended" }]]);
  const more = numbers([
    ["skip", "Let pass first", { min: 0, placeholder: "0" }],
    ["seconds", "For seconds", { min: 0.001, step: "any", placeholder: "until it is ended" }],
    ["chance", "Chance", { min: 0, max: 1, step: "any", placeholder: "1" }],
    ["seed", "Seed", { min: 0, placeholder: "1" }],
  ]);
  const work = make("select");
  options(work, [["", "as usual for this fault"], ["true", "done, then the answer goes wrong"], ["false", "not done"]]);
  return make("form", { class: "grid", onsubmit: (event) => { event.preventDefault(); said.hear(add); } },
    ...field("Answers", answer.kind), ...match.endpoint, answer.inputs, ...often.fields,
    make("details", { class: "wide" }, make("summary", {}, "For whom, and when"),
      make("div", { class: "grid" }, ...match.more, ...more.fields, ...field("The store's work", work))),
    make("div", { class: "wide actions" }, make("button", { class: "main", type: "submit" }, "Switch this fault on"), endAll));

  async function add() {
    const done = work.value ? { done: work.value === "true" } : {};
    const when = { ...often.chosen(), ...more.chosen(), ...done };
    await send("faults", { kind: answer.kind.value, ...answer.chosen(), ...match.chosen(), ...when });
    await refresh();
  }
}

function connections(meta, said, refresh) {
  const connection = faultChoice(meta.connection_faults);
  return make("form", { class: "grid", onsubmit: (event) => { event.preventDefault(); said.hear(turn); } },
    ...field("Connections", connection.kind), connection.inputs,
    make("div", { class: "wide actions" }, make("button", { type: "submit" }, "Do this to all connections")));

  async function turn() {
    await send("connection", { fault: connection.kind.value, ...connection.chosen() });
    await refresh();
  }
}

/** A text about the fault of all connections, silent connections and a restart; empty if all is as usual. */
function ofConnections(meta, { connection: fault, connection_options: set, connections: now }) {
  const parts = fault === "none" ? [] : [`${fault}: ${meta.connection_faults[fault].what}`, ...pairs(set)];
  if (now.silent) parts.push(`${now.silent} silent ${now.silent === 1 ? "connection" : "connections"}`);
  if (!now.listening) parts.push("the store is down until its restart ends");
  return parts.join(", ");
}

function textOf({ kind, endpoint, left, hits, number, ...rest }) {
  const more = pairs(Object.fromEntries(Object.entries(rest).filter(([key, value]) => value !== 0 && !UNSHOWN.includes(key))));
  return [`${number}. ${kind} at ${endpoint ?? "every endpoint"}`, ...more, ...(left === undefined ? [] : [`${left} left`]),
    ...(hits ? [`struck ${hits}`] : [])].join(", ");
}

function pairs(values) {
  const shown = (value) => (typeof value === "object" ? JSON.stringify(value) : value);
  return Object.entries(values).map(([key, value]) => `${key.replace("_", " ")} ${shown(value)}`);
}
