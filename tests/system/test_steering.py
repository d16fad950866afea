"""Steering what is published: folders, groups, patterns, and stages that stop, survive a kill and go on."""

import unittest

from case import BUILD, SystemTest, write_files
from tree import Tree, sha256_of, wait_until

FOLDER = {"top.bin": 1000, "bin/run 1%.bin": 70_000, "bin/deep/x.bin": 1}


class Steering(SystemTest):
    def test_folder_to_a_group_in_stages_over_a_kill(self):
        with Tree(BUILD, [2, 1], short_intervals=False) as tree:
            failing, good, last = tree.clients
            failing.set_ini("Delivery", "Commands", "Fails", "/bin/false")
            tree.start()
            tree.master.kel("groups", "set", "pilots", "client1*", "relay2")
            self.publish_folder(tree)
            self.refused(tree.master.kel, "publish", __file__, "--type", "T", "--label", "l", "--to", "shop-*")

            options = ["--type", "Fails", "--label", "l", "--to", "client11,pilots,client21", "--stages", "25%,75%,100%"]
            for publication in self.roll_out(tree, options), self.roll_out(tree, options):  # as a file, as orders
                rows = tree.master.kel("publications", publication)
                self.assertEqual([(row["name"], row["stage"]) for row in rows if row["stage"] != 2],
                                 [("client11", 1), ("client21", 3)])
            self.end(tree)

    def publish_folder(self, tree):
        for name in FOLDER:
            (tree.folder / "rel" / name).parent.mkdir(parents=True, exist_ok=True)
        paths = write_files(tree.folder / "rel", FOLDER)
        arguments = ["publish", tree.folder / "rel", "--recursive", "--type", "T", "--label", "v1", "--to", "pilots"]
        preview = tree.master.kel(*arguments, "--dry-run")
        links = {(row["from"], row["to"]): row["bytes"] for row in preview if row["kind"] == "link"}
        self.assertEqual(links, dict.fromkeys([("master", "relay1"), ("master", "relay2"), ("relay1", "client11"),
                                               ("relay1", "client12")], sum(FOLDER.values())))
        self.assertFalse(tree.master.kel("publications"))
        tree.master.kel(*arguments)
        expected = {("v1", name): sha256_of(path) for name, path in paths.items()}
        tree.wait_delivered(expected, [*tree.clients[:2], tree.relays[1]], 30)
        self.assertTrue((tree.clients[0].data / "Delivery/Inbox/T/v1/bin/deep/x.bin").exists())
        self.assertFalse(tree.clients[2].kel("inbox"))

    def roll_out(self, tree, options):
        """The first target fails, the others are scheduled until the publication is resumed."""
        path = tree.folder / "update.bin"
        path.write_bytes(b"update")
        publication = tree.master.kel("publish", path, *options)[0]["publication"]

        def state():
            listed = {row["publication"]: row for row in tree.master.kel("publications")}[publication]
            return listed["state"], listed["stage"], listed["delivered"], listed["failed"]
        wait_until(lambda: state() == ("stopped", 1, 0, 1), 30, "the publication is stopped")
        tree.master.kill()
        tree.run(tree.master)
        statuses = {row["name"]: row["status"] for row in tree.master.kel("publications", publication)}
        self.assertEqual(statuses, {"client11": "failed", "client12": "scheduled", "relay2": "scheduled",
                                    "client21": "scheduled"})
        tree.master.kel("resume", publication)
        wait_until(lambda: state() == ("complete", 3, 3, 1), 30, f"all stages are released: {state()}")
        self.refused(tree.master.kel, "resume", publication)
        return publication


if __name__ == "__main__":
    unittest.main()
