// controls.js - the device's switches, and the names that mocks may own on its bus.
import { ask, send } from "./api.js";
import { byId, field, make, options, refill, whenChosen } from "./dom.js";

/** A line under a form, for the result of an action or its error. hear() runs an action and shows its error. */
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

const LABELS = {
  "signed-in": "Signed in", country: "Country", language: "Language", server: "Server", gateway: "Network", token: "Token",
  service: "Service",
};
const STATES = {
  up: "up", hanging: "hanging: answers nothing", absent: "absent", refusing: 'refusing: "Try again later."',
  restart: "crash and start again",
};

export function startDevice(meta, users, device) {
  const said = voice();
  const form = make("div", { class: "grid" });
  byId("device").append(form, said.line);
  const inputs = {
    "signed-in": make("select"), country: make("input", { size: 4, maxLength: 4 }), language: make("input", { size: 12 }),
    server: make("select"), gateway: make("select"), token: make("select"), service: make("select"),
  };
  options(inputs.server, meta.servers.map((name) => [name, name]));
  options(inputs.gateway,
    [["up", "up"], ["down", "down: no network"], ["auto", "as this machine"], ["error:5", "cannot be read"]]);
  options(inputs.token, ["valid", "expired", "none"].map((name) => [name, name]));
  options(inputs.service, Object.entries(STATES));
  const turn = (name, value) => said.hear(async () => {
    const wanted = name === "signed-in" && !value ? { switch: "signed-out" } : { switch: name, value };
    showIt(await send("device", wanted), undefined, true);
  });
  for (const [name, input] of Object.entries(inputs)) {
    whenChosen(input, () => turn(name, input.value.trim() || (input.tagName === "INPUT" ? "none" : "")));
    form.append(...field(LABELS[name], input));
  }
  const mocks = startNames(said);
  // A field with the focus keeps its value: the user may be changing it.
  function showIt(now, known, isSet = false, names = undefined) {
    if (names) mocks(names);
    const set = (name, value) => {
      if (isSet || document.activeElement !== inputs[name] || inputs[name].value === "") inputs[name].value = value;
    };
    if (known) options(inputs["signed-in"], [["", "no user"], ...known.map((user) => [user.uid, user.uid])]);
    set("signed-in", now.signed_in ?? "");
    set("country", now.country ?? "");
    set("language", now.language ?? "");
    set("server", now.server);
    if (![...inputs.gateway.options].some((option) => option.value === now.gateway)) {
      inputs.gateway.append(make("option", { value: now.gateway }, now.gateway));
    }
    set("gateway", now.gateway);
    set("token", now.token);
    set("service", now.service);
  }
  showIt(device, users);
  return showIt;
}

/** The form and the list of names that mocks of other services may own. @return a function that shows the names */
function startNames(said) {
  const name = make("input", { autocomplete: "off", placeholder: "org.example.Downloads" });
  const list = make("ul", { class: "plain" });
  byId("device").append(
    make("form", { class: "grid", onsubmit: (event) => { event.preventDefault(); said.hear(add); } },
        ...field("Name for a mock", name),
      make("div", { class: "wide actions" }, make("button", { type: "submit" }, "Allow this name"))), list);

  async function add() {
    show(await send("names", { names: [name.value.trim()] }));
    name.value = "";
  }

  const remove = (one) => said.hear(async () =>
    show(await ask(`names?name=${encodeURIComponent(one)}`, { method: "DELETE" })));

  function show(names) {
    refill(list, "Only the service may own a name on the lab's bus.", ...names.map((one) => make("li", {},
      make("span", { class: "grow" }, one),
      make("button", { type: "button", "aria-label": `Remove ${one}`, onclick: () => remove(one) }, "Remove"))));
  }
  return show;
}
