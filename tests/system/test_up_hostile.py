"""What a device that knows the tree's password, but wishes it ill, can do to the agent above it: nothing outside the
upstream store."""

import hashlib
import io
import json
import unittest
import urllib.parse
import warnings
import zipfile

from case import BUILD, SystemTest, collected_files
from digest_client import DigestClient
from tree import Tree, sha256_of, wait_until

SYMLINK_MODE = 0o120777 << 16
BOMB_BYTES = 256 << 20
INDEX = "Temp/PackedFilesInfo.xml"
GOOD_INDEX = ('<Container><Value name="PackedFile" type="container"><Value name="FileType">T</Value>'
              '<Value name="FileLabel">L</Value><Value name="FileName">%s</Value><Value name="FileChecksum">%s</Value>'
              '<Value name="SourceDevice">%s</Value><Value name="Upstream" type="bool">true</Value>'
              '<Value name="FileSize" type="int64">4</Value></Value></Container>')
CHECKSUM = hashlib.md5(b"evil").hexdigest()


def zip_of(entries, compression=zipfile.ZIP_STORED):
    """A zip file with these (name or ZipInfo, content) entries."""
    buffer = io.BytesIO()
    with zipfile.ZipFile(buffer, "w", compression) as archive, warnings.catch_warnings():
        warnings.simplefilter("ignore")  # of names that are there twice
        for name, content in entries:
            archive.writestr(name, content)
    return buffer.getvalue()


class HostileTest(SystemTest):
    @classmethod
    def setUpClass(cls):
        cls.tree = Tree(BUILD, [])
        try:
            cls.agent = cls.tree.master
            cls.agent.start()
            cls.agent.wait_ready()
            stranger = cls.agent.address.rsplit(".", 1)[0] + ".200"
            cls.client = DigestClient(cls.agent, source=stranger)
            cls.source = f"{stranger}:1610/{cls.agent.identity()['GUID'][:4]}0000-0000-0000-0000-000000000001"
            wait_until(lambda: "IdentityIdentity" in {file["FileType"] for file in cls.agent.kel("files", "--upstream")}, 30,
                       "the master's own start is over")
        except BaseException:
            cls.tree.close()
            raise

    @classmethod
    def tearDownClass(cls):
        try:
            code = cls.agent.stop()
        finally:
            cls.tree.close()
        assert code == 0, code

    def setUp(self):
        self.log_begin = len(self.agent.log())
        self.before = self.untouchables()

    def tearDown(self):
        self.assertEqual(self.untouchables(), self.before, "files outside the upstream store changed")
        self.assertTrue(self.agent.call("AgentGetStatus"))

    def new_log(self):
        return self.agent.log()[self.log_begin:]

    def wait_logged(self, *texts):
        for text in texts:
            wait_until(lambda: text in self.new_log(), 20, f"'{text}' in the log:\n{self.new_log()[-2000:]}")

    def untouchables(self):
        """Path -> SHA-256 of all files but those that change anyway."""
        def is_changing(path):
            parts = path.relative_to(self.agent.root).parts
            return parts[0] == "log" or parts[:3] == ("data", "FileStore", "upstream") or ".sqlite" in path.name
        found = {path: sha256_of(path) for path in self.agent.root.rglob("*") if path.is_file() and not is_changing(path)}
        found.update((path, None) for path in self.tree.folder.iterdir())
        return found

    def offer(self, name, content, kind="T"):
        """Offers a file as a child does; the URL for its content."""
        checksum = hashlib.md5(content).hexdigest()
        status, result, body = self.client.action("FileStoreReceiveFile", json.dumps({
            "FileType": kind, "FileLabel": "L", "FileName": name, "FileChecksum": checksum, "FileSize": len(content),
            "Upstream": True, "SourceDevice": self.source}))
        self.assertEqual((status, result), (200, 0), body)
        return urllib.parse.quote(json.loads(body)["FileURL"])

    def stored(self, name):
        return list((self.agent.data / "FileStore").rglob(name))

    def send_archive(self, name, content):
        url = self.offer(name, content, "FileStorePackedFiles")
        self.assertIn(self.client.request("PUT", url, content)[0], (201, 204))

    def test_a_good_archive_is_taken(self):
        """Otherwise the refusals below would prove nothing."""
        content = zip_of([(INDEX, GOOD_INDEX % ("good.bin", CHECKSUM, self.source)),
                          (f"upstream/T/L/{CHECKSUM}/good.bin", b"evil")])
        self.send_archive("good.zip", content)
        wait_until(lambda: "good.bin" in {name for _, _, name in collected_files(self.agent)}, 20, "the packed file is collected")
        self.assertEqual(self.stored("good.zip"), [])
        # Collected on purpose: not one of the changes that tearDown looks for.
        self.before = self.untouchables()

    def test_bad_archives_are_refused(self):
        link = zipfile.ZipInfo(f"upstream/T/L/{CHECKSUM}/link")
        link.external_attr = SYMLINK_MODE
        link.create_system = 3
        index = (INDEX, GOOD_INDEX % ("evil.bin", CHECKSUM, self.source))
        good = (f"upstream/T/L/{CHECKSUM}/evil.bin", b"evil")
        refused, extracted = "Failed to extract packedfile", "Refusing packedfile"
        cases = {
            "parent": ([index, ("../../../evil.bin", b"evil")], extracted),
            "inner parent": ([index, ("upstream/T/L/../../../../evil.bin", b"evil")], extracted),
            "absolute": ([index, (str(self.agent.root / "config" / "Agent.ini"), b"evil")], extracted),
            "backslashes": ([index, ("upstream\\..\\..\\evil.bin", b"evil")], extracted),
            "downstream": ([index, (f"downstream/T/L/{CHECKSUM}/evil.bin", b"evil")], extracted),
            "database": ([index, ("Upstream.sqlite", b"evil")], extracted),
            "link": ([index, (link, "/etc/passwd")], refused),
            "twice": ([index, good, good], refused),
            "no index": ([good], "Failed to retrieve"),
            "malformed index": ([(INDEX, "<Container><Value"), good], "file does not contains required data."),
            "empty index": ([(INDEX, "<Container></Container>"), good], "file does not contains required data."),
            "index with a path": ([(INDEX, GOOD_INDEX % ("../../evil.bin", CHECKSUM, self.source)), good],
                                  "Failed to process file ../../evil.bin"),
        }
        for case, (entries, logged) in cases.items():
            with self.subTest(case):
                self.log_begin = len(self.agent.log())
                self.send_archive(f"{case}.zip", zip_of(entries))
                self.wait_logged(logged)
                self.assertEqual(self.untouchables(), self.before)
                self.assertNotIn("evil.bin", {name for _, _, name in collected_files(self.agent)})

    def test_what_is_no_archive_and_what_is_too_large(self):
        self.send_archive("noise.zip", bytes(range(256)) * 100)
        self.wait_logged("Failed to extract packedfile")
        self.log_begin = len(self.agent.log())
        index = (INDEX, GOOD_INDEX % ("bomb.bin", CHECKSUM, self.source))
        bomb = zip_of([index, (f"upstream/T/L/{CHECKSUM}/bomb.bin", bytes(BOMB_BYTES))], zipfile.ZIP_DEFLATED)
        self.send_archive("bomb.zip", bomb)
        self.wait_logged("Failed to extract packedfile")
        self.assertEqual(self.stored("bomb.bin"), [])

    def test_content_that_nobody_announced_is_deleted(self):
        url = self.offer("announced.bin", b"evil")
        other = url.rsplit("/", 1)[0] + "/other.bin"
        self.assertEqual(self.client.request("PUT", other, b"unasked")[0], 201)
        self.wait_logged(f"CallbackThread: Received unregistered file, deleting {other}")
        wait_until(lambda: not self.stored("other.bin"), 10, "the file is gone")
        for target in ("/FileStore/upstream/T/L/none/x.bin", "/FileStore/upstream/x.bin/y/z/a/b",
                       "/FileStore/upstream/../x.bin", "/FileStore/upstream/T/%2e%2e/x.bin", "/FileStore/upstream/T/L/.."):
            self.assertIn(self.client.request("PUT", target, b"unasked")[0], (400, 403, 404, 409), target)
        self.assertEqual(self.stored("x.bin"), [])

    def test_only_the_upstream_store_can_be_written(self):
        for target in ("/FileStore/downstream/x.bin", "/FileStore/x.bin", "/FileStore/Upstream.sqlite", "/x.bin",
                       "/QuarnelDatabase/x.bin", "/Action/AgentGetStatus"):
            self.assertIn(self.client.request("PUT", target, b"unasked")[0], (403, 404, 405), target)
        self.assertEqual(list(self.agent.root.rglob("x.bin")), [])

    def test_broken_uploads_leave_nothing(self):
        url = self.offer("broken.bin", b"0123456789")
        folder = self.agent.data / "FileStore" / url.split("/", 2)[2].rsplit("/", 1)[0]
        self.assertTrue(folder.is_dir(), folder)
        cases = {("Content-Length: 10",): None, ("Content-Length: -1",): 400, ("Content-Length: ten",): 400,
                 ("Content-Length: 10", "Content-Length: 5"): 400, ("Content-Length: 99999999999999999999",): 400,
                 ("Content-Length: 10", "Transfer-Encoding: chunked"): 400, (): 411,
                 ("Content-Length: 5", "Content-Range: bytes 0-4/10"): 400}
        for fields, status in cases.items():
            with self.subTest(fields):
                self.assertIn(self.client.raw("PUT", url, fields, b"01234"), (status, 400), fields)
                wait_until(lambda: list(folder.iterdir()) == [], 10, f"nothing in {folder}")
        self.assertNotIn("Received callback for " + url, self.new_log())
        self.assertEqual(self.client.request("PUT", url, b"0123456789")[0], 201, "the true content is still welcome")
        wait_until(lambda: "broken.bin" in {name for _, _, name in collected_files(self.agent)}, 20, "it is collected")
        self.before = self.untouchables()

    def test_hostile_offers_are_refused(self):
        for values in ({"FileName": "../x"}, {"FileLabel": ".."}, {"FileType": "a/b"}, {"FileChecksum": "a'b"}, {"FileSize": 0},
                       {"FileSize": -5}, {"MovePath": "/etc/passwd"}, {"CopyPath": "/etc/passwd"}, {"FilePath": "/etc/passwd"}):
            offer = {"FileType": "T", "FileLabel": "L", "FileName": "n", "FileChecksum": "c", "FileSize": 5, "Upstream": True,
                     "SourceDevice": self.source, **values}
            self.assertEqual(self.client.action("FileStoreReceiveFile", json.dumps(offer))[:2], (200, 1), values)
        foreign = {**offer, "SourceDevice": self.source.replace("/", "/0000", 1)}
        foreign.pop("FilePath")
        self.assertIn(self.client.action("FileStoreReceiveFile", json.dumps(foreign))[1], (1, 44005))


if __name__ == "__main__":
    unittest.main()
