#!/usr/bin/env python3
"""How long a small file takes through the tree with default settings: latency.py BIN [--runs N] [--hour]

Real agents in a chain: a master, two relays below each other, and a client below each of the three. Every run publishes
a file of 4 KiB to one of the clients, and sends one from the lowest client to the master. The time begins when the
command line is started and ends when the file lies in the inbox, or in the master's collected files. Then the lowest
client is switched on after a file was announced to it in vain, without and with a restart of its relay in between: the
time begins when its process is started. With --hour, only that is measured, and an hour has passed on the clock of the
agents before the client is switched on; it passes within a minute, then the clock goes on at its normal pace.
"""
import argparse
import os
import pathlib
import statistics
import subprocess
import sys
import tempfile
import time

HERE = pathlib.Path(__file__).resolve().parent
sys.path.insert(0, str(HERE.parent.parent / "tests" / "system"))

from tree import Tree, find_faketime  # noqa: E402

FILE_BYTES = 4096
WAIT_SECONDS = 400
POLL_SECONDS = 0.002
FAILING_SECONDS = 6  # in which an announcement to a device that is off fails
SWITCHED_ON_RUNS = 5
PAUSE_SECONDS = 0.3  # between two runs, so that receipts of the last one are not in the way of the next


def wait_for(path):
    deadline = time.monotonic() + WAIT_SECONDS
    while not path.exists():
        if time.monotonic() > deadline:
            sys.exit(f"{path} did not arrive within {WAIT_SECONDS} s")
        time.sleep(POLL_SECONDS)


def timed(command, arrives):
    begin = time.monotonic()
    with subprocess.Popen(command, stdout=subprocess.DEVNULL):
        wait_for(arrives)
        seconds = time.monotonic() - begin
    time.sleep(PAUSE_SECONDS)
    return seconds


def report(course, seconds):
    print(f"  {course:36} median {statistics.median(seconds):6.3f} s   minimum {min(seconds):6.3f} s   "
          f"maximum {max(seconds):6.3f} s", flush=True)


class AdvancedClock:
    """A clock of the agents that is ahead of the real one; the same for all, and changed while they run."""

    STEP_SECONDS, STEPS = 60, 60

    def __init__(self, folder):
        self.file, self.ahead = pathlib.Path(folder) / "clock", 0
        self.file.write_text("+0")

    def environment(self):
        return {"LD_PRELOAD": str(find_faketime()), "FAKETIME_TIMESTAMP_FILE": str(self.file),
                "FAKETIME_CACHE_DURATION": "1", "FAKETIME_DONT_FAKE_MONOTONIC": "1", "DONT_FAKE_MONOTONIC": "1",
                "NO_FAKE_STAT": "1"}

    def pass_an_hour(self):
        for _ in range(self.STEPS):
            self.ahead += self.STEP_SECONDS
            self.file.with_suffix(".new").write_text(f"+{self.ahead}")
            self.file.with_suffix(".new").rename(self.file)
            time.sleep(1)


def chain(build, clock=None):
    tree = Tree(build, [], clock, short_intervals=False)
    upper = tree.add("relay1", "relay", tree.master)
    lower = tree.add("relay2", "relay", upper)
    tree.relays = [upper, lower]
    tree.clients = [tree.add(f"client{number}", "client", parent)
                    for number, parent in enumerate((tree.master, upper, lower))]
    return tree


def run(build, runs):
    with chain(build) as tree, tempfile.TemporaryDirectory() as folder:
        tree.start(seconds=WAIT_SECONDS)
        # A file that the tree has already carried opens connections and warms caches.
        for relays, client in enumerate(tree.clients):
            seconds = []
            for number in range(runs + 1):
                name = f"down{relays}_{number:03}"
                file = pathlib.Path(folder) / name
                file.write_bytes(os.urandom(FILE_BYTES))
                command = [tree.kel, "--root", tree.master.root, "publish", file, "--type", "Bench", "--label",
                           "latency", "--to", client.name]
                seconds.append(timed(command, client.data / "Delivery" / "Inbox" / "Bench" / "latency" / name))
            report(f"down through {relays} relays", seconds[1:])
        client, seconds = tree.clients[-1], []
        collected = tree.master.data / "Delivery" / "Collected" / client.identity()["GUID"]
        for number in range(runs + 1):
            name = f"up_{number:03}"
            file = pathlib.Path(folder) / name
            file.write_bytes(os.urandom(FILE_BYTES))
            command = [tree.kel, "--root", client.root, "send", file, "--type", "Bench", "--label", "latency"]
            seconds.append(timed(command, collected / "Bench" / "latency" / name))
        report("up through 2 relays", seconds[1:])
        for restart_relay in (False, True):
            switched_on(tree, folder, restart_relay)


def run_after_an_hour(build):
    with tempfile.TemporaryDirectory() as folder, chain(build, AdvancedClock(folder)) as tree:
        tree.start(seconds=WAIT_SECONDS)
        for restart_relay in (False, True):
            switched_on(tree, folder, restart_relay)


def switched_on(tree, folder, restart_relay):
    client, relay = tree.clients[-1], tree.relays[-1]
    seconds = []
    for number in range(SWITCHED_ON_RUNS):
        file = pathlib.Path(folder) / f"on{restart_relay:d}{number}"
        file.write_bytes(os.urandom(FILE_BYTES))
        client.kill()
        tree.publish([file], "Bench", "latency", client.name)
        time.sleep(FAILING_SECONDS)
        if tree.clock:
            tree.clock.pass_an_hour()
        if restart_relay:
            relay.stop()
            tree.run(relay)
        begin = time.monotonic()
        client.start()
        wait_for(client.data / "Delivery" / "Inbox" / "Bench" / "latency" / file.name)
        seconds.append(time.monotonic() - begin)
    report("switched on" + (", relay restarted before" if restart_relay else ""), seconds)


def main():
    parser = argparse.ArgumentParser(description=__doc__, formatter_class=argparse.RawDescriptionHelpFormatter)
    parser.add_argument("bin", type=pathlib.Path, help="folder of the programs, as build/release/bin")
    parser.add_argument("--runs", type=int, default=50, help="measured runs of each course (default 50)")
    parser.add_argument("--hour", action="store_true", help="a device that is switched on after an hour")
    options = parser.parse_args()
    if options.hour:
        print(f"4 KiB, default settings, after an hour, {SWITCHED_ON_RUNS} runs each")
        return run_after_an_hour(options.bin.resolve().parent)
    print(f"4 KiB, default settings, {options.runs} runs each")
    run(options.bin.resolve().parent, options.runs)


if __name__ == "__main__":
    main()
