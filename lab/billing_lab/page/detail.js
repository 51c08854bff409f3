// detail.js - shows all members of the chosen entry of the journal.
import { byId, make, readable } from "./dom.js";

let shown;

export function showDetail(entry) {
  const key = entry && JSON.stringify([entry.seq, entry.answer]);
  if (key === shown) return;
  shown = key;
  const hint = "Choose a request to see what was asked, by whom, and what the store answered.";
  byId("detail").replaceChildren(...(entry ? partsOf(entry) : [make("p", { class: "faint" }, hint)]));
}

export function bodyOf(body) {
  if (!body || body.bytes === 0) return make("pre", { class: "faint" }, "(nothing)");
  const bytes = () => `(${body.bytes} bytes that are no UTF-8, as Base64)\n${body.base64}`;
  return make("pre", {}, body.text !== undefined ? readable(body.text) : bytes());
}

function facts(pairs) {
  return make("dl", {}, ...pairs.filter(([, value]) => value !== null && value !== undefined && value !== "")
    .flatMap(([name, value]) => [make("dt", {}, name), make("dd", {}, value instanceof Element ? value : String(value))]));
}

function partsOf(entry) {
  if (entry.kind === "handshake") {
    return [make("h3", {}, `Entry ${entry.seq}: no connection`), facts([["at", entry.time], ["why", entry.reason]])];
  }
  const exact = entry.differences.length
    ? make("span", { class: "odd" }, entry.differences.join("; "))
    : make("span", { class: "good" }, "exactly what this device must send");
  const certificate = Object.entries(entry.certificate ?? {})
    .map(([name, value]) => `${name} ${typeof value === "object" ? JSON.stringify(value) : value}`).join(", ");
  const connection = `${entry.connection}, ${entry.protocol ?? "HTTP/1.1"}, ${entry.handshake} handshake, ${entry.tls}`;
  return [
    make("h3", {}, `Entry ${entry.seq}: ${entry.method} ${entry.url}`),
    facts([["at", entry.time], ["request is", exact], ["connection", connection], ["certificate", certificate || "none"],
      ["fault", entry.fault], ["answered with", `${entry.answer.status ?? "nothing"}, ${entry.answer.end}`],
      ["store took", entry.answer.milliseconds !== undefined ? `${entry.answer.milliseconds.toFixed(1)} ms` : null]]),
    make("div", { class: "pair" },
      make("div", {}, make("h3", {}, "The device sent"),
        make("pre", {}, entry.headers.map(([name, value]) => `${name}: ${value}`).join("\n")), bodyOf(entry.body)),
      make("div", {}, make("h3", {}, "The store answered"), bodyOf(entry.answer))),
  ];
}
