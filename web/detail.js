/* SPDX-License-Identifier: Apache-2.0 */
/* One port: badges, values, plots, identity, history. Plots and history are requested when the port
   is chosen, and again after each change of the port. */
import { by_id, make, make_badge, make_event, set_text } from "./document.js";
import { forget_falls, take_falls, write_falls } from "./falls.js";
import { limits_of, write_lanes } from "./lanes.js";
import { age_text, event_text, forecast_badge, grade_badge, has_module, link_badge, measurements, module_text,
         time_text, title_of, value_text } from "./ports.js";

const section = by_id("port");
const plotted = [
  { name: "Power", unit: "dBm", digits: 2, forecast: ["rx_uw", "tx_uw"],
    series: [["receive", "rx_power_dbm"], ["transmit", "tx_power_dbm"]] },
  { name: "Temperature", unit: "°C", digits: 1, forecast: ["temperature_c"],
    series: [["temperature", "temperature_c"]] },
  { name: "Laser bias", unit: "mA", digits: 2, forecast: ["bias_ma"], series: [["bias", "tx_bias_ma"]] },
  { name: "Voltage", unit: "V", digits: 3, series: [["voltage", "voltage_v"]] },
];
const identity = [["Kind", "module"], ["Vendor", "vendor"], ["Part", "part"], ["Revision", "revision"],
                  ["Serial", "serial"], ["Date code", "date_code"], ["Product", "product"],
                  ["Extension", "product_ext"]];
/* The plot library's legend needs inline styles, which our policy forbids; a line above the plot
   shows its values. */
Dygraph.PLUGINS = Dygraph.PLUGINS.filter((plugin) => String(plugin.prototype) !== "Legend Plugin");
let plots = [];
let range = "hour";
let shown = null; /* the number of the port */
let limits = {};  /* limits of the port's module, by the name of the plot */

function write_badges(port) {
  const badges = [link_badge(port)];
  if (port.status?.speed_gbps)
    badges[0] = { ...badges[0], text: `${badges[0].text}, ${port.status.speed_gbps} Gbit/s` };
  if (port.status?.environment === "set")
    badges.push({ text: "environment alarm", tone: "bad", sign: "!" });
  badges.push({ text: `${port.link_changes} link change${port.link_changes === 1 ? "" : "s"}`, tone: "none", sign: "↕" });
  if (forecast_badge(port))
    badges.push(forecast_badge(port));
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

/* In the plot of a day each point is a pair; their middle is drawn, with the range. */
function to_rows(answer, series) {
  const count = answer[series[0][1]].length;
  return Array.from({ length: count }, (_, i) => {
    const time = new Date((answer.time?.[i] ?? answer.end - (count - 1 - i) * answer.step_s) * 1000);
    return [time, ...series.map(([, key]) => {
      const point = answer[key][i];
      if (!is_ranged(answer))
        return point;
      return !point ? [null, null, null] : point.length === 3 ? point
        : [point[0], (point[0] + point[1]) / 2, point[1]];
    })];
  });
}

const is_ranged = (answer) => !["hour", "2d"].includes(answer.range);

const apart = ["time", "events", "forecasts"];

/* Converts the answer of the history to the keys of the shorter plots, for the lane that fails
   first. Where readings are missing the line ends: an empty point follows the last reading. */
function from_history(answer, forecasts) {
  const lane = forecasts.find((each) => each.lane !== null)?.lane ?? 0;
  const made = { range: answer.span, step_s: answer.step_s, events: answer.events, lane, time: [] };
  made.forecasts = forecasts.filter((each) => [lane, null].includes(each.lane));
  const values = { temperature_c: answer.temperature_c, voltage_v: answer.voltage_v, ...answer.lanes[lane] };
  for (const key of ["tx_power_dbm", "rx_power_dbm", "temperature_c", "voltage_v", "tx_bias_ma"])
    made[key] = [];
  answer.time.forEach((time, i) => {
    const is_behind_gap = i > 0 && time - answer.time[i - 1] > 1.5 * answer.step_s;
    for (const at of is_behind_gap ? [answer.time[i - 1] + answer.step_s, time] : [time]) {
      made.time.push(at);
      for (const key of Object.keys(made).filter((name) => Array.isArray(made[name]) && !apart.includes(name)))
        made[key].push(at === time ? values[key]?.[i] ?? null : null);
    }
  });
  return made;
}

const day_ms = 86_400_000;
const forecast_names = { rx_uw: "receive power", tx_uw: "transmit power", bias_ma: "laser bias",
                         error_ratio: "error ratio", temperature_c: "temperature" };

/* The interval of 80 %, from the last reading to the line of the limit: points with both edges, and
   the expected value in between. Only for long plots, in which it is wide enough to see. */
function forecast_rows(answer, { forecast, series }) {
  const told = is_ranged(answer) && answer.forecasts?.find(({ value }) => forecast?.includes(value));
  const key = told && (told.value === "tx_uw" ? "tx_power_dbm" : series[0][1]);
  const level = told && answer[key].findLast((point) => point !== null)?.[1];
  if (level === undefined || !(told.high > 0))
    return [];
  const at = (day, end) => level + (told.limit_value - level) * (end > 0 ? Math.min(1, day / end) : 1);
  const nothing = series.map(() => [null, null, null]);
  return [...new Set([0, told.low, told.days_left, told.high])].map((day) => {
    const edges = [at(day, told.low), at(day, told.high)];
    return [new Date(told.time * 1000 + day * day_ms), ...nothing,
            [Math.min(...edges), at(day, told.days_left), Math.max(...edges)]];
  });
}

/* Rows of readings; if the plot has a forecast, theirs is empty. */
function rows_of(answer, what) {
  const ahead = forecast_rows(answer, what), rows = to_rows(answer, what.series);
  return ahead.length ? [...rows.map((row) => [...row, [null, null, null]]), ...ahead] : rows;
}

function write_forecasts(forecasts) {
  by_id("forecasts").replaceChildren(...forecasts.map((each) => make("li",
    `${forecast_names[each.value]}${each.lane === null ? "" : ` of lane ${each.lane}`}: `
    + `${each.days_left.toFixed(1)} days left (${each.low.toFixed(1)} to ${each.high.toFixed(1)}). ${each.reason}`)));
}

/* Falls of the link, changes of the module and forecasts are lines behind the plot. */
const marked = { down: "--bad", removed: "--plot-2", replaced: "--plot-2", inserted: "--plot-2", forecast: "--warn" };
function draw_marks(context, area, plot, events, colour) {
  for (const event of events ?? []) {
    const x = plot.toDomXCoord(event.time * 1000);
    if (!(event.change in marked) || !(x >= area.x && x <= area.x + area.w))
      continue;
    context.fillStyle = colour(marked[event.change]) || colour("--line");
    context.fillRect(x, area.y, 1, area.h);
  }
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

/* Draws the limits within the shown range, dashed; alarms have another colour. */
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

function clear_plots() {
  plots.forEach((plot) => plot.destroy());
  plots = [];
  by_id("plots").replaceChildren();
}

function draw(answer) {
  const style = getComputedStyle(document.documentElement);
  const colour = (name) => style.getPropertyValue(name).trim();
  const is_sparse = answer.temperature_c.filter((value) => value !== null).length < 30;
  clear_plots();
  for (const what of plotted) {
    const figure = make("figure");
    const caption = make("figcaption");
    const readout = make("span", summary_text(answer, what), "dim");
    const of_lane = answer.lane && what.name !== "Temperature" && what.name !== "Voltage" ? ` of lane ${answer.lane}` : "";
    caption.append(make("span", `${what.name}${of_lane}, ${what.unit}`), readout);
    const place = make("div", "", "plot");
    place.setAttribute("role", "img");
    const rows = rows_of(answer, what), names = what.series.map(([name]) => name);
    const has_forecast = rows[0]?.length > names.length + 1, ahead = has_forecast ? ", with the forecast" : "";
    place.setAttribute("aria-label", `${what.name} of the last ${answer.range}${ahead}: ${summary_text(answer, what)}`);
    figure.append(caption, ...(rows.length ? [place] : []));
    by_id("plots").append(figure);
    if (!rows.length)
      continue; /* the caption says "nothing read" */
    const colours = [colour("--plot-1"), colour("--plot-2")].slice(0, names.length);
    plots.push(new Dygraph(place, rows, {
      labels: ["time", ...names, ...(has_forecast ? ["forecast"] : [])], customBars: is_ranged(answer),
      colors: [...colours, colour("--warn")], gridLineColor: colour("--line"),
      axisLineColor: colour("--line"), strokeWidth: 1.75, drawPoints: is_sparse, pointSize: 2, xRangePad: 4, yRangePad: 8, axes: { y: { axisLabelWidth: 44 } }, interactionModel: {},
      underlayCallback: (canvas, area, graph) => {
        draw_limits(what.name, colour, canvas, area, graph);
        draw_marks(canvas, area, graph, answer.events, colour);
      },
      highlightCallback: (_, time, points) => set_text(readout, points.reduce(
        (text, { name, yval }) => `${text} ${name} ${yval?.toFixed(what.digits) ?? "–"}`, time_text(time))),
      unhighlightCallback: () => set_text(readout, summary_text(answer, what)),
    }));
  }
}

async function answer_of(path) {
  const response = await fetch(path, { signal: AbortSignal.timeout(5000) });
  if (!response.ok)
    throw new Error(await response.text());
  return response.json();
}

/* If no forecast exists, nothing is requested: an exporter without a history has no such answer. */
async function forecasts_of(port) {
  if (typeof port?.forecast_days !== "number")
    return [];
  const answer = await answer_of("api/forecast").catch(() => null);
  return answer?.forecasts.filter((each) => each.port === port.port) ?? [];
}

const spans_ms = { hour: day_ms / 24, day: day_ms, "2d": 2 * day_ms, "8w": 56 * day_ms, "2y": 731 * day_ms };

/* On the time scale of the plots, if there are any. */
function draw_falls() {
  const now = Date.now(), begin = now - spans_ms[range];
  const name = section.querySelector(`button[data-range="${range}"]`).textContent;
  write_falls(name, begin, ...(plots[0]?.xAxisRange() ?? [begin, now]));
}

let has_falls = false; /* the falls of the shown port were requested and received */
async function load_falls() {
  const number = shown;
  has_falls = true;
  const response = await fetch(`api/falls?port=${number}`, { signal: AbortSignal.timeout(5000) }).catch(() => null);
  const answer = response?.ok ? await response.json().catch(() => null) : null;
  if (shown !== number)
    return;
  has_falls = answer !== null;
  take_falls(answer);
  draw_falls();
}

/* Nothing is drawn while the pointer is over a value. */
export async function load_plots() {
  const number = shown;
  if (number === null || section.querySelector("#plots:hover, #fall-line:hover") && plots.length)
    return;
  if (!has_falls)
    load_falls();
  const is_kept = /^\d/.test(range);
  const plot_path = is_kept ? `api/history?port=${number}&span=${range}` : `api/plot?port=${number}&range=${range}`;
  let trouble = "";
  const [found, port] = await Promise.all([
    answer_of(plot_path).catch((error) => void (trouble = error.message)),
    answer_of(`api/ports/${number}`).catch(() => null)]);
  const forecasts = await forecasts_of(port);
  if (shown !== number)
    return;
  if (port) {
    limits = limits_of(port.details);
    write_lanes(port.details);
    write_forecasts(forecasts);
  }
  if (trouble && is_kept) {
    clear_plots();
    by_id("plots").append(make("p", trouble, "dim"));
  }
  if (found && (found.range ?? found.span) === range)
    draw(is_kept ? from_history(found, forecasts) : found);
  draw_falls();
}

export async function load_history() {
  const number = shown;
  if (number === null)
    return;
  load_falls();
  const answer = await answer_of(`api/events?port=${number}`).catch(() => null);
  if (!answer || shown !== number)
    return;
  const items = answer.events.reverse().slice(0, 100).map((event) => make_event(event, event_text(event)));
  by_id("history").replaceChildren(...(items.length ? items : [make("li", "nothing has happened yet", "dim")]));
}

/* A value that isn't shown has its reason in its place. */
export function write_ages(port, age_of) {
  const read = port.pm ? `Values ${age_text(age_of(port.reading_age_s))} old`
    : has_module(port) ? `Values not known${port.pm_trouble ? `: ${port.pm_trouble}` : ""}` : "No values";
  const graded = has_module(port) && port.status ? `, grades ${age_text(age_of(port.grade_age_s))} old` : "";
  set_text(by_id("ages"), `${read}${graded}.`);
}

/* Hides the parts of a port that is no longer followed. */
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

/* Shows another port, or none; nothing is loaded for a port that isn't followed. */
export function choose_port(number, is_followed) {
  shown = number;
  limits = {};
  write_lanes(null);
  section.hidden = number === null;
  clear_plots();
  write_forecasts([]);
  has_falls = false;
  forget_falls();
  by_id("history").replaceChildren();
  if (!is_followed)
    return;
  load_history();
  load_plots();
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
