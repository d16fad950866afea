"""What strangers, scripts and hostile devices reach over HTTP, and what they do not."""

import json
import unittest

from case import BUILD, SystemTest, collected_files, zip_of
from digest_client import DigestClient
from faults import Child, index_of, md5_of, packed_entries
from tree import Tree, sha256_of, wait_until

EVIL = {"evil.bin": b"evil"}


class HostileTest(SystemTest):
    """A relay and its master, to which a device that knows the password sends files."""

    @classmethod
    def setUpClass(cls):
        cls.tree = Tree(BUILD, [0])
        cls.addClassCleanup(cls.tree.close)
        cls.tree.start()
        cls.agent, cls.relay = cls.tree.master, cls.tree.relays[0]
        cls.child = Child(cls.agent)

    def setUp(self):
        self.before = self.untouchables()

    def tearDown(self):
        self.assertEqual(self.untouchables(), self.before, "files outside the upstream store changed")

    def untouchables(self):
        """Path -> SHA-256 of all files of the master but those that change anyway."""
        def is_changing(path):
            parts = path.relative_to(self.agent.root).parts
            return parts[0] == "log" or parts[:3] == ("data", "FileStore", "upstream") or ".sqlite" in path.name
        extracts = lambda: list(self.agent.data.glob("FileStore/.extract-*"))
        wait_until(lambda: not extracts(), 20, "no archive is being unpacked")
        files = (path for path in self.agent.root.rglob("*") if path.is_file() and not is_changing(path))
        found = {path: sha256_of(path) for path in files}
        found.update((path, None) for path in self.tree.folder.iterdir())
        return found

    def offer(self, address, **values):
        """The result of an offer to the relay from this address."""
        values = {"FileType": "T", "FileLabel": "l", "FileName": "n", "FileChecksum": md5_of(b"evil"), **values}
        client = DigestClient(self.relay, address)
        status, result, _ = client.action("FileStoreReceiveFile", json.dumps({"FileSize": 4, **values}))
        self.assertEqual(status, 200)
        return result

    def test_only_the_upstream_store_can_be_written(self):
        for target in ("/FileStore/downstream/x.bin", "/FileStore/x.bin", "/FileStore/Upstream.sqlite", "/x.bin",
                       "/QuarnelDatabase/x.bin", "/FileStore/upstream/../x.bin", "/FileStore/upstream/T/L/none/x.bin"):
            self.assertIn(self.child.client.request("PUT", target, b"unasked")[0], (403, 404, 405), target)
        self.assertEqual(list(self.agent.root.rglob("x.bin")), [])

    def test_offers_are_judged_by_the_callers_address(self):
        """A stranger's offer is dropped with result 0; the parent may not name local files or other folders."""
        before, stranger = self.relay.stored_files(), self.child.url.split(":")[0]
        self.assertEqual(self.offer(stranger), 0)
        self.assertIn(f"from a relay ({stranger}) which is not ours.", self.relay.log())
        for values in ({"FileName": "../x"}, {"FileType": "O'Neill"}, {"FilePath": "/etc/passwd"}):
            self.assertEqual(self.offer(self.agent.address, **values), 1, values)
        self.assertEqual(self.relay.stored_files(), before)

    def test_only_good_archives_are_unpacked(self):
        index, (good,) = index_of(self.child, "T", EVIL), packed_entries("T", EVIL)
        for case, entry in (("parent", "upstream/T/l/../../../../evil.bin"),
                            ("absolute", str(self.agent.root / "config" / "Agent.ini"))):
            self.assertEqual(self.send_archive(case, [index, (entry, b"evil")]), 422, case)
        self.assertEqual(self.send_archive("path", [index_of(self.child, "T", {"../../evil.bin": b"evil"}), good]), 201)
        wait_until(lambda: "Failed to process file ../../evil.bin" in self.agent.log(), 20, "the record is refused")
        self.assertEqual(self.untouchables(), self.before)
        self.assertFalse(self.has_collected())
        self.assertEqual(self.send_archive("good", [index, good]), 201)
        wait_until(self.has_collected, 20, "the packed file is collected")
        # The collected file is a change outside the upstream store, which tearDown would report.
        self.before = self.untouchables()

    def has_collected(self):
        return any(name in EVIL for _, _, name in collected_files(self.agent))

    def send_archive(self, name, entries):
        content = zip_of(entries)
        url = self.child.offer(("FileStorePackedFiles", "l", f"{name}.zip", md5_of(content)), len(content))
        return self.child.client.request("PUT", url, content)[0]


if __name__ == "__main__":
    unittest.main()
