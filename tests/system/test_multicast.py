"""One relay sends to many clients at once: each link carries a file once, and every client ends with the right bytes
whatever the network loses. Two relays use the same group on the same network throughout.

How fast anything happens does not matter here. A busy machine may lose datagrams, and it may hold up a client until
blocks have passed or a question has gone unanswered; what that may cost follows from what the kernels and logs say."""

import hashlib
import json
import re
import subprocess
import sys
import unittest

import netns
from case import SystemTest, write_files
from tree import sha256_of, wait_until

SIZE, SMALL = 64 << 20, 4 << 20
CLIENTS = 8
RATE = 60000  # kbit/s
GROUP, PORT, BLOCK = "224.2.0.0", 1500, 32000
SECONDS = 600  # only a hang takes that long
# Sends what looks like a file's datagrams, but lacks the tree's password. Says when it has begun.
FORGER = """
import socket, sys, time
path, size, block, local, group, port = sys.argv[1:]
size, block, digits, first = int(size), int(block), len(size), 0
sender = socket.socket(socket.AF_INET, socket.SOCK_DGRAM)
sender.setsockopt(socket.IPPROTO_IP, socket.IP_MULTICAST_IF, socket.inet_aton(local))
while True:
    head = (f"PUT {path} HTTP/1.1\\r\\nContent-Range: bytes {first:0{digits}}-{first + block - 1:0{digits}}/{size}\\r\\n"
            f"Content-Length: {block}\\r\\nKel-Code: {'0' * 32}\\r\\n\\r\\n")
    sender.sendto(head.encode() + b"X" * block, (group, int(port)))
    if first == 0:
        print("sending", flush=True)
    first = (first + block) % (size - size % block)
    time.sleep(0.01)
"""


@unittest.skipIf(netns.why_not(), netns.why_not())
class Multicast(SystemTest):
    def start(self, *shape, **options):
        tree = netns.NetTree(shape, **options)
        self.addCleanup(tree.close)
        for relay in tree.relays:
            relay.set_ini("Agent", "Agent", "LogLevel", "detail")
            for key, value in (("MulticastTransferDelay", 5), ("MulticastBlockSize", BLOCK), ("MulticastRetry", 8),
                               ("MulticastDifferencialRetry", "true"), ("MulticastMinimumSuccessRate", 100)):
                relay.set_ini("FileStore", "Multicast", key, value)
        tree.start(SECONDS)
        for relay in tree.relays:
            relay.kel("windows", "set", "multicast", "--slots", RATE)
        return tree

    def clients_of(self, relay):
        return [client for client in relay.tree.clients if client.parent is relay]

    def write(self, name, size=SIZE):
        return write_files(self.tree.folder / "files", {name: size}, seed=name)[name]

    def publish(self, relay, path):
        """Publishes a file to the clients of a relay; what they will have."""
        guids = ",".join(client.identity()["GUID"] for client in self.clients_of(relay))
        relay.tree.publish([path], label="mc", to=guids)
        return {("mc", path.name): sha256_of(path)}

    def wait_end(self, relay, name):
        """Waits until a relay has ended the transfer of a file; what it has logged since its beginning."""
        def log_of_transfer():
            log = relay.log().partition(f"MulticastThread: Demo/mc/{name}\n")[2]
            return "MulticastThread: Multicast transfer terminated" in log and log
        return wait_until(log_of_transfer, SECONDS, f"{relay.name} ends the transfer of {name}")

    @staticmethod
    def is_held_up(client, name, log):
        """True for one that began to listen after the first pass had begun, or did not answer in time."""
        first_pass = re.search(r"(\S+) .*Sending data retry number 1\.", log)[1]
        began = re.search(rf"(\S+) .*: waiting for .*/{name}, ", client.log())
        return not began or began[1] > first_pass or bool(
            re.search(rf"(MulticastIsCompleted on|Failed to notify) {client.address}:", client.parent.log()))

    def traffic(self, relay):
        """What a relay has sent so far, and how many of its datagrams each client has lost."""
        return self.tree.sent_bytes(relay), {client: self.tree.lost_datagrams(client) for client in self.clients_of(relay)}

    def check_multicast(self, relay, name, before, clients, alone=()):
        """These clients got the file by multicast, and the relay, whose traffic was `before`, repeated only what had been
        lost. The clients `alone` heard nothing and fetched it."""
        log = self.wait_end(relay, name)
        held_up = [client for client in clients if self.is_held_up(client, name, log)]
        self.assertLess(len(held_up), CLIENTS / 2, [client.name for client in held_up])
        failed = [client.name for client in clients
                  if client not in held_up and f"Device {client.address}:{netns.PORT} failed to receive" in log]
        self.assertEqual(failed, [], name)
        sent, losses = self.traffic(relay)
        sent -= before[0]
        lost = sum(losses[client] - before[1][client] for client in losses if client not in alone)
        # Each datagram has a head, and headers of its fragments; one that was held up may need all again, in both ways.
        most = SIZE * (1.25 + 1.05 * len(alone) + 2 * len(held_up)) + 1.05 * BLOCK * lost
        print(f"{relay.name} sent {sent / SIZE:.3f} times the file '{name}', at most {most / SIZE:.3f}; {lost} datagrams "
              f"lost, held up: {len(held_up)}", flush=True)
        self.assertGreater(sent, SIZE)
        self.assertLess(sent, most)

    def test_transfers_end_for_every_client_whatever_is_lost(self):
        self.tree = self.start(CLIENTS, CLIENTS)
        first, second = self.tree.relays
        finish_with_keys = self.begin_with_keys()
        finish_lossy = self.begin_lossy(first)
        self.check_absent_clients(second)
        self.check_killed_relay(second)
        finish_lossy()
        finish_with_keys()

    def begin_with_keys(self):
        """On a network of its own, a tree with keys, in which a client tries to steer transfers, and a stranger sends to
        the group. Gives what checks the end."""
        tree = self.start(2, subnet="10.77.1", keys=True)
        relay, (client, other) = tree.relays[0], tree.clients
        path = self.write("signed", SMALL)
        url = self.begin_forging(path, tree.master)
        expected = self.publish(relay, path)
        keys, body = client.data / "Keys", json.dumps({"MulticastAddress": GROUP, "FileURL": url})
        for agent in relay, other:
            for action in "HttpProtocolMulticastStopListen", "HttpProtocolMulticastStartListen", "FileStoreResetMulticastStatus":
                result = netns.run(*tree.place(client), "curl", "-sk", "--cert", keys / "certificate.pem", "--key", keys / "key.pem",
                                   "-o", "/dev/null", "-w", "%header{kel-result}", "-H", "Content-Type: application/json", "-d", body,
                                   f"https://{agent.address}:{agent.port}/Action/{action}")
                self.assertEqual(result, "17", (agent.name, action))

        def finish():
            tree.wait_delivered(expected, tree.clients, SECONDS)
            for agent in tree.clients:
                self.assertRegex(agent.log(), r"/signed are there.* [1-9]\d* forged")
        return finish

    def begin_lossy(self, relay):
        """All clients lose something, and a stranger sends to the group. Gives what checks the end."""
        clients = self.clients_of(relay)
        for number, client in enumerate(clients):
            self.tree.drop(client, f"numgen random mod {(20, 50)[number % 2]} 0")
        before = self.traffic(relay)
        path = self.write("lossy")
        self.begin_forging(path, self.tree.master)
        expected = self.publish(relay, path)

        def finish():
            self.check_multicast(relay, "lossy", before, clients)
            self.tree.wait_delivered(expected, clients, SECONDS)
            self.assertTrue(any(re.search(r"/lossy are there.* [1-9]\d* forged", client.log()) for client in clients))
        return finish

    def begin_forging(self, path, agent):
        """Has what looks like the datagrams of a file sent from the place of an agent; the URL path of the file."""
        url = f"/FileStore/downstream/Demo/mc/{hashlib.md5(path.read_bytes()).hexdigest()}/{path.name}"
        place = agent.tree.place(agent)
        forger = subprocess.Popen([*place, sys.executable, "-c", FORGER, url, str(path.stat().st_size),
                                   str(BLOCK), agent.address, GROUP, str(PORT)], stdout=subprocess.PIPE)
        self.addCleanup(forger.communicate)
        self.addCleanup(forger.kill)
        forger.stdout.readline()
        return url

    def check_absent_clients(self, relay):
        """One client hears nothing of the group, and one that cannot have all of the file vanishes while it listens."""
        deaf, gone, *others = self.clients_of(relay)
        self.tree.drop(deaf, "")
        self.tree.drop(gone, "numgen random mod 2 0")
        before = self.traffic(relay)
        expected = self.publish(relay, self.write("absent"))
        rows = wait_until(lambda: relay.kel("multicast", "--details"), SECONDS, "the clients listen")
        self.assertEqual({row["group"] for row in rows}, {GROUP})
        gone.kill()
        log = self.wait_end(relay, "absent")
        for client in (deaf, gone):
            self.assertIn(f"Device {client.address}:{netns.PORT} failed to receive in multicast mode", log)
        self.tree.wait_delivered(expected, [deaf, *others], SECONDS)
        self.assertEqual(relay.kel("multicast"), [])
        self.check_multicast(relay, "absent", before, others, alone=[deaf])
        for client in (deaf, gone):
            self.tree.drop(client, None)
        self.tree.run(gone)

    def check_killed_relay(self, relay):
        expected = self.publish(relay, self.write("killed"))
        wait_until(lambda: relay.kel("multicast"), SECONDS, "its clients listen")
        before = self.tree.sent_bytes(relay)
        wait_until(lambda: self.tree.sent_bytes(relay) - before > SIZE / 4, SECONDS, "the relay sends")
        relay.kill()
        self.tree.run(relay)
        self.tree.wait_delivered(expected, self.clients_of(relay), SECONDS)


if __name__ == "__main__":
    unittest.main()
