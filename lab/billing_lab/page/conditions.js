// conditions.js - fields for the conditions that choose requests: of faults, own answers and expectations.
import { field, make, options } from "./dom.js";

const LABELS = { app: "App", user: "User", invoice: "Invoice", product: "Product", custom_id: "Custom id", header: "Header" };
const HINTS = { header: "name, or name: value" };

/** @param first the text of the option for every endpoint; undefined if an endpoint must be chosen */
export function conditions(meta, first) {
  const endpoint = make("select");
  const methods = Object.entries(meta.endpoint_of).map(([method, name]) => [method, `${method} (${name})`]);
  options(endpoint, [...(first ? [["", first]] : []), ...meta.endpoints.map((name) => [name, name]), ...methods]);
  const words = Object.entries(LABELS).map(([name, label]) =>
    [name, label, make("input", { autocomplete: "off", placeholder: HINTS[name] ?? "any" })]);

  return {
    endpoint: field("Where", endpoint),
    more: words.flatMap(([, label, input]) => field(label, input)),
    chosen() {
      const said = words.map(([name, , input]) => [name, input.value.trim()]).filter(([, value]) => value);
      return { ...(endpoint.value ? { endpoint: endpoint.value } : {}), ...Object.fromEntries(said) };
    },
  };
}

/** Fields for optional numbers; an empty field is left out. @param known name, label and attributes of each */
export function numbers(known) {
  const inputs = known.map(([name, label, attributes]) => [name, label, make("input", { type: "number", ...attributes })]);
  return {
    fields: inputs.flatMap(([, label, input]) => field(label, input)),
    chosen() {
      const said = inputs.filter(([, , input]) => input.value !== "");
      return Object.fromEntries(said.map(([name, , input]) => [name, input.valueAsNumber]));
    },
  };
}

/** Conditions as a text. */
export function textOf(match) {
  const one = ([name, value]) => (name === "endpoint" ? value : `${LABELS[name] ?? name} ${value}`);
  return Object.entries(match).map(one).join(", ");
}
