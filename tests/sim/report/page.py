#!/usr/bin/env python3
"""page.py BUILD: looks at the pages of --html in a headless Chromium, driven over the pipe of its DevTools."""
import base64
import json
import os
import pathlib
import re
import subprocess
import sys
import tempfile

flashsim = pathlib.Path(sys.argv[1]).resolve() / "flashsim"
source = pathlib.Path(__file__).resolve().parents[3]
# Where a power cut leaves a device that does not boot.
PLACES = {"early-selector": "0x20000 to 0x2ffff", "environment-in-place": "0x4000 to 0x7fff", "loader-in-place": "0x0 to 0x3fff"}
LEGEND = re.compile(r"(untouched|erased|written without erase|written|bad) (\d+)")


class Browser:
    """A page in Chromium. Errors of the page and requests for anything but the page are kept in `troubles`."""

    def __init__(self, profile):
        to_browser, to_us = os.pipe(), os.pipe()
        # The browser reads commands from 3 and writes answers to 4.
        program = 'exec 3<&"$1" 4>&"$2"; shift 2; exec "$@"'
        sandbox = ["--no-sandbox"] if os.geteuid() == 0 else []
        self.process = subprocess.Popen(
            ["bash", "-c", program, "bash", str(to_browser[0]), str(to_us[1]), "chromium", "--headless=new", *sandbox,
             "--remote-debugging-pipe", "--disable-gpu", "--disable-dev-shm-usage", "--no-first-run", f"--user-data-dir={profile}"],
            pass_fds=(to_browser[0], to_us[1]), stdout=subprocess.DEVNULL, stderr=subprocess.DEVNULL)
        os.close(to_browser[0])
        os.close(to_us[1])
        self.commands, self.answers = os.fdopen(to_browser[1], "wb", 0), os.fdopen(to_us[0], "rb")
        self.number, self.session, self.troubles, self.buffer, self.loaded = 0, None, [], b"", 0
        target = self.call("Target.createTarget", url="about:blank")["targetId"]
        self.session = self.call("Target.attachToTarget", targetId=target, flatten=True)["sessionId"]
        for domain in ("Page", "Runtime", "Log", "Network", "Accessibility"):
            self.call(f"{domain}.enable")
        self.look("light")

    def receive(self):
        while b"\0" not in self.buffer:
            part = os.read(self.answers.fileno(), 1 << 20)
            assert part, "the browser ended"
            self.buffer += part
        message, self.buffer = self.buffer.split(b"\0", 1)
        message = json.loads(message)
        method, params = message.get("method"), message.get("params", {})
        if method == "Page.loadEventFired":
            self.loaded += 1
        if method in ("Runtime.exceptionThrown", "Log.entryAdded", "Page.javascriptDialogOpening") or \
                method == "Runtime.consoleAPICalled" and params["type"] in ("error", "warning", "assert") or \
                method == "Network.requestWillBeSent" and not params["request"]["url"].startswith("file:"):
            self.troubles.append(params)
        return message

    def call(self, method, **params):
        self.number += 1
        message = {"id": self.number, "method": method, "params": params}
        if self.session and not method.startswith(("Target.", "Browser.")):
            message["sessionId"] = self.session
        self.commands.write(json.dumps(message).encode() + b"\0")
        while (answer := self.receive()).get("id") != self.number:
            pass
        assert "error" not in answer, (method, answer)
        return answer["result"]

    def open(self, path):
        before = self.loaded
        self.call("Page.navigate", url=path.resolve().as_uri())
        while self.loaded == before:
            self.receive()

    def ask(self, expression):
        """The value of an expression of the page, once what it changed is drawn."""
        result = self.call("Runtime.evaluate", awaitPromise=True, returnByValue=True, userGesture=True, expression=
                           f"(async () => {{ const value = await ({expression});"
                           "await new Promise(done => requestAnimationFrame(() => setTimeout(done))); return value; })()")
        assert "exceptionDetails" not in result, result
        return result["result"].get("value")

    def text(self, selector):
        return self.ask(f"document.querySelector({json.dumps(selector)}).textContent")

    def click(self, expression, x=0.5):
        """A real click on an element; x is a part of its width."""
        box = self.ask(f"(() => {{ const it = {expression}; it.scrollIntoView({{behavior: 'instant', block: 'center'}});"
                       "const box = it.getBoundingClientRect(); return [box.x, box.y, box.width, box.height]; })()")
        for kind in ("mousePressed", "mouseReleased"):
            self.call("Input.dispatchMouseEvent", type=kind, x=box[0] + box[2] * x, y=box[1] + box[3] / 2, button="left", clickCount=1)
        self.ask("0")

    def press(self, selector, key):
        code = {"ArrowLeft": 37, "ArrowRight": 39, "ArrowDown": 40, "Home": 36, "End": 35, "Enter": 13}[key]
        self.ask(f"document.querySelector({json.dumps(selector)}).focus()")
        for kind in ("keyDown", "keyUp"):
            self.call("Input.dispatchKeyEvent", type=kind, key=key, code=key, windowsVirtualKeyCode=code,
                      **({"text": "\r"} if key == "Enter" and kind == "keyDown" else {}))
        self.ask("0")

    def look(self, theme, media="screen"):
        self.call("Emulation.setEmulatedMedia", media=media, features=[
            {"name": "prefers-color-scheme", "value": theme}, {"name": "prefers-reduced-motion", "value": "reduce"}])

    def go(self, time):
        self.ask(f"setTime({time})")

    def time(self):
        return int(self.ask("document.querySelector('#time').value"))

    def marks(self):
        return {words: int(number) for words, number in LEGEND.findall(self.text("#legend"))}


def run(folder, *words):
    done = subprocess.run([flashsim, *words], cwd=folder, stdout=subprocess.PIPE, stderr=subprocess.STDOUT, check=False)
    assert done.returncode in (0, 1), done.stdout.decode(errors="replace")
    return done.stdout.decode(errors="replace")


def printed_marks(output):
    """The legend of the terminal's map, with zeros as on the page."""
    found = {words: int(number) for words, number in LEGEND.findall(output.split("one cell")[0])}
    return {words: found.get(words, 0) for words in ("untouched", "erased", "written", "bad", "written without erase")}


def check_example(browser, folder, update, device):
    """Every failing cut is at its change, with its command; each boot window is where the report has it."""
    options = ["--device", f"devices/{device}.toml"]
    run(folder, "sweep", "cut", *options, "--report", "report.json", "--html", "page.html", f"ab/{update}")
    report = json.loads((folder / "report.json").read_text())
    [sweep] = report["sweeps"]
    browser.open(folder / "page.html")
    headline = browser.text("#headline")
    gaps = sweep["unbootable"]
    assert headline.startswith("NOT SAFE") == bool(gaps or sweep["failures"]), headline
    assert f"the update again: {sweep['held']} of {sweep['done']} runs passed" in browser.text("#facts")
    assert ("Power cut alone: boots after each" in browser.text("#facts")) == (not gaps)
    strips = browser.ask("[...document.querySelectorAll('.strip canvas')].map(it => it.getAttribute('aria-label'))")
    for gap in gaps:
        assert f"line {gap['line']}" in headline and all(str(line) in headline for line in gap["selectedBy"])
        card = browser.text(".problem")
        assert gap["why"] in card and "Keep one bootable system whole" in card and PLACES[update] in card, card
        for line in gap["selectedBy"]:
            assert f"slot that line {gap['line']} has not written" in browser.text(f"#line{line}")
        assert any(f"changes {gap['first']} to {gap['last']}, line {gap['line']}" in label for label in strips)
        browser.click("[...document.querySelectorAll('.problem')].find(it => it.textContent.startsWith('Does not boot'))"
                      ".querySelector('.buttons').lastChild")
        assert browser.time() == gap["first"]
        assert f"line {gap['line']}" in browser.text("#now") and "does not boot" in browser.text("#now")
        assert "does not boot" not in (browser.go(gap["first"] - 1), browser.text("#now"))[1]
    commands = {}
    for failure in sweep["failures"]:
        commands.setdefault((failure["cut"], failure["line"]), set()).add(failure["command"])
    if sweep["failures"]:
        browser.click("[...document.querySelectorAll('.problem')].find(it => it.textContent.startsWith('sweep cut'))"
                      ".querySelector('.buttons').lastChild")
    seen = {}
    for _ in sweep["failures"]:
        line = re.search(r"Line (\d+)", browser.text("#selected-text"))
        now = browser.text("#now")
        assert f"Change {browser.time()} of {report['changes']}" in now and "Power is lost during this change" in now
        seen.setdefault((browser.time(), int(line[1])), set()).add(browser.text("#selected-command pre"))
        browser.click("document.querySelector('#next')")
    assert seen == commands, (seen, commands)
    # The chip at a change is the chip that a cut after that change leaves.
    for time in sorted({1, report["changes"] // 2, *(gap["last"] for gap in gaps)}):
        browser.go(time)
        assert browser.marks() == printed_marks(run(folder, *options[:2], "--used", "--cut", f"{time}:done", f"ab/{update}")), time
    return sweep


def check_use(browser, folder):
    """Keyboard, pointer, clipboard, assistive technology, themes and widths, on the page that is open."""
    run(folder, "sweep", "cut", "bad", "faults", "--sets", "5", "--device", "devices/ab-one-environment.toml", "--report", "report.json",
        "--html", "page.html", "ab/environment-in-place")
    report = json.loads((folder / "report.json").read_text())
    browser.open(folder / "page.html")
    changes = report["changes"]
    assert "boots after each" not in browser.text("#facts") and "does not boot after" in browser.text("#facts")
    for key, time in (("Home", 0), ("ArrowRight", 1), ("ArrowRight", 2), ("ArrowLeft", 1), ("End", changes)):
        browser.press("#time", key)
        assert browser.time() == time, (key, browser.time())
        assert f"Change {time} of {changes}" in browser.text("#now")
        assert browser.ask("document.querySelector('#time').getAttribute('aria-valuetext')") in browser.text("#now")
    assert browser.text("#percent-text") == f"{report['percentages'][-1]} %" and "write bootslot = b to env" in browser.text("#output")
    browser.go(0)
    assert browser.text("#percent-text") == "none reported yet" and "write bootslot" not in browser.text("#output")
    block = int(browser.ask("document.querySelector('#number').value"))
    browser.press("#map", "ArrowRight")
    assert f"{block + 1}, at " in browser.text("#block")
    browser.press("#map", "Home")
    assert "0, at 0x0" in browser.text("#block")
    browser.click("document.querySelector('#map')")
    assert "0, at 0x0" not in browser.text("#block")
    browser.ask("document.querySelector('#table').open = true")
    browser.go(changes)
    assert "8 to 10\t0x20000\twritten\t2" in browser.ask("[...document.querySelectorAll('#table tbody tr')].map(it => it.innerText)")
    # The final state of each block, as the program has it.
    assert browser.ask("data.marks.flatMap(([n, mark]) => Array(n).fill(mark)).every((mark, block) => history.state(block, changeCount) === mark)")

    # The bad block and each strip: a click on a mark selects its failure.
    [bad] = [sweep["failures"] for sweep in report["sweeps"] if sweep["kind"] == "bad"]
    strip = "[...document.querySelectorAll('.strip canvas')].find(it => it.getAttribute('aria-label').startsWith('Sweep bad'))"
    place = browser.ask(f"(() => {{ const width = {strip}.clientWidth, run = data.sweeps[1].runsFailed[0]; return xOf(run.time, width) / width; }})()")
    browser.click(strip, place)
    assert f"block {bad[0]['badBlocks'][0]} bad" in browser.text("#selected-text")
    assert browser.text("#selected-command pre") in [failure["command"] for failure in bad]
    assert f"{bad[0]['badBlocks'][0]}, at " in browser.text("#block")
    browser.call("Browser.grantPermissions", permissions=["clipboardReadWrite", "clipboardSanitizedWrite"])
    browser.press("#selected-command button", "Enter")
    assert browser.ask("navigator.clipboard.readText()") == browser.text("#selected-command pre")
    assert browser.text("#live") == "The command is copied."
    browser.press("#close", "Enter")
    assert browser.ask("document.querySelector('#selected').hidden && document.activeElement.id") == "time"

    nodes = browser.call("Accessibility.getFullAXTree")["nodes"]
    named = [(node["role"]["value"], node.get("name", {}).get("value", "")) for node in nodes if not node["ignored"] and "role" in node]
    assert all(name for role, name in named if role in ("button", "slider", "spinbutton", "image", "img", "progressbar")), named
    assert {("slider", "Change"), ("spinbutton", "Block")} <= set(named) and sum(role == "status" for role, _ in named) == 2
    assert [name for role, name in named if role == "heading"][0].startswith("NOT SAFE")

    def look(theme, width, media="screen"):
        browser.look(theme, media)
        browser.call("Emulation.setDeviceMetricsOverride", width=width, height=740, deviceScaleFactor=2, mobile=width < 500)
        browser.ask("0")
        assert browser.ask("document.documentElement.scrollWidth <= innerWidth"), (theme, width)
        colours = browser.ask("['--back', '--panel', '--text', '--dim', '--bad', '--warn', '--good'].map(name => {"
                              "const it = document.body.appendChild(document.createElement('i')); it.style.color = colour(name);"
                              "const parts = getComputedStyle(it).color.match(/\\d+/g).map(Number); it.remove(); return parts; })")

        def luminance(colour):
            parts = [part / 255 / 12.92 if part <= 10 else ((part / 255 + .055) / 1.055) ** 2.4 for part in colour]
            return .2126 * parts[0] + .7152 * parts[1] + .0722 * parts[2]
        back, panel, *texts = map(luminance, colours)
        for text in texts:
            for under in (back, panel):
                assert (max(text, under) + .05) / (min(text, under) + .05) >= 4.5, (theme, colours)
        return back, browser.ask("document.querySelector('#map').toDataURL()")
    light, dark = look("light", 1280), look("dark", 1280)
    assert light[0] > .9 and dark[0] < .1 and light[1] != dark[1]
    assert look("dark", 360)[0] < .1 and look("light", 320)[0] > .9
    assert look("dark", 800, "print")[0] > .9
    assert not browser.ask("[...document.querySelectorAll('button')].some(it => it.checkVisibility())")
    assert len(base64.b64decode(browser.call("Page.printToPDF")["data"])) > 10000
    browser.look("light")
    browser.call("Emulation.clearDeviceMetricsOverride")


def check_hostile(browser, folder):
    """What an update prints and is called stays text."""
    name = "evil<!--data--></script><script>alert(1)</script>"
    hostile = folder / name.replace("/", "_")
    hostile.mkdir()
    (hostile / "flashrig.script").write_bytes("# </script><img src=x onerror=alert(2)> \u202eright\x1b[31m \xff\nwrite 0 0x8000 a<b>&\u202e\n".encode())
    run(folder, "--html", "page.html", hostile.name)
    text = (folder / "page.html").read_text()
    assert not re.search("[\x00-\x08\x0b-\x1f\x7f\u200b-\u200f\u202a-\u202e\u2066-\u2069]", text)
    browser.open(folder / "page.html")
    assert browser.ask("document.scripts.length === 2 && document.images.length === 0")
    assert hostile.name in browser.text("#update") and "\\u202eright\\x1b[31m" in browser.text("#script")
    assert "a<b>&\\u202e" in browser.text("#problems")


def check_size(browser, folder):
    """8,192 blocks and 130,000 changes."""
    update = folder / "large"
    update.mkdir()
    with (update / "image").open("wb") as image:
        image.truncate(3940 * 16384)
    (update / "flashrig.script").write_text("write 0 0x8000000 image\n")
    run(folder, "--chip", "128M,16K,512,16", "--report", "report.json", "--html", "page.html", "large")
    assert json.loads((folder / "report.json").read_text())["changes"] > 130000
    assert (folder / "page.html").stat().st_size < 5 << 20
    browser.open(folder / "page.html")
    for time in (1, 8193, 100000, 70000):
        browser.go(time)
        # Erases come first: 8192 of them, block by block.
        erased, written = min(time, 8192), -(-max(0, time - 8192) // 32)
        assert browser.marks() == {"untouched": 8192 - erased, "erased": erased - written, "written": written, "bad": 0,
                                   "written without erase": 0}, browser.marks()


def check_merged(browser, folder):
    """A page of shards has no chip, but all failures."""
    for shard in (1, 2):
        run(folder, "sweep", "cut", "--shard", f"{shard}/2", "--device", "devices/ab.toml", "--report", f"{shard}.json", "ab/early-selector")
    run(folder, "merge", "--html", "page.html", "1.json", "2.json")
    browser.open(folder / "page.html")
    assert browser.text("#headline").startswith("NOT SAFE: a power cut in line 4 ")
    assert not browser.ask("document.querySelector('#time').checkVisibility() || document.querySelector('#map').checkVisibility()")
    browser.click("document.querySelectorAll('.problem .buttons')[1].lastChild")
    assert "failure 1 of 4: power lost at change 1 (half)" in browser.text("#selected-text")


with tempfile.TemporaryDirectory() as temporary:
    folder = pathlib.Path(temporary) / "examples"
    subprocess.run([source / "examples/make", folder], check=True)
    browser = Browser(pathlib.Path(temporary) / "profile")
    try:
        sweeps = {update: check_example(browser, folder, update, device) for update, device in (
            ("boots-always", "ab"), ("early-selector", "ab"), ("environment-in-place", "ab-one-environment"), ("loader-in-place", "ab"))}
        assert [len(sweep["unbootable"]) for sweep in sweeps.values()] == [0, 1, 1, 1]
        check_use(browser, folder)
        check_hostile(browser, folder)
        check_size(browser, folder)
        check_merged(browser, folder)
        assert not browser.troubles, browser.troubles
        browser.call("Browser.close")
    finally:
        browser.process.kill()
        browser.process.wait()

print("the pages show what the reports have")
