"""A device gets another parent while it runs: what is under way and what waits reaches it through the new one, once."""

import unittest

from case import BUILD, SystemTest, rows, wait_collected, wait_for_part, write_files
from tree import Tree, sha256_of, wait_until

MIB = 1 << 20
RATE = "16000"  # kbit/s; the large file takes ten seconds


class MoveTest(SystemTest):
    def test_a_device_moves_to_another_relay(self):
        with Tree(BUILD, [1, 0], short_intervals=False) as tree:
            tree.start()
            (old, new), (client,) = tree.relays, tree.clients
            client.kel("windows", "set", "up", "--slots", RATE)
            paths = list(write_files(tree.folder / "files", {"large.bin": 20 * MIB, "small.bin": 4096}).values())
            published = [tree.publish([paths[0]], to=client.name)[0]["publication"]]
            wait_for_part(client, "large.bin", 5 * MIB)
            published += [tree.publish([paths[1]], to=client.name)[0]["publication"]]
            self.assertEqual(self.why(tree, published[0]), ("transferring", client.name))
            self.assertTrue(self.move(client, f"{new.address}:{new.port}")["parent_in_sync"])
            wait_until(lambda: self.waiting_targets(old) == 0, 30, "the former parent has nothing left for the device")
            old.stop()
            self.check_arrival(tree, client, paths, published)
            self.check_loops(client, new)
            self.check_silent_parent(tree, client, new)
            self.end(tree)
            for agent in tree.agents:
                self.assertEqual(rows(agent, "SELECT * FROM Targets"), [], f"targets left on {agent.name}")

    def move(self, agent, place):
        return agent.kel("parent", place)[0]

    def why(self, tree, publication):
        (row,) = tree.master.kel("why", publication)
        return row["code"], row["at_name"]

    def waiting_targets(self, agent):
        return agent.kel("status")[0]["waiting"]["targets"]

    def check_arrival(self, tree, client, paths, published):
        tree.wait_delivered({("files", path.name): sha256_of(path) for path in paths}, [client], 60)
        for publication in published:
            wait_until(lambda: tree.master.kel("publications", publication)[0]["status"] == "delivered", 30, "the receipt")
        parent = {device["name"]: device["parent"] for device in tree.master.kel("devices")}[client.name]
        self.assertEqual(parent, tree.relays[1].identity()["GUID"])
        lines = client.log().splitlines()
        for path in paths:
            delivered = [line for line in lines if "Delivered " in line and path.name in line]
            self.assertEqual(len(delivered), 1, delivered)
        begun = [line for line in lines if "Downloading URL" in line and "large.bin" in line]
        self.assertEqual([line.endswith("(offset 0)") for line in begun], [True] + [False] * (len(begun) - 1), begun)

    def check_loops(self, client, relay):
        """A relay takes neither itself nor a device below it for its parent."""
        for place, why in ((relay, "this device itself"), (client, "below this device")):
            self.assertIn(why, self.refused(relay.kel, "parent", f"{place.address}:{place.port}"))
        self.assertTrue(relay.kel("parent")[0]["parent_in_sync"])

    def check_silent_parent(self, tree, client, relay):
        """A parent that does not answer is accepted and reported; another one in the ini file ends that."""
        moved = self.move(client, f"{client.address}:1")
        self.assertIn("cannot be reached", moved["parent_problem"])
        sent, published = write_files(tree.folder / "late", {"up.bin": 1000, "down.bin": 1000}).values()
        expected = client.send(sent)
        publication = tree.publish([published], to=client.name)[0]["publication"]
        wait_until(lambda: self.why(tree, publication) == ("peer_refused", relay.name), 30, "why")
        client.set_ini("Relay", "Relay", "ParentPort", relay.port)
        client.set_ini("Relay", "Relay", "ParentName", relay.address)
        wait_until(lambda: client.kel("status")[0]["relay"]["parent_in_sync"], 60, "the new parent answers")
        wait_collected(tree.master, expected, 60)
        tree.wait_delivered({("files", published.name): sha256_of(published)}, [client], 60)


if __name__ == "__main__":
    unittest.main()
