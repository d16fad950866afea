"""Nothing is lost and nothing waits without reason, whatever fails: disks, links, clocks, databases, consumers.

Faults are over after a moment, but what they held up is tried again after the file store's time-outs, five minutes at
least: the agents' clock runs sixty times as fast.
"""

import hashlib
import json
import random
import socket
import threading
import time
import unittest
import zipfile

from case import INDEX, SystemTest, collected_files, wait_collected, write_files, zip_of
from digest_client import DigestClient
from faults import (AT_REST, SHIM, WRITING, Child, FaultTree, SteppedClock, damage, faults_of_rest, index_of, md5_of,
                    packed_entries, rows, wait_at_rest)
from tree import ActionFailed, find_faketime, sha256_of, wait_until

SPEED = 60
RETRIED = 60  # seconds in which everything that failed has been tried again several times
KIND = "Lost"
YEAR = 365 * 86400
PAGE = 4096  # of a database
ENDLESS_BYTES = 512 << 20


def key_of(name, content, kind=KIND):
    return kind, "l", name, md5_of(content)


def from_child(child, files):
    """What the master collects of a device; `files`: name -> content."""
    return {(child.guid, "l", name): hashlib.sha256(content).hexdigest() for name, content in files.items()}


def archive_of(child, files, sizes=None):
    """Key and content of an archive as a relay makes it; `files`: name -> content."""
    body = zip_of([index_of(child, KIND, files, sizes), *packed_entries(KIND, files)], zipfile.ZIP_DEFLATED)
    return key_of("a.zip", body, "FileStorePackedFiles"), body


class EndlessServer:
    """Answers any request with a body of unknown length: slowly until `hurry`, and until somebody hangs up."""

    def __init__(self, address):
        self.sent, self.hurry, self.ended = 0, threading.Event(), threading.Event()
        self.listener = socket.create_server((address, 0))
        self.port = self.listener.getsockname()[1]
        threading.Thread(target=self._serve, daemon=True).start()

    def _serve(self):
        connection, _ = self.listener.accept()
        with self.listener, connection:
            connection.recv(65536)
            try:
                connection.sendall(b"HTTP/1.1 200 OK\r\nConnection: close\r\n\r\n")
                while self.sent < ENDLESS_BYTES:
                    connection.sendall(bytes(1 << 20))
                    self.sent += 1 << 20
                    self.hurry.wait(0.1)
            except OSError:
                pass
        self.ended.set()


@unittest.skipUnless(find_faketime() and SHIM.exists(), "needs libfaketime and the shim")
class FaultTest(SystemTest):
    def tree(self, shape, pack=None, clients_of_master=0, clock=None, **options):
        """A running tree, one at a time: that of the test before this one ends. `pack` is the policy of all relays."""
        self.doCleanups()
        tree = FaultTree(shape, clock or SteppedClock(SPEED), **options)
        self.addCleanup(tree.close)
        for _ in range(clients_of_master):
            tree.clients.append(tree.add("client", "client", tree.master))
        for relay in tree.relays:
            relay.pack(pack or "none")
            if pack == "manual":
                relay.set_ini("FileStore", "UploadPolicy", "MaxFilesToConcat", 5)
                relay.set_ini("FileStore", "UploadPolicy", "ExcludedFileType", "IdentityIdentity")
        tree.start()
        return tree

    def lone_master(self):
        """A master with a shim, and a device below it that is played here."""
        master = self.tree([], shims=["master"]).master
        return master, Child(master)

    def files(self, tree, count=1, size=50_000, name="file{}.bin", seed=1):
        sizes = {name.format(i or ""): size + i for i in range(count)}
        return list(write_files(tree.folder / "out", sizes, seed).values())

    def send(self, agent, paths, **options):
        return agent.send(*paths, kind=KIND, **options)

    def publish(self, tree, paths, to="all", priority=100):
        tree.publish(paths, KIND, "l", to, priority)

    def check_delivered(self, tree, agents, paths, seconds=RETRIED):
        tree.wait_delivered({("l", path.name): sha256_of(path) for path in paths}, agents, seconds)

    def check_at_rest(self, agents, seconds=RETRIED):
        left = wait_at_rest(agents, seconds)
        self.assertFalse(left, f"these rows wait: {left}")

    def wait_statuses(self, agent, count, *statuses):
        """Waits until so many of the sent files have a status with one of these words."""
        wait_until(lambda: sum(file["type"] == KIND and any(status in file["status"] for status in statuses)
                               for file in agent.kel("files", "--upstream")) == count, 30, f"{count} are {statuses}")


class UpTest(FaultTest):
    def test_identical_files_of_two_devices_are_both_collected(self):
        for shape in ([2], [1, 1]):
            for pack in (None, "auto"):
                with self.subTest(shape=shape, pack=pack):
                    tree = self.tree(shape, pack)
                    expected = {}
                    for client in tree.clients:
                        expected |= self.send(client, self.files(tree))
                    wait_collected(tree.master, expected, 20)

    def test_a_packing_relay_sends_a_file_twice(self):
        tree = self.tree([0], "auto")
        for _ in range(2):
            expected = self.send(tree.relays[0], self.files(tree))
            wait_collected(tree.master, expected, 30)
            collected_files(tree.master)[next(iter(expected))].unlink()

    def test_an_offer_without_content_leaves_the_row_of_another_device(self):
        tree = self.tree([1])
        relay, (path,) = tree.relays[0], self.files(tree)
        tree.master.kill()
        expected = self.send(tree.clients[0], [path])
        self.wait_statuses(relay, 1, "upload")
        Child(relay).offer(key_of(path.name, path.read_bytes()), path.stat().st_size)
        tree.run(tree.master)
        wait_collected(tree.master, expected, 30)

    def test_an_upload_is_damaged_or_its_answer_lost(self):
        for case, pack in (("damaged", None), ("damaged", "auto"), ("answer lost", "auto")):
            with self.subTest(case, pack=pack):
                tree = self.tree([1], pack, proxies=["relay1"])
                relay, (path,) = tree.relays[0], self.files(tree)
                self.check_at_rest([relay])
                rule = (("flip", "up", path.read_bytes()[20000:20016]) if case == "damaged"
                        else ("cut", "down", b"HTTP/1.1 201"))
                fault = relay.proxy.add(*rule, times=1)
                wait_collected(tree.master, self.send(tree.clients[0], [path]), RETRIED)
                wait_until(lambda: fault.fired, 30, "the fault")
                self.check_at_rest([relay])

    def test_an_upload_whose_folder_could_not_be_made(self):
        tree = self.tree([], clients_of_master=1, shims=["master"])
        tree.master.shim.fail("mkdir", "ENOSPC", f"FileStore/upstream/{KIND}*")
        expected = self.send(tree.clients[0], self.files(tree))
        tree.master.shim.wait_failed()
        time.sleep(3)
        tree.master.shim.clear()
        wait_collected(tree.master, expected, 40)

    def test_an_arrived_upload_is_handled_once_the_disk_takes_it(self):
        content = random.Random(1).randbytes(50_000)
        for case, packed, operations, error, pattern, count in (
                ("queue", False, WRITING, "ENOSPC", "Callback.sqlite*", 1),
                ("row", False, WRITING, "ENOSPC", "Upstream.sqlite*", 1),
                ("unpacking", True, WRITING, "ENOSPC", ".extract-*", 5),
                ("index", True, "read", "EIO", f".extract-*/{INDEX}", 1)):
            with self.subTest(case):
                master, child = self.lone_master()
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
                wait_collected(master, from_child(child, files), 40)

    def test_a_refused_record_of_an_archive_stops_no_other(self):
        master, child = self.lone_master()
        files = {"first.bin": b"first", "refused.bin": b"refused", "last.bin": b"last"}
        child.upload(*archive_of(child, files, {"refused.bin": -5}))
        del files["refused.bin"]
        wait_collected(master, from_child(child, files), 20)

    def test_a_package_without_a_relay_travels_on(self):
        tree = self.tree([1])
        expected = {}
        for kind in ("PackagerZIPPackage", "UpgradePackage"):
            expected |= tree.clients[0].send(*self.files(tree, name=kind), kind=kind)
        wait_collected(tree.master, expected, 20)

    def test_files_that_consumers_put_off_stop_no_others(self):
        tree = self.tree([], clients_of_master=1, shims=["master"])
        (client,), master = tree.clients, tree.master
        master.shim.fail(WRITING, "ENOSPC", "Delivery/Collected/*/Stuck*")
        stuck = client.send(*self.files(tree, 60, 100, "stuck{}"), kind="Stuck")
        master.shim.wait_failed(50)
        wait_collected(master, self.send(client, self.files(tree)), 30)
        master.shim.clear()
        wait_collected(master, stuck, RETRIED)

    def test_a_closed_window_holds_up_packed_files_until_it_opens_but_no_urgent_ones(self):
        with self.subTest("manual"):
            tree = self.tree([1], "manual")
            relay = tree.relays[0]
            relay.kel("windows", "set", "up", "--slots", "0")
            expected = self.send(tree.clients[0], self.files(tree, 12, 1000))
            self.wait_statuses(relay, 12, "to_be_uploaded")
            relay.kel("upload")
            time.sleep(3)
            relay.kel("windows", "set", "up", "--remove")
            wait_collected(tree.master, expected, 30)
        with self.subTest("bypass"):
            tree = self.tree([1], "auto")
            tree.relays[0].kel("windows", "set", "up", "--slots", "0")
            wait_collected(tree.master, self.send(tree.clients[0], self.files(tree), options=["--bypass"]), 30)

    def test_a_moved_source_stays_until_its_content_is_there(self):
        tree = self.tree([0])
        relay, (path,) = tree.relays[0], self.files(tree)
        content, expected = path.read_bytes(), {(relay.identity()["GUID"], "l", path.name): sha256_of(path)}
        Child(relay).offer(key_of(path.name, content), len(content))
        relay.call("FileStoreReceiveFile", FileType=KIND, FileLabel="l", FileName=path.name, Upstream=True,
                   MovePath=str(path))
        stored = (relay.data / "FileStore" / "upstream").rglob(path.name)
        self.assertTrue(path.exists() or list(stored), "the content is gone")
        wait_collected(tree.master, expected, 30)


class DownTest(FaultTest):
    def announce(self, tree, agent, key, size, url, *targets, source=""):
        """An announcement as the master makes it; `targets` are path names below the agent."""
        path = self.path_name(tree, agent)
        values = dict(zip(("FileType", "FileLabel", "FileName", "FileChecksum"), key), FileSize=size, FileURL=url,
                      SourceDevice=source, DevicePath={path: {target: {} for target in targets}})
        answer = DigestClient(agent, source=tree.master.address).action("FileStoreReceiveFile", json.dumps(values))
        self.assertEqual(answer[:2], (200, 0), answer)

    def path_name(self, tree, agent):
        return next(device["path_name"] for device in tree.master.kel("devices") if device["name"] == agent.name)

    def test_delivered_files_survive_a_full_inbox_and_a_kill(self):
        tree = self.tree([], clients_of_master=1, shims=["client"])
        (client,), paths = tree.clients, self.files(tree, 5, 1000)
        client.shim.fail(WRITING, "ENOSPC", "Delivery/*")
        self.publish(tree, paths)
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
        self.publish(tree, [path])
        self.check_delivered(tree, [relay], [path], 30)
        damage(next((relay.data / "FileStore" / "downstream").rglob(path.name)), 20_000, 5)
        tree.run(client)
        self.check_delivered(tree, [client], [path])

    def test_an_acknowledgement_that_the_database_refuses_is_repeated(self):
        tree = self.tree([1], shims=["relay1"], proxies=["client11"])
        relay, client = tree.relays[0], tree.clients[0]
        stall = client.proxy.add("stall", "up", b"GET /FileStore/downstream", times=1)
        self.publish(tree, self.files(tree), client.name)
        wait_until(lambda: stall.fired, 30, "the client fetches the file")
        time.sleep(3)  # the relay has recorded its announcement
        relay.shim.fail(WRITING, "EIO", "FileStore/FileStore.sqlite*")
        client.proxy.clear()
        wait_until(lambda: "Received acknowledge from" in relay.log(), 30, "the acknowledgement")
        relay.shim.wait_failed()
        relay.shim.clear()
        wait_until(lambda: not rows(relay, "SELECT * FROM Targets"), 40, "no target is left")

    def test_a_clock_set_back_freezes_no_row(self):
        clock = SteppedClock(SPEED)
        clock.step(YEAR)
        tree = self.tree([1], clock=clock, proxies=["relay1"])
        relay, client = tree.relays[0], tree.clients[0]
        cut = relay.proxy.add("cut", "up", b"PUT /FileStore/upstream")
        expected = self.send(client, self.files(tree, name="up.bin"))
        wait_until(lambda: cut.fired, 30, "the upload fails")
        client.kill()
        down = self.files(tree, name="down.bin")
        self.publish(tree, down)
        wait_until(lambda: rows(relay, "SELECT * FROM Targets WHERE LastNotifyTime > 0"), 30, "the announcement fails")
        for agent in tree.agents:
            agent.kill()
        clock.step(-YEAR)
        relay.proxy.clear()
        tree.run(*tree.agents)
        with self.subTest("down"):
            self.check_delivered(tree, [client], down)
        with self.subTest("up"):
            wait_collected(tree.master, expected, 10)

    def test_an_endless_body_is_bounded_and_delays_no_urgent_file(self):
        tree = self.tree([], clients_of_master=1)
        client, urgent = tree.clients[0], self.files(tree)
        address = f"{client.address.rsplit('.', 1)[0]}.250"
        server = EndlessServer(address)
        source = f"{address}:{server.port}/X"
        self.announce(tree, client, (KIND, "l", "endless", "0" * 32), 0, "/endless", source=source)
        time.sleep(5)
        self.publish(tree, urgent, priority=500)
        with self.subTest("urgent"):
            self.check_delivered(tree, [client], urgent, 15)
        server.hurry.set()
        if server.sent:
            wait_until(server.ended.is_set, 60, "the body ends")
        self.assertLess(server.sent, ENDLESS_BYTES, "the agent took all of it")

    def test_an_announcement_adds_targets_to_a_file_that_is_not_there_yet(self):
        with self.subTest("requested"):
            tree = self.tree([2])
            first, second = tree.clients
            self.refused(first.kel, "request", "--type", KIND, "--label", "l", "--name", "file.bin", "--wait", 2)
            paths = self.files(tree)
            self.publish(tree, paths, second.name)
            self.check_delivered(tree, tree.clients, paths, 30)
        with self.subTest("downloading"):
            tree = self.tree([2], proxies=["relay1"])
            first, second = tree.clients
            relay, paths = tree.relays[0], self.files(tree)
            stall = relay.proxy.add("stall", "up", b"GET /QuarnelDatabase", times=1)
            self.publish(tree, paths, first.name)
            wait_until(lambda: stall.fired, 30, "the relay fetches the file")
            known = rows(relay, "SELECT FileChecksum, FileSize, FileURL FROM Files WHERE FileName = 'file.bin'")
            checksum, size, url = known[0]
            self.announce(tree, relay, (KIND, "l", "file.bin", checksum), size, url, self.path_name(tree, second))
            relay.proxy.clear()
            self.check_delivered(tree, tree.clients, paths, 30)


class DatabaseTest(FaultTest):
    def lose(self, tree, agent, how, database):
        """Stops an agent, removes its database or damages it (half, or all pages but the first), and starts it."""
        self.assertEqual(agent.stop(), 0)
        size = database.stat().st_size
        if how == "removed":
            database.unlink()
        else:
            damage(database, *((size // 4, size // 2) if how == "half" else (PAGE, size - PAGE)))
        tree.run(agent)

    def test_a_lost_database_loses_no_file_on_its_way(self):
        for way, how in (("down", "half"), ("down", "removed"), ("up", "pages"), ("up", "removed")):
            with self.subTest(way, how=how):
                tree = self.tree([1])
                (relay,), (client,), paths = tree.relays, tree.clients, self.files(tree, 10, 1000)
                away = client if way == "down" else tree.master
                away.kill()
                if way == "down":
                    self.publish(tree, paths)
                    self.check_delivered(tree, [relay], paths, 30)
                    self.check_at_rest([relay])
                else:
                    expected = self.send(client, paths)
                    self.wait_statuses(client, 10, *AT_REST)
                database = "FileStore.sqlite" if way == "down" else "Upstream.sqlite"
                self.lose(tree, relay, how, relay.data / "FileStore" / database)
                tree.run(away)
                if way == "down":
                    self.check_delivered(tree, [client], paths)
                else:
                    wait_collected(tree.master, expected, RETRIED)

    def test_a_lost_database_at_an_end_loses_no_file(self):
        for way in ("down", "up"):
            with self.subTest(way):
                tree = self.tree([1])
                (relay,), (client,), paths = tree.relays, tree.clients, self.files(tree, 5, 1000)
                relay.kill()
                if way == "down":
                    self.publish(tree, paths)
                    end, database = tree.master, "FileStore.sqlite"
                else:
                    expected = self.send(client, paths)
                    end, database = client, "Upstream.sqlite"
                self.lose(tree, end, "removed", end.data / "FileStore" / database)
                tree.run(relay)
                if way == "down":
                    self.check_delivered(tree, tree.devices, paths)
                else:
                    wait_collected(tree.master, expected, RETRIED)

    def test_a_lost_console_knows_its_devices_again(self):
        tree = self.tree([1])
        self.lose(tree, tree.master, "removed", next((tree.master.data / "Console").glob("*.sqlite")))
        tree.wait_known(RETRIED)


class ErrorsTest(FaultTest):
    def test_everything_moves_after_a_time_of_errors(self):
        tree = self.tree([1], shims=["relay1", "client11"])
        for agent in tree.devices:
            agent.shim.fail(WRITING, "EIO", "*", 0.02)
        paths, expected, end = [], {}, time.monotonic() + 40
        while time.monotonic() < end:
            made = self.files(tree, 4, 20_000, f"{len(paths)}.{{}}", len(paths))
            paths += made
            self.publish(tree, made)
            for path in made:
                try:
                    expected |= tree.clients[0].send(path, kind="Sent")
                except ActionFailed:
                    pass  # the client said so
            time.sleep(1)
        for agent in tree.devices:
            agent.shim.wait_failed()
            agent.shim.clear()
        with self.subTest("down"):
            self.check_delivered(tree, tree.devices, paths)
        with self.subTest("up"):
            wait_collected(tree.master, expected, RETRIED)
        with self.subTest("rest"):
            self.check_at_rest(tree.agents)
        self.stop_all(tree)
        for agent in tree.agents:
            with self.subTest(agent.name):
                self.assertEqual(faults_of_rest(agent), [])


if __name__ == "__main__":
    unittest.main()
