#!/usr/bin/env python3
"""Multicast to eight receivers compared with uftp: multicast.py BIN [--rounds N] [--receivers N] [--mib SIZE]

BIN is the folder of bench_multicast. Sender and receivers run in network namespaces joined by a bridge; both programs
aim at 1 Gbit/s, without loss and with 2 % loss at each receiver. Goodput is the size of the file divided by the time
until the last of the receivers has all of it; ours also until each has verified the checksum. The relay's fixed waits
(3 s before the first pass, 5 s before and 15 s after each) are counted apart. With --memory alone, one receiver gets
10 GiB, which takes as much room in the folder for temporary files. Needs root.
"""
import argparse
import contextlib
import hashlib
import os
import pathlib
import resource
import shutil
import statistics
import subprocess
import sys
import tempfile
import time

sys.path.insert(0, str(pathlib.Path(__file__).resolve().parent.parent.parent / "tests" / "system"))

from netns import Network, run  # noqa: E402

RATE_KBITS = 1_000_000
GROUP, PORT = "239.77.7.7", "1500"
WAIT_AT_FIRST, WAIT_PER_PASS = 3, 5 + 15
MAX_PASSES = 40


class Ends(Network):
    """The sender is in namespace 1, the receivers are in those that follow."""

    def __init__(self, receivers):
        super().__init__()
        self.addresses = {}
        for number in range(1, receivers + 2):
            self.addresses[number] = self.add(number)
            run(*self.inside(number), "ip", "route", "add", "224.0.0.0/4", "dev", "eth0")

    def receivers(self):
        return list(self.addresses)[1:]

    def lose(self, percent):
        """Every receiver drops so much of the UDP packets that reach it."""
        rule = f"meta l4proto udp numgen random mod 1000 < {round(percent * 10)}" if percent else None
        for number in self.receivers():
            self.drop(number, rule, hook="prerouting")

    def start(self, program, number, verb, *arguments):
        return End([*self.inside(number), program, verb, self.addresses[number], *map(str, arguments)])


class End:
    """A bench_multicast in a namespace."""

    def __init__(self, command):
        self.process = subprocess.Popen(command, stdin=subprocess.PIPE, stdout=subprocess.PIPE,
                                        stderr=subprocess.DEVNULL, text=True)
        if self.answer() != "ready":
            raise SystemExit("bench_multicast does not start")

    def ask(self, line):
        self.process.stdin.write(line + "\n")
        self.process.stdin.flush()

    def answer(self):
        return self.process.stdout.readline().strip()

    def usage(self):
        """Seconds of processor time, peak of memory in MiB."""
        self.ask("usage")
        user, system, kib = self.answer().split()
        return float(user) + float(system), int(kib) / 1024

    def close(self):
        self.process.stdin.close()
        self.process.wait()


def states(receivers):
    """The answers once they stay the same for 50 ms: what has been sent may still be on its way through buffers."""
    answers = None
    while True:
        for receiver in receivers:
            receiver.ask("missing")
        last, answers = answers, {receiver: receiver.answer() for receiver in receivers}
        if answers == last or set(answers.values()) <= {"completed", "verifying"}:
            return answers
        time.sleep(0.05)


def numbers(ranges):
    for piece in ranges.split():
        ends = piece.split("-")
        yield from range(int(ends[0]), int(ends[-1]) + 1)


def as_ranges(blocks):
    pieces = []
    for block in sorted(blocks):
        if pieces and pieces[-1][1] == block - 1:
            pieces[-1][1] = block
        else:
            pieces.append([block, block])
    return " ".join(str(a) if a == b else f"{a}-{b}" for a, b in pieces)


def send(sender, receivers):
    """Sends until no receiver lacks anything; how often."""
    passes, missing, left = 0, "", list(receivers)
    while left and passes < MAX_PASSES:
        passes += 1
        sender.ask("send " + missing)
        if sender.answer() == "failed":
            raise SystemExit("the sender failed")
        answers = states(left)
        left = [receiver for receiver, answer in answers.items() if answer not in ("completed", "verifying")]
        missing = as_ranges({block for receiver in left for block in numbers(answers[receiver])})
    return passes


def ours(arguments, network, source, folder):
    checksum = hashlib.md5(source.read_bytes()).hexdigest()
    program = arguments.bin / "bench_multicast"
    target = (GROUP, PORT, arguments.block)
    receivers = [network.start(program, number, "receive", *target, folder / str(number) / "file",
                               source.stat().st_size, checksum) for number in network.receivers()]
    sender = network.start(program, 1, "send", *target, source, RATE_KBITS)
    on_wire = network.sent_bytes(1)
    start = time.monotonic()
    passes = send(sender, receivers)
    received = time.monotonic() - start
    for receiver in receivers:
        receiver.ask("ask")
    if [receiver.answer() for receiver in receivers] != ["completed"] * len(receivers):
        raise SystemExit("not all receivers have the file")
    seconds = time.monotonic() - start
    on_wire = network.sent_bytes(1) - on_wire
    usage = [end.usage() for end in (sender, *receivers)]
    for end in (sender, *receivers):
        end.close()
    return {"seconds": seconds, "received": received, "passes": passes, "sender": usage[0][0],
            "receiver": statistics.mean(cpu for cpu, _ in usage[1:]), "wire": on_wire}


def uftp(arguments, network, source, folder):
    # Its hash identifiers are those of the addresses: a closed group ends when all members are there.
    members = {number: "0x" + "".join(f"{int(part):02X}" for part in network.addresses[number].split("."))
               for number in network.receivers()}
    daemons = [subprocess.Popen(
        [*network.inside(number), "uftpd", "-d", "-I", "eth0", "-M", "239.77.7.8", "-B", "4194304", "-U", identifier,
         "-D", folder / str(number)], stdout=subprocess.DEVNULL, stderr=subprocess.DEVNULL)
        for number, identifier in members.items()]
    time.sleep(1)
    on_wire = network.sent_bytes(1)
    before = resource.getrusage(resource.RUSAGE_CHILDREN)
    start = time.monotonic()
    done = subprocess.run(
        [*network.inside(1), "uftp", "-Y", "none", "-R", str(RATE_KBITS), "-I", "eth0", "-M",
         "239.77.7.8", "-P", "239.77.7.9", "-B", "4194304", "-H", ",".join(members.values()), *arguments.uftp.split(), source],
        check=False, capture_output=True, text=True)
    seconds = time.monotonic() - start
    after = resource.getrusage(resource.RUSAGE_CHILDREN)
    on_wire = network.sent_bytes(1) - on_wire
    sender = after.ru_utime - before.ru_utime + after.ru_stime - before.ru_stime
    for daemon in daemons:
        daemon.terminate()
    for daemon in daemons:
        daemon.wait()
    last = resource.getrusage(resource.RUSAGE_CHILDREN)
    receiver = (last.ru_utime - after.ru_utime + last.ru_stime - after.ru_stime) / arguments.receivers
    for number in members:
        stored = folder / str(number) / source.name
        if not stored.exists() or stored.stat().st_size != source.stat().st_size:
            raise SystemExit(f"uftp did not reach receiver {number}:\n{done.stdout[-2000:]}")
    passes = done.stdout.count("Sending file") or 1
    return {"seconds": seconds, "received": seconds, "passes": passes, "sender": sender, "receiver": receiver, "wire": on_wire}


def round_of(program, arguments, network, source):
    with tempfile.TemporaryDirectory(dir="/dev/shm") as text:
        folder = pathlib.Path(text)
        for number in network.receivers():
            (folder / str(number)).mkdir()
        return program(arguments, network, source, folder)


def report(name, rounds, size):
    middle = {key: statistics.median(each[key] for each in rounds) for key in rounds[0]}
    gib = size / 2**30
    goodput = size / middle["seconds"] / 1e6
    print(f"  {name}: {goodput:.1f} MB/s, {middle['seconds']:.2f} s ({min(r['seconds'] for r in rounds):.2f} to "
          f"{max(r['seconds'] for r in rounds):.2f}), passes {middle['passes']:g}, CPU s/GiB: sender "
          f"{middle['sender'] / gib:.2f}, receiver {middle['receiver'] / gib:.2f}, sent {middle['wire'] / size:.3f} x")
    return middle


def memory(arguments, network):
    """The peak of a receiver of 10 GiB, of which nearly all is zero."""
    size = 10 << 30
    with tempfile.TemporaryDirectory() as text:
        folder = pathlib.Path(text)
        source = folder / "source"
        with open(source, "wb") as file:
            file.truncate(size)
            for position in range(0, size, 1 << 20):
                file.seek(position)
                file.write(os.urandom(16))
        with open(source, "rb") as file:
            checksum = hashlib.file_digest(file, "md5").hexdigest()
        (folder / "r").mkdir()
        program = arguments.bin / "bench_multicast"
        target = (GROUP, PORT, 1024)
        receiver = network.start(program, 2, "receive", *target, folder / "r" / "file", size, checksum)
        at_first = receiver.usage()[1]
        sender = network.start(program, 1, "send", *target, source, RATE_KBITS)
        start = time.monotonic()
        passes = send(sender, [receiver])
        received = time.monotonic() - start
        receiver.ask("ask")
        while (answer := receiver.answer()) == "verifying":
            receiver.ask("ask")
        print(f"Memory of a receiver of 10 GiB in blocks of 1,024: {at_first:.1f} MiB at first, "
              f"{receiver.usage()[1]:.1f} MiB at the end; {answer}; all is there after {received:.1f} s and {passes} "
              f"passes, verified after {time.monotonic() - start:.1f} s; processor "
              f"{receiver.usage()[0]:.1f} s, sender {sender.usage()[0]:.1f} s")
        for end in (sender, receiver):
            end.close()


def checks(arguments, block):
    done = subprocess.run([arguments.bin / "bench_multicast", "code", str(block)], check=True, capture_output=True,
                          text=True)
    codes, digest, _ = done.stdout.split()
    print(f"Checks, CPU s/GiB: codes of blocks of {block} {float(codes):.2f} (sender and each receiver), "
          f"MD5 {float(digest):.2f} (each receiver)")


def main():
    parser = argparse.ArgumentParser()
    parser.add_argument("bin", type=pathlib.Path)
    parser.add_argument("--rounds", type=int, default=3)
    parser.add_argument("--receivers", type=int, default=8)
    parser.add_argument("--mib", type=int, default=64)
    parser.add_argument("--block", type=int, nargs="*", default=[1024, 1200])
    parser.add_argument("--loss", type=float, nargs="*", default=[0, 2])
    parser.add_argument("--memory", action="store_true")
    parser.add_argument("--uftp", default="", help="further options of uftp")
    arguments = parser.parse_args()
    if os.geteuid() != 0 or not shutil.which("nft") or not shutil.which("uftp"):
        print("skipped: needs root, nftables and uftp")
        return
    if arguments.memory:
        with contextlib.closing(Ends(1)) as network:
            return memory(arguments, network)
    with contextlib.closing(Ends(arguments.receivers)) as network, tempfile.TemporaryDirectory(dir="/dev/shm") as text:
        source = pathlib.Path(text) / "source.bin"
        size = arguments.mib << 20
        source.write_bytes(os.urandom(size))
        blocks = arguments.block
        for percent in arguments.loss:
            print(f"{arguments.mib} MiB to {arguments.receivers} receivers, {percent:g} % loss at each:", flush=True)
            network.lose(percent)
            results = {}
            for _ in range(arguments.rounds):
                for block in blocks:
                    arguments.block = block
                    results.setdefault(block, []).append(round_of(ours, arguments, network, source))
                results.setdefault("uftp", []).append(round_of(uftp, arguments, network, source))
            peer = report("uftp -Y none", results["uftp"], size)
            for block in blocks:
                own = report(f"ours, blocks of {block}", results[block], size)
                waits = WAIT_AT_FIRST + WAIT_PER_PASS * own["passes"]
                print(f"    ratio {peer['seconds'] / own['seconds']:.2f}, without the checksum of the whole file "
                      f"({own['received']:.2f} s) {peer['seconds'] / own['received']:.2f}; with the relay's fixed waits of {waits:g} s: "
                      f"{size / (own['seconds'] + waits) / 1e6:.1f} MB/s, "
                      f"ratio {peer['seconds'] / (own['seconds'] + waits):.2f}", flush=True)
    for block in blocks:
        checks(arguments, block)


sys.exit(main())
