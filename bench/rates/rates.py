#!/usr/bin/env python3
"""How exactly transfers keep to the rate of their window: rates.py BIN [--only CASE...] [--rounds N]

A relay and its master, real agents, under windows for uploads and downloads. What passes between them is counted by a
TCP proxy on the way: everything that HTTP sends, heads and calls included, but not the packets' own heads. Cases:

  parallel  1, 2, 4 and 8 transfers at once under a window of 20 Mbit/s, over 10 s (2: one up, one down; 4 and 8: by
            threads of one process that share the rate)
  low       10 s worth of data at 8, 22 and 64 kbit/s, down and up: from the request to what follows the transfer
  small     2,000 files of 1 KiB up under 1 Mbit/s
  closing   a window that closes in mid-transfer, down and up: how long bytes still pass, and whether only a file that
            bypasses windows moves
  fast      5 Gbit/s, and what pacing costs when the rate is above what the link gives (100 Gbit/s, without the proxy)
  resume    200 MB up through a window of 40 Mbit/s that opens for 5 s every 20 s: bytes sent, and how often it is cut
"""
import argparse
import os
import pathlib
import resource
import statistics
import subprocess
import sys
import threading
import time

HERE = pathlib.Path(__file__).resolve().parent
sys.path.insert(0, str(HERE.parent.parent / "tests" / "system"))

os.environ.setdefault("KEL_BUILD", str(HERE.parent.parent / "build" / "release"))
import faults  # noqa: E402
from case import wait_collected, write_files  # noqa: E402
from tree import AGENT_NAME, PASSWORD, wait_until  # noqa: E402
from fault_proxy import FaultProxy  # noqa: E402

UP, DOWN = "up", "down"
SPAN_SECONDS = 10
FILLING_SECONDS = 4  # until the buffers on the way are full, which count as passed
PATIENCE_SECONDS = 600


class TimedProxy(FaultProxy):
    """Notes when a text passes for the first time, and when bytes passed last."""

    def __init__(self, *ends):
        self.marks, self.seen, self.last = {}, {}, {UP: 0.0, DOWN: 0.0}
        super().__init__(*ends)

    def watch(self, **texts):
        """Notes the next time that each of these (direction, bytes) passes."""
        with self.lock:
            self.marks, self.seen = texts, {}

    def _apply(self, direction, tail, block):
        now = time.monotonic()
        with self.lock:
            if len(block) > 1000:
                self.last[direction] = now
            for name, (way, text) in self.marks.items():
                if way == direction and name not in self.seen and text in tail[-len(text):] + block:
                    self.seen[name] = now
        return super()._apply(direction, tail, block)

    def total(self):
        with self.lock:
            return sum(self.passed.values())


faults.FaultProxy = TimedProxy


class Site:
    """A relay below a master, with a proxy between them."""

    def __init__(self, programs):
        self.bin = programs
        self.tree = faults.FaultTree([0], proxies=["relay1"], short_intervals=False)
        self.relay, self.master = self.tree.relays[0], self.tree.master
        self.proxy, self.files = self.relay.proxy, 0

    def __enter__(self):
        self.tree.start()
        return self

    def __exit__(self, *_):
        self.tree.close()

    def set_window(self, week):
        self.relay.call("TransferWindowSetWindow", Direction=1, Week=week)

    def make(self, size, count=1):
        names = {f"f{self.files + number}.bin": size for number in range(count)}
        self.files += count
        return list(write_files(self.tree.folder / "files", names, self.files).values())

    def start_down(self, size, options=()):
        [path] = self.make(size)
        self.master.kel("publish", path, "--type", "Rate", "--label", "l", "--to", "all", *options)
        return path.name

    def start_up(self, size, options=()):
        [path] = self.make(size)
        return self.relay.send(path, kind="Rate", options=options)

    def has(self, name):
        return ("l", name) in self.relay.inbox()

    def measure(self, seconds=SPAN_SECONDS):
        """Mbit/s that pass."""
        begin, bytes_before = time.monotonic(), self.proxy.total()
        time.sleep(seconds)
        return (self.proxy.total() - bytes_before) * 8 / (time.monotonic() - begin) / 1e6

    def run_threads(self, name, threads, kilobits, seconds, port):
        """Downloads a file of the master on threads; bytes per second, and CPU seconds per byte."""
        before = cpu_of_children()
        path = f"/QuarnelDatabase/Packages/l/{name}"
        run = subprocess.run([self.bin / "bench_rates", self.master.address, str(port), AGENT_NAME, PASSWORD, path,
                              str(threads), str(kilobits), str(seconds)], text=True, stdout=subprocess.PIPE, check=True,
                             env={**os.environ, "TMPDIR": "/dev/shm"})
        received, taken = run.stdout.split()
        return int(received) / float(taken), (cpu_of_children() - before) / int(received)

    def published(self, size):
        """The path of a file on the master below the publications' label."""
        [path] = self.make(size)
        self.master.kel("publish", path, "--type", "Rate", "--label", "l", "--to", "all")
        found = next(self.master.data.rglob(path.name), None)
        return "/".join(found.parts[-2:])


def cpu_of_children():
    usage = resource.getrusage(resource.RUSAGE_CHILDREN)
    return usage.ru_utime + usage.ru_stime


def row(*cells):
    print("| " + " | ".join(str(cell) for cell in cells) + " |", flush=True)


def parallel(site):
    row("transfers under 20 Mbit/s", "Mbit/s on the wire")
    row("---", "---")
    site.set_window("20M")
    path = site.published(200_000_000)
    time.sleep(FILLING_SECONDS)
    row("1, down", f"{site.measure():.2f}")
    site.start_up(100_000_000)
    time.sleep(FILLING_SECONDS)
    row("2, down and up", f"{site.measure():.2f}")
    site.set_window("closed")
    for threads in (4, 8):
        seconds = FILLING_SECONDS + SPAN_SECONDS + 2
        runner = threading.Thread(target=site.run_threads, args=(path, threads, 20_000, seconds, site.proxy.port))
        runner.start()
        time.sleep(FILLING_SECONDS)
        row(f"{threads}, down", f"{site.measure():.2f}")
        runner.join()


def low(site):
    row("rate, kbit/s", "direction", "bytes of the file", "seconds", "% of the rate")
    row(*["---"] * 5)
    for rate in (8, 22, 64):
        site.set_window(f"{rate}k")
        size = rate * 1250
        for direction in (DOWN, UP):
            if direction == DOWN:
                site.proxy.watch(begin=(UP, b"GET /QuarnelDatabase/"),
                                 end=(UP, b"POST /Action/FileStoreAcknowledgeFile"))
                site.start_down(size)
            else:
                site.proxy.watch(begin=(UP, b"PUT /FileStore/upstream"), end=(DOWN, b"HTTP/1.1 201"))
                site.start_up(size)
            wait_until(lambda: len(site.proxy.seen) == 2, PATIENCE_SECONDS, "the transfer ends")
            seconds = site.proxy.seen["end"] - site.proxy.seen["begin"]
            row(rate, direction, size, f"{seconds:.2f}", f"{size * 8 / seconds / rate / 10:.1f}")
            time.sleep(8)  # receipts, and what is still to be paid for


def small(site):
    count = 2000
    site.set_window("1M")
    paths = site.make(1024, count)
    begin, before = time.monotonic(), site.proxy.passed[UP] + site.proxy.passed[DOWN]
    expected = site.relay.send(*paths, kind="Rate")
    wait_collected(site.master, expected, PATIENCE_SECONDS)
    seconds = time.monotonic() - begin
    passed = site.proxy.total() - before
    row("files", "seconds", "kB on the wire", "Mbit/s")
    row(*["---"] * 4)
    row(count, f"{seconds:.1f}", passed // 1000, f"{passed * 8 / seconds / 1e6:.3f}")


def closing(site):
    row("direction", "bytes pass for, s", "bypass file arrives", "other file rests")
    row(*["---"] * 4)
    for direction in (DOWN, UP):
        site.set_window("20M")
        name = site.start_down(50_000_000) if direction == DOWN else site.start_up(50_000_000)
        time.sleep(3)
        begin = time.monotonic()
        site.set_window("closed")
        time.sleep(5)
        lasted = max(site.proxy.last[direction] - begin, 0)
        before = site.proxy.total()
        other = site.start_down(1000, ["--bypass"])
        wait_until(lambda: site.has(other), 60, "the bypass file arrives")
        rests = site.proxy.total() - before < 100_000
        row(direction, f"{lasted:.2f}", "yes", "yes" if rests else "no")
        site.set_window("")
        if direction == DOWN:
            wait_until(lambda: site.has(name), PATIENCE_SECONDS, "the rest arrives")
        else:
            wait_collected(site.master, name, PATIENCE_SECONDS)


def fast(site, rounds):
    path = site.published(128 << 20)
    speeds = {rate: [] for rate in (0, 100_000_000, 5_000_000)}
    for _ in range(rounds):
        for rate, found in speeds.items():
            found.append(site.run_threads(path, 1, rate, 4, site.master.port))
    row("rate", "Gbit/s, median", "CPU s/GiB of the receiver, median")
    row(*["---"] * 3)
    names = {0: "no window", 100_000_000: "100 Gbit/s", 5_000_000: "5 Gbit/s"}
    for rate, found in speeds.items():
        row(names[rate], f"{statistics.median(speed for speed, _ in found) * 8 / 1e9:.2f}",
            f"{statistics.median(cpu for _, cpu in found) * (1 << 30):.2f}")
    lost = [1 - paced / free for (free, _), (paced, _) in zip(speeds[0], speeds[100_000_000])]
    row("lost by pacing, median of the rounds", f"{statistics.median(lost) * 100:.1f} %")


def resumed(site):
    size = 200_000_000
    site.set_window("closed")
    before = site.proxy.passed[UP]
    expected = site.start_up(size)
    begin, cuts = time.monotonic(), 0
    while site.proxy.passed[UP] - before < size:
        site.set_window("40M")
        time.sleep(5)
        if site.proxy.passed[UP] - before < size:
            site.set_window("closed")
            cuts += 1
            time.sleep(15)
    wait_collected(site.master, expected, PATIENCE_SECONDS)
    sent = site.proxy.passed[UP] - before
    row("bytes of the file", "bytes sent", "sent twice, heads and calls, %", "times cut", "seconds")
    row(*["---"] * 5)
    row(size, sent, f"{(sent / size - 1) * 100:.3f}", cuts, f"{time.monotonic() - begin:.0f}")


def main():
    parser = argparse.ArgumentParser(description=__doc__, formatter_class=argparse.RawDescriptionHelpFormatter)
    parser.add_argument("bin", type=pathlib.Path, help="folder of the programs, as build/release/bin")
    cases = {"parallel": parallel, "low": low, "small": small, "closing": closing, "fast": fast, "resume": resumed}
    parser.add_argument("--only", nargs="+", choices=cases, default=["parallel", "low", "closing", "fast"],
                        metavar="CASE", help="instead of parallel, low, closing and fast")
    parser.add_argument("--rounds", type=int, default=7, help="of the case fast")
    options = parser.parse_args()
    programs = options.bin.resolve()
    faults.BUILD = programs.parent
    for name in options.only:
        with Site(programs) as site:
            cases[name](site, options.rounds) if name == "fast" else cases[name](site)
            print(flush=True)


if __name__ == "__main__":
    main()
