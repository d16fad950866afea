"""Files travel from the master over a relay to the clients, whatever their names, and nothing is left to do."""

import unittest

from case import BUILD, SystemTest, write_files
from tree import Tree, sha256_of, wait_until

NAMES = ["plain.bin", "with blank.bin", "100%.bin", "hash#mark.bin", "what?.bin", "grüße-文件.bin", "it's.bin",
         "%41%2e.bin", "a&b=c;d.bin", "[x]{y}.bin", "a.ini", "b.SQLite"]
SIZES = [0, 1, 1000, 65536, 1 << 20, 4096, 300_000, 17, 5000, 12345, 20, 8192]


class RoadTest(SystemTest):
    def test_every_file_arrives_is_verified_and_acknowledged(self):
        with Tree(BUILD, [2]) as tree:
            tree.start()
            self.assertEqual({device["Name"] for device in tree.master.kel("devices")},
                             {agent.name for agent in tree.agents})
            paths = write_files(tree.folder / "files", dict(zip(NAMES, SIZES)))
            expected = {("label one", name): sha256_of(path) for name, path in paths.items()}
            published = tree.publish(paths.values(), "Road", "label one")
            self.assertEqual([item["Targets"] for item in published], [3] * len(paths))
            tree.wait_delivered(expected, tree.devices, 60)
            self.check_one_device(tree, paths)
            wait_until(lambda: all(map(self.has_acknowledged_all, tree.devices)), 30, "all files acknowledged")
            self.stop_all(tree)
            self.check_databases(tree)
            for agent in tree.agents:
                self.assertEqual(self.rows(agent, "SELECT * FROM Targets"), [], f"targets left on {agent.name}")

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
        infos = [agent.call("FileStoreGetFileInfo", FileId=file["FileId"])["Values"] for file in agent.stored_files()]
        return all(info["Acknowledged"] for info in infos)


if __name__ == "__main__":
    unittest.main()
