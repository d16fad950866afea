"""Which caller may call which action: all of them, by the descriptions that the agents give."""

import json
import unittest

from case import BUILD, SystemTest
from digest_client import DigestClient
from test_attacks import neighbour
from tree import Tree

OBSERVER = {"child", "observer"}  # who knows the password


class AccessTest(SystemTest):
    def test_every_action_admits_the_callers_that_its_description_names_and_no_others(self):
        with Tree(BUILD, [1]) as tree:
            tree.start()
            relay, client, cells = tree.relays[0], tree.clients[0], 0
            for agent in (relay, tree.master):
                callers = {
                    "stranger": (DigestClient(agent, neighbour(agent, 110), password=None), None),
                    "other device": (DigestClient(agent, neighbour(agent, 111)), OBSERVER),
                    "child": (DigestClient(agent, (client if agent is relay else relay).address), OBSERVER),
                    "remote operator": (DigestClient(agent), OBSERVER),
                    "user of the device": (DigestClient(agent, agent.address), OBSERVER),
                    "local operator": (DigestClient(agent, local=True), {"local"}),
                }
                if agent is relay:
                    callers["parent"] = (DigestClient(agent, tree.master.address), {"parent", "observer"})
                actions = {action["Name"]: action for action in agent.call("AgentListActions")["Values"]}
                for caller, (client_of, classes) in callers.items():
                    for name, (status, body) in client_of.call_each(actions).items():
                        cells += 1
                        with self.subTest(agent=agent.name, caller=caller, action=name):
                            self.check(actions[name], classes, status, body)
            self.assertGreaterEqual(cells, 400)

    def check(self, action, classes, status, body):
        if classes is None:
            return self.assertEqual(status, 401)
        self.assertEqual(status, 200)
        admitted = set(action["Callers"].split(", "))
        self.assertIn("local", admitted, "its callers are not stated")
        if "operator" in admitted and not action["Changes"]:
            admitted.add("observer")
        message = json.loads(body).get("Message", "")
        is_refused = "is for the device's own operator" in message or "is for these callers" in message
        self.assertEqual(is_refused, not admitted & classes, message)


if __name__ == "__main__":
    unittest.main()
