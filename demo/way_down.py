"""The first part of the demonstration: the master publishes files to six devices; one relay is killed halfway."""

import os
import random
import re
import time

from screen import Result
from tree import sha256_of, wait_until

LARGE_NAME = "large.bin"
LARGE_BYTES = 256 << 20
SMALL_FILES = 50
SMALL_BYTES = (1 << 10, 5 << 20)
LABEL = "demo"
FILE_TYPE = "Demo"
RELAY_KILOBITS = 200_000  # limits a relay's downloads, so that it can be killed during the large file
KILL_AFTER_BYTES = LARGE_BYTES * 2 // 5
LARGE_PRIORITY = 400
ARRIVAL_SECONDS = 90
RESUMED = re.compile(r"PullThread: Downloading URL .*%s \(offset (\d+)\)" % re.escape(LARGE_NAME))


def write_random(path, size, source):
    with open(path, "wb") as file:
        while size > 0:
            size -= file.write(source.randbytes(min(size, 1 << 20)))


def bytes_on(agent):
    """Bytes of the published files in an agent's store, partial files included."""
    total = 0
    for folder, _, names in os.walk(agent.data / "FileStore" / "downstream" / FILE_TYPE):
        for name in names:
            try:
                total += os.path.getsize(os.path.join(folder, name))
            except FileNotFoundError:
                pass
    return total


def large_file_bytes(agent):
    found = list((agent.data / "FileStore" / "downstream" / FILE_TYPE / LABEL).glob(f"*/{LARGE_NAME}"))
    return found[0].stat().st_size if found else 0


class WayDown:
    def __init__(self, tree, progress, seed):
        self.tree, self.progress = tree, progress
        self.make_files(tree.folder / "published", random.Random(seed))
        self.offset = 0  # where the killed relay resumed the large file

    def make_files(self, folder, source):
        """Makes the files to publish, the large one first, and their digests: (label, name) -> SHA-256."""
        folder.mkdir()
        sizes = {LARGE_NAME: LARGE_BYTES}
        sizes.update({f"small{i:02}.bin": source.randint(*SMALL_BYTES) for i in range(1, SMALL_FILES + 1)})
        self.paths = [folder / name for name in sizes]
        for path in self.paths:
            write_random(path, sizes[path.name], source)
        self.expected = {(LABEL, path.name): sha256_of(path) for path in self.paths}
        self.whole = sum(sizes.values())

    def run(self):
        """The results of all devices."""
        self.progress.say(f"Publishing {len(self.paths)} files, {self.whole >> 20} MiB, to {len(self.tree.devices)} devices")
        begin = time.time()
        self.limit_relays(0)  # so that they know all files before the first one moves
        self.publish()
        wait_until(lambda: all(len(relay.stored_files()) == len(self.paths) for relay in self.tree.relays), 60,
                   "the relays know all files")
        self.limit_relays(RELAY_KILOBITS)
        self.kill_and_restart(self.tree.relays[0])
        arrived = self.wait_all()
        for relay in self.tree.relays:
            relay.kel("windows", "set", "up", "--remove")
        return [self.result_of(agent, arrived.get(agent), begin) for agent in self.tree.devices]

    def limit_relays(self, kilobits):
        for relay in self.tree.relays:
            relay.call("TransferWindowSetWindow", Direction=1, Slots=str(kilobits), SlotType=2, UseUTCTime=True)

    def publish(self):
        self.tree.publish(self.paths[:1], FILE_TYPE, LABEL, priority=LARGE_PRIORITY)
        self.tree.publish(self.paths[1:], FILE_TYPE, LABEL)

    def show(self):
        self.progress.show({agent: bytes_on(agent) / self.whole for agent in self.tree.devices})

    def kill_and_restart(self, relay):
        """Kills the relay (SIGKILL) in the middle of the large file and starts it again."""
        def in_the_middle():
            self.show()
            size = large_file_bytes(relay)
            if size >= LARGE_BYTES:
                raise RuntimeError("the large file arrived before the relay could be killed; lower its rate")
            return size >= KILL_AFTER_BYTES
        wait_until(in_the_middle, 60, f"{relay.name} holds a part of the large file")
        relay.kill()
        lines_before = len(relay.log().splitlines())
        self.progress.say(f"Killed {relay.name} (SIGKILL) with {large_file_bytes(relay) >> 20} of {LARGE_BYTES >> 20} MiB "
                          f"of {LARGE_NAME}")
        time.sleep(1)
        relay.start()
        relay.wait_ready()

        def resuming_line():
            self.show()
            return next((line for line in relay.log().splitlines()[lines_before:] if RESUMED.search(line)), None)
        line = wait_until(resuming_line, 30, f"{relay.name} resumes the large file")
        self.offset = int(RESUMED.search(line)[1])
        self.progress.say(f"Restarted {relay.name}; its log: {line.split('PullThread: ')[-1]}")

    def wait_all(self):
        """Waits until every inbox is complete; device -> its inbox. The digests are checked later, because
        checking would slow down the transfers."""
        complete = {}

        def all_complete():
            self.show()
            for agent in self.tree.devices:
                if agent not in complete and agent.is_running():
                    inbox = agent.inbox()
                    if all(key in inbox for key in self.expected):
                        complete[agent] = inbox
            return len(complete) == len(self.tree.devices)
        try:
            wait_until(all_complete, ARRIVAL_SECONDS, "all files on all devices")
        except TimeoutError as error:
            self.progress.say(f"Failed: {error}")
        return complete

    def result_of(self, agent, inbox, begin):
        took = None if inbox is None else max(inbox[key].stat().st_mtime for key in self.expected) - begin
        if inbox is None:
            inbox = agent.inbox() if agent.is_running() else {}
        present = [key for key in self.expected if key in inbox and inbox[key].exists()]
        right = sum(sha256_of(inbox[key]) == self.expected[key] for key in present)
        return Result(agent, len(self.expected), took, len(present), right, sum(inbox[key].stat().st_size for key in present))
