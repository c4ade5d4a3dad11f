/* SPDX-License-Identifier: Apache-2.0 */
/* The state of the page and its two sources. /events sends changes as they happen. /api/ports
   returns everything, measured values included; it is requested at the interval of readings, and at
   once after an event that doesn't contain all changed data. The server counts as away if either of
   them reports it. */
import { by_id, make_event, set_text } from "./document.js";
import { choose_port, load_history, load_plots, write_ages, write_gone, write_port } from "./detail.js";
import { event_text, is_later, time_text, title_of } from "./ports.js";
import { focus_port, mark_changed, move_focus, write_summary, write_table } from "./table.js";

const most_latest = 8;
const announce_pause_ms = 1000;
const ports = new Map();
let interval_s = 15;
let read_at = performance.now(); /* when the ages in `ports` were measured */
let known_at = null; /* the time of the state in `ports`; null: there is none */
let chosen = null;
const troubles = { stream: "", server: "" };

const age_of = (age_s) => age_s === null || age_s === undefined ? null : age_s + (performance.now() - read_at) / 1000;

function write_trouble() {
  const text = troubles.stream || troubles.server;
  by_id("banner").hidden = !text;
  set_text(by_id("banner"), text);
  set_text(by_id("connection"), text ? "not connected" : "live");
  by_id("connection").dataset.tone = text ? "bad" : "good";
}

/* Adds to the text the time of the state that is shown. */
function set_trouble(source, text, known = known_at) {
  const shown = known && ports.size ? ` The ports are shown as they were at ${time_text(known)}.` : "";
  if (!text)
    troubles[source] = "";
  else if (!troubles[source].startsWith(text))
    troubles[source] = text + shown;
  write_trouble();
}

function write_all() {
  write_table(ports, by_id("filter").value, chosen, age_of);
  write_summary(ports);
  if (ports.has(chosen))
    write_port(ports.get(chosen), age_of);
  else if (chosen !== null)
    write_gone(chosen);
}

/* Draws once for all events that arrive together. */
let is_due = false;
function request_writing() {
  if (is_due)
    return;
  is_due = true;
  queueMicrotask(() => {
    is_due = false;
    write_all();
  });
}

/* Changes are announced to screen readers together, at most once a second. */
const to_announce = [];
let announcing = 0;
function announce(text) {
  to_announce.push(text);
  announcing ||= setTimeout(() => {
    announcing = 0;
    const more = to_announce.length > 3 ? `, and ${to_announce.length - 3} more changes` : "";
    by_id("announcer").textContent = to_announce.slice(0, 3).join("; ") + more;
    to_announce.length = 0;
  }, announce_pause_ms);
}

function add_latest(event, text) {
  const list = by_id("latest");
  list.prepend(make_event(event, text));
  while (list.children.length > most_latest)
    list.lastChild.remove();
}

let reading = null;
let next_read = 0;
async function read_ports() {
  clearTimeout(next_read);
  reading ??= fetch("api/ports", { signal: AbortSignal.timeout(5000) }).then((response) => {
    if (!response.ok)
      throw new Error(String(response.status));
    return response.json();
  }).then(take_ports).catch(() => set_trouble("stream", "tesk-exporter doesn't answer; trying again.")).finally(() => {
    reading = null;
    next_read = setTimeout(read_ports, troubles.stream ? 2000 : 1000 * Math.max(1, interval_s));
  });
  return reading;
}

/* An event may be received before an answer that was made earlier: then the event's values are
   kept, since otherwise a link would seem to change back. Ids give the order, since clocks may be
   set back. */
function newer_of(shown, answered, id) {
  if (!is_later(shown?.event_id, id))
    return answered;
  return { ...shown, reading_age_s: age_of(shown.reading_age_s), grade_age_s: age_of(shown.grade_age_s) };
}

function take_ports(answer) {
  const before = new Map(ports);
  ports.clear();
  for (const port of answer.ports)
    ports.set(port.port, newer_of(before.get(port.port), port, answer.id));
  read_at = performance.now();
  known_at = answer.known;
  interval_s = answer.interval_s;
  set_text(by_id("version"), answer.version);
  set_trouble("server", answer.up ? "" : `tesk-server is away (${answer.trouble}).`);
  if (stream.readyState === EventSource.OPEN)
    set_trouble("stream", "");
  request_writing();
  if (!ports.has(chosen))
    return;
  load_plots();
  if (!before.has(chosen))
    load_history();
}

/* Data that an event doesn't contain, such as the values of another module, is requested a little
   later. */
let later = 0;
function read_soon() {
  clearTimeout(later);
  later = setTimeout(() => reading ? reading.finally(read_ports) : read_ports(), 300);
}

function take_record(event) {
  const port = ports.get(event.port);
  if (!port)
    return;
  const { time, id, change, ...record } = event;
  port.event_id = id;
  if (event.event === "sfp") {
    port.sfp = record;
    if (change !== "initial")
      port.pm = null;
  } else if (event.event === "status") {
    port.status = record;
    if (change !== "initial")
      port.grade_age_s = -(performance.now() - read_at) / 1000; /* of now */
  }
  if (change === "initial")
    return;
  port.last_change = time;
  if (event.event === "status" && change !== "grades")
    port.link_changes++;
  const text = `${title_of(event.port, port.interface)}: ${event_text(event)}`;
  add_latest(event, text);
  announce(text);
  mark_changed(event.port);
  if (event.port === chosen)
    load_history();
}

function take_event(message) {
  const event = JSON.parse(message.data);
  if (event.event === "lost")
    set_trouble("server", "tesk-server is away.", event.time);
  if (event.event === "restored")
    set_trouble("server", "");
  if ("port" in event)
    take_record(event);
  else
    add_latest(event, event_text(event));
  request_writing();
  if (event.change !== "initial")
    read_soon();
}

/* The browser reconnects by itself, with the id of the last event, unless its request was
   refused. */
let stream;
function follow() {
  stream = new EventSource("events");
  stream.onmessage = take_event;
  stream.onopen = () => {
    set_trouble("stream", "");
    read_soon();
  };
  stream.onerror = () => {
    set_trouble("stream", "tesk-exporter doesn't answer; trying again.");
    if (stream.readyState === EventSource.CLOSED)
      setTimeout(follow, 3000);
  };
}

function choose_by_address() {
  const number = /^#port=(\d+)$/.exec(location.hash)?.[1];
  const before = chosen;
  chosen = number === undefined ? null : Number(number);
  if (chosen === before)
    return;
  choose_port(chosen, ports.has(chosen));
  write_all();
  if (chosen !== null)
    by_id("port").focus({ preventScroll: innerWidth > 832 });
  else
    focus_port(before);
}

function on_key(event) {
  const is_typing = event.target.id === "filter";
  if (event.altKey || event.ctrlKey || event.metaKey)
    return;
  if (event.key === "/" && !is_typing) {
    by_id("filter").focus();
  } else if (event.key === "Escape" && is_typing && by_id("filter").value) {
    by_id("filter").value = "";
    write_all();
  } else if (event.key === "Escape" && chosen !== null) {
    location.hash = "";
  } else if (["ArrowDown", "ArrowUp"].includes(event.key) && !by_id("port").contains(event.target)) {
    move_focus(event.key === "ArrowDown" ? 1 : -1);
  } else {
    return;
  }
  event.preventDefault();
}

function every_second() {
  write_table(ports, by_id("filter").value, chosen, age_of);
  if (ports.has(chosen))
    write_ages(ports.get(chosen), age_of);
}

set_text(by_id("host"), `of ${location.host}`);
by_id("filter").addEventListener("input", write_all);
addEventListener("hashchange", choose_by_address);
addEventListener("keydown", on_key);
setInterval(every_second, 1000);
/* The ports are requested first, since an event is about a known port. */
follow();
await read_ports();
choose_by_address();
