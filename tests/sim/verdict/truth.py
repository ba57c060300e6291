#!/usr/bin/env python3
"""truth.py FLASHSIM DEVICE FINDINGS: rehearses updates of which it is known what they do to a device.

A row has a trap with all its findings, then its cure, the trap changed as the findings advise, with what is left of
them. Findings are "line:kind", with line 0 for the run as a whole. Each kind of the table in the file FINDINGS has to
be in a row whose cure takes it away. DEVICE is a root folder that takes the variables of a short setenv.
"""
import collections
import concurrent.futures
import json
import os
import pathlib
import random
import re
import struct
import subprocess
import sys
import tempfile
import zlib

FLASHSIM, DEVICE, TABLE = sys.argv[1:]
BLOCK = 0x4000
SMALL = "1M,16K,512,16"  # 64 blocks; boot ends at 0x10000, kernel at 0x50000, opt at the end
LARGE = "8M,128K,2K,64"
MEMERASE = 0x40084D02

Update = collections.namedtuple("Update", "script files options chip root", defaults=({}, "", SMALL, {}))
Row = collections.namedtuple("Row", "name trap findings cure rest", defaults=([],))


def noise(size, seed=1):
    return random.Random(seed).randbytes(size)


def text(size):
    return b"".join(b"%d\n" % number for number in range(size // 2))[:size]


def raw_image(pages, page=512, oob=16, seed=1):
    """Pages with blank OOB, as a dump of flash without ECC bytes."""
    return b"".join(noise(page, seed + number) + b"\xff" * oob for number in range(pages))


def environment(*entries, size=BLOCK, flag=b""):
    listed = b"".join(entry.encode() + b"\0" for entry in entries).ljust(size - 4 - len(flag), b"\0")
    return struct.pack("<I", zlib.crc32(listed)) + flag + listed


def python_tool(body):
    """A program of the device that reaches flash through the MTD devices."""
    return "#!/usr/bin/python3\nimport fcntl, os, struct\nfd = os.open('/dev/mtd12', os.O_RDWR)\n" + body


def prints(*lines):
    """A progress script that prints lines as the updater would."""
    return "#!/bin/sh\nprintf '%s\\n' " + " ".join(f"'{line}'" for line in lines) + " >&2\n"


def made(*command, **files):
    """What a program makes of files in a folder of its own: the file "out"."""
    with tempfile.TemporaryDirectory() as folder:
        for name, content in files.items():
            pathlib.Path(folder, name).write_bytes(content)
        subprocess.run(["sh", "-euc", *command], cwd=folder, check=True, stdout=subprocess.DEVNULL,
                       env={**os.environ, "PATH": os.environ["PATH"] + ":/usr/sbin:/sbin"})
        return pathlib.Path(folder, "out").read_bytes()


# Of a chip with ECC of its own, which has no sub-pages: headers take a page each.
PEB, VID, DATA = 0x20000, 0x800, 0x1000
LEB = PEB - DATA


def ubi(content, name="files", pebs=20, kind="dynamic", options="-s 2048"):
    """An image by ubinize with one volume."""
    volume = (f"[v]\nmode=ubi\nimage=content\nvol_id=0\nvol_type={kind}\nvol_name={name}\n"
              f"vol_size={pebs * LEB}\n")
    return made(f"ubinize -Q 7 -m 2048 -p 128KiB {options} -o out ini", content=content, ini=volume.encode())


def changed(image, at, *bytes_):
    return image[:at] + bytes(bytes_) + image[at + len(bytes_):]


def reserved_crc(image, block, header, length):
    """The header with a new CRC of the first bytes, as UBI computes it."""
    at = block * PEB + header
    crc = zlib.crc32(image[at:at + length]) ^ 0xFFFFFFFF
    return image[:at + length] + struct.pack(">I", crc) + image[at + length + 4:]


def ubifs(options=""):
    return made(f"mkdir root; cp content root/file; mkfs.ubifs -q -x none -m 2048 -e {LEB} -c 40 {options} -r root out",
                content=noise(100000))


ONE = noise(0x3000)
LOADER = text(BLOCK)
SET = "setenv 20000 4000 a 2\n"
WHOLE = environment("bootcmd=x", "a=1")
LAID = Update("write 20000 8000 env\n" + SET, {"env": WHOLE}, "--ecc chip")
WITH_DEVICE = f"--root {DEVICE}"
CHIP = "--ecc chip"
FAILS = "error : write page return -1", "error : erase failed at 20000", "Unknown script command erase"
SUCCEEDS = "write file complete", "erase complete", "write /tmp/update/two to flash address 34000", "write file complete"
PARTS = "--mtd 0:boot:0,64K --mtd 1:kernel:64K,256K --mtd 12:all"
QUIET = "#!/bin/sh\nexit 0\n"
REAL = '#!/bin/sh\nPATH=$PATH:/usr/sbin exec ubiformat "$@"\n'
EMPTIES = "#!/bin/sh\nPATH=$PATH:/usr/sbin exec ubiformat -q -y /dev/mtd9\n"
# Programs one block of the partition a second time, raw: its data have no ECC then.
STRIPS = REAL.replace("exec ", "").replace('"$@"', '"$@" || exit') + """exec python3 - <<'E'
import fcntl, os, struct
fd = os.open('/dev/mtd9', os.O_RDWR)
block = os.pread(fd, 0x20000, 3 * 0x20000)
fcntl.ioctl(fd, 0x40084D02, struct.pack('II', 3 * 0x20000, 0x20000))
fcntl.ioctl(fd, 0x4D13, 3)
os.pwrite(fd, block, 3 * 0x20000)
E
"""
# Programs that change the partition after the format, and one with the updater's name that prints the updater's lines.
ALSO = REAL.replace("exec ", "").replace('"$@"', '"$@" || exit\n')
ERASES = ALSO + "flash_erase -q /dev/mtd9 0x60000 1\n"
KEEPS = "flash_erase -q /dev/mtd9 0x4c0000 1\necho serial | nandwrite -q -p -s 0x4c0000 /dev/mtd9 -\n"
FORGES = ALSO + """python3 -c "import os
os.execv('/usr/bin/printf', ['flashrig', 'prepare ubi ...\\nexecute /bin/sh status 0\\nexecute /tmp/update/ubiformat status 0\\n'])"
exit 3
"""
GOOD, GOOD_HOST = ubi(noise(3 * LEB)), ubi(noise(3 * LEB), options="-s 512")
STATIC = ubi(noise(3 * LEB), kind="static")
FS, FS_FIXUP = ubi(ubifs()), ubi(ubifs("-F"))
ARM = pathlib.Path("/bin/true").read_bytes()[:18] + b"\x28\0" + pathlib.Path("/bin/true").read_bytes()[20:]


def vtbl(image, field, *bytes_):
    """Both copies of the first record of the volume table with another field."""
    for block in (0, 1):
        image = reserved_crc(changed(image, block * PEB + DATA + field, *bytes_), block, DATA, 168)
    return image


def vid(image, block, field, *bytes_):
    return reserved_crc(changed(image, block * PEB + VID + field, *bytes_), block, VID, 60)


def form(image=GOOD, program=REAL, options=CHIP, device="/dev/mtd9", line="ubiformat {} a\n"):
    return Update(line.format(device), {"a": image, "prepare.sh": "exit 0\n", "ubiformat": program}, options, LARGE)


FORM = form()


def write(options=""):
    return Update("write 0 8000 a\n", {"a": ONE}, f"{CHIP} {options}")


def tool(body, script="setenv x y\n", options=""):
    """A line that runs a program of the device."""
    return Update(script, {}, options, SMALL, {"bin/bootvars": body})


SETS = tool(QUIET)
WRITE = write()


# Name, trap, its findings, cure, what the cure leaves. A cure is an update, or the trap with another script or other
# fields.
ROWS = [
    ("an image is what the chip holds", WRITE, [], None),
    ("a range over whole devices", Update("erase 0 50000\n", {}, PARTS), [], None),
    # How the run begins.
    ("a byte order mark", Update("\ufefferase 0 4000\n"), ["1:unknown-command"], "erase 0 4000\n"),
    ("a zero byte in the script", Update("erase 0 4000\n\0erase 8000 4000\n"), ["0:script-cut"],
     "erase 0 4000\nerase 8000 4000\n"),
    ("a script in a folder", Update(None, {"sub/flashrig.script": b"erase 20000 4000\n"}), ["0:not-started"],
     Update("erase 20000 4000\n")),
    ("a script that is too long", Update("erase 0 4000\n" + "# history of changes\n" * 200), ["0:script-too-long"],
     "erase 0 4000\n" + "# history of changes\n" * 190),
    ("a line that is too long", Update("erase 0 4000\n#" + "x" * 260 + "\n"), ["2:line-too-long"],
     "erase 0 4000\n#" + "x" * 240 + "\n"),
    ("no device over the whole flash", Update("erase 0 4000\n", {}, "--mtd 3:boot:0,64K"),
     ["0:no-whole-flash", "1:no-geometry"], {"options": "--mtd 3:boot:0,64K --mtd 12:all"}),
    # Lines that do not run.
    ("a command in capitals", Update("Erase 0 4000\n"), ["1:unknown-command"], "erase 0 4000\n"),
    ("a missing word", Update("erase 0\n"), ["1:incomplete"], "erase 0 4000\n"),
    ("a line that is passed over", Update("write 20000 8000 one\nwrite 20000 8000 none\n", {"one": LOADER}, CHIP),
     ["2:missing-file"], "write 20000 8000 one\nwrite 34000 8000 one\n"),
    ("an image that is a folder", Update("write 0 8000 a\n", {"a/b": ONE}, CHIP), ["1:unreadable-file"], WRITE),
    ("half a block", Update("erase 0 6000\n"), ["1:misaligned"], "erase 0 8000\n"),
    ("an empty range", Update("setenv 20000 0 a 2\n", {}, "--used"), ["1:empty-range"], SET),
    ("a range beyond the flash", Update("erase fc000 8000\n"), ["1:off-chip"], "erase fc000 4000\n"),
    ("a negative size", Update("write 40000 8000 a\nerase 20000 -4000\n", {"a": ONE}, CHIP),
     ["2:off-chip", "2:overlap"], "write 40000 8000 a\nerase 20000 4000\n"),
    *((f"{kind} fails", write(f"--fault {kind}=EIO --fault {kind.replace('64', '')}=EIO"), findings, WRITE)
      for kind, findings in (("MEMGETBADBLOCK", ["1:check-failed"]),
                             ("MEMERASE64", ["1:erase-failed"]),
                             ("MEMWRITE", ["1:write-failed"]))),
    ("an environment can't be read", Update(SET, {}, "--used --fault read=EIO"), ["1:read-failed"],
     {"options": "--used"}),
    ("an environment is full", LAID._replace(script=LAID.script + "setenv 20000 4000 big " + "x" * 200 + "\n", files={
        "env": environment("big=1", "fill=" + "y" * (BLOCK - 60))}), ["3:environment-full"],
     LAID.script + "setenv 20000 4000 big xx\n"),
    ("a long value", tool(QUIET, "setenv name " + "x" * 236 + "\n"), ["1:command-too-long"],
     "setenv name " + "x" * 233 + "\n"),
    ("missing sizes", Update("erase 20000 4000\n", {}, "--no-sysfs erasesize"), ["1:no-geometry"], {"options": ""}),
    ("a device that does not exist", form(device="/dev/mtd10"), ["1:no-device"], FORM),
    ("a prepare.sh where the device never looks", form(options=CHIP + " --as /tmp/other"), ["1:no-prepare"], FORM),
    ("a power cut", write("--cut 5"), ["0:power-cut", "1:failed"], WRITE),
    # It has 2 erases and 24 writes.
    *((f"the end ahead of {trouble}", write(f"--{trouble}"), ["0:never-came"], WRITE)
      for trouble in ("cut 27", "fault MEMWRITE:25=EIO")),
    ("a tool kills the updater",
     tool("#!/bin/sh\nkill -9 $(cut -d' ' -f4 /proc/$PPID/stat)\n", "setenv x y\nerase 0 4000\n"),
     ["0:crashed", "1:failed", "1:stopped"], tool(QUIET, "setenv x y\nerase 0 4000\n")),
    ("a tool does not end", tool("#!/bin/sh\nsleep 60\n", options="--timeout 1"), ["0:timed-out"], SETS),
    ("a tool prints without end", tool("#!/bin/sh\nhead -c 100M /dev/zero\n"), ["0:output-cut"], SETS),
    ("printed successes", Update("write 20000 c000 two\nwrite 34000 c000 two\n",
     {"two": text(BLOCK + 1), "progress_script.sh": prints(*SUCCEEDS)}, CHIP + " --fault MEMWRITE:33=EIO"),
     ["0:percentages", "1:write-failed", "1:stopped"], {"options": CHIP}),
    ("printed errors", Update("erase 18000 4000\nwrite 20000 c000 two\nerase 34000 4001\n",
     {"two": text(BLOCK + 1), "progress_script.sh": prints(*FAILS)}, CHIP), ["3:misaligned"],
     "erase 18000 4000\nwrite 20000 c000 two\nerase 34000 4000\n"),
    ("a notify script that fails", Update("write 0 8000 a\n", {"a": ONE, "progress_script.sh": "exit 1\n"}, CHIP),
     ["0:notify-failed"], {"files": {"a": ONE, "progress_script.sh": "exit 0\n"}}),
    *((f"a device that does not report its {file}", write(f"--no-sysfs {file}"), [finding], WRITE)
      for file, finding in (("writesize", "1:no-geometry"), ("size", "1:spoiled"))),
    ("a program outlives the update", tool("#!/bin/sh\nsleep 30 >&- 2>&- &\n"), ["0:still-running"],
     tool("#!/bin/sh\nsleep 0.3 >&- 2>&- &\n")),
    # Words.
    ("a decimal suffix", Update("erase 0 8000K\n"), ["1:number"], "erase 0 8000\n"),
    ("a comment after a value", tool(QUIET, "setenv delay 1 # second\n"), ["1:setenv-long"],
     "# second\nsetenv delay 1\n"),
    ("a value of two words", tool(QUIET, "setenv args a b\n"), ["1:ignored-words"], "setenv args a\n"),
    ("a value that a shell changes", tool(QUIET, "setenv cmd $kernel\n"), ["1:shell-text"],
     Update("setenv 20000 4000 cmd $kernel\n", {}, "--used")),
    ("name and value of the long form are missing", tool(QUIET, "setenv 0x100000 0x20000\n"), ["1:setenv-short"],
     "setenv x 0x20000\n"),
    ("the same, with numbers that have no 0x", tool(QUIET, "setenv 100000 20000\n"), ["1:setenv-short"],
     "setenv face 20000\n"),
    ("a name holds an equals sign", tool(QUIET, "setenv a=b c\n"), ["1:name-equals"], "setenv a c\n"),
    ("a number sign hides a command", Update("erase#old 0 4000\nerase 0 4000\n"), ["1:hidden-command"],
     "#erase old 0 4000\nerase 0 4000\n"),
    # Ranges.
    ("an empty image", Update("write 0 8000 a\n", {"a": b""}), ["1:empty-image"], Update("erase 0 8000\n")),
    ("the first block filled", Update("write 4000 4000 one\n", {"one": LOADER}, CHIP), ["1:no-spare"],
     "write 0 4000 one\n"),
    ("an image outruns its range", Update("write 4000 4000 a\n", {"a": LOADER * 2}, CHIP), ["1:outruns-range"],
     "write 4000 c000 a\n"),
    ("the flash ends before the image", Update("write f8000 8000 a\n", {"a": LOADER * 3}, CHIP), ["1:cut-at-end"],
     "write f0000 10000 a\n"),
    ("the first name with all is a partition", write("--mtd 3:install:64K,512K --mtd 12:all"), ["0:part-of-flash"],
     write("--mtd 3:setup:64K,512K --mtd 12:all")),
    ("no name has all, and device 0 is a partition", write("--mtd 0:boot:0,64K --mtd 1:flash"), ["0:part-of-flash"],
     write("--mtd 0:boot:0,64K --mtd 1:all")),
    ("devices come in the order of their numbers", write("--mtd 12:all --mtd 3:install:64K,512K"), ["0:part-of-flash"],
     write("--mtd 13:install:64K,512K --mtd 12:all")),
    ("a range reaches into the next device", Update("write c000 c000 a\n", {"a": noise(0x5000)}, f"{CHIP} {PARTS}"),
     ["1:crosses-device"], "write 4000 c000 a\n"),
    ("spare blocks belong to the next device", Update("write c000 8000 a\n", {"a": ONE}, f"{CHIP} {PARTS}"),
     ["1:crosses-device"], "write 8000 8000 a\n"),
    ("a change within a larger image", Update("write 20000 14000 one\nsetenv 24000 4000 a 2\n", {"one": LOADER * 3},
     CHIP), ["2:overlap", "2:environment-invalid"], {"files": {"one": LOADER + WHOLE + LOADER}}),
    # The final chip.
    ("another program erases what a line wrote", Update("write 0 8000 a\nsetenv x y\n", {"a": ONE}, CHIP, SMALL,
            {"bin/bootvars": "#!/bin/sh\nPATH=$PATH:/usr/sbin\nunset LD_PRELOAD\n"
                             "(sleep 0.3; exec flash_erase -q /dev/mtd12 0 1) >&- 2>&- &\n"}), ["1:spoiled"],
     {"root": {"bin/bootvars": QUIET}}),
    ("a later line erases what another program wrote",
     tool(python_tool(f"fcntl.ioctl(fd, {MEMERASE}, struct.pack('II', 0x78000, 0x4000))\nos.pwrite(fd, b'x' * 512, 0x78000)\n"),
          "setenv x y\nerase 78000 4000\n"), ["2:overlap"], tool(QUIET, "setenv x y\nerase 78000 4000\n")),
    ("another program writes into an erased range",
     tool(python_tool("os.pwrite(fd, b'x' * 512, 0x4000)\n"), "erase 0 8000\nsetenv x y\n"), ["1:spoiled"],
     tool(QUIET, "erase 0 8000\nsetenv x y\n")),
    ("another program writes over old data", tool(python_tool("os.pwrite(fd, b'x' * 512, 0x4000)\n"), options="--used"),
     ["0:unerased"], tool(python_tool(f"fcntl.ioctl(fd, {MEMERASE}, struct.pack('II', 0x4000, 0x4000))\n"
                      "os.pwrite(fd, b'x' * 512, 0x4000)\n"), options="--used")),
    ("another program reads what was written raw",
     Update("write 0 8000 a\nsetenv x y\n", {"a": ONE}, "", SMALL, {"bin/bootvars": python_tool("os.pread(fd, 512, 0)\n")}),
     ["0:no-ecc", "0:unsound-read"],
     {"root": {"bin/bootvars": python_tool("fcntl.ioctl(fd, 0x4D13, 3)\nos.pread(fd, 512, 0)\n")}}, ["0:no-ecc"]),
    ("a raw image for larger pages marks blocks bad", Update("writeoob 0 c000 raw\n", {"raw": raw_image(16, 2048, 64)}),
     ["1:false-markers"], {"files": {"raw": raw_image(64)}}),
    ("a raw image with a marker marks its block bad",
     Update("writeoob 0 40000 raw\n", {"raw": raw_image(1, 2048, 64) + noise(2048) + b"\0" + b"\xff" * 63 +
                                       raw_image(62, 2048, 64)}, "", LARGE), ["1:false-markers"],
     {"files": {"raw": raw_image(64, 2048, 64)}}),
    ("a device without OOB size frames raw images wrongly",
     Update("writeoob 0 c000 raw\n", {"raw": raw_image(64)}, "--no-sysfs oobsize"), ["1:no-oob-size"], {"options": ""}),
    ("a raw image ends within a page", Update("writeoob 0 c000 raw\n", {"raw": raw_image(3)[:1300]}), ["1:raw-length"],
     {"files": {"raw": raw_image(3)}}),
    # What the first change of a variable finds, and what it leaves.
    ("a blank block", Update(SET), ["1:environment-absent"], {"options": "--used"}),
    ("a blank block, laid down instead", Update(SET, {}, CHIP), ["1:environment-absent"], LAID),
    ("an erase ahead of the change", Update("erase 20000 8000\n" + SET, {}, "--used"), ["2:environment-erased"],
     "erase 24000 4000\n" + SET),
    ("text", LAID._replace(files={"env": text(BLOCK)}), ["2:environment-invalid"], LAID),
    ("an image between two changes",
     Update(SET + "write 20000 8000 env\n" + SET, {"env": text(BLOCK)}, CHIP + " --used"),
     ["2:overlap", "3:environment-invalid"], Update(SET + SET, {}, CHIP + " --used")),
    ("an environment shorter than the range",
     Update("write 20000 8000 env\nsetenv 20000 8000 a 2\n", {"env": WHOLE}, CHIP), ["2:environment-invalid"], LAID),
    ("an environment that is no whole block", LAID._replace(files={"env": environment("a=1", size=0x1000)}),
     ["2:environment-invalid"], Update("setenv a 2\n", {}, WITH_DEVICE)),
    *((f"a redundant environment with the flag {flag}", LAID._replace(files={"env": environment("a=1", flag=bytes([flag]))}),
       ["2:environment-invalid"], Update("setenv a 2\n", {}, WITH_DEVICE), []) for flag in (0, 1, 255)),
    ("the variable twice", LAID._replace(files={"env": environment("a=1", "b=1", "a=3")}), ["2:duplicate-variable"],
     LAID),
    ("another variable twice", LAID._replace(files={"env": environment("a=1", "b=1", "b=3")}), ["2:duplicate-variable"],
     LAID),
    ("variables that a new environment lacks", LAID._replace(options=CHIP + " --used"), ["1:variables-removed"],
     {"files": {"env": environment("a=1", "bootcmd=x", "bootdelay=3", "ethaddr=0", "serial=1")}}),
    ("old contents of a bad block", Update("setenv 20000 8000 a 2\n", {}, "--used --bad 9"), ["1:environment-lost"],
     "setenv 20000 4000 a 2\n"),
    ("a later erase", Update(SET + "erase 20000 4000\n", {}, "--used"), ["1:environment-lost", "2:overlap"],
     SET + "erase 24000 4000\n"),
    ("an environment without ECC", LAID._replace(options=""), ["1:missing-ecc", "2:environment-damaged"], LAID),
    # Data without ECC.
    *((f"{name} without ECC", Update("write 20000 8000 image\n", {"image": image}), ["1:missing-ecc"],
       Update("write 20000 8000 image\n", {"image": image}, CHIP), [])
      for name, image in (("squashfs", b"hsqs" + text(900)), ("an environment", WHOLE),
                          ("cramfs", made("mkdir r; cp content r/f; mkfs.cramfs r out", content=text(9000))),
                          ("JFFS2", made("mkdir r; cp content r/f; mkfs.jffs2 -e 16KiB -n -r r -o out",
                                         content=text(9000))),
                          ("ext", made("truncate -s 256K out; mkfs.ext2 -q -F -b 1024 out")[:0x3800]), ("UBIFS", ubifs()[:0x3800]))),
    ("squashfs in a raw image without ECC",
     Update("writeoob 20000 8000 image\n", {"image": b"hsqs" + noise(508) + b"\xff" * 16}), ["1:missing-ecc"],
     {"options": CHIP}),
    ("other data without ECC", Update("write 20000 8000 one\nwrite 34000 8000 one\n", {"one": text(900)}), ["0:no-ecc"],
     Update("writeoob 20000 8000 one\nwriteoob 34000 8000 one\n", {"one": bytes(512) + b"\xff" * 16})),
    # ubiformat and UBI.
    ("an image that is not UBI", form(noise(PEB)), ["1:format-failed", "1:not-ubi", "1:ubi-empty"], FORM),
    ("a device that is no MTD device", form(device="/dev/null"), ["1:format-failed", "1:not-mtd"], FORM),
    ("another device than the released one", form(device="/dev/mtd8", options=CHIP + " --mtd 8:opt:2M,4M --mtd 12:all"),
     ["1:other-device"], form(options=CHIP + " --mtd 9:opt:2M,4M --mtd 12:all")),
    ("an image for other header offsets", form(ubi(noise(3 * LEB), options="-s 512")),
     ["1:ubi-geometry", "1:ubi-refused"], FORM),
    ("an image that ends within a block", form(GOOD + bytes(100)),
     ["1:format-failed", "1:ubi-length", "1:ubi-untouched"], FORM),
    ("a partition that is too small", form(options=CHIP + " --mtd 9:opt:2M,512K --mtd 12:all"),
     ["1:format-failed", "1:ubi-too-large", "1:ubi-damaged-image", "1:ubi-untouched"],
     form(options=CHIP + " --mtd 9:opt:2M,4M --mtd 12:all")),
    ("an image without a volume table", form(changed(changed(GOOD, VID, 1), PEB + VID, 1)),
     ["1:ubi-damaged-image", "1:ubi-refused"], FORM),
    ("an image that lacks its last block", form(STATIC[:-PEB]), ["1:ubi-missing-lebs", "1:ubi-damaged-volume"],
     form(STATIC)),
    ("UBIFS for smaller LEBs", form(ubi(made("mkdir root; mkfs.ubifs -q -x none -m 2048 -e 124928 -c 40 -r root out"))),
     ["1:ubifs-mismatch"], form(FS_FIXUP)),
    ("a ubiformat that does nothing", form(program=QUIET), ["1:ubi-untouched"], FORM),
    ("a UBI image by write", Update("write 200000 400000 a\n", {"a": GOOD_HOST}, "", LARGE),
     ["1:ubi-refused", "1:missing-ecc"], Update("write 200000 400000 a\n", {"a": GOOD}, CHIP, LARGE)),
    ("a partition without volumes", form(program=EMPTIES), ["1:ubi-empty"], FORM),
    ("an internal volume that the kernel does not know", form(vid(GOOD, 4, 7, 2, 0x7F, 0xFF, 0xF0, 0)),
     ["1:ubi-read-only"], FORM),
    ("data under a damaged VID header", form(changed(GOOD, 4 * PEB + VID + 63, 1)), ["1:ubi-corrupted"], FORM),
    ("volumes that leave no reserve", form(ubi(noise(3 * LEB), pebs=39)), ["1:ubi-reserve"], FORM),
    ("the marker of an interrupted update", form(vtbl(GOOD, 13, 1)), ["1:ubi-update-marker"], FORM),
    ("a static volume with another byte", form(changed(STATIC, 3 * PEB + DATA, 1)), ["1:ubi-damaged-volume"],
     form(STATIC)),
    ("a block that was written again raw", form(GOOD_HOST, STRIPS, ""), ["1:ubi-unreadable"],
     form(GOOD_HOST, options="")),
    ("free space of UBIFS by write", Update("write 200000 400000 a\n", {"a": FS}, CHIP, LARGE), ["1:ubifs-free-space"],
     {"files": {"a": FS_FIXUP}}),
    ("a ubiformat that reports success in the updater's name", form(program=FORGES), ["1:format-failed"], FORM),
    ("a program erases a block of the volume", form(program=ERASES), ["1:spoiled"], FORM),
    ("a program keeps data among UBI's blocks", form(program=ALSO + KEEPS), ["1:spoiled"], FORM),
    ("a program keeps data where UBI comes later",
     form(line="setenv x y\nubiformat {} a\n")._replace(root={"bin/bootvars": "#!/bin/sh\nPATH=$PATH:/usr/sbin\n" + KEEPS}),
     ["2:overlap"], form(line="setenv x y\nubiformat {} a\n")._replace(root={"bin/bootvars": QUIET})),
    ("a mount stays busy while the partition is formatted", form(options=CHIP + " --mount /opt --mount /opt/other"),
     ["1:still-mounted"], form(options=CHIP + " --mount /opt")),
    # Programs.
    ("a tool that fails", tool("#!/bin/sh\nexit 3\n"), ["1:tool-failed"], SETS),
    ("a tool for another processor", tool(ARM), ["0:foreign-program", "1:tool-failed"], SETS),
    *((f"a tool that {does}", tool(body), ["0:unserved-request"], SETS, []) for does, body in (
        ("maps flash", "#!/usr/bin/python3\nimport mmap, os\ntry:\n mmap.mmap(os.open('/dev/mtd12', 0), 512,"
                       " prot=mmap.PROT_READ)\nexcept OSError:\n pass\n"),
        ("writes a block device", "#!/bin/sh\necho x > /dev/mtdblock12\nexit 0\n"),
        ("opens flash by number", "#!/usr/bin/python3\nimport ctypes\nctypes.CDLL(None).syscall(257, -100, b'/dev/mtd12', 2)\n"))),
]
# Advice and culprits that depend on the case: the row's name and a part of the text.
TEXTS = {
    "a script in a folder": "the script is in sub of the update",
    "a prepare.sh where the device never looks": "run the update from /tmp/update",
    "a byte order mark": "without a byte order mark",
    "a tool kills the updater": "the updater ends with signal 9",
    "a negative size": "erases data written earlier by line 1",
    "a device that does not report its size": "see what the device reports",
    "a program outlives the update": "sleep still runs",
    "a later line erases what another program wrote": "1 block that bootvars wrote earlier",
    "a program erases a block of the volume": "has other LEBs; changed by flash_erase, ubiformat",
    "a program keeps data among UBI's blocks": "data that is not UBI's",
    "a later erase": "keep the range of line 2 off the environment",
    "an erase ahead of the change": "a, bootcmd, bootdelay, ethaddr, serial are lost",
    "another program erases what a line wrote": "changed by flash_erase",
}
# Other tests have the means for these: attacks on the sandbox, images, other processors, messages without work.
ELSEWHERE = {"interrupted", "too-much", "chip-bypassed", "prepare-failed", "handover-failed", "replaced-program",
             "static-program", "not-done", "environment-unreadable", "unexpected-file"}


def judge(update):
    """The findings of a rehearsal and their texts."""
    with tempfile.TemporaryDirectory() as folder:
        place = pathlib.Path(folder, "update")
        script = {} if update.script is None else {"flashrig.script": update.script}
        for root, files in ((place, {**script, **update.files}), (pathlib.Path(folder, "root"), update.root)):
            for name, content in files.items():
                path = root / name
                path.parent.mkdir(parents=True, exist_ok=True)
                path.write_bytes(content.encode() if isinstance(content, str) else content)
                path.chmod(0o755)
        options = update.options.split() + (["--root", f"{folder}/root"] if update.root else [])
        # Without a progress script of its own the update runs with the calls turned off.
        quiet = [] if "progress_script.sh" in update.files else ["quiet"]
        run = subprocess.run([FLASHSIM, "--chip", update.chip, "--report", f"{folder}/report", *options, str(place), *quiet],
                             stdout=subprocess.PIPE, stderr=subprocess.PIPE, text=True, errors="replace", check=False)
        if run.returncode not in (0, 1):
            return [f"exit status {run.returncode}: {run.stderr}"], ""
        found = json.loads(pathlib.Path(folder, "report").read_text(encoding="utf-8"))["findings"]
        if run.returncode != any(finding["severity"] != "note" for finding in found):
            return [f"exit status {run.returncode} with {len(found)} findings"], ""
        for finding in found:
            # The line begins with a path that an editor opens.
            name = f"{place}/flashrig.script" + (f":{finding['line']}" if finding["line"] else "")
            if f"\n{name}: {finding['severity']}: " not in run.stdout.replace("\r", ""):
                return [f"no line begins with {name}"], ""
        return ([f"{it['line'] or 0}:{it['kind']}" for it in found],
                "\n".join(f"{it['happens']}; {it['change']}" for it in found))


def wrong_of(row):
    name, trap, findings, cure, rest = row
    cure = {"script": cure} if isinstance(cure, str) else cure
    cure = trap._replace(**cure) if isinstance(cure, dict) else cure
    found, texts = judge(trap)
    problems = [f"{name}: trap: {found} instead of {findings}"] if found != findings else []
    if TEXTS.get(name, "") not in texts:
        problems.append(f"{name}: {TEXTS[name]!r} is not in {texts!r}")
    if cure is not None and (left := judge(cure)[0]) != rest:
        problems.append(f"{name}: cure: {left} instead of {rest}")
    return problems


def main():
    rows = [Row(*row) for row in ROWS]
    with concurrent.futures.ThreadPoolExecutor(os.cpu_count()) as pool:
        problems = [problem for found in pool.map(wrong_of, rows) for problem in found]
    kinds = set(re.findall(r'FINDING\(\w+, "([a-z-]+)"', pathlib.Path(TABLE).read_text(encoding="utf-8")))
    cured = {it.split(":")[1] for row in rows if row.cure is not None for it in set(row.findings) - set(row.rest)}
    problems += [f"{kind}: no row cures the finding" for kind in sorted(kinds - cured - ELSEWHERE)]
    print(*problems, f"{len(ROWS)} rows, {len(problems)} problems", sep="\n")
    return 1 if problems else 0


sys.exit(main())
