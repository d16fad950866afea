"""What the operator's guide has its readers type, on a tree here; tests/package follows the whole guide on machines."""

import os
import re
import subprocess
import unittest

from case import BUILD
from guide import DEVICES, GUIDE, Reader, read_blocks, write_files
from tree import Tree


class LocalDevices(Tree):
    """The devices of the guide, as agents on this machine."""

    def __init__(self, keys):
        super().__init__(BUILD, [], keys=keys)
        self.relays = [self.add("relay", "relay", self.master)]
        self.clients = [self.add(name, "client", self.relays[0]) for name in ("shop-1", "shop-2")]
        self.by_name = {agent.name: agent for agent in self.agents}
        self.home = self.folder / "home"
        write_files(self.home)

    def run_script(self, device, script):
        """Runs a script as on a device of the guide; what it has systemctl do with the agent is done here."""
        agent, printed = self.by_name[device], ""
        for name, address in DEVICES.items():
            script = script.replace(f"{address}:1610", f"{self.by_name[name].address}:{self.by_name[name].port}")
        environment = dict(os.environ, KEL_ROOT=agent.root, PATH=f"{self.kel.parent}:{os.environ['PATH']}")
        for part in re.split(r"^(systemctl (?:start|stop|restart)) kelagent\n", script, flags=re.MULTILINE):
            if part in ("systemctl stop", "systemctl restart"):
                agent.stop()
            if part in ("systemctl start", "systemctl restart"):
                self.run(agent)
            if part.startswith("systemctl "):
                continue
            done = subprocess.run(["bash", "-euo", "pipefail", "-c", part], text=True, stdout=subprocess.PIPE,
                                  stderr=subprocess.STDOUT, stdin=subprocess.DEVNULL, env=environment, cwd=self.home,
                                  timeout=120)
            printed += done.stdout
            if done.returncode != 0:
                break
        return subprocess.CompletedProcess(script, done.returncode, printed)


class GuideTest(unittest.TestCase):
    told = []

    @classmethod
    def tearDownClass(cls):
        print("The blocks that ran:", *cls.told, sep="\n")

    def test_commands(self):
        blocks = [block for block in read_blocks() if block.mark in ("", "plain")]
        self.assertTrue(blocks)
        for mark in sorted({block.mark for block in blocks}):
            with self.subTest(mark=mark), LocalDevices(keys=mark != "plain") as devices:
                devices.start()
                Reader(devices.run_script).follow([block for block in blocks if block.mark == mark], self.told.append)

    def test_links_lead_somewhere(self):
        def anchors(path):
            return {re.sub(r"[^\w -]", "", heading.lower()).replace(" ", "-")
                    for heading in re.findall(r"^##* (.*)$", path.read_text(), re.MULTILINE)}
        for path in (*GUIDE.parent.glob("*.md"), GUIDE.parents[1] / "README.md"):
            for file, anchor in re.findall(r"\]\(([\w./]*)(?:#([\w-]+))?\)", path.read_text()):
                with self.subTest(path=path.name, link=f"{file}#{anchor}"):
                    target = path.parent / file if file else path
                    self.assertTrue(target.exists())
                    self.assertIn(anchor or anchor, anchors(target) | {""})


if __name__ == "__main__":
    unittest.main()
