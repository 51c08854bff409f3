// shop.js - buys products, lists the invoices with their steps, and edits the catalogue.
import { ask, send } from "./api.js";
import { byId, field, make, options, refill } from "./dom.js";
import { voice } from "./controls.js";

// Statuses in which a purchase can no longer be cancelled or refunded.
const OVER = ["cancelled", "refunded", "declined", "expired"];

export function startInvoices() {
  const said = voice();
  const product = make("select");
  const user = make("select");
  const list = make("ul", { class: "plain" });
  byId("invoices").append(
    make("form", { class: "grid", onsubmit: (event) => { event.preventDefault(); buy(); } },
      ...field("Product", product), ...field("For", user),
      make("div", { class: "wide actions" }, make("button", { class: "main", type: "submit" }, "Buy"))),
    said.line, list);

  function buy() {
    const [app, id] = product.value.split("\n");
    return step("buy", { app, product: id, user: user.value || undefined });
  }

  function step(name, body) {
    return said.hear(async () => {
      const invoice = await send(name, body);
      await refresh();
      said.good(`${invoice.id} is ${invoice.status}.`);
    });
  }

  async function refresh() {
    refill(list, "No purchases yet.", ...(await ask("invoices")).map(itemOf));
  }

  function itemOf({ id, product: what, app, user: who, status }) {
    const over = OVER.includes(status);
    const words = [...(status === "pending" ? ["Approve", "Decline"] : []), ...(over ? [] : ["Cancel", "Refund"])];
    return make("li", {},
      make("span", { class: "grow" }, make("strong", {}, id), ` ${what} of ${app}, ${who}`),
      make("span", { class: over ? "odd" : "good" }, status),
      ...words.map((word) => make("button", {
        type: "button", "aria-label": `${word} ${id}`, onclick: () => step("step", { invoice: id, step: word.toLowerCase() }),
      }, word)));
  }

  function showCatalogue(catalogue) {
    const sold = catalogue.apps.flatMap((app) => app.products.map((one) => [app.id, one.id]));
    options(product, sold.map(([app, id]) => [`${app}\n${id}`, `${id} (${app})`]));
    options(user, [["", "who is signed in"], ...catalogue.users.map((one) => [one.uid, one.uid])]);
  }
  return { refresh, showCatalogue };
}

export function startCatalogue(onChange) {
  const said = voice();
  const summary = make("p", { class: "faint" });
  const text = make("textarea", { spellcheck: false, "aria-label": "Catalogue as JSON" });
  const more = make("details", {}, make("summary", {}, "Look at it and change it"), text,
    make("div", { class: "actions" },
      make("button", { type: "button", onclick: () => said.hear(seed) }, "Seed the lab with this"),
      make("button", { type: "button", onclick: () => said.hear(reset) }, "Reset the lab")));
  byId("catalogue").append(summary, more, said.line);

  async function seed() {
    await send("catalogue", { text: text.value });
    await onChange();
    said.good("Seeded. Purchases start again from this catalogue.");
  }

  async function reset() {
    await send("reset", {});
    await onChange();
    said.good("The state after the last seed is restored.");
  }

  return function show(catalogue) {
    const products = catalogue.apps.reduce((sum, app) => sum + app.products.length, 0);
    const countries = Object.keys(catalogue.countries).length;
    const counts = { apps: catalogue.apps.length, products, countries, users: catalogue.users.length };
    summary.textContent = Object.entries(counts).map(([name, count]) => `${count} ${name}`).join(", ");
    text.value = JSON.stringify(catalogue, null, 2);
  };
}
