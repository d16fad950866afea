"""What the operator of the master does on a device below it with `kel --device`, and what both audits keep of it."""

import unittest

from case import BUILD, SystemTest, write_files
from tree import Tree, wait_until


class ThroughMaster(SystemTest):
    def test_client_is_steered_from_the_master(self):
        with Tree(BUILD, [2]) as tree:
            tree.start()
            client, other = tree.clients

            def through(*arguments):
                return tree.master.kel("--device", client.name, *arguments)
            self.ask(tree, client, through)
            self.change(tree, client, through)
            tree.master.kel("publish", *write_files(tree.folder / "f", {"a.bin": 9}).values(), "--type", "Demo",
                            "--label", "l", "--to", "none")
            through("request", "--type", "Demo", "--label", "l", "--name", "a.bin", "--wait", "30")
            self.assertEqual(list(client.inbox()), [("l", "a.bin")])
            self.refuse(tree, client, through)
            other.stop()
            self.assertIn("does not answer", self.refused(tree.master.kel, "--device", other.name, "status", code=3))
            self.end(tree)

    def ask(self, tree, client, through):
        for device in client.name, client.identity()["GUID"]:
            self.assertEqual(tree.master.kel("--device", device, "status")[0]["agent"]["root"].rstrip("/"), str(client.root))
        self.assertEqual(through("files"), client.kel("files"))
        for command in "inbox", "multicast", "windows", "parent":
            self.assertEqual(len(through(command)), len(client.kel(command)), command)
        wait_until(lambda: through("files", "--upstream"), 30, "the identity is in the store")
        number = through("files", "--upstream")[0]["id"]
        self.assertEqual(through("file", number, "--upstream")[0]["id"], number)
        through("why", number, "--upstream")

    def change(self, tree, client, through):
        through("settings", "set", "QueueGap=17")
        through("windows", "set", "up", "--slots", "512")
        self.refused(through, "settings", "set", "QueueGap=x")
        self.assertEqual(client.kel("settings", "get", "QueueGap")[0]["value"], "17")
        at_master, at_client = tree.master.kel("audit"), through("audit")
        expected = [("FileStoreSetValues", 0), ("TransferWindowSetWindow", 0), ("FileStoreSetValues", 1)]
        for audit in at_master, at_client:
            self.assertEqual([(line["action"], line["result"]) for line in audit], expected)
            self.assertEqual(audit[0]["arguments"], {"Values": {"QueueGap": "17"}})
        self.assertEqual({line["device"] for line in at_master}, {client.name})
        self.assertEqual({line["operator"] for line in at_client}, {line["operator"] for line in at_master})
        self.assertEqual({(line["master"], line["address"]) for line in at_client},
                         {(f"{tree.master.address}:{tree.master.port}", tree.relays[0].address)})

    def refuse(self, tree, client, through):
        self.assertIn('no device "nobody"', self.refused(tree.master.kel, "--device", "nobody", "status"))
        self.assertIn("leave out --device", self.refused(through, "devices"))
        self.assertIn("on the device itself", self.refused(through, "parent", "127.0.0.9:80"))
        self.assertIn("has no action", self.refused(through, "call", "None"))
        self.assertIn("the master is", self.refused(client.kel, "--device", "master", "status"))
        with_path = ("call", "FileStoreReceiveFile", "FileType=t", "FileLabel=l", "FileName=n", "CopyPath=/etc/passwd")
        self.assertIn("is for these callers", self.refused(through, *with_path))
        self.assertEqual(tree.master.kel("--device", "master", "status")[0]["relay"]["role"], "master")


if __name__ == "__main__":
    unittest.main()
