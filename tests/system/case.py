"""What the system tests share: the build under test, and checks on a tree."""

import io
import os
import pathlib
import random
import sqlite3
import subprocess
import unittest
import zipfile

from tree import ActionFailed, free_port, wait_arrived, wait_until

BUILD = os.environ.get("KEL_BUILD", "build/release")
STOP_SECONDS = 5
INDEX = "Temp/PackedFilesInfo.xml"  # in an archive of packed files
# Files with names that a URL, a shell, SQL or XML has to escape, or that look like what is never served: name -> size.
ODD_FILES = {"plain.bin": 1, "with blank.bin": 2, "100%.bin": 1000, "hash#mark.bin": 65536, "what?.bin": 1 << 20,
             "grüße-文件.bin": 4096, "it's.bin": 300_000, "%41%2e.bin": 17, "a&b=c;d.bin": 5000, "[x]{y}.bin": 12345,
             "a.ini": 20, "b.SQLite": 8192}


class SystemTest(unittest.TestCase):
    def stop_all(self, tree):
        """Stops every agent; each must end by itself, in time and with exit code 0."""
        for agent in reversed(tree.agents):
            if agent.is_running():
                self.assertEqual(agent.stop(STOP_SECONDS), 0, agent.name)

    def end(self, tree):
        """Stops every agent and checks that no database is damaged."""
        self.stop_all(tree)
        for agent in tree.agents:
            databases = list(agent.data.rglob("*.sqlite"))
            self.assertGreaterEqual(len(databases), 3, f"{agent.name}: {databases}")
            for path in databases:
                with sqlite3.connect(path) as database:
                    self.assertEqual(database.execute("PRAGMA integrity_check").fetchall(), [("ok",)], path)

    def refused(self, kel, *arguments, code=1):
        """What a call of `kel` prints that must fail with this exit code."""
        with self.assertRaises(ActionFailed) as failed:
            kel(*arguments)
        self.assertEqual(failed.exception.exit_code, code, arguments)
        return failed.exception.text


def rows(agent, statement, upstream=False):
    """A selection in a database of a stopped agent's file store."""
    with sqlite3.connect(agent.data / "FileStore" / ("Upstream.sqlite" if upstream else "FileStore.sqlite")) as database:
        return database.execute(statement).fetchall()


def collected_files(master):
    """What the master collected: (device GUID, label, name) -> path."""
    return {(file["device"], file["label"], file["name"]): pathlib.Path(file["path"])
            for file in master.kel("collected")}


def wait_collected(master, expected, seconds):
    """Waits until the master holds all of `expected`, (device GUID, label, name) -> SHA-256, with that content."""
    wait_arrived(lambda: collected_files(master), expected, seconds, "collected")


def write_files(folder, sizes, seed=1):
    """Files with random content: name -> path."""
    source = random.Random(seed)
    folder.mkdir(parents=True, exist_ok=True)
    for name, size in sizes.items():
        (folder / name).write_bytes(source.randbytes(size))
    return {name: folder / name for name in sizes}


def zip_of(entries, compression=zipfile.ZIP_STORED):
    """A zip file with these (name, content) entries."""
    buffer = io.BytesIO()
    with zipfile.ZipFile(buffer, "w", compression) as archive:
        for name, content in entries:
            archive.writestr(name, content)
    return buffer.getvalue()


def use_tls(agent):
    """Gives an agent that is not running a port with TLS; that, and its certificate."""
    port, key, certificate = free_port(agent.address), agent.root / "key.pem", agent.root / "certificate.pem"
    subprocess.run(["openssl", "req", "-x509", "-newkey", "ec", "-pkeyopt", "ec_paramgen_curve:P-256", "-nodes", "-subj",
                    "/CN=agent", "-addext", f"subjectAltName=IP:{agent.address}", "-keyout", key, "-out", certificate],
                   check=True, capture_output=True)
    for name, value in (("Port", port), ("CertificateFile", certificate), ("KeyFile", key)):
        agent.set_ini("HttpProtocol", "Ssl", name, value)
    return port, certificate


def wait_for_part(agent, name, size, seconds=30):
    """Waits until an agent's store holds `size` bytes of the file `name`, complete or not."""
    def has_part():
        found = (agent.data / "FileStore" / "downstream").glob(f"*/*/*/{name}")
        return any(path.stat().st_size >= size for path in found)
    wait_until(has_part, seconds, f"{agent.name} holds {size} bytes of {name}")
