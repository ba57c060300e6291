#!/usr/bin/env python3
"""fake_board.py FLASHSIM UPDATE: flashsim believes nothing of a board whose results are not whole or contradict its log."""
import os
import pathlib
import subprocess
import sys
import tempfile

flashsim, update = sys.argv[1:]
BOARD = """#!/bin/sh
set -e
mkdir "$1/results"
cd "$1/results"
cp -L ../chip ../disk
echo status 0 >end
: >changes
eval "$RESULT"
"""
CHANGE = "printf x | dd of=../disk bs=1 seek=5000 conv=notrunc 2>/dev/null"
CASES = {
    # what the board does: exit status, and the message or a line of the output
    f"{CHANGE}": (2, "block 0 differs on the board, which has logged no change of the block"),
    f"{CHANGE}; echo P 2 >changes": (1, "the updater ended with exit status 0"),
    f"{CHANGE}; echo P 64 >changes": (2, "block 0 differs on the board, which has logged no change of the block"),
    "echo P 4096 >changes": (2, "the board's log of changes names a place that is not on the chip"),
    "echo E 64 >changes": (2, "the board's log of changes names a place that is not on the chip"),
    "echo O 0 >changes": (2, "the board's log of changes was full: the verdict would be incomplete"),
    "truncate -s 5000 ../disk": (2, "the board left no whole chip"),
    "rm end": (2, "the board left no result"),
    "echo overdue >end": (2, "the board left no result"),
    "echo overdue >>end": (1, "timed out"),
    "echo status 11 >end": (1, "the updater was ended by signal 11"),
    "echo no kernel >problem": (2, "the board could not run the update: no kernel"),
    "exit 3": (2, "the board did not run"),
}

wrong = []
with tempfile.TemporaryDirectory() as folder:
    board = pathlib.Path(folder) / "board"
    board.write_text(BOARD)
    board.chmod(0o755)
    for result, (status, text) in CASES.items():
        run = subprocess.run([flashsim, "--board", board, "--chip", "8M,128K,2K,64", "--mtd", "0:all", update],
                             env={**os.environ, "RESULT": result}, text=True, capture_output=True, check=False)
        if run.returncode != status or text not in run.stdout + run.stderr:
            wrong.append(f"{result}: exit status {run.returncode}, not {status} with '{text}':\n{run.stdout}{run.stderr}")
    # A board that changes nothing differs from the simulator after each cut.
    run = subprocess.run([flashsim, "sweep", "cut", "--board", board, "--chip", "8M,16K,512,16", "--mtd", "0:all",
                          "--sample", "2", update], env={**os.environ, "RESULT": ""}, text=True, capture_output=True,
                         check=False)
    if run.returncode != 1 or "0 of 2 runs passed" not in run.stdout or "differ after the cut: end:" not in run.stdout:
        wrong.append(f"sweep: exit status {run.returncode}:\n{run.stdout}{run.stderr}")
print("\n".join(wrong) or f"{len(CASES)} results judged")
sys.exit(bool(wrong))
