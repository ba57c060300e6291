#!/usr/bin/env python3
"""found_truth.py FLASHSIM: updates whose correct findings are known, each with its cure.

A row has a trap with all its findings, then the trap changed as the findings advise, with what is left of them. An update
is (script, files, options); findings are "line:kind", with line 0 for the run as a whole.
"""
import json
import pathlib
import struct
import subprocess
import sys
import tempfile
import zlib

BLOCK = 0x4000
OOB = 16


def environment(*entries, size=BLOCK, flag=b""):
    listed = b"".join(entry.encode() + b"\0" for entry in entries).ljust(size - 4 - len(flag), b"\0")
    return struct.pack("<I", zlib.crc32(listed)) + flag + listed


def text(size):
    return b"".join(b"%d\n" % number for number in range(size // 2))[:size]


def prints(*lines):
    """A progress script that prints lines as the updater would."""
    return ("#!/bin/sh\nprintf '%s\\n' " + " ".join(f"'{line}'" for line in lines) + " >&2\n").encode()


SET = "setenv 20000 4000 a 2\n"
WHOLE = environment("bootcmd=x", "a=1")
LAID = ("write 20000 8000 env\n" + SET, {"env": WHOLE}, "--ecc chip")
DEVICE = "--root {device}"
LOADER = text(BLOCK)
FAILS = "error : write page return -1", "error : erase failed at 20000", "Unknown script command erase"
SUCCEEDS = "write file complete", "erase complete", "write /tmp/update/two to flash address 34000", "write file complete"

ROWS = [
    # What the first change of a variable finds.
    ("a blank block", (SET, {}, ""), ["1:environment-absent"], (SET, {}, "--used"), []),
    ("a blank block, laid down instead", (SET, {}, "--ecc chip"), ["1:environment-absent"], LAID, []),
    ("an erase ahead of the change", ("erase 20000 8000\n" + SET, {}, "--used"), ["2:environment-erased"],
     ("erase 24000 4000\n" + SET, {}, "--used"), []),
    ("text", ("write 20000 8000 env\n" + SET, {"env": text(BLOCK)}, "--ecc chip"), ["2:environment-invalid"], LAID, []),
    ("an image between two changes", (SET + "write 20000 8000 env\n" + SET, {"env": text(BLOCK)}, "--ecc chip --used"),
     ["2:overlap", "3:environment-invalid"], (SET + SET, {}, "--ecc chip --used"), []),
    ("an environment shorter than the range",
     ("write 20000 8000 env\nsetenv 20000 8000 a 2\n", {"env": WHOLE}, "--ecc chip"), ["2:environment-invalid"], LAID, []),
    ("an environment that is no whole block", ("write 20000 8000 env\n" + SET, {"env": environment("a=1", size=0x1000)},
     "--ecc chip"), ["2:environment-invalid"], ("setenv a 2\n", {}, DEVICE), []),
    *((f"a redundant environment with the flag {flag}",
       ("write 20000 8000 env\n" + SET, {"env": environment("a=1", flag=bytes([flag]))}, "--ecc chip"),
       ["2:environment-invalid"], ("setenv a 2\n", {}, DEVICE), []) for flag in (0, 1, 255)),
    ("the variable twice", ("write 20000 8000 env\n" + SET, {"env": environment("a=1", "b=1", "a=3")}, "--ecc chip"),
     ["2:duplicate-variable"], LAID, []),
    ("another variable twice", ("write 20000 8000 env\n" + SET, {"env": environment("a=1", "b=1", "b=3")}, "--ecc chip"),
     ["2:duplicate-variable"], LAID, []),
    ("variables that a new environment lacks", (LAID[0], LAID[1], "--ecc chip --used"), ["1:variables-removed"],
     (LAID[0], {"env": environment("a=1", "bootcmd=x", "bootdelay=3", "ethaddr=0", "serial=1")}, "--ecc chip --used"), []),
    ("old contents of a bad block", ("setenv 20000 8000 a 2\n", {}, "--used --bad 9"), ["1:environment-lost"],
     ("setenv 20000 4000 a 2\n", {}, "--used --bad 9"), []),
    ("a later erase", (SET + "erase 20000 4000\n", {}, "--used"), ["1:environment-lost", "2:overlap"],
     (SET + "erase 24000 4000\n", {}, "--used"), []),
    # Data without ECC.
    *((f"{name} without ECC", ("write 20000 8000 image\n", {"image": image}, ""), ["1:missing-ecc"],
       ("write 20000 8000 image\n", {"image": image}, "--ecc chip"), [])
      for name, image in (("UBI", b"UBI#\1" + text(900)), ("squashfs", b"hsqs" + text(900)), ("an environment", WHOLE))),
    ("other data without ECC", ("write 20000 8000 one\nwrite 34000 8000 one\n", {"one": text(900)}, ""), ["0:no-ecc"],
     ("writeoob 20000 8000 one\nwriteoob 34000 8000 one\n", {"one": bytes(512) + b"\xff" * OOB}, ""), []),
    # Findings that were wrong.
    ("a line that is passed over", ("write 20000 8000 one\nwrite 20000 8000 none\n", {"one": LOADER}, "--ecc chip"),
     ["2:missing-file"], ("write 20000 8000 one\nwrite 34000 8000 one\n", {"one": LOADER}, "--ecc chip"), []),
    ("missing sizes", ("erase 20000 4000\n", {}, "--no-sysfs erasesize"), ["1:no-geometry"],
     ("erase 20000 4000\n", {}, ""), []),
    ("an empty range", ("setenv 20000 0 a 2\n", {}, "--used"), ["1:empty-range"], (SET, {}, "--used"), []),
    ("the first block filled", ("write 4000 4000 one\n", {"one": LOADER}, "--ecc chip"), ["1:no-spare"],
     ("write 0 4000 one\n", {"one": LOADER}, "--ecc chip"), []),
    ("a change within a larger image", ("write 20000 14000 one\nsetenv 24000 4000 a 2\n", {"one": LOADER * 3},
     "--ecc chip"), ["2:overlap", "2:environment-invalid"],
     ("write 20000 14000 one\nsetenv 24000 4000 a 2\n", {"one": LOADER + WHOLE + LOADER}, "--ecc chip"), []),
    ("a prepare.sh where the device never looks",
     ("ubiformat /dev/mtd9 one\n", {"one": LOADER, "prepare.sh": b"", "ubiformat": b"#!/bin/sh\n"}, "--as /tmp/other"),
     ["1:no-prepare", "1:not-ubi"],
     ("ubiformat /dev/mtd9 one\n", {"one": LOADER, "prepare.sh": b"", "ubiformat": b"#!/bin/sh\n"}, ""),
     ["1:not-ubi", "1:ubi-untouched"]),
    ("a script in a folder", (None, {"sub/flashrig.script": b"erase 20000 4000\n"}, ""), ["0:not-started"],
     ("erase 20000 4000\n", {}, ""), []),
    # Other programs print what the updater would.
    ("printed errors", ("erase 18000 4000\nwrite 20000 c000 two\nerase 34000 4001\n",
     {"two": text(BLOCK + 1), "progress_script.sh": prints(*FAILS)}, "--ecc chip"), ["3:misaligned"],
     ("erase 18000 4000\nwrite 20000 c000 two\nerase 34000 4000\n",
      {"two": text(BLOCK + 1), "progress_script.sh": prints(*FAILS)}, "--ecc chip"), []),
    ("printed successes", ("write 20000 c000 two\nwrite 34000 c000 two\n",
     {"two": text(BLOCK + 1), "progress_script.sh": prints(*SUCCEEDS)}, "--ecc chip --fault MEMWRITE:33=EIO"),
     ["0:percentages", "1:write-failed", "1:stopped"],
     ("write 20000 c000 two\nwrite 34000 c000 two\n",
      {"two": text(BLOCK + 1), "progress_script.sh": prints(*SUCCEEDS)}, "--ecc chip"), []),
]
# Advice that depends on the case: the row's name and a part of the text.
ADVICE = {
    "a script in a folder": "the script is in sub of the update",
    "a prepare.sh where the device never looks": "run the update from /tmp/update",
    "a later erase": "keep the range of line 2 off the environment",
    "an erase ahead of the change": "a, bootcmd, bootdelay, ethaddr, serial are lost",
}


def judge(flashsim, device, update):
    """The findings of a rehearsal and their texts."""
    script, files, options = update
    with tempfile.TemporaryDirectory() as folder:
        place = pathlib.Path(folder, "update")
        named = dict(files) if script is None else {"flashrig.script": script.encode(), **files}
        for name, content in named.items():
            path = place / name
            path.parent.mkdir(parents=True, exist_ok=True)
            path.write_bytes(content)
            path.chmod(0o755)
        # Without a progress script of its own the update runs with the calls turned off.
        quiet = [] if "progress_script.sh" in files else ["quiet"]
        run = subprocess.run(
            [flashsim, "--chip", "1M,16K,512,16", "--report", f"{folder}/report",
             *options.format(device=device).split(), str(place), *quiet],
            stdout=subprocess.PIPE, stderr=subprocess.PIPE, text=True, errors="replace", check=False)
        if run.returncode not in (0, 1):
            return [f"exit status {run.returncode}: {run.stderr}"], ""
        report = json.loads(pathlib.Path(folder, "report").read_text(encoding="utf-8"))
        found = report["findings"]
        for finding in found:
            # The line begins with a path that an editor opens.
            name = f"{place}/flashrig.script" + (f":{finding['line']}" if finding["line"] else "")
            if f"\n{name}: {finding['severity']}: " not in run.stdout.replace("\r", ""):
                return [f"no line begins with {name}"], ""
        return ([f"{it['line'] or 0}:{it['kind']}" for it in found],
                "\n".join(f"{it['happens']}; {it['change']}" for it in found))


def main():
    flashsim, device = sys.argv[1:]
    failures = 0
    for name, trap, findings, cure, rest in ROWS:
        for what, update, wanted in (("trap", trap, findings), ("cure", cure, rest)):
            found, texts = judge(flashsim, device, update)
            if found != wanted:
                failures += 1
                print(f"{name}: {what}: {found} instead of {wanted}")
            if what == "trap" and ADVICE.get(name, "") not in texts:
                failures += 1
                print(f"{name}: {ADVICE[name]!r} is not in {texts!r}")
    print(f"{len(ROWS)} rows, {failures} failures")
    return 1 if failures else 0


sys.exit(main())
