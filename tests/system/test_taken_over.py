"""In a tree with keys, one who has taken over a client and has its keys is that client, and nothing more."""

import contextlib
import hashlib
import json
import socket
import subprocess
import unittest
import urllib.parse
import zipfile

from case import BUILD, SystemTest, collected_files, wait_collected, write_files, zip_of
from faults import INDEX, md5_of
from keyed_client import KeyedClient, OperatorOfTree
from test_attacks import FEW, neighbour
from test_signed import KEY, value
from tree import Tree, sha256_of, wait_until


class Device:
    """Acts with the keys of a device towards another one."""

    def __init__(self, agent, towards):
        self.url = f"{agent.address}:{agent.port}/{agent.guid}"
        self.client = KeyedClient(towards, agent.data / "Keys")
        self.close = self.client.connection.close

    def call(self, action, key=(), **values):
        status, result, body = self.client.action(action, json.dumps(dict(zip(KEY, key)) | values))
        assert status == 200, (action, status)
        return result, json.loads(body)

    def offer(self, key, size, **more):
        """The URL for the content, None when the offer is refused."""
        values = dict(FileSize=size, Upstream=True, SourceDevice=self.url) | more
        result, answer = self.call("FileStoreReceiveFile", key, **values)
        return urllib.parse.quote(answer["FileURL"]) if result == 0 else None

    def put(self, url, content, **headers):
        return self.client.request("PUT", url, content, headers)[0]

    def send(self, key, content, **more):
        return self.put(self.offer((*key, md5_of(content)), len(content), **more), content)


def record(key, content, source):
    """What an index of packed files says of a file; without a source, not which device it is of."""
    values = [value(*pair) for pair in zip(KEY, key)]
    values += [value("Upstream", "true", "bool"), value("FileSize", len(content), "int64")]
    values += [value("SourceDevice", source)] if source else []
    return value("PackedFile", "".join(values), "container")


def archive(*files, compression=zipfile.ZIP_STORED):
    """Of (key, content, source)."""
    index = f"<Container>{''.join(record(*file) for file in files)}</Container>"
    entries = [("/".join(("upstream", *key[:2], key[3], key[2])), content) for key, content, _ in files]
    return zip_of([(INDEX, index), *entries], compression)


class TakenOverTest(SystemTest):
    """A relay with two clients. The keys of the first, and where it helps its own agent, are the attacker's."""

    @classmethod
    def setUpClass(cls):
        cls.tree = Tree(BUILD, [2], keys=True)
        cls.addClassCleanup(cls.tree.close)
        cls.master, cls.relay, cls.client, cls.victim = cls.tree.agents
        for name, number in FEW.items():
            cls.relay.set_ini("HttpProtocol", "HttpProtocol", name, number)
        cls.tree.start()
        for agent in cls.tree.agents:
            agent.guid = agent.identity()["GUID"]
        cls.names = {device["guid"]: device["path_name"] for device in cls.master.kel("devices")}

    def device(self, agent, towards):
        device = Device(agent, towards)
        self.addCleanup(device.close)
        return device

    def identity_of(self, agent, name):
        place = self.names[agent.guid].split("/")[0]
        values = {"GUID": agent.guid, "PathName": self.names[agent.guid], "HostName": name, "Role": agent.role, "ParentGuid":
                  agent.parent.guid, "DeviceUrl": f"{place}/{agent.guid}", "Port": place.split(":")[1]}
        content = "".join(value(*pair) for pair in values.items()) + value("Time", 1 << 40, "int64")
        return f"<Container>{content}</Container>".encode()

    def test_files_are_the_sender_s_own(self):
        """Identities, receipts and inventories included, singly or packed, to the relay or straight to the master."""
        key, good, expected = ("T", "l", "n", md5_of(b"12345")), b"good", {}
        for towards in (self.relay, self.master):
            attacker = self.device(self.client, towards)
            for source in (self.device(self.victim, towards).url, self.device(self.relay, towards).url, ""):
                self.assertIsNone(attacker.offer(key, 5, SourceDevice=source), source)
                self.assertIsNone(attacker.offer(key, 5, SourceDevice=source, FirstRelay=attacker.url), source)
                self.assertIsNone(attacker.offer(("PatchInventory", *key[1:]), 5, SourceDevice=source), source)
                content = b"in the name of " + source.encode()
                files = [(("T", "l", "forged", md5_of(content)), content, source)]
                identity = self.identity_of(self.relay, "forged")
                files += [(("IdentityIdentity", "l", f"forged{len(source)}", md5_of(identity)), identity, source)]
                name = f"{towards.name}{len(source)}"
                files += [(("T", "l", name, md5_of(good)), good, attacker.url)]
                packed = archive(*files)
                self.assertEqual(attacker.send(("FileStorePackedFiles", "l", f"{name}.zip"), packed), 201)
                expected[self.client.guid, "l", name] = hashlib.sha256(good).hexdigest()
            identity = self.identity_of(self.victim, "forged")
            self.assertEqual(attacker.send(("IdentityIdentity", "l", towards.name), identity), 201)
        wait_collected(self.master, expected, 60)
        about = f"is about device {self.victim.guid} but comes from"
        wait_until(lambda: self.master.log().count(about) >= 2, 30, "the master has seen both identities")
        self.assertEqual([key for key in collected_files(self.master) if key[2] == "forged"], [])
        self.assertNotIn("forged", {device["name"] for device in self.master.kel("devices")})

    def test_uploads_are_what_was_offered_and_the_sender_s(self):
        attacker, victim = self.device(self.client, self.relay), self.device(self.victim, self.relay)
        key = ("T", "l", "upload", md5_of(b"12345"))
        url = victim.offer(key, 5)
        self.assertEqual(attacker.put(url, b"12345"), 404, "another's upload")
        for target in "/FileStore/upstream/own.bin", "/FileStore/upstream/T/l/none/x.bin":
            self.assertEqual(attacker.put(target, b"x"), 404, "no upload was announced")
        self.assertIn(attacker.put("/FileStore/downstream/x.bin", b"x"), (403, 404))
        for content, headers in (b"1234", {}), (b"54321", {}), (b"12345", {"Content-Length": str(3 << 30)}):
            self.assertEqual(self.device(self.victim, self.relay).put(url, content, **headers), 422, content)
        self.assertEqual(victim.put(url, b"12345"), 201)
        package = {"AdministratedRelayGUID": self.relay.guid, "AdministratedRelayID": 12}
        self.assertEqual(attacker.send(("T", "l", "package"), b"x", FileInfo=package), 201)
        absent = [(("T", "l", f"absent{number}", md5_of(b"")), b"", attacker.url) for number in range(1000)]
        index = f"<Container>{''.join(record(*file) for file in absent)}</Container>"
        self.assertEqual(attacker.send(("FileStorePackedFiles", "l", "absent.zip"), zip_of([(INDEX, index)])), 201)
        zeros = b"\0" * (200 << 20)
        bomb = archive((("T", "l", "zeros", md5_of(zeros)), zeros, attacker.url), compression=zipfile.ZIP_DEFLATED)
        self.assertEqual(attacker.send(("FileStorePackedFiles", "l", "bomb.zip"), bomb), 201)
        long = self.device(self.client, self.relay).client
        self.assertEqual(long.request("POST", "/Action/KeysGetRevoked", headers={"Content-Length": str(16 << 20)})[0], 413)
        wait_collected(self.master, {(self.client.guid, "l", "package"): hashlib.sha256(b"x").hexdigest(),
                                     (self.victim.guid, "l", "upload"): hashlib.sha256(b"12345").hexdigest()}, 60)
        self.assertEqual([file for file in self.relay.kel("files") if file["name"] == "package"], [])
        wait_until(lambda: "Failed to extract packedfile" in self.relay.log(), 60, "the bomb is examined")
        for name in "absent.zip", "bomb.zip":
            wait_until(lambda: not list((self.relay.data / "FileStore").rglob(name)), 60, f"nothing is left of {name}")

    def test_what_waits_for_another_device_stays_its_own(self):
        self.assertEqual(self.victim.stop(), 0)
        relay, own = self.device(self.client, self.relay), self.names[self.client.guid]
        unseen = dict(FileType="Demo", FileLabel="files", FileName="secret", DeviceGUID=own)
        self.assertEqual(relay.call("FileStoreRequestFile", **unseen)[1]["FileURL"], "", "before it comes")
        path = write_files(self.tree.folder / "files", {"secret": 1000})["secret"]
        self.tree.publish([path], to=self.victim.name)

        def waiting():
            files = self.relay.call("FileStoreGetNotifiableFiles").get("Values", [])
            return [file for file in ([files] if isinstance(files, dict) else files)
                    if file["FileName"] == "secret" and file["FileChecksum"]]
        [file] = wait_until(waiting, 60, "the file waits for its device")
        key = [file[name] for name in KEY]
        for agent, url in ((self.relay, f"/FileStore/downstream/{key[0]}/{key[1]}/{key[3]}/{key[2]}"),
                           (self.master, f"/QuarnelDatabase/Packages/{key[1]}/{key[3]}/{key[2]}")):
            attacker, name = self.device(self.client, agent), self.names[self.victim.guid]
            for method, headers in (("GET", {}), ("HEAD", {}), ("GET", {"Range": "bytes=0-9"}),
                                    ("GET", {"If-None-Match": "*"})):
                self.assertEqual(attacker.client.request(method, url, headers=headers)[0], 403, (agent.name, method))
            self.assertEqual(attacker.call("FileStoreRequestFile", **unseen)[1].get("FileURL"), "", "without the checksum")
            for device in name, self.names[self.relay.guid]:
                acknowledged = attacker.call("FileStoreAcknowledgeFile", key, DeviceGUID=device)[0]
                if (agent, device) == (self.relay, name):  # elsewhere, nothing waits for it
                    self.assertEqual(acknowledged, 1)
                url_of_device = "/".join(device.split("/")[:2])
                contact = attacker.call("FileStoreDeviceContact", DeviceGUID=url_of_device, ParentGuid="0")[0]
                self.assertEqual(contact, 1)
                self.assertEqual(attacker.call("FileStoreRequestFile", key, DeviceGUID=device)[0], 1)
            self.assertEqual(attacker.call("FileStoreRequestFile", key)[0], 1, "as the device that is called")
            self.assertEqual(attacker.call("FileStoreReceiveUnconnectedFile", key)[0], 17)
            for kind in "Demo", "SelfHealingRecoveredFile":
                attacker.call("FileStoreReceiveFile", (kind, "l", "from below", "c"), FileURL="/x", FileSize=1)
            self.assertEqual(attacker.client.request("GET", url)[0], 403, agent.name)
        self.assertEqual(len(waiting()), 1)
        self.assertNotIn("from below", {file["name"] for agent in (self.relay, self.master) for file in agent.kel("files")})
        self.tree.run(self.victim)
        self.tree.wait_delivered({("files", "secret"): sha256_of(path)}, [self.victim], 60)

    def test_a_relay_reads_no_files_of_a_device_below_it(self):
        relay = self.device(self.relay, self.victim).client
        settings = {"QueueGap": 29, "PackagesRepositoryPath": str(self.victim.data / "Keys")}
        for action, values in (("FileStoreSetValues", {"Values": settings}),
                               ("HttpProtocolAddAlias", {"AliasName": "x", "AliasPath": "/"})):
            answer = json.loads(OperatorOfTree(self.victim, relay).pass_on(action, **values)[1])
            self.assertRegex(answer["Message"], "on the device itself", action)
        for url in "/AlternativePackagesRepositoryPath/key.pem", "/x/etc/passwd", "/FileStore/../Keys/key.pem", "/FileStore/FileStore.sqlite":
            self.assertEqual(relay.request("GET", url)[0], 404, url)
        values = self.victim.call("FileStoreGetValues")["Values"]
        self.assertEqual((values["QueueGap"], values["PackagesRepositoryPath"]), (30, ""))
        listen = {"LocalPath": str(self.victim.root / "config" / "x"), "FileURL": "/x"}
        for action, values in (("HttpProtocolMulticastStartListen", listen),
                               ("FileStoreReceiveFile", {"FilePath": "/etc/passwd"}), ("RelaySetParent", {"ParentName": "x"})):
            self.assertIn(relay.action(action, json.dumps(values))[1], (1, 17), action)

    def test_a_link_in_a_shared_folder_leads_nowhere(self):
        outside = self.tree.folder / "outside"
        outside.mkdir()
        place = self.client.data / "Delivery" / "Inbox" / "Linked"
        place.parent.mkdir(parents=True, exist_ok=True)
        place.symlink_to(outside)
        path = write_files(self.tree.folder / "linked", {"f": 1000})["f"]
        publish = lambda: self.tree.publish([path], "Linked", "l", self.client.name)  # noqa: E731
        publish()
        wait_until(lambda: f"{place} is in the way" in self.client.log(), 60, "the client has the file")
        self.assertEqual(list(outside.iterdir()), [])
        place.unlink()
        publish()
        wait_until(lambda: (place / "l" / "f").is_file(), 60, "the file is delivered without the link")

    def test_strangers_keep_no_device_out(self):
        with contextlib.ExitStack() as held:
            for source in (*(neighbour(self.relay, number) for number in (101, 102, 103)), "127.0.0.1"):
                for _ in range(3 * FEW["MaxConnections"] // 4):
                    held.enter_context(socket.create_connection((self.relay.address, self.relay.port), 30, (source, 0)))
            self.assertTrue(self.relay.kel("status"))
            self.assertEqual(self.device(self.victim, self.relay).call("KeysGetRevoked")[0], 0)
        stranger = neighbour(self.relay, 104)
        guess = lambda: KeyedClient(self.relay, source=stranger).action("KeysEnrol")[0]  # noqa: E731
        wait_until(lambda: guess() == 429, 60, "guesses are not examined any more")
        client = KeyedClient(self.relay, self.client.data / "Keys", stranger)
        self.addCleanup(client.connection.close)
        self.assertEqual(client.action("KeysGetRevoked")[:2], (200, 0), "a device at the same address")

    def test_an_agent_does_not_start_with_a_key_that_others_may_read(self):
        key = self.victim.data / "Keys" / "key.pem"
        self.assertEqual({path.stat().st_mode & 0o077 for path in self.master.data.glob("Keys/**/*")}, {0})
        self.assertEqual(self.victim.stop(), 0)
        key.chmod(0o644)
        run = subprocess.run([self.tree.kelagent, "--root", self.victim.root], text=True, capture_output=True, timeout=60)
        self.assertEqual(run.returncode, 1)
        self.assertIn("key.pem", run.stderr)
        key.chmod(0o600)
        self.tree.run(self.victim)


if __name__ == "__main__":
    unittest.main()
