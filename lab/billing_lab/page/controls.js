// controls.js - the device's switches and the faults.
import { ask, send } from "./api.js";
import { byId, field, make, options } from "./dom.js";

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
    server: make("select"), gateway: make("select"), token: make("select"),
  };
  options(inputs.server, meta.servers.map((name) => [name, name]));
  options(inputs.gateway, [["up", "up"], ["down", "down: no network"], ["auto", "as this machine"], ["error:5", "cannot be read"]]);
  options(inputs.token, [["valid", "valid"], ["expired", "expired"], ["none", "none"]]);
  const turn = (name, value) => said.hear(async () => showIt(await send("device", name === "signed-in" && !value ? { switch: "signed-out" } : { switch: name, value })));
  for (const [name, input] of Object.entries(inputs)) {
    input.addEventListener("change", () => turn(name, input.value.trim() || (input.tagName === "INPUT" ? "none" : "")));
    form.append(...field({ "signed-in": "Signed in", country: "Country", language: "Language", server: "Server", gateway: "Network", token: "Token" }[name], input));
  }
  function showIt(now, known) {
    if (known) options(inputs["signed-in"], [["", "nobody"], ...known.map((user) => [user.uid, user.uid])]);
    inputs["signed-in"].value = now.signed_in ?? "";
    inputs.country.value = now.country ?? "";
    inputs.language.value = now.language ?? "";
    inputs.server.value = now.server;
    if (![...inputs.gateway.options].some((option) => option.value === now.gateway)) inputs.gateway.append(make("option", { value: now.gateway }, now.gateway));
    inputs.gateway.value = now.gateway;
    inputs.token.value = now.token;
  }
  showIt(device, users);
  return showIt;
}

export function startFaults(meta) {
  const said = voice();
  const connection = make("select");
  options(connection, Object.entries(meta.connection_faults));
  connection.addEventListener("change", () => said.hear(() => send("connection", { fault: connection.value })));
  const kind = make("select");
  options(kind, Object.entries(meta.faults).map(([name, fault]) => [name, `${name}: ${fault.what}`]));
  const endpoint = make("select");
  options(endpoint, [["", "every endpoint"], ...meta.endpoints.map((name) => [name, name])]);
  const number = make("input", { type: "number" });
  const count = make("input", { type: "number", min: 1, placeholder: "until it is ended" });
  const [numberLabel] = field("", number);
  const list = make("ul", { class: "plain" });
  const form = make("form", { class: "grid", onsubmit: (event) => { event.preventDefault(); said.hear(add); } },
    ...field("Connections", connection), ...field("Answers", kind), ...field("Where", endpoint), numberLabel, number,
    ...field("How often", count), make("div", { class: "wide actions" }, make("button", { class: "main", type: "submit" }, "Switch this fault on"),
      make("button", { type: "button", onclick: () => said.hear(async () => { await ask("faults", { method: "DELETE" }); await refresh(); }) }, "End all")));
  byId("faults").append(form, said.line, list);

  function showNumber() {
    const [name, option] = Object.entries(meta.faults[kind.value].options)[0] ?? [];
    for (const element of [numberLabel, number]) element.hidden = !name;
    if (!name) return;
    numberLabel.textContent = option.unit;
    Object.assign(number, { name, min: option.least, max: option.most, value: option.default });
  }
  kind.addEventListener("change", showNumber);
  showNumber();

  async function add() {
    const wanted = { kind: kind.value };
    if (!number.hidden) wanted[number.name] = number.valueAsNumber;
    if (endpoint.value) wanted.endpoint = endpoint.value;
    if (count.value) wanted.count = count.valueAsNumber;
    await send("faults", wanted);
    await refresh();
  }

  async function refresh() {
    show(await ask("faults"));
  }

  function show(faults) {
    list.replaceChildren(...faults.filter((fault) => !fault.over).map((fault) => make("li", {},
      make("span", { class: "grow" }, textOf(fault)),
      make("button", { type: "button", onclick: () => said.hear(async () => { await ask(`faults?number=${fault.number}`, { method: "DELETE" }); await refresh(); }) }, "End"))));
    if (!list.children.length) list.replaceChildren(make("li", { class: "faint" }, "No fault is on: every answer is as it should be."));
  }

  function textOf(fault) {
    const { number: _, kind: name, endpoint: where, count_left: left, ...rest } = fault;
    const more = Object.entries(rest).filter(([key]) => !["over", "chance", "seed", "done"].includes(key)).map(([key, value]) => `${key} ${typeof value === "object" ? JSON.stringify(value) : value}`);
    return [`${name} at ${where ?? "every endpoint"}`, ...more, ...(left === undefined ? [] : [`${left} left`])].join(", ");
  }
  return { refresh, show, showConnection: (fault) => { connection.value = fault; } };
}
