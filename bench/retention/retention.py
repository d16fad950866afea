#!/usr/bin/env python3
"""Whether a tree in steady use stops growing: retention.py BIN [--days N] [--files N]

Real agents: a master, a relay and two clients below it. On every day of their clock, half of the files are published to
the clients and the other half is sent to the master, in twelve parts; the clock then goes on by two hours. What is in the
inboxes and among the collected files is taken away at the end of a day, as its users would.

Then everything else that the agents have on their disks is counted: the bytes and files of every folder of their data,
the bytes of each database and its log, and the rows of each table. All agents are in the table that is printed; at the
end come the values that have grown: in the last third of the days the largest is more than a tenth over the largest of
the third before. The exit code is 1 if there is one. What the master has published stays until it is withdrawn: these
values are divided by the number of publications first.
"""
import argparse
import collections
import pathlib
import random
import shutil
import sqlite3
import sys
import tempfile
import time

HERE = pathlib.Path(__file__).resolve().parent
sys.path.insert(0, str(HERE.parent.parent / "tests" / "system"))

from tree import Tree, find_faketime  # noqa: E402

PARTS = 12  # of a day
PART_SECONDS = 86400 // PARTS
BYTES = (1024, 8192)  # of a file
ARRIVAL_SECONDS = 300
QUIET_SECONDS = 4  # in which the workers, which look every second, find nothing to do any more
GROWTH = 1.1
SLACK = {"bytes": 1 << 20, "files": 50, "rows": 50}  # what varies from day to day is not growth
PUBLICATIONS = "Console/Console.sqlite Publications", "rows"
PUBLISHED = ("Console/", "FileStore/FileStore.sqlite")  # begins the names of what the master keeps of publications
LOGS = ("log/", "Agent/audit")  # a new file is begun at a size, and the oldest goes: that takes longer than this
TAKEN_AWAY = ("Delivery/Inbox", "Delivery/Collected")


class AdvancedClock:
    """A clock of the agents that is ahead of the real one and moved on while they run."""

    def __init__(self, folder):
        self.file, self.ahead = pathlib.Path(folder) / "clock", 0
        self.file.write_text("+0")

    def environment(self):
        return {"LD_PRELOAD": str(find_faketime()), "FAKETIME_TIMESTAMP_FILE": str(self.file),
                "FAKETIME_CACHE_DURATION": "1", "FAKETIME_DONT_FAKE_MONOTONIC": "1", "DONT_FAKE_MONOTONIC": "1",
                "NO_FAKE_STAT": "1"}

    def go_on(self, seconds):
        self.ahead += seconds
        self.file.with_suffix(".new").write_text(f"+{self.ahead}")
        self.file.with_suffix(".new").rename(self.file)
        time.sleep(1.2)


def files_below(folder):
    return [path for path in folder.rglob("*") if path.is_file()]


def rows_of(path):
    """Table -> rows. A copy is opened: a running agent's database has no second connection."""
    with tempfile.TemporaryDirectory() as folder:
        for suffix in ("", "-wal"):
            if pathlib.Path(f"{path}{suffix}").exists():
                shutil.copy(f"{path}{suffix}", folder)
        database = sqlite3.connect(pathlib.Path(folder) / path.name)
        tables = [name for (name,) in database.execute(
            "SELECT name FROM sqlite_master WHERE type = 'table' AND name NOT LIKE 'sqlite_%'")]
        counts = {table: database.execute(f"SELECT COUNT(*) FROM {table}").fetchone()[0] for table in tables}
        database.close()
        return counts


def sample(agent):
    """(what, unit) -> value for everything that an agent keeps, but for what its users take away."""
    values = collections.Counter()
    for path in files_below(agent.root):
        name = str(path.relative_to(agent.root)).removeprefix("data/")
        if name.startswith(TAKEN_AWAY):
            continue
        try:
            size = path.stat().st_size
        except FileNotFoundError:
            continue
        if ".sqlite" in name:
            values[name, "bytes"] = size
        else:
            folder = "/".join(name.split("/")[:2]) if "/" in name else name
            values[folder, "bytes"] += size
            values[folder, "files"] += 1
        if name.endswith(".sqlite"):
            for table, count in rows_of(path).items():
                values[f"{name} {table}", "rows"] = count
    return values


class Retention:
    def __init__(self, tree, files):
        self.tree, self.files, self.random = tree, files, random.Random(1)
        self.made = 0
        self.samples = {agent: [] for agent in tree.agents}

    def make(self, folder, count):
        folder.mkdir()
        paths = []
        for _ in range(count):
            self.made += 1
            path = folder / f"file{self.made:06}"
            path.write_bytes(self.random.randbytes(self.random.randint(*BYTES)))
            paths.append(path)
        return paths

    def arrived(self):
        return [path for agent in self.tree.agents for folder in TAKEN_AWAY for path in files_below(agent.data / folder)
                if path.name.startswith("file")]

    def part(self, number):
        client, other = self.tree.clients[::1 if number % 2 else -1]
        folder = self.tree.folder / "traffic"
        paths = self.make(folder, self.files // PARTS)
        half = len(paths) // 2
        self.tree.publish(paths[:half], "Retention", "down", client.name)
        other.kel("send", "--type", "Retention", "--label", "up", "--", *paths[half:])
        shutil.rmtree(folder)
        return len(paths)

    def day(self):
        expected = 0
        for number in range(PARTS):
            expected += self.part(number)
            self.tree.clock.go_on(PART_SECONDS)
        deadline = time.monotonic() + ARRIVAL_SECONDS
        while len(self.arrived()) < expected:
            if time.monotonic() > deadline:
                sys.exit(f"{len(self.arrived())} of {expected} files have arrived")
            time.sleep(1)
        for path in self.arrived():
            path.unlink()
        time.sleep(QUIET_SECONDS)
        for agent, days in self.samples.items():
            days.append(sample(agent))

    def print_day(self, day, seconds):
        for agent, days in self.samples.items():
            values, line = days[-1], []
            for what, text in (("FileStore/downstream", "down"), ("FileStore/upstream", "up")):
                line.append(f"{text} {values[what, 'files']:5} files {values[what, 'bytes'] / (1 << 20):5.1f} MiB")
            for name in ("FileStore.sqlite", "Upstream.sqlite"):
                rows = values[f"FileStore/{name} Files", "rows"]
                sizes = [values[f"FileStore/{name}{end}", "bytes"] / (1 << 20) for end in ("", "-wal")]
                line.append(f"{name} {rows:5} rows {sizes[0]:5.1f} + {sizes[1]:4.1f} MiB")
            print(f"{day:3}  {agent.name:8} {', '.join(line)}")
        print(f"     {seconds:.0f} s", flush=True)

    def grown(self):
        found = []
        for agent, days in self.samples.items():
            third = len(days) // 3
            for key in sorted({key for day in days for key in day if not key[0].startswith(LOGS)}):
                if agent is self.tree.master and key[0].startswith(PUBLISHED):
                    slack, per = SLACK[key[1]] / days[third][PUBLICATIONS], " a publication"
                    values = [day[key] / day[PUBLICATIONS] for day in days]
                else:
                    slack, per, values = SLACK[key[1]], "", [day[key] for day in days]
                before, after = max(values[third:2 * third]), max(values[2 * third:])
                if after > before * GROWTH + slack:
                    found.append(f"{agent.name}: {key[0]}: {before:.5g} {key[1]}{per}, then {after:.5g}")
        return found

    def print_all(self):
        """Everything that is kept on the last day, by agent."""
        for agent, days in self.samples.items():
            print(agent.name)
            for (what, unit), value in sorted(days[-1].items()):
                print(f"    {what:48} {value:10} {unit}")


def main():
    parser = argparse.ArgumentParser()
    parser.add_argument("bin", type=pathlib.Path)
    parser.add_argument("--days", type=int, default=30)
    parser.add_argument("--files", type=int, default=2000, help="a day, in both directions together")
    parser.add_argument("--all", action="store_true", help="print everything that is kept on the last day")
    arguments = parser.parse_args()
    with tempfile.TemporaryDirectory() as folder, \
            Tree(arguments.bin.parent, [2], AdvancedClock(folder), short_intervals=False) as tree:
        for agent in tree.agents:
            agent.set_ini("FileStore", "FileStore", "QueueGap", 1)
        tree.start()
        retention = Retention(tree, arguments.files)
        for day in range(1, arguments.days + 1):
            begin = time.monotonic()
            retention.day()
            retention.print_day(day, time.monotonic() - begin)
        if arguments.all:
            retention.print_all()
        grown = retention.grown()
        print("\n".join(grown) if grown else "Nothing grows in the last third of the days.")
    sys.exit(1 if grown else 0)


if __name__ == "__main__":
    main()
