// dom.js - makes elements. Texts become text nodes, never markup, since a body may contain anything.

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

/** Replaces the items of a list; without items, shows the line `empty`. A list that would not change is left alone. If an
 * element in it had the focus, the button of the same name gets it, else the first button, else the list. */
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

/** Calls act when the user has made a choice. With the pointer that is at once. Arrow keys change a select at each press:
 * then it is at Enter, or when the field loses the focus. */
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

/** A text with JSON indented; another text unchanged. */
export function readable(text) {
  try {
    return JSON.stringify(JSON.parse(text), null, 2);
  } catch {
    return text;
  }
}

/** Values that stay over a reload of the page, in the session's storage. */
export const memory = {
  get(key, fallback) {
    try { return JSON.parse(sessionStorage.getItem(key)) ?? fallback; } catch { return fallback; }
  },
  set(key, value) {
    try { sessionStorage.setItem(key, JSON.stringify(value)); } catch { /* a private window may refuse storage */ }
  },
};
