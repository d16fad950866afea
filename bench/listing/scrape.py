#!/usr/bin/env python3
"""What GET /metrics costs with a large store: scrape.py BIN [--rows N] [--waiting N]

A master with default settings, whose store has N rows (a million) of files that are available, and some (1,000) that wait
to be requested. The script prints the time of a request, the median of 50, digest and transfer included, and how long the
file store takes of it, which is the most that its databases are used.
"""
import argparse
import pathlib
import re
import statistics
import sys
import time

from pages import fill

sys.path.insert(0, str(pathlib.Path(__file__).parents[2] / "tests" / "system"))
from digest_client import DigestClient  # noqa: E402
from tree import Tree  # noqa: E402

ROUNDS = 50


def scrape(client):
    """Seconds, and the text."""
    begin = time.monotonic()
    status, _, text = client.request("GET", "/metrics")
    if status != 200:
        sys.exit(f"refused: HTTP {status}")
    return time.monotonic() - begin, text.decode()


def collected(text, module):
    """Seconds that a module has taken by now, and how often it was asked."""
    return [float(re.search(rf'kel_metrics_collect_seconds_{end}{{module="{module}"}} (.*)', text)[1])
            for end in ("sum", "count")]


def main():
    parser = argparse.ArgumentParser(description=__doc__, formatter_class=argparse.RawDescriptionHelpFormatter)
    parser.add_argument("bin", type=pathlib.Path)
    parser.add_argument("--rows", type=int, default=1_000_000)
    parser.add_argument("--waiting", type=int, default=1_000)
    options = parser.parse_args()
    with Tree(options.bin.parent, []) as tree:
        tree.start()
        tree.master.stop(60)
        fill(tree.master, options.rows, options.waiting)
        tree.master.start()
        tree.master.wait_ready(300)
        client = DigestClient(tree.master)
        first = scrape(client)[1]
        rounds = [scrape(client) for _ in range(ROUNDS)]
        print(f"GET /metrics: {statistics.median(seconds for seconds, _ in rounds) * 1000:.1f} ms, {len(first)} bytes")
        for module in "FileStore", "Console", "Agent":
            (begin, before), (end, after) = collected(first, module), collected(rounds[-1][1], module)
            print(f"{module:10} {(end - begin) / (after - before) * 1000:.2f} ms")
        for line in first.splitlines():
            if line.startswith(("kel_store_files{", "kel_store_waiting_files{", "kel_store_oldest_waiting")):
                print(line)


if __name__ == "__main__":
    main()
