"""In a tree with keys, a relay that was taken over brings nothing that the master has not published for a device."""

import re
import sqlite3
import subprocess
import unittest

from case import BUILD, SystemTest, rows, write_files
from faults import md5_of
from tree import Tree, wait_until

KEY = ("FileType", "FileLabel", "FileName", "FileChecksum")


def value(name, content, kind="string"):
    return f'<Value name="{name}" type="{kind}">{content}</Value>'


def serve(relay, contents, path_name):
    """Has a stopped relay serve these to the device with this path name, who is a target of such files."""
    with sqlite3.connect(relay.data / "FileStore" / "FileStore.sqlite") as database:
        for content in contents:
            file = database.execute("INSERT INTO Files (FileType, FileURL, FileStatus, CreateTime) VALUES ('Brought', ?, "
                                    "'_AGTMOD_FILESTORESTATUS_OBSOLETE_', unixepoch())", (f"/{path_of(content)}",))
            database.execute("INSERT INTO Targets (FileId, DeviceGUID, TargetCreateTime) VALUES (?, ?, unixepoch())",
                             (file.lastrowid, path_name))


def path_of(content):
    return f"FileStore/downstream/brought/{md5_of(content)}"


class TakenOver:
    """Acts with the keys of a relay, and puts into its store what it serves."""

    def __init__(self, relay, client, path_name):
        self.relay, self.keys, self.client, self.path_name = relay, relay.data / "Keys", client, path_name

    def call(self, action, key, values):
        body = "<Container>" + "".join(map(value, KEY, key)) + values + "</Container>"
        run = subprocess.run(["curl", "-sk", "-o", "/dev/null", "-w", "%{http_code} %header{kel-result}", "--cert",
                              self.keys / "certificate.pem", "--key", self.keys / "key.pem", "-H",
                              "Content-Type: application/xml", "--data-binary", "@-",
                              f"https://{self.client.address}:{self.client.port}/Action/{action}"],
                             input=body, text=True, capture_output=True)
        assert run.stdout == "200 0", (action, key, run.stdout)

    def bring(self, name, content, info="", kind="Demo"):
        key = (kind, "files", name, md5_of(content))
        path = path_of(content)
        (self.relay.data / path).parent.mkdir(exist_ok=True)
        (self.relay.data / path).write_bytes(content)
        tree = value("DevicePath", value(self.path_name, "", "container"), "container")
        self.call("FileStoreWithdrawFile", key, "")  # it may be there already
        self.call("FileStoreReceiveFile", key, value("FileURL", f"/{path}") + value("FileSize", len(content), "int64") +
                  value("FileInfo", info, "container") + tree)


class SignedTest(SystemTest):
    def publish(self, tree, name, content, to="all"):
        path = tree.folder / name
        path.write_bytes(content)
        return tree.publish([path], to=to)[0]["publication"]

    def failed(self, tree, publication, text):
        """True when the master knows that the client has refused this, and why."""
        targets = tree.master.kel("publications", publication)
        return any(target["name"] == tree.clients[0].name and target["status"] == "failed" and text in target["message"]
                   for target in targets)

    def test_a_relay_brings_only_what_was_published_for_a_device(self):
        with Tree(BUILD, [1], keys=True) as tree:
            relay, client = tree.relays[0], tree.clients[0]
            ran = tree.folder / "ran"
            command = tree.folder / "command.sh"
            command.write_text(f'#!/bin/sh\ncat "$1" >> {ran}\necho >> {ran}\n')
            command.chmod(0o700)
            client.set_ini("Delivery", "Commands", "Demo", command)
            self.assertEqual(tree.master.stop(), 0)
            for path in (tree.master.data / "Keys" / "Authority").glob("signing_*"):
                path.unlink()  # as in a tree that is older than signatures
            tree.start()
            path_name = next(device["path_name"] for device in tree.master.kel("devices") if device["name"] == client.name)
            self.publish(tree, "on_request", b"on request", "none")
            relay.kel("request", "--type", "Demo", "--label", "files", "--name", "on_request")
            wait_until(lambda: ("files", "on_request") in relay.inbox(), 30, "the relay has what it requested")
            first = self.publish(tree, "config", b"first version")
            wait_until(lambda: ran.exists() and b"first" in ran.read_bytes(), 30, "the first version")
            self.publish(tree, "config", b"second version")
            wait_until(lambda: b"second" in ran.read_bytes(), 30, "the second version")
            self.publish(tree, "others", b"for the relay", relay.name)
            wait_until(lambda: ("files", "others") in relay.inbox(), 30, "the relay has its own")
            wait_until(lambda: all(item["pending"] == 0 for item in tree.master.kel("publications")), 30, "all receipts")
            self.assertEqual(relay.stop(), 0)
            self.attack(relay, client, path_name)
            refused = {"healed", "own", "config", "others", "on_request", "order"}
            wait_until(lambda: set(re.findall(r"was brought \S+/files/(\S+): Refused", tree.master.log())) == refused,
                       30, "the master knows of what was refused")
            wait_until(lambda: self.failed(tree, first, "later publication"), 30, "and of the replay")
            self.assertEqual(ran.read_bytes(), b"first version\nsecond version\n")
            self.assertEqual({name: path.read_bytes() for (_, name), path in client.inbox().items()},
                             {"config": b"second version"})
            wait_until(lambda: "on_request" not in {file["name"] for file in client.stored_files()}, 30, "it is forgotten")
            client.kel("request", "--type", "Demo", "--label", "files", "--name", "on_request")
            wait_until(lambda: ran.read_bytes().endswith(b"second version\non request\n"), 30, "the genuine one comes")
            tree.publish([tree.folder / "others"], to=client.name)
            wait_until(lambda: ran.read_bytes().endswith(b"for the relay\n"), 30, "now it is for the client, too")
            self.end(tree)

    def attack(self, relay, client, path_name):
        info = {(name, checksum): re.sub("^.*?<Container>|</Container>$", "", text, flags=re.S)
                for name, checksum, text in rows(relay, "SELECT FileName, FileChecksum, FileInfo FROM Files")}
        signed = {content: info[name, md5_of(content)] for name, content in (
            ("config", b"first version"), ("config", b"second version"), ("others", b"for the relay"),
            ("on_request", b"on request"))}
        unsigned = re.sub('<Value name="Signed".*', "", signed[b"on request"], flags=re.S)
        self.assertNotEqual(unsigned, signed[b"on request"])
        order = "".join(map(value, KEY, ("Demo", "files", "order", md5_of(b"evil order")))) + signed[b"second version"]
        serve(relay, (b"evil content", b"evil version", b"evil order", *signed), path_name)
        Tree.run(relay)
        wait_until(client.in_sync, 30, "the client is in sync")
        taken_over = TakenOver(relay, client, path_name)
        taken_over.bring("healed", b"evil content", kind="SelfHealingRecoveredFile")
        taken_over.bring("own", b"evil content")
        taken_over.bring("config", b"evil version", signed[b"second version"])
        taken_over.bring("others", b"for the relay", signed[b"for the relay"])
        taken_over.bring("on_request", b"on request", unsigned)
        taken_over.bring("0123456789abcdef", b"evil order", order, "DeliveryOrder")
        taken_over.bring("config", b"first version", signed[b"first version"])


if __name__ == "__main__":
    unittest.main()
