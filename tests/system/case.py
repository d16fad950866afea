"""What the system tests share: the build under test, and checks on a tree that has been stopped."""

import os
import pathlib
import random
import sqlite3
import unittest

from tree import sha256_of, wait_until

BUILD = os.environ.get("KEL_BUILD", "build/release")
STOP_SECONDS = 5


class SystemTest(unittest.TestCase):
    def stop_all(self, tree):
        """Stops every agent; each must end by itself, in time and with exit code 0."""
        for agent in reversed(tree.agents):
            if agent.is_running():
                self.assertEqual(agent.stop(STOP_SECONDS), 0, agent.name)

    def check_databases(self, tree):
        """After the agents stopped: no database is damaged."""
        for agent in tree.agents:
            databases = list(agent.data.rglob("*.sqlite"))
            self.assertGreaterEqual(len(databases), 3, f"{agent.name}: {databases}")
            for path in databases:
                with sqlite3.connect(path) as database:
                    self.assertEqual(database.execute("PRAGMA integrity_check").fetchall(), [("ok",)], path)

    def rows(self, agent, statement, upstream=False):
        """A selection in a database of a stopped agent's file store."""
        with sqlite3.connect(agent.data / "FileStore" / ("Upstream.sqlite" if upstream else "FileStore.sqlite")) as database:
            return database.execute(statement).fetchall()


def collected_files(master):
    """What the master collected: (device GUID, label, name) -> path."""
    return {(file["Device"], file["FileLabel"], file["FileName"]): pathlib.Path(file["Path"])
            for file in master.kel("collected")}


def wait_collected(master, expected, seconds):
    """Waits until the master holds all of `expected`, (device GUID, label, name) -> SHA-256, with that content."""
    missing = dict(expected)

    def complete():
        for key, path in collected_files(master).items():
            if key in missing and sha256_of(path) == missing[key]:
                del missing[key]
        return not missing
    try:
        wait_until(complete, seconds, "")
    except TimeoutError:
        raise TimeoutError(f"not collected within {seconds} s: {sorted(missing)[:5]}") from None


def write_files(folder, sizes, seed=1):
    """Files with random content: name -> path."""
    source = random.Random(seed)
    folder.mkdir(parents=True, exist_ok=True)
    paths = {}
    for name, size in sizes.items():
        paths[name] = folder / name
        paths[name].write_bytes(source.randbytes(size))
    return paths


def large_part(agent, name):
    """Bytes that an agent's store holds of the file `name`, complete or not."""
    found = list((agent.data / "FileStore" / "downstream").glob(f"*/*/*/{name}"))
    return found[0].stat().st_size if found else 0


def wait_for_part(agent, name, size, seconds=30):
    wait_until(lambda: large_part(agent, name) >= size, seconds, f"{agent.name} holds {size} bytes of {name}")
