// dom.js - making elements. Texts become text nodes, never markup: a body may say anything.

/** make("button", {class: "main", onclick: f}, "Buy", child, ...) */
export function make(name, properties = {}, ...children) {
  const element = document.createElement(name);
  for (const [key, value] of Object.entries(properties)) {
    if (key.startsWith("on")) element.addEventListener(key.slice(2), value);
    else if (key in element && key !== "list") element[key] = value;
    else if (value !== undefined && value !== null) element.setAttribute(key === "class" ? "class" : key, value);
  }
  element.append(...children.filter((child) => child !== null && child !== undefined));
  return element;
}

export function byId(id) {
  return document.getElementById(id);
}

export function options(select, values, chosen) {
  select.replaceChildren(...values.map(([value, text]) => make("option", { value, selected: value === chosen }, text)));
}

let counter = 0;
/** A label and its field, for a grid of two columns. */
export function field(text, input) {
  input.id ||= `field-${++counter}`;
  return [make("label", { htmlFor: input.id }, text), input];
}

/** JSON indented where it is JSON, with no value rewritten beyond what JSON.stringify does; else the text. */
export function readable(text) {
  try {
    return JSON.stringify(JSON.parse(text), null, 2);
  } catch {
    return text;
  }
}

/** What must be kept over a reload. */
export const memory = {
  get(key, fallback) {
    try { return JSON.parse(sessionStorage.getItem(key)) ?? fallback; } catch { return fallback; }
  },
  set(key, value) {
    try { sessionStorage.setItem(key, JSON.stringify(value)); } catch { /* a private window */ }
  },
};
