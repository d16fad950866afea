"""Nothing is lost and nothing waits without reason when disks, links and databases fail.

Faults are over after a moment, but what they held up is tried again after the file store's time-outs, five minutes at
least: the agents' clock runs sixty times as fast. Everything at once is the subject of `./dev soak`.
"""

import hashlib
import random
import time
import unittest
import zipfile

from case import INDEX, SystemTest, wait_collected, write_files, zip_of
from faults import (AT_REST, SHIM, WRITING, Child, FaultTree, SteppedClock, damage, index_of, md5_of, packed_entries,
                    wait_at_rest)
from tree import find_faketime, sha256_of, wait_until

SPEED = 60
RETRIED = 60  # seconds in which everything that failed has been tried again several times
KIND = "Lost"
PAGE = 4096  # of a database


def key_of(name, content, kind=KIND):
    return kind, "l", name, md5_of(content)


def archive_of(child, files):
    """Key and content of an archive as a relay makes it; `files`: name -> content."""
    body = zip_of([index_of(child, KIND, files), *packed_entries(KIND, files)])
    return key_of("a.zip", body, "FileStorePackedFiles"), body


@unittest.skipUnless(find_faketime() and SHIM.exists(), "needs libfaketime and the shim")
class LostTest(SystemTest):
    def tree(self, shape, pack="none", **options):
        """A running tree, one at a time: that of the test before this one ends. `pack` is the policy of all relays."""
        self.doCleanups()
        tree = FaultTree(shape, SteppedClock(SPEED), **options)
        self.addCleanup(tree.close)
        for relay in tree.relays:
            relay.pack(pack)
        tree.start()
        return tree

    def files(self, tree, count=1, size=50_000):
        return list(write_files(tree.folder / "out", {f"file{i}.bin": size + i for i in range(count)}).values())

    def check_delivered(self, tree, agents, paths, seconds=RETRIED):
        tree.wait_delivered({("l", path.name): sha256_of(path) for path in paths}, agents, seconds)

    def check_at_rest(self, agents):
        left = wait_at_rest(agents, RETRIED)
        self.assertFalse(left, f"these rows wait: {left}")

    def wait_sent(self, agent, count):
        """Waits until the parent has so many of the sent files."""
        wait_until(lambda: sum(file["type"] == KIND and file["status"] in AT_REST
                               for file in agent.kel("files", "--upstream")) == count, 30, f"{count} are sent")

    def test_an_upload_is_damaged_or_its_answer_lost(self):
        for case, pack in (("damaged", "none"), ("damaged", "auto"), ("answer lost", "auto")):
            with self.subTest(case, pack=pack):
                tree = self.tree([1], pack, proxies=["relay1"])
                relay, (path,) = tree.relays[0], self.files(tree)
                self.check_at_rest([relay])
                rule = (("flip", "up", path.read_bytes()[20000:20016]) if case == "damaged"
                        else ("cut", "down", b"HTTP/1.1 201"))
                fault = relay.proxy.add(*rule)
                wait_collected(tree.master, tree.clients[0].send(path, kind=KIND), RETRIED)
                wait_until(lambda: fault.fired, 30, "the fault")
                self.check_at_rest([relay])

    def test_an_arrived_upload_is_handled_once_the_disk_takes_it(self):
        content = random.Random(1).randbytes(50_000)
        for case, packed, operations, error, pattern, count in (
                ("queue", False, WRITING, "ENOSPC", "Callback.sqlite*", 1),
                ("row", False, WRITING, "ENOSPC", "Upstream.sqlite*", 1),
                ("unpacking", True, WRITING, "ENOSPC", ".extract-*", 5),
                ("index", True, "read", "EIO", f".extract-*/{INDEX}", 1)):
            with self.subTest(case):
                master = self.tree([], shims=["master"]).master
                child = Child(master)
                files = {"file.bin": content}
                key, body = archive_of(child, files) if packed else (key_of("file.bin", content), content)
                url = child.offer(key, len(body))
                master.shim.fail(operations, error, f"FileStore/{pattern}")
                accepted = child.put(url, body)
                master.shim.wait_failed(count)
                time.sleep(2)
                master.shim.clear()
                if not accepted:
                    child.upload(key, body)
                wait_collected(master, {(child.guid, "l", "file.bin"): hashlib.sha256(content).hexdigest()}, 40)

    def test_delivered_files_survive_a_full_inbox_and_a_kill(self):
        tree = self.tree([1], shims=["client11"])
        (client,), paths = tree.clients, self.files(tree, 5, 1000)
        client.shim.fail(WRITING, "ENOSPC", "Delivery/*")
        tree.publish(paths, KIND, "l")
        client.shim.wait_failed(5)
        time.sleep(5)  # the other four are answered, too
        client.kill()
        client.shim.clear()
        tree.run(client)
        self.check_delivered(tree, [client], paths)

    def test_a_copy_that_went_bad_on_a_relay_is_fetched_anew(self):
        tree = self.tree([1])
        (relay,), (client,), (path,) = tree.relays, tree.clients, self.files(tree)
        client.kill()
        tree.publish([path], KIND, "l")
        self.check_delivered(tree, [relay], [path], 30)
        damage(next((relay.data / "FileStore" / "downstream").rglob(path.name)), 20_000, 5)
        tree.run(client)
        self.check_delivered(tree, [client], [path])

    def lose(self, tree, agent, how, database):
        """Stops an agent, removes its database or damages it (half, or all pages but the first), and starts it."""
        self.assertEqual(agent.stop(), 0)
        size = database.stat().st_size
        if how == "removed":
            database.unlink()
        else:
            damage(database, *((size // 4, size // 2) if how == "half" else (PAGE, size - PAGE)))
        tree.run(agent)

    def test_a_lost_database_loses_no_file(self):
        """The relay loses it while the next device is away, or the device that files come from while the relay is."""
        for way, loser, how in (("down", "relay", "half"), ("down", "relay", "removed"), ("up", "relay", "pages"),
                                ("up", "relay", "removed"), ("down", "end", "removed"), ("up", "end", "removed")):
            with self.subTest(way, loser=loser, how=how):
                tree = self.tree([1])
                (relay,), (client,), paths = tree.relays, tree.clients, self.files(tree, 10, 1000)
                source, next_one = (tree.master, client) if way == "down" else (client, tree.master)
                losing, away = (relay, next_one) if loser == "relay" else (source, relay)
                away.kill()
                if way == "down":
                    tree.publish(paths, KIND, "l")
                else:
                    expected = source.send(*paths, kind=KIND)
                if loser == "relay" and way == "down":
                    self.check_delivered(tree, [relay], paths, 30)
                    self.check_at_rest([relay])
                elif loser == "relay":
                    self.wait_sent(client, 10)
                database = "FileStore.sqlite" if way == "down" else "Upstream.sqlite"
                self.lose(tree, losing, how, losing.data / "FileStore" / database)
                tree.run(away)
                if way == "down":
                    self.check_delivered(tree, [client], paths)
                else:
                    wait_collected(tree.master, expected, RETRIED)

    def test_a_lost_console_knows_its_devices_again(self):
        tree = self.tree([1])
        self.lose(tree, tree.master, "removed", next((tree.master.data / "Console").glob("*.sqlite")))
        tree.wait_known(RETRIED)


if __name__ == "__main__":
    unittest.main()
