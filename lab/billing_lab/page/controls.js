// controls.js - the device's switches and the faults.
import { ask, send } from "./api.js";
import { byId, field, make, options, refill, whenChosen } from "./dom.js";

/** A line under a form that says what went wrong, or nothing. */
export function voice() {
  const line = make("p", { class: "said", role: "status" });
  return {
    line,
    async hear(work) {
      line.textContent = "";
      line.classList.remove("good");
      try {
        return await work();
      } catch (problem) {
        line.textContent = problem.message;
        return undefined;
      }
    },
    good(text) {
      line.textContent = text;
      line.classList.add("good");
    },
  };
}

export function startDevice(meta, users, device) {
  const said = voice();
  const form = make("div", { class: "grid" });
  byId("device").append(form, said.line);
  const inputs = {
    "signed-in": make("select"), country: make("input", { size: 4, maxLength: 4 }), language: make("input", { size: 12 }),
    server: make("select"), gateway: make("select"), token: make("select"), service: make("select"),
  };
  options(inputs.server, meta.servers.map((name) => [name, name]));
  options(inputs.gateway, [["up", "up"], ["down", "down: no network"], ["auto", "as this machine"], ["error:5", "cannot be read"]]);
  options(inputs.token, [["valid", "valid"], ["expired", "expired"], ["none", "none"]]);
  options(inputs.service, [["up", "up"], ["hanging", "hanging: answers nothing"], ["absent", "absent"], ["refusing", "refusing: \"Try again later.\""], ["restart", "crash and start again"]]);
  const turn = (name, value) => said.hear(async () => showIt(await send("device", name === "signed-in" && !value ? { switch: "signed-out" } : { switch: name, value }), undefined, true));
  for (const [name, input] of Object.entries(inputs)) {
    whenChosen(input, () => turn(name, input.value.trim() || (input.tagName === "INPUT" ? "none" : "")));
    form.append(...field({ "signed-in": "Signed in", country: "Country", language: "Language", server: "Server", gateway: "Network", token: "Token", service: "Service" }[name], input));
  }
  const mocks = startNames(said);
  // What one is just writing or choosing is one's own, until it is set.
  function showIt(now, known, isSet = false, names = undefined) {
    if (names) mocks(names);
    const set = (name, value) => {
      if (isSet || document.activeElement !== inputs[name] || inputs[name].value === "") inputs[name].value = value;
    };
    if (known) options(inputs["signed-in"], [["", "nobody"], ...known.map((user) => [user.uid, user.uid])]);
    set("signed-in", now.signed_in ?? "");
    set("country", now.country ?? "");
    set("language", now.language ?? "");
    set("server", now.server);
    if (![...inputs.gateway.options].some((option) => option.value === now.gateway)) inputs.gateway.append(make("option", { value: now.gateway }, now.gateway));
    set("gateway", now.gateway);
    set("token", now.token);
    set("service", now.service);
  }
  showIt(device, users);
  return showIt;
}

/** The names that mocks of other services may own. @return shows them */
function startNames(said) {
  const name = make("input", { autocomplete: "off", placeholder: "org.example.Downloads" });
  const list = make("ul", { class: "plain" });
  byId("device").append(
    make("form", { class: "grid", onsubmit: (event) => { event.preventDefault(); said.hear(add); } },
      ...field("Name for a mock", name), make("div", { class: "wide actions" }, make("button", { type: "submit" }, "Let it be owned"))),
    list);

  async function add() {
    show(await send("names", { names: [name.value.trim()] }));
    name.value = "";
  }

  const remove = (one) => said.hear(async () => show(await ask(`names?name=${encodeURIComponent(one)}`, { method: "DELETE" })));

  function show(names) {
    refill(list, "No app may own a name on the lab's bus but the service.", ...names.map((one) => make("li", {},
      make("span", { class: "grow" }, one),
      make("button", { type: "button", "aria-label": `Remove ${one}`, onclick: () => remove(one) }, "Remove"))));
  }
  return show;
}

/** A list of faults, and the number that the chosen one takes, if it takes one. */
function faultChoice(kinds) {
  const kind = make("select");
  options(kind, Object.entries(kinds).map(([name, fault]) => [name, `${name}: ${fault.what}`]));
  const number = make("input", { type: "number" });
  const [label] = field("", number);
  kind.addEventListener("change", showNumber);
  showNumber();

  function showNumber() {
    const [name, option] = Object.entries(kinds[kind.value].options)[0] ?? [];
    for (const element of [label, number]) element.hidden = !name;
    if (!name) return;
    label.textContent = option.unit;
    Object.assign(number, { name, min: option.least, max: option.most, value: option.default });
  }
  return { kind, label, number, chosen: () => number.hidden ? {} : { [number.name]: number.valueAsNumber } };
}

export function startFaults(meta) {
  const said = voice();
  const connection = faultChoice(meta.connection_faults);
  const answer = faultChoice(meta.faults);
  const endpoint = make("select");
  options(endpoint, [["", "every endpoint"], ...meta.endpoints.map((name) => [name, name])]);
  const count = make("input", { type: "number", min: 1, placeholder: "until it is ended" });
  const list = make("ul", { class: "plain" });
  const form = make("form", { class: "grid", onsubmit: (event) => { event.preventDefault(); said.hear(add); } },
    ...field("Answers", answer.kind), ...field("Where", endpoint), answer.label, answer.number, ...field("How often", count),
    make("div", { class: "wide actions" }, make("button", { class: "main", type: "submit" }, "Switch this fault on"),
      make("button", { type: "button", onclick: () => said.hear(endAll) }, "End all faults")));
  const connections = make("form", { class: "grid", onsubmit: (event) => { event.preventDefault(); said.hear(turn); } },
    ...field("Connections", connection.kind), connection.label, connection.number,
    make("div", { class: "wide actions" }, make("button", { type: "submit" }, "Do this to all connections")));
  byId("faults").append(form, connections, said.line, list);

  async function add() {
    const wanted = { kind: answer.kind.value, ...answer.chosen() };
    if (endpoint.value) wanted.endpoint = endpoint.value;
    if (count.value) wanted.count = count.valueAsNumber;
    await send("faults", wanted);
    await refresh();
  }

  async function turn() {
    await send("connection", { fault: connection.kind.value, ...connection.chosen() });
    await refresh();
  }

  async function endAll() {
    await ask("faults", { method: "DELETE" });
    await send("connection", { fault: "none" });
    await refresh();
  }

  async function refresh() {
    show(await ask("status"));
  }

  function item(text, end, number = "") {
    return make("li", { "data-number": number }, make("span", { class: "grow" }, text),
      make("button", { type: "button", "aria-label": `End ${text}`, onclick: () => said.hear(async () => { await end(); await refresh(); }) }, "End"));
  }

  function show(status) {
    const all = ofConnections(status);
    refill(list, "No fault is on: every answer is as it should be.",
      ...(all ? [item(all, () => send("connection", { fault: "none" }))] : []),
      ...status.faults.filter((fault) => !fault.over).map((fault) => item(textOf(fault), () => ask(`faults?number=${fault.number}`, { method: "DELETE" }), fault.number)));
  }

  /** What is not as usual with all connections, or nothing. */
  function ofConnections({ connection: fault, connection_options: set, connections: now }) {
    const parts = fault === "none" ? [] : [`${fault}: ${meta.connection_faults[fault].what}`, ...pairs(set)];
    if (now.silent) parts.push(`${now.silent} silent ${now.silent === 1 ? "connection" : "connections"}`);
    if (!now.listening) parts.push("the store is down until its restart ends");
    return parts.join(", ");
  }

  function textOf(fault) {
    const { number: _, kind: name, endpoint: where, left, hits, ...rest } = fault;
    const more = pairs(Object.fromEntries(Object.entries(rest).filter(([key]) => !["over", "chance", "seed", "done", "struck"].includes(key))));
    return [`${name} at ${where ?? "every endpoint"}`, ...more, ...(left === undefined ? [] : [`${left} left`]), ...(hits ? [`struck ${hits}`] : [])].join(", ");
  }
  return { refresh, show };
}

function pairs(values) {
  return Object.entries(values).map(([key, value]) => `${key} ${typeof value === "object" ? JSON.stringify(value) : value}`);
}
