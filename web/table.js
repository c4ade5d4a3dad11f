/* SPDX-License-Identifier: Apache-2.0 */
/* The table of all ports. A row always belongs to the same port: only changed cells are written,
   and a row that keeps its place isn't touched, so that focus and selection stay. */
import { by_id, make, set_badge, set_text } from "./document.js";
import { age_text, forecast_badge, grade_badge, is_unexpectedly_down, link_badge, measurements, module_state,
         module_text, rank, searched_text, time_text, value_text, worst_grade, worst_text } from "./ports.js";

const body = by_id("ports").tBodies[0];
const rows = new Map(); /* by number: {row, cells..} */
const [receive, , temperature] = measurements;

function make_row(port) {
  const row = document.createElement("tr");
  row.dataset.port = port.port;
  const head = make("th");
  head.scope = "row";
  const link = make("a", `${port.port} `);
  link.href = `#port=${port.port}`;
  link.append(make("span", port.interface ?? ""));
  head.append(link);
  const made = {
    row, name: link.lastChild, link: make("span"), grade: make("span"), age: make("span", "", "dim"), forecast: make("span"),
    module: make("td", "", "module"), receive: make("td", "", "number kept"),
    temperature: make("td", "", "number"), change: make("td", "", "dim"),
  };
  const link_cell = make("td");
  link_cell.append(made.link);
  const grade_cell = make("td");
  grade_cell.append(made.grade, " ", made.age, " ", made.forecast);
  row.append(head, link_cell, grade_cell, made.module, made.receive, made.temperature, made.change);
  row.setAttribute("role", "row");
  for (const cell of row.children)
    cell.setAttribute("role", cell === head ? "rowheader" : "cell");
  /* The whole row leads to the port, but a text in it can be selected. */
  row.addEventListener("click", (event) => {
    if (!event.target.closest("a") && getSelection().isCollapsed)
      location.hash = link.hash;
  });
  return made;
}

function write_row(made, port, age_of) {
  set_text(made.name, port.interface ?? "");
  set_badge(made.link, link_badge(port));
  const worst = worst_grade(port);
  made.grade.hidden = !worst;
  if (worst)
    set_badge(made.grade, { ...grade_badge(worst.text), text: worst_text(worst) });
  set_text(made.age, worst ? age_text(age_of(port.grade_age_s)) : "–");
  const forecast = forecast_badge(port);
  made.forecast.hidden = !forecast;
  if (forecast)
    set_badge(made.forecast, forecast);
  set_text(made.module, module_text(port));
  set_text(made.receive, value_text(port, receive));
  set_text(made.temperature, value_text(port, temperature));
  set_text(made.change, port.last_change ? time_text(port.last_change) : "–");
}

/* Moves only rows that are out of order, since a moved element loses its focus. */
function put_in_order(sorted) {
  const focused = body.contains(document.activeElement) ? document.activeElement : null;
  let place = body.firstElementChild;
  for (const port of sorted) {
    const { row } = rows.get(port.port);
    if (row === place)
      place = place.nextElementSibling;
    else
      body.insertBefore(row, place);
  }
  if (focused && document.activeElement !== focused)
    focused.focus({ preventScroll: true });
}

function remove_gone(ports) {
  for (const [number, { row }] of rows) {
    if (!ports.has(number)) {
      row.remove();
      rows.delete(number);
    }
  }
}

/* Writes all ports; `age_of` converts an age in the record to the present age. */
export function write_table(ports, filter, chosen, age_of) {
  remove_gone(ports);
  const words = filter.toLowerCase().split(/\s+/).filter(Boolean);
  let shown = 0;
  for (const [number, port] of ports) {
    if (!rows.has(number))
      rows.set(number, make_row(port));
    const made = rows.get(number);
    const text = searched_text(port);
    made.row.hidden = !words.every((word) => text.includes(word));
    made.row.classList.toggle("chosen", number === chosen);
    shown += made.row.hidden ? 0 : 1;
    write_row(made, port, age_of);
  }
  put_in_order([...ports.values()].sort((a, b) => rank(a) - rank(b) || a.port - b.port));
  set_text(by_id("count"), words.length ? `${shown} of ${ports.size} ports` : `${ports.size} ports`);
  by_id("nothing").hidden = shown > 0;
  set_text(by_id("nothing"), ports.size ? "No port has all of these words." : "No ports are known yet.");
}

export function mark_changed(number) {
  const row = rows.get(number)?.row;
  row?.classList.remove("changed");
  void row?.offsetWidth; /* so that the animation starts again */
  row?.classList.add("changed");
}

/* Moves the focus by `step` visible rows. */
export function move_focus(step) {
  const links = [...body.querySelectorAll("tr:not([hidden]) th a")];
  const at = links.indexOf(document.activeElement);
  const next = at < 0 ? (step > 0 ? 0 : links.length - 1) : at + step;
  links[Math.min(Math.max(next, 0), links.length - 1)]?.focus();
}

export function focus_port(number) {
  rows.get(number)?.row.querySelector("a").focus();
}

export function write_summary(ports) {
  const counts = [
    ["up", "good", (port) => port.status?.link === "operational"],
    ["down", "bad", is_unexpectedly_down],
    ["in alarm", "bad", (port) => rank(port) === 0],
    ["warning", "warn", (port) => worst_grade(port)?.text.endsWith("warning")],
    ["not ready", "bad", (port) => module_state(port) === "not ready"],
    ["empty", "none", (port) => module_state(port) === "none"],
  ];
  const list = by_id("summary");
  for (const [i, [name, tone, matches]] of counts.entries()) {
    const count = [...ports.values()].filter(matches).length;
    const item = list.children[i] ?? list.appendChild(make("li"));
    if (!item.firstChild)
      item.append(make("b"), name);
    set_text(item.firstChild, String(count));
    item.dataset.tone = count ? tone : "none";
  }
}
