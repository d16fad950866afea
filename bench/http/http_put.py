#!/usr/bin/env python3
"""Uploads beside nginx WebDAV: http_put.py BIN [--rounds N] [--folder DIR] [--mib SIZE]

BIN is the folder of bench_http_server. nginx runs as it comes, and with a body buffer as large as ours. curl sends one
file to each server in turn, ours with digest, nginx with basic credentials. A round ends when the stored file is on
the disk: ours syncs before it answers, for nginx a sync(1) of the file is counted in. Medians and the ratio to the
faster nginx are printed.

Free memory is filled with cached file pages before each upload. A virtual machine may have given it back to its host;
its first touch is then slower than the disk, and how much of that a server meets would be chance.
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
    """A file without blocks that is read, round and round, to fill the page cache."""

    def __init__(self, path):
        self.file = open(path, "wb+", buffering=0)
        self.file.truncate(meminfo_mib("MemTotal") << 21)  # twice the memory: what is read next is not cached
        self.buffer = bytearray(1 << 20)

    def fill(self):
        for _ in range(meminfo_mib("MemFree")):
            if self.file.readinto(self.buffer) == 0:
                self.file.seek(0)


def put(peer, ours, source, stored, filler):
    """MB/s of an upload that replaces nothing. The sync(1) before it keeps write-back of others out of it."""
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
    parser.add_argument("--folder", default=None, help="where the test files are made: a disk, not tmpfs")
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
            for server in servers.values():  # a first upload, not counted
                put(server, ours, source, files / "stored", filler)
            compare(f"PUT {options.mib} MiB", options.rounds, servers,
                    lambda peer: put(peer, ours, source, files / "stored", filler), "MB/s to the disk")
        finally:
            for server in servers.values():
                server.stop()


if __name__ == "__main__":
    main()
