"""What is withdrawn reaches no further device, also one that was off, and no store keeps it; devices are removed."""

import unittest

from case import BUILD, SystemTest, rows, write_files
from tree import Tree, sha256_of, wait_until


class WithdrawTest(SystemTest):
    def publish(self, tree, path, *clients):
        to = ",".join(client.name for client in clients)
        return tree.publish([path], "Withdraw", "l", to)[0]["publication"]

    def statuses(self, tree, publication):
        return {device["name"]: device["status"] for device in tree.master.kel("publications", publication)}

    def wait_statuses(self, tree, publication, *statuses):
        wait_until(lambda: sorted(self.statuses(tree, publication).values()) == sorted(statuses), 30,
                   f"{statuses}, not {self.statuses(tree, publication)}")

    def wait_forgotten(self, name, *agents):
        for agent in agents:
            wait_until(lambda: name not in {file["name"] for file in agent.stored_files()}, 30, f"{agent.name} forgets {name}")
            self.assertEqual(list(agent.data.rglob(name)), [], agent.name)

    def test_a_publication_is_withdrawn(self):
        with Tree(BUILD, [2], short_intervals=False) as tree:
            tree.start()
            (relay,), (first, second) = tree.relays, tree.clients
            paths = write_files(tree.folder / "out", {"file.bin": 100_000, "other.bin": 1000})
            path, other = paths["file.bin"], paths["other.bin"]
            second.stop()
            publication = self.publish(tree, path, first, second)
            self.wait_statuses(tree, publication, "delivered", "pending")
            withdrawn = tree.master.kel("withdraw", publication)[0]
            self.assertEqual((withdrawn["delivered"], withdrawn["withdrawn"], withdrawn["pending"]), (1, 1, 0))
            self.wait_forgotten(path.name, tree.master, relay)
            tree.run(second)
            self.wait_statuses(tree, self.publish(tree, other, second), "delivered")
            self.assertEqual(self.statuses(tree, publication), {first.name: "delivered", second.name: "withdrawn"})
            self.assertIn(("l", path.name), first.inbox())
            self.assertEqual(list(second.data.rglob(path.name)), [])
            self.check_withdrawn_order(tree, path)
            self.end(tree)
            for agent in tree.agents:
                self.assertEqual(rows(agent, "SELECT * FROM Targets") + rows(agent, "SELECT * FROM Withdrawals"), [], agent.name)
                orders = rows(agent, "SELECT FileName FROM Files WHERE FileType = 'DeliveryOrder'")
                self.assertEqual(orders, [], f"orders left on {agent.name}")

    def check_withdrawn_order(self, tree, path):
        """The relay is killed before it has learned of the withdrawal; the clients come back once it has."""
        (relay,), (first, second) = tree.relays, tree.clients
        again = self.publish(tree, path, first, second)
        self.wait_statuses(tree, again, "delivered", "delivered")
        path.write_bytes(b"another content")
        for client in tree.clients:
            client.stop()
        publication = self.publish(tree, path, first, second)
        wait_until(lambda: "another content" in [file.read_text(errors="replace") for file in relay.data.rglob(path.name)],
                   30, "the relay has the file")
        order = self.publish(tree, path, first, second)
        wait_until(lambda: order in {file["name"] for file in relay.stored_files()}, 30, "the relay has the order")
        relay.kill()
        for each in (publication, order):
            tree.master.kel("withdraw", each)
        tree.run(relay)
        self.wait_forgotten(order, tree.master, relay)
        wait_until(lambda: b"another content" not in [file.read_bytes() for file in relay.data.rglob(path.name)],
                   30, "the relay forgets the file")
        tree.run(first, second)
        self.wait_statuses(tree, self.publish(tree, tree.folder / "out" / "other.bin", first, second), "delivered", "delivered")
        for client in tree.clients:
            self.assertNotEqual(client.inbox()[("l", path.name)].read_bytes(), b"another content")
        for each in (publication, order):
            self.wait_statuses(tree, each, "withdrawn", "withdrawn")

    def test_a_device_is_removed_and_reports_again(self):
        with Tree(BUILD, [1], short_intervals=False) as tree:
            tree.start()
            (relay,), (client,) = tree.relays, tree.clients
            path = write_files(tree.folder / "out", {"file.bin": 1000})["file.bin"]
            client.stop()
            publication = self.publish(tree, path, client)
            self.assertIn("has devices below it", self.refused(tree.master.kel, "devices", "remove", relay.name))
            tree.master.kel("devices", "remove", client.name)
            self.assertEqual({device["name"] for device in tree.master.kel("devices")}, {"master", relay.name})
            self.assertEqual([device["status"] for device in tree.master.kel("publications", publication)], ["removed"])
            tree.run(client)
            tree.wait_known()
            self.wait_statuses(tree, self.publish(tree, path, client), "delivered")
            tree.wait_delivered({("l", path.name): sha256_of(path)}, [client], 1)
            self.assertEqual(self.statuses(tree, publication), {client.name: "removed"})
            self.end(tree)


if __name__ == "__main__":
    unittest.main()
