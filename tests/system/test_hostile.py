"""What strangers, scripts and hostile devices reach over HTTP, and what they do not."""

import contextlib
import json
import pathlib
import shutil
import sqlite3
import subprocess
import tempfile
import unittest

from case import BUILD, SystemTest, collected_files, zip_of
from digest_client import DigestClient
from faults import Child, index_of, md5_of, packed_entries
from tree import AGENT_NAME, PASSWORD, NotInTime, Tree, sha256_of, wait_until

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


def nested(levels):
    return {"x": nested(levels - 1)} if levels else {}


SQL = "'; DROP TABLE Files; DROP TABLE Devices; --"
ANY = ["", SQL, "../../../../etc/passwd", "\x1b[2J\x07\n", "A" * (1 << 19), {}, {SQL: SQL}, [], [SQL, SQL], -1, 1 << 40]
HOSTILE = {"string": [*ANY, "%s%n%Q%", "\ufeff\u202e\u0000", "%2e%2e%2f", True, nested(50)],
           "bool": [*ANY, "perhaps", 2, nested(50)],
           "int32": [*ANY, -1 << 31, 1 << 31, (1 << 63) - 1, -1 << 63, "9" * 400, "1e9", True],
           "int64": [*ANY, -1 << 31, (1 << 63) - 1, -1 << 63, "9" * 400, "1e9", True],
           "container": [*ANY, nested(60), {"x" * 100_000: 1}, {name: -1 for name in ("Name", "GUID", "FileType")}]}
PLAUSIBLE = {"string": "x", "bool": True, "int32": 1, "int64": 1, "container": {}}
MOST_SECONDS = 300


class ValuesTest(SystemTest):
    maxDiff = None
    """Unusable values in every input of every action of a master."""

    def setUp(self):
        self.tree = Tree(BUILD, [])
        self.addCleanup(self.tree.close)
        self.tree.start()
        self.agent = self.tree.master
        self.folder = pathlib.Path(tempfile.mkdtemp(dir=self.tree.folder))

    def call_all(self, calls, source):
        """Calls all (action, arguments) one after the other: (HTTP status, result) of each. The connection lives on."""
        config = []
        for number, (action, arguments) in enumerate(calls):
            (self.folder / str(number)).write_text(json.dumps(arguments))
            config.append(f"""url = "http://{self.agent.address}:{self.agent.port}/Action/{action}"
data-binary = "@{self.folder / str(number)}"
header = "Content-Type: application/json"
header = "Accept: application/json"
header = "Expect:"
user = "{AGENT_NAME}:{PASSWORD}"
digest
interface = "{source}"
output = "/dev/null"
write-out = "%{{http_code}} %header{{kel-result}}\\n"
""")
        run = subprocess.run(["curl", "-sS", "-K", "-"], input="next\n".join(config), text=True, capture_output=True,
                             timeout=MOST_SECONDS)
        self.assertEqual(run.returncode, 0, run.stderr[-300:])
        answers = [line.split() for line in run.stdout.splitlines()]
        self.assertEqual(len(answers), len(calls))
        return [(int(answer[0]), int(answer[1]) if len(answer) > 1 else -1) for answer in answers]

    def state(self):
        """The rows of all databases, which are copied because the agent has them open, and the ini files. The master's
        own reports of its identity come and go."""
        found = {path.name: path.read_text().splitlines() for path in (self.agent.root / "config").iterdir()}
        for path in self.agent.data.rglob("*.sqlite"):
            copy = self.folder / path.name
            for end in ("", "-wal"):
                if pathlib.Path(f"{path}{end}").exists():
                    shutil.copy(f"{path}{end}", f"{copy}{end}")
            with sqlite3.connect(copy) as database:
                found[path.name] = [line for line in database.iterdump() if "'IdentityIdentity'" not in line]
        return found

    def changes(self, before):
        """Lines of the databases and ini files that are not in both states."""
        return {name: lines for name, now in self.state().items() if (lines := set(now) ^ set(before.get(name, ())))}

    def check_calls(self, calls, source):
        for (action, arguments), (status, result) in zip(calls, self.call_all(calls, source)):
            with self.subTest(action, arguments=str(arguments)[:200], status=status, result=result):
                self.assertIn(status, (200, 400))
                self.assertNotEqual(result, 18, "an internal error")
                self.assertNotEqual(result, 20, "an unknown action")

    def test_no_value_changes_anything_or_stops_an_agent(self):
        actions = self.agent.kel("call", "--list")
        settings = self.agent.call("FileStoreGetValues")["Values"]
        alone, among = [], []
        for action in actions:
            inputs = action.get("inputs", [])
            inputs = [inputs] if isinstance(inputs, dict) else inputs  # a list of one
            usual = {value["name"]: PLAUSIBLE[value["type"]] for value in inputs}
            for name, kind in [(value["name"], value["type"]) for value in inputs] or [("Unknown", "container")]:
                alone += [(action["name"], {name: value}) for value in HOSTILE[kind]]
                among += [(action["name"], {**usual, name: value}) for value in HOSTILE[kind][5:]]
        alone += [("FileStoreSetValues", {"Values": {name: value}}) for name, known in settings.items()
                  if not isinstance(known, str) for value in (SQL, "9" * 400, -1 << 63, {}, 1 << 40)]
        self.assertGreater(len(alone) + len(among), 5000)
        before = self.state()
        self.check_calls(alone, self.agent.address)
        with contextlib.suppress(NotInTime):
            wait_until(lambda: not self.changes(before), 60, "all is as it was")
        self.assertEqual(self.changes(before), {})
        # A device below may ask for a file of any name: rows come of that, but no setting changes.
        self.check_calls(among, self.agent.address.rsplit(".", 1)[0] + ".99")
        self.assertEqual([name for name in self.changes(before) if name.endswith(".ini")], [])
        self.assertEqual([action["name"] for action in self.agent.kel("call", "--list")],
                         [action["name"] for action in actions])
        self.assertNotRegex(self.agent.log(), r" ERROR \w+ Database ", "a value in the text of a statement")
        self.end(self.tree)


if __name__ == "__main__":
    unittest.main()
