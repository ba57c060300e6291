#!/usr/bin/env python3
"""rooms.py BUILD: each room of sim/ may include its own headers and those below, and no other room's."""
import json
import pathlib
import shlex
import subprocess
import sys

USES = {
    "base": [],
    "chip": ["base"],
    "mtd": ["chip", "base"],
    "preload": ["mtd", "chip", "base"],
    "sandbox": ["mtd", "chip", "base"],
    "ubi": ["chip", "base"],
    "verdict": ["ubi", "mtd", "chip", "base"],
    "board": ["verdict", "ubi", "sandbox", "mtd", "chip", "base"],
    "sweep": ["board", "verdict", "ubi", "sandbox", "mtd", "chip", "base"],
    "report": ["sweep", "board", "verdict", "ubi", "sandbox", "mtd", "chip", "base"],
    "cli": ["report", "sweep", "board", "verdict", "ubi", "sandbox", "mtd", "chip", "base"],
}
# The contract between library and tool is the one header of its room that others see.
SHARED = {"preload/Interface.h": ["preload", "sandbox", "board", "sweep", "report", "cli"]}

build = pathlib.Path(sys.argv[1])
sim = pathlib.Path(__file__).resolve().parent.parent.parent / "sim"
commands = json.loads((build / "compile_commands.json").read_text())


def include_path(room):
    """The -I and -isystem words with which a source of the room is compiled."""
    # A source, or a batch of them.
    entry = next(it for it in commands if it["file"].startswith(f"{sim}/{room}/") or f"/flashsim_{room}.dir/" in it["file"])
    words = shlex.split(entry["command"])
    kept = []
    for place, word in enumerate(words):
        if word.startswith("-I"):
            kept.append(word)
        elif word == "-isystem":
            kept += [word, words[place + 1]]
    return entry["directory"], kept


def visible(room, headers):
    """Those of the headers that a source of the room can include."""
    directory, words = include_path(room)
    asked = "".join(f'#if __has_include("{header}")\n"{header}"\n#endif\n' for header in headers)
    run = subprocess.run(["c++", "-std=gnu++17", "-E", "-P", "-x", "c++", *words, "-"], cwd=directory, input=asked,
                         text=True, stdout=subprocess.PIPE, check=True)
    return {line.strip('"') for line in run.stdout.splitlines() if line}


headers = sorted(str(header.relative_to(sim)) for header in sim.glob("*/*.h"))
wrong = []
for room, uses in USES.items():
    seen = visible(room, headers)
    for header in headers:
        owner = header.split("/")[0]
        allowed = room in SHARED[header] if header in SHARED else owner == room or owner in uses
        if (header in seen) != allowed:
            wrong.append(f"sim/{room} {'cannot' if allowed else 'can'} include {header}")
for source in sorted(sim.glob("*/*.cpp")) + sorted(sim.glob("*/*.h")):
    if '#include "../' in source.read_text():
        wrong.append(f"{source.relative_to(sim.parent)} includes by a relative path")
print("\n".join(wrong) or f"{len(USES)} rooms keep apart")
sys.exit(bool(wrong))
