/* SPDX-License-Identifier: Apache-2.0 */
/* The falls of the chosen port's link: marks on a line above the plots, on the same time scale, and
   a list of the same falls. Both show the falls of the shown range only. The falls are requested
   when the port is chosen and after each event of the port; drawing them requests nothing. */
import { by_id, make, make_event, set_text } from "./document.js";
import { fall_text } from "./ports.js";

const line = by_id("fall-line");
let falls = []; /* newest first: {at, text}, `at` in milliseconds */

export function forget_falls() {
  falls = [];
  by_id("falls-part").hidden = true;
}

/* Takes the falls of /api/falls; null if the answer has none, as with a board that doesn't record
   them. */
export function take_falls(answer) {
  falls = (answer?.falls ?? []).filter(({ facts }) => typeof facts.time === "number")
    .map((fall) => ({ at: 1000 * fall.facts.time, text: fall_text(fall) }));
  by_id("falls-part").hidden = !answer;
}

function show_sentence(mark, { at, text }) {
  for (const other of line.children)
    other.classList.toggle("chosen", other === mark);
  by_id("fall-text").replaceChildren(...make_event({ time: new Date(at).toISOString() }, text).childNodes);
}

/* `from` and `to` are the edges of the plots; `range` is "hour" or another range, which began at
   `begin`. A fall after the last reading is drawn at the edge. */
export function write_falls(range, begin, from, to) {
  const shown = falls.filter(({ at }) => at >= begin);
  const count = shown.length === 0 ? "No fall of the link" : shown.length === 1 ? "One fall of the link"
    : `${shown.length} falls of the link`;
  set_text(by_id("fall-count"), `${count} in the last ${range}`);
  by_id("falls").replaceChildren(...shown.map(({ at, text }) =>
    make_event({ time: new Date(at).toISOString() }, text)));
  line.replaceChildren(...shown.map((fall) => {
    const mark = make("span");
    mark.style.left = `${100 * Math.min(1, Math.max(0, (fall.at - from) / (to - from)))}%`;
    return mark;
  }));
  by_id("fall-text").replaceChildren();
  if (shown.length)
    show_sentence(line.firstChild, shown[0]);
  line.onpointermove = line.onpointerdown = (event) => {
    const x_of = (mark) => mark.getBoundingClientRect().x;
    const distances = [...line.children].map((mark) => Math.abs(x_of(mark) - event.clientX));
    const nearest = distances.indexOf(Math.min(...distances));
    if (nearest >= 0)
      show_sentence(line.children[nearest], shown[nearest]);
  };
}
