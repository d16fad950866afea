"""One relay sends to many clients at once: each link carries a file once, and every client ends with the right bytes
whatever the network loses. Two relays use the same group on the same network throughout."""

import subprocess
import sys
import unittest

import netns
from case import SystemTest, write_files
from tree import sha256_of, wait_until

SIZE = 64 << 20
CLIENTS = 8
RATE = 60000  # kbit/s
GROUP, PORT, BLOCK = "224.2.0.0", 1500, 32000
SECONDS = 240
SUCCEEDED = "devices successfully distributed by multicast"
# Sends what looks like a file's datagrams, but lacks the tree's password.
FORGER = """
import socket, sys, time
path, size, block, local, group, port = sys.argv[1:]
size, block, digits, first, end = int(size), int(block), len(size), 0, time.time() + 20
sender = socket.socket(socket.AF_INET, socket.SOCK_DGRAM)
sender.setsockopt(socket.IPPROTO_IP, socket.IP_MULTICAST_IF, socket.inet_aton(local))
while time.time() < end:
    head = (f"PUT {path} HTTP/1.1\\r\\nContent-Range: bytes {first:0{digits}}-{first + block - 1:0{digits}}/{size}\\r\\n"
            f"Content-Length: {block}\\r\\nKel-Code: {'0' * 32}\\r\\n\\r\\n")
    sender.sendto(head.encode() + b"X" * block, (group, int(port)))
    first = (first + block) % (size - size % block)
    time.sleep(0.005)
"""


@unittest.skipIf(netns.why_not(), netns.why_not())
class Multicast(SystemTest):
    def setUp(self):
        self.tree = netns.NetTree([CLIENTS, CLIENTS])
        self.addCleanup(self.tree.close)
        for relay in self.tree.relays:
            for key, value in (("MulticastTransferDelay", 5), ("MulticastBlockSize", BLOCK), ("MulticastRetry", 8),
                               ("MulticastDifferencialRetry", "true"), ("MulticastMinimumSuccessRate", 100)):
                relay.set_ini("FileStore", "Multicast", key, value)
        self.tree.start()
        for relay in self.tree.relays:
            relay.kel("windows", "set", "multicast", "--slots", RATE)

    def clients_of(self, relay):
        return [client for client in self.tree.clients if client.parent is relay]

    def publish(self, relay, name, clients=None):
        """Publishes a file to clients of a relay; what they will have."""
        path = write_files(self.tree.folder / "files", {name: SIZE}, seed=name)[name]
        guids = ",".join(client.identity()["GUID"] for client in clients or self.clients_of(relay))
        self.tree.publish([path], label="mc", to=guids)
        return {("mc", name): sha256_of(path)}

    def wait_logged(self, relay, text, times=1):
        wait_until(lambda: relay.log().count(text) >= times, SECONDS, f"{relay.name} logs '{text}'")

    def check_bytes(self, relay, sent, most):
        sent = self.tree.sent_bytes(relay) - sent
        print(f"{relay.name} sent {sent / SIZE:.3f} times the file, at most {most / SIZE:.3f}", flush=True)
        self.assertLessEqual(sent, most, relay.name)

    def test_transfers_end_for_every_client_whatever_is_lost(self):
        self.check_losses()
        self.check_forger_and_absent_clients()
        self.check_killed_relay()

    def check_losses(self):
        """All clients of both relays, which send at the same time, complete by multicast."""
        expected, before = {}, {}
        for relay, condition in zip(self.tree.relays, ("numgen random mod 50 0", "numgen random mod 20 0")):
            for client in self.clients_of(relay):
                self.tree.drop(client, condition)
            before[relay] = self.tree.sent_bytes(relay)
            expected[relay] = self.publish(relay, f"lossy {relay.name}")
        for relay in self.tree.relays:
            self.wait_logged(relay, f"{CLIENTS}/{CLIENTS} {SUCCEEDED}")
            lost = sum(self.tree.dropped_bytes(client) for client in self.clients_of(relay))
            self.check_bytes(relay, before[relay], SIZE * 1.05 + 1.5 * lost)
            self.tree.wait_delivered(expected[relay], self.clients_of(relay), 60)
        for client in self.tree.clients:
            self.tree.drop(client, None)

    def check_forger_and_absent_clients(self):
        """Nothing is lost at the first relay, where a stranger sends to the group; at the second, one client hears
        nothing of the group and one vanishes while it listens."""
        first, second = self.tree.relays
        deaf, gone, *others = self.clients_of(second)
        self.tree.drop(deaf, "")
        before = self.tree.sent_bytes(first)
        expected = self.publish(first, "forged")
        url = f"/FileStore/downstream/Demo/mc/{self.checksum_of(first, 'forged')}/forged"
        master = self.tree.place(self.tree.master)
        forger = subprocess.Popen([*master, sys.executable, "-c", FORGER, url, str(SIZE), str(BLOCK), "10.77.0.1", GROUP,
                                   str(PORT)])
        self.addCleanup(forger.kill)
        also = self.publish(second, "absent")
        wait_until(lambda: second.kel("multicast", "--details"), SECONDS, "the second relay's clients listen")
        self.assertEqual(second.kel("multicast")[0]["group"], GROUP)
        gone.kill()
        self.wait_logged(first, f"{CLIENTS}/{CLIENTS} {SUCCEEDED}", times=2)
        self.check_bytes(first, before, SIZE * 1.05)
        self.tree.wait_delivered(expected, self.clients_of(first), 60)
        self.wait_logged(second, f"{CLIENTS - 2}/{CLIENTS} {SUCCEEDED}")
        self.wait_logged(second, f"Device {gone.address}:{netns.PORT} failed to receive in multicast mode")
        self.tree.wait_delivered(also, [deaf, *others], 120)
        self.assertEqual(second.kel("multicast"), [])
        self.tree.drop(deaf, None)
        self.tree.run(gone)

    def checksum_of(self, relay, name):
        found = wait_until(lambda: [file for file in relay.stored_files() if file["name"] == name], 60, name)
        return found[0]["checksum"]

    def check_killed_relay(self):
        relay = self.tree.relays[0]
        expected = self.publish(relay, "killed")
        wait_until(lambda: relay.kel("multicast"), SECONDS, "its clients listen")
        before = self.tree.sent_bytes(relay)
        wait_until(lambda: self.tree.sent_bytes(relay) - before > SIZE / 4, SECONDS, "the relay sends")
        relay.kill()
        self.tree.run(relay)
        self.tree.wait_delivered(expected, self.clients_of(relay), SECONDS)


if __name__ == "__main__":
    unittest.main()
