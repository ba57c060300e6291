#!/usr/bin/env python3
"""reruns.py FLASHSIM MAKE: runs each command that sweeps of the examples print or report.

Such a command ends with a finding of the failure's line, or of another line at the same place of the flash.
"""
import json
import os
import pathlib
import re
import subprocess
import sys
import tempfile

FLASHSIM, MAKE = sys.argv[1:]
ALL = "--sweep cut --sweep bad --sets 3 --sweep faults --sweep wear"
# Update, options and sweeps.
UPDATES = [
    *((f"ab/{name}", f"--device devices/{device}.toml {ALL}") for name, device in (
        ("boots-always", "ab"), ("early-selector", "ab"), ("environment-in-place", "ab-one-environment"),
        ("loader-in-place", "ab"))),
    ("clean", "--chip 8M,16K,512,16 --root device --sweep cut --sweep faults --every 500"),
    ("traps/lines", f"--chip 8M,16K,512,16 --every 200 {ALL}"),
]


def shell(command, folder):
    path = f"{pathlib.Path(FLASHSIM).parent}:{os.environ['PATH']}"
    return subprocess.run(["sh", "-c", command], cwd=folder, capture_output=True, text=True, errors="replace",
                          check=False, env={**os.environ, "PATH": path})


def places_of(script):
    """The place of the flash that each line changes, by number, as the script has it."""
    words = [line.split() for line in script.read_text(encoding="utf-8").split("\n")]
    return {number: line[1] for number, line in enumerate(words, 1) if len(line) > 1}


def problems_of(folder, update, options):
    swept = shell(f"flashsim {options} --report report.json {update} quiet", folder)
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
        if again.returncode != 1 or (line and places[line] not in {places.get(int(number)) for number in lines}):
            yield (f"{update}: line {line}: {command}: status {again.returncode}, findings of lines {lines}\n"
                   f"{again.stderr}")
        for chip in folder.glob("*.nand*"):
            chip.unlink()
    yield len(reported)


def main():
    problems = []
    commands = 0
    with tempfile.TemporaryDirectory() as place:
        folder = pathlib.Path(place, "examples")
        subprocess.run([MAKE, folder], check=True)
        for update, options in UPDATES:
            *found, count = problems_of(folder, update, options)
            problems += found
            commands += count
    print(*problems, f"{commands} commands, {len(problems)} problems", sep="\n")
    return 1 if problems or commands < 20 else 0


sys.exit(main())
