"""Nothing is lost and nothing waits without reason, whatever fails on the way: disks, links, clocks, databases, consumers.

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

from case import SystemTest, collected_files, wait_collected, write_files
from digest_client import DigestClient
from faults import AT_REST, IDENTITY, SHIM, Child, FaultTree, SteppedClock, damage, faults_of_rest, rows, wait_at_rest
from test_up_hostile import INDEX, zip_of
from tree import ActionFailed, find_faketime, sha256_of, wait_until

SPEED = 60
RETRIED = 60  # seconds in which everything that failed has been tried again several times
KIND = "Lost"
YEAR = 365 * 86400
PAGE = 4096  # of a database
WRITING = "write,sync,open,rename,mkdir,link"
ENDLESS_BYTES = 512 << 20


def md5_of(content):
    return hashlib.md5(content).hexdigest()


def send(agent, *paths, kind=KIND, options=()):
    """Sends files up; (device GUID, label, name) -> SHA-256."""
    agent.kel("send", "--type", kind, "--label", "l", *options, "--", *paths)
    guid = agent.identity()["GUID"]
    return {(guid, "l", path.name): sha256_of(path) for path in paths}


def pack_on(relay, policy="auto"):
    relay.set_ini("FileStore", "UploadPolicy", "ConcatFiles", policy)


def row_status(agent, name, upstream=True):
    return [file["status"] for file in agent.kel("files", *(["--upstream"] if upstream else [])) if file["name"] == name]


def archive_of(child, files, sizes=None):
    """An archive as a relay makes it; `files`: name -> content."""
    records = "".join(
        '<Value name="PackedFile" type="container">' + "".join(
            f'<Value name="{name}" type="{kind}">{value}</Value>' for name, kind, value in (
                ("FileType", "string", KIND), ("FileLabel", "string", "l"), ("FileName", "string", file),
                ("FileChecksum", "string", md5_of(content)), ("SourceDevice", "string", child.url),
                ("Upstream", "bool", "true"), ("FileSize", "int64", (sizes or {}).get(file, len(content)))))
        + "</Value>" for file, content in files.items())
    entries = [(f"upstream/{KIND}/l/{md5_of(content)}/{file}", content) for file, content in files.items()]
    return zip_of([(INDEX, f"<Container>{records}</Container>"), *entries], zipfile.ZIP_DEFLATED)


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
    def tree(self, shape, **options):
        """One at a time: a tree of the test before this one ends."""
        self.doCleanups()
        tree = FaultTree(shape, options.pop("clock", SteppedClock(SPEED)), **options)
        self.addCleanup(tree.close)
        return tree

    def started(self, shape, **options):
        tree = self.tree(shape, **options)
        tree.start()
        return tree

    def lone_master(self):
        """A master with a shim, and a device below it that is played here."""
        tree = self.tree([], shims=["master"])
        tree.master.start()
        tree.master.wait_ready()
        return tree.master, Child(tree.master)

    def client_below_master(self, **options):
        tree = self.tree([], **options)
        client = tree.add_client()
        tree.start()
        return tree, client

    def file(self, tree, name="file.bin", size=50_000, seed=1):
        return write_files(tree.folder / "out", {name: size}, seed)[name]

    def restart(self, *agents):
        for agent in agents:
            agent.start()
        for agent in agents:
            agent.wait_ready()

    def check_collected(self, master, expected, seconds=RETRIED):
        """As wait_collected, but as a check that tells what is there instead."""
        self.check_in_time(wait_collected, master, expected, seconds, tell=lambda: f"; there: {sorted(collected_files(master))[:9]}")

    def check_delivered(self, tree, agents, paths, seconds=RETRIED):
        self.check_in_time(tree.wait_delivered, {("l", path.name): sha256_of(path) for path in paths}, agents, seconds)

    def check_in_time(self, wait, *arguments, tell=str):
        lost = ""
        try:
            wait(*arguments)
        except TimeoutError as error:
            lost = f"{error}{tell()}"
        if lost:
            self.fail(lost)

    def check_at_rest(self, agents, seconds=RETRIED):
        left = wait_at_rest(agents, seconds)
        self.assertFalse(left, f"these rows wait: {left}")


class UpTest(FaultTest):
    def test_identical_files_of_two_devices_are_both_collected(self):
        for shape, packed in (([2], False), ([1, 1], False), ([2], True), ([1, 1], True)):
            with self.subTest(shape=shape, packed=packed):
                tree = self.tree(shape)
                for relay in tree.relays if packed else []:
                    pack_on(relay)
                tree.start()
                expected = {}
                for client in tree.clients:
                    expected |= send(client, self.file(tree))
                self.check_collected(tree.master, expected, 20)

    def test_a_packing_relay_sends_a_file_twice(self):
        tree = self.tree([0])
        pack_on(tree.relays[0])
        tree.start()
        expected = send(tree.relays[0], self.file(tree))
        self.check_collected(tree.master, expected, 30)
        collected_files(tree.master)[next(iter(expected))].unlink()
        send(tree.relays[0], self.file(tree))
        self.check_collected(tree.master, expected, 30)

    def test_an_offer_without_content_leaves_the_row_of_another_device(self):
        tree = self.started([1])
        relay, path = tree.relays[0], self.file(tree)
        tree.master.kill()
        expected = send(tree.clients[0], path)
        wait_until(lambda: any("UPLOAD" in status for status in row_status(relay, path.name)), 30, "it waits on the relay")
        Child(relay).offer((KIND, "l", path.name, md5_of(path.read_bytes())), path.stat().st_size)
        self.restart(tree.master)
        self.check_collected(tree.master, expected, 30)

    def test_a_damaged_upload_is_sent_again(self):
        for packed in (False, True):
            with self.subTest(packed=packed):
                tree = self.tree([1], proxies=["relay1"])
                relay, path = tree.relays[0], self.file(tree)
                pack_on(relay, "auto" if packed else "none")
                tree.start()
                flip = relay.proxy.add("flip", "up", match=path.read_bytes()[20000:20016], times=1)
                expected = send(tree.clients[0], path)
                wait_until(lambda: flip.fired, 30, "the upload is damaged")
                self.check_collected(tree.master, expected, 30)

    def test_an_upload_whose_folder_could_not_be_made(self):
        tree, client = self.client_below_master(shims=["master"])
        tree.master.shim.fail(("mkdir", "ENOSPC", "always", f"FileStore/upstream/{KIND}*"))
        expected = send(client, self.file(tree))
        tree.master.shim.wait_failed()
        time.sleep(3)
        tree.master.shim.clear()
        self.check_collected(tree.master, expected, 40)

    def test_an_archive_whose_answer_was_lost(self):
        tree = self.tree([1], proxies=["relay1"])
        relay = tree.relays[0]
        pack_on(relay)
        tree.start()
        self.check_at_rest([relay])
        cut = relay.proxy.add("cut", "down", match=b"HTTP/1.1 201", times=1)
        self.check_collected(tree.master, send(tree.clients[0], self.file(tree)))
        wait_until(lambda: cut.fired, 30, "the answer is lost")
        self.check_at_rest([relay])

    def test_an_arrived_upload_is_handled_once_the_disk_takes_it(self):
        content = random.Random(1).randbytes(50_000)
        cases = {"queue": (False, "Callback.sqlite*", 1), "row": (False, "Upstream.sqlite*", 1), "unpacking": (True, ".extract-*", 5)}
        for case, (packed, pattern, count) in cases.items():
            with self.subTest(case):
                master, child = self.lone_master()
                name = f"{case}.bin"
                body = archive_of(child, {name: content}) if packed else content
                key = ("FileStorePackedFiles", "l", "a.zip", md5_of(body)) if packed else (KIND, "l", name, md5_of(body))
                url = child.offer(key, len(body))
                master.shim.fail((WRITING, "ENOSPC", "always", f"FileStore/{pattern}"))
                status = child.client.request("PUT", url, body)[0]
                master.shim.wait_failed(count)
                time.sleep(2)
                master.shim.clear()
                if status // 100 != 2:
                    child.upload(key, body)
                self.check_collected(master, {(child.guid, "l", name): hashlib.sha256(content).hexdigest()}, 40)

    def test_an_archive_survives_an_index_that_cannot_be_read(self):
        content = b"packed content"
        for index in ("PackedFilesInfo.xml", "a.zip.xml"):  # as unpacked, and under its name of its own
            with self.subTest(index):
                master, child = self.lone_master()
                body = archive_of(child, {"packed.bin": content})
                key = ("FileStorePackedFiles", "l", "a.zip", md5_of(body))
                master.shim.fail(("read", "EIO", "always", f"FileStore/Temp/{index}"))
                accepted = child.upload_once(key, body)
                master.shim.wait_failed()
                time.sleep(2)
                master.shim.clear()
                if not accepted:
                    child.upload(key, body)
                self.check_collected(master, {(child.guid, "l", "packed.bin"): hashlib.sha256(content).hexdigest()}, 20)

    def test_a_refused_record_of_an_archive_stops_no_other(self):
        master, child = self.lone_master()
        files = {"first.bin": b"first", "refused.bin": b"refused", "last.bin": b"last"}
        body = archive_of(child, files, {"refused.bin": -5})
        child.upload(("FileStorePackedFiles", "l", "a.zip", md5_of(body)), body)
        self.check_collected(master, {(child.guid, "l", name): hashlib.sha256(files[name]).hexdigest()
                                      for name in ("first.bin", "last.bin")}, 20)

    def test_a_package_without_a_relay_travels_on(self):
        tree = self.started([1])
        expected = {}
        for kind in ("PackagerZIPPackage", "UpgradePackage"):
            expected |= send(tree.clients[0], self.file(tree, kind), kind=kind)
        self.check_collected(tree.master, expected, 20)

    def test_files_that_consumers_put_off_stop_no_others(self):
        tree, client = self.client_below_master(shims=["master"])
        tree.master.shim.fail((WRITING, "ENOSPC", "always", "Delivery/Collected/*/Stuck*"))
        stuck = send(client, *write_files(tree.folder / "stuck", {f"{i:02}": 100 + i for i in range(60)}).values(), kind="Stuck")
        tree.master.shim.wait_failed(50)
        self.check_collected(tree.master, send(client, self.file(tree)), 30)
        tree.master.shim.clear()
        self.check_collected(tree.master, stuck)

    def test_a_manual_upload_asked_for_over_a_closed_window_takes_all_once_it_opens(self):
        tree = self.tree([1])
        relay = tree.relays[0]
        pack_on(relay, "manual")
        relay.set_ini("FileStore", "UploadPolicy", "MaxFilesToConcat", 5)
        relay.set_ini("FileStore", "UploadPolicy", "ExcludedFileType", IDENTITY)
        tree.start()
        relay.kel("windows", "set", "up", "--slots", "0")
        paths = write_files(tree.folder / "out", {f"{i:02}": 1000 + i for i in range(12)})
        expected = send(tree.clients[0], *paths.values())
        wait_until(lambda: all("to_be_uploaded" in str(row_status(relay, name)) for name in paths), 30, "all wait on the relay")
        relay.kel("upload")
        time.sleep(3)
        relay.kel("windows", "set", "up", "--remove")
        self.check_collected(tree.master, expected, 30)

    def test_packed_bypass_files_do_not_wait_for_the_window(self):
        tree = self.tree([1])
        pack_on(tree.relays[0])
        tree.start()
        tree.relays[0].kel("windows", "set", "up", "--slots", "0")
        self.check_collected(tree.master, send(tree.clients[0], self.file(tree), options=["--bypass"]), 30)

    def test_a_moved_source_stays_until_its_content_is_there(self):
        tree = self.started([0])
        relay, path = tree.relays[0], self.file(tree)
        content = path.read_bytes()
        Child(relay).offer((KIND, "l", path.name, md5_of(content)), len(content))
        relay.call("FileStoreReceiveFile", FileType=KIND, FileLabel="l", FileName=path.name, Upstream=True, MovePath=str(path))
        self.assertTrue(path.exists() or list((relay.data / "FileStore" / "upstream").rglob(path.name)), "the content is gone")
        self.check_collected(tree.master, {(relay.identity()["GUID"], "l", path.name): hashlib.sha256(content).hexdigest()}, 30)


class DownTest(FaultTest):
    def publish(self, tree, paths, to="all", priority=100):
        tree.publish(paths, KIND, "l", to, priority)

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
        tree, client = self.client_below_master(shims=["client"])
        paths = list(write_files(tree.folder / "out", {f"{i}": 1000 + i for i in range(5)}).values())
        client.shim.fail((WRITING, "ENOSPC", "always", "Delivery/*"))
        self.publish(tree, paths)
        client.shim.wait_failed(5)
        time.sleep(5)  # the other four are answered, too
        client.kill()
        client.shim.clear()
        self.restart(client)
        self.check_delivered(tree, [client], paths)

    def test_an_acknowledgement_that_the_database_refuses_is_repeated(self):
        tree = self.started([1], shims=["relay1"], proxies=["client11"])
        relay, client, path = tree.relays[0], tree.clients[0], self.file(tree)
        stall = client.proxy.add("stall", "up", match=b"GET /FileStore/downstream", times=1)
        self.publish(tree, [path], client.name)
        wait_until(lambda: stall.fired, 30, "the client fetches the file")
        time.sleep(3)  # the relay has recorded its announcement
        relay.shim.fail((WRITING, "EIO", "always", "FileStore/FileStore.sqlite*"))
        client.proxy.clear()
        wait_until(lambda: "Received acknowledge from" in relay.log(), 30, "the acknowledgement")
        relay.shim.wait_failed()
        relay.shim.clear()
        wait_until(lambda: not rows(relay, "SELECT * FROM Targets"), 40, "no target is left")

    def test_a_clock_set_back_freezes_no_row(self):
        clock = SteppedClock(SPEED)
        clock.step(YEAR)
        tree = self.started([1], clock=clock, proxies=["relay1"])
        relay, client = tree.relays[0], tree.clients[0]
        cut = relay.proxy.add("cut", "up", match=b"PUT /FileStore/upstream")
        expected = send(client, self.file(tree, "up.bin"))
        wait_until(lambda: cut.fired, 30, "the upload fails")
        client.kill()
        down = self.file(tree, "down.bin")
        self.publish(tree, [down])
        wait_until(lambda: rows(relay, "SELECT * FROM Targets WHERE LastNotifyTime > 0"), 30, "the announcement fails")
        for agent in tree.agents:
            agent.kill()
        clock.step(-YEAR)
        relay.proxy.clear()
        self.restart(*tree.agents)
        with self.subTest("down"):
            self.check_delivered(tree, [client], [down])
        with self.subTest("up"):
            self.check_collected(tree.master, expected, 10)

    def test_an_endless_body_is_bounded_and_delays_no_urgent_file(self):
        tree, client = self.client_below_master()
        address = f"{client.address.rsplit('.', 1)[0]}.250"
        server = EndlessServer(address)
        self.announce(tree, client, (KIND, "l", "endless", "0" * 32), 0, "/endless", source=f"{address}:{server.port}/X")
        time.sleep(5)
        urgent = self.file(tree)
        self.publish(tree, [urgent], priority=500)
        with self.subTest("urgent"):
            self.check_delivered(tree, [client], [urgent], 15)
        server.hurry.set()
        if server.sent:
            wait_until(server.ended.is_set, 60, "the body ends")
        self.assertLess(server.sent, ENDLESS_BYTES, "the agent took all of it")

    def test_an_announcement_adds_targets_to_a_file_that_is_not_there_yet(self):
        with self.subTest("requested"):
            tree = self.started([2])
            first, second = tree.clients
            with self.assertRaises(ActionFailed):
                first.kel("request", "--type", KIND, "--label", "l", "--name", "file.bin", "--wait", 2)
            path = self.file(tree)
            self.publish(tree, [path], second.name)
            self.check_delivered(tree, tree.clients, [path], 30)
        with self.subTest("downloading"):
            tree = self.started([2], proxies=["relay1"])
            first, second = tree.clients
            relay, path = tree.relays[0], self.file(tree)
            stall = relay.proxy.add("stall", "up", match=b"GET /QuarnelDatabase", times=1)
            self.publish(tree, [path], first.name)
            wait_until(lambda: stall.fired, 30, "the relay fetches the file")
            known = rows(relay, f"SELECT FileChecksum, FileSize, FileURL FROM Files WHERE FileName = '{path.name}'")[0]
            self.announce(tree, relay, (KIND, "l", path.name, known[0]), known[1], known[2], self.path_name(tree, second))
            relay.proxy.clear()
            self.check_delivered(tree, tree.clients, [path], 30)


class DatabaseTest(FaultTest):
    def lose(self, agent, how, database):
        """Stops an agent, removes its database or damages half of it or all pages but the first, and starts it again."""
        self.assertEqual(agent.stop(), 0)
        size = database.stat().st_size
        if how == "removed":
            database.unlink()
        else:
            damage(database, *((size // 4, size // 2) if how == "half" else (PAGE, size - PAGE)))
        self.restart(agent)

    def test_a_lost_database_loses_no_file_on_its_way_down(self):
        for how in ("half", "removed"):
            with self.subTest(how):
                tree = self.started([1])
                relay, client = tree.relays[0], tree.clients[0]
                client.kill()
                paths = list(write_files(tree.folder / "out", {f"{i}": 1000 + i for i in range(10)}).values())
                DownTest.publish(self, tree, paths)
                self.check_delivered(tree, [relay], paths, 30)
                self.check_at_rest([relay])
                self.lose(relay, how, relay.data / "FileStore" / "FileStore.sqlite")
                self.restart(client)
                self.check_delivered(tree, [client], paths)

    def test_a_lost_database_loses_no_file_on_its_way_up(self):
        for how in ("pages", "removed"):
            with self.subTest(how):
                tree = self.started([1])
                relay, client = tree.relays[0], tree.clients[0]
                tree.master.kill()
                expected = send(client, *write_files(tree.folder / "out", {f"{i}": 1000 + i for i in range(10)}).values())
                wait_until(lambda: len([1 for file in client.kel("files", "--upstream") if file["type"] == KIND
                                        and file["status"] in AT_REST]) == 10, 30, "the relay has them")
                self.lose(relay, how, relay.data / "FileStore" / "Upstream.sqlite")
                self.restart(tree.master)
                self.check_collected(tree.master, expected)

    def test_a_lost_console_knows_its_devices_again(self):
        tree = self.started([1])
        self.lose(tree.master, "removed", next((tree.master.data / "Console").glob("*.sqlite")))
        tree.wait_known(RETRIED)


class ErrorsTest(FaultTest):
    def test_everything_moves_after_a_time_of_errors(self):
        names = ["relay1", "client11"]
        tree = self.started([1], shims=names)
        relay, client = tree.relays[0], tree.clients[0]
        for agent in (relay, client):
            agent.shim.fail((WRITING, "EIO", "p=0.02", "*"))
        paths, expected, end, number = [], {}, time.monotonic() + 40, 0
        while time.monotonic() < end:
            made = list(write_files(tree.folder / "out", {f"{number}.{i}": 20_000 + i for i in range(4)}, number).values())
            number += 1
            paths += made
            DownTest.publish(self, tree, made)
            for path in made:
                try:
                    expected |= send(client, path, kind="Sent")
                except ActionFailed:
                    pass  # the client said so
            time.sleep(1)
        for agent in (relay, client):
            agent.shim.wait_failed()
            agent.shim.clear()
        with self.subTest("down"):
            self.check_delivered(tree, tree.devices, paths)
        with self.subTest("up"):
            self.check_collected(tree.master, expected)
        with self.subTest("rest"):
            self.check_at_rest(tree.agents)
        self.stop_all(tree)
        for agent in tree.agents:
            with self.subTest(agent.name):
                self.assertEqual(faults_of_rest(agent), [])


if __name__ == "__main__":
    unittest.main()
