"""Files travel from the clients over relays up to the master, whatever their names, packed or not; requests travel up,
too."""

import io
import pathlib
import random
import signal
import subprocess
import unittest
import zipfile

from case import BUILD, ODD_FILES, STOP_SECONDS, SystemTest, collected_files, wait_collected, write_files
from tree import Tree, sha256_of, wait_until

FILES = {**ODD_FILES, "-rf.bin": 100, "n" * 200 + ".bin": 9}
FILE_TYPE = "Road up"
INDEX = "Temp/PackedFilesInfo.xml"
AT_REST = {"available", "packed"}


def send(client, paths, label):
    client.kel("send", "--type", FILE_TYPE, "--label", label, "--", *paths)


def expected_from(client, paths, label):
    guid = client.identity()["GUID"]
    return {(guid, label, path.name): sha256_of(path) for path in paths}


def pack_on(relay):
    relay.set_ini("FileStore", "UploadPolicy", "ConcatFiles", "auto")


class RoadUpTest(SystemTest):
    def test_every_file_is_collected(self):
        with Tree(BUILD, [1, 1]) as tree:
            pack_on(tree.relays[1])
            tree.start()
            expected = {}
            for number, client in enumerate(tree.clients):
                paths = list(write_files(tree.folder / client.name / "out", FILES, number).values())
                send(client, paths, "label one")
                expected.update(expected_from(client, paths, "label one"))
            wait_collected(tree.master, expected, 60)
            self.check_new_content_replaces(tree)
            self.assertIn("PushThread: Sending archive file", tree.relays[1].log())
            self.assertNotIn("PushThread: Sending archive file", tree.relays[0].log())
            for agent in tree.agents:
                wait_until(lambda: self.states(agent) <= AT_REST, 30, f"nothing is left to do on {agent.name}")
            self.end(tree)

    def states(self, agent):
        return {file["status"] for file in agent.kel("files", "--upstream") if file["type"] == FILE_TYPE}

    def check_new_content_replaces(self, tree):
        client = tree.clients[0]
        path = tree.folder / "plain.bin"
        path.write_bytes(b"newer")
        send(client, [path], "label one")
        wait_collected(tree.master, expected_from(client, [path], "label one"), 30)
        self.assertEqual(len([key for key in collected_files(tree.master) if key[2] == path.name]), 2)


class PackingTest(SystemTest):
    def test_archives_are_proper_zip_files(self):
        with Tree(BUILD, [1]) as tree:
            relay, client = tree.relays[0], tree.clients[0]
            pack_on(relay)
            tree.start()
            paths = write_files(tree.folder / "out", FILES)
            tree.master.process.send_signal(signal.SIGSTOP)  # so that the archive waits in the relay's store
            try:
                send(client, paths.values(), "packed")
                archive = wait_until(lambda: self.archive_of(relay, client), 30, "the relay has an archive")
            finally:
                tree.master.process.send_signal(signal.SIGCONT)
            self.check_archive(tree.folder, archive, paths)
            wait_collected(tree.master, expected_from(client, paths.values(), "packed"), 60)
            self.end(tree)

    def archive_of(self, relay, client):
        """The first complete archive in the relay's store that holds files of the client."""
        for path in (relay.data / "FileStore" / "upstream").glob("FileStorePackedFiles/*/*/*.zip"):
            content = path.read_bytes()
            with zipfile.ZipFile(io.BytesIO(content)) as archive:
                if any("/packed/" in name for name in archive.namelist()):
                    return content
        return None

    def check_archive(self, folder, content, paths):
        path = folder / "archive.zip"
        path.write_bytes(content)
        unzip = subprocess.run(["unzip", "-t", path], capture_output=True, text=True, timeout=30)
        self.assertEqual(unzip.returncode, 0, unzip.stdout + unzip.stderr)
        with zipfile.ZipFile(path) as archive:
            self.assertIsNone(archive.testzip())
            names = archive.namelist()
            self.assertEqual(names[0], INDEX)
            for name in names[1:]:
                parts = pathlib.PurePosixPath(name).parts
                self.assertEqual((parts[0], len(parts)), ("upstream", 5), name)
                if parts[2] == "packed":
                    self.assertEqual(archive.read(name), paths[parts[4]].read_bytes(), name)


class UnconnectedTest(SystemTest):
    def test_what_arises_while_the_parent_is_away_goes_up_later(self):
        with Tree(BUILD, [1]) as tree:
            tree.start()
            relay, client = tree.relays[0], tree.clients[0]
            self.assertEqual(relay.stop(STOP_SECONDS), 0)
            wait_until(lambda: not client.call("RelayGetValues")["Values"]["ParentSync"], 30, "the client misses its parent")
            source = random.Random(3)
            path = tree.folder / "any content.bin"
            path.write_bytes(source.randbytes(100_000))
            report = tree.folder / "report.xml"
            report.write_text('<Container><Value name="Disk">42</Value></Container>')
            for name, values in (("kept.bin", {"FilePath": str(path)}), ("report", {"CopyPath": str(report)})):
                client.call("FileStoreReceiveFile", FileType="Inventory", FileLabel="kept", FileName=name, Unconnected=True,
                            Upstream=True, **values)
            sent = tree.folder / "sent.bin"
            sent.write_bytes(source.randbytes(50_000))
            send(client, [sent], "kept")
            kept = client.data / "FileStore" / "unconnected" / "inventory"
            self.assertEqual({file.name for file in kept.iterdir()}, {"kept.bin", "kept.bin.xml", "report"})
            client.kill()
            client.start()
            client.wait_ready()
            relay.start()
            relay.wait_ready()
            guid = client.identity()["GUID"]
            expected = {(guid, "kept", "kept.bin"): sha256_of(path), (guid, "kept", "sent.bin"): sha256_of(sent)}
            wait_collected(tree.master, expected, 60)
            found = wait_until(lambda: collected_files(tree.master).get((guid, "kept", "report")), 30, "the report is collected")
            self.assertIn('<Value name="Disk" type="string">42</Value>', found.read_text())
            wait_until(lambda: not list(kept.iterdir()), 30, "what was handed over is not kept any more")
            self.end(tree)


class RequestTest(SystemTest):
    def test_a_file_for_nobody_is_fetched_by_request(self):
        with Tree(BUILD, [2]) as tree:
            tree.start()
            path = write_files(tree.folder / "out", {"it's on request.bin": 300_000})["it's on request.bin"]
            published = tree.publish([path], "Demo", "shelf", to="none")[0]
            self.assertEqual(published["targets"], 0)
            for client, extra in zip(tree.clients, ([], ["--checksum", published["checksum"]])):
                answer = client.kel("request", "--type", "Demo", "--label", "shelf", "--name", path.name, "--wait", 30, *extra)
                self.assertEqual((answer[0]["state"], sha256_of(answer[0]["path"])), ("delivered", sha256_of(path)))
            self.assertEqual(tree.master.log().count("Received request from "), 1, "the relay kept the file for the second")
            self.refused(tree.clients[0].kel, "request", "--type", "Demo", "--label", "shelf", "--name", "no such.bin",
                         "--wait", 3)
            wait_until(lambda: "File request for non-existant file" in tree.master.log(), 30, "the master drops the request")
            self.end(tree)


if __name__ == "__main__":
    unittest.main()
