#!/usr/bin/env python3
"""What a page of a long list of files costs: pages.py BIN [--rows N] [--page N]

A master with default settings, whose store has N rows (a million) of files that are available. The list is read page by
page with FileStoreListFiles (5,000 files, as kel files does it): at the beginning, in the middle and at the end, with
Offset and with After. The script prints the time of a page, the median of five, its bytes in XML, and the memory of the
agent before and afterwards; then the time that kel files takes for the whole list.
"""
import argparse
import pathlib
import re
import sqlite3
import statistics
import subprocess
import sys
import time

sys.path.insert(0, str(pathlib.Path(__file__).parents[2] / "tests" / "system"))
from digest_client import DigestClient  # noqa: E402
from tree import Tree  # noqa: E402

ROUNDS = 5


def fill(agent, rows, waiting=0):
    """Available files; the last `waiting` of them are to be requested."""
    database = next(agent.data.glob("FileStore/FileStore.sqlite"))
    with sqlite3.connect(database) as connection:
        connection.execute("PRAGMA synchronous=OFF")
        connection.execute("PRAGMA cache_size=-400000")
        connection.execute("DELETE FROM Files")
        connection.executemany(
            "INSERT INTO Files (FileId, FileType, FileLabel, FileName, FileChecksum, FileSize, FileStatus, KeepCopy, "
            "Acknowledged, CreateTime) VALUES (?, ?, ?, ?, ?, 4096, '_AGTMOD_FILESTORESTATUS_AVAILABLE_', 7, 1, ?)",
            ((number, f"Type{number % 7}", f"label{number % 1000}", f"file number {number}.bin", f"{number:032x}",
              int(time.time())) for number in range(1, rows + 1)))
        connection.execute("UPDATE Files SET FileStatus = '_AGTMOD_FILESTORESTATUS_TOBEREQUESTED_' WHERE FileId > ?",
                           (rows - waiting,))


def memory_mib(agent):
    status = pathlib.Path(f"/proc/{agent.process.pid}/status").read_text()
    return int(re.search(r"VmRSS:\s+(\d+)", status)[1]) / 1024


def page(client, **values):
    """Seconds, and bytes of the answer."""
    body = "".join(f'<Value name="{name}" type="int64">{value}</Value>' for name, value in values.items())
    begin = time.monotonic()
    status, result, answer = client.request("POST", "/Action/FileStoreListFiles", f"<Container>{body}</Container>".encode(),
                                            ["Content-Type: application/xml"])
    if (status, result) != (200, 0):
        sys.exit(f"a page was refused: HTTP {status}, result {result}")
    return time.monotonic() - begin, len(answer)


def main():
    parser = argparse.ArgumentParser(description=__doc__, formatter_class=argparse.RawDescriptionHelpFormatter)
    parser.add_argument("bin", type=pathlib.Path)
    parser.add_argument("--rows", type=int, default=1_000_000)
    parser.add_argument("--page", type=int, default=5_000)
    options = parser.parse_args()
    with Tree(options.bin.parent, []) as tree:
        tree.start()
        tree.master.stop(60)
        fill(tree.master, options.rows)
        tree.master.start()
        tree.master.wait_ready(300)
        client = DigestClient(tree.master)
        before = memory_mib(tree.master)
        for place, skipped in (("beginning", 0), ("middle", options.rows // 2), ("end", options.rows - options.page)):
            for name in "Offset", "After":
                rounds = [page(client, Limit=options.page, **{name: skipped}) for _ in range(ROUNDS)]
                print(f"{place:10} {name:7} {statistics.median(seconds for seconds, _ in rounds) * 1000:8.1f} ms "
                      f"{rounds[0][1]:9} bytes")
        print(f"memory of the agent: {before:.1f} MiB before, {memory_mib(tree.master):.1f} MiB afterwards")
        begin = time.monotonic()
        subprocess.run([tree.kel, "--root", tree.master.root, "files"], check=True, stdout=subprocess.DEVNULL)
        print(f"kel files, {options.rows} files: {time.monotonic() - begin:.1f} s")


if __name__ == "__main__":
    main()
