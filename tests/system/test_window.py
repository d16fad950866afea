"""Uploads under transfer windows, judged by the bytes that pass: they go on where they stood, after a window that
closed and after kills, and keep to the rate together with what is downloaded at the same time."""

import time
import unittest

from case import SystemTest, wait_collected, write_files
from faults import FaultTree
from tree import wait_until

MB = 1_000_000
SIZE = 20 * MB
RATE = "24M"
UP = "up"


class Window(SystemTest):
    def set_window(self, agent, week):
        agent.call("TransferWindowSetWindow", Direction=1, Week=week)

    def wait_sent(self, proxy, begin, size):
        wait_until(lambda: proxy.passed[UP] - begin >= size, 120, f"{size} bytes are sent up")

    def wait_quiet(self, proxy, size=20_000):
        """Waits until less than `size` bytes pass in a second: what else devices say is less."""
        def is_quiet():
            begin = proxy.passed[UP]
            time.sleep(1)
            return proxy.passed[UP] - begin < size
        wait_until(is_quiet, 60, "the upload rests")

    def send(self, relay, name):
        return relay.send(*write_files(relay.root.parent / "files", {name: SIZE}).values())

    def test_interrupted_uploads_go_on_where_they_stood(self):
        with FaultTree([0], proxies=["relay1"]) as tree:
            relay, proxy = tree.relays[0], tree.relays[0].proxy
            tree.start()
            with self.subTest("the window closes twice"):
                self.set_window(relay, RATE)
                begin = proxy.passed[UP]
                expected = self.send(relay, "windows.bin")
                for part in (SIZE // 8, SIZE // 4):
                    self.wait_sent(proxy, begin, part)
                    self.set_window(relay, "closed")
                    self.wait_quiet(proxy)
                    self.assertLess(proxy.passed[UP] - begin, SIZE)
                    self.set_window(relay, RATE)
                wait_collected(tree.master, expected, 120)
                self.assertLess(proxy.passed[UP] - begin, SIZE * 1.01)
            with self.subTest("sender and receiver are killed"):
                begin = proxy.passed[UP]
                expected = self.send(relay, "kills.bin")
                for part, agent in (SIZE // 8, relay), (SIZE // 4, tree.master):
                    self.wait_sent(proxy, begin, part)
                    agent.kill()
                    tree.run(agent)
                wait_collected(tree.master, expected, 120)
                self.assertLess(proxy.passed[UP] - begin, SIZE * 1.25)
            parts = list((tree.master.data / "FileStore" / "upstream").rglob(".kel-part-*"))
            self.assertEqual(parts, [])
            self.end(tree)

    def test_transfers_keep_to_the_rate_together(self):
        with FaultTree([0], proxies=["relay1"]) as tree:
            relay, proxy = tree.relays[0], tree.relays[0].proxy
            tree.start()
            self.set_window(relay, "16M")
            [path] = write_files(tree.folder / "files", {"down.bin": 40 * MB}).values()
            tree.publish([path])
            relay.send(*write_files(tree.folder / "files", {"up.bin": 40 * MB}, 2).values())
            wait_until(lambda: min(proxy.passed.values()) > MB, 60, "both directions move")
            begin, passed = time.monotonic(), sum(proxy.passed.values())
            time.sleep(12)
            passed = sum(proxy.passed.values()) - passed
            megabits = passed * 8 / (time.monotonic() - begin) / 1e6
            self.assertLess(megabits, 16 * 1.05)


if __name__ == "__main__":
    unittest.main()
