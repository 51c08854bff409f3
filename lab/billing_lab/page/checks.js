// checks.js - judges the app, sets expectations, moves the lab's clock, and begins scenarios.
import { ask, send } from "./api.js";
import { conditions, numbers, textOf } from "./conditions.js";
import { byId, field, make, refill } from "./dom.js";
import { voice } from "./controls.js";

export function startChecks(meta) {
  const said = voice();
  const verdict = make("div", { class: "answer", role: "status" });
  const clock = make("output", { class: "faint" });
  const span = make("input", { size: 8, value: "1d", autocomplete: "off" });
  const scenario = make("textarea", { spellcheck: false, "aria-label": "Scenario as JSON", value: '{"scenario": 1}' });
  const expectations = startExpectations(meta, said);
  byId("checks").append(
    make("div", { class: "actions" },
      make("button", { type: "button", class: "main", onclick: () => said.hear(verify) }, "Judge the app")), verdict,
    ...expectations.parts,
    make("form", { class: "grid", onsubmit: (event) => { event.preventDefault(); said.hear(advance); } },
      ...field("Clock", clock), ...field("Span", span),
      make("div", { class: "wide actions" }, make("button", { type: "submit" }, "Move the clock forward"))),
    make("details", {}, make("summary", {}, "Begin a scenario"), scenario,
      make("div", { class: "actions" },
        make("button", { type: "button", onclick: () => said.hear(begin) }, "Reset the lab and begin it"))),
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
    const named = Object.entries(told.invoices).map((pair) => pair.join(": "));
    said.good([`${told.faults} faults, ${told.expectations} expectations`, ...named].join(", "));
  }

  return (now) => {
    clock.value = `${now.clock.now}, ${now.clock.ahead_seconds} s ahead`;
    expectations.show(now.expectations);
  };
}

/** The form and the list of expectations: the requests that the app must make. */
function startExpectations(meta, said) {
  const match = conditions(meta, "every endpoint");
  const often = numbers([
    ["times", "Times", { min: 0 }], ["at_least", "At least", { min: 0, placeholder: "1, without the others" }],
    ["at_most", "At most", { min: 0 }],
  ]);
  const name = make("input", { autocomplete: "off", placeholder: "the condition" });
  const list = make("ul", { class: "plain" });
  const form = make("form", { class: "grid", onsubmit: (event) => { event.preventDefault(); said.hear(expect); } },
    ...match.endpoint, ...often.fields, ...field("Name", name),
    make("details", { class: "wide" }, make("summary", {}, "For whom"), make("div", { class: "grid" }, ...match.more)),
    make("div", { class: "wide actions" }, make("button", { type: "submit" }, "Expect this"),
      make("button", { type: "button", onclick: () => said.hear(tell) }, "Is it so now?"),
      make("button", { type: "button", onclick: () => said.hear(forget) }, "Expect nothing")));

  const wanted = () => ({ ...match.chosen(), ...often.chosen(), ...(name.value.trim() ? { name: name.value.trim() } : {}) });

  async function expect() {
    await send("expectations", wanted());
    said.good("Added: it is checked whenever the app is judged.");
  }

  async function tell() {
    const told = await send("asked", wanted());
    if (!told.ok) throw new Error(told.message);
    said.good(told.message);
  }

  async function forget() {
    const told = await ask("expectations", { method: "DELETE" });
    said.good(`${told.forgotten} forgotten.`);
  }

  function show(expected) {
    refill(list, "Nothing more is expected than the usual rules.", ...expected.map((each) => {
      const { at_least: least, at_most: most, after: _after, name: called, ...words } = each;
      const times = most === undefined ? `at least ${least}` : least === most ? `${least}` : `${least} to ${most}`;
      return make("li", {}, make("span", { class: "grow" }, `${called ?? (textOf(words) || "every request")}: ${times} times`));
    }));
  }
  return { parts: [make("details", {}, make("summary", {}, "What the app must ask for"), form, list)], show };
}
