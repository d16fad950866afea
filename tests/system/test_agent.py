"""The agent program and the command line as an operator meets them."""

import signal
import subprocess
import time
import unittest

from case import BUILD, STOP_SECONDS, SystemTest, wait_for_part, write_files
from tree import ActionFailed, Tree, free_port

PACED_KILOBITS = 20_000


class StartTest(SystemTest):
    def run_agent(self, tree, *arguments):
        return subprocess.run([tree.kelagent, *arguments], text=True, capture_output=True, timeout=20)

    def test_what_keeps_an_agent_from_starting(self):
        with Tree(BUILD, []) as tree:
            root = tree.master.root
            self.assertEqual(self.run_agent(tree, "--root", root, "--check").returncode, 0)
            self.assertEqual(self.run_agent(tree).returncode, 2)
            tree.master.start()
            tree.master.wait_ready()
            self.assertIn(f"Ready at {tree.master.address}:{tree.master.port}", tree.master.log())
            second = self.run_agent(tree, "--root", root)
            self.assertEqual(second.returncode, 3, second.stderr)
            self.assertIn("another agent runs", second.stderr)
            self.stop_all(tree)

            tree.master.set_ini("HttpProtocol", "HttpProtocol", "BwPort", tree.master.port)
            deaf = self.run_agent(tree, "--root", root)
            self.assertEqual(deaf.returncode, 1)
            self.assertIn(f"cannot listen on port {tree.master.port}", deaf.stderr)
            self.assertNotIn("Ready", deaf.stderr)

            ini = root / "config" / "Agent.ini"
            ini.chmod(0o644)
            check = self.run_agent(tree, "--root", root, "--check")
            self.assertEqual(check.returncode, 1)
            self.assertIn("chmod 600", check.stdout)
            tree.master.set_ini("Agent", "Agent", "HttpPassword", "")
            start = self.run_agent(tree, "--root", root)
            self.assertEqual(start.returncode, 1)
            self.assertIn("HttpPassword", start.stderr)

    def test_nothing_is_answered_before_every_module_is_active(self):
        with Tree(BUILD, []) as tree:
            tree.master.set_ini("Agent", "Agent", "LogLevel", "detail")
            tree.master.start()
            tree.master.wait_ready()
            steps = ["FileStore Module Activate starting", "HttpProtocol Listening on", "Agent Ready at"]
            log = tree.master.log()
            self.assertEqual(sorted(steps, key=log.index), steps)

    def test_kel_tells_failures_apart(self):
        with Tree(BUILD, []) as tree:
            for arguments, code in ((["status"], 3), (["publish", "/no/such/file", "--type", "t"], 2)):
                with self.assertRaises(ActionFailed) as failed:
                    tree.master.kel(*arguments)
                self.assertEqual(failed.exception.exit_code, code, arguments)
            tree.master.start()
            tree.master.wait_ready()
            with self.assertRaises(ActionFailed) as failed:
                tree.master.call("NoSuchAction")
            self.assertEqual(failed.exception.exit_code, 1)
            tree.master.kel("settings", "set", "MulticastTTL=7")
            self.assertEqual(tree.master.kel("settings", "get", "MulticastTTL"), [{"Name": "MulticastTTL", "Value": "7"}])
            tree.master.kel("windows", "set", "up", "--slots", "0")
            window = tree.master.kel("windows")
            self.assertEqual([(item["Direction"], set(item["Slots"].split())) for item in window], [(1, {"0"})])
            tree.master.kel("windows", "set", "up", "--remove")
            self.assertEqual(tree.master.kel("windows"), [])
            again = subprocess.run([tree.kel, "init", tree.master.root, "--role", "master", "--address", "127.9.9.9",
                                    "--port", str(free_port("127.9.9.9")), "--password-file", tree.password_file],
                                   capture_output=True, text=True)
            self.assertEqual(again.returncode, 1)
            self.assertIn("exists", again.stderr)


class StopTest(SystemTest):
    def test_a_transfer_does_not_delay_the_stop(self):
        with Tree(BUILD, [1]) as tree:
            tree.start()
            relay = tree.relays[0]
            relay.call("TransferWindowSetWindow", Direction=1, Slots=str(PACED_KILOBITS), SlotType=2, UseUTCTime=True)
            paths = write_files(tree.folder / "files", {"large.bin": 64 << 20})
            tree.publish(paths.values())
            wait_for_part(relay, "large.bin", 1 << 20)
            for agent in (relay, tree.master):  # the receiving side, then the sending side
                begin = time.monotonic()
                self.assertEqual(agent.stop(STOP_SECONDS + 5), 0, agent.stderr()[-2000:])
                self.assertLess(time.monotonic() - begin, STOP_SECONDS, agent.name)
            self.stop_all(tree)
            self.check_databases(tree)

    def test_a_signal_for_the_process_and_its_group_is_one_stop(self):
        with Tree(BUILD, []) as tree:
            tree.master.start()
            tree.master.wait_ready()
            tree.master.process.send_signal(signal.SIGSTOP)  # so that both signals wait for it together
            for number in (signal.SIGTERM, signal.SIGINT):
                tree.master.process.send_signal(number)
            tree.master.process.send_signal(signal.SIGCONT)
            self.assertEqual(tree.master.process.wait(STOP_SECONDS), 0)


if __name__ == "__main__":
    unittest.main()
