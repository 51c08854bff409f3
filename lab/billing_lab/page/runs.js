// runs.js - exports the lab into a file, imports such a file, and compares the lab with one.
import { ask, send } from "./api.js";
import { byId, make } from "./dom.js";
import { voice } from "./controls.js";

export function startRuns() {
  const said = voice();
  const result = make("div", { class: "answer", role: "status" });
  const chosen = make("input", { type: "file", accept: ".json,.jsonl", "aria-label": "An export, or a journal" });
  const button = (text, act, name = "") => make("button", { type: "button", class: name, onclick: () => said.hear(act) }, text);
  byId("runs").append(
    make("p", { class: "faint" }, "For bug reports: the lab's state and journal, with tokens and ids of users hidden."),
    make("div", { class: "actions" }, button("Export to a file", write, "main")),
    make("div", { class: "actions" }, chosen, button("Import it", take), button("Compare with it", compare)),
    said.line, result);

  async function write() {
    const told = new Blob([JSON.stringify(await ask("export"), null, 1)], { type: "application/json" });
    const address = URL.createObjectURL(told);
    make("a", { href: address, download: "billing-lab.json" }).click();
    URL.revokeObjectURL(address);
    said.good(`billing-lab.json: ${told.size} bytes.`);
  }

  async function read() {
    if (!chosen.files.length) throw new Error("Choose a file first.");
    const text = await chosen.files[0].text();
    try {
      if (/^\s*{\s*"export"/.test(text)) return JSON.parse(text);
      return { journal: text.split("\n").filter((line) => line.trim()).map((line) => JSON.parse(line)) };
    } catch (error) {
      throw new Error(`This is neither an export nor a journal: ${error.message}`);
    }
  }

  async function take() {
    const { left_out: left, ...counts } = await send("import", await read());
    result.replaceChildren(...left.map((text) => make("p", { class: "odd" }, `left out: ${text}`)));
    said.good(Object.entries(counts).map(([name, count]) => `${count} ${name}`).join(", "));
  }

  async function compare() {
    const told = await send("diff", { first: await read() });
    result.replaceChildren(...told.settings.map((each) => make("p", {}, lineOf(each))), ...told.requests.map(requestOf));
    said.good(`${told.settings.length} settings differ; ${told.requests_same} requests the same, ${told.requests.length} not.`);
  }
}

const shown = (each, side) => (side in each ? JSON.stringify(each[side]) : "(none)");

const lineOf = (each) => `${each.what}: in the file ${shown(each, "first")}, here ${shown(each, "second")}`;

function requestOf(each) {
  if (each.differs) {
    const title = `${each.request} (journal ${each.first} in the file, ${each.second} here)`;
    return make("div", {}, make("h3", {}, title), ...each.differs.map((one) => make("p", {}, lineOf(one))));
  }
  const where = "first" in each ? `only in the file, journal ${each.first}` : `only here, journal ${each.second}`;
  return make("p", {}, `${each.request}: ${where}`);
}
