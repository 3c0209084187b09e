// Elements and texts. What comes from a record is only ever the text of a node or the value of an attribute that
// holds text: nothing here, or anywhere on the page, takes markup.
const kSvg = "http://www.w3.org/2000/svg";
const kMaxName = 48;

function fill(element, attributes, children) {
  for (const [name, value] of Object.entries(attributes)) element.setAttribute(name, value);
  for (const child of children.flat())
    element.append(child instanceof Node ? child : document.createTextNode(String(child)));
  return element;
}

export const html = (name, attributes = {}, ...children) => fill(document.createElement(name), attributes, children);
export const svg = (name, attributes = {}, ...children) => fill(document.createElementNS(kSvg, name), attributes, children);

// Short, and with its direction kept to itself: a right-to-left mark in a name does not turn what stands beside it.
export function shortName(text, limit = kMaxName) {
  const characters = Array.from(String(text ?? ""));
  const shown = characters.length > limit ? characters.slice(0, limit - 1).join("") + "…" : characters.join("");
  return "\u2068" + shown.replace(/[\u0000-\u001f\u007f\u202a-\u202e\u2066-\u2069]/g, "\ufffd") + "\u2069";
}

export const number = (value, digits = 0) => Number.isFinite(value)
  ? value.toLocaleString("en", { maximumFractionDigits: digits }) : "–";

// Seconds since 1970 as UTC.
export function time(seconds) {
  const date = new Date(seconds * 1000);
  return Number.isFinite(date.getTime()) ? date.toISOString().slice(0, 16).replace("T", " ") : "–";
}

// columns: [heading, (row) => cell text or node, is it a number].
export function table(caption, columns, rows) {
  const head = html("tr", {}, columns.map(([heading, , isNumber]) =>
    html("th", { scope: "col", ...(isNumber ? { class: "number" } : {}) }, heading)));
  const body = rows.map((row) => html("tr", {}, columns.map(([, cell, isNumber]) =>
    html("td", isNumber ? { class: "number" } : { dir: "auto" }, cell(row)))));
  const made = html("table", {}, html("caption", { class: "skip" }, caption), html("thead", {}, head), html("tbody", {}, body));
  return html("div", { class: "scroll", tabindex: "0", role: "region", "aria-label": caption }, made);
}

// Lists and objects of a record, whatever it holds in their place.
export const list = (value) => (Array.isArray(value) ? value.filter((entry) => entry && typeof entry === "object") : []);
export const figure = (value) => (typeof value === "number" && value >= 0 ? value : null);
export function parsed(text) {
  try {
    const value = JSON.parse(text);
    return value && typeof value === "object" ? value : {};
  } catch {
    return {};
  }
}
