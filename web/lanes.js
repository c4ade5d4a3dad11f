/* SPDX-License-Identifier: Apache-2.0 */
/* The details of a module that the board publishes beyond the protocol: lanes, limits, and why a
   value is missing. */
import { by_id, make, make_badge, set_text } from "./document.js";
import { grade_badge } from "./ports.js";

const columns = [["rx_power", "dBm", 2], ["tx_power", "dBm", 2], ["tx_bias", "mA", 2]];
const conditions = ["rx_los", "rx_lol", "tx_los", "tx_lol", "tx_fault", "tx_off", "rx_off"];
const limit_names = ["low_alarm", "low_warning", "high_warning", "high_alarm"];

const to_dbm = (milliwatts) => milliwatts > 0 ? 10 * Math.log10(milliwatts) : null;

function shown_value(value, [key, unit, digits]) {
  if (value.value === null)
    return value.state;
  const number = key === "tx_bias" ? value.value : to_dbm(value.value);
  return number === null ? "no light" : `${number.toFixed(digits)} ${unit}`;
}

function lane_row(lane) {
  const line = make("tr");
  const head = make("th", `${lane.lane}${lane.own ? "" : " (another port's)"}`);
  head.scope = "row";
  line.append(head);
  for (const column of columns) {
    const value = lane[column[0]];
    const cell = make("td", shown_value(value, column), "number");
    if (value.grade && !["ok", "off"].includes(value.grade))
      cell.append(" ", make_badge(grade_badge(value.grade)));
    line.append(cell);
  }
  const on = conditions.filter((name) => lane[name].on);
  line.append(make("td", on.map((name) => name.replace("_", " ")).join(", ") || "–"));
  return line;
}

/* The share of time that readings take with the present pause between them. */
function reading_text(cost) {
  if (!cost?.period_s || !cost.last_sweep_s)
    return "";
  const percent = 100 * cost.last_sweep_s / cost.period_s;
  return `Reading the measured values keeps the kernel busy for ${percent < 0.01 ? "less than 0.01" : percent.toFixed(2)} % of the time.`;
}

/* If the board publishes no details, nothing is shown. */
export function write_lanes(details) {
  set_text(by_id("reading-share"), reading_text(details?.cost));
  const section = by_id("lanes-part");
  section.hidden = !details?.lanes.length;
  if (!section.hidden)
    by_id("lanes").tBodies[0].replaceChildren(...details.lanes.map(lane_row));
}

/* The limits of each plotted value in its plot's unit, by the plot's name; none if the module has
   none. */
export function limits_of(details) {
  if (!details)
    return {};
  const of_lanes = details.lane_limits;
  const found = { Power: of_lanes.rx_power, "Laser bias": of_lanes.tx_bias,
                  Temperature: details.module.temperature.limits, Voltage: details.module.voltage.limits };
  return Object.fromEntries(Object.entries(found).map(([name, limits]) => [name, limit_names
    .map((key) => ({ is_alarm: key.endsWith("alarm"), value: name === "Power" ? to_dbm(limits[key]) : limits[key] }))
    .filter(({ value }) => value !== null)]));
}
