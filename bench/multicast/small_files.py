#!/usr/bin/env python3
"""Many small files for many devices beside an open multicast window: small_files.py BIN [--files N] [--targets N]
[--rounds N]

A real master with default settings and simulated children on loopback addresses. While the downward window is closed, files
of 1 KiB are published, each to all children; then it is opened, and the time runs until the last acknowledgement has been
answered. In turn without a multicast window and with one that is open. The children acknowledge what is announced to them
without downloading it: that part of the work does not know multicast.
"""
import argparse
import asyncio
import json
import os
import pathlib
import re
import socket
import statistics
import sys
import time

HERE = pathlib.Path(__file__).resolve().parent
sys.path[:0] = [str(HERE.parent / "latency"), str(HERE.parent.parent / "tests" / "system")]

from fleet import ACCEPTED, CHALLENGE, LISTEN_BACKLOG, Digest, Tree, ask, processor_seconds, read_message  # noqa: E402

FILE_BYTES = 1024
WAIT_SECONDS = 1800


class Peer:
    """Calls of actions of the master from one address, or without one over its own socket; over one connection, one
    after the other."""

    def __init__(self, master, address):
        self.master, self.address, self.digest = master, address, Digest()
        self.lock, self.streams = asyncio.Lock(), None

    async def call(self, action, values):
        async with self.lock:
            if not self.streams and not self.address:
                self.streams = await asyncio.open_unix_connection(self.master.root / "run" / "agent.sock")
            if not self.streams:
                self.streams = await asyncio.open_connection(self.master.address, self.master.port,
                                                             local_addr=(self.address, 0))
            head, _ = await ask(self.master, *self.streams, self.digest, "POST", f"/Action/{action}",
                                json.dumps(values).encode())
        if "kel-result: 0" not in head.lower():
            sys.exit(f"{self.address}: {action} failed: {values} {head}")


class Children:
    def __init__(self, master, count, scheme):
        self.master, self.listener = master, socket.socket()
        self.listener.bind(("0.0.0.0", 0))
        port, self.names, self.peers = self.listener.getsockname()[1], {}, {}
        for number in range(count):
            address = f"127.50.{number // 250 + 1}.{number % 250 + 1}"
            self.names[address] = (f"{address}:{port}/{scheme}0000-0000-4000-8000-{number:012X}/02-00-7F-32-"
                                   f"{number >> 8:02X}-{number & 255:02X}/{address}/255.0.0.0")
            self.peers[address] = Peer(master, address)
        self.acknowledged, self.tasks = set(), set()

    async def listen(self):
        await asyncio.start_server(self.serve, sock=self.listener, backlog=LISTEN_BACKLOG)

    async def serve(self, reader, writer):
        address = writer.get_extra_info("sockname")[0]
        try:
            while True:
                head, body = await read_message(reader)
                if "\r\nauthorization:" not in head.lower():
                    writer.write(CHALLENGE)
                    continue
                writer.write(ACCEPTED)
                task = asyncio.create_task(self.acknowledge(address, body.decode()))
                self.tasks.add(task)
                task.add_done_callback(self.tasks.discard)
        except (asyncio.IncompleteReadError, ConnectionError, asyncio.CancelledError):
            writer.close()

    async def acknowledge(self, address, announcement):
        values = dict(re.findall(r'name="(File(?:Type|Label|Name|Checksum))" type="string">([^<]*)<', announcement))
        values["DeviceGUID"] = "/".join(self.names[address].split("/")[:2])
        await self.peers[address].call("FileStoreAcknowledgeFile", values)
        self.acknowledged.add((address, values["FileName"]))


async def measure(build, options, multicast):
    """Seconds, and processor seconds of the master."""
    with Tree(build, [], short_intervals=False) as tree:
        master = tree.master
        tree.run(master)
        master.kel("windows", "set", "down", "--slots", "0")
        if multicast:
            master.kel("windows", "set", "multicast", "--slots", "100000")
        guid = master.identity()["GUID"]
        children = Children(master, options.targets, guid[:4])
        await children.listen()
        own_name = f"{master.address}:{master.port}/{guid}/02-00-00-00-00-01/{master.address}/255.0.0.0"
        devices = {own_name: {name: {} for name in children.names.values()}}
        publisher = Peer(master, None)
        for number in range(options.files):
            path = tree.folder / f"{number:05}"
            path.write_bytes(os.urandom(FILE_BYTES))
            await publisher.call("FileStoreReceiveFile", {
                "FileType": "Bench", "FileLabel": "small", "FileName": path.name, "CopyPath": str(path),
                "DevicePath": devices})
        used, begin = processor_seconds(master.process.pid), time.monotonic()
        await asyncio.to_thread(master.kel, "windows", "set", "down", "--remove")
        while len(children.acknowledged) < options.files * options.targets:
            if time.monotonic() - begin > WAIT_SECONDS:
                sys.exit(f"{len(children.acknowledged)} of {options.files * options.targets} are acknowledged")
            await asyncio.sleep(0.02)
        return time.monotonic() - begin, processor_seconds(master.process.pid) - used


def main():
    parser = argparse.ArgumentParser(description=__doc__, formatter_class=argparse.RawDescriptionHelpFormatter)
    parser.add_argument("bin", type=pathlib.Path, help="folder of the programs, as build/release/bin")
    parser.add_argument("--files", type=int, default=1000)
    parser.add_argument("--targets", type=int, default=100, help="simulated children")
    parser.add_argument("--rounds", type=int, default=3)
    options = parser.parse_args()
    results = {False: [], True: []}
    for _ in range(options.rounds):
        for multicast, runs in results.items():
            runs.append(asyncio.run(measure(options.bin.resolve().parent, options, multicast)))
            print(f"{'multicast window open' if multicast else 'no multicast window':22} {runs[-1][0]:8.2f} s, processor "
                  f"{runs[-1][1]:8.2f} s", flush=True)
    middle = {multicast: [statistics.median(values) for values in zip(*runs)] for multicast, runs in results.items()}
    print(f"{options.files} files for {options.targets} devices: ratio {middle[True][0] / middle[False][0]:.3f}, of processor "
          f"time {middle[True][1] / middle[False][1]:.3f}")


if __name__ == "__main__":
    main()
