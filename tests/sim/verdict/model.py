"""A model of a NAND chip, of the update script language and of what an update is meant to leave on the chip.

Nothing here is shared with the programs under test: the model is what their results are compared with.
"""

import re
import zlib
from functools import reduce
from itertools import compress
from operator import xor
from typing import NamedTuple

ECC_STEP = 256
PARITY = bytes(byte.bit_count() & 1 for byte in range(256))


def hamming(step):
    """The kernel's software Hamming code of 256 bytes: 3 bytes."""
    column = reduce(xor, step)
    row = reduce(xor, compress(range(ECC_STEP), step.translate(PARITY)), 0)
    total = column.bit_count() & 1
    places = [(column & mask).bit_count() & 1 for mask in (0xAA, 0xCC, 0xF0)] + [row >> bit & 1 for bit in range(8)]
    code = sum((odd << 1 | odd ^ total) << (2 * bit) for bit, odd in enumerate(places))
    return bytes([~(code >> 14) & 255, ~(code >> 6) & 255, ~(code << 2) & 255])


def correct(step, stored):
    """Reads 256 bytes through their stored code. Returns the bytes and whether the code fitted."""
    computed = hamming(step)
    if computed == stored:
        return step, True
    difference = int.from_bytes(computed, "big") ^ int.from_bytes(stored, "big")
    if ((difference ^ difference >> 1) & 0x555554) == 0x555554:
        pick = lambda value, bits: sum((value >> (2 * i + 1) & 1) << i for i in range(bits))
        turned = bytearray(step)
        turned[pick(difference >> 8, 8)] ^= 1 << pick(difference >> 2, 3)
        return bytes(turned), False
    return step, False


class Geometry(NamedTuple):
    blocks: int
    erase: int
    page: int
    oob: int
    ecc: str  # "host" or "chip"

    @property
    def size(self):
        return self.blocks * self.erase

    @property
    def raw(self):
        return self.page + self.oob

    @property
    def pages(self):
        return self.erase // self.page

    def pages_of(self, block):
        return range(block * self.pages, (block + 1) * self.pages)

    @property
    def marker(self):
        """Place of the bad-block marker in the OOB."""
        return 5 if self.page <= 512 else 0

    @property
    def ecc_places(self):
        if self.ecc == "chip":
            return []
        return {16: [0, 1, 2, 3, 6, 7], 64: list(range(40, 64)), 128: list(range(80, 128))}[self.oob]

    def with_ecc(self, data):
        """A page's data and OOB as a normal write lays them down."""
        oob = bytearray(b"\xff" * self.oob)
        codes = b"".join(hamming(data[i:i + ECC_STEP]) for i in range(0, self.page, ECC_STEP))
        for place, code in zip(self.ecc_places, codes):
            oob[place] = code
        return data + bytes(oob)


class Chip:
    """Cells that erase to ones and program to zeros, and the blocks that the kernel took for bad at its start."""

    def __init__(self, geometry):
        self.geometry = geometry
        self.cells = bytearray(b"\xff" * (geometry.raw * geometry.pages * geometry.blocks))
        self.bad = set()

    def spoil(self, block):
        """Marks a block bad as its maker does."""
        self.cells[block * self.geometry.pages * self.geometry.raw + self.geometry.page + self.geometry.marker] = 0

    def marked(self):
        """The blocks with a bad-block marker in the first or second page."""
        its = self.geometry
        return {block for block in range(its.blocks)
                if any(self.at(block * its.pages + page)[its.page + its.marker] != 255 for page in (0, 1))}

    def at(self, page):
        return bytes(self.cells[page * self.geometry.raw:(page + 1) * self.geometry.raw])

    def erase(self, block):
        length = self.geometry.pages * self.geometry.raw
        self.cells[block * length:(block + 1) * length] = b"\xff" * length

    def program(self, page, record):
        """Programs data, or data and OOB. Returns whether a bit that was 0 already should have become 1."""
        start = page * self.geometry.raw
        old = int.from_bytes(self.cells[start:start + len(record)], "big")
        new = int.from_bytes(record, "big")
        self.cells[start:start + len(record)] = (old & new).to_bytes(len(record), "big")
        return new & ~old != 0

    def read(self, page):
        """Reads a page as a normal read does. Returns its data and whether its ECC fitted."""
        record, its = self.at(page), self.geometry
        if its.ecc == "chip" or record == b"\xff" * its.raw:
            return record[:its.page], True
        codes = bytes(record[its.page + place] for place in its.ecc_places)
        steps = [correct(record[i * ECC_STEP:(i + 1) * ECC_STEP], codes[3 * i:3 * i + 3])
                 for i in range(its.page // ECC_STEP)]
        return b"".join(data for data, _ in steps), all(fits for _, fits in steps)


def make_environment(entries, size, length=None, flag=b""):
    """An environment whose CRC covers `length` bytes, zeros up to `size`."""
    length = length or size
    body = b"".join(entry.encode() + b"\0" for entry in entries)
    body = body.ljust(length - 4 - len(flag), b"\0")
    return (zlib.crc32(body).to_bytes(4, "little") + flag + body).ljust(size, b"\0")


def is_environment(image):
    """Whether a loader would take an image for an environment: whole or half of it, with a flag byte or without."""
    return len(image) > 5 and any(zlib.crc32(image[start:end]) == int.from_bytes(image[:4], "little")
                                  for start in (4, 5) for end in (len(image), len(image) // 2))


def has_valid_crc(block):
    return zlib.crc32(block[4:]) == int.from_bytes(block[:4], "little")


def parse_updater(block):
    """Entries as the updater reads them: up to the double zero byte, and not the last bytes of the block."""
    entries, start, bound = [], 4, len(block) - 4
    while (zero := block.find(b"\0", start, max(bound, 5))) >= 0:
        entries.append(block[start:zero])
        start = zero + 1
        if block[start] == 0:
            break
    return entries


def parse_loader(block):
    """Variables as a boot loader reads them: the last one of a name counts."""
    variables = {}
    for entry in block[4:].split(b"\0"):
        if not entry:
            break
        name, equals, value = entry.partition(b"=")
        if equals:
            variables[name] = value
    return variables


def set_variable(block, name, value):
    """The block with a variable changed as the updater does, or None when the list no longer fits."""
    entries, changed = parse_updater(block), name + b"=" + value
    for i, entry in enumerate(entries):
        if b"=" in entry and entry.partition(b"=")[0] == name:
            entries[i] = changed
            break
    else:
        entries.append(changed)
    if 4 + sum(len(entry) + 1 for entry in entries) > len(block):
        return None
    body = b"".join(entry + b"\0" for entry in entries).ljust(len(block) - 4, b"\0")
    return zlib.crc32(body).to_bytes(4, "little") + body


class Number:
    """A hexadecimal number as the updater reads it."""

    def __init__(self, token):
        sign, digits, rest = re.fullmatch(r"([+-]?)(?:0[xX](?=[0-9a-fA-F]))?([0-9a-fA-F]*)(.*)", token, re.S).groups()
        exact = int(sign + (digits or "0"), 16)
        self.value = max(-0x80000000, min(exact, 0x7FFFFFFF))
        self.foreign = bool(rest) or not digits
        self.odd = self.foreign or exact != self.value


TOKENS = {"write": 4, "writeoob": 4, "erase": 3, "ubiformat": 3}


class Line:
    def __init__(self, number, text):
        self.number, self.tokens = number, re.split(r"[ \f\t\v]+", text.strip(" \f\t\v"))
        self.command = self.tokens[0]
        if self.command == "setenv":
            self.command = "setenv-long" if len(self.tokens) >= 5 else "setenv-short"
        self.needs = {"setenv-long": 5, "setenv-short": 3, **TOKENS}.get(self.command)
        self.complete = self.needs is not None and len(self.tokens) >= self.needs
        self.ranged = self.complete and self.command in ("write", "writeoob", "erase", "setenv-long")
        if self.ranged:
            self.offset, self.size = Number(self.tokens[1]), Number(self.tokens[2])
            self.begin, self.end = self.offset.value, self.offset.value + self.size.value
        self.image = self.tokens[3] if self.complete and self.command in ("write", "writeoob") else None
        self.name, self.value = (self.tokens[self.needs - 2:self.needs] if self.complete and
                                 self.command.startswith("setenv") else (None, None))
        self.turned = self.command == "setenv-long" and (self.offset.foreign or self.size.foreign or
                                                            self.name[0] == "#")


def read_lines(script):
    lines = [Line(number, text) for number, text in enumerate(re.split(r"\r\n|\r|\n", script), 1)
             if text.strip(" \f\t\v")]
    return [line for line in lines if "#" not in line.tokens[0]]


class Truth(NamedTuple):
    """Something that is wrong with an update: a finding about one of the lines (0: the run) is one of the kinds."""
    what: str
    lines: frozenset
    kinds: frozenset
    required: bool  # the update can't be clean; else only a finding that is justified


class Device(NamedTuple):
    number: int
    name: str
    offset: int
    size: int


class Tool(NamedTuple):
    """The device's bootvars: what it does to the flash, on the device that the updater uses, and its exit status."""
    programs: tuple = ()  # (page, data)
    erases: tuple = ()    # blocks
    status: int = 0


# Kinds of findings by what they say of the device.
SPOILED = {"spoiled", "overlap", "not-done", "unerased", "environment-lost"}
ENVIRONMENT = {"environment-lost", "environment-damaged", "environment-invalid", "environment-absent", "environment-erased",
               "duplicate-variable", "overlap"}


class Rehearsal:
    """Carries an update out on a chip.

    `results` has the result of each line by number; `truths` what is wrong with the update.
    """

    def __init__(self, chip, devices, script, files, tool):
        self.chip, self.its, self.files, self.tool = chip, chip.geometry, files, tool
        chip.bad = chip.marked()
        self.devices = sorted(devices)
        self.whole = next((d for d in self.devices if "all" in d.name), self.devices[0])
        self.is_part = (self.whole.offset, self.whole.size) != (0, self.its.size)
        self.lines = read_lines(script)
        self.results = {line.number: "never-ran" for line in self.lines}
        self.truths = []
        self.meant = {}     # by page: the line that the page belongs to, and its cells
        self.erased = set() # blocks erased in this run
        self.handed = []    # lines that ran the tool
        self._run()
        for line in self.lines:
            self._judge_text(line)
        self._judge_chip()

    def _say(self, what, lines, kinds, required=True):
        numbers = frozenset(line if isinstance(line, int) else line.number for line in lines)
        self.truths.append(Truth(what, numbers, frozenset(kinds), required))

    # Carrying out.

    def _run(self):
        for line in self.lines:
            self.results[line.number], goes_on = self._carry_out(line)
            if not goes_on:
                break
        if not self.lines:
            self._say("no command", [0], {"not-started"})
        elif any(result == "never-ran" for result in self.results.values()):
            self._say("later lines never ran", [line], {"stopped"})
        if set(self.results.values()) & {"failed", "never-ran"}:
            self._say("a line failed", [0], {"percentages"}, required=False)

    def _carry_out(self, line):
        if not line.complete or line.image is not None and line.image not in self.files:
            return "skipped", True
        if line.command == "setenv-short":
            self._hand(line)
            return "clean", True
        problem = self._change(line)
        if problem:
            self._say(problem[0], [line], problem[1] | ({"setenv-long"} if line.turned else set()))
        stops = problem and line.command in ("write", "writeoob")
        return ("failed" if problem else "clean"), not stops

    def _change(self, line):
        """Returns None, or what failed and how a finding names it."""
        fault = self._range_fault(line)
        if fault in ("misaligned", "empty-range"):
            return fault, {fault, "misaligned"}
        if line.command == "setenv-long":
            return (fault, {fault}) if fault else self._set(line)
        for block in self._good_blocks(line):
            self._claim(line, block)
        if fault:
            return fault, {fault}
        return self._write(line) if line.image is not None else None

    def _range_fault(self, line):
        if line.begin % self.its.erase or line.size.value % self.its.erase:
            return "misaligned"
        if line.size.value <= 0:
            return "empty-range"
        return "off-chip" if line.end > self.whole.size else None

    def _blocks(self, line, end=None):
        """The chip's numbers of the blocks of a range, as far as it is on the device."""
        base = self.whole.offset // self.its.erase
        last = min(line.end if end is None else end, self.whole.size) // self.its.erase
        return range(base + line.begin // self.its.erase, base + last)

    def _good_blocks(self, line, end=None):
        return [block for block in self._blocks(line, end) if block not in self.chip.bad]

    def _claim(self, line, block):
        """A line takes a block over and erases it."""
        self.erased.add(block)
        self.chip.erase(block)
        for page in self.its.pages_of(block):
            self.meant[page] = line, b"\xff" * self.its.raw

    def _lay(self, line, page, record):
        self.chip.program(page, record)
        self.meant[page] = line, record.ljust(self.its.raw, b"\xff")

    def _write(self, line):
        record = self.its.raw if line.command == "writeoob" else self.its.page
        image, done = self.files[line.image], 0
        if line.command == "write" and self.its.ecc == "host" and is_environment(image):
            self._say("an environment without ECC", [line], {"missing-ecc"})
        before = b"\xff" * record
        for block in self._good_blocks(line, self.whole.size):
            for page in self.its.pages_of(block):
                part = image[done:done + record]
                done += len(part)
                if not part:
                    return None
                if block not in self._blocks(line):
                    return "the image outruns its range", {"outruns-range"}
                before = part + (before[len(part):] if line.command == "writeoob" else b"\xff" * (record - len(part)))
                self._lay(line, page, before)
        if done < len(image):
            self._say("the end of the image is lost", [line], {"cut-at-end"})
        return None

    def _read(self, line):
        parts = [self.chip.read(page) for block in self._blocks(line) for page in self.its.pages_of(block)]
        return b"".join(data for data, _ in parts), all(fits for _, fits in parts)

    def _set(self, line):
        found, sound = self._read(line)
        changed = set_variable(found, line.name.encode(), line.value.encode())
        if changed is None:
            return "the environment is full", {"environment-full"}
        kinds = ENVIRONMENT | ({"setenv-long"} if line.turned else set())
        others = [other for other in self.lines if other.command == "setenv-long" and other.begin == line.begin]
        if not sound:
            self._say("reads damaged data", others, kinds)
        if not has_valid_crc(found):
            self._say("finds no environment", others, kinds)
        names = [entry.split(b"=")[0] for entry in parse_updater(found)]
        if len(names) > len(set(names)):
            self._say("a loader reads the last of two", others, kinds, required=False)
        if parse_loader(changed).get(line.name.encode()) != line.value.encode():
            self._say("a loader reads another value", others, kinds)
        pages = [changed[i:i + self.its.page] for i in range(0, len(changed), self.its.page)]
        for block in self._good_blocks(line):
            self._claim(line, block)
            for page in self.its.pages_of(block):
                self._lay(line, page, self.its.with_ecc(pages.pop(0)))
        return None

    def _hand(self, line):
        self.handed.append(line)
        base = self.whole.offset // self.its.erase
        for block in self.tool.erases:
            self.erased.add(base + block)
            self.chip.erase(base + block)
        for page, data in self.tool.programs:
            at = base * self.its.pages + page
            over = self.chip.program(at, self.its.with_ecc(data))
            if over or at // self.its.pages not in self.erased:
                self._say("programs without an erase", [0] + self.lines, SPOILED)
        if self.tool.status:
            self._say("the tool fails", [line], {"tool-failed"})

    # Judging.

    def _judge_text(self, line):
        """What is wrong with a line's words and range, whatever the chip."""
        if not line.complete:
            self._say("skipped", [line], {"unknown-command" if line.needs is None else "incomplete"})
            return
        if line.turned:
            self._say("a long setenv", [line], {"setenv-long"})
        elif line.ranged and (line.offset.odd or line.size.odd):
            self._say("odd number", [line], {"number"})
        extra = line.tokens[line.needs:]
        if extra and extra[0][0] != "#" and not line.turned:
            self._say("ignored words", [line], {"ignored-words"})
        if line.command == "setenv-short" and not line.name[0].isalpha():
            self._say("offset and size as name and value", [line], {"setenv-short"})
        if line.ranged:
            self._judge_range(line)

    def _judge_range(self, line):
        ran = self.results[line.number] != "never-ran"
        if line.image is not None and line.image not in self.files:
            self._say("skipped", [line], {"missing-file"})
            return
        if line.image is not None and line.command == "writeoob" and len(self.files[line.image]) % self.its.raw:
            self._say("part of a record", [line], {"raw-length"})
        fault = self._range_fault(line)
        if fault and not ran and not line.turned:
            self._say("would fail", [line], {fault})
        if fault in ("misaligned", "empty-range"):
            return
        if not fault and line.image is not None:
            self._judge_room(line, ran)
        for device in self.devices:
            begin, end = device.offset - self.whole.offset, device.offset + device.size - self.whole.offset
            is_within = begin <= line.begin and line.end <= end or line.begin <= begin and end <= line.end
            if not self.is_part and not is_within and line.begin < end and begin < line.end <= self.whole.size:
                self._say("crosses a device", [line], {"crosses-device"})
        for other in self.lines[:self.lines.index(line)]:
            self._judge_overlap(other, line)

    def _judge_room(self, line, ran):
        record = self.its.raw if line.command == "writeoob" else self.its.page
        fills = -(-len(self.files[line.image]) // (record * self.its.pages))
        spare = line.size.value // self.its.erase - fills
        if fills == 0:
            self._say("nothing to write", [line], {"empty-image"})
        # Makers guarantee that block 0 is good.
        if spare == 0 and (line.begin, line.end) != (0, self.its.erase):
            self._say("no room for a bad block", [line], {"no-spare"})
        if spare < 0 and not ran:
            self._say("would outrun its range", [line], {"outruns-range"})

    def _judge_overlap(self, earlier, later):
        """A line whose range takes what an earlier one wrote, or its room."""
        skipped = (self.results[line.number] == "skipped" for line in (earlier, later))
        if not earlier.ranged or earlier.command == "erase" or any(skipped) or \
                not (earlier.begin < later.end and later.begin < earlier.end):
            return
        both_ran = all(self.results[line.number] == "clean" for line in (earlier, later))
        # A change of a variable that finds an environment keeps everything else; what it finds is judged there.
        required = both_ran and later.command != "setenv-long"
        if required or later.command != "setenv-long" or earlier.begin != later.begin or not both_ran:
            self._say("takes a written range", [earlier, later], SPOILED, required)

    def _judge_chip(self):
        if self.is_part and any(line.ranged for line in self.lines):
            self._say("a part of the flash", [0], {"part-of-flash"})
        strays = {line.number: line for page, (line, cells) in self.meant.items() if self.chip.at(page) != cells}
        for line in strays.values():
            self._say("another program spoils the range", [line] + self.handed, SPOILED,
                      required=self.results[line.number] == "clean")
        for line in self.lines:
            if any(self.meant.get(block * self.its.pages, (None,))[0] is line
                   for block in self.chip.marked() - self.chip.bad):
                self._say("false bad-block markers", [line], {"false-markers"})
        for line in self.lines:
            if line.command == "setenv-long" and self.results[line.number] == "clean":
                self._judge_environment(line)

    def _judge_environment(self, line):
        """What a boot loader reads when the update has ended."""
        same = [other for other in self.lines
                if other.command == "setenv-long" and (other.begin, other.end) == (line.begin, line.end)]
        block, sound = self._read(line)
        kinds = ENVIRONMENT | ({"setenv-long"} if line.turned else set())
        bad = any(number in self.chip.bad for number in self._blocks(line))
        if bad or not sound or not has_valid_crc(block):
            self._say("no environment when the update ends", same, kinds)
            return
        last = [other.value for other in same if other.name == line.name and self.results[other.number] == "clean"][-1]
        if parse_loader(block).get(line.name.encode()) != last.encode():
            self._say("the variable is not there when the update ends", same, kinds)
        used = sum(len(entry) + 1 for entry in block[4:].rstrip(b"\0").split(b"\0"))
        if used > len(block) - 8:
            self._say("the next change loses a variable", same, kinds)
