#!/usr/bin/env python3
"""Many small files upstream, compared with curl to nginx: many_files.py BIN [--files N]

Real agents: a relay hands N files of 4 KiB over to its store (kel send) while its transfer window is closed; then the
window opens and they travel to the master, whose delivery module collects them. This is done once with single files and
once with packed ones. The script prints the files per second of both steps; everything is synced at each step. For
comparison, curl uploads the same files to nginx (WebDAV, 8 connections), which does not sync; a sync of its folder
follows.
"""
import argparse
import os
import pathlib
import subprocess
import sys
import tempfile
import time

HERE = pathlib.Path(__file__).resolve().parent
sys.path[:0] = [str(HERE.parent.parent / "tests" / "system"), str(HERE.parent / "http")]

from peers import Nginx  # noqa: E402
from tree import Tree, wait_until  # noqa: E402

FILE_BYTES = 4096
BATCH = 2000  # files per command
WAIT_SECONDS = 1800


def make_files(folder, count):
    folder.mkdir()
    for number in range(count):
        (folder / f"file{number:05}").write_bytes(number.to_bytes(8, "big") + os.urandom(FILE_BYTES - 8))
    return sorted(folder.iterdir())


def collected(master):
    return sum(len(names) for _, _, names in os.walk(master.data / "Delivery" / "Collected"))


def agents_upstream(build, files, packed):
    """Files per second from a relay to the master."""
    with Tree(build, [0]) as tree:
        relay = tree.relays[0]
        if packed:
            relay.set_ini("FileStore", "UploadPolicy", "ConcatFiles", "auto")
            relay.set_ini("FileStore", "UploadPolicy", "MaxFilesToConcat", 1000)
        tree.start()
        relay.call("TransferWindowSetWindow", Direction=1, Slots="0", SlotType=2, UseUTCTime=True)
        begin = time.monotonic()
        for first in range(0, len(files), BATCH):
            relay.kel("send", *files[first:first + BATCH], "--type", "Bench", "--label", "many", timeout=WAIT_SECONDS)
        handed_over = time.monotonic() - begin
        begin = time.monotonic()
        relay.call("TransferWindowSetWindow", Direction=1, Slots="", SlotType=2, UseUTCTime=True)
        wait_until(lambda: collected(tree.master) >= len(files), WAIT_SECONDS, "all files at the master")
        seconds = time.monotonic() - begin
    print(f"  {'packed' if packed else 'singly':8} {len(files) / seconds:8.0f} files/s  "
          f"({seconds:.1f} s); handed over before at {len(files) / handed_over:.0f} files/s", flush=True)
    return len(files) / seconds


def curl_to_nginx(files):
    with tempfile.TemporaryDirectory() as root:
        root = pathlib.Path(root)
        stored = root / "stored"
        stored.mkdir()
        nginx = Nginx(root / "nginx", stored, "client_max_body_size 0; dav_methods PUT;")
        config = root / "curl.config"
        config.write_text("".join(f'upload-file = "{path}"\nurl = "http://127.0.0.1:{nginx.port}/Files/{path.name}"\n'
                                  for path in files))
        try:
            begin = time.monotonic()
            subprocess.run(["curl", "-sS", "--fail", "--parallel", "--parallel-max", "8", "--basic", "-u",
                            "bench:bench-password", "-K", config], check=True, stdout=subprocess.DEVNULL,
                           stderr=subprocess.DEVNULL)
            subprocess.run(["sync", "-f", stored], check=True)
            seconds = time.monotonic() - begin
            if len(list(stored.iterdir())) != len(files):
                raise SystemExit("nginx did not store all files")
        finally:
            nginx.stop()
    print(f"  {'curl':8} {len(files) / seconds:8.0f} files/s  ({seconds:.1f} s)", flush=True)
    return len(files) / seconds


def main():
    parser = argparse.ArgumentParser()
    parser.add_argument("binaries", type=lambda text: pathlib.Path(text).resolve(), help="folder of the programs")
    parser.add_argument("--files", type=int, default=10000)
    options = parser.parse_args()
    with tempfile.TemporaryDirectory() as root:
        files = make_files(pathlib.Path(root) / "files", options.files)
        print(f"\n{len(files)} files of {FILE_BYTES} bytes upstream")
        peer = curl_to_nginx(files)
        for packed in (False, True):
            ratio = agents_upstream(options.binaries.parent, files, packed) / peer
            print(f"  ratio {'packed' if packed else 'singly'} / curl to nginx: {ratio:.3f}; "
                  f"load average {os.getloadavg()[0]:.1f}")


if __name__ == "__main__":
    main()
