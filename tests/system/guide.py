"""Follows the operator's guide: runs its blocks of commands as they stand there.

The info string of a fence says what its block is:

    sh DEVICE [MARK]       commands of a shell, which must end with 0
    console DEVICE [MARK]  commands behind "$ ", each with what the guide shows of its output

DEVICE is one of DEVICES, several with commas, or `all`: the block is run on one after the other. MARK is `machines` for
what needs the packages, root, systemd or the network, `plain` for a tree without keys, or `not-run: REASON` for what no
test can run. Blocks that hold no commands are of a kind in TEXT.
"""

import dataclasses
import json
import os
import pathlib
import re
import time

from tree import NotInTime, wait_until

GUIDE = pathlib.Path(__file__).resolve().parents[2] / "docs/operators_guide.md"
DEVICES = {"master": "192.0.2.10", "relay": "192.0.2.20", "shop-1": "192.0.2.30", "shop-2": "192.0.2.31"}
MARKS = ("", "machines", "plain")
TEXT = ("text", "ini", "json", "yaml")
NOT_RUN = 0  # blocks that no test can run, at most
COMMANDS = re.compile(r"^(\$|sudo|kel|kelagent|apt|systemctl|journalctl) .*", re.MULTILINE)
# Commands that only look: what they show may take a while to come. Those that end something are refused for a while.
LOOKS = re.compile(r"(kel( --json| --device \S+)* (audit|collected|devices|doctor|files|inbox|keys|metrics|multicast|"
                   r"password|publications|status|top|why|windows)|kel password end|kel keys end-password|systemctl status)"
                   r"( (list|get|-\S+|[A-Z]+|\S+\.bin))*\s*(#.*)?\n|journalctl [^|]*")
SECONDS = 150
# What readers have in their home folder, with the number of bytes.
FILES = {"update.bin": 1 << 20, "inventory.xml": 2000, "release/bin/run.sh": 300, "release/README": 100}


def write_files(folder):
    for name, size in FILES.items():
        (folder / name).parent.mkdir(parents=True, exist_ok=True)
        (folder / name).write_bytes(os.urandom(size))


@dataclasses.dataclass
class Block:
    line: int
    kind: str
    device: str
    mark: str
    text: str

    def __str__(self):
        return f"line {self.line} ({self.device}): {self.text.splitlines()[0]}"

    def devices(self):
        return list(DEVICES) if self.device == "all" else self.device.split(",")

    def steps(self):
        """The commands, each with the lines that the guide shows of its output."""
        if self.kind == "sh":
            return [(self.text, [])]
        return [(command, shown.splitlines())
                for command, shown in re.findall(r"^\$ ((?:.*\\\n)*.*\n)((?:(?!\$ ).*\n)*)", self.text, re.MULTILINE)]


def read_blocks(path=GUIDE):
    """The blocks of commands of a guide; AssertionError for one that no test would know how to run."""
    blocks, text = [], path.read_text()
    for fence in re.finditer(r"^```([^\n]*)\n(.*?)^```$", text, re.MULTILINE | re.DOTALL):
        line = text.count("\n", 0, fence.start()) + 1
        kind, device, mark = (fence[1].split(" ", 2) + ["", ""])[:3]
        if kind in TEXT and not device:
            if found := COMMANDS.search(fence[2]):
                raise AssertionError(f"line {line}: '{found[0]}' looks like a command, in a block of {kind}")
            continue
        block = Block(line, kind, device, mark, fence[2])
        if not set(block.devices()) <= set(DEVICES) or not (
                mark in MARKS or re.fullmatch("not-run: .*[a-z].*", mark)):
            raise AssertionError(f"line {line}: no test knows how to run a block of '{fence[1]}'")
        if kind != "sh" and not (kind == "console" and fence[2].startswith("$ ")):
            raise AssertionError(f"line {line}: a block is one of sh, or one of console that begins with '$ '")
        blocks.append(block)
    if len(left := [str(block) for block in blocks if block.mark.startswith("not-run")]) > NOT_RUN:
        raise AssertionError(f"more than {NOT_RUN} blocks are run by no test: {left}")
    return blocks


def pattern_of(line):
    """What a line of output has to be like one that the guide shows: numbers, times and identifiers may differ, and
    "…" stands for anything."""
    words = []
    for word in line.split():
        word = re.sub(r"\b[0-9A-F]{8}(-[0-9A-F]{4}){3}-[0-9A-F]{12}\b|\b[0-9a-f]{16,}\b", "\0", word)
        word = re.escape(re.sub(r"\d+", "\1", word)).replace("…", ".*")
        word = word.replace("\0", "[0-9A-Fa-f-]+").replace("\1", r"\d+")
        words.append(re.sub("^[KMGT]iB|B$", "([KMGT]i)?B", word))
    return re.compile(r"\s*" + r"\s+".join(words) + r"\s*")


def check_shown(shown, output):
    """AssertionError unless the output has a line like each one that the guide shows."""
    lines = output.splitlines()
    for line in shown:
        if line.strip() in ("", "…"):
            continue
        found = next((found for found in lines if pattern_of(line).fullmatch(found)), None)
        if found is None:
            raise AssertionError(f"no line like\n  {line}\namong\n{output}")
        lines.remove(found)


class Reader:
    """Does what the guide says on devices: `run(device, script)` runs a script on one and gives a finished process,
    `values` what stands for words in capitals."""

    def __init__(self, run, **values):
        self.run_script, self.values = run, values

    def look(self, device, command, name):
        return str(json.loads(self.run_script(device, f"kel --json {command}").stdout)[0][name])

    def filled_in(self, text):
        """A command with what a reader puts in the place of each word in capitals."""
        for name, place in {"PUBLICATION": ("master", "publications", "publication"),
                            "GUID": ("shop-2", "keys", "guid"), "KEY": ("relay", "keys", "key")}.items():
            if re.search(rf"\b{name}\b", text):
                self.values[name] = self.look(*place)
        return re.sub("(?<![A-Za-z])[A-Z]+(?![A-Za-z])", lambda word: self.values.get(word[0], word[0]), text)

    def run(self, device, command):
        done = self.run_script(device, self.filled_in(command))
        if done.returncode != 0:
            raise AssertionError(f"{command}ended with {done.returncode}:\n{done.stdout}")
        if token := re.findall(r"\bkel1-\S+", done.stdout):
            self.values["TOKEN"] = token[-1]
        return done.stdout

    def do(self, device, command, shown):
        missed = []

        def seen():
            try:
                check_shown(shown, self.run(device, command))
                return True
            except AssertionError as error:
                missed.append(error)
                if not LOOKS.fullmatch(command):
                    raise
                return False
        try:
            wait_until(seen, SECONDS, command)
        except NotInTime:
            raise missed[-1] from None

    def follow(self, blocks, tell):
        """Runs blocks; `tell` is called with a line about each one before."""
        begin = time.monotonic()
        for block in blocks:
            tell(f"  {time.monotonic() - begin:4.0f} s  {block}")
            try:
                for device in block.devices():
                    for command, shown in block.steps():
                        self.do(device, command, shown)
            except AssertionError as error:
                raise AssertionError(f"{block}\n{error}") from None
