"""The password of a plain tree is changed device by device, while files move and without a restart."""

import subprocess
import unittest

from case import BUILD, SystemTest, wait_collected, write_files
from tree import AGENT_NAME, PASSWORD, Tree, sha256_of, wait_until

NEW = "the next password of this tree"


class PasswordTest(SystemTest):
    def status(self, agent, password):
        """The HTTP status of a call with this password."""
        run = subprocess.run(["curl", "-s", "-o", "/dev/null", "-w", "%{http_code}", "--digest", "--user",
                              f"{AGENT_NAME}:{password}", f"http://{agent.address}:{agent.port}/Action/AgentGetStatus",
                              "-H", "Content-Type: application/json", "-d", "{}"], text=True, capture_output=True)
        return run.stdout

    def test_the_password_changes_while_files_move(self):
        with Tree(BUILD, [1]) as tree:
            master, relay, client = tree.master, tree.relays[0], tree.clients[0]
            tree.start()
            started = [agent.process.pid for agent in tree.agents]
            new = tree.folder / "new"
            new.touch(0o600)
            new.write_text(NEW + "\n")
            self.refused(relay.kel, "password", "rotate", "--password-file", "/dev/null")
            for number, agent in enumerate((client, master, relay)):
                for _ in range(2):  # repeating it changes nothing
                    agent.kel("password", "rotate", "--password-file", new, "--until", "2099-12-31")
                self.assertEqual((self.status(agent, PASSWORD), self.status(agent, NEW)), ("200", "200"), agent.name)
                self.files(tree, f"rotate{number}")
                if agent is master:
                    text = self.refused(master.kel, "password", "end")
                    self.assertIn(relay.address, text)
            for number, agent in enumerate((relay, client, master)):
                wait_until(lambda: not agent.kel("password")[0].get("former_callers"), 30, f"{agent.name} is called anew")
                agent.kel("password", "end")
                self.assertEqual((self.status(agent, PASSWORD), self.status(agent, NEW)), ("401", "200"), agent.name)
                self.files(tree, f"end{number}")
            self.assertEqual([agent.process.pid for agent in tree.agents], started)
            for agent in tree.agents:
                self.assertEqual((agent.root / "config" / "Agent.ini").stat().st_mode & 0o777, 0o600)
                for other in tree.agents:
                    self.assertNotIn(f"Request from {other.address} with wrong credentials", agent.log())
                self.assertNotIn(PASSWORD, agent.log() + (agent.data / "Agent" / "audit.jsonl").read_text())
            self.end(tree)

    def files(self, tree, label):
        """One file down and one up, whichever of the devices has which password."""
        down, up = (write_files(tree.folder / f"{label}-{way}", {f"{way}.bin": 200_000}) for way in ("down", "up"))
        tree.publish(down.values(), label=label)
        expected = tree.clients[0].send(*up.values(), label=label)
        tree.wait_delivered({(label, name): sha256_of(path) for name, path in down.items()}, tree.devices, 30)
        wait_collected(tree.master, expected, 30)


if __name__ == "__main__":
    unittest.main()
