"""A plain tree gets keys device by device, while files move in both directions; each device stays who it is."""

import subprocess
import unittest

from case import BUILD, SystemTest, wait_collected, write_files
from tree import AGENT_NAME, PASSWORD, Tree, sha256_of, wait_until


class TransitionTest(SystemTest):
    def status(self, agent):
        """The HTTP status of a call with the password; "000" when the connection was closed without an answer."""
        url = f"http://{agent.address}:{agent.port}/Action/RelaySetParent"
        run = subprocess.run(["curl", "-s", "-o", "/dev/null", "-w", "%{http_code} %header{kel-result}", "--digest", "--user",
                              f"{AGENT_NAME}:{PASSWORD}", url, "-H", "Content-Type: application/json", "-d", "{}"],
                             text=True, capture_output=True)
        return run.stdout.strip()

    def send(self, tree, label):
        """Hands a file down and one up of each client, and gives what checks that all arrive."""
        sizes = {f"{label}.bin": 4_000_000}
        down = write_files(tree.folder / f"{label}-down", sizes)
        tree.publish(down.values(), label=label)
        expected = {}
        for client in tree.clients:
            expected |= client.send(*write_files(tree.folder / f"{label}-{client.name}", sizes, client.port).values(), label=label)

        def check():
            tree.wait_delivered({(label, name): sha256_of(path) for name, path in down.items()}, tree.devices, 60)
            wait_collected(tree.master, expected, 60)
        return check

    def give_keys(self, tree, agent, *command):
        agent.kel("keys", *command)
        for key in ("RetryInterval", "CheckInterval"):
            agent.set_ini("Keys", "Keys", key, 1)
        check = self.send(tree, f"{agent.name}-before")
        self.assertEqual(agent.stop(), 0)
        tree.run(agent)
        wait_until(lambda: agent.call("KeysGetValues")["Values"]["IsEnrolled"], 30, f"{agent.name} has its certificate")
        check()

    def test_a_plain_tree_gets_keys_while_files_move(self):
        with Tree(BUILD, [2]) as tree:
            tree.start()
            master, relay = tree.master, tree.relays[0]
            guids = {agent.name: agent.identity()["GUID"] for agent in tree.agents}
            self.give_keys(tree, master, "begin")
            token = master.kel("invite", "--role", "relay", "--uses", 3)[0]["token"]
            self.assertIn(relay.address, self.refused(master.kel, "keys", "end-password"))
            for number, agent in enumerate(tree.devices, 1):
                self.assertEqual(self.without_keys(master), {guids[other.name] for other in tree.devices[number - 1:]})
                self.give_keys(tree, agent, "join", token)
                self.send(tree, f"{agent.name}-after")()
            self.assertEqual([self.status(agent) for agent in (master, *tree.clients)], ["200 17", "000", "000"])
            for agent, options in (relay, ()), (master, ("--force",)):  # that call to the master was one with the password
                agent.kel("keys", "end-password", *options)
                self.assertEqual(self.status(agent), "000")
                self.send(tree, f"{agent.name}-end")()
            self.assertEqual({agent.name: agent.identity()["GUID"] for agent in tree.agents}, guids)
            self.assertEqual({device["guid"] for device in master.kel("devices")}, set(guids.values()))
            self.assertTrue(all(item["pending"] == 0 for item in master.kel("publications")))
            self.end(tree)

    def without_keys(self, master):
        return {item["guid"] for item in master.kel("keys", "list") if item.get("without_keys")}


if __name__ == "__main__":
    unittest.main()
