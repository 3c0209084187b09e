// A mesh as a picture: its nodes as a tree with the rates of the uplinks, its clients around their nodes.
import { figure, html, list, number, shortName, svg, table } from "./elements.js";

const kBands = [["wired", "wired"], ["2.4G", "g24"], ["5G", "g5"], ["6G", "g6"]];
const kKinds = [["phone", "M0-5L5 4H-5Z"], ["laptop", "M-5-4H5V4H-5Z"], ["pc", "M-5-4H5V4H-5Z"],
  ["iot_device", "M0-5.5L5.5 0L0 5.5L-5.5 0Z"]];
const kOther = "M-4.5 0A4.5 4.5 0 1 0 4.5 0A4.5 4.5 0 1 0-4.5 0Z";
const kRowHeight = 46, kClientStep = 14, kPerRow = 16, kNodeWidth = 150, kIndent = 36, kLeft = 8;

const bandClass = (band) => (kBands.find(([name]) => name === band) ?? kBands[0])[1];
const shapeOf = (kind) => (kKinds.find(([name]) => name === kind) ?? [null, kOther])[1];

// Nodes in the order in which they hang from each other, each with its depth and clients. A parent that is not there,
// or a ring of parents, leaves a node at the root.
export function meshTree(newest) {
  const nodes = new Map();
  const add = (id) => nodes.get(id) ?? nodes.set(id, { id, name: id.slice(0, 8), clients: [], links: [] }).get(id);
  for (const entry of list(newest.device_info?.dl)) {
    const node = add(String(entry.dm));
    Object.assign(node, { name: String(entry.dnk || entry.dmodel || node.name), parent: entry.pm ? String(entry.pm) : null,
      model: String(entry.dmodel ?? ""), delay: figure(entry.ddl),
      links: list(entry.bh).map((link) => ({ band: String(link.bt ?? "?"), up: figure(link.btx), down: figure(link.brx) })) });
  }
  for (const entry of list(newest.system_info?.sl)) add(String(entry.dm));
  for (const entry of list(newest.client_info?.cl)) {
    const client = { id: String(entry.mk ?? ""), band: String(entry.ctype ?? ""), kind: String(entry.type ?? "other"),
      category: entry.itype ? String(entry.itype) : "", up: figure(entry.ngrx), down: figure(entry.ngtx), level: figure(entry.sl) };
    add(String(entry.am ?? "unknown node")).clients.push(client);
  }
  const ordered = [], seen = new Set();
  const visit = (node, depth) => {
    if (seen.has(node.id)) return;
    seen.add(node.id);
    node.depth = depth;
    ordered.push(node);
    for (const child of nodes.values()) if (child.parent === node.id) visit(child, depth + 1);
  };
  for (const node of nodes.values()) if (!nodes.has(node.parent)) visit(node, 0);
  for (const node of nodes.values()) visit(node, 0);
  for (const node of ordered)
    node.clients.sort((a, b) => a.band.localeCompare(b.band) || a.kind.localeCompare(b.kind));
  return ordered;
}

const linkText = (link) => `${shortName(link.band, 8)} ${number(link.up)}↑ ${number(link.down)}↓`;
const clientText = (client) => `${shortName(client.category || client.kind)}, ${shortName(client.band, 8)}`;

function drawNode(node, top, width) {
  const left = kLeft + Math.min(node.depth, 6) * kIndent;
  const perRow = Math.max(4, Math.min(kPerRow * 3, Math.floor((width - left - kNodeWidth - 24) / kClientStep)));
  const rows = Math.max(1, Math.ceil(node.clients.length / perRow));
  const height = Math.max(kRowHeight, rows * kClientStep + 22);
  const group = svg("g", { class: "node", transform: `translate(${left},${top})`, "data-node": node.id });
  group.append(svg("title", {}, shortName(node.name, 200)), svg("rect", { width: kNodeWidth, height: 28, rx: 6 }),
    svg("text", { x: 8, y: 19 }, shortName(node.name, 18)));
  const links = svg("g", { transform: `translate(${left},${top})` });
  node.links.forEach((link, index) => links.append(svg("text", { class: "soft", x: 24, y: 42 + 14 * index }, linkText(link))));
  const clients = svg("g", { transform: `translate(${left + kNodeWidth + 14},${top + 8})` });
  node.clients.forEach((client, index) => {
    const at = `translate(${(index % perRow) * kClientStep + 6},${Math.floor(index / perRow) * kClientStep + 6})`;
    clients.append(svg("path", { class: `client ${bandClass(client.band)}`, d: shapeOf(client.kind), transform: at },
      svg("title", {}, clientText(client))));
  });
  return { group, links, clients, left, height: Math.max(height, 34 + 14 * node.links.length + 8) };
}

export function drawMesh(tree, available) {
  const width = Math.max(340, Math.min(1180, available));
  const places = new Map(), drawn = [], lines = [];
  let top = 8;
  for (const node of tree) {
    const made = drawNode(node, top, width);
    places.set(node.id, { left: made.left, top });
    const parent = places.get(node.parent);
    if (parent && node.depth > 0) {
      const x = parent.left + 16, y = top + 14;
      lines.push(svg("path", { class: "uplink", d: `M${x} ${parent.top + 28}V${y}H${made.left}`, "data-from": node.parent, "data-to": node.id }));
    }
    drawn.push(made.links, made.clients, made.group);
    top += made.height;
  }
  const clients = tree.reduce((sum, node) => sum + node.clients.length, 0);
  return svg("svg", { viewBox: `0 0 ${width} ${top}`, role: "img",
    "aria-label": `${tree.length} nodes, ${clients} clients; the table below says the same` }, lines, drawn);
}

export function legend() {
  const entry = (shape, colour, text) => html("li", {}, svg("svg", { viewBox: "-7 -7 14 14", "aria-hidden": "true" },
    svg("path", { d: shape, class: colour })), text);
  return html("ul", { class: "legend", "aria-label": "Legend" },
    kBands.map(([name, colour]) => entry(kOther, colour, name)),
    entry(shapeOf("phone"), "wired", "phone"), entry(shapeOf("laptop"), "wired", "computer"),
    entry(shapeOf("iot_device"), "wired", "IoT device"), entry(kOther, "wired", "other"));
}

export function meshTables(tree) {
  const names = new Map(tree.map((node) => [node.id, node.name]));
  const clients = tree.flatMap((node) => node.clients.map((client) => ({ ...client, node: node.name })));
  return [
    html("details", { id: "nodes-table", open: "" }, html("summary", {}, "Nodes as a table"), table("Nodes", [
      ["Node", (node) => shortName(node.name)], ["Model", (node) => shortName(node.model ?? "")],
      ["Hangs from", (node) => (node.parent ? shortName(names.get(node.parent) ?? node.parent) : "–")],
      ["Links, Mbit/s", (node) => node.links.map(linkText).join(", ") || "–"],
      ["Delay, ms", (node) => number(node.delay, 2), true], ["Clients", (node) => number(node.clients.length), true]], tree)),
    html("details", { id: "clients-table" }, html("summary", {}, "Clients as a table"), table("Clients", [
      ["Client", (client) => client.id.slice(0, 8)], ["Kind", (client) => shortName(client.kind)],
      ["IoT", (client) => shortName(client.category)], ["At node", (client) => shortName(client.node)],
      ["Band", (client) => shortName(client.band)], ["To it, Mbit/s", (client) => number(client.down), true],
      ["From it, Mbit/s", (client) => number(client.up), true], ["Signal", (client) => number(client.level), true]], clients)),
  ];
}
