"""What strangers, scripts and hostile devices reach over HTTP, and what they do not."""

import hashlib
import json
import unittest
import urllib.parse

from case import BUILD, INDEX, SystemTest, collected_files, zip_of
from digest_client import DigestClient
from tree import Tree, sha256_of, wait_until

GOOD_INDEX = ('<Container><Value name="PackedFile" type="container"><Value name="FileType">T</Value>'
              '<Value name="FileLabel">L</Value><Value name="FileName">%s</Value><Value name="FileChecksum">%s</Value>'
              '<Value name="SourceDevice">%s</Value><Value name="Upstream" type="bool">true</Value>'
              '<Value name="FileSize" type="int64">4</Value></Value></Container>')
CHECKSUM = hashlib.md5(b"evil").hexdigest()


class HostileTest(SystemTest):
    """A relay and its master, to which a device that knows the password sends files."""

    @classmethod
    def setUpClass(cls):
        cls.tree = Tree(BUILD, [0])
        cls.addClassCleanup(cls.tree.close)
        cls.tree.start()
        cls.agent, cls.relay = cls.tree.master, cls.tree.relays[0]
        cls.stranger = cls.agent.address.rsplit(".", 1)[0] + ".200"
        cls.client = DigestClient(cls.agent, cls.stranger)
        cls.source = f"{cls.stranger}:1610/{cls.agent.identity()['GUID'][:4]}0000-0000-0000-0000-000000000001"

    def setUp(self):
        self.log_begin = len(self.agent.log())
        self.before = self.untouchables()

    def tearDown(self):
        self.assertEqual(self.untouchables(), self.before, "files outside the upstream store changed")

    def untouchables(self):
        """Path -> SHA-256 of all files of the master but those that change anyway."""
        def is_changing(path):
            parts = path.relative_to(self.agent.root).parts
            return parts[0] == "log" or parts[:3] == ("data", "FileStore", "upstream") or ".sqlite" in path.name
        found = {path: sha256_of(path) for path in self.agent.root.rglob("*") if path.is_file() and not is_changing(path)}
        found.update((path, None) for path in self.tree.folder.iterdir())
        return found

    def wait_logged(self, text):
        wait_until(lambda: text in self.agent.log()[self.log_begin:], 20, f"'{text}' in the log of the master")

    def collected_names(self):
        return {name for _, _, name in collected_files(self.agent)}

    def offer(self, client, **values):
        """Offers a file; result and answer."""
        key = {"FileType": "T", "FileLabel": "L", "FileName": "n", "FileChecksum": CHECKSUM, "FileSize": 4}
        status, result, body = client.action("FileStoreReceiveFile", json.dumps({**key, **values}))
        self.assertEqual(status, 200)
        return result, body

    def offer_upstream(self, name, content, kind="T"):
        """Offers a file as a child does; the URL for its content."""
        result, body = self.offer(self.client, FileType=kind, FileName=name, FileSize=len(content), Upstream=True,
                                  FileChecksum=hashlib.md5(content).hexdigest(), SourceDevice=self.source)
        self.assertEqual(result, 0, body)
        return urllib.parse.quote(json.loads(body)["FileURL"])

    def test_only_the_upstream_store_can_be_written(self):
        for target in ("/FileStore/downstream/x.bin", "/FileStore/x.bin", "/FileStore/Upstream.sqlite", "/x.bin",
                       "/QuarnelDatabase/x.bin", "/FileStore/upstream/../x.bin", "/FileStore/upstream/T/L/none/x.bin"):
            self.assertIn(self.client.request("PUT", target, b"unasked")[0], (403, 404, 405), target)
        self.assertEqual(list(self.agent.root.rglob("x.bin")), [])

    def test_offers_are_judged_by_the_callers_address(self):
        """A stranger's offer is dropped with result 0; the parent may not name local files or other folders."""
        before = self.relay.stored_files()
        parent, stranger = (DigestClient(self.relay, address) for address in (self.agent.address, self.stranger))
        self.assertEqual(self.offer(stranger)[0], 0)
        self.assertIn(f"from a relay ({self.stranger}) which is not ours.", self.relay.log())
        for values in ({"FileName": "../x"}, {"FileType": "O'Neill"}, {"FilePath": "/etc/passwd"}):
            self.assertEqual(self.offer(parent, **values)[0], 1, values)
        self.assertEqual(self.relay.stored_files(), before)

    def test_only_good_archives_are_unpacked(self):
        index = (INDEX, GOOD_INDEX % ("evil.bin", CHECKSUM, self.source))
        good = (f"upstream/T/L/{CHECKSUM}/evil.bin", b"evil")
        foreign = "Refusing the upload"
        cases = {
            "parent": ([index, ("upstream/T/L/../../../../evil.bin", b"evil")], foreign),
            "absolute": ([index, (str(self.agent.root / "config" / "Agent.ini"), b"evil")], foreign),
            "malformed index": ([(INDEX, "<Container><Value"), good], "does not contains required data."),
            "index with a path": ([(INDEX, GOOD_INDEX % ("../../evil.bin", CHECKSUM, self.source)), good],
                                  "Failed to process file ../../evil.bin"),
        }
        for case, (entries, logged) in cases.items():
            with self.subTest(case):
                self.log_begin = len(self.agent.log())
                status = self.send_archive(f"{case}.zip", zip_of(entries))
                self.assertEqual(status, 422 if logged == foreign else 201)
                self.wait_logged(logged)
                self.assertEqual(self.untouchables(), self.before)
                self.assertNotIn("evil.bin", self.collected_names())
        self.assertEqual(self.send_archive("good.zip", zip_of([index, good])), 201)
        wait_until(lambda: "evil.bin" in self.collected_names(), 20, "the packed file is collected")
        # The collected file is a change outside the upstream store, which tearDown would report.
        self.before = self.untouchables()

    def send_archive(self, name, content):
        url = self.offer_upstream(name, content, "FileStorePackedFiles")
        return self.client.request("PUT", url, content)[0]


if __name__ == "__main__":
    unittest.main()
