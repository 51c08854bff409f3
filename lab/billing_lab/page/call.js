// call.js - a call of the service, made from the page; what the daemon answered beside what the store sent.
import { send } from "./api.js";
import { byId, field, make, memory, options, readable } from "./dom.js";
import { bodyOf } from "./detail.js";
import { voice } from "./controls.js";
import { latest, since } from "./journal.js";

const DEFAULTS = { appid: "app-1", serverType: "1", CheckValue: "check-1", customId: "custom-1", ItemType: "1", PageNumber: "1", invoiceid: "INV-SEED-2" };
// The journal's entry may arrive a moment after the answer.
const ENTRY_WAIT_MS = 1500;

export function start(methods) {
  const said = voice();
  const method = make("select");
  options(method, Object.keys(methods).map((name) => [name, name]), memory.get("method", "get_product_list"));
  const values = memory.get("arguments", DEFAULTS);
  const inputs = make("div", { class: "grid" });
  const chosen = field("Method", method);
  const button = make("button", { class: "main", type: "submit" }, "Call");
  const answer = make("div", { class: "answer" });
  byId("call").append(make("form", { onsubmit: (event) => { event.preventDefault(); said.hear(call); } },
    inputs, said.line, make("div", { class: "actions" }, button)), answer);
  method.addEventListener("change", show);
  show();

  function show() {
    memory.set("method", method.value);
    inputs.replaceChildren(...chosen, ...methods[method.value].flatMap((name) => field(name, make("input", {
      value: values[name] ?? "", autocomplete: "off", oninput: (event) => { values[name] = event.target.value; memory.set("arguments", values); },
    }))));
  }

  async function call() {
    button.disabled = true;
    const before = latest();
    answer.replaceChildren(make("p", { class: "faint" }, "Waiting for the daemon ..."));
    try {
      const told = await send("call", { method: method.value, arguments: Object.fromEntries(methods[method.value].map((name) => [name, values[name] ?? ""])) });
      const entry = told.error ? undefined : await entryAfter(before, told.resp_result);
      answer.replaceChildren(...partsOf(told, entry));
    } catch (problem) {
      answer.replaceChildren();
      throw problem;
    } finally {
      button.disabled = false;
    }
  }
}

async function entryAfter(seq, result) {
  const end = performance.now() + (result === 1160003 ? 0 : ENTRY_WAIT_MS);
  for (;;) {
    const found = since(seq).at(-1);
    if (found || performance.now() > end) return found;
    await new Promise((resolve) => setTimeout(resolve, 50));
  }
}

function partsOf(told, entry) {
  if (told.error) return [make("p", { class: "bad" }, `No answer: ${told.error.cause}. ${told.error.cure}.`)];
  const good = told.resp_result === 0;
  return [
    make("p", { class: good ? "good" : "bad" }, `resp_result ${told.resp_result} after ${told.milliseconds.toFixed(1)} ms`),
    make("div", { class: "pair" },
      make("div", {}, make("h3", {}, "The daemon answered"), make("pre", { class: "daemon" }, told.resp_info === "" ? "(an empty text)" : readable(told.resp_info))),
      make("div", {}, make("h3", {}, entry?.kind === "request" ? `The store sent (${entry.answer.status ?? "nothing"})` : "The store"),
        entry?.kind === "request" ? bodyOf(entry.answer) : make("pre", { class: "faint" }, entry ? `(no connection: ${entry.reason})` : "(was not asked)"))),
  ];
}
