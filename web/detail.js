/* SPDX-License-Identifier: Apache-2.0 */
/* One port: badges, values, plots, identity, history. The plots and the history are asked for when
   the port is chosen, and again after each change of it. */
import { by_id, make, make_badge, make_event, set_text } from "./document.js";
import { limits_of, write_lanes } from "./lanes.js";
import { age_text, event_text, grade_badge, has_module, link_badge, measurements, module_text,
         time_text, title_of, value_text } from "./ports.js";

const section = by_id("port");
const plotted = [
  { name: "Power", unit: "dBm", digits: 2, series: [["receive", "rx_power_dbm"], ["transmit", "tx_power_dbm"]] },
  { name: "Temperature", unit: "°C", digits: 1, series: [["temperature", "temperature_c"]] },
  { name: "Laser bias", unit: "mA", digits: 2, series: [["bias", "tx_bias_ma"]] },
  { name: "Voltage", unit: "V", digits: 3, series: [["voltage", "voltage_v"]] },
];
const identity = [["Kind", "module"], ["Vendor", "vendor"], ["Part", "part"], ["Revision", "revision"],
                  ["Serial", "serial"], ["Date code", "date_code"], ["Product", "product"],
                  ["Extension", "product_ext"]];
/* Its legend needs inline styles, which our policy forbids; a line above the plot shows the
   same. */
Dygraph.PLUGINS = Dygraph.PLUGINS.filter((plugin) => String(plugin.prototype) !== "Legend Plugin");
let plots = [];
let range = "hour";
let shown = null; /* the number of the port */
let limits = {};  /* of its module, by the name of the plot */

function write_badges(port) {
  const badges = [link_badge(port)];
  if (port.status?.speed_gbps)
    badges[0] = { ...badges[0], text: `${badges[0].text}, ${port.status.speed_gbps} Gbit/s` };
  if (port.status?.environment === "set")
    badges.push({ text: "environment alarm", tone: "bad", sign: "!" });
  badges.push({ text: `${port.link_changes} link change${port.link_changes === 1 ? "" : "s"}`, tone: "none", sign: "↕" });
  by_id("badges").replaceChildren(...badges.map(make_badge));
}

function write_values(port) {
  const rows = measurements.filter(({ grade, value }) =>
    value || !["not supported", undefined].includes(port.status?.levels[grade]));
  by_id("values").tBodies[0].replaceChildren(...rows.map((row) => {
    const line = make("tr");
    const head = make("th", row.name);
    head.scope = "row";
    const grade = make("td");
    if (has_module(port) && port.status)
      grade.append(make_badge(grade_badge(port.status.levels[row.grade])));
    line.append(head, make("td", row.value ? value_text(port, row) : "–", "number"), grade);
    return line;
  }));
}

function write_identity(port) {
  const known = has_module(port) ? identity.filter(([, key]) => String(port.sfp[key]).trim()) : [];
  by_id("identity").replaceChildren(...known.flatMap(([name, key]) =>
    [make("dt", name), make("dd", String(port.sfp[key]).trim())]));
  if (!known.length)
    by_id("identity").append(make("dt", module_text(port)));
}

/* Of a day each point is a pair; the middle is drawn with its range. */
function to_rows(answer, series) {
  const count = answer[series[0][1]].length;
  return Array.from({ length: count }, (_, i) => {
    const time = new Date((answer.end - (count - 1 - i) * answer.step_s) * 1000);
    return [time, ...series.map(([, key]) => {
      const point = answer[key][i];
      if (answer.range === "hour")
        return point;
      return point ? [point[0], (point[0] + point[1]) / 2, point[1]] : [null, null, null];
    })];
  });
}

function summary_text(answer, { series, digits }) {
  return series.map(([name, key]) => {
    const flat = answer[key].flat().filter((value) => value !== null);
    if (!flat.length)
      return `${name}: nothing read`;
    const [least, greatest] = [Math.min(...flat).toFixed(digits), Math.max(...flat).toFixed(digits)];
    return `${name} ${least}${least === greatest ? "" : ` to ${greatest}`}`;
  }).join(", ");
}

/* Those that lie within what the plot shows: dashed, the alarms in another colour. */
function draw_limits(name, colour, canvas, area, graph) {
  canvas.save();
  canvas.setLineDash([4, 3]);
  for (const { value, is_alarm } of limits[name] ?? []) {
    const y = graph.toDomYCoord(value);
    if (y < area.y || y > area.y + area.h)
      continue;
    canvas.strokeStyle = colour(is_alarm ? "--bad" : "--warn");
    canvas.beginPath();
    canvas.moveTo(area.x, y);
    canvas.lineTo(area.x + area.w, y);
    canvas.stroke();
  }
  canvas.restore();
}

function draw(answer) {
  const style = getComputedStyle(document.documentElement);
  const colour = (name) => style.getPropertyValue(name).trim();
  const is_sparse = answer.temperature_c.filter((value) => value !== null).length < 30;
  plots.forEach((plot) => plot.destroy());
  plots = [];
  by_id("plots").replaceChildren();
  for (const what of plotted) {
    const figure = make("figure");
    const caption = make("figcaption");
    const readout = make("span", summary_text(answer, what), "dim");
    caption.append(make("span", `${what.name}, ${what.unit}`), readout);
    const place = make("div", "", "plot");
    place.setAttribute("role", "img");
    place.setAttribute("aria-label", `${what.name} of the last ${answer.range}: ${summary_text(answer, what)}`);
    figure.append(caption, place);
    by_id("plots").append(figure);
    plots.push(new Dygraph(place, to_rows(answer, what.series), {
      labels: ["time", ...what.series.map(([name]) => name)], customBars: answer.range === "day",
      colors: [colour("--plot-1"), colour("--plot-2")], gridLineColor: colour("--line"),
      axisLineColor: colour("--line"), strokeWidth: 1.75, drawPoints: is_sparse, pointSize: 2, xRangePad: 4, yRangePad: 8, axes: { y: { axisLabelWidth: 44 } }, interactionModel: {},
      underlayCallback: (...place) => draw_limits(what.name, colour, ...place),
      highlightCallback: (_, time, points) => set_text(readout, points.reduce(
        (text, { name, yval }) => `${text} ${name} ${yval?.toFixed(what.digits) ?? "–"}`, time_text(time))),
      unhighlightCallback: () => set_text(readout, summary_text(answer, what)),
    }));
  }
}

async function answer_of(path) {
  const response = await fetch(path, { signal: AbortSignal.timeout(5000) });
  if (!response.ok)
    throw new Error(`${path}: ${response.status}`);
  return response.json();
}

/* Nothing is drawn while the pointer reads a value. */
export async function load_plots() {
  const number = shown;
  if (number === null || by_id("plots").matches(":hover") && plots.length)
    return;
  const [answer, port] = await Promise.all([`api/plot?port=${number}&range=${range}`, `api/ports/${number}`]
    .map((path) => answer_of(path).catch(() => null)));
  if (port && shown === number) {
    limits = limits_of(port.details);
    write_lanes(port.details);
  }
  if (answer && shown === number && answer.range === range)
    draw(answer);
}

export async function load_history() {
  const number = shown;
  if (number === null)
    return;
  const answer = await answer_of(`api/events?port=${number}`).catch(() => null);
  if (!answer || shown !== number)
    return;
  const items = answer.events.reverse().slice(0, 100).map((event) => make_event(event, event_text(event)));
  by_id("history").replaceChildren(...(items.length ? items : [make("li", "nothing has happened yet", "dim")]));
}

/* Values that aren't shown have a reason. */
export function write_ages(port, age_of) {
  const read = port.pm ? `Values ${age_text(age_of(port.reading_age_s))} old`
    : has_module(port) ? `Values not known${port.pm_trouble ? `: ${port.pm_trouble}` : ""}` : "No values";
  const graded = has_module(port) && port.status ? `, grades ${age_text(age_of(port.grade_age_s))} old` : "";
  set_text(by_id("ages"), `${read}${graded}.`);
}

/* A port that isn't followed any more: nothing of it is known. */
export function write_gone(number) {
  set_text(by_id("port-title"), `Port ${number} isn't followed`);
  for (const part of section.querySelectorAll(".known"))
    part.hidden = true;
}

export function write_port(port, age_of) {
  set_text(by_id("port-title"), title_of(port.port, port.interface));
  for (const part of section.querySelectorAll(".known"))
    part.hidden = false;
  write_badges(port);
  write_values(port);
  write_identity(port);
  write_ages(port, age_of);
}

/* Shows another port, or none; there is nothing to load of one that isn't followed. */
export function choose_port(number, is_followed) {
  shown = number;
  limits = {};
  write_lanes(null);
  section.hidden = number === null;
  plots.forEach((plot) => plot.destroy());
  plots = [];
  by_id("plots").replaceChildren();
  by_id("history").replaceChildren();
  if (!is_followed)
    return;
  load_plots();
  load_history();
}

for (const button of section.querySelectorAll("button[data-range]")) {
  button.addEventListener("click", () => {
    range = button.dataset.range;
    for (const other of section.querySelectorAll("button[data-range]"))
      other.setAttribute("aria-pressed", String(other === button));
    load_plots();
  });
}
matchMedia("(prefers-color-scheme: dark)").addEventListener("change", load_plots);
