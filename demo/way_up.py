"""The second part of the demonstration: the clients send inventories to the master, half of them through a relay that
packs them; then two clients request a file that was published to no device."""

import random
import threading
import time

from screen import Result
from tree import ActionFailed, sha256_of, wait_until
from way_down import write_random

INVENTORIES = 200
INVENTORY_BYTES = (1 << 10, 8 << 10)
FILES_PER_CALL = 50
LARGE_NAME = "image.bin"
LARGE_BYTES = 64 << 20
FILE_TYPE = "Inventory"
LABEL = "weekly"
ARRIVAL_SECONDS = 60
PACKED_LINE = "PushThread: Adding file "
ARCHIVE_LINE = "PushThread: Sending archive file "
REQUESTED_NAME = "requested.bin"
REQUESTED_BYTES = 8 << 20
REQUEST_SECONDS = 40
RECEIPT_SECONDS = 30


class WayUp:
    def __init__(self, tree, progress, seed):
        self.tree, self.progress = tree, progress
        self.packing_relay = tree.relays[-1]
        source = random.Random(seed)
        self.files = {client: self.make_files(tree.folder / "sent" / client.name, source) for client in tree.clients}

    @staticmethod
    def make_files(folder, source):
        """Path -> SHA-256."""
        folder.mkdir(parents=True)
        sizes = {f"inventory{i:03}.xml": source.randint(*INVENTORY_BYTES) for i in range(1, INVENTORIES + 1)}
        sizes[LARGE_NAME] = LARGE_BYTES
        for name, size in sizes.items():
            write_random(folder / name, size, source)
        return {folder / name: sha256_of(folder / name) for name in sizes}

    def run(self):
        """The results of all clients: what the master collected from them."""
        count = sum(map(len, self.files.values()))
        self.progress.say(f"\nSending {count} files from {len(self.files)} clients up to the master; "
                          f"{self.packing_relay.name} packs what passes through it")
        folders = {client: self.tree.master.data / "Delivery" / "Collected" / client.identity()["GUID"] / FILE_TYPE / LABEL
                   for client in self.tree.clients}
        begin = time.time()
        senders = [threading.Thread(target=self.send, args=(client,)) for client in self.tree.clients]
        for sender in senders:
            sender.start()
        self.wait_collected(folders)
        for sender in senders:
            sender.join()
        log = self.packing_relay.log()
        self.progress.say(f"{self.packing_relay.name} packed {log.count(PACKED_LINE)} files, receipts among them, into "
                          f"{log.count(ARCHIVE_LINE)} archives")
        return [self.result_of(client, folders[client], begin) for client in self.tree.clients]

    def send(self, client):
        paths = list(self.files[client])
        for first in range(0, len(paths), FILES_PER_CALL):
            client.kel("send", *paths[first:first + FILES_PER_CALL], "--type", FILE_TYPE, "--label", LABEL)

    def wait_collected(self, folders):
        def all_there():
            counts = {client: sum((folder / path.name).exists() for path in self.files[client])
                      for client, folder in folders.items()}
            self.progress.show({client: count / len(self.files[client]) for client, count in counts.items()})
            return all(count == len(self.files[client]) for client, count in counts.items())
        try:
            wait_until(all_there, ARRIVAL_SECONDS, "all files collected")
        except TimeoutError as error:
            self.progress.say(f"Failed: {error}")

    def result_of(self, client, folder, begin):
        files = self.files[client]
        present = [path for path in files if (folder / path.name).exists()]
        right = sum(sha256_of(folder / path.name) == files[path] for path in present)
        took = max((folder / path.name).stat().st_mtime for path in present) - begin if len(present) == len(files) else None
        return Result(client, len(files), took, len(present), right,
                      sum((folder / path.name).stat().st_size for path in present))


def request_file(tree, progress, seed):
    """Publishes one file to no device; two clients of one relay request it. True when both receive it and the master
    is asked only once."""
    path = tree.folder / REQUESTED_NAME
    write_random(path, REQUESTED_BYTES, random.Random(seed))
    expected = sha256_of(path)
    published = tree.publish([path], "Demo", "on-request", to="none")[0]
    clients = [client for client in tree.clients if client.parent is tree.relays[0]]
    progress.say(f"\nPublished {REQUESTED_NAME} to none; {' and '.join(client.name for client in clients)} request it")
    good = published["targets"] == 0
    for client in clients:
        begin = time.monotonic()
        try:
            answer = client.kel("request", "--type", "Demo", "--label", "on-request", "--name", REQUESTED_NAME,
                                "--checksum", published["checksum"], "--wait", REQUEST_SECONDS)[0]
        except ActionFailed as error:
            progress.say(f"Failed: {client.name}: {error}")
            return False
        right = sha256_of(answer["path"]) == expected
        asked = tree.master.log().count("Received request from ")
        progress.say(f"  {client.name} received it after {time.monotonic() - begin:.1f} s, {'right' if right else 'WRONG'}; "
                     f"requests that reached the master: {asked}")
        good = good and right and asked == 1
    return good


def check_publications(tree, progress):
    """True when every target of every publication reported to the master that it has the file."""
    def all_told():
        publications = tree.master.kel("publications")
        return publications if all(item["pending"] == 0 for item in publications) else None
    try:
        publications = wait_until(all_told, RECEIPT_SECONDS, "receipts of all targets")
    except TimeoutError as error:
        progress.say(f"Failed: {error}")
        publications = tree.master.kel("publications")
    targets = sum(item["targets"] for item in publications)
    delivered = sum(item["delivered"] for item in publications)
    progress.say(f"\n{len(publications)} publications with {targets} targets; {delivered} delivered according to "
                 f"their receipts, {sum(item['failed'] for item in publications)} failed")
    return delivered == targets
