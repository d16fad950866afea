"""Runs a tree of eight agents under mixed traffic, kills, failing disks and a clock that is set back, then checks that
nothing is lost and nothing left over. `./dev soak` starts it. The agents' clock runs sixty times as fast."""

import argparse
import collections
import pathlib
import random
import sched
import subprocess
import sys
import time

sys.path.append(str(pathlib.Path(__file__).resolve().parent.parent / "system"))
from case import collected_files, write_files  # noqa: E402
from faults import WRITING, FaultTree, SteppedClock, faults_of_rest, waiting  # noqa: E402
from tree import ActionFailed, sha256_of  # noqa: E402

SPEED = 60
SHAPE = [3, 2]  # the first relay packs, the second does not
NAMES = ["master", "relay1", "client11", "client12", "client13", "relay2", "client21", "client22"]
COMES_AND_GOES, SMALL_DISK = "client12", "client22"
KILL_SECONDS, FAULT_SECONDS, FULL_SECONDS, AWAY_SECONDS = 20, 30, 45, 40
SETTLING_SECONDS = 150
SET_BACK_SECONDS = 86400  # more than passes while the tree settles
WARM_UP, CALM = 1 / 6, 1 / 4  # of the time, without faults at its beginning and end
GROWTH = 1.1  # of memory and descriptors over those after the warm-up, under the same traffic
MORE_DESCRIPTORS = 8  # connections that are kept for the next call
SAMPLES = 12  # a second apart: agents give free memory back every ten seconds
LABEL = "soak"


def resources(agent):
    process = pathlib.Path(f"/proc/{agent.process.pid}")
    lines = dict(line.split(":", 1) for line in (process / "status").read_text().splitlines())
    return int(lines["VmRSS"].split()[0]), len(list((process / "fd").iterdir()))


class Soak:
    def __init__(self, tree, seed):
        self.tree, self.random = tree, random.Random(seed)
        self.by_name = {agent.name: agent for agent in tree.agents}
        self.down = {agent: {} for agent in tree.devices}  # (label, name) -> SHA-256
        self.up = {}  # (device GUID, label, name) -> SHA-256
        self.counts = collections.Counter()
        self.kills = collections.Counter()
        self.first, self.last = {}, {}
        self.begin = time.monotonic()
        self.later = sched.scheduler()

    def at(self, seconds, action):
        self.later.enter(seconds, 0, action)

    def every(self, seconds, action):
        def repeat():
            action()
            self.at(seconds, repeat)
        self.at(seconds, repeat)

    # Traffic

    def files(self, most):
        sizes = {f"{self.counts['made'] + i:05}.bin": int(10 ** self.random.uniform(0, 6.3))
                 for i in range(self.random.randint(1, most))}
        self.counts["made"] += len(sizes)
        return list(write_files(self.tree.folder / "files", sizes, self.counts["made"]).values())

    def traffic(self):
        try:
            self.publish() if self.random.random() < 0.5 else self.send()
        except (ActionFailed, subprocess.TimeoutExpired):
            self.counts["refused"] += 1

    def publish(self):
        paths = self.files(3)
        targets = self.tree.devices
        if self.random.random() < 0.5:
            targets = self.random.sample(targets, self.random.randint(1, 4))
        to = "all" if targets is self.tree.devices else ",".join(agent.name for agent in targets)
        self.tree.publish(paths, "Soak", LABEL, to)
        self.counts["published"] += len(paths)
        for agent in targets:
            self.down[agent].update({(LABEL, path.name): sha256_of(path) for path in paths})

    def send(self):
        paths = self.files(5)
        self.counts["sendings"] += 1
        # Now and then two devices send the same.
        for agent in self.random.sample(self.tree.devices, 2 if self.counts["sendings"] % 8 == 0 else 1):
            if agent.is_running():
                self.up |= agent.send(*paths, kind="Soak", label=LABEL)
                self.counts["sent"] += len(paths)

    # Faults

    def kill(self):
        agent = self.random.choice([agent for agent in self.tree.agents if agent.is_running()])
        agent.kill()
        self.kills[agent] += 1
        self.at(self.random.uniform(0, 3), agent.start)

    def errors(self):
        agent = self.random.choice(self.tree.agents)
        if agent.name != SMALL_DISK:
            agent.shim.fail(WRITING, "EIO", "*", 0.02)
            self.at(FAULT_SECONDS / 2, agent.shim.clear)

    def full_disk(self):
        shim = self.by_name[SMALL_DISK].shim
        shim.fail("write,mkdir,link", "ENOSPC", "*")
        self.at(FULL_SECONDS / 2, shim.clear)

    def leave(self):
        agent = self.by_name[COMES_AND_GOES]
        if agent.is_running():
            agent.kill() if self.random.random() < 0.3 else self.stop(agent)
        self.at(AWAY_SECONDS / 2, agent.start)

    def stop(self, agent):
        try:
            agent.stop()
        except subprocess.TimeoutExpired:
            self.counts["slow stops"] += 1
            agent.kill()

    def set_clock_back(self):
        for agent in self.tree.agents:
            agent.kill()
        self.tree.clock.step(-SET_BACK_SECONDS)
        for agent in self.tree.agents:
            agent.start()

    # The run

    def measure(self):
        """Resident KiB and descriptors of each agent: what they keep, apart from what a transfer takes for a moment."""
        self.missing()  # the questions that are asked at the end cost memory, too
        for agent in self.tree.agents:
            waiting(agent)
        least = {agent: resources(agent) for agent in self.tree.agents}
        for _ in range(SAMPLES - 1):
            self.work(1)
            least = {agent: tuple(map(min, found, resources(agent))) for agent, found in least.items()}
        return least

    def run(self, seconds):
        self.work(seconds * WARM_UP)
        self.first = self.measure()
        for pause, fault in ((KILL_SECONDS, self.kill), (FAULT_SECONDS, self.errors), (FULL_SECONDS, self.full_disk),
                             (AWAY_SECONDS, self.leave)):
            self.every(pause, fault)
        with_faults = seconds * (1 - WARM_UP - CALM)
        self.at(with_faults / 2, self.set_clock_back)
        self.work(with_faults)
        self.later = sched.scheduler()
        for agent in self.tree.agents:
            agent.shim.clear()
        self.tree.run(*self.tree.agents)
        self.work(seconds * CALM)
        self.last = self.measure()

    def work(self, seconds):
        end = time.monotonic() + seconds
        while time.monotonic() < end:
            self.later.run(blocking=False)
            self.traffic()
            self.progress("running")
            time.sleep(self.random.uniform(0.5, 2))

    def progress(self, what, end="\r"):
        seconds = int(time.monotonic() - self.begin)
        if sys.stdout.isatty() or end != "\r":
            counts = ", ".join(f"{self.counts[name]} {name}" for name in ("published", "sent", "refused"))
            print(f"{what} {seconds // 60}:{seconds % 60:02}, {counts}, {self.kills.total()} kills", end=end, flush=True)

    # The checks

    def missing(self):
        """What has not arrived, by receiving agent: the keys."""
        lost = {}
        for agent, expected in [*self.down.items(), (self.tree.master, self.up)]:
            found = collected_files(agent) if agent is self.tree.master else agent.inbox()
            lost[agent] = [key for key, digest in expected.items() if key not in found or sha256_of(found[key]) != digest]
        return {agent: keys for agent, keys in lost.items() if keys}

    def settle(self):
        """Waits until everything has arrived and nothing waits, or the time is over. What is wrong, by agent."""
        end = time.monotonic() + SETTLING_SECONDS
        while True:
            self.progress("settling")
            try:
                missing = self.missing()
            except ActionFailed as failed:
                missing = {self.tree.master: [str(failed)]}
            left = {agent: found for agent in self.tree.agents if (found := waiting(agent))}
            if time.monotonic() > end or (not missing and not left):
                break
            time.sleep(3)
        wrong = collections.defaultdict(list)
        for kind, found in (("not delivered", missing), ("waits", left)):
            for agent, items in found.items():
                wrong[agent] += [f"{kind}: {' '.join(map(str, item))}" for item in items]
        for item in self.tree.master.kel("publications"):
            if item["delivered"] != item["targets"]:
                wrong[self.tree.master].append(f"publication: {item['name']}, {item['delivered']} of {item['targets']} reported")
        return wrong

    def check_growth(self, wrong):
        for agent, now in self.last.items():
            for what, before, after, more in zip(("KiB of memory", "descriptors"), self.first[agent], now,
                                                 (0, MORE_DESCRIPTORS)):
                if after > before * GROWTH + more:
                    wrong[agent].append(f"{what}: {before} after the warm-up, {after} now")

    def check_once(self, agent, wrong):
        lines = collections.Counter(line.split(" PRINT ", 1)[1] for line in agent.log().splitlines()
                                    if " PRINT " in line and f"/{LABEL}/" in line
                                    and ("Delivery Delivered" in line or "Delivery Collected" in line))
        wrong[agent] += [f"{count} times: {line}" for line, count in lines.items() if count > 1]
        if not lines:
            wrong[agent].append("the log names no file that arrived")

    def finish(self):
        wrong = self.settle()
        self.check_growth(wrong)
        for agent in reversed(self.tree.agents):
            self.stop(agent)
        for agent in self.tree.agents:
            self.check_once(agent, wrong)
            wrong[agent] += faults_of_rest(agent)
        self.progress("done", "\n")
        self.print_table(wrong)
        return sum(map(len, wrong.values()))

    def print_table(self, wrong):
        print(f"{'agent':10}{'files':>7}{'kills':>7}{'faults':>8}{'MiB':>13}{'descriptors':>13}{'wrong':>7}")
        for agent, (memory, descriptors) in self.last.items():
            files = len(self.up) if agent is self.tree.master else len(self.down[agent])
            before = self.first[agent]
            grown = f"{before[0] / 1024:.1f} {memory / 1024:.1f}", f"{before[1]} {descriptors}"
            print(f"{agent.name:10}{files:7}{self.kills[agent]:7}{len(agent.shim.faults()):8}{grown[0]:>13}"
                  f"{grown[1]:>13}{len(wrong[agent]):7}")
        for agent in self.last:
            for kind, count in collections.Counter(text.split(":")[0] for text in wrong[agent]).items():
                print(f"{agent.name}: {count} x {next(text for text in wrong[agent] if text.startswith(kind))}")


def main():
    parser = argparse.ArgumentParser(prog="./dev soak", description=__doc__)
    parser.add_argument("minutes", nargs="?", type=float, default=30)
    parser.add_argument("--seed", type=int, default=1, help="of traffic and faults (1)")
    options = parser.parse_args()
    with FaultTree(SHAPE, SteppedClock(SPEED), shims=NAMES, seed=options.seed) as tree:
        tree.relays[0].pack()
        tree.start(120)
        soak = Soak(tree, options.seed)
        soak.run(options.minutes * 60)
        return 1 if soak.finish() else 0


if __name__ == "__main__":
    sys.exit(main())
