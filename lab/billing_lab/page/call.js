// call.js - makes a call of the service, and shows the daemon's answer beside that of the store.
import { send } from "./api.js";
import { byId, field, make, memory, options, readable } from "./dom.js";
import { bodyOf } from "./detail.js";
import { voice } from "./controls.js";
import { latest, since } from "./journal.js";

const DEFAULTS = {
  appid: "app-1", serverType: "1", CheckValue: "check-1", customId: "custom-1", ItemType: "1", PageNumber: "1",
  invoiceid: "INV-SEED-2",
};
// The journal's entry may arrive a moment after the answer.
const ENTRY_WAIT_MS = 1500;
// The resp_result of a call for which no request was sent.
const REFUSED = 1160003;

/** @param endpointOf the endpoint that each method asks */
export function start(methods, endpointOf) {
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
    const keep = (name, value) => { values[name] = value; memory.set("arguments", values); };
    inputs.replaceChildren(...chosen, ...methods[method.value].flatMap((name) => field(name, make("input", {
      value: values[name] ?? "", autocomplete: "off", oninput: (event) => keep(name, event.target.value),
    }))));
  }

  async function call() {
    const focused = document.activeElement === button;
    button.disabled = true;
    const before = latest();
    answer.replaceChildren(make("p", { class: "faint" }, "Waiting for the daemon ..."));
    try {
      const sent = Object.fromEntries(methods[method.value].map((name) => [name, values[name] ?? ""]));
      const endpoint = endpointOf[method.value];
      const told = await send("call", { method: method.value, arguments: sent });
      const found = told.error || told.resp_result === REFUSED ? [] : await entriesAfter(before, endpoint, sent, told);
      answer.replaceChildren(...partsOf(told, found));
    } catch (problem) {
      answer.replaceChildren();
      throw problem;
    } finally {
      button.disabled = false;
      if (focused) button.focus();
    }
  }
}

/** The requests of the journal that may be this call's: those with its arguments; of these, those with its answer, if any. */
async function entriesAfter(seq, endpoint, sent, told) {
  const end = performance.now() + ENTRY_WAIT_MS;
  for (;;) {
    const asked = since(seq).filter((entry) =>
      entry.kind === "request" && entry.endpoint === endpoint && says(entry.asked ?? {}, sent));
    const answered = asked.filter((entry) => entry.answer.text === told.resp_info);
    if (answered.length) return answered;
    if (performance.now() > end) {
      const failed = since(seq).filter((entry) => entry.kind === "handshake");
      return asked.length || told.resp_result === 0 ? asked : failed;
    }
    await new Promise((resolve) => setTimeout(resolve, 50));
  }
}

/** Whether a request has the arguments of a call. Arguments that its endpoint does not send are not compared. */
function says(asked, sent) {
  return [["app", sent.appid], ["invoice", sent.invoiceid]].every(([word, value]) => !(word in asked) || asked[word] === value)
    && !("invoice" in asked && (asked.custom_id ?? "") !== (sent.customId ?? ""));
}

function partsOf(told, found) {
  if (told.error) return [make("p", { class: "bad" }, `No answer: ${told.error.cause}. ${told.error.cure}.`)];
  const good = told.resp_result === 0;
  return [
    make("p", { class: good ? "good" : "bad" }, `resp_result ${told.resp_result} after ${told.milliseconds.toFixed(1)} ms`),
    make("div", { class: "pair" },
      make("div", {}, make("h3", {}, "The daemon answered"),
        make("pre", { class: "daemon" }, told.resp_info === "" ? "(an empty text)" : readable(told.resp_info))),
      make("div", {}, ...storeSide(told, found))),
  ];
}

function storeSide(told, found) {
  const [entry] = found;
  if (found.length > 1) {
    const numbers = found.map((one) => one.seq).join(", ");
    const text = `(cannot tell: requests ${numbers} of the journal fit this call)`;
    return [make("h3", {}, "The store"), make("pre", { class: "faint store" }, text)];
  }
  if (entry?.kind === "request") {
    return [make("h3", {}, `The store sent (${entry.answer.status ?? "nothing"}), journal ${entry.seq}`), bodyOf(entry.answer)];
  }
  const none = told.resp_result === REFUSED ? "(was not asked)" : "(cannot tell: no request of the journal fits this call)";
  const why = entry ? `(no connection: ${entry.reason})` : none;
  return [make("h3", {}, "The store"), make("pre", { class: "faint store" }, why)];
}
