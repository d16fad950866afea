"""Files travel from the master over relays to the clients and up again, whatever their names, packed or not, also when
they are published again; requests travel up, too, and nothing is left to do."""

import shutil
import unittest

from case import BUILD, ODD_FILES, STOP_SECONDS, SystemTest, collected_files, rows, wait_collected, write_files
from faults import AT_REST
from tree import Tree, sha256_of, wait_until

FILES = {**ODD_FILES, "-rf.bin": 100, "n" * 200 + ".bin": 9}
FILE_TYPE = "Road up"


class RoadTest(SystemTest):
    def test_every_file_arrives_is_verified_and_acknowledged(self):
        with Tree(BUILD, [2]) as tree:
            tree.start()
            self.assertEqual({device["name"] for device in tree.master.kel("devices")},
                             {agent.name for agent in tree.agents})
            paths = write_files(tree.folder / "files", {**ODD_FILES, "empty.bin": 0})
            expected = {("label one", name): sha256_of(path) for name, path in paths.items()}
            published = tree.publish(paths.values(), "Road", "label one")
            self.assertEqual([item["targets"] for item in published], [3] * len(paths))
            tree.wait_delivered(expected, tree.devices, 60)
            self.check_one_device(tree, paths)
            wait_until(lambda: all(map(self.has_acknowledged_all, tree.devices)), 30, "all files acknowledged")
            self.end(tree)
            for agent in tree.agents:
                self.assertEqual(rows(agent, "SELECT * FROM Targets"), [], f"targets left on {agent.name}")

    def check_one_device(self, tree, paths):
        """A file for one client only goes to no other."""
        client, other = tree.clients
        target = client.identity()["GUID"]
        tree.publish([paths["plain.bin"], paths["it's.bin"]], "Road", "one", target)
        tree.wait_delivered({("one", "it's.bin"): sha256_of(paths["it's.bin"])}, [client], 30)
        self.assertNotIn(("one", "it's.bin"), other.inbox())
        self.assertNotIn(("one", "it's.bin"), tree.relays[0].inbox())

    def has_acknowledged_all(self, agent):
        """True when the parent knows that this agent has every file of its store."""
        infos = [agent.call("FileStoreGetFileInfo", FileId=file["id"])["Values"] for file in agent.stored_files()]
        return all(info["Acknowledged"] for info in infos)


class AgainTest(SystemTest):
    def test_a_file_is_published_again(self):
        """To a second client below the same relay, back to an earlier content, and after the master was restored."""
        with Tree(BUILD, [2], short_intervals=False) as tree:
            tree.start()
            (relay,), (first, second) = tree.relays, tree.clients
            for content, client in ((b"old", first), (b"old", second), (b"new", first), (b"old", first), (b"old", first)):
                self.wait_delivered(tree, client, *self.publish(tree, client, content))
            self.assertEqual([self.fetched(agent) for agent in (relay, first, second)], [2, 2, 1])
            self.assertEqual({file["type"] for file in first.kel("inbox")}, {"Again"}, "orders stay out of the inbox")
            for number, folder in enumerate((".", "Console"), 3):
                self.check_restored_master(tree, second, folder, b"content %d" % number, number)
            self.assertEqual([self.fetched(agent) for agent in (relay, first, second)], [4, 2, 3])
            self.end(tree)

    def publish(self, tree, client, content):
        path = tree.folder / "again.bin"
        path.write_bytes(content)
        return path, tree.publish([path], "Again", "l", client.name)[0]["publication"]

    def wait_delivered(self, tree, client, path, publication):
        def outcomes():
            return [device["status"] for device in tree.master.kel("publications", publication)]
        wait_until(lambda: outcomes() == ["delivered"], 30, f"{client.name} has {path.read_bytes()}")
        tree.wait_delivered({("l", path.name): sha256_of(path)}, [client], 1)

    def fetched(self, agent):
        """How many contents of the file the agent's log says that it has downloaded."""
        return len([line for line in agent.log().splitlines() if "Downloading URL" in line and "/again.bin" in line])

    def check_restored_master(self, tree, client, folder, content, fetched):
        """The backup, of all databases or the console's, is older than the delivery."""
        master, data, backup = tree.master, tree.master.data / folder, tree.folder / "backup"
        client.stop()
        published = self.publish(tree, client, content)
        wait_until(lambda: self.fetched(tree.relays[0]) == fetched, 30, "the relay has the file")
        master.stop()
        shutil.copytree(data, backup)
        tree.run(master, client)
        self.wait_delivered(tree, client, *published)
        master.stop()
        shutil.rmtree(data)
        backup.rename(data)
        tree.run(master)
        self.wait_delivered(tree, client, *published)


class RoadUpTest(SystemTest):
    def test_every_file_is_collected(self):
        with Tree(BUILD, [1, 1]) as tree:
            tree.relays[1].pack()
            tree.start()
            expected = {}
            for number, client in enumerate(tree.clients):
                paths = write_files(tree.folder / client.name / "out", FILES, number).values()
                expected |= client.send(*paths, kind=FILE_TYPE, label="label one")
            wait_collected(tree.master, expected, 60)
            self.check_new_content_replaces(tree)
            for relay, packs in zip(tree.relays, (False, True)):
                self.assertEqual("PushThread: Sending archive file" in relay.log(), packs, relay.name)
            for agent in tree.agents:
                wait_until(lambda: self.states(agent) <= AT_REST, 30, f"nothing is left to do on {agent.name}")
            self.end(tree)

    def states(self, agent):
        return {file["status"] for file in agent.kel("files", "--upstream") if file["type"] == FILE_TYPE}

    def check_new_content_replaces(self, tree):
        client = tree.clients[0]
        path = tree.folder / "plain.bin"
        path.write_bytes(b"newer")
        wait_collected(tree.master, client.send(path, kind=FILE_TYPE, label="label one"), 30)
        self.assertEqual(len([key for key in collected_files(tree.master) if key[2] == path.name]), 2)


class UnconnectedTest(SystemTest):
    def test_what_arises_while_the_parent_is_away_goes_up_later(self):
        with Tree(BUILD, [1]) as tree:
            tree.start()
            relay, client = tree.relays[0], tree.clients[0]
            self.assertEqual(relay.stop(STOP_SECONDS), 0)
            wait_until(lambda: not client.call("RelayGetValues")["Values"]["ParentSync"], 30, "the client misses its parent")
            path, sent = write_files(tree.folder / "out", {"any content.bin": 100_000, "sent.bin": 50_000}).values()
            report = tree.folder / "report.xml"
            report.write_text('<Container><Value name="Disk">42</Value></Container>')
            for name, values in (("kept.bin", {"FilePath": str(path)}), ("report", {"CopyPath": str(report)})):
                client.call("FileStoreReceiveFile", FileType="Inventory", FileLabel="kept", FileName=name, Unconnected=True,
                            Upstream=True, **values)
            client.send(sent, kind=FILE_TYPE, label="kept")
            kept = client.data / "FileStore" / "unconnected" / "inventory"
            self.assertEqual({file.name for file in kept.iterdir()}, {"kept.bin", "kept.bin.xml", "report"})
            client.kill()
            tree.run(client)
            tree.run(relay)
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
