// The page: which view the address asks for, what it fetches, and how it follows new uploads.
import { html, number, parsed, shortName, table, time } from "./elements.js";
import { drawMesh, legend, meshTables, meshTree } from "./picture.js";
import { kPlots, plotFigure } from "./plots.js";

const kPollMs = 5000;
const content = document.getElementById("content");
const status = document.getElementById("status");
const where = document.getElementById("where");
let shown = { key: "", mark: "" };
let range = { hours: 24 };
let search = "";

async function ask(path, parameters = {}) {
  const answer = await fetch(`${path}?${new URLSearchParams(parameters)}`);
  if (!answer.ok) throw new Error(answer.status === 404 ? "not known here" : `the receiver answered ${answer.status}`);
  return answer.json();
}

const meshLink = (device) => html("a", { href: `#mesh/${encodeURIComponent(device)}` }, shortName(device, 40));
const recordsLink = (device, text) => html("a", { href: `#records/${encodeURIComponent(device)}` }, text);

// --- List of meshes ---

async function meshesView() {
  const meshes = await ask("api/meshes", { search });
  const mark = JSON.stringify(meshes.map((mesh) => [mesh.device, mesh.uploads])) + search;
  return { mark, title: "Meshes", draw: () => {
    const field = html("input", { type: "search", value: search, id: "search" });
    field.addEventListener("change", () => { search = field.value; show(true); });
    return [html("h1", {}, "Meshes"), html("div", { class: "controls" }, html("label", {}, "Device id contains", field)),
      table("Meshes", [["Device", (mesh) => meshLink(mesh.device)], ["Model", (mesh) => shortName(mesh.model)],
        ["Firmware", (mesh) => shortName(mesh.firmware)], ["Last upload (UTC)", (mesh) => time(mesh.last_seen)],
        ["Uploads", (mesh) => number(mesh.uploads), true], ["Records", (mesh) => number(mesh.records), true],
        ["", (mesh) => recordsLink(mesh.device, "records")]], meshes),
      meshes.length ? "" : html("p", {}, "No upload has come yet.")];
  } };
}

// --- One mesh ---

const kRanges = [[1, "hour"], [6, "6 hours"], [24, "day"], [168, "week"], [720, "30 days"]];

function rangeControls(last) {
  const choice = html("select", { id: "range" }, kRanges.map(([hours, text]) =>
    html("option", { value: hours, ...(range.hours === hours ? { selected: "" } : {}) }, `the last ${text}`)),
    html("option", { value: 0, ...(range.hours ? {} : { selected: "" }) }, "from … to"));
  const at = (id, seconds) => html("input", { id, type: "datetime-local", value: new Date(seconds * 1000).toISOString().slice(0, 16) });
  const [from, to] = limits(last).map((seconds, index) => at(index ? "to" : "from", seconds));
  choice.addEventListener("change", () => { range = { ...range, hours: Number(choice.value) }; show(true); });
  for (const field of [from, to]) field.addEventListener("change", () => {
    const [first, end] = [from, to].map((one) => Date.parse(one.value + "Z") / 1000);
    if (first < end) { range = { hours: 0, from: first, to: end }; show(true); }
  });
  return html("div", { class: "controls", role: "group", "aria-label": "Time range" }, html("label", {}, "Time range", choice),
    html("label", {}, "From (UTC)", from), html("label", {}, "To (UTC)", to));
}

// The last hours up to the newest record, or what was asked for.
const limits = (last) => (range.hours || !range.to ? [last - (range.hours || 24) * 3600 - 60, last + 60] : [range.from, range.to]);

async function meshView(device) {
  const mesh = await ask("api/mesh", { device });
  const newest = Object.fromEntries(mesh.newest.map((record) => [record.eid, parsed(record.payload)]));
  const last = Math.max(0, ...mesh.newest.map((record) => record.at));
  const [from, to] = limits(last);
  const mark = `${mesh.uploads} ${from} ${to}`;
  if (shown.mark === mark) return { mark };
  const kinds = [...new Set(kPlots.map((plot) => plot.eid))];
  const answers = Object.fromEntries(await Promise.all(kinds.map(async (eid) =>
    [eid, await ask("api/series", { device, eid, from, to })])));
  return { mark, title: `Mesh ${device}`, draw: () => {
    const tree = meshTree(newest);
    const names = new Map(tree.map((node) => [node.id, node.name]));
    const clients = tree.reduce((sum, node) => sum + node.clients.length, 0);
    return [html("h1", {}, "Mesh ", shortName(mesh.device)),
      html("p", { class: "facts" }, `${shortName(mesh.model)}, firmware ${shortName(mesh.firmware)}; ${number(tree.length)} nodes, ` +
        `${number(clients)} clients; ${number(mesh.uploads)} uploads, the last at ${time(mesh.last_seen)} UTC. `,
        recordsLink(device, "All records")),
      html("section", { "aria-labelledby": "now" }, html("h2", { id: "now" }, "Now"),
        html("div", { class: "picture" }, drawMesh(tree, content.clientWidth - 50), legend()), meshTables(tree)),
      html("section", { "aria-labelledby": "over-time" }, html("h2", { id: "over-time" }, "Over time"), rangeControls(last),
        html("div", { class: "plots" }, kPlots.map((plot) => plotFigure(plot, answers[plot.eid], names, from, to))))];
  } };
}

// --- Records ---

async function recordsView(device, before) {
  const records = await ask("api/records", { device, ...(before ? { before } : {}) });
  const oldest = records.at(-1)?.id;
  return { mark: JSON.stringify(records.map((record) => record.id)), title: `Records of ${device}`, draw: () => [
    html("h1", {}, "Records of ", meshLink(device)),
    table("Records", [
      ["Record", (record) => html("a", { href: `#record/${encodeURIComponent(device)}/${record.id}` }, shortName(record.eid))],
      ["Collected (UTC)", (record) => time(record.at)], ["Bytes", (record) => number(record.bytes), true]], records),
    records.length === 100 ? html("p", {}, html("a", { href: `#records/${encodeURIComponent(device)}/${oldest}` }, "Older records")) : ""] };
}

async function recordView(device, id) {
  const record = await ask("api/record", { device, id });
  return { mark: id, title: `Record ${record.eid}`, draw: () => {
    let formatted = record.payload;
    try {
      formatted = JSON.stringify(JSON.parse(record.payload), null, 2);
    } catch { /* shown as it came */ }
    return [html("h1", {}, "Record ", shortName(record.eid)),
      html("p", { class: "facts" }, "Of ", meshLink(device), `, collected at ${time(Number(record.ct))} UTC, received at ${time(record.received)} UTC; `,
        recordsLink(device, "all records")),
      html("h2", {}, "As it arrived"), html("pre", { tabindex: "0", id: "raw", "aria-label": "Payload as it arrived" }, record.payload),
      html("h2", {}, "In lines"), html("pre", { tabindex: "0", "aria-label": "Payload in lines" }, formatted)];
  } };
}

// --- The view that the address asks for ---

function viewOf(hash) {
  const [view, device = "", more = ""] = hash.replace(/^#/, "").split("/").map(decodeURIComponent);
  if (view === "mesh") return () => meshView(device);
  if (view === "records") return () => recordsView(device, more);
  if (view === "record") return () => recordView(device, more);
  return meshesView;
}

async function show(again = false) {
  const key = location.hash;
  if (again || key !== shown.key) shown = { key, mark: "" };
  try {
    const made = await viewOf(key)();
    if (key !== location.hash || !made || made.mark === shown.mark) {
      if (key === location.hash) status.textContent = "";
      return;
    }
    const followed = shown.mark !== "";
    const focused = document.activeElement?.id;
    // Somebody reads a table that would close, types, or stands on a link.
    if (followed && content.querySelector(".plot details[open], input:focus, td a:focus, summary:focus")) return;
    const open = followed ? [...content.querySelectorAll("details[id]")].map((one) => [one.id, one.open]) : [];
    shown = { key, mark: made.mark };
    document.title = made.title;
    where.textContent = made.title === "Meshes" ? "" : `› ${shortName(made.title)}`;
    content.replaceChildren(...made.draw().filter(Boolean));
    for (const [id, isOpen] of open) document.getElementById(id).open = isOpen;
    if (focused) document.getElementById(focused)?.focus();
    status.textContent = followed ? `A new upload came; shown at ${new Date().toISOString().slice(11, 19)} UTC.` : "";
    document.documentElement.dataset.shown = key || "#";
  } catch (error) {
    status.textContent = `No answer: ${error.message}`;
  }
}

window.addEventListener("hashchange", () => { show(true); content.focus(); });
setInterval(() => { if (!document.hidden) show(); }, kPollMs);
show(true);

// The address names the view: a jump inside the page must not change it.
document.querySelector("a.skip").addEventListener("click", (event) => {
  event.preventDefault();
  content.focus();
});
