"""Why a file has not arrived: six causes, all shown by one command on the master, with default settings."""

import time
import unittest

from case import SystemTest
from faults import SHIM, FaultTree
from tree import wait_until

CONTENT = bytes(range(256)) * 4000 + b"the bytes that are damaged" + bytes(1000)
CAUSES = {"off": "peer_unreachable", "window": "window_closed", "disk": "disk_full", "stranger": "peer_refused",
          "damaged": "checksum_wrong", "lost": "parent_unreachable"}
NOTICED_BY_RELAY = {"off", "stranger"}


def all_week_but_soon():
    """A window in UTC that opens in two or three hours, for an hour."""
    now = time.gmtime()
    return ["1" if slot == (now.tm_wday * 24 + now.tm_hour + 3) % 168 else "0" for slot in range(168)]


@unittest.skipUnless(SHIM.exists(), "needs the shim")
class Why(SystemTest):
    def make_trouble(self, tree):
        clients = dict(zip(CAUSES, tree.clients))
        clients["off"].kill()
        clients["window"].kel("windows", "set", "up", "--utc", "--slots", " ".join(all_week_but_soon()))
        clients["disk"].shim.fail("write", "ENOSPC", "FileStore/downstream/Demo/*")
        clients["stranger"].stop()
        clients["stranger"].set_ini("Agent", "Agent", "HttpPassword", "of another tree")
        clients["stranger"].start()
        clients["damaged"].proxy.add("flip", "down", CONTENT[-1010:-1000])
        clients["lost"].proxy.close()
        wait_until(lambda: "out of sync" in clients["stranger"].log(), 30, "the stranger is refused")
        return clients

    def test_six_causes_in_one_tree(self):
        with FaultTree([6], shims=["client13"], proxies=["client15", "client16"], short_intervals=False) as tree:
            tree.start()
            clients = self.make_trouble(tree)
            names = {client.name: cause for cause, client in clients.items()}
            path = tree.folder / "update.bin"
            path.write_bytes(CONTENT)
            begin = time.time()
            publication = tree.publish([path])[0]["publication"]
            found = {}

            def explained():  # and the relay, which has the file, is named no longer
                found.clear()
                found.update((names.get(row["name"]), row) for row in tree.master.kel("why", publication))
                return {cause: row["code"] for cause, row in found.items()} == CAUSES
            try:
                wait_until(explained, 40, "")
            except TimeoutError:
                self.fail(f"not explained: {found}")
            for cause, row in found.items():
                place = "relay1" if cause in NOTICED_BY_RELAY else clients[cause].name
                self.assertEqual(row["at_name"], place, cause)
                self.assertTrue(begin - 60 <= row["since"] <= time.time() + 1 or cause == "window", row)
                self.assertTrue(time.time() - 5 < row["next_try"] < time.time() + 4 * 3600, row)
            self.assertEqual(tree.master.kel("why", "update.bin", clients["disk"].name)[0]["code"], "disk_full")
            shown = {names[row["name"]]: row["reason"]["code"] for row in
                     tree.master.kel("publications", publication) if row["status"] == "pending"}
            self.assertEqual(shown, CAUSES)
            files = clients["disk"].stored_files()
            self.assertEqual([file["reason"]["code"] for file in files if file["type"] == "Demo"], ["disk_full"])
            self.assertEqual(clients["disk"].kel("status")[0]["waiting"]["disk_full"]["files"], 1)
            self.assertIn("until", clients["window"].kel("status")[0]["waiting"]["window_up"])
            self.assertTrue(clients["lost"].kel("status")[0]["relay"]["parent_problem"])


if __name__ == "__main__":
    unittest.main()
