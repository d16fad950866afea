#!/usr/bin/env python3
"""Packing compared with zip: packing.py BIN [--rounds N] [--files N] [--kib SIZE]

Packs the same files at level 6 with bench_pack (BIN is its folder) and with `zip -6`, in turn. Both archives end up
on the disk: bench_pack syncs its archive; for zip a sync(1) of the archive is included in the time. The script prints
medians and the ratio of the speeds, ours to zip.
"""
import argparse
import os
import pathlib
import random
import statistics
import subprocess
import tempfile
import time
import zipfile

WORDS = [bytes(random.Random(i).choices(b"abcdefghijklmnopqrstuvwxyz<>=\"/", k=3 + i % 9)) for i in range(4000)]


def make_files(folder, count, size):
    """Text like that of inventories: repeated words, which deflate compresses to about a third."""
    source = random.Random(1)
    for number in range(count):
        text = b" ".join(source.choices(WORDS, k=size // 6))[:size]
        (folder / f"inventory{number:05}.xml").write_bytes(text)


def timed(command, archive, synced):
    archive.unlink(missing_ok=True)
    os.sync()
    begin = time.monotonic()
    subprocess.run(command, check=True, stdout=subprocess.DEVNULL)
    if not synced:
        subprocess.run(["sync", archive], check=True)
    return time.monotonic() - begin


def main():
    parser = argparse.ArgumentParser()
    parser.add_argument("binaries", type=lambda text: pathlib.Path(text).resolve())
    parser.add_argument("--rounds", type=int, default=5)
    parser.add_argument("--files", type=int, default=2000)
    parser.add_argument("--kib", type=int, default=32)
    options = parser.parse_args()
    with tempfile.TemporaryDirectory() as root:
        root = pathlib.Path(root)
        folder = root / "files"
        folder.mkdir()
        make_files(folder, options.files, options.kib << 10)
        ours, peer = root / "ours.zip", root / "zip.zip"
        seconds = {"ours": [], "zip -6": []}
        for _ in range(options.rounds):
            seconds["ours"].append(timed([options.binaries / "bench_pack", folder, ours], ours, True))
            seconds["zip -6"].append(timed(["zip", "-6", "-q", "-j", "-r", peer, folder], peer, False))
        for archive in (ours, peer):
            with zipfile.ZipFile(archive) as content:
                if content.testzip() is not None or len(content.infolist()) != options.files:
                    raise SystemExit(f"{archive.name} is not what it should be")
        medians = {name: statistics.median(values) for name, values in seconds.items()}
        mib = options.files * options.kib / 1024
        print(f"\nPacking {options.files} files of {options.kib} KiB ({mib:.0f} MiB), median of {options.rounds}")
        for name, values in seconds.items():
            print(f"  {name:8} {medians[name]:6.2f} s  {mib / medians[name]:6.1f} MiB/s  "
                  f"[{', '.join(f'{value:.2f}' for value in values)}]")
        print(f"  sizes: ours {ours.stat().st_size}, zip {peer.stat().st_size}")
        print(f"  ratio ours / zip -6: {medians['zip -6'] / medians['ours']:.2f}; load average {os.getloadavg()[0]:.1f}")


if __name__ == "__main__":
    main()
