#!/usr/bin/env python3
"""sweeps.py FLASHSIM MAKE: sweeps of the examples give the same with replayed and with real runs, and their commands
repeat their failures: each shows a finding of the failure's line, or of another line at the same place of the flash.
"""
import json
import os
import pathlib
import re
import subprocess
import sys
import tempfile

FLASHSIM, MAKE = sys.argv[1:]
OTHERS = "--sweep bad --sets 3 --sweep wear"  # these have real runs only
# Update, options, options of sweeps with replayed runs, and other sweeps.
UPDATES = [
    *((f"ab/{name}", f"--device devices/{device}.toml", every, OTHERS) for name, device, every in (
        ("boots-always", "ab", ""), ("early-selector", "ab", "--every 5"),
        ("environment-in-place", "ab-one-environment", "--every 5"), ("loader-in-place", "ab", "--every 5"))),
    ("clean", "--chip 8M,16K,512,16 --root device", "--every 400", ""),
    ("traps/lines", "--chip 8M,16K,512,16", "--every 60", OTHERS + " --sweep pairs"),
    ("traps/stop", "--chip 8M,16K,512,16", "--every 7", "--sweep wear"),
    ("traps/ubi", "--chip 8M,16K,512,16 --mtd 9:opt:5M,1M --mtd 12:all", "--every 50", ""),
]


def shell(command, folder):
    path = f"{pathlib.Path(FLASHSIM).parent}:{os.environ['PATH']}"
    return subprocess.run(["sh", "-c", command], cwd=folder, capture_output=True, text=True, errors="replace",
                          check=False, env={**os.environ, "PATH": path})


def places_of(script):
    """The place of the flash that each line changes, by number, as the script has it."""
    words = [line.split() for line in script.read_text(encoding="utf-8").split("\n")]
    return {number: line[1] for number, line in enumerate(words, 1) if len(line) > 1}


def problems_of(folder, update, options, every, others):
    replayed = f"flashsim {options} --sweep cut --sweep faults {every}"
    swept = shell(f"{replayed} {others} --report report.json {update} quiet", folder)
    report = json.loads((folder / "report.json").read_text(encoding="utf-8"))
    reported = {(entry["command"], entry["line"]) for sweep in report["sweeps"]
                for entry in sweep["failures"] + sweep["unbootable"]}
    places = places_of(folder / update / "flashrig.script")
    for printed in re.findall(r"^ {4}(flashsim .*)$", swept.stdout.replace("\r", ""), re.M):
        if printed not in {command for command, _ in reported}:
            yield f"{update}: printed only: {printed}"
    for command, line in sorted(reported):
        again = shell(command, folder)
        lines = re.findall(r"^.*?flashrig\.script:(\d+): (?:error|warning)", again.stdout.replace("\r", ""), re.M)
        # A second run may be clean: what the first one has lost is no longer there.
        is_shown = places[line] in {places.get(int(number)) for number in lines} if line else again.returncode == 1
        if again.returncode > 1 or not is_shown:
            yield (f"{update}: line {line}: {command}: status {again.returncode}, findings of lines {lines}\n"
                   f"{again.stderr}")
        for chip in folder.glob("*.nand*"):
            chip.unlink()
    shell(f"{replayed} --exact --report exact.json {update} quiet", folder)
    if json.loads((folder / "exact.json").read_text(encoding="utf-8"))["sweeps"] != report["sweeps"][:2]:
        yield f"{update}: --exact gives another result"
    yield len(reported)


def main():
    problems = []
    commands = 0
    with tempfile.TemporaryDirectory() as place:
        folder = pathlib.Path(place, "examples")
        subprocess.run([MAKE, folder], check=True)
        for update in UPDATES:
            *found, count = problems_of(folder, *update)
            problems += found
            commands += count
    print(*problems, f"{commands} commands, {len(problems)} problems", sep="\n")
    return 1 if problems or commands < 20 else 0


sys.exit(main())
