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

/** Another content for a list, or a line for an empty one. What is the same stays as it is; the focus stays at the button of
 * the same name, or in the list where that is gone. */
export function refill(list, empty, ...items) {
  if (!items.length) items.push(make("li", { class: "faint" }, empty));
  if (list.innerHTML === items.map((item) => item.outerHTML).join("")) return;
  const active = document.activeElement;
  const name = list.contains(active) ? nameOf(active) : null;
  list.replaceChildren(...items);
  if (name === null) return;
  const buttons = [...list.querySelectorAll("button")];
  list.tabIndex = -1;
  (buttons.find((button) => nameOf(button) === name) ?? buttons[0] ?? list).focus();
}

const nameOf = (element) => element.getAttribute("aria-label") ?? element.textContent;

/** Calls act when a choice is made: at once with a pointer; with arrow keys not while one goes through the values,
 * but at Enter or when the field is left. */
export function whenChosen(input, act) {
  let waiting = false;
  let arrows = false;
  const done = () => { if (waiting) { waiting = false; act(); } };
  input.addEventListener("keydown", (event) => {
    arrows = !["Enter", "Tab"].includes(event.key);
    if (event.key === "Enter") done();
  });
  input.addEventListener("pointerdown", () => { arrows = false; });
  input.addEventListener("change", () => {
    waiting = true;
    if (!arrows || input.tagName !== "SELECT") done();
  });
  input.addEventListener("blur", () => { arrows = false; done(); });
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
