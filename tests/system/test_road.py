"""Files travel from the master over a relay to the clients, whatever their names, and nothing is left to do."""

import unittest

from case import BUILD, ODD_FILES, SystemTest, write_files
from tree import Tree, sha256_of, wait_until


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
        infos = [agent.call("FileStoreGetFileInfo", FileId=file["id"])["Values"] for file in agent.stored_files()]
        return all(info["Acknowledged"] for info in infos)


if __name__ == "__main__":
    unittest.main()
