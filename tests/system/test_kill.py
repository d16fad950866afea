"""Agents are killed at random moments of a set of transfers, or of a move of the store; every file still arrives,
intact and once.

What fails on the way is tried again after the file store's time-outs, five minutes at least, so the agents' wall
clock runs sixty times as fast.
"""

import os
import pathlib
import random
import tempfile
import time
import unittest

from case import BUILD, SystemTest, rows, wait_collected, write_files
from faults import faults_of_rest
from tree import Tree, VirtualClock, find_faketime, sha256_of, wait_until

KILLS = 10
SPEED = 60
SECONDS_TO_ARRIVE = 100


@unittest.skipUnless(find_faketime(), "needs libfaketime")
class KillTest(SystemTest):
    def setUp(self):
        seed = int(os.environ.get("KEL_SEED", time.time_ns() % 1_000_000))
        print(f"seed {seed} (KEL_SEED repeats it)", flush=True)
        self.random = random.Random(seed)

    def kill_during_transfers(self, tree, agents, files_before_a_kill, max_bytes, send):
        """Sends files, and after each few of them kills one of `agents` and starts it again. Name -> SHA-256."""
        sizes = {f"file{i:02}.bin": self.random.randint(1, max_bytes) for i in range(KILLS * files_before_a_kill)}
        paths = write_files(tree.folder / "files", sizes)
        waiting = list(paths.values())
        while waiting:
            send(waiting[:files_before_a_kill])
            del waiting[:files_before_a_kill]
            time.sleep(self.random.uniform(0, 1.4))
            agent = self.random.choice(agents)
            agent.kill()
            print(f"killed {agent.name}", flush=True)
            time.sleep(self.random.uniform(0, 0.3))
            tree.run(agent)
        return {name: sha256_of(path) for name, path in paths.items()}

    def end_with_each_file_once(self, tree, agents, upstream):
        self.end(tree)
        for agent in agents:
            doubled = rows(agent, "SELECT FileType, FileLabel, FileName, FileChecksum FROM Files "
                                  "GROUP BY 1, 2, 3, 4 HAVING COUNT(*) > 1", upstream)
            self.assertEqual(doubled, [], agent.name)

    def test_downwards_kills_of_any_agent_lose_nothing(self):
        with Tree(BUILD, [1, 1], VirtualClock(SPEED)) as tree:
            tree.start()
            files = self.kill_during_transfers(tree, tree.agents, 3, 12 << 20,
                                               lambda paths: tree.publish(paths, "Kill", "kill"))
            expected = {("kill", name): digest for name, digest in files.items()}
            tree.wait_delivered(expected, tree.devices, SECONDS_TO_ARRIVE)
            self.end_with_each_file_once(tree, tree.devices, upstream=False)

    def test_upwards_kills_of_the_relay_lose_nothing(self):
        for packing in ("none", "auto"):
            with self.subTest(packing), Tree(BUILD, [1], VirtualClock(SPEED)) as tree:
                relay, client = tree.relays[0], tree.clients[0]
                relay.pack(packing)
                tree.start()
                expected = {}

                def send(paths):
                    small = {f"small{len(expected) + i:03}": self.random.randint(1, 20_000) for i in range(20)}
                    paths += write_files(tree.folder / "files", small).values()  # they travel several in one call
                    expected.update(client.send(*paths, kind="Kill", label="kill"))
                self.kill_during_transfers(tree, [relay], 4, 3 << 20, send)
                wait_collected(tree.master, expected, SECONDS_TO_ARRIVE)
                for _, _, name in expected:
                    self.assertEqual(tree.master.log().count(f"Collected Kill/kill/{name} "), 1, name)
                self.end_with_each_file_once(tree, [tree.master], upstream=True)

    def test_kills_during_removals_leave_no_row_without_content_and_take_no_delivered_file(self):
        """The first kills come while files are transferred and delivered ones removed, the others while the time to live
        of the rest ends, one file after the other."""
        with Tree(BUILD, [1], VirtualClock(SPEED)) as tree:
            relay, client = tree.relays[0], tree.clients[0]
            for agent in tree.agents:
                agent.set_ini("FileStore", "FileStore", "QueueGap", 1)
            tree.start()
            begin = time.monotonic()
            files = self.kill_during_transfers(tree, [relay, client], 4, 100_000,
                                               lambda paths: tree.publish(paths, "Kill", "kill"))
            expected = {("kill", name): digest for name, digest in files.items()}
            tree.wait_delivered(expected, tree.devices, SECONDS_TO_ARRIVE)
            for agent in tree.agents:
                agent.kel("settings", "set", f"TimeToLive={int((time.monotonic() - begin + 2) * SPEED)}")

            def left(agent):
                return [file for file in agent.stored_files() if file["type"] == "Kill"]

            end = time.monotonic() + SECONDS_TO_ARRIVE
            while any(left(agent) for agent in tree.devices):
                self.assertLess(time.monotonic(), end, "files stay in the store")
                time.sleep(self.random.uniform(0.5, 2))
                agent = self.random.choice(tree.devices)
                agent.kill()
                print(f"killed {agent.name}", flush=True)
                tree.run(agent)
                agent.wait_ready()
            for agent in tree.devices:
                self.assertEqual({key: sha256_of(path) for key, path in agent.inbox().items() if key[0] == "kill"},
                                 expected, agent.name)
            wait_until(lambda: not any(rows(agent, "SELECT FileId FROM RemovedContent", upstream)
                                       for agent in tree.agents for upstream in (False, True)),
                       SECONDS_TO_ARRIVE, "what the kills have left is removed")
            self.end(tree)
            for agent in tree.agents:
                self.assertEqual(faults_of_rest(agent), [], agent.name)
                for upstream in (False, True):
                    held = rows(agent, "SELECT FilePath FROM Files WHERE FileStatus = "
                                       "'_AGTMOD_FILESTORESTATUS_AVAILABLE_'", upstream)
                    gone = [path for path, in held if not os.path.exists(path)]
                    self.assertEqual(gone, [], agent.name)
                self.assertEqual(rows(agent, "SELECT FileId FROM Targets WHERE FileId NOT IN (SELECT FileId FROM Files)"),
                                 [], agent.name)


class StoreMoveTest(SystemTest):
    """An agent is killed at random moments of the move of its store to another file system and back."""

    def place_in_force(self, agent):
        recorded = rows(agent, "SELECT FieldValue FROM DatabaseInformation WHERE FieldName = 'FileStorageCurrentPath'")
        return pathlib.Path(recorded[0][0]) if recorded else agent.data / "FileStore"

    def files_at(self, place):
        """The files of the test in the store's folders at a place: path -> what is not to change."""
        paths = [path for folder in ("downstream", "upstream") for path in (place / folder / "Move").glob("*/*/*")]
        return {path.relative_to(place): (path.stat().st_mode, path.stat().st_mtime_ns, sha256_of(path))
                for path in paths}

    def test_a_kill_at_any_moment_leaves_one_complete_store(self):
        with Tree(BUILD, [1]) as tree, tempfile.TemporaryDirectory(dir="/dev/shm") as memory:
            home, away = tree.relays[0].data / "FileStore", pathlib.Path(memory) / "store"
            if os.stat(memory).st_dev == os.stat(tree.folder).st_dev:
                self.skipTest("there is one file system only")
            tree.start()
            agent, parent = tree.relays[0], tree.master
            down = write_files(tree.folder / "down", {f"{i}.bin": 5000 for i in range(30)})
            tree.publish(down.values(), "Move", "move")
            tree.wait_delivered({("move", name): sha256_of(path) for name, path in down.items()}, [agent], 60)
            parent.kill()
            sent = write_files(tree.folder / "up", {f"{i}.bin": 1000 * i + 1 for i in range(300)})
            expected = agent.send(*sent.values(), kind="Move", label="move")
            agent.kill()
            files = self.files_at(home)
            self.assertEqual(len(files), 330)
            for _ in range(KILLS):
                goal = away if self.place_in_force(agent) == home else home
                agent.set_ini("FileStore", "Directories", "FileStorage", goal)
                moves = agent.log().count("Moving the store from")
                agent.start()
                wait_until(lambda: agent.log().count("Moving the store from") > moves, 60, "the move begins")
                time.sleep(random.uniform(0, 0.12))
                agent.kill()
                place = self.place_in_force(agent)
                print(f"killed, the store is {'away' if place == away else 'at home'}", flush=True)
                self.assertEqual(self.files_at(place), files)
            agent.set_ini("FileStore", "Directories", "FileStorage", away)
            tree.run(agent)
            self.assertEqual(self.files_at(home), {})
            self.assertEqual(self.files_at(away), files)
            tree.run(parent)
            wait_collected(tree.master, expected, 60)
            self.end(tree)
            self.assertEqual({path for (path,) in rows(agent, "SELECT FilePath FROM Files WHERE FileType = 'Move'")},
                             {str(away / path) for path in files if path.parts[0] == "downstream"})


if __name__ == "__main__":
    unittest.main()
