"""What strangers in the network and other users of the device try without the password, and what they get."""

import contextlib
import os
import socket
import subprocess
import unittest
import zipfile

from case import BUILD, SystemTest, write_files, zip_of
from digest_client import DigestClient
from faults import Child, index_of, md5_of, packed_entries
from tree import AGENT_NAME, PASSWORD, Tree, free_port, sha256_of, wait_until

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
            for name in ("Agent.ini", "Delivery.ini"):
                (root / "config" / name).chmod(0o644)
                run = subprocess.run([tree.kelagent, "--root", root], text=True, capture_output=True, timeout=60)
                self.assertEqual(run.returncode, 1, name)
                self.assertIn("chmod 600", run.stderr, name)
                (root / "config" / name).chmod(0o600)
            tree.run(tree.master)
            self.end(tree)

    def test_weak_and_readable_passwords_are_refused(self):
        with Tree(BUILD, []) as tree:
            file = tree.folder / "new"
            for password, mode in (("x", 0o600), ("ababababababab", 0o600), (PASSWORD, 0o666), (PASSWORD, 0o640)):
                file.write_text(password + "\n")
                file.chmod(mode)
                run = subprocess.run([tree.kel, "init", tree.folder / "other", "--role", "master", "--address", "127.0.9.9",
                                      "--port", "20000", "--password-file", file], text=True, capture_output=True)
                self.assertIn(run.returncode, (1, 2), password)
                self.assertFalse((tree.folder / "other").exists())

    def test_links_in_a_shared_folder_lead_nowhere(self):
        with Tree(BUILD, [1]) as tree:
            shared, outside, client = tree.folder / "shared", tree.folder / "outside", tree.clients[0]
            outside.mkdir()
            (shared / "Demo").mkdir(parents=True)
            (shared / "Demo").chmod(0o777)
            (shared / "Demo" / "files").symlink_to(outside)
            client.set_ini("Delivery", "Delivery", "Folder", shared)
            tree.start()
            tree.publish(write_files(tree.folder / "files", {"passwd": 10}).values())
            wait_until(lambda: "files is in the way" in client.log(), 60, "the delivery fails")
            self.assertEqual(list(outside.iterdir()), [])
            self.end(tree)


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

    def test_silent_connections_lock_nobody_out(self):
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

        def guess():
            with contextlib.ExitStack() as held:
                sockets = [held.enter_context(self.connect(stranger)) for _ in range(18)]
                for guessing in sockets:
                    guessing.sendall(head.encode())
                return [guessing.recv(12)[9:] for guessing in sockets]
        self.assertIn(b"401", guess())
        wait_until(lambda: b"429" in guess(), 60, "guesses are not examined any more")
        for source in (self.relay.address, neighbour(self.master, 111), "127.0.0.1"):
            self.assertEqual(DigestClient(self.master, source).request("GET", "/x")[0], 404, source)
        self.assertEqual(self.master.log().count(f"Request from {stranger} with wrong credentials"), 1)

    def test_large_bodies_are_refused_before_they_come(self):
        for kind, size in (("json", 2 << 20), ("xml", 40 << 20)):
            run = subprocess.run(["curl", "-sS", "-o", "-", "-w", "%{http_code} %{size_upload}", *DigestClient(self.master).options,
                                  "-H", f"Content-Type: application/{kind}", "-H", "Expect: 100-continue",
                                  "--expect100-timeout", "60", "--data-binary", "@-",
                                  f"http://{self.master.address}:{self.master.port}/Action/AgentGetStatus"],
                                 input=b" " * size, capture_output=True, timeout=120)
            self.assertTrue(run.stdout.endswith(b"413 0"), (kind, run.stdout, run.stderr))

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


class TlsTreeTest(SystemTest):
    def test_a_tree_with_tls_everywhere_delivers(self):
        with Tree(BUILD, [1]) as tree:
            certificates, ports = tree.folder / "all.pem", {}
            for agent in tree.agents:
                key, certificate = tree.folder / f"{agent.name}.key", tree.folder / f"{agent.name}.pem"
                subprocess.run(["openssl", "req", "-x509", "-newkey", "ec", "-pkeyopt", "ec_paramgen_curve:P-256", "-nodes",
                                "-subj", f"/CN={agent.name}", "-addext", f"subjectAltName=IP:{agent.address}", "-keyout", key,
                                "-out", certificate], check=True, capture_output=True)
                with open(certificates, "a") as all_of_them:
                    all_of_them.write(certificate.read_text())
                ports[agent] = free_port(agent.address)
                for name, value in (("Port", ports[agent]), ("CertificateFile", certificate), ("KeyFile", key)):
                    agent.set_ini("HttpProtocol", "Ssl", name, value)
                for name, value in (("SslForce", "true"), ("SslCaFile", certificates)):
                    agent.set_ini("Agent", "Security", name, value)
                agent.set_ini("Identity", "Identity", "PreferIPAddresses", "true")
                if agent.parent:
                    agent.set_ini("Relay", "Relay", "ParentPort", ports[agent.parent])
            tree.start()
            path = write_files(tree.folder / "files", {"f.bin": 100_000})["f.bin"]
            tree.publish([path])
            tree.wait_delivered({("files", "f.bin"): sha256_of(path)}, tree.devices, 60)
            self.end(tree)


if __name__ == "__main__":
    unittest.main()
