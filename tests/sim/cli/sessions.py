#!/usr/bin/env python3
"""sessions.py BUILD: replays docs/sessions/*.txt with the flashsim of a build, and compares them with the README.

A session is a command after "$ " and its output, standard error included; a line "..." stands for any lines.
"""
import os
import pathlib
import re
import subprocess
import sys
import tempfile

build = pathlib.Path(sys.argv[1]).resolve()
source = pathlib.Path(__file__).resolve().parents[3]
sessions = {path.name: path.read_text() for path in sorted((source / "docs/sessions").glob("*.txt"))}
wrong = []

shown = re.findall(r"^```\n(\$ .*?)^```$", (source / "README.md").read_text(), re.M | re.S)
for name, text in sessions.items():
    if text not in shown:
        wrong.append(f"README.md does not show docs/sessions/{name}")
wrong += [f"no file in docs/sessions is this session of README.md:\n{text}" for text in shown
          if text not in sessions.values()]

with tempfile.TemporaryDirectory() as folder:
    examples = pathlib.Path(folder) / "examples"
    subprocess.run([source / "examples/make", examples], check=True)
    environment = {**os.environ, "PATH": f"{build}:{os.environ['PATH']}"}
    for name, text in sessions.items():
        command, _, expected = text.partition("\n")
        run = subprocess.run(["sh", "-c", command.removeprefix("$ ")], cwd=examples, env=environment,
                             stdout=subprocess.PIPE, stderr=subprocess.STDOUT)
        output = run.stdout.decode(errors="replace")
        pattern = "".join("(?:.*\n)*" if line == "..." else re.escape(line) + "\n" for line in expected.splitlines())
        if not re.fullmatch(pattern, output):
            wrong.append(f"docs/sessions/{name} is out of date; the output is now\n{output}")

print("\n".join(wrong) or f"{len(sessions)} sessions are as shown")
sys.exit(bool(wrong) or not sessions)
