"""What `kel` says and returns where a command cannot do what it was asked for, and what a normal stop logs."""

import unittest

from case import BUILD, SystemTest, write_files
from tree import Tree


class RefusedCommandTest(SystemTest):
    def test_what_only_the_master_or_a_parent_can_do(self):
        with Tree(BUILD, [1]) as tree:
            tree.start()
            master, relay, client = tree.master, tree.relays[0], tree.clients[0]
            path = write_files(tree.folder / "files", {"a.bin": 10})["a.bin"]
            publish = ("publish", path, "--type", "t", "--label", "l", "--to")
            at_master = f"the master is {master.address}:{master.port}"
            self.assertIn(at_master, self.refused(relay.kel, *publish, "all"))
            self.assertIn(at_master, self.refused(client.kel, "devices"))
            self.assertIn("no parent", self.refused(master.kel, "request", "--type", "t", "--label", "l", "--name", "x"))
            self.assertEqual(master.kel("files"), [])  # the request has left nothing behind
            text = self.refused(master.kel, *publish, "nobody")
            self.assertEqual(text.split("\n")[0], 'kel: There is no device "nobody"')
            master.kel(*publish, "none")
            self.assertEqual([(file["name"], file["status"]) for file in master.kel("files")], [("a.bin", "available")])
            self.end(tree)
            for agent in tree.agents:
                stop = agent.log().split("Received signal")[1]
                self.assertNotRegex(stop, " (WARNING|ERROR) ", agent.name)
            relay.start()
            client.start()
            relay.wait_ready()
            client.wait_ready()
            self.assertIn("the master is above", self.refused(client.kel, *publish, "all"))


if __name__ == "__main__":
    unittest.main()
