#!/usr/bin/env python3
"""Uploads compared with nginx WebDAV: http_put.py BIN [--rounds N] [--folder DIR] [--mib SIZE]

BIN is the folder of bench_http_server. nginx runs twice: with its default settings, and with a body buffer as large as
ours. curl sends one file to each server in turn, to ours with digest credentials, to nginx with basic ones. A round
ends when the stored file is on the disk: our server syncs before it answers; for nginx a sync(1) of the file is
included in the time. The script prints medians and the ratio to the faster nginx.

Before each upload, free memory is filled with cached file pages. A virtual machine may have returned free memory to its
host; the first access to such a page is slower than the disk, and how many of them a server hits would be chance.
"""
import argparse
import filecmp
import os
import pathlib
import re
import subprocess
import tempfile
import time

from peers import Nginx, Ours, compare

DAV = "client_max_body_size 0; dav_methods PUT;"


def meminfo_mib(field):
    return int(re.search(rf"{field}:\s+(\d+)", pathlib.Path("/proc/meminfo").read_text()).group(1)) >> 10


class Filler:
    """A sparse file that is read over and over to fill the page cache."""

    def __init__(self, path):
        self.file = open(path, "wb+", buffering=0)
        self.file.truncate(meminfo_mib("MemTotal") << 21)  # twice the memory: never all cached
        self.buffer = bytearray(1 << 20)

    def fill(self):
        for _ in range(meminfo_mib("MemFree")):
            if self.file.readinto(self.buffer) == 0:
                self.file.seek(0)


def put(peer, ours, source, stored, filler):
    """MB/s of an upload that replaces nothing. The sync before it keeps earlier write-back out of the measurement."""
    stored.unlink(missing_ok=True)
    os.sync()
    filler.fill()
    start = time.monotonic()
    subprocess.run(["curl", "-sS", "--fail", "--digest" if peer is ours else "--basic", "-u", "bench:bench-password",
                    "-T", source, f"http://127.0.0.1:{peer.port}/Files/{stored.name}"], check=True)
    if peer is not ours:
        subprocess.run(["sync", stored], check=True)
    seconds = time.monotonic() - start
    if not filecmp.cmp(source, stored, shallow=False):
        raise SystemExit("the stored file differs")
    return source.stat().st_size / seconds / 1e6


def main():
    parser = argparse.ArgumentParser()
    parser.add_argument("binaries", type=lambda text: pathlib.Path(text).resolve())
    parser.add_argument("--rounds", type=int, default=5)
    parser.add_argument("--mib", type=int, default=1024)
    parser.add_argument("--folder", default=None, help="folder in which the test files are created; on a disk, not tmpfs")
    options = parser.parse_args()
    with tempfile.TemporaryDirectory(dir=options.folder) as folder:
        root = pathlib.Path(folder)
        files = root / "files"
        files.mkdir()
        source = root / "source"
        block = os.urandom(1 << 20)
        with open(source, "wb") as file:
            for i in range(options.mib):
                file.write(i.to_bytes(8, "big") + block[8:])
        ours = Ours(options.binaries, root / "ours", files, "[Aliases]\nWritable=Files\n")
        filler = Filler(root / "filler")
        servers = {"ours": ours, "nginx, 16k buffer": Nginx(root / "nginx", files, DAV),
                   "nginx, 1m buffer": Nginx(root / "nginx2", files, DAV + "client_body_buffer_size 1m;")}
        try:
            for server in servers.values():  # a warm-up that is not counted
                put(server, ours, source, files / "stored", filler)
            compare(f"PUT {options.mib} MiB", options.rounds, servers,
                    lambda peer: put(peer, ours, source, files / "stored", filler), "MB/s to the disk")
        finally:
            for server in servers.values():
                server.stop()


if __name__ == "__main__":
    main()
