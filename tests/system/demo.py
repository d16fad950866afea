"""The demonstration: a tree of seven agents, 51 files for six devices, one relay killed in the middle.

Exit code 0 only when every file arrived on every device with the right SHA-256.
"""

import argparse
import os
import random
import re
import sys
import threading
import time

from tree import Tree, sha256_of, wait_until

LARGE_NAME = "large.bin"
LARGE_BYTES = 256 << 20
SMALL_FILES = 50
SMALL_BYTES = (1 << 10, 5 << 20)
LABEL = "demo"
FILE_TYPE = "Demo"
RELAY_KILOBITS = 200_000  # of a relay's downloads, so that the large file takes long enough to be hit
KILL_AFTER_BYTES = LARGE_BYTES * 2 // 5
LARGE_PRIORITY = 400
BAR_MARKS = 24
RESUMED = re.compile(r"PullThread: Downloading URL .*%s \(offset (\d+)\)" % re.escape(LARGE_NAME))


def make_files(folder, seed):
    """The files to publish, the large one first, and their digests: (label, name) -> SHA-256."""
    source = random.Random(seed)
    folder.mkdir()
    sizes = {LARGE_NAME: LARGE_BYTES}
    sizes.update({f"small{i:02}.bin": source.randint(*SMALL_BYTES) for i in range(1, SMALL_FILES + 1)})
    paths = []
    for name, size in sizes.items():
        path = folder / name
        with open(path, "wb") as file:
            while size > 0:
                block = source.randbytes(min(size, 1 << 20))
                size -= file.write(block)
        paths.append(path)
    return paths, {(LABEL, path.name): sha256_of(path) for path in paths}


def bytes_on(agent):
    """Bytes of the published files that an agent holds in its store, complete or not."""
    store = agent.data / "FileStore" / "downstream" / FILE_TYPE
    total = 0
    for folder, _, names in os.walk(store):
        for name in names:
            try:
                total += os.path.getsize(os.path.join(folder, name))
            except FileNotFoundError:
                pass
    return total


class Progress:
    """A bar for each device on a terminal, else one line every two seconds."""

    def __init__(self, devices, whole):
        self.devices, self.whole = devices, whole
        self.terminal = sys.stdout.isatty()
        self.drawn = False
        self.next_line = 0.0

    def show(self):
        shares = {agent: min(bytes_on(agent) / self.whole, 1) for agent in self.devices}
        if self.terminal:
            if self.drawn:
                print(f"\x1b[{len(shares)}A", end="")
            for agent, share in shares.items():
                marks = int(share * BAR_MARKS)
                state = "" if agent.is_running() else "  killed"
                print(f"\x1b[K  {agent.name:9} [{'#' * marks}{'.' * (BAR_MARKS - marks)}] {share:4.0%}{state}")
            self.drawn = True
        elif time.monotonic() >= self.next_line:
            print("  " + "  ".join(f"{agent.name} {share:4.0%}" for agent, share in shares.items()), flush=True)
            self.next_line = time.monotonic() + 2

    def say(self, text):
        print(text, flush=True)
        self.drawn = False


def large_file_bytes(agent):
    found = list((agent.data / "FileStore" / "downstream" / FILE_TYPE / LABEL).glob(f"*/{LARGE_NAME}"))
    return found[0].stat().st_size if found else 0


def kill_and_restart(relay, progress, count):
    """SIGKILLs the relay in the middle of the large file, starts it again and returns the offset it went on at."""
    def in_the_middle():
        progress.show()
        size = large_file_bytes(relay)
        if size >= LARGE_BYTES:
            raise RuntimeError("the large file arrived before the relay could be killed; lower its rate")
        return size >= KILL_AFTER_BYTES and len(relay.stored_files()) == count
    wait_until(in_the_middle, 60, f"{relay.name} holds a part of the large file and knows all files")
    relay.kill()
    lines_before = len(relay.log().splitlines())
    progress.say(f"Killed {relay.name} (SIGKILL) with {large_file_bytes(relay) >> 20} of {LARGE_BYTES >> 20} MiB of {LARGE_NAME}")
    time.sleep(1)
    relay.start()
    relay.wait_ready()

    def offset():
        progress.show()
        found = [RESUMED.search(line) for line in relay.log().splitlines()[lines_before:]]
        return [int(match[1]) for match in found if match]
    offsets = wait_until(offset, 30, f"{relay.name} goes on with the large file")
    line = next(line for line in relay.log().splitlines()[lines_before:] if RESUMED.search(line))
    progress.say(f"Restarted {relay.name}; its log: {line.split('PullThread: ')[-1]}")
    return offsets[0]


def wait_all(tree, expected, progress, begin, seconds):
    """Waits until every inbox is complete; device -> (seconds until its last file, files with the right digest)."""
    results = {}

    def complete():
        progress.show()
        for agent in tree.devices:
            if agent in results or not agent.is_running():
                continue
            inbox = agent.inbox()
            if all(key in inbox for key in expected):
                # Digests only once complete, so that checking does not slow the transfers down.
                took = max(inbox[key].stat().st_mtime for key in expected) - begin
                results[agent] = (took, inbox)
        return len(results) == len(tree.devices)
    try:
        wait_until(complete, seconds, "all files on all devices")
    except TimeoutError as error:
        print(f"Failed: {error}")
    return results


def print_table(tree, expected, results):
    """The result of each device; True when everything is there and right."""
    good = True
    print(f"\n{'DEVICE':10}{'ROLE':8}{'FILES':>6}{'BYTES':>12}{'SECONDS':>9}  CHECKSUMS")
    for agent in tree.devices:
        took, inbox = results.get(agent) or (None, agent.inbox() if agent.is_running() else {})
        present = [key for key in expected if key in inbox and inbox[key].exists()]
        right = [key for key in present if sha256_of(inbox[key]) == expected[key]]
        size = sum(inbox[key].stat().st_size for key in present)
        verdict = "all good" if len(right) == len(expected) else f"{len(expected) - len(right)} missing or wrong"
        good = good and len(right) == len(expected)
        print(f"{agent.name:10}{agent.role:8}{len(present):6}{size:12}{'-' if took is None else format(took, '.1f'):>9}  {verdict}")
    return good


def run(build, seed, keep):
    begin = time.monotonic()
    with Tree(build, [2, 2], keep=keep) as tree:
        print("Starting 1 master, 2 relays and 4 clients", flush=True)
        tree.start()
        for relay in tree.relays:
            relay.call("TransferWindowSetWindow", Direction=1, Slots=str(RELAY_KILOBITS), SlotType=2, UseUTCTime=True)
        paths, expected = make_files(tree.folder / "published", seed)
        whole = sum(path.stat().st_size for path in paths)
        progress = Progress(tree.devices, whole)
        progress.say(f"Publishing {len(paths)} files, {whole >> 20} MiB, to {len(tree.devices)} devices")
        published = time.time()
        publisher = threading.Thread(target=publish, args=(tree, paths))
        publisher.start()
        offset = kill_and_restart(tree.relays[0], progress, len(paths))
        results = wait_all(tree, expected, progress, published, 90)
        publisher.join()
        good = print_table(tree, expected, results)
    print(f"\nThe killed relay went on at byte {offset} of {LARGE_BYTES}.")
    print(f"{'Everything arrived' if good and offset > 0 else 'FAILED'}; {time.monotonic() - begin:.0f} seconds in all.")
    return 0 if good and offset > 0 else 1


def publish(tree, paths):
    tree.publish(paths[:1], FILE_TYPE, LABEL, priority=LARGE_PRIORITY)
    tree.publish(paths[1:], FILE_TYPE, LABEL)


def main():
    parser = argparse.ArgumentParser(description="Runs a tree of seven agents and publishes 51 files to it.")
    parser.add_argument("--build", required=True, help="folder of the build")
    parser.add_argument("--seed", type=int, default=1, help="of the files' contents")
    parser.add_argument("--keep", action="store_true", help="keep the agents' folders for inspection")
    arguments = parser.parse_args()
    return run(arguments.build, arguments.seed, arguments.keep)


if __name__ == "__main__":
    sys.exit(main())
