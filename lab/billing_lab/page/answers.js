// answers.js - sets own answers in place of the built-in ones.
import { send } from "./api.js";
import { conditions, numbers, textOf } from "./conditions.js";
import { byId, field, make, refill } from "./dom.js";
import { voice } from "./controls.js";

// The control interface takes bytes as a latin-1 text.
const bytesOf = (text) => Array.from(new TextEncoder().encode(text), (byte) => String.fromCharCode(byte)).join("");

export function startAnswers(meta) {
  const said = voice();
  const match = conditions(meta);
  const status = numbers([["status", "Status", { min: 200, max: 599, placeholder: "200" }]]);
  const type = make("input", { placeholder: "application/json", autocomplete: "off" });
  const template = make("input", { type: "checkbox" });
  const bodies = make("textarea", { spellcheck: false, "aria-label": "Bodies; a line of three dashes begins the next one" });
  const list = make("ul", { class: "plain" });
  const hint = "A line --- begins the next body. Each request gets the next one, and all further requests the last.";
  const form = make("form", { class: "grid", onsubmit: (event) => { event.preventDefault(); said.hear(set); } },
    ...match.endpoint, make("div", { class: "wide" }, bodies, make("p", { class: "faint" }, hint)),
    ...field("Template", template), ...status.fields, ...field("Type", type),
    make("details", { class: "wide" }, make("summary", {}, "For whom"), make("div", { class: "grid" }, ...match.more)),
    make("div", { class: "wide actions" }, make("button", { class: "main", type: "submit" }, "Answer with this")));
  byId("answers").append(make("details", {}, make("summary", {}, "Give an answer of your own"), form), said.line, list);

  async function set() {
    const wanted = { ...match.chosen(), ...status.chosen(), bodies: bodies.value.split(/^---$\n?/m).map(bytesOf) };
    if (type.value.trim()) wanted.type = type.value.trim();
    await send("answers", { ...wanted, template: template.checked });
    said.good("Requests get this answer from now on; the store still does what is asked.");
  }

  return function show(now) {
    refill(list, "Every answer is the lab's own.", ...Object.entries(now.answers).map(([name, own]) => make("li", {},
      make("span", { class: "grow" }, lineOf(own)),
      make("button", {
        type: "button", "aria-label": `Built-in answer at ${name}`, onclick: () => said.hear(() => send("answers", own.match)),
      }, "Built-in"))));
  };
}

function lineOf(own) {
  const parts = [`${textOf(own.match)}: ${own.status}`, `${own.bytes} bytes`];
  if (own.bodies > 1) parts.push(`${own.bodies} bodies`);
  if (own.template) parts.push("a template");
  return parts.join(", ");
}
