"""What `kel` says and returns where a command cannot do what it was asked for."""

import subprocess
import unittest

from case import BUILD, SystemTest, write_files
from tree import Tree


class RefusedCommandTest(SystemTest):
    def refused(self, agent, *arguments):
        run = subprocess.run([agent.tree.kel, "--root", agent.root, *map(str, arguments)], text=True, capture_output=True,
                             timeout=60)
        self.assertEqual((run.returncode, run.stdout), (1, ""))
        return run.stderr

    def test_what_only_the_master_or_a_parent_can_do(self):
        with Tree(BUILD, [1]) as tree:
            tree.start()
            master, relay, client = tree.master, tree.relays[0], tree.clients[0]
            path = write_files(tree.folder / "files", {"a.bin": 10})["a.bin"]
            publish = ("publish", path, "--type", "t", "--label", "l", "--to", "all")
            at_master = f"the master is {master.address}:{master.port}"
            self.assertIn(at_master, self.refused(relay, *publish))
            self.assertIn(at_master, self.refused(client, "devices"))
            self.assertIn("no parent", self.refused(master, "request", "--type", "t", "--label", "l", "--name", "x"))
            self.assertEqual(master.kel("files"), [])  # the request has left nothing behind
            self.assertEqual(self.refused(master, *publish[:-1], "nobody").split("\n")[0], 'kel: There is no device "nobody"')
            relay.kill()
            self.assertIn(f"the master is above {relay.address}:{relay.port}", self.refused(client, *publish))
            tree.master.kel(*publish[:-1], "none")
            self.assertEqual([(file["name"], file["status"]) for file in master.kel("files")], [("a.bin", "available")])


if __name__ == "__main__":
    unittest.main()
