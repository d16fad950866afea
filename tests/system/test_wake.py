"""A device that is off: publishing with --wake and `kel wake` send magic packets, which are captured here."""

import socket
import unittest

from case import BUILD, SystemTest
from tree import Tree, sha256_of, wait_until

ALL_ADDRESSES = ""


class Wake(SystemTest):
    def test_device_that_is_off_is_woken_by_the_device_above_it(self):
        with Tree(BUILD, [1]) as tree, socket.socket(socket.AF_INET, socket.SOCK_DGRAM) as listener:
            listener.bind((ALL_ADDRESSES, 0))
            listener.setblocking(False)
            relay, client = tree.relays[0], tree.clients[0]
            for agent in tree.agents:
                agent.set_ini("WakeOnLan", "WakeOnLan", "Port", listener.getsockname()[1])
            tree.start()
            card = client.identity()["MACAddress"]
            client.stop()

            def take():
                """The packets that have arrived, as (packet, address of the sender)."""
                taken = []
                while True:
                    try:
                        packet, (address, _) = listener.recvfrom(2000)
                        taken.append((packet, address))
                    except BlockingIOError:
                        return taken
            expected = b"\xff" * 6 + bytes.fromhex(card.replace("-", "")) * 16

            path = tree.folder / "update.bin"
            path.write_bytes(b"content")
            tree.master.kel("publish", path, "--type", "Demo", "--label", "l", "--to", client.name, "--wake")
            wait_until(lambda: [row["code"] for row in tree.master.kel("why", path.name)] == ["wake_up_sent"], 30,
                       "the reason is the wake-up")
            self.assertEqual([packet for packet, _ in take()], [expected])
            self.assertIn("A wake-up for", relay.log())
            self.assertNotIn("A wake-up for", tree.master.log())

            woken = tree.master.kel("wake", client.name)
            self.assertEqual([packet for packet, _ in take()], [expected])
            self.assertEqual((woken[0]["mac_address"], woken[0]["broadcast"]), (card, "127.255.255.255"))
            self.refused(tree.master.kel, "wake", "unknown")
            tree.run(client)
            tree.wait_delivered({("l", path.name): sha256_of(path)}, [client], 60)


if __name__ == "__main__":
    unittest.main()
