// Figures over time, a line a node. D3 does scales, axes and lines; without it the tables say the same.
import { figure, html, list, number, parsed, shortName, svg, table, time } from "./elements.js";

const kWidth = 420, kHeight = 190, kMargin = { top: 8, right: 10, bottom: 24, left: 46 };
const kStyles = 8;

// What a plot takes from a record: [series, value] pairs.
const perNode = (member) => (payload) => list(payload.sl).map((node) => [String(node.dm), figure(member(node))]);
const bandRates = (payload) => list(payload.dl).flatMap((node) => list(node.bh).map((link) =>
  [`${node.dm} ${link.bt}`, figure(link.btx)]));

function clientsPerNode(payload) {
  const counts = new Map();
  for (const client of list(payload.cl)) counts.set(String(client.am), (counts.get(String(client.am)) ?? 0) + 1);
  return [...counts];
}

export const kPlots = [
  { id: "load", title: "Processor in use, %", eid: "system_info", take: perNode((node) => node.cu) },
  { id: "memory", title: "Memory in use, %", eid: "system_info", take: perNode((node) => node.mu) },
  { id: "cpu-temperature", title: "Temperature of the processor, °C", eid: "system_info", take: perNode((node) => node.tem?.cpu) },
  { id: "wifi-temperature", title: "Temperature of the first radio, °C", eid: "system_info", take: perNode((node) => node.tem?.w0) },
  { id: "connections", title: "Tracked connections", eid: "system_info", take: perNode((node) => node.natn) },
  { id: "clients", title: "Clients by node", eid: "client_info", take: clientsPerNode },
  { id: "rates", title: "Rates of the uplinks, Mbit/s", eid: "device_info", take: bandRates },
];

// points: [{at, payload text}] of the plot's record.
export function seriesOf(plot, points) {
  const series = new Map();
  for (const point of points) {
    for (const [name, value] of plot.take(parsed(point.payload))) {
      if (value === null) continue;
      if (!series.has(name)) series.set(name, []);
      series.get(name).push([point.at, value]);
    }
  }
  return [...series].slice(0, 32).map(([name, values]) => ({ name, values }));
}

function drawLines(plot, series, from, to) {
  const d3 = window.d3;
  const all = series.flatMap((one) => one.values);
  const highest = d3.max(all, (value) => value[1]) || 1;
  const x = d3.time.scale.utc().domain([new Date(from * 1000), new Date(to * 1000)]).range([kMargin.left, kWidth - kMargin.right]);
  const y = d3.scale.linear().domain([0, highest * 1.1]).range([kHeight - kMargin.bottom, kMargin.top]).nice();
  const line = d3.svg.line().x((value) => x(value[0] * 1000)).y((value) => y(value[1]));
  const picture = svg("svg", { viewBox: `0 0 ${kWidth} ${kHeight}`, role: "img",
    "aria-label": `${plot.title}: ${series.length} lines, ${all.length} values; the table below says the same` });
  const axes = d3.select(picture);
  axes.append("g").attr("class", "axis").attr("transform", `translate(0,${kHeight - kMargin.bottom})`)
    .call(d3.svg.axis().scale(x).orient("bottom").ticks(5).outerTickSize(0));
  axes.append("g").attr("class", "axis").attr("transform", `translate(${kMargin.left},0)`)
    .call(d3.svg.axis().scale(y).orient("left").ticks(4).outerTickSize(0).tickFormat(d3.format("s")));
  series.forEach((one, index) => {
    picture.append(svg("path", { class: `line s${index % kStyles}${index < kStyles ? "" : " again"}`, d: line(one.values), "data-points": one.values.length }));
    for (const value of one.values.length <= 120 ? one.values : one.values.slice(-1))
      picture.append(svg("circle", { class: `s${index % kStyles}`, r: one.values.length > 40 ? 1 : 2, cx: x(value[0] * 1000), cy: y(value[1]) }));
  });
  return picture;
}

function nameOf(name, names) {
  const [id, band] = name.split(" ");
  return shortName((names.get(id) ?? id.slice(0, 8)) + (band ? " " + band : ""), 24);
}

export function plotFigure(plot, answer, names, from, to) {
  const series = seriesOf(plot, answer.points);
  const made = html("figure", { class: "plot", id: `plot-${plot.id}` }, html("h3", {}, plot.title));
  if (series.length === 0) return fillEmpty(made);
  if (window.d3) made.append(drawLines(plot, series, from, to));
  made.append(html("ul", { class: "legend" }, series.map((one, index) => html("li", {},
    svg("svg", { viewBox: "0 0 10 10", "aria-hidden": "true" }, svg("rect", { width: 10, height: 10, class: `s${index % kStyles}` })),
    `${nameOf(one.name, names)}: ${number(one.values.at(-1)[1], 1)}`))));
  const rows = series.flatMap((one) => one.values.map(([at, value]) => ({ at, value, name: one.name })));
  rows.sort((a, b) => a.at - b.at);
  const details = html("details", {}, html("summary", {}, `${rows.length} values as a table`));
  details.addEventListener("toggle", () => {
    if (details.open && details.children.length === 1)
      details.append(table(plot.title, [["Time (UTC)", (row) => time(row.at)], ["Node", (row) => nameOf(row.name, names)],
        ["Value", (row) => number(row.value, 2), true]], rows.slice(-1000)));
  });
  made.append(details);
  return made;
}

function fillEmpty(made) {
  made.append(html("p", { class: "facts" }, "Nothing was reported in this time."));
  return made;
}
