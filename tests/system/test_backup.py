"""Devices whose root folders are lost come back from a backup, and the tree brings back what is not in it."""

import json
import shutil
import subprocess
import time
import unittest
import zipfile

from case import BUILD, SystemTest, wait_collected, write_files
from tree import Tree, sha256_of, wait_until


class BackupTest(SystemTest):
    def lose_and_restore(self, tree, agent, archive):
        agent.kill()
        shutil.rmtree(agent.root)
        agent.kel("restore", archive)
        tree.run(agent)

    def test_a_tree_converges_after_a_relay_and_its_master_were_restored(self):
        with Tree(BUILD, [1]) as tree:
            tree.start()
            master, (relay,), (client,) = tree.master, tree.relays, tree.clients
            paths = list(write_files(tree.folder / "files", {f"{i}.bin": 50_000 + i for i in range(5)}).values())
            expected = [{("files", path.name): sha256_of(path)} for path in paths]
            for agent in tree.agents:
                wait_until(lambda agent=agent: self.troubles(agent) == [], 30, f"{agent.name} is well")
            tree.publish(paths[:1])
            tree.wait_delivered(expected[0], tree.devices, 30)
            for agent in (master, relay):
                self.assertIn("an agent runs", self.refused(agent.kel, "restore", self.back_up(tree, agent)))
            backed_up_at = time.time()
            self.check_archive(tree.folder / "relay1.zip", relay, without="data/FileStore/FileStore.sqlite")
            self.check_archive(tree.folder / "master.zip", master, without="data/FileStore/Upstream.sqlite")

            # The lost relay alone knows that the file is on its way to a client that is off.
            client.stop()
            self.assertEqual(self.troubles(client), [("agent", "problem")])
            tree.publish(paths[1:2], to=client.name)
            wait_until(lambda: len(relay.kel("files")) >= 1, 30, "the relay has heard of the file")
            self.lose_and_restore(tree, relay, tree.folder / "relay1.zip")
            tree.run(client)
            tree.wait_delivered(expected[1], [client], 60)

            tree.publish(paths[3:4])  # after the backup: the restored master does not know it
            tree.wait_delivered(expected[3], tree.devices, 30)
            # Reports are dated in whole seconds: none in the backup is as new as those that are made from now on.
            wait_until(lambda: time.time() >= int(backed_up_at) + 1, 30, "a second has passed since the backup")
            self.lose_and_restore(tree, master, tree.folder / "master.zip")
            wait_until(lambda: all(device["last_seen"] > backed_up_at for device in master.kel("devices")), 60,
                       "all devices have reported themselves again")
            self.assertEqual(len({device["version"] for device in master.kel("devices")} - {""}), 1)
            names = {publication["name"] for publication in master.kel("publications")}
            self.assertEqual(names, {paths[0].name})
            tree.publish(paths[4:])
            tree.wait_delivered(expected[4], tree.devices, 30)
            wait_collected(master, client.send(paths[2]), 30)
            self.end(tree)

    def troubles(self, agent):
        """What `kel doctor` complains about; the free space is the machine's."""
        run = subprocess.run([agent.tree.kel, "--root", agent.root, "--json", "doctor"], text=True, capture_output=True)
        found = [(finding["check"], finding["state"]) for finding in json.loads(run.stdout)]
        self.assertEqual(run.returncode, int("problem" in [state for _, state in found]))
        return [finding for finding in found if finding[1] != "ok" and finding[0] != "space"]

    def back_up(self, tree, agent):
        archive = tree.folder / f"{agent.name}.zip"
        agent.kel("backup", archive)
        self.assertEqual(archive.stat().st_mode & 0o777, 0o600)
        self.assertFalse((agent.data / "Agent" / "Backup").exists())
        return archive

    def check_archive(self, archive, agent, without):
        with zipfile.ZipFile(archive) as entries:
            names = set(entries.namelist())
        self.assertLessEqual({"config/Agent.ini", "data/Identity/guid"}, names)
        self.assertNotIn(without, names)
        published = [name for name in names if name.startswith("data/Console/Packages/")]
        self.assertEqual(len(published), 1 if agent.role == "master" else 0)
        self.assertFalse([name for name in names if "downstream/" in name or "Inbox/" in name or "log/" in name])


if __name__ == "__main__":
    unittest.main()
