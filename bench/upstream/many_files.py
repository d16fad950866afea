#!/usr/bin/env python3
"""Many small files upstream, compared with a loop and with curl to nginx: many_files.py BIN [--files N] [--no-curl]

Real agents: relays hand files of 4 KiB over to their stores (kel send) while their transfer windows are closed; then the
windows open and the files travel to the master, whose delivery module collects them. This is done with N single files of
one relay, with N packed ones, and with N single files of eight relays at once. The script prints the files per second of
both steps and the processor time of all agents for one file; everything is synced at each step. For comparison, on the
same disk and before each of them, a loop writes, syncs and renames one file at a time and syncs the folder; and curl
uploads the same files to nginx (WebDAV, 8 connections), which does not sync; a sync of its folder follows.
"""
import argparse
import concurrent.futures
import contextlib
import os
import pathlib
import shutil
import subprocess
import sys
import tempfile
import time

HERE = pathlib.Path(__file__).resolve().parent
sys.path[:0] = [str(HERE.parent.parent / "tests" / "system"), str(HERE.parent / "http")]

from peers import Nginx  # noqa: E402
from tree import Tree  # noqa: E402

FILE_BYTES = 4096
BATCH = 2000  # files per command
LOOP_FILES = 1000
CLIENTS = 8
WAIT_SECONDS = 1800


def make_files(folder, count):
    folder.mkdir()
    for number in range(count):
        (folder / f"file{number:05}").write_bytes(number.to_bytes(8, "big") + os.urandom(FILE_BYTES - 8))
    return sorted(folder.iterdir())


def collected(master):
    return sum(len(os.listdir(label)) for label in (master.data / "Delivery" / "Collected").glob("*/*/*"))


def loop(folder):
    """Files per second of a loop that has one file at a time on the disk."""
    folder.mkdir()
    opened = os.open(folder, os.O_RDONLY | os.O_DIRECTORY)
    content = os.urandom(FILE_BYTES)
    begin = time.monotonic()
    for number in range(LOOP_FILES):
        file = os.open(folder / "new", os.O_WRONLY | os.O_CREAT | os.O_EXCL, 0o600)
        os.write(file, content)
        os.fsync(file)
        os.close(file)
        os.rename(folder / "new", folder / str(number))
        os.fsync(opened)
    os.close(opened)
    return LOOP_FILES / (time.monotonic() - begin)


def processor_seconds(agents):
    ticks = 0
    for agent in agents:
        stat = pathlib.Path(f"/proc/{agent.process.pid}/stat").read_text().rsplit(")", 1)[1].split()
        ticks += int(stat[11]) + int(stat[12])
    return ticks / os.sysconf("SC_CLK_TCK")


def hand_over(relay, files):
    for first in range(0, len(files), BATCH):
        relay.kel("send", *files[first:first + BATCH], "--type", "Bench", "--label", "many", timeout=WAIT_SECONDS)


def agents_upstream(build, files, trees, clients=1, packed=False):
    """Files per second from relays to the master, of which each sends a part of the files; and those of the loop.

    `trees` removes the trees in the end: for some minutes after files were deleted, ext4 looks through their inodes
    whenever it makes a new file.
    """
    with Tree(build, [0] * clients, keep=True) as tree, concurrent.futures.ThreadPoolExecutor(clients) as pool:
        trees.callback(shutil.rmtree, tree.folder, ignore_errors=True)
        for relay in tree.relays if packed else []:
            relay.set_ini("FileStore", "UploadPolicy", "ConcatFiles", "auto")
            relay.set_ini("FileStore", "UploadPolicy", "MaxFilesToConcat", 1000)
        tree.start()

        def set_windows(slots):
            for relay in tree.relays:
                relay.call("TransferWindowSetWindow", Direction=1, Slots=slots, SlotType=2, UseUTCTime=True)
        set_windows("0")
        begin = time.monotonic()
        list(pool.map(hand_over, tree.relays, [files[number::clients] for number in range(clients)]))
        handed_over = time.monotonic() - begin
        looped = loop(tree.folder / "loop")
        used = processor_seconds(tree.agents)
        begin = time.monotonic()
        set_windows("")
        while collected(tree.master) < len(files):
            if time.monotonic() - begin > WAIT_SECONDS:
                raise SystemExit("not all files have come")
            time.sleep(0.02)
        seconds = time.monotonic() - begin
        used = processor_seconds(tree.agents) - used
    name = "packed" if packed else f"{clients} at once" if clients > 1 else "singly"
    print(f"  {name:10} {len(files) / seconds:6.0f} files/s, {len(files) / seconds / looped:.2f} times the loop "
          f"({looped:.0f} files/s); processor time {used / len(files) * 1000:.2f} ms a file; handed over before at "
          f"{len(files) / handed_over:.0f} files/s; load average {os.getloadavg()[0]:.1f}", flush=True)
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
    print(f"  {'curl':10} {len(files) / seconds:8.0f} files/s  ({seconds:.1f} s)", flush=True)
    return len(files) / seconds


def main():
    parser = argparse.ArgumentParser()
    parser.add_argument("binaries", type=lambda text: pathlib.Path(text).resolve(), help="folder of the programs")
    parser.add_argument("--files", type=int, default=10000)
    parser.add_argument("--no-curl", action="store_true")
    options = parser.parse_args()
    with contextlib.ExitStack() as trees, tempfile.TemporaryDirectory() as root:
        files = make_files(pathlib.Path(root) / "files", options.files)
        print(f"\n{len(files)} files of {FILE_BYTES} bytes upstream")
        peer = None if options.no_curl else curl_to_nginx(files)
        for clients, packed in ((1, False), (1, True), (CLIENTS, False)):
            speed = agents_upstream(options.binaries.parent, files, trees, clients, packed)
            if peer:
                print(f"             {speed / peer:.3f} times curl to nginx")


if __name__ == "__main__":
    main()
