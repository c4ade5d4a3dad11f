#!/usr/bin/python3
# SPDX-License-Identifier: Apache-2.0
"""The page in a headless Chromium, against tesk-server on the simulated board and tesk-exporter.

    tests/page_test.py BUILD_DIR [--write]

--write makes docs/page.png besides. The Python of Debian, for python3-selenium.
"""
import contextlib
import datetime
import http.client
import os
import re
import shlex
import signal
import socket
import sqlite3
import statistics
import struct
import subprocess
import sys
import tempfile
import threading
import time
from pathlib import Path

from selenium import webdriver
from selenium.webdriver.chrome.service import Service
from selenium.webdriver.common.keys import Keys

SOURCE = Path(__file__).resolve().parent.parent
BIN = Path(sys.argv[1]).resolve() / "bin"
DEADLINE_S = 20
CHROMIUM = """--headless --no-sandbox --disable-gpu --disable-quic --no-first-run --lang=en-GB
    --disable-background-networking --disable-component-update --disable-sync
    --window-size=1440,1000""".split()

# The lowest contrast between a visible text and its background.
CONTRAST = """
const numbers = (text) => text.match(/[\\d.]+/g).map(Number);
const linear = (c) => c <= 10 ? c / 3294.6 : ((c / 255 + 0.055) / 1.055) ** 2.4;
const luminance = ([r, g, b]) => 0.2126 * linear(r) + 0.7152 * linear(g) + 0.0722 * linear(b);
function ground(element) {
  const colour = numbers(getComputedStyle(element).backgroundColor);
  return colour[3] === 0 && element.parentElement ? ground(element.parentElement) : colour;
}
let worst = [99, ""];
for (const element of document.body.querySelectorAll("*")) {
  if (![...element.childNodes].some((node) => node.nodeType === 3 && node.textContent.trim()) ||
      !element.checkVisibility() || element.closest(".unseen, .skip, noscript, tr.changed"))
    continue;
  const pair = [numbers(getComputedStyle(element).color), ground(element)].map(luminance);
  const ratio = (Math.max(...pair) + 0.05) / (Math.min(...pair) + 0.05);
  if (ratio < worst[0])
    worst = [ratio, element.outerHTML.slice(0, 200)];
}
return worst;"""

# The cells of the table whose text is cut.
CUT = """
const card = document.querySelector('.card').getBoundingClientRect();
return [...ports.querySelectorAll('tbody :is(th, td)')].filter((cell) => cell.checkVisibility() &&
  (cell.getBoundingClientRect().right > card.right + 1 || cell.scrollWidth > cell.clientWidth + 1))
  .map((cell) => cell.innerText);"""

# Notes when the display of a port's link changes.
WATCH = """
const rows = [...ports.tBodies[0].rows], text_of = (row) => row.cells[1].textContent;
const last = new Map(rows.map((row) => [row, text_of(row)]));
window.seen = [];
new MutationObserver(() => {
  for (const row of ports.tBodies[0].rows)
    if (last.get(row) !== text_of(row) && last.set(row, text_of(row)))
      seen.push((performance.timeOrigin + performance.now()) / 1000);
}).observe(ports.tBodies[0], {subtree: true, childList: true, characterData: true});"""


def await_true(holds, what):
    end = time.monotonic() + DEADLINE_S
    while not (value := holds()):
        assert time.monotonic() < end, f"not in time: {what}"
        time.sleep(0.02)
    return value


def await_port(port):
    await_true(lambda: not socket.socket().connect_ex(("127.0.0.1", port)), f"port {port}")


class Board:
    """The server, the exporter and the tools in a folder of their own."""

    def __init__(self, place):
        self.env = {**os.environ, "MBX_DIR": f"{place}/mbx", "DOLM_RIC_SOCKET": f"{place}/board",
                    "DOLM_RIC_PORT_MAP": f"{place}/ports"}
        self.history = f"{place}/history"
        with socket.socket() as free:
            free.bind(("127.0.0.1", 0))
            self.port = free.getsockname()[1]
        self.running = {}

    def start(self, name, *options, **how):
        self.running[name] = subprocess.Popen([BIN / name, *options], env=self.env, **how)
        return self.running[name]

    def start_exporter(self):
        self.start("tesk-exporter", "--listen", f"127.0.0.1:{self.port}", "--interval", "0.5",
                   "--web", str(BIN.parent / "web"), "--history", self.history)

    def kill(self, name, by=signal.SIGKILL):
        process = self.running.pop(name)
        process.send_signal(by)
        process.wait(DEADLINE_S)

    def play(self, *commands, check=True):
        return [subprocess.run([BIN / "teskboard", *shlex.split(words)], env=self.env, check=check,
                               capture_output=True).returncode for words in commands]

    def play_when_there(self, words):
        await_true(lambda: self.play(words, check=False) == [0], "the board")


class Page:
    def __init__(self, address, profile):
        options = webdriver.ChromeOptions()
        for option in [*CHROMIUM, f"--user-data-dir={profile}"]:
            options.add_argument(option)
        options.set_capability("goog:loggingPrefs", {"browser": "ALL"})
        self.browser = webdriver.Chrome(service=Service("/usr/bin/chromedriver"), options=options)
        self.browser.get(address)

    def run(self, script, *arguments):
        return self.browser.execute_script(script, *arguments)

    def go(self, place):
        self.run("location.hash = arguments[0]; document.activeElement.blur()", place)

    def text(self, selector):
        return self.run("return document.querySelector(arguments[0])?.innerText ?? ''", selector)

    def shows(self, selector, words):
        await_true(lambda: words in self.text(selector),
                   f"{words!r} in {selector}: {self.text(selector)!r}")

    def row_shows(self, port, words):
        self.shows(f'#ports tr[data-port="{port}"]', words)

    def shows_plots(self):
        count = "return document.querySelectorAll('#plots canvas').length"
        await_true(lambda: self.run(count) >= 4, "plots")

    def press(self, *keys):
        for key in keys:
            self.browser.switch_to.active_element.send_keys(key)

    def order(self):
        return self.run("return [...document.querySelectorAll('#ports tbody tr:not([hidden])')]"
                        ".map(row => +row.dataset.port)")

    def emulate(self, command, **what):
        self.browser.execute_cdp_cmd(f"Emulation.{command}", what)


def changes_appear(board, page):
    await_true(lambda: len(page.order()) == 16, "16 rows")
    page.row_shows(3, "EXAMPLE OPTICS")
    board.play("remove 3")
    page.row_shows(3, "no module")
    page.shows("#latest", "Port 3 (port3): module removed")
    await_true(lambda: "module removed" in page.run("return announcer.textContent"), "live region")
    board.play("insert 3 --module lc-own")
    page.shows("#latest", "module inserted")
    board.play("set 4 temperature=91C", "link 4 down")
    page.row_shows(4, "down")  # otherwise the server sees both changes at once
    board.play("link 4 up")
    page.row_shows(4, "high alarm: temperature")
    await_true(lambda: page.order()[0] == 4, "the alarm on top")
    headline = "return document.getElementById('summary').textContent"
    await_true(lambda: "1in alarm" in page.run(headline), f"one in alarm: {page.run(headline)}")
    page.go("port=4")
    page.shows("#values", "91.0 °C")
    page.shows("#history", "link up, high alarm: temperature")
    page.shows_plots()
    board.play("set 4 rx-power.2=-16dBm rx-los.1=yes")
    page.shows("#lanes tr:nth-child(3)", "-16.02 dBm")
    page.shows("#lanes tr:nth-child(2)", "rx los")
    # Readings of the simulated board take no time.
    share = page.run("""return import("./lanes.js").then(({write_lanes}) => {
        write_lanes({lanes: [], cost: {period_s: 2, last_sweep_s: 0.001}});
        return document.getElementById("reading-share").textContent; })""")
    assert share.endswith("keeps the kernel busy for 0.05 % of the time."), share
    page.go("port=9")  # copper
    await_true(lambda: page.run("return document.getElementById(\"lanes-part\").hidden"), "copper")
    page.go("")


def falls_are_shown(board, page):
    """The marks show the same falls as the list, which the keyboard opens; a longer range shows them, too."""
    page.go("port=6")
    page.shows("#fall-count", "No fall of the link in the last hour")
    board.play("set 6 link=up", "set 6 rxpower=0mW module_status=1 link=down")
    page.shows("#fall-text", "light lost, likely. The received light is gone")
    page.run("document.querySelector('#falls-part summary').focus()")
    page.press(Keys.ENTER)
    page.shows("#falls", "light lost, likely. The received light is gone")
    page.run("document.querySelector(`button[data-range='day']`).click()")
    page.shows("#fall-count", "One fall of the link in the last day")
    left = page.run("return parseFloat(document.querySelector('#fall-line span').style.left)")
    assert 95 < left <= 100, left
    if folder := os.environ.get("PAGE_PICTURES"):
        page.shows_plots()
        page.run("document.querySelector('#falls-part').scrollIntoView()")
        page.browser.save_screenshot(f"{folder}/falls.png")
    page.run("document.querySelector(`button[data-range='hour']`).click()")
    board.play("set 6 rxpower=-4dBm module_status=0 link=up")
    page.go("")


def module_texts_stay_texts(board, page):
    texts = {"--vendor": "<img src=x>", "--pn": "<script>x()<", "--sn": "<i>&lt;\"'</i>"}
    options = shlex.join(word for pair in texts.items() for word in pair)
    board.play("remove 5", f"insert 5 --module lc-own {options}")
    page.row_shows(5, texts["--vendor"])
    page.go("port=5")
    for text in texts.values():
        page.shows("#identity", text)
    assert not page.run("return document.querySelectorAll('main :is(img, script, i)').length")
    page.go("")


def keys_are_enough(page):
    page.press("/", *"PORT3 exam", Keys.ARROW_DOWN)
    assert page.order() == [3], page.order()
    page.press(Keys.ENTER)
    page.shows("#port-title", "Port 3 (port3)")
    page.press(Keys.ESCAPE)
    await_true(lambda: page.run("return port.hidden"), "the port closed")
    assert page.run("return document.activeElement.closest('tr').dataset.port") == "3"
    page.press("/", Keys.ESCAPE)
    assert len(page.order()) == 16


def can_be_read(page):
    page.go("port=4")
    for scheme in "light", "dark":
        feature = {"name": "prefers-color-scheme", "value": scheme}
        page.emulate("setEmulatedMedia", features=[feature])
        ratio, what = page.run(CONTRAST)
        assert ratio >= 4.5, f"contrast {ratio:.2f} in {scheme}: {what}"
    page.emulate("setEmulatedMedia", features=[])
    telephone = {"width": 360, "height": 740, "deviceScaleFactor": 2, "mobile": True}
    page.emulate("setDeviceMetricsOverride", **telephone)
    for place in "port=4", "":
        page.go(place)
        width = page.run("return document.documentElement.scrollWidth")
        assert width <= 360, f"{width} is wider than a telephone: {place}"
    page.go("port=4")
    for width in range(820, 1300, 60):
        page.emulate("setDeviceMetricsOverride", width=width, height=900, deviceScaleFactor=1, mobile=False)
        assert not page.run(CUT), f"cut at {width} pixels: {page.run(CUT)}"
    page.go("")
    page.emulate("clearDeviceMetricsOverride")


def states_have_their_words(board, page):
    """A module that isn't ready isn't shown as an empty port; nothing is shown of a port that vanishes."""
    board.play("remove 7", "insert 7 --module lc-own --not-ready")
    page.row_shows(7, "module not ready")
    page.go("port=7")
    page.shows("#identity", "module not ready")
    names = Path(board.env["DOLM_RIC_PORT_MAP"])
    whole = names.read_text()
    names.write_text("".join(line for line in whole.splitlines(True) if not line.startswith("7\t")))
    page.shows("#port-title", "Port 7 isn't followed")
    assert 7 not in page.order(), page.order()
    assert "up" not in page.text("#port"), page.text("#port")
    names.write_text(whole)
    page.shows("#port-title", "Port 7 (port7)")
    page.browser.get_log("browser")  # entries about requests for the port that isn't followed
    board.play("ready 7")
    page.row_shows(7, "EXAMPLE OPTICS")
    page.go("")


def arrives_in_time(board, page):
    """The fastest of twelve changes appears within 50 ms of teskctl's line, on a busy machine, too. The
    slowest doesn't wait for the exporter's next look at its readers, up to 5 s later. Each link changes only
    twice, because the server's filter suppresses further changes."""
    ports = "0,1,2,8,9,10"
    up = ports.split(",")
    pattern = re.compile(f'"event":"status","port":({ports.replace(",", "|")}),')
    teskctl = board.start("teskctl", "--json", "watch", "--status", ports, stdout=subprocess.PIPE)
    stream = http.client.HTTPConnection("127.0.0.1", board.port)
    stream.request("GET", "/events")
    lines, events = [], []

    def follow(source, times):
        times += (time.time() for line in source if pattern.search(line.decode()))

    for source, times in (teskctl.stdout, lines), (stream.getresponse(), events):
        threading.Thread(target=follow, args=(source, times), daemon=True).start()
    await_true(lambda: min(len(lines), len(events)) == len(up), "the initial states")
    page.run(WATCH)
    del lines[:], events[:]
    changes = [f"link {port} {state}" for state in ("down", "up") for port in up]
    for count, change in enumerate(changes, 1):
        board.play(change)
        await_true(lambda: min(len(lines), len(events), page.run("return seen.length")) >= count,
                   change)
    for name, times in ("/events", events), ("the page", page.run("return seen")):
        late_ms = [1000 * (there - line) for there, line in zip(times, lines)]
        print(f"{name}: {statistics.median(late_ms):.1f} ms after teskctl's line (median)")
        assert min(late_ms) < 50 and max(late_ms) < 3000, late_ms
        assert len(times) == len(lines), "a change was shown twice"
    board.kill("teskctl")


def time_in(text):
    return datetime.datetime.strptime(text.rstrip(".").split(" at ")[1], "%H:%M:%S")


def loss_is_told(board, page):
    assert page.text("#banner") == ""
    board.kill("tesk-server")
    page.shows("#banner", "tesk-server is away")
    board.start("tesk-server")
    await_true(lambda: page.text("#banner") == "", "the server is found again")
    before = page.text("#latest")
    assert "inserted" not in before.split("tesk-server went away")[0], before
    board.kill("tesk-exporter")
    page.shows("#banner", "tesk-exporter doesn't answer")
    board.start_exporter()
    await_true(lambda: page.text("#banner") == "", "the exporter is found again")
    board.play_when_there("remove 6")
    page.row_shows(6, "no module")
    board.kill("tesk-server")
    page.shows("#banner", "as they were at")
    before = time_in(page.text("#banner"))
    time.sleep(3)  # so that the two times differ visibly
    page.browser.refresh()
    page.shows("#banner", "as they were at")  # the time of the loss, not that of the page's opening
    late = (time_in(page.text("#banner")) - before).total_seconds()
    assert abs(late) < 2, late  # the time of the last answer, or of the loss noticed after it


def fade(history, port):
    """Forty days of a port in the file; in the last twenty its light falls by 0.3 dB a day."""
    with contextlib.closing(sqlite3.connect(f"{history}/history.db")) as file, file:
        place = file.execute("SELECT id FROM places WHERE port = ?", [port]).fetchone()[0]
        file.execute("UPDATE places SET first = first - 40 * 86400 WHERE id = ?", [place])
        for table, seconds, count, parts in ("days", 86400, 40, 3), ("hours", 3600, 960, 3), ("steps", 300, 576, 1):
            last = int(time.time()) // seconds
            for age in range(count, 0, -1):
                loss, noise = max(0, 20 - age * seconds / 86400) * 0.3, age * 7919 % 13
                row = struct.pack("<6h", 4000 + noise, 16500, round(-500 * (4 + loss)) + noise, -1000,
                                  3000 + noise, 0)[:10]
                file.execute(f"INSERT OR IGNORE INTO {table} VALUES(?, ?)",
                             [(last - age) << 24 | place, bytes([1, 100]) + parts * row])
        for age, change in (30, "down"), (25, "replaced"):
            file.execute("INSERT INTO events(time, port, place, kind, text) VALUES(?, ?, ?, ?, ?)",
                         [last * 300 - age * 86400, port, place, change, ""])


def a_fade_is_shown(board, page):
    board.kill("tesk-exporter", signal.SIGTERM)
    fade(board.history, 2)
    board.start_exporter()
    page.row_shows(2, "days left")
    await_true(lambda: page.order().index(2) < page.order().index(0), "the forecast above what is ok")
    await_true(lambda: page.text("#banner") == "", "the exporter is found again")
    page.browser.get_log("browser")  # entries about the restart
    page.go("port=2")
    page.shows("#forecasts", "receive power of lane 0: ")
    for span in "2d", "8w", "2y":
        page.run("document.querySelector(`button[data-range='${arguments[0]}']`).click()", span)
        label = "return document.querySelector('#plots .plot')?.ariaLabel ?? ''"
        await_true(lambda: f"last {span}" in page.run(label), span)
        assert ("forecast" in page.run(label)) == (span != "2d"), page.run(label)
        if folder := os.environ.get("PAGE_PICTURES"):
            page.run("plots.scrollIntoView()")
            page.browser.save_screenshot(f"{folder}/{span}.png")
    complaints = page.browser.get_log("browser")
    assert not complaints, complaints
    page.go("")
    ten_days = subprocess.run([BIN / "teskctl", "trend", "2", "--days", "10", "--csv", "--exporter",
                               f"127.0.0.1:{board.port}"], check=True, capture_output=True).stdout
    assert 230 < ten_days.count(b"\n") <= 241, ten_days.count(b"\n")  # one row for each hour


def picture(board, page):
    board.play("set 6 txbias=72mA", "link 6 down", "link 6 up")
    page.row_shows(6, "warning")
    page.go("port=4")
    page.shows_plots()
    page.emulate("setDeviceMetricsOverride", width=1440, height=960, deviceScaleFactor=1,
                 mobile=False)
    page.browser.save_screenshot(str(SOURCE / "docs/page.png"))


def run_shows_it(place):
    """./run --page prints the page's address, ends with Ctrl-C, and leaves no file."""
    Path(place, "tmp").mkdir()
    env = {**os.environ, "TMPDIR": f"{place}/tmp"}
    # A shell can't handle a signal that was ignored at its start, as in a background job.
    run = subprocess.Popen(["env", "--default-signal=INT", SOURCE / "run", "--page"], env=env,
                           text=True, stdout=subprocess.DEVNULL, stderr=subprocess.PIPE,
                           start_new_session=True)
    address = re.compile(r"http://127.0.0.1:(\d+)/")
    await_port(int(next(found for line in run.stderr if (found := address.search(line)))[1]))
    os.killpg(run.pid, signal.SIGINT)
    assert run.wait(DEADLINE_S) == 130, run.returncode
    assert not os.listdir(f"{place}/tmp"), os.listdir(f"{place}/tmp")


def check_page(board, place):
    page = Page(f"http://127.0.0.1:{board.port}/", f"{place}/profile")
    try:
        changes_appear(board, page)
        if "--write" in sys.argv:
            picture(board, page)
        falls_are_shown(board, page)
        module_texts_stay_texts(board, page)
        keys_are_enough(page)
        states_have_their_words(board, page)
        can_be_read(page)
        arrives_in_time(board, page)
        complaints = page.browser.get_log("browser")
        assert not complaints, complaints
        a_fade_is_shown(board, page)
        loss_is_told(board, page)
    finally:
        page.browser.quit()


def main():
    with tempfile.TemporaryDirectory() as place:
        board = Board(place)
        try:
            board.start("tesk-server")
            board.play_when_there("ports")
            board.start_exporter()
            await_port(board.port)
            check_page(board, place)
            run_shows_it(place)
        finally:
            for process in board.running.values():
                process.send_signal(signal.SIGTERM)
            for process in board.running.values():
                process.wait(DEADLINE_S)
    print("the page does what it should")


main()
