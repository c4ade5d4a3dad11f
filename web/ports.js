/* SPDX-License-Identifier: Apache-2.0 */
/* How a port's record is shown: its rank, badges and texts. No state, no document. */

/* The tones by urgency; `sign` has the same meaning as the colour. */
const grades = {
  "high alarm": { rank: 0, tone: "bad", sign: "▲" },
  "low alarm": { rank: 0, tone: "bad", sign: "▼" },
  "high warning": { rank: 2, tone: "warn", sign: "△" },
  "low warning": { rank: 2, tone: "warn", sign: "▽" },
  "ok": { rank: 4, tone: "good", sign: "✓" },
};
const no_grade = { rank: 7, tone: "none", sign: "–" };

/* Each measured value: its key among the grades, its key in the record, and how it is written. */
export const measurements = [
  { grade: "rx_power", value: "rx_power_dbm", unit: "dBm", digits: 2, name: "receive power" },
  { grade: "tx_power", value: "tx_power_dbm", unit: "dBm", digits: 2, name: "transmit power" },
  { grade: "temperature", value: "temperature_c", unit: "°C", digits: 1, name: "temperature" },
  { grade: "vcc", value: "voltage_v", unit: "V", digits: 3, name: "voltage" },
  { grade: "tx_bias", value: "tx_bias_ma", unit: "mA", digits: 2, name: "laser bias" },
  { grade: "laser_temperature", name: "laser temperature" },
  { grade: "tec", name: "cooler" },
];

/* "none", "not ready", "ready", or "unknown". */
export function module_state(port) {
  if (!port.sfp)
    return "unknown";
  if (["not present", "no module"].includes(port.sfp.module))
    return "none";
  return port.sfp.module.endsWith("not ready") ? "not ready" : "ready";
}

export const has_module = (port) => module_state(port) === "ready";

/* A badge: {text, tone, sign}. */
export function grade_badge(text) {
  return { text, ...(grades[text] ?? no_grade) };
}

/* The worst grade, with the values that have it; null if there are no grades. */
export function worst_grade(port) {
  if (!port.status || !has_module(port))
    return null;
  let worst = null;
  for (const { grade, name } of measurements) {
    const text = port.status.levels[grade];
    if (!(text in grades))
      continue;
    if (!worst || grades[text].rank < grades[worst.text].rank)
      worst = { text, names: [] };
    if (text === worst.text)
      worst.names.push(name);
  }
  return worst;
}

/* "low alarm: receive power". */
export function worst_text(worst) {
  return worst.text === "ok" ? "ok" : `${worst.text}: ${worst.names.join(", ")}`;
}

/* Null without a forecast. */
export function forecast_badge(port) {
  const days = port.forecast_days;
  if (days === null || days === undefined)
    return null;
  const text = days < 1 ? "less than a day left" : days < 1.5 ? "1 day left" : `${days.toFixed(0)} days left`;
  return { text, tone: "warn", sign: "◷" };
}

export function link_badge(port) {
  switch (port.status?.link) {
  case "operational":
    return { text: "up", tone: "good", sign: "●" };
  case "not operational":
    return { text: "down", tone: has_module(port) ? "bad" : "none", sign: "○" };
  default:
    return { text: "unknown", tone: "none", sign: "?" };
  }
}

export function is_unexpectedly_down(port) {
  return port.status?.link === "not operational" && has_module(port);
}

/* A smaller rank is worse: alarms, modules that aren't ready and links that are down with a module,
   warnings and forecasts, other ports, empty ports. */
export function rank(port) {
  const worst = worst_grade(port);
  const by_grade = worst ? grades[worst.text].rank : 5;
  const is_bad = is_unexpectedly_down(port) || module_state(port) === "not ready";
  const by_link = is_bad ? 1 : has_module(port) ? 4 : 6;
  return Math.min(by_grade, by_link, forecast_badge(port) ? grades["low warning"].rank : by_link);
}

export function module_text(port) {
  switch (module_state(port)) {
  case "unknown": return "not known yet";
  case "none": return "no module";
  case "not ready": return "module not ready";
  }
  const names = [port.sfp.vendor.trim(), port.sfp.part.trim()].filter(Boolean);
  return names.join(" · ") || port.sfp.module;
}

export function value_text(port, { value, unit, digits }) {
  const number = port.pm?.[value];
  return number === null || number === undefined ? "–" : number.toFixed(digits) + " " + unit;
}

/* All texts that the filter searches, in lower case. */
export function searched_text(port) {
  const sfp = port.sfp ?? {};
  const worst = worst_grade(port);
  return ["port " + port.port, port.interface, link_badge(port).text, module_text(port), sfp.module,
          sfp.serial, sfp.product, sfp.date_code, worst ? worst_text(worst) : "",
          forecast_badge(port)?.text]
    .filter(Boolean).join(" ").toLowerCase();
}

export function age_text(seconds) {
  if (seconds === null || seconds === undefined)
    return "never";
  if (seconds < 60)
    return Math.max(0, Math.round(seconds)) + " s";
  if (seconds < 3600)
    return Math.floor(seconds / 60) + " min";
  if (seconds < 172800)
    return Math.floor(seconds / 3600) + " h";
  return Math.floor(seconds / 86400) + " days";
}

/* Times in 24 hours, like the plots. With the date if it isn't today's. */
const clock = new Intl.DateTimeFormat(undefined, { timeStyle: "medium", hourCycle: "h23" });
const calendar = new Intl.DateTimeFormat(undefined, { dateStyle: "short" });
export function time_text(when) {
  const time = new Date(when);
  const is_today = time.toDateString() === new Date().toDateString();
  return is_today ? clock.format(time) : `${calendar.format(time)} ${clock.format(time)}`;
}

/* Whether `id` is of a later event than `other`. Numbers of another run of tesk-exporter can't be
   compared: its answers replace the whole state. */
export function is_later(id, other) {
  const [epoch, number] = (id ?? "").split("-"), [other_epoch, other_number] = (other ?? "").split("-");
  return epoch === other_epoch && Number(number) > Number(other_number);
}

/* Why a link fell, and how it is ill since it came back. */
export function fall_text({ cause, certainty, evidence, ill }) {
  return [`${cause}, ${certainty}.`, evidence[0], ...(ill.length ? ["Up, but ill:", ...ill] : [])].filter(Boolean).join(" ");
}

/* The event as a sentence for the list. */
export function event_text(event) {
  switch (event.event) {
  case "lost": return "tesk-server went away";
  case "restored": return "tesk-server is back";
  case "missed": return "some changes were missed";
  case "fall": return event.ill.length ? `link is up, but ill: ${event.ill.join(" ")}`
    : `link fell: ${fall_text(event)}`;
  case "sfp":
    return ["removed", "not ready"].includes(event.change) ? `module ${event.change}`
      : `module ${event.change}: ${module_text({ sfp: event })}`;
  }
  const worst = worst_grade({ sfp: { module: event.module }, status: event });
  const grade = worst && worst.text !== "ok" ? `, ${worst_text(worst)}` : "";
  return `link ${link_badge({ status: event }).text}`
    + (event.change === "grades" ? " as before, new grades" : "") + grade;
}

export function title_of(number, interface_name) {
  return interface_name ? `Port ${number} (${interface_name})` : `Port ${number}`;
}
