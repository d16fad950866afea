#!/usr/bin/env python3
"""A parent with many children, some of which do not answer: fleet.py BIN [--children N] [--multicast]

A real master with default settings and N simulated children, of which a tenth drop connection attempts, a twentieth
accept calls but never answer, and a twentieth refuse connections. Twenty files wait for each of these and have failed
already. Then one file of 4 KiB is published to all: the script prints when half, nine tenths and all of the healthy
children have fetched it, and the processor time of the parent. A child speaks docs/protocol.md: it answers the
announcement, fetches the file and acknowledges it. With --multicast, the window for sending to groups is open, which the
file is too small for.
"""
import argparse
import asyncio
import hashlib
import json
import os
import pathlib
import re
import socket
import sys
import time

HERE = pathlib.Path(__file__).resolve().parent
sys.path.insert(0, str(HERE.parent.parent / "tests" / "system"))

from tree import AGENT_NAME, PASSWORD, Tree  # noqa: E402

FILE_BYTES = 4096
WAITING_FILES = 20
SETTLING_SECONDS = 45  # the first calls of the silent children time out
WAIT_SECONDS = 300
LISTEN_BACKLOG = 4096
CHALLENGE = (b'HTTP/1.1 401 Unauthorized\r\nWWW-Authenticate: Digest realm="child", nonce="child", algorithm=SHA-256, '
             b'qop="auth"\r\nContent-Length: 0\r\n\r\n')
ACCEPTED = (b"HTTP/1.1 200 OK\r\nKel-Result: 0\r\nContent-Type: application/xml\r\nContent-Length: 23\r\n\r\n"
            b"<Container></Container>")


class Digest:
    """Credentials for the next request on one connection (RFC 7616, SHA-256)."""

    def __init__(self):
        self.fields, self.count = None, 0

    def header(self, method, target):
        if not self.fields:
            return ""
        self.count += 1
        sha = lambda text: hashlib.sha256(text.encode()).hexdigest()  # noqa: E731
        realm, nonce, counter, own = self.fields["realm"], self.fields["nonce"], f"{self.count:08x}", os.urandom(8).hex()
        response = sha(":".join((sha(f"{AGENT_NAME}:{realm}:{PASSWORD}"), nonce, counter, own, "auth",
                                 sha(f"{method}:{target}"))))
        return (f'Authorization: Digest username="{AGENT_NAME}", realm="{realm}", nonce="{nonce}", uri="{target}", '
                f'algorithm=SHA-256, qop=auth, nc={counter}, cnonce="{own}", response="{response}"\r\n')

    def challenge(self, head):
        for line in head.split("\r\n"):
            if line.lower().startswith("www-authenticate: digest") and "SHA-256" in line:
                self.fields = dict(re.findall(r'(\w+)="([^"]*)"', line))
                self.count = 0


async def read_message(reader):
    head = (await reader.readuntil(b"\r\n\r\n")).decode("latin-1")
    length = re.search(r"(?i)\r\ncontent-length: *(\d+)", head)
    return head, await reader.readexactly(int(length[1])) if length else b""


async def ask(server, reader, writer, digest, method, target, body):
    for _ in range(2):
        writer.write((f"{method} {target} HTTP/1.1\r\nHost: {server.address}\r\n"
                      f"{digest.header(method, target)}Content-Type: application/json\r\nAccept: application/json\r\n"
                      f"Content-Length: {len(body)}\r\n\r\n").encode() + body)
        await writer.drain()
        head, answer = await read_message(reader)
        if " 401 " not in head.split("\r\n")[0]:
            break
        digest.challenge(head)
    return head, answer


class Children:
    def __init__(self, master, count):
        self.master, self.count = master, count
        self.healthy = {}  # address -> path name
        self.bad = []
        self.fetched = {}  # address -> time
        self.keep = []  # sockets that stay open
        self.tasks = set()

    async def listen(self, scheme):
        ports = {kind: self.bound_port(kind) for kind in ("healthy", "dropping", "silent", "refusing")}
        for number in range(self.count):
            address = f"127.50.{number // 250 + 1}.{number % 250 + 1}"
            tenth = number % 20
            kind = "dropping" if tenth < 2 else "silent" if tenth == 2 else "refusing" if tenth == 3 else "healthy"
            name = (f"{address}:{ports[kind]}/{scheme}0000-0000-4000-8000-{number:012X}/02-00-7F-32-{number >> 8:02X}-"
                    f"{number & 255:02X}/{address}/255.0.0.0")
            if kind == "healthy":
                self.healthy[address] = name
            else:
                self.bad.append(name)
        await asyncio.start_server(self.serve, sock=self.healthy_socket, backlog=LISTEN_BACKLOG)

    def bound_port(self, kind):
        listener = socket.socket()
        listener.bind(("0.0.0.0", 0))
        port = listener.getsockname()[1]
        if kind == "refusing":
            listener.close()
            return port
        if kind == "healthy":
            self.healthy_socket = listener
            return port
        # One that does not accept drops further attempts once its queue is full.
        listener.listen(0 if kind == "dropping" else LISTEN_BACKLOG)
        self.keep.append(listener)
        for _ in range(4 if kind == "dropping" else 0):
            filler = socket.socket()
            filler.setblocking(False)
            filler.connect_ex(("127.0.0.1", port))
            self.keep.append(filler)
        return port

    async def serve(self, reader, writer):
        address = writer.get_extra_info("sockname")[0]
        try:
            while True:
                head, body = await read_message(reader)
                if "\r\nauthorization:" not in head.lower():
                    writer.write(CHALLENGE)
                    continue
                writer.write(ACCEPTED)
                await writer.drain()
                task = asyncio.create_task(self.fetch(address, body.decode()))
                self.tasks.add(task)
                task.add_done_callback(self.tasks.discard)
        except (asyncio.IncompleteReadError, ConnectionError, asyncio.CancelledError):
            writer.close()

    async def fetch(self, address, announcement):
        values = dict(re.findall(r'name="(File\w+)" type="string">([^<]*)<', announcement))
        reader, writer = await asyncio.open_connection(self.master.address, self.master.port, local_addr=(address, 0))
        digest = Digest()
        head, body = await ask(self.master, reader, writer, digest, "GET", values["FileURL"], b"")
        if " 200 " not in head.split("\r\n")[0] or hashlib.md5(body).hexdigest() != values["FileChecksum"]:
            sys.exit(f"{address} got another answer: {head}")
        self.fetched[address] = time.monotonic()
        call = {name: values[name] for name in ("FileType", "FileLabel", "FileName", "FileChecksum")}
        call["DeviceGUID"] = "/".join(self.healthy[address].split("/")[:2])
        head, _ = await ask(self.master, reader, writer, digest, "POST", "/Action/FileStoreAcknowledgeFile",
                                 json.dumps(call).encode())
        if "kel-result: 0" not in head.lower():
            sys.exit(f"{address}: the acknowledgement failed: {head}")
        writer.close()


def processor_seconds(pid):
    fields = pathlib.Path(f"/proc/{pid}/stat").read_text().rsplit(")", 1)[1].split()
    return (int(fields[11]) + int(fields[12])) / os.sysconf("SC_CLK_TCK")


def offer(master, own_name, path, devices):
    master.call("FileStoreReceiveFile", FileType="Bench", FileLabel="fleet", FileName=path.name, CopyPath=str(path),
                DevicePath={own_name: {device: {} for device in devices}})


async def run(build, count, multicast):
    with Tree(build, [], short_intervals=False) as tree:
        master = tree.master
        tree.run(master)
        if multicast:
            master.kel("windows", "set", "multicast", "--slots", "100000")
        children = Children(master, count)
        await children.listen(master.identity()["GUID"][:4])
        own_name = f"{master.address}:{master.port}/{master.identity()['GUID']}/02-00-00-00-00-01/{master.address}/255.0.0.0"
        waiting = [tree.folder / f"waiting{number:02}" for number in range(WAITING_FILES)]
        for path in waiting:
            path.write_bytes(os.urandom(FILE_BYTES))
            await asyncio.to_thread(offer, master, own_name, path, children.bad)
        await asyncio.sleep(SETTLING_SECONDS)
        path = tree.folder / "published"
        path.write_bytes(os.urandom(FILE_BYTES))
        used, begin = processor_seconds(master.process.pid), time.monotonic()
        await asyncio.to_thread(offer, master, own_name, path, [*children.healthy.values(), *children.bad])
        while len(children.fetched) < len(children.healthy):
            if time.monotonic() - begin > WAIT_SECONDS:
                sys.exit(f"{len(children.fetched)} of {len(children.healthy)} healthy children have the file")
            await asyncio.sleep(0.01)
        times = sorted(at - begin for at in children.fetched.values())
        print(f"{count} children, {len(children.bad)} of them silent: half of the {len(times)} others have the file after "
              f"{times[len(times) // 2]:.2f} s, nine tenths after {times[len(times) * 9 // 10]:.2f} s, all after "
              f"{times[-1]:.2f} s; processor time of the parent {processor_seconds(master.process.pid) - used:.2f} s")


def main():
    parser = argparse.ArgumentParser(description=__doc__, formatter_class=argparse.RawDescriptionHelpFormatter)
    parser.add_argument("bin", type=pathlib.Path, help="folder of the programs, as build/release/bin")
    parser.add_argument("--children", type=int, default=1000, help="simulated children (default 1000)")
    parser.add_argument("--multicast", action="store_true", help="open the multicast window")
    options = parser.parse_args()
    asyncio.run(run(options.bin.resolve().parent, options.children, options.multicast))


if __name__ == "__main__":
    main()
