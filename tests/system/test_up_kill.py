"""The relay is killed at random moments of the traffic that passes through it on its way up; every file is still
collected, intact and once.

What fails on the way is tried again after the file store's time-outs, five minutes at least, so the agents' wall
clock runs sixty times as fast.
"""

import os
import random
import sqlite3
import time
import unittest

from case import BUILD, SystemTest, wait_collected, write_files
from tree import Tree, VirtualClock, find_faketime, sha256_of

KILLS = 10
SPEED = 60
FILES_BEFORE_A_KILL = 4
MAX_BYTES = 3 << 20
ARRIVAL_SECONDS = 100


@unittest.skipUnless(find_faketime(), "needs libfaketime")
class UpKillTest(SystemTest):
    def test_nothing_is_lost_by_kills_of_the_relay(self):
        self.run_kills("none")

    def test_nothing_is_lost_by_kills_of_a_packing_relay(self):
        self.run_kills("auto")

    def run_kills(self, packing):
        seed = int(os.environ.get("KEL_SEED", time.time_ns() % 1_000_000))
        print(f"seed {seed} (KEL_SEED repeats it)", flush=True)
        source = random.Random(seed)
        with Tree(BUILD, [1], VirtualClock(SPEED)) as tree:
            relay, client = tree.relays[0], tree.clients[0]
            relay.set_ini("FileStore", "UploadPolicy", "ConcatFiles", packing)
            tree.start()
            sizes = {f"file{i:02}.bin": source.randint(1, MAX_BYTES) for i in range(KILLS * FILES_BEFORE_A_KILL)}
            paths = write_files(tree.folder / "files", sizes, seed)
            guid = client.identity()["GUID"]
            expected = {(guid, "kill", name): sha256_of(path) for name, path in paths.items()}
            waiting = list(paths.values())
            while waiting:
                client.kel("send", *waiting[:FILES_BEFORE_A_KILL], "--type", "Kill", "--label", "kill")
                del waiting[:FILES_BEFORE_A_KILL]
                time.sleep(source.uniform(0, 1.5))
                relay.kill()
                time.sleep(source.uniform(0, 0.3))
                relay.start()
                relay.wait_ready()
            wait_collected(tree.master, expected, ARRIVAL_SECONDS)
            self.stop_all(tree)
            self.check_databases(tree)
            self.check_once(tree.master, paths)

    def check_once(self, master, paths):
        for name in paths:
            self.assertEqual(master.log().count(f"Collected Kill/kill/{name} "), 1, name)
        with sqlite3.connect(master.data / "FileStore" / "Upstream.sqlite") as database:
            doubled = database.execute("SELECT FileType, FileLabel, FileName, FileChecksum FROM Files "
                                       "GROUP BY 1, 2, 3, 4 HAVING COUNT(*) > 1").fetchall()
        self.assertEqual(doubled, [])


if __name__ == "__main__":
    unittest.main()
