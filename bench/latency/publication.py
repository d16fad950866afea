#!/usr/bin/env python3
"""What one publication to many devices costs on the master: publication.py BIN [--relays N] [--clients N]

A real master with default settings, N simulated relays below it and N simulated clients behind each of them. One file of
4 KiB is published to all. Each relay fetches it, acknowledges it and then sends its own receipt and those of its clients,
one after another, as an agent does. The script prints when the command has returned, when the last relay had the file and
when the master had recorded the last receipt, with the processor time and the memory of the master up to then. The
simulator shares the processors with the master.
"""
import argparse
import asyncio
import hashlib
import json
import os
import pathlib
import re
import sys
import time

from fleet import ACCEPTED, CHALLENGE, FILE_BYTES, Digest, Tree, ask, processor_seconds, read_message

WAIT_SECONDS = 900
REST = "02-00-7F-32-00-01/{}/255.0.0.0"


def memory_mb(pid, name):
    status = pathlib.Path(f"/proc/{pid}/status").read_text()
    return int(re.search(rf"{name}:\s+(\d+)", status)[1]) / 1024


class Relay:
    """One simulated relay with its clients; `clients`: device URLs."""

    def __init__(self, master, number, scheme, clients):
        self.master, self.address = master, f"127.50.{number // 250 + 1}.{number % 250 + 1}"
        self.guid = f"{scheme}0000-0000-4000-8001-{number:012X}"
        self.clients = [(f"127.60.{number}.{client % 250 + 1}:{2000 + client // 250}",
                         f"{scheme}0000-0000-4000-8002-{number:06X}{client:06X}") for client in range(clients)]
        self.fetched, self.work = None, None

    async def listen(self):
        self.server = await asyncio.start_server(self.serve, self.address, 0)
        self.url = f"{self.address}:{self.server.sockets[0].getsockname()[1]}/{self.guid}"

    def entries(self, master_guid):
        """Its lines in the section Devices of Console.ini."""
        yield f"{self.guid}={self.url}/{REST.format(self.address)} {master_guid} relay relay-{self.guid[-6:]}"
        for place, guid in self.clients:
            yield f"{guid}={place}/{guid}/{REST.format(place.split(':')[0])} {self.guid} client client-{guid[-12:]}"

    async def serve(self, reader, writer):
        try:
            while True:
                head, body = await read_message(reader)
                if "\r\nauthorization:" not in head.lower():
                    writer.write(CHALLENGE)
                    continue
                writer.write(ACCEPTED)
                self.work = self.work or asyncio.create_task(self.receive(body.decode()))
        except (asyncio.IncompleteReadError, ConnectionError, asyncio.CancelledError):
            writer.close()

    async def receive(self, announcement):
        values = dict(re.findall(r'name="(\w+)" type="string">([^<]*)<', announcement))
        link = (*await asyncio.open_connection(self.master.address, self.master.port, local_addr=(self.address, 0)),
                Digest())
        head, body = await ask(self.master, *link, "GET", values["FileURL"], b"")
        if " 200 " not in head.split("\r\n")[0] or hashlib.md5(body).hexdigest() != values["FileChecksum"]:
            sys.exit(f"{self.address} got another answer: {head}")
        key = {name: values[name] for name in ("FileType", "FileLabel", "FileName", "FileChecksum")}
        await self.call(link, "FileStoreAcknowledgeFile", key | {"DeviceGUID": self.url})
        self.fetched = time.monotonic()
        for place, guid in [self.url.split("/"), *self.clients]:
            await self.send_receipt(link, f"{place}/{guid}", guid, key, values["PublicationId"])

    async def send_receipt(self, link, url, guid, key, publication):
        texts = {"GUID": guid, "DeviceUrl": url, **key, "PublicationId": publication, "Status": "delivered", "Message": ""}
        receipt = "".join(f'<Value name="{name}" type="string">{text}</Value>' for name, text in texts.items())
        content = (f'<Container>{receipt}<Value name="FileSize" type="int64">{FILE_BYTES}</Value>'
                   f'<Value name="Time" type="int64">{int(time.time())}</Value></Container>').encode()
        offer = {"FileType": "DeliveryReceipt", "FileLabel": key["FileType"], "FileName": f"{guid}.xml", "FileChecksum":
                 hashlib.md5(content).hexdigest(), "FileSize": len(content), "Upstream": True, "Priority": 500,
                 "SourceDevice": url, "FirstRelay": self.url}
        answer = await self.call(link, "FileStoreReceiveFile", offer)
        head, _ = await ask(self.master, *link, "PUT", answer["FileURL"], content)
        if head.split()[1] not in ("201", "204"):
            sys.exit(f"{self.address}: a receipt was refused: {head}")

    async def call(self, link, action, values):
        head, body = await ask(self.master, *link, "POST", f"/Action/{action}", json.dumps(values).encode())
        if "kel-result: 0" not in head.lower():
            sys.exit(f"{self.address}: {action} failed: {head}")
        return json.loads(body)


async def run(build, relay_count, clients):
    with Tree(build, [], short_intervals=False) as tree:
        master = tree.master
        tree.run(master)
        guid, pid = master.identity()["GUID"], master.process.pid
        relays = [Relay(master, number, guid[:4], clients) for number in range(relay_count)]
        for relay in relays:
            await relay.listen()
        ini = master.root / "config" / "Console.ini"
        entries = "\n".join(entry for relay in relays for entry in relay.entries(guid))
        ini.write_text(ini.read_text().replace("\n[Devices]\n", f"\n[Devices]\n{entries}\n"))
        path = tree.folder / "published"
        path.write_bytes(os.urandom(FILE_BYTES))
        print(f"{relay_count} relays with {clients} clients each; memory of the master {memory_mb(pid, 'VmRSS'):.1f} MB")
        begin, used = time.monotonic(), processor_seconds(pid)

        def report(what, at):
            print(f"  {what:28} after {at - begin:7.2f} s, processor time {processor_seconds(pid) - used:6.2f} s, memory "
                  f"{memory_mb(pid, 'VmRSS'):5.1f} MB, at most {memory_mb(pid, 'VmHWM'):5.1f} MB", flush=True)

        published = await asyncio.to_thread(master.kel, "publish", path, "--type", "Bench", "--label", "publication",
                                            "--to", "all")
        report("the command has returned", time.monotonic())
        while not all(relay.fetched for relay in relays):
            await wait(begin)
        report("all relays have the file", max(relay.fetched for relay in relays))
        pending = True
        while pending:
            await wait(begin, 1)
            answer = await asyncio.to_thread(master.call, "ConsoleListPublications",
                                             PublicationId=published[0]["publication"], CountsOnly=True)
            pending = answer["Values"]["Pending"]
        report("all receipts are recorded", time.monotonic())


async def wait(begin, seconds=0.01):
    if time.monotonic() - begin > WAIT_SECONDS:
        sys.exit("not in time")
    await asyncio.sleep(seconds)


def main():
    parser = argparse.ArgumentParser(description=__doc__, formatter_class=argparse.RawDescriptionHelpFormatter)
    parser.add_argument("bin", type=pathlib.Path, help="folder of the programs, as build/release/bin")
    parser.add_argument("--relays", type=int, default=20, help="simulated relays (default 20)")
    parser.add_argument("--clients", type=int, default=500, help="simulated clients behind each relay (default 500)")
    options = parser.parse_args()
    asyncio.run(run(options.bin.resolve().parent, options.relays, options.clients))


if __name__ == "__main__":
    main()
