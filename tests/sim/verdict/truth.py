#!/usr/bin/env python3
"""truth.py FLASHSIM: rehearses updates of which it is known what they do to a device, and compares the findings.

Each row is a trap and its cure: the trap gets exactly the findings named, and with the cure, which does what the
advice says, exactly the findings that are left. Errors and warnings count; notes do not.
"""
import json
import os
import pathlib
import random
import struct
import subprocess
import sys
import tempfile
import zlib

FLASHSIM = sys.argv[1]
SMALL = "1M,16K,512,16"  # 64 blocks; boot ends at 0x10000, kernel at 0x50000, opt at the end
LARGE = "8M,128K,2K,64"

MEMERASE = 0x40084D02


def noise(size, seed=1):
    return random.Random(seed).randbytes(size)


def raw_image(pages, page, oob, seed=1):
    """Pages with blank OOB, as a dump of flash without ECC bytes."""
    return b"".join(noise(page, seed + number) + b"\xff" * oob for number in range(pages))


def python_tool(body):
    """A program of the device that reaches flash through the MTD devices."""
    return "#!/usr/bin/python3\nimport fcntl, os, struct\nfd = os.open('/dev/mtd12', os.O_RDWR)\n" + body


ERASES_BLOCK_0 = python_tool(f"fcntl.ioctl(fd, {MEMERASE}, struct.pack('II', 0, 0x4000))\n")
QUIET = "#!/bin/sh\nexit 0\n"


def update(script, chip=SMALL, options=(), root=None, **files):
    """An update folder, the device that gets it and the simulator's options."""
    return {"script": script, "chip": chip, "options": list(options), "root": root or {},
            "files": {name.replace("__", "."): data for name, data in files.items()}}


def write_tree(folder, files):
    for name, data in files.items():
        path = folder / name
        path.parent.mkdir(parents=True, exist_ok=True)
        path.write_bytes(data.encode() if isinstance(data, str) else data)
        path.chmod(0o755)


def findings_of(case, folder):
    """The errors and warnings of a rehearsal, as "LINE:KIND" in order; a sign that they are none is exit status 0."""
    write_tree(folder / "update", {"flashrig.script": case["script"], **case["files"]})
    command = [FLASHSIM, "--chip", case["chip"], "--report", str(folder / "report.json"), *case["options"]]
    if case["root"]:
        write_tree(folder / "root", case["root"])
        command += ["--root", str(folder / "root")]
    run = subprocess.run(command + [str(folder / "update")], capture_output=True, check=False)
    try:
        report = json.loads((folder / "report.json").read_text())
    except (OSError, ValueError):
        return f"status {run.returncode}: {run.stderr.decode(errors='replace')}"
    counted = [it for it in report["findings"] if it["severity"] != "note"]
    if (run.returncode == 0) != (not counted):
        return f"status {run.returncode} with {len(counted)} findings"
    return " ".join(f"{it['line'] or 0}:{it['kind']}" for it in counted)


ONE = noise(0x3000)
PARTS = ("--mtd", "0:boot:0,64K", "--mtd", "1:kernel:64K,256K", "--mtd", "12:all")
FORMATS = {"prepare__sh": "exit 0\n", "ubiformat": QUIET}
BUSY = ("--mount", "/opt", "--mount", "/opt/other")

# name, trap, its findings, cure, what the cure leaves
ROWS = [
    ("an image is what the chip holds", update("write 0 8000 a\n", a=ONE), "", None, ""),
    ("another program erases what a line wrote",
     update("write 0 8000 a\nsetenv x y\n", a=ONE, root={"bin/bootvars": ERASES_BLOCK_0}), "1:spoiled",
     update("write 0 8000 a\nsetenv x y\n", a=ONE, root={"bin/bootvars": QUIET}), ""),
    ("another program writes into an erased range",
     update("erase 0 8000\nsetenv x y\n",
            root={"bin/bootvars": python_tool("os.pwrite(fd, b'x' * 512, 0x4000)\n")}), "1:spoiled",
     update("erase 0 8000\nsetenv x y\n", root={"bin/bootvars": QUIET}), ""),
    ("a raw image for larger pages marks blocks bad",
     update("writeoob 0 c000 raw\n", raw=raw_image(16, 2048, 64)), "1:false-markers",
     update("writeoob 0 c000 raw\n", raw=raw_image(64, 512, 16)), ""),
    ("a raw image with a marker marks its block bad",
     update("writeoob 0 40000 raw\n", chip=LARGE, raw=raw_image(64, 2048, 64)[:-64 * 64] and
            raw_image(1, 2048, 64) + noise(2048) + b"\0" + b"\xff" * 63 + raw_image(62, 2048, 64)), "1:false-markers",
     update("writeoob 0 40000 raw\n", chip=LARGE, raw=raw_image(64, 2048, 64)), ""),
    ("the first name with all is a partition",
     update("write 0 8000 a\n", a=ONE, options=("--mtd", "3:install:64K,512K", "--mtd", "12:all")), "0:part-of-flash",
     update("write 0 8000 a\n", a=ONE, options=("--mtd", "3:setup:64K,512K", "--mtd", "12:all")), ""),
    ("no name has all, and device 0 is a partition",
     update("write 0 8000 a\n", a=ONE, options=("--mtd", "0:boot:0,64K", "--mtd", "1:flash")), "0:part-of-flash",
     update("write 0 8000 a\n", a=ONE, options=("--mtd", "0:boot:0,64K", "--mtd", "1:all")), ""),
    ("devices come in the order of their numbers",
     update("write 0 8000 a\n", a=ONE, options=("--mtd", "12:all", "--mtd", "3:install:64K,512K")), "0:part-of-flash",
     update("write 0 8000 a\n", a=ONE, options=("--mtd", "13:install:64K,512K", "--mtd", "12:all")), ""),
    ("a range reaches into the next device",
     update("write c000 c000 a\n", a=noise(0x5000), options=PARTS), "1:crosses-device",
     update("write 4000 c000 a\n", a=noise(0x5000), options=PARTS), ""),
    ("spare blocks belong to the next device",
     update("write c000 8000 a\n", a=ONE, options=PARTS), "1:crosses-device",
     update("write 8000 8000 a\n", a=ONE, options=PARTS), ""),
    ("a range over whole devices is no trouble", update("erase 0 50000\n", options=PARTS), "", None, ""),
    ("a device without OOB size frames raw images wrongly",
     update("writeoob 0 c000 raw\n", raw=raw_image(64, 512, 16), options=("--no-sysfs", "oobsize")),
     "1:no-oob-size", update("writeoob 0 c000 raw\n", raw=raw_image(64, 512, 16)), ""),
    ("name and value of the long form are missing",
     update("setenv 0x100000 0x20000\n", root={"bin/bootvars": QUIET}), "1:setenv-short",
     update("setenv x 0x20000\n", root={"bin/bootvars": QUIET}), ""),
    ("name and value of the long form are missing, and the numbers have no 0x",
     update("setenv 100000 20000\n", root={"bin/bootvars": QUIET}), "1:setenv-short",
     update("setenv face 20000\n", root={"bin/bootvars": QUIET}), ""),
    ("a name holds an equals sign", update("setenv a=b c\n", root={"bin/bootvars": QUIET}), "1:name-equals",
     update("setenv a c\n", root={"bin/bootvars": QUIET}), ""),
    ("a number sign hides a command", update("erase#old 0 4000\nerase 0 4000\n"), "1:hidden-command",
     update("#erase old 0 4000\nerase 0 4000\n"), ""),
    ("a mount stays busy while the partition is formatted",
     update("ubiformat /dev/mtd9 a\n", a=ONE, options=BUSY, **FORMATS), 
     "1:not-ubi 1:ubi-untouched 1:still-mounted",
     update("ubiformat /dev/mtd9 a\n", a=ONE, options=("--mount", "/opt"), **FORMATS), "1:not-ubi 1:ubi-untouched"),
]


def main():
    wrong = 0
    with tempfile.TemporaryDirectory() as place:
        for number, (name, trap, expected, cure, left) in enumerate(ROWS):
            for kind, case, wanted in (("trap", trap, expected), ("cure", cure, left)):
                if case is None:
                    continue
                folder = pathlib.Path(place) / f"{number}{kind}"
                folder.mkdir()
                found = findings_of(case, folder)
                if found != wanted:
                    wrong += 1
                    print(f"{name} ({kind}): expected '{wanted}', got '{found}'")
    print(f"{len(ROWS)} updates, {wrong} wrong")
    return wrong != 0


if __name__ == "__main__":
    sys.exit(main())
