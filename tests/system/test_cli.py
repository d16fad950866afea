"""What `kel` says and returns where a command cannot do what it was asked for, and what a normal stop logs."""

import fcntl
import os
import subprocess
import termios
import unittest

from case import BUILD, SystemTest, write_files
from tree import Tree


class JsonTest(SystemTest):
    def test_every_command_prints_json_with_names_of_its_own(self):
        with Tree(BUILD, [1], keys=True) as tree:
            tree.start()
            run = tree.master.kel
            path = write_files(tree.folder / "files", {"a.bin": 10})["a.bin"]
            key = ("--type", "t", "--label", "l")
            publication = run("publish", path, *key, "--to", "none")[0]["publication"]
            number = run("files")[0]["id"]
            lines = {
                "status": (), "devices": (), "devices list": (), "inbox": (), "files": (), "file": (number,), "top": (),
                "why": (publication,), "publish": (path, *key, "--to", "client11", "--stages", "50%,100%"),
                "publications": (publication,), "groups set": ("g", "relay1"), "groups add": ("g", "client11"),
                "groups": (), "groups list": (), "groups show": ("g",), "groups remove": ("g", "client11"),
                "groups delete": ("g",), "withdraw": (publication,), "collected": (), "upload": (),
                "request": (*key, "--name", "a.bin"), "settings get": (), "settings set": ("QueueGap=9",),
                "windows": (), "windows get": (), "windows set": ("up", "--slots", "0"), "multicast": (), "parent": (),
                "audit": ("--since", "1h"), "metrics": (), "doctor": (), "backup": (tree.folder / "backup",),
                "invite": ("--uses", "2"), "keys": (), "keys status": (), "keys list": (), "password": (),
                "password status": ()}
            # These say nothing here, print what is no list, or were run above.
            others = {"init", "restore", "settings", "resume", "wake", "send", "call", "completion", "manual", "devices remove",
                      "keys revoke", "keys join", "keys forget-parent", "password rotate", "password end",
                      "keys begin", "keys end-password", "keys renew"}
            commands = run("completion", "commands")
            self.assertEqual({command["name"] for command in commands}, {*lines, *others})
            for command, arguments in lines.items():
                printed = run(*command.split(), *arguments)
                self.assertIsInstance(printed, list, command)
                for item in printed:
                    self.check_names(command, item)
            self.assertEqual([row["role"] for row in run("top", "--tree")], ["master", "relay", "client"])
            for kind, name in (("devices", "client11"), ("settings", "QueueGap"), ("actions", "FileStoreListFiles"),
                               ("publications", publication)):
                self.assertIn({"name": name}, run("completion", kind))
            for key in b"q", b"\x03":
                self.check_view(tree.kel, tree.master.root, key)
            self.end(tree)

    def check_view(self, kel, root, key):
        """The view is drawn until the key ends it, and the terminal is as it was."""
        ours, theirs = os.openpty()
        before = termios.tcgetattr(theirs)
        with subprocess.Popen([kel, "--root", root, "top"], stdin=theirs, stdout=theirs, start_new_session=True,
                              preexec_fn=lambda: fcntl.ioctl(theirs, termios.TIOCSCTTY, 0)) as view:
            drawn = b""
            while b"Transfers:" not in drawn:
                drawn += os.read(ours, 4096)
            os.write(ours, key)
            self.assertEqual(view.wait(60), 0, key)
        self.assertEqual(termios.tcgetattr(theirs), before)
        os.close(ours)
        os.close(theirs)

    def check_names(self, command, item):
        for name, value in item.items():
            self.assertRegex(name, "^[a-z_0-9]+$", command)
            for inner in value if isinstance(value, list) else [value]:
                if isinstance(inner, dict) and name != "arguments":
                    self.check_names(command, inner)


class RefusedCommandTest(SystemTest):
    def test_what_only_the_master_or_a_parent_can_do(self):
        with Tree(BUILD, [1]) as tree:
            tree.start()
            master, relay, client = tree.master, tree.relays[0], tree.clients[0]
            path = write_files(tree.folder / "files", {"a.bin": 10})["a.bin"]
            publish = ("publish", path, "--type", "t", "--label", "l", "--to")
            at_master = f"the master is {master.address}:{master.port}"
            self.assertIn(at_master, self.refused(relay.kel, *publish, "all"))
            self.assertIn(at_master, self.refused(client.kel, "devices"))
            self.assertIn("no parent", self.refused(master.kel, "request", "--type", "t", "--label", "l", "--name", "x"))
            self.assertEqual(master.kel("files"), [])  # the request has left nothing behind
            text = self.refused(master.kel, *publish, "nobody")
            self.assertEqual(text.split("\n")[0], 'kel: There is no device "nobody"')
            master.kel(*publish, "none")
            self.assertEqual([(file["name"], file["status"]) for file in master.kel("files")], [("a.bin", "available")])
            self.end(tree)
            for agent in tree.agents:
                stop = agent.log().split("Received signal")[1]
                self.assertNotRegex(stop, " (WARNING|ERROR) ", agent.name)
            relay.start()
            client.start()
            relay.wait_ready()
            client.wait_ready()
            self.assertIn("the master is above", self.refused(client.kel, *publish, "all"))


if __name__ == "__main__":
    unittest.main()
