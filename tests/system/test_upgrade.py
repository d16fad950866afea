"""An agent brings the databases of an older version up to date, or leaves them as they are."""

import pathlib
import re
import sqlite3
import subprocess
import unittest

from case import BUILD, SystemTest
from tree import Tree, wait_until

# Database, the ini file and section with its schema, and a row that the first version could hold.
DATABASES = {
    "FileStore/FileStore.sqlite": ("FileStore", "SqlUpgrade", "Files", "FileType,FileLabel,FileName,FileChecksum"),
    "FileStore/Upstream.sqlite": ("FileStore", "SqlUpgrade3", "Files", "FileType,FileLabel,FileName,FileChecksum"),
    "FileStore/Callback.sqlite": ("FileStore", "SqlUpgrade2", None, None),
    "Console/Console.sqlite": ("Console", "SqlUpgrade", "Devices", "GUID,Name,Role,Address")}


def scripts(module, section):
    """The entries of a section of the ini file that the build installs with a module, in their order."""
    text = (pathlib.Path(BUILD) / "modules" / f"{module}.ini").read_text()
    part = text.split(f"\n[{section}]\n")[1].split("\n[")[0]
    return [line.split("=", 1)[1] for line in part.split("\n") if re.match(r"Sql\d+=", line)]


def make(path, entries, table, columns):
    """A database as the version with these entries has left it."""
    path.parent.mkdir(parents=True, exist_ok=True)
    for old in path.parent.glob(path.name + "*"):
        old.unlink()
    with sqlite3.connect(path) as database:
        for entry in entries:
            database.executescript(entry)
        database.execute("CREATE TABLE DatabaseInformation (FieldName TEXT PRIMARY KEY NOT NULL, FieldValue TEXT)")
        database.execute("INSERT INTO DatabaseInformation VALUES ('SchemaVersion', ?)", (str(len(entries)),))
        if table:
            database.execute(f"INSERT INTO {table} ({columns}) VALUES ('a', 'b', 'c', 'd')")
    database.close()


def state(path, table):
    """Schema version and number of rows of a database that no agent uses."""
    with sqlite3.connect(path) as database:
        version, = database.execute("SELECT FieldValue FROM DatabaseInformation WHERE FieldName='SchemaVersion'")
        return int(version[0]), table and database.execute(f"SELECT count(*) FROM {table}").fetchone()[0]


class UpgradeTest(SystemTest):
    def make_all(self, master, missing):
        """Databases that lack the last `missing` versions, but have the first."""
        for name, (module, section, table, columns) in DATABASES.items():
            entries = scripts(module, section)
            make(master.data / name, entries[:max(1, len(entries) - missing)], table, columns)

    def test_databases_of_older_versions(self):
        with Tree(BUILD, []) as tree:
            master = tree.master
            for missing in (99, 1):
                with self.subTest(missing=missing):
                    self.make_all(master, missing)
                    tree.run(master)
                    wait_until(lambda: "Ready at" in master.log(), 30, "ready")
                    self.assertEqual(list(master.data.rglob("*.schema-*")), [])
                    self.assertEqual(master.stop(), 0)
                    for name, (module, section, table, _) in DATABASES.items():
                        version, rows = state(master.data / name, table)
                        self.assertEqual(version, len(scripts(module, section)), name)
                        self.assertTrue(table is None or rows >= 1, name)

    def test_an_upgrade_that_fails_leaves_the_database_and_says_why(self):
        with Tree(BUILD, []) as tree:
            master, name = tree.master, "Console/Console.sqlite"
            self.make_all(master, 4)
            with sqlite3.connect(master.data / name) as database:
                database.execute("CREATE INDEX PublicationTargetsDevice ON Devices (Name)")  # of a later version
            database.close()
            before = state(master.data / name, "Devices")
            run = subprocess.run([tree.kelagent, "--root", master.root], timeout=60, capture_output=True)
            self.assertEqual(run.returncode, 1)
            self.assertRegex(master.log(),
                             rf"Console\.sqlite: the upgrade from schema version {before[0]} to \d+ .* failed")
            self.assertEqual(state(master.data / name, "Devices"), before)
            with sqlite3.connect(master.data / name) as database:
                database.execute("DROP INDEX PublicationTargetsDevice")
            database.close()
            tree.run(master)


if __name__ == "__main__":
    unittest.main()
