"""Which caller may call which action: all of them, by the descriptions that the agents give, in both kinds of trees."""

import contextlib
import json
import os
import socket
import subprocess
import unittest

from case import BUILD, SystemTest
from digest_client import DigestClient
from keyed_client import KeyedClient, OperatorOfTree
from test_attacks import neighbour
from tree import AGENT_NAME, Tree

OBSERVER = {"child", "observer"}  # who looks into a device; everybody who knows the password of a plain tree
OPERATOR = {"operator", "observer"}
OTHER_USER = 65534


@contextlib.contextmanager
def another_user():
    os.seteuid(OTHER_USER)
    try:
        yield
    finally:
        os.seteuid(0)


class AccessTest(SystemTest):
    def check_all(self, table, least):
        """`table`: (agent, caller, client, classes of the caller); None: the password of a plain tree is missing."""
        cells, actions = 0, {}
        for agent, caller, client, classes in table:
            if agent not in actions:
                actions[agent] = {action["Name"]: action for action in agent.call("AgentListActions")["Values"]}
            for name, (status, body) in client.call_each(actions[agent]).items():
                cells += 1
                with self.subTest(agent=agent.name, caller=caller, action=name):
                    self.check(actions[agent][name], classes, status, body)
        print(f"{cells} cells")
        self.assertGreaterEqual(cells, least)

    def check(self, action, classes, status, body):
        admitted = set(action["Callers"].split(", "))
        self.assertIn("local", admitted, "its callers are not stated")
        if "operator" in admitted and not action["Changes"]:
            admitted.add("observer")
        if classes is None or "stranger" in classes - admitted:
            return self.assertEqual(status, 401)
        self.assertEqual(status, 200)
        message = json.loads(body).get("Message", "")
        is_refused = "is for the device's own operator" in message or "is for these callers" in message
        self.assertEqual(is_refused, not admitted & classes, message)

    def test_every_action_admits_the_callers_that_its_description_names_and_no_others(self):
        with Tree(BUILD, [1]) as tree:
            tree.start()
            relay, client, table = tree.relays[0], tree.clients[0], []
            for agent in (relay, tree.master):
                table += [
                    (agent, "stranger", DigestClient(agent, neighbour(agent, 110), password=None), None),
                    (agent, "other device", DigestClient(agent, neighbour(agent, 111)), OBSERVER),
                    (agent, "child", DigestClient(agent, (client if agent is relay else relay).address), OBSERVER),
                    (agent, "remote operator", DigestClient(agent), OBSERVER),
                    (agent, "user of the device", DigestClient(agent, agent.address), OBSERVER),
                    (agent, "local operator", DigestClient(agent, local=True), {"local"}),
                ]
            table += [(relay, "parent", DigestClient(relay, tree.master.address), {"parent", "observer"})]
            self.check_all(table, 400)

    def test_with_keys_only_certificates_and_the_socket_count(self):
        with Tree(BUILD, [2], keys=True) as tree:
            other = tree.folder / "other"
            subprocess.run([tree.kel, "init", other, "--role", "master", "--address", tree.master.address, "--port", "1"],
                           check=True, stdout=subprocess.DEVNULL)
            tree.start()
            master, relay, client, sibling = *tree.agents[:3], tree.clients[1]
            # By the address alone, a stranger would be a parent or a child. The operator's calls come last: they
            # renew the key of the device.
            table = [(agent, f"{caller.name} at {agent.name}", KeyedClient(agent, caller.data / "Keys", source.address), classes)
                     for agent, caller, source, classes in (
                         (relay, master, client, {"parent", "observer"}), (relay, client, master, {"child"}),
                         (relay, relay, relay, OBSERVER),
                         (client, relay, sibling, {"parent", "observer"}), (client, sibling, relay, {"child"}),
                         (client, master, relay, OBSERVER), (client, client, relay, OBSERVER),
                         (master, relay, client, {"child"}), (master, client, relay, {"child"}),
                         (master, master, client, OBSERVER))]
            for agent, above in (relay, master), (client, relay):
                self.assertEqual(self.of_other_user(agent), b"")
                password = (agent.root / "config" / "Agent.ini").read_text().partition("\nHttpPassword=")[2].split("\n")[0]
                self.assertGreater(len(password), 20)
                table += [
                    (agent, "no certificate", KeyedClient(agent, source=above.address), {"stranger"}),
                    (agent, "another tree's", KeyedClient(agent, other / "data" / "Keys"), {"stranger"}),
                    (agent, "password", KeyedClient(agent, source=neighbour(agent, 112), user=(AGENT_NAME, password)),
                     {"stranger"}),
                    (agent, "user of the device", KeyedClient(agent, source=agent.address), {"stranger"}),
                    (agent, "operator of the tree", OperatorOfTree(agent, KeyedClient(agent, above.data / "Keys")), OPERATOR),
                ]
            table += [(agent, "local operator", DigestClient(agent, local=True), {"local"}) for agent in tree.agents[:3]]
            self.check_all(table, 2000)

    def of_other_user(self, agent):
        """What another user of the device reads from the agent's socket, when all folders and the socket are open."""
        path, opened = agent.root / "run" / "agent.sock", {}
        if os.geteuid() != 0:
            return b""
        for place, mode in (agent.tree.folder, 0o755), (agent.root, 0o755), (path.parent, 0o755), (path, 0o666):
            opened[place] = place.stat().st_mode
            place.chmod(mode)
        try:
            with another_user(), socket.socket(socket.AF_UNIX) as connection:
                connection.settimeout(30)
                connection.connect(str(path))
                with contextlib.suppress(BrokenPipeError, ConnectionResetError):
                    connection.sendall(b"GET /metrics HTTP/1.1\r\nHost: x\r\n\r\n")
                    return connection.recv(1000)
                return b""
        finally:
            for place, mode in opened.items():
                place.chmod(mode & 0o7777)


if __name__ == "__main__":
    unittest.main()
