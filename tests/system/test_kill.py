"""Agents are killed at random moments of a set of transfers; every file still arrives, intact and once recorded.

What fails on the way is tried again after the file store's time-outs, five minutes at least, so the agents' wall
clock runs sixty times as fast.
"""

import os
import random
import time
import unittest

from case import BUILD, SystemTest, write_files
from tree import Tree, VirtualClock, find_faketime, sha256_of

KILLS = 10
SPEED = 60
FILES_BEFORE_A_KILL = 3
MAX_BYTES = 12 << 20
DELIVERY_SECONDS = 100


@unittest.skipUnless(find_faketime(), "needs libfaketime")
class KillTest(SystemTest):
    def test_nothing_is_lost_by_kills(self):
        seed = int(os.environ.get("KEL_SEED", time.time_ns() % 1_000_000))
        print(f"seed {seed} (KEL_SEED repeats it)", flush=True)
        source = random.Random(seed)
        with Tree(BUILD, [1, 1], VirtualClock(SPEED)) as tree:
            tree.start()
            sizes = {f"file{i:02}.bin": source.randint(1, MAX_BYTES) for i in range(KILLS * FILES_BEFORE_A_KILL)}
            paths = write_files(tree.folder / "files", sizes, seed)
            expected = {("kill", name): sha256_of(path) for name, path in paths.items()}
            waiting = list(paths.values())
            while waiting:
                tree.publish(waiting[:FILES_BEFORE_A_KILL], "Kill", "kill")
                del waiting[:FILES_BEFORE_A_KILL]
                time.sleep(source.uniform(0, 1.2))
                agent = source.choice(tree.agents)
                agent.kill()
                print(f"killed {agent.name}", flush=True)
                time.sleep(source.uniform(0, 0.3))
                agent.start()
                agent.wait_ready()
            tree.wait_delivered(expected, tree.devices, DELIVERY_SECONDS)
            self.stop_all(tree)
            self.check_databases(tree)
            for agent in tree.devices:
                doubled = self.rows(agent, "SELECT FileType, FileLabel, FileName, FileChecksum FROM Files "
                                           "GROUP BY 1, 2, 3, 4 HAVING COUNT(*) > 1")
                self.assertEqual(doubled, [], agent.name)


if __name__ == "__main__":
    unittest.main()
