// shop.js - the catalogue and the invoices.
import { ask, send } from "./api.js";
import { byId, field, make, options, refill } from "./dom.js";
import { voice } from "./controls.js";

// Nothing can be taken back any more.
const OVER = ["cancelled", "refunded", "declined", "expired"];

export function startInvoices() {
  const said = voice();
  const product = make("select");
  const user = make("select");
  const list = make("ul", { class: "plain" });
  byId("invoices").append(
    make("form", { class: "grid", onsubmit: (event) => { event.preventDefault(); step("buy", { app: product.value.split("\n")[0], product: product.value.split("\n")[1], user: user.value || undefined }); } },
      ...field("Product", product), ...field("For", user), make("div", { class: "wide actions" }, make("button", { class: "main", type: "submit" }, "Buy"))),
    said.line, list);

  function step(name, body) {
    return said.hear(async () => {
      const invoice = await send(name, body);
      await refresh();
      said.good(`${invoice.id} is ${invoice.status}.`);
    });
  }

  async function refresh() {
    const invoices = await ask("invoices");
    refill(list, "Nobody has bought anything yet.", ...invoices.map((invoice) => make("li", {},
      make("span", { class: "grow" }, make("strong", {}, invoice.id), ` ${invoice.product} of ${invoice.app}, ${invoice.user}`),
      make("span", { class: OVER.includes(invoice.status) ? "odd" : "good" }, invoice.status),
      ...(invoice.status === "pending" ? ["Approve", "Decline"].map((word) =>
        make("button", { type: "button", "aria-label": `${word} ${invoice.id}`, onclick: () => step("step", { invoice: invoice.id, step: word.toLowerCase() }) }, word)) : []),
      ...(OVER.includes(invoice.status) ? [] : [
        make("button", { type: "button", "aria-label": `Cancel ${invoice.id}`, onclick: () => step("cancel", { invoice: invoice.id }) }, "Cancel"),
        make("button", { type: "button", "aria-label": `Refund ${invoice.id}`, onclick: () => step("refund", { invoice: invoice.id }) }, "Refund")]))));
  }

  function showCatalogue(catalogue) {
    options(product, catalogue.apps.flatMap((app) => app.products.map((one) => [`${app.id}\n${one.id}`, `${one.id} (${app.id})`])));
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
      make("button", { type: "button", onclick: () => said.hear(async () => { await send("catalogue", { text: text.value }); await onChange(); said.good("Seeded. Purchases start again from this catalogue."); }) }, "Seed the lab with this"),
      make("button", { type: "button", onclick: () => said.hear(async () => { await send("reset", {}); await onChange(); said.good("As it was after the last seed."); }) }, "Reset the lab")));
  byId("catalogue").append(summary, more, said.line);
  return function show(catalogue) {
    const products = catalogue.apps.reduce((sum, app) => sum + app.products.length, 0);
    summary.textContent = `${catalogue.apps.length} apps, ${products} products, ${Object.keys(catalogue.countries).length} countries, ${catalogue.users.length} users`;
    text.value = JSON.stringify(catalogue, null, 2);
  };
}
