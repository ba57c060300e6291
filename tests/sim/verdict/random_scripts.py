#!/usr/bin/env python3
"""Compares flashsim with a model on random updates: the chip byte for byte, each line's result, and the verdict.

Usage: random_scripts.py FLASHSIM [--seed S] [--count N] [--chain N] [--keep DIR]

Updates come in chains that share a chip, so that later ones start from what earlier ones left.
"""

import argparse
import json
import pathlib
import random
import subprocess
import sys
import tempfile
from concurrent.futures import ThreadPoolExecutor

sys.dont_write_bytecode = True  # the folder of the sources stays clean
from model import Chip, Device, Geometry, Rehearsal, Tool, make_environment

GEOMETRIES = [Geometry(24, 16384, 512, 16, "host"), Geometry(16, 131072, 2048, 64, "host"),
              Geometry(12, 262144, 4096, 128, "host"), Geometry(16, 131072, 2048, 64, "chip")]
CHAIN = 3


def write_tree(folder, files):
    for name, data in files.items():
        path = folder / name
        path.parent.mkdir(parents=True, exist_ok=True)
        path.write_bytes(data.encode() if isinstance(data, str) else data)
        path.chmod(0o755)


TOOL = """#!/usr/bin/python3
import fcntl, os, struct, sys
flash = os.open("/dev/mtd{number}", os.O_RDWR)
for block in {erases!r}:
    fcntl.ioctl(flash, 0x40104d14, struct.pack("QQ", block * {erase}, {erase}))
for page, data in {programs!r}:
    os.pwrite(flash, data * {page}, page * {page})
sys.exit({status})
"""


class Update:
    """A random update for a chip: a script, its files, the devices and the device's bootvars."""

    def __init__(self, random, its, chip):
        self.random, self.its, self.chip = random, its, chip
        self.files, self.lines, self.tool = {}, [], Tool()
        # Half of the updates have nothing wrong on purpose.
        self.trouble = random.choice([0, 0, 0.25, 0.6])
        self.number = random.choice([0, 12])
        self.devices = [Device(self.number, "all", 0, its.size)]
        self.size = its.size
        if self.spoils(0.2):
            self._add_odd_device()
        self.next = 0
        wanted = random.randint(2, 8)
        while len(self.lines) < wanted and self.next < self.size // its.erase:
            self._add_lines()
        self.lines = self.lines[:8]
        end = random.choice(["\n", "\n", "\r\n"])
        self.script = end.join(self.lines) + random.choice(["", end])

    def chance(self, probability):
        return self.random.random() < probability

    def spoils(self, weight=1.0):
        return self.chance(self.trouble * weight)

    def text(self, number):
        return self.random.choice([hex, lambda n: f"{n:x}", lambda n: f"0X{n:X}"])(number)

    def file(self, data):
        name = f"image{len(self.files)}"
        self.files[name] = data
        return name

    def _add_odd_device(self):
        part = self.size // 2
        if self.chance(0.4):
            self.devices.append(Device(self.number + 1, "data", self.its.erase, part))
            return
        offset = self.random.choice([0, 2 * self.its.erase])
        # The first name with the letters counts, in the order of the numbers.
        self.devices[0] = Device(7, "all", 0, self.its.size)
        self.devices.append(Device(3, "install", offset, part))
        self.number, self.size = 3, part

    def slot(self, blocks):
        """A range of its own, or with trouble one that something is wrong with: offset and size in blocks."""
        last = self.size // self.its.erase
        if self.spoils(0.12):
            return self.random.randrange(last), blocks  # perhaps another one's, perhaps off the end
        begin = self.next + self.random.choice([0, 0, 1])
        if self.spoils(0.1):
            begin = last - self.random.randint(0, blocks)
        self.next = max(self.next, begin + blocks)
        return begin, blocks

    def range(self, begin, blocks):
        offset, size = begin * self.its.erase, blocks * self.its.erase
        if self.spoils(0.08):
            offset += self.random.choice([1, self.its.page, self.its.erase // 2])
        if self.spoils(0.08):
            size = self.random.choice([0, size + self.its.page, size - 1])
        words = [self.text(offset), self.text(size)]
        if self.spoils(0.05):
            words[self.random.randrange(2)] += self.random.choice(["K", "h", ",", "000000000"])
        return " ".join(words)

    def blanks(self, line):
        line = self.random.choice(["", "", " ", "\t"]) + line
        if self.spoils(0.08):
            return line + " and more"
        return line + self.random.choice(["", "", " ", " # as planned", " #"])

    def records(self, data, its, ecc=True):
        pages = (data[i:i + its.page].ljust(its.page, b"\xff") for i in range(0, len(data), its.page))
        return b"".join(its.with_ecc(page) if ecc else page + b"\xff" * its.oob for page in pages)

    def content(self, blocks, room):
        """Bytes for some blocks of a range that leave blocks for bad ones, mostly."""
        fill = max(1, blocks - 1) if self.spoils(0.2) else max(1, blocks - room)
        length = (fill - 1) * self.its.erase + self.random.choice(
            [self.random.randint(1, self.its.erase), self.its.erase, self.its.page])
        if self.spoils(0.08):
            length = self.random.choice([0, (blocks + 1) * self.its.erase, blocks * self.its.erase])
        return b"image" + self.random.randbytes(length - 5) if length > 5 else b"\x01" * length

    def _add_lines(self):
        makers = [self._write, self._write, self._write_raw, self._write_raw, self._erase, self._environment,
                  self._environment, self._hand, self._odd]
        for line in self.random.choice(makers)():
            self.lines.append(line)

    def bad_in(self, begin, blocks):
        return len(self.chip.marked() & set(range(begin, begin + blocks)))

    def _write(self):
        begin, blocks = self.slot(self.random.randint(2, 4))
        name = self.file(self.content(blocks, 1 + self.bad_in(begin, blocks)))
        if self.spoils(0.08):
            name = "missing"
        return [self.blanks(f"write {self.range(begin, blocks)} {name}")]

    def _write_raw(self):
        begin, blocks = self.slot(self.random.randint(2, 4))
        its = self.its
        if self.spoils(0.1):
            its = self.random.choice(GEOMETRIES)
        image = bytearray(self.records(self.content(blocks, 1 + self.bad_in(begin, blocks)), its, self.chance(0.7)))
        if self.spoils(0.15) and image:
            page = self.random.choice([0, 1, 2, its.pages, its.pages + 1, its.pages + 5])
            at = page * its.raw + its.page + its.marker
            if at < len(image):
                image[at] = self.random.choice([0, 0xF0])
        if self.spoils(0.08):
            del image[-self.random.randint(1, its.raw - 1):]
        return [self.blanks(f"writeoob {self.range(begin, blocks)} {self.file(bytes(image))}")]

    def _erase(self):
        return [self.blanks(f"erase {self.range(*self.slot(self.random.randint(1, 3)))}")]

    def _environment(self):
        """An environment by image, and changes of it."""
        blocks = self.random.choice([1, 1, 2])
        begin, _ = self.slot(blocks + 1)
        bad = self.bad_in(begin, blocks + 1)
        if bad and not self.spoils(0.5):
            self.next = max(self.next, begin + bad)
            return []
        size = blocks * self.its.erase
        entries = ["bootcmd=run it", "serial=1"]
        if self.spoils(0.1):
            entries.append("serial=2")
        if self.spoils(0.1):
            entries.append("long=" + "x" * (size - 44 - self.random.randint(0, 12)))
        block = make_environment(entries, size)
        if self.spoils(0.1):
            block = make_environment(entries, size, size // 2)
        if self.spoils(0.1):
            block = make_environment(entries, size, flag=self.random.choice([b"\0", b"\1", b"\x2a"]))
        if self.spoils(0.1):
            block = self.random.choice([b"\xff" * size, bytes(size), self.random.randbytes(size), b"text\n" * 20])
        plain = self.its.ecc == "chip" and self.chance(0.5) or self.spoils(0.15)
        image = self.file(block if plain else self.records(block, self.its))
        lines = [self.blanks(f"{'write' if plain else 'writeoob'} {self.range(begin, blocks + 1)} {image}")]
        if self.spoils(0.1):
            lines = []
        if self.spoils(0.1):
            lines.append(f"erase {self.range(begin, 1)}")
        for _ in range(self.random.choice([1, 1, 2])):
            name = self.random.choice(["side", "serial", "tries"])
            length = blocks if not self.spoils(0.1) else self.random.randint(1, 3)
            lines.append(self.blanks(f"setenv {self.range(begin, length)} {name} {self.random.choice('abc')}"))
        return lines

    def _hand(self):
        line = f"setenv side {self.random.choice('ab')}"
        if self.spoils(0.3):
            line = self.random.choice([f"setenv {self.range(2, 1)}", line + " # x y", "setenv 0 20000 # ms"])
        if self.spoils(0.3) and self.tool == Tool():
            good = sorted(set(range(self.next)) - self.chip.marked() if self.number != 3 else [])
            blocks = self.random.sample(good, min(len(good), 1))
            self.tool = Tool(tuple((block * self.its.pages + self.random.randrange(self.its.pages),
                                    self.random.choice([b"\x55", b"\x00"])) for block in blocks),
                             tuple(blocks) if self.chance(0.4) else (), self.random.choice([0, 0, 3]))
        return [line]

    def _odd(self):
        if self.spoils(0.5):
            return [self.random.choice(["Write 0 20000 image0", "write 0 20000", "erase 0", "setenv side",
                                        "nonsense", "ubiformat /dev/mtd1"])]
        return [self.random.choice(["# a comment", "", "  \t", "#write 0 20000 image0"])]


class Chain:
    """Updates one after another on the same chip."""

    def __init__(self, flashsim, seed, number, folder):
        self.random = random.Random(f"{seed} {number}")
        self.flashsim, self.name, self.folder = flashsim, f"chain {number}", folder
        self.its = GEOMETRIES[number % len(GEOMETRIES)]
        self.chip = Chip(self.its)
        self.bad = sorted(self.random.sample(range(1, self.its.blocks), self.random.choice([0, 0, 1, 2])))
        for block in self.bad:
            self.chip.spoil(block)
        folder.mkdir(parents=True)

    def run(self, updates):
        """Returns how many updates were clean, and the texts of disagreements."""
        clean, problems = 0, []
        for step in range(updates):
            update = Update(self.random, self.its, self.chip)
            differences, is_clean = self._rehearse(update, step)
            clean += is_clean
            if differences:
                problems.append("\n".join([f"{self.name}, update {step}: {self.its}, bad {self.bad}",
                                           f"  devices {[tuple(d) for d in update.devices]} {update.tool!r:.200}",
                                           *(f"  {i}| {line}" for i, line in enumerate(update.script.splitlines(), 1)),
                                           *("  " + text for text in differences)]))
            if differences and differences[0].startswith("chip"):
                break  # later updates would start from different chips
        return clean, problems

    def _rehearse(self, update, step):
        report = self._simulate(update, self.folder / str(step))
        tool = Tool(tuple((page, data * self.its.page) for page, data in update.tool.programs), *update.tool[1:])
        model = Rehearsal(self.chip, update.devices, update.script, update.files, tool)
        flash = (self.folder / "chip").read_bytes()
        differences = []
        if flash != self.chip.cells:
            pages = [page for page in range(self.its.blocks * self.its.pages)
                     if flash[page * self.its.raw:(page + 1) * self.its.raw] != self.chip.at(page)]
            differences.append(f"chip: {len(pages)} pages differ, first {pages[0]}")
        results = {line["number"]: line["result"] for line in report["lines"]}
        is_clean = not any(truth.required for truth in model.truths)
        for what, found, wanted in (
                ("exit status", report["run"]["exitStatus"], 0 if update.script else 255),
                ("bad blocks", report["chip"]["badBlocks"], sorted(self.chip.bad)),
                ("results", results, model.results),
                ("verdict", report["verdict"], "clean" if is_clean else "findings")):
            if found != wanted:
                differences.append(f"{what}: {found}, model: {wanted}")
        findings = [finding for finding in report["findings"] if finding["severity"] != "note"]
        fits = lambda truth, finding: (finding["line"] or 0) in truth.lines and finding["kind"] in truth.kinds
        for truth in model.truths:
            if truth.required and not any(fits(truth, finding) for finding in findings):
                differences.append(f"not found: {truth.what} in {sorted(truth.lines)}: {sorted(truth.kinds)}")
        for finding in findings:
            # What would be without ECC is said of lines that fail too.
            would = finding["kind"] == "missing-ecc" and results.get(finding["line"]) != "clean"
            if not would and not any(fits(truth, finding) for truth in model.truths):
                differences.append(f"not so: {finding['line']}: {finding['kind']}: {finding['happens']}")
        if differences:
            differences += [f"   {f['line']}: {f['severity']}: {f['kind']}: {f['happens']}" for f in findings]
            differences += [f"   model: {sorted(t.lines)} {t.what}{'' if t.required else '?'}" for t in model.truths]
        return differences, is_clean

    def _simulate(self, update, folder):
        write_tree(folder / "update", {**update.files, "flashrig.script": update.script.encode()})
        tool = "#!/bin/sh\n" if update.tool == Tool() else TOOL.format(
            number=update.number, erase=self.its.erase, page=self.its.page, **update.tool._asdict())
        write_tree(folder / "root", {"bin/bootvars": tool})
        its = self.its
        command = [self.flashsim, "--chip", f"{its.size},{its.erase},{its.page},{its.oob}", "--ecc", its.ecc,
                   "--flash", self.folder / "chip", "--report", folder / "report.json", "--root", folder / "root"]
        if self.bad:
            command += ["--bad", ",".join(map(str, self.bad))]
        for device in reversed(update.devices):
            command += ["--mtd", f"{device.number}:{device.name}:{device.offset},{device.size}"]
        done = subprocess.run(command + [folder / "update"], capture_output=True, text=True, check=False)
        if done.returncode not in (0, 1):
            raise RuntimeError(f"{self.name}: exit status {done.returncode}: {done.stderr}")
        report = json.loads((folder / "report.json").read_text())
        if done.returncode != (report["verdict"] != "clean"):
            raise RuntimeError(f"{self.name}: exit status {done.returncode} with {report['verdict']}")
        return report


def main():
    parser = argparse.ArgumentParser(description=__doc__.splitlines()[0])
    parser.add_argument("flashsim")
    parser.add_argument("--seed", default="1")
    parser.add_argument("--count", type=int, default=300)
    parser.add_argument("--chain", type=int, help="runs this chain only")
    parser.add_argument("--keep", help="keeps all files in this folder")
    options = parser.parse_args()
    chains = range(-(-options.count // CHAIN)) if options.chain is None else [options.chain]
    with tempfile.TemporaryDirectory() as temporary:
        folder = pathlib.Path(options.keep or temporary)

        def run(number):
            chain = Chain(options.flashsim, options.seed, number, folder / str(number))
            return chain.run(min(CHAIN, options.count - CHAIN * number) if options.chain is None else CHAIN)

        with ThreadPoolExecutor(2) as pool:
            outcomes = list(pool.map(run, chains))
    problems = [problem for _, found in outcomes for problem in found]
    print("\n".join(problems))
    print(f"{len(problems)} chains with disagreements; {sum(clean for clean, _ in outcomes)} clean updates")
    return 1 if problems else 0


if __name__ == "__main__":
    sys.exit(main())
