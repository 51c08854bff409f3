// checks.js - what the app did wrong, the lab's clock, and scenarios.
import { send } from "./api.js";
import { byId, field, make } from "./dom.js";
import { voice } from "./controls.js";

export function startChecks() {
  const said = voice();
  const verdict = make("div", { class: "answer", role: "status" });
  const clock = make("output", { class: "faint" });
  const span = make("input", { size: 8, value: "1d", autocomplete: "off" });
  const scenario = make("textarea", { spellcheck: false, "aria-label": "Scenario as JSON", value: '{"scenario": 1}' });
  byId("checks").append(
    make("div", { class: "actions" }, make("button", { type: "button", class: "main", onclick: () => said.hear(verify) }, "Judge the app")), verdict,
    make("form", { class: "grid", onsubmit: (event) => { event.preventDefault(); said.hear(advance); } },
      ...field("Clock", clock), ...field("Span", span), make("div", { class: "wide actions" }, make("button", { type: "submit" }, "Move the clock forward"))),
    make("details", {}, make("summary", {}, "Begin a scenario"), scenario,
      make("div", { class: "actions" }, make("button", { type: "button", onclick: () => said.hear(begin) }, "Reset the lab and begin it"))),
    said.line);

  async function verify() {
    const told = await send("verify", {});
    verdict.replaceChildren(...told.checks.map((check) => make("div", {},
      make("h3", { class: check.ok ? "good" : "bad" }, `${check.ok ? "good" : "bad"}: ${check.name}`),
      ...(check.ok ? [] : [make("pre", {}, check.message)]))));
  }

  async function advance() {
    const told = await send("clock", { advance: span.value.trim() });
    said.good(`${told.happened} steps happened.`);
  }

  async function begin() {
    let wanted;
    try {
      wanted = JSON.parse(scenario.value);
    } catch (error) {
      throw new Error(`This is no JSON: ${error.message}`);
    }
    const told = await send("scenario", wanted);
    said.good([`${told.faults} faults, ${told.expectations} expectations`, ...Object.entries(told.invoices).map((pair) => pair.join(": "))].join(", "));
  }

  return (now) => { clock.value = `${now.clock.now}, ${now.clock.ahead_seconds} s ahead`; };
}
