"""Trees whose devices run different versions: this build (KEL_BUILD) beside an earlier one (KEL_EARLIER_BUILD).

Each device runs another version than its parent, so that both are parent and child of the other. './dev test --neighbour
COMMIT' builds the earlier one and runs this.
"""

import os
import pathlib
import subprocess
import sys
import unittest

sys.path.insert(0, str(pathlib.Path(__file__).resolve().parent.parent / "system"))
from case import SystemTest, wait_collected, write_files  # noqa: E402
from tree import Tree, sha256_of, wait_until  # noqa: E402

THIS, EARLIER = (pathlib.Path(os.environ[name]).resolve() for name in ("KEL_BUILD", "KEL_EARLIER_BUILD"))


def has_keys(build):
    """Whether a build knows trees with keys."""
    text = subprocess.run([build / "bin" / "kel", "init", "--help"], text=True, capture_output=True).stdout
    return "--join" in text


class MixedTree(Tree):
    def __init__(self, middle, others, keys):
        self.middle = middle
        super().__init__(others, [2], keys=keys)

    def plain_option(self, agent):
        return super().plain_option(agent) if has_keys(agent.build.parent) else []

    def build_of(self, name):
        return (self.middle if name.startswith("relay") else self.build) / "bin"


class NeighbourTest(SystemTest):
    def test_parents_and_children_of_two_versions_work_together(self):
        for keys in (False, True):
            for middle, others in ((THIS, EARLIER), (EARLIER, THIS)):
                if keys and not has_keys(EARLIER):
                    continue
                with self.subTest(keys=keys, relay="this" if middle == THIS else "earlier"):
                    self.work(MixedTree(middle, others, keys))

    def work(self, mixed):
        with mixed as tree:
            master, relay = tree.master, tree.relays[0]
            relay.pack()
            tree.start()
            self.assertEqual({device["name"] for device in master.kel("devices")}, {agent.name for agent in tree.agents})
            sizes = {"small.bin": 1000, "large.bin": 3_000_000, "with blank.bin": 70_000}
            down = write_files(tree.folder / "down", sizes)
            tree.publish(down.values())
            for client in tree.clients:  # the relay packs what comes in the same second
                wait_collected(master, client.send(*write_files(tree.folder / client.name, sizes).values()), 60)
            expected = {("files", name): sha256_of(path) for name, path in down.items()}
            tree.wait_delivered(expected, tree.devices, 60)
            wait_until(lambda: all(item["pending"] == 0 for item in master.kel("publications")), 60, "all is acknowledged")
            self.withdraw(tree)
            master.kel("--device", tree.clients[0].name, "settings", "set", "QueueGap=29")
            self.end(tree)

    def withdraw(self, tree):
        """What a stopped client has not got is withdrawn, and does not come when it is back."""
        gone = tree.clients[1]
        self.assertEqual(gone.stop(), 0)
        path = write_files(tree.folder / "late", {"late.bin": 5000})["late.bin"]
        publication = tree.publish([path], to=gone.name)[0]["publication"]
        tree.master.kel("withdraw", publication)
        kept = write_files(tree.folder / "kept", {"kept.bin": 5000})["kept.bin"]
        tree.publish([kept], label="kept")
        tree.run(gone)
        tree.wait_delivered({("kept", "kept.bin"): sha256_of(kept)}, tree.devices, 60)
        self.assertNotIn(("files", "late.bin"), gone.inbox())
        self.assertEqual([target["status"] for target in tree.master.kel("publications", publication)], ["withdrawn"])


if __name__ == "__main__":
    unittest.main()
