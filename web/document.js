/* SPDX-License-Identifier: Apache-2.0 */
/* The few functions by which this page writes into its document: always as text. */

import { time_text } from "./ports.js";

export const by_id = (id) => document.getElementById(id);

/* Writes only if the text differs, so that a selection and a screen reader are not disturbed. */
export function set_text(element, text) {
  if (element.textContent !== text)
    element.textContent = text;
}

export function make(tag, text = "", name = "") {
  const element = document.createElement(tag);
  element.textContent = text;
  if (name)
    element.className = name;
  return element;
}

export function set_badge(element, { text, tone, sign }) {
  element.className = "badge";
  element.dataset.tone = tone;
  set_text(element, `${sign} ${text}`);
}

export function make_badge(badge) {
  const element = document.createElement("span");
  set_badge(element, badge);
  return element;
}

export function make_event(event, text) {
  const item = document.createElement("li");
  const time = make("time", time_text(event.time));
  time.dateTime = event.time;
  item.append(time, make("span", text));
  return item;
}
