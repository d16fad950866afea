"""What the publisher sees of a publication: it waits, it fails, it is interrupted."""

import json
import signal
import subprocess
import unittest

from case import BUILD, SystemTest, write_files
from tree import Tree, sha256_of, wait_until

PACED_KILOBITS = 8_000


class WatchTest(SystemTest):
    def start_watching(self, tree, *arguments):
        return subprocess.Popen([tree.kel, "--root", tree.master.root, "--json", "publish", *map(str, arguments), "--watch"],
                                stdout=subprocess.PIPE, stderr=subprocess.PIPE, text=True)

    def counts(self, text):
        return [(item["targets"], item["delivered"], item["failed"], item["pending"]) for item in json.loads(text)]

    def test_watching_ends_with_the_last_target(self):
        with Tree(BUILD, [1]) as tree:
            relay, client = tree.relays[0], tree.clients[0]
            client.set_ini("Delivery", "Commands", "Doomed", "/bin/false")
            tree.start()
            paths = write_files(tree.folder / "files", {"a.bin": 1000, "b.bin": 200_000})
            watch = self.start_watching(tree, *paths.values(), "--type", "Demo", "--label", "l", "--to", "all")
            output, lines = watch.communicate(timeout=60)
            self.assertEqual((watch.returncode, self.counts(output)), (0, [(2, 2, 0, 0)] * 2), lines)
            self.assertIn("b.bin  2 of 2 delivered", lines)

            watch = self.start_watching(tree, paths["a.bin"], "--type", "Doomed", "--label", "l", "--to", "all")
            output, lines = watch.communicate(timeout=60)
            self.assertEqual((watch.returncode, self.counts(output)), (1, [(2, 1, 1, 0)]), lines)
            self.assertIn("a.bin  1 of 2 delivered, 1 failed", lines)
            publication = tree.master.kel("publications")[0]
            by_name = {item["name"]: item["status"] for item in tree.master.kel("publications", publication["publication"])}
            self.assertEqual(by_name, {relay.name: "delivered", client.name: "failed"})
            watch = self.start_watching(tree, paths["a.bin"], "--type", "Demo", "--label", "n", "--to", "none")
            self.assertEqual((self.counts(watch.communicate(timeout=20)[0]), watch.returncode), ([(0, 0, 0, 0)], 0))
            self.check_interruption(tree)
            self.end(tree)

    def check_interruption(self, tree):
        """SIGINT ends the watching only."""
        relay = tree.relays[0]
        relay.call("TransferWindowSetWindow", Direction=1, Slots=str(PACED_KILOBITS), SlotType=2, UseUTCTime=True)
        path = write_files(tree.folder / "files", {"slow.bin": 4 << 20})["slow.bin"]
        watch = self.start_watching(tree, path, "--type", "Demo", "--label", "slow", "--to", relay.name)
        wait_until(lambda: "0 of 1 delivered" in watch.stderr.readline(), 20, "the watch shows the publication")
        watch.send_signal(signal.SIGINT)
        output, _ = watch.communicate(timeout=10)
        self.assertEqual((watch.returncode, self.counts(output)), (1, [(1, 0, 0, 1)]))
        tree.wait_delivered({("slow", path.name): sha256_of(path)}, [relay], 60)
        wait_until(lambda: tree.master.kel("publications")[0]["delivered"] == 1, 30, "the receipt of the relay")


if __name__ == "__main__":
    unittest.main()
