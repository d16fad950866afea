"""What strangers in the network and other users of the device try without the password, and what they get."""

import contextlib
import json
import os
import socket
import subprocess
import unittest
import zipfile

from case import BUILD, SystemTest, use_tls, write_files, zip_of
from digest_client import DigestClient
from faults import Child, index_of, md5_of, packed_entries
from tree import AGENT_NAME, Tree, sha256_of, wait_until

FEW = {"MaxConnections": 400, "MaxUnauthenticated": 60, "MaxUnauthenticatedPerAddress": 20}


def neighbour(agent, number):
    """An address of the machine that no agent has."""
    return agent.address.rsplit(".", 1)[0] + f".{number}"


def open_to_others(path):
    return path.lstat().st_mode & 0o077


class LocalUserTest(SystemTest):
    """Another user of the device, who may look around and write in shared folders."""

    def test_what_an_agent_keeps_is_its_owners(self):
        before = os.umask(0)
        self.addCleanup(os.umask, before)
        with Tree(BUILD, []) as tree:
            root = tree.master.root
            tree.start()
            tree.publish(write_files(tree.folder / "files", {"f": 10}).values(), to="none")
            self.stop_all(tree)
            self.assertEqual([root, *filter(open_to_others, root.glob("*"))], [root], "the root folder's content")
            self.assertEqual(open_to_others(root), 0)
            private = [*root.glob("config/*.ini"), *root.glob("log/*"), *root.glob("data/*/*.sqlite*")]
            self.assertGreater(len(private), 10)
            self.assertEqual([path for path in private if open_to_others(path)], [])

            for folder in (root, root / "config"):
                folder.chmod(0o755)
            tree.run(tree.master)
            self.assertEqual([open_to_others(folder) for folder in (root, root / "config")], [0, 0])
            self.assertIn("was open to other users of this device; closed", tree.master.log())
            self.stop_all(tree)
            tree.master.set_ini("Delivery", "Commands", "T", "/bin/true secret")
            (root / "config" / "Delivery.ini").chmod(0o644)
            run = subprocess.run([tree.kelagent, "--root", root], text=True, capture_output=True, timeout=60)
            self.assertEqual(run.returncode, 1)
            self.assertIn("Delivery.ini: names commands, but others may read or write it; chmod 600", run.stderr)
            tree.password_file.chmod(0o666)
            with self.assertRaises(subprocess.CalledProcessError):
                tree.add("another", "relay", tree.master)


class StrangerTest(SystemTest):
    """A master with a relay, and addresses in their network that do not belong to the tree."""

    @classmethod
    def setUpClass(cls):
        cls.tree = Tree(BUILD, [0])
        cls.addClassCleanup(cls.tree.close)
        cls.master, cls.relay = cls.tree.master, cls.tree.relays[0]
        for name, value in FEW.items():
            cls.master.set_ini("HttpProtocol", "HttpProtocol", name, value)
        cls.tree.start()

    def connect(self, source):
        return socket.create_connection((self.master.address, self.master.port), 30, (source, 0))

    def test_silent_connections_keep_no_others_out(self):
        with contextlib.ExitStack() as held:
            for source in (*(neighbour(self.master, n) for n in (101, 102, 103)), "127.0.0.1"):
                for _ in range(3 * FEW["MaxConnections"] // 4):
                    held.enter_context(self.connect(source))
            self.assertTrue(self.master.kel("status"))
            self.assertEqual(DigestClient(self.master, self.relay.address).action("AgentGetStatus", "{}")[0], 200)
            self.assertEqual(DigestClient(self.master, neighbour(self.master, 104)).action("AgentGetStatus", "{}")[0], 200)

    def test_guesses_become_expensive_and_fill_no_log(self):
        stranger = neighbour(self.master, 110)
        head = (f'GET /x HTTP/1.1\r\nHost: x\r\nAuthorization: Digest username="{AGENT_NAME}", realm="kel", nonce="0", '
                'uri="/x", algorithm=SHA-256, qop=auth, nc=00000001, cnonce="c", response="guess"\r\n\r\n')

        def guess(source):
            with contextlib.ExitStack() as held:
                sockets = [held.enter_context(self.connect(source)) for _ in range(18)]
                for guessing in sockets:
                    guessing.sendall(head.encode())
                return [guessing.recv(12)[9:] for guessing in sockets]
        self.assertIn(b"401", guess(stranger))
        wait_until(lambda: b"429" in guess(stranger), 60, "guesses are not examined any more")
        self.assertEqual(set(guess("127.0.0.1")), {b"401"}, "guesses from where the operator is")
        for source in (self.relay.address, neighbour(self.master, 111), "127.0.0.1"):
            self.assertEqual(DigestClient(self.master, source).request("GET", "/x")[0], 404, source)
        self.assertEqual(self.master.log().count(f"Request from {stranger} with wrong credentials"), 1)

    def test_nothing_is_left_of_refused_archives(self):
        child, zeros = Child(self.master), {"zeros": b"\0" * (200 << 20)}
        absent = {f"absent{number}": b"" for number in range(20_000)}
        archives = {"absent.zip": ([index_of(child, "T", absent)], "has no content of 20000 of the 20000 files"),
                    "bomb.zip": ([index_of(child, "T", zeros), *packed_entries("T", zeros)], "Failed to extract packedfile")}
        for name, (entries, _) in archives.items():
            content = zip_of(entries, zipfile.ZIP_DEFLATED)
            url = child.offer(("FileStorePackedFiles", "l", name, md5_of(content)), len(content))
            self.assertEqual(child.client.request("PUT", url, content)[0], 201, name)
        stored = self.master.data / "FileStore"
        for name, (_, message) in archives.items():
            wait_until(lambda: message in self.master.log(), 120, f"{name} is examined")
            wait_until(lambda: not list(stored.rglob(name)), 60, f"{name} is gone")
        self.assertLess(self.master.log().count("absent1"), 20)


class MemberTest(SystemTest):
    """What a device of the tree, or another user of one, who knows the password, tries at a relay and the client below."""

    @classmethod
    def setUpClass(cls):
        cls.tree = Tree(BUILD, [1])
        cls.addClassCleanup(cls.tree.close)
        cls.relay, cls.client = cls.tree.relays[0], cls.tree.clients[0]
        cls.tree.start()

    def refuses(self, client, action, **values):
        status, result, body = client.action(action, json.dumps(values))
        self.assertEqual(status, 200)
        self.assertIn(result, (1, 17), (action, values, body))

    def test_the_password_configures_nothing_and_brings_nothing_from_above(self):
        state = lambda: [self.relay.kel(*words) for words in (("settings", "get"), ("windows",), ("files",))]  # noqa: E731
        before, key = state(), {"FileType": "T", "FileLabel": "l", "FileName": "n", "FileChecksum": "c"}
        for source in (neighbour(self.relay, 120), self.relay.address, "127.0.0.1"):
            member = DigestClient(self.relay, source)
            for name, value in (("TrustedAddressRange", "0.0.0.0-255.255.255.255"), ("PackagesRepositoryPath", "/etc")):
                self.refuses(member, "FileStoreSetValues", Values={name: value})
            self.refuses(member, "TransferWindowSetWindow", Direction=1, Week="closed")
            self.refuses(member, "RelaySetParent", ParentName=source, ParentPort=1)
            self.refuses(member, "CoreUtilsExtractFile", FilePath="/x.zip", DestinationPath="/tmp")
            self.refuses(member, "FileStoreResetMulticastStatus", FileURL="/x")
            self.refuses(member, "FileStoreWithdrawFile", **key)
            self.refuses(member, "FileStoreReceiveUnconnectedFile", **key)
            self.refuses(member, "FileStoreReceiveFile", **key, Unconnected=True)
            self.refuses(member, "FileStoreRequestFile", **key)
            for kind in ("T", "SelfHealingRecoveredFile"):
                member.action("FileStoreReceiveFile", json.dumps(key | {"FileType": kind, "FileURL": "/x", "FileSize": 1}))
        self.assertEqual(state(), before)
        self.relay.kel("settings", "set", "QueueGap=0")
        self.assertEqual(self.relay.call("FileStoreGetValues")["Values"]["QueueGap"], 1)

    def test_a_device_acts_for_itself_only(self):
        victim, other = Child(self.relay, 121), Child(self.relay, 122)
        key = ("T", "l", "n", md5_of(b"12345"))
        url = victim.offer(key, 5)
        self.assertIsNone(other.offer(key, 5, SourceDevice=victim.url), "another's name")
        self.assertEqual(other.client.request("PUT", url, b"12345")[0], 404, "another's upload")
        self.assertEqual(other.client.request("PUT", "/FileStore/upstream/own.bin", b"x")[0], 404, "no place of the store")
        huge = [f"Content-Length: {3 << 30}"]
        self.assertEqual(victim.client.request("PUT", url, b"12345", huge)[0], 422, "not the announced size")
        self.assertTrue(victim.put(url, b"12345"))
        package = {"AdministratedRelayGUID": self.relay.identity()["GUID"], "AdministratedRelayID": 12}
        other.put(other.offer(("T", "l", "package", md5_of(b"x")), 1, FileInfo=package), b"x")
        collected = self.tree.master.data / "Delivery"
        wait_until(lambda: list(collected.rglob("package*")), 60, "the file goes up like any other")
        self.assertEqual([file for file in self.relay.kel("files") if file["name"] == "package"], [])

        self.client.stop()
        published = write_files(self.tree.folder / "files", {"waits": 10})["waits"]
        self.tree.publish([published])

        def waiting():
            files = self.relay.call("FileStoreGetNotifiableFiles").get("Values", [])
            return [file for file in ([files] if isinstance(files, dict) else files) if file["FileName"] == "waits"]
        [file] = wait_until(waiting, 60, "the file waits for the client")
        named = {name: file[name] for name in ("FileType", "FileLabel", "FileName", "FileChecksum")}
        guid = next(device["guid"] for device in self.tree.master.kel("devices") if device["name"] == self.client.name)
        for address in (self.client.address, victim.url.split(":")[0]):
            self.refuses(victim.client, "FileStoreAcknowledgeFile", **named, DeviceGUID=f"{address}:1610/{guid}")
            self.refuses(victim.client, "FileStoreDeviceContact", DeviceGUID=f"{address}:1610/{guid}", ParentGuid="0")
        self.assertEqual(len(waiting()), 1)
        self.tree.run(self.client)
        self.tree.wait_delivered({("files", "waits"): sha256_of(published)}, [self.client], 60)


class TlsTreeTest(SystemTest):
    def test_a_tree_with_tls_everywhere_delivers(self):
        with Tree(BUILD, [1]) as tree:
            certificates, ports = tree.folder / "all.pem", {}
            for agent in tree.agents:
                ports[agent], certificate = use_tls(agent)
                with open(certificates, "a") as all_of_them:
                    all_of_them.write(certificate.read_text())
                for name, value in (("SslForce", "true"), ("SslCaFile", certificates)):
                    agent.set_ini("Agent", "Security", name, value)
                if agent.parent:
                    agent.set_ini("Relay", "Relay", "ParentPort", ports[agent.parent])
            tree.start()
            path = write_files(tree.folder / "files", {"f.bin": 100_000})["f.bin"]
            tree.publish([path])
            tree.wait_delivered({("files", "f.bin"): sha256_of(path)}, tree.devices, 60)
            self.end(tree)


if __name__ == "__main__":
    unittest.main()
