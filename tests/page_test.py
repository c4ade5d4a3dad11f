#!/usr/bin/python3
# SPDX-License-Identifier: Apache-2.0
"""The page in a headless Chromium, against tesk-server on the simulated board and tesk-exporter.

    tests/page_test.py BUILD_DIR [--write]

--write makes docs/page.png besides. The Python of Debian, for python3-selenium.
"""
import http.client
import json
import os
import re
import signal
import socket
import statistics
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
    --disable-background-networking --disable-component-update --disable-sync""".split()

# The lowest contrast of a text that is shown to what is behind it.
CONTRAST = """
const luminance = (rgb) => rgb.map((c) => c / 255).map((c) => c <= 0.04045 ? c / 12.92 : ((c + 0.055) / 1.055) ** 2.4)
  .reduce((sum, c, i) => sum + c * [0.2126, 0.7152, 0.0722][i], 0);
const numbers = (text) => text.match(/[\\d.]+/g).map(Number);
function ground(element) {
  const colour = numbers(getComputedStyle(element).backgroundColor);
  return colour.length === 4 && colour[3] === 0 && element.parentElement ? ground(element.parentElement) : colour.slice(0, 3);
}
let worst = [99, ""];
for (const element of document.body.querySelectorAll("*")) {
  const has_text = [...element.childNodes].some((node) => node.nodeType === 3 && node.textContent.trim());
  if (!has_text || !element.checkVisibility() || element.closest(".unseen, .skip, noscript, tr.changed"))
    continue;
  const [a, b] = [luminance(numbers(getComputedStyle(element).color).slice(0, 3)), luminance(ground(element))];
  const ratio = (Math.max(a, b) + 0.05) / (Math.min(a, b) + 0.05);
  if (ratio < worst[0])
    worst = [ratio, element.outerHTML.slice(0, 200)];
}
return worst;"""

# Notes when the link of a port is shown in another way.
WATCH = """
const rows = ports.tBodies[0].rows, links = () => [...rows].map((row) => [row, row.cells[1].textContent]);
const last = new Map(links());
window.seen = [];
new MutationObserver(() => {
  for (const [row, text] of links())
    if (last.get(row) !== text && last.set(row, text))
      seen.push((performance.timeOrigin + performance.now()) / 1000);
}).observe(ports.tBodies[0], {subtree: true, childList: true, characterData: true});"""


class Board:
    """The server, the exporter and the tools in a folder of their own."""

    def __init__(self, place):
        self.place = place
        self.env = {**os.environ, "MBX_DIR": f"{place}/mbx", "DOLM_RIC_SOCKET": f"{place}/board",
                    "DOLM_RIC_PORT_MAP": f"{place}/ports"}
        with socket.socket() as free:
            free.bind(("127.0.0.1", 0))
            self.port = free.getsockname()[1]
        self.running = {}

    def start(self, name, *options, **how):
        self.running[name] = subprocess.Popen([BIN / name, *options], env=self.env, **how)
        return self.running[name]

    def start_exporter(self):
        self.start("tesk-exporter", "--listen", f"127.0.0.1:{self.port}", "--interval", "0.5",
                   "--web", str(BIN.parent / "web"))

    def kill(self, name):
        process = self.running.pop(name)
        process.kill()
        process.wait()

    def play(self, *words):
        subprocess.run([BIN / "teskboard", *words], env=self.env, check=True, stdout=subprocess.DEVNULL)

    def play_when_there(self, *words):
        def is_done():
            return subprocess.run([BIN / "teskboard", *words], env=self.env, capture_output=True).returncode == 0
        await_true(is_done, "the board")


def await_true(holds, what):
    end = time.monotonic() + DEADLINE_S
    while not (value := holds()):
        assert time.monotonic() < end, f"not in time: {what}"
        time.sleep(0.02)
    return value


class Page:
    def __init__(self, address, profile):
        options = webdriver.ChromeOptions()
        for option in [*CHROMIUM, f"--user-data-dir={profile}", "--window-size=1440,1000"]:
            options.add_argument(option)
        options.set_capability("goog:loggingPrefs", {"browser": "ALL"})
        self.browser = webdriver.Chrome(service=Service("/usr/bin/chromedriver"), options=options)
        self.browser.get(address)

    def run(self, script, *arguments):
        return self.browser.execute_script(script, *arguments)

    def text(self, selector):
        return self.run("return document.querySelector(arguments[0])?.innerText ?? ''", selector)

    def row(self, port):
        return self.text(f'#ports tr[data-port="{port}"]')

    def shows(self, selector, words):
        await_true(lambda: words in self.text(selector), f"{words!r} in {selector}: {self.text(selector)!r}")

    def press(self, *keys):
        for key in keys:
            self.browser.switch_to.active_element.send_keys(key)

    def order(self):
        return self.run("return [...document.querySelectorAll('#ports tbody tr:not([hidden])')].map(r => +r.dataset.port)")

    def emulate(self, command, **what):
        self.browser.execute_cdp_cmd(f"Emulation.{command}", what)


def changes_appear(board, page):
    await_true(lambda: len(page.order()) == 16, "16 rows")
    page.shows('#ports tr[data-port="3"]', "EXAMPLE OPTICS")
    board.play("remove", "3")
    page.shows('#ports tr[data-port="3"]', "no module")
    page.shows("#latest", "Port 3 (port3): module removed")
    await_true(lambda: "module removed" in page.run("return announcer.textContent"), "the live region")
    board.play("insert", "3", "--module", "lc-own")
    page.shows("#latest", "module inserted")
    board.play("set", "4", "temperature=91C")
    board.play("link", "4", "down")
    page.shows('#ports tr[data-port="4"]', "down") # or the server sees both at once
    board.play("link", "4", "up")
    page.shows('#ports tr[data-port="4"]', "high alarm: temperature")
    await_true(lambda: page.order()[0] == 4, "the alarm on top")
    page.run("location.hash = 'port=4'")
    page.shows("#values", "91.0 °C")
    page.shows("#history", "link up, high alarm: temperature")
    await_true(lambda: page.run("return document.querySelectorAll('#plots canvas').length") >= 4, "plots")
    page.run("location.hash = ''")


def module_texts_stay_texts(board, page):
    texts = {"--vendor": "<img src=x>", "--pn": "<script>x()<", "--sn": "<i>&lt;\"'</i>"}
    board.play("remove", "5")
    board.play("insert", "5", "--module", "lc-own", *[word for pair in texts.items() for word in pair])
    page.shows('#ports tr[data-port="5"]', texts["--vendor"])
    page.run("location.hash = 'port=5'")
    for text in texts.values():
        page.shows("#identity", text)
    assert page.run("return document.querySelectorAll('main :is(img, script, i)').length") == 0
    page.run("location.hash = ''")


def keys_are_enough(page):
    page.run("document.activeElement.blur()")
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
    page.run("location.hash = 'port=4'")
    for scheme in "light", "dark":
        page.emulate("setEmulatedMedia", features=[{"name": "prefers-color-scheme", "value": scheme}])
        ratio, what = page.run(CONTRAST)
        assert ratio >= 4.5, f"contrast {ratio:.2f} in {scheme}: {what}"
    page.emulate("setEmulatedMedia", features=[])
    page.emulate("setDeviceMetricsOverride", width=360, height=740, deviceScaleFactor=2, mobile=True)
    for place in "#port=4", "":
        page.run("location.hash = arguments[0]", place)
        assert page.run("return document.documentElement.scrollWidth") <= 360, f"wider than a telephone: {place}"
    page.emulate("clearDeviceMetricsOverride")


def arrives_in_time(board, page):
    """The fastest of twelve changes appears within 50 ms of teskctl's line; the machine may be busy with other
    tests. The slowest doesn't wait for the exporter's next look at its readers, which is up to 5 s later. Each
    link changes only twice, because the server's filter holds back further changes."""
    up = [0, 1, 2, 8, 9, 10]
    teskctl = board.start("teskctl", "--json", "watch", "--status", ",".join(map(str, up)), stdout=subprocess.PIPE, text=True)
    stream = http.client.HTTPConnection("127.0.0.1", board.port)
    stream.request("GET", "/events")
    lines, events = [], []
    pattern = re.compile(r'"event":"status","port":(0|1|2|8|9|10),')

    def follow(source, times):
        times += (time.time() for line in source if pattern.search(line))

    threading.Thread(target=follow, args=(teskctl.stdout, lines), daemon=True).start()
    answer = (line.decode() for line in stream.getresponse())
    threading.Thread(target=follow, args=(answer, events), daemon=True).start()
    await_true(lambda: min(len(lines), len(events)) == len(up), "the initial states")
    page.run(WATCH)
    del lines[:], events[:]
    for count, (state, port) in enumerate([(state, port) for state in ("down", "up") for port in up], 1):
        board.play("link", str(port), state)
        await_true(lambda: min(len(lines), len(events), page.run("return seen.length")) >= count, f"change {count}")
    for name, times in ("/events", events), ("the page", page.run("return seen")):
        late_ms = [1000 * (there - line) for there, line in zip(times, lines)]
        print(f"{name}: {statistics.median(late_ms):.1f} ms after teskctl's line (median), best {min(late_ms):.1f} ms")
        assert min(late_ms) < 50 and max(late_ms) < 3000 and len(times) == len(lines), (late_ms, "or a change was shown twice")
    board.kill("teskctl")


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
    board.play_when_there("remove", "6")
    page.shows('#ports tr[data-port="6"]', "no module")


def picture(board, page):
    board.play("set", "6", "txbias=72mA")
    for state in "down", "up":
        board.play("link", "6", state)
    page.shows('#ports tr[data-port="6"]', "warning")
    page.run("location.hash = 'port=4'; document.activeElement.blur()")
    await_true(lambda: page.run("return document.querySelectorAll('#plots canvas').length") >= 4, "plots")
    page.emulate("setDeviceMetricsOverride", width=1440, height=960, deviceScaleFactor=1, mobile=False)
    page.browser.save_screenshot(str(SOURCE / "docs/page.png"))


def run_shows_it(place):
    """./run --page tells an address where the page is, ends with Ctrl-C, and leaves nothing behind."""
    for folder in "bin", "tmp":
        Path(place, folder).mkdir()
    Path(place, "bin/cmake").symlink_to("/bin/true")  # what it would build is built
    env = {**os.environ, "PATH": f"{place}/bin:{os.environ['PATH']}", "TMPDIR": f"{place}/tmp"}
    # A shell can't take a signal that was ignored when it was started, as in a job in the background.
    run = subprocess.Popen(["env", "--default-signal=INT", SOURCE / "run", "--page"], env=env, text=True,
                           stdout=subprocess.DEVNULL, stderr=subprocess.PIPE, start_new_session=True)
    port = next(found for line in run.stderr if (found := re.search(r"http://127.0.0.1:(\d+)/", line)))[1]
    await_true(lambda: not socket.socket().connect_ex(("127.0.0.1", int(port))), "the page of ./run")
    os.killpg(run.pid, signal.SIGINT)
    assert run.wait(DEADLINE_S) == 130 and not os.listdir(f"{place}/tmp"), (run.returncode, os.listdir(f"{place}/tmp"))


def main():
    with tempfile.TemporaryDirectory() as place:
        board = Board(place)
        page = None
        try:
            board.start("tesk-server")
            board.play_when_there("ports")
            board.start_exporter()
            await_true(lambda: not socket.socket().connect_ex(("127.0.0.1", board.port)), "the exporter")
            page = Page(f"http://127.0.0.1:{board.port}/", f"{place}/profile")
            changes_appear(board, page)
            if "--write" in sys.argv:
                picture(board, page)
            module_texts_stay_texts(board, page)
            keys_are_enough(page)
            can_be_read(page)
            arrives_in_time(board, page)
            complaints = page.browser.get_log("browser")
            assert not complaints, json.dumps(complaints)
            loss_is_told(board, page)
            run_shows_it(place)
        finally:
            if page:
                page.browser.quit()
            for process in board.running.values():
                process.send_signal(signal.SIGTERM)
            for process in board.running.values():
                process.wait(DEADLINE_S)
    print("the page does what it should")


main()
