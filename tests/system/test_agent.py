"""The agent program and the command line as an operator meets them; what the publisher sees of a publication."""

import json
import os
import pwd
import signal
import subprocess
import unittest
from unittest import mock

from case import BUILD, STOP_SECONDS, SystemTest, use_tls, wait_for_part, write_files
from tree import AGENT_NAME, PASSWORD, Tree, sha256_of, wait_until

PACED_KILOBITS = 20_000
WATCHED_KILOBITS = 8_000


class StartTest(SystemTest):
    def run_agent(self, tree, *arguments):
        """Exit code and output of an agent that does not start."""
        run = subprocess.run([tree.kelagent, *arguments], text=True, capture_output=True, timeout=20)
        return run.returncode, run.stdout + run.stderr

    def test_what_keeps_an_agent_from_starting(self):
        with Tree(BUILD, []) as tree:
            agent, root = tree.master, tree.master.root
            agent.set_ini("Agent", "Agent", "LogLevel", "detail")
            self.assertEqual(self.run_agent(tree, "--root", root, "--check")[0], 0)
            self.assertEqual(self.run_agent(tree)[0], 2)
            tree.start()
            steps = ["FileStore Module Activate starting", "HttpProtocol Listening on",
                     f"Agent Ready at {agent.address}:{agent.port}"]
            log = agent.log()
            self.assertEqual(sorted(steps, key=log.index), steps, "every module is active before the first answer")
            code, output = self.run_agent(tree, "--root", root)
            self.assertEqual(code, 3)
            self.assertIn("another agent runs", output)
            self.stop_all(tree)

            agent.set_ini("HttpProtocol", "HttpProtocol", "BwPort", agent.port)
            code, output = self.run_agent(tree, "--root", root)
            self.assertEqual(code, 1)
            self.assertIn(f"cannot listen on port {agent.port}", output)
            self.assertNotIn("Ready", output)
            (root / "config" / "Agent.ini").chmod(0o644)
            code, output = self.run_agent(tree, "--root", root, "--check")
            self.assertEqual(code, 1)
            self.assertIn("chmod 600", output)

    def test_the_audit_says_who_changed_what_but_no_password(self):
        with Tree(BUILD, []) as tree:
            tree.start()
            agent = tree.master
            agent.kel("settings", "get")
            agent.kel("settings", "set", "MulticastTTL=7")
            agent.kel("windows", "set", "up", "mon 8-9 4M; else 20M")
            self.refused(agent.kel, "settings", "set", f"MulticastTTL={PASSWORD}")
            self.refused(agent.kel, "withdraw", "none")
            audit = agent.kel("audit", "--since", "1h")
            self.assertEqual([(line["action"], line["result"]) for line in audit],
                             [("FileStoreSetValues", 0), ("TransferWindowSetWindow", 0), ("FileStoreSetValues", 1),
                              ("ConsoleWithdraw", 1)])
            self.assertEqual({(line["operator"], line["address"]) for line in audit},
                             {(os.environ.get("SUDO_USER") or pwd.getpwuid(os.getuid()).pw_name, "local")})
            self.assertEqual(audit[0]["arguments"], {"Values": {"MulticastTTL": "7"}})
            self.assertNotIn(PASSWORD, (agent.data / "Agent" / "audit.jsonl").read_text())
            self.assertEqual(agent.kel("audit", "--limit", 1), audit[-1:])
            self.assertEqual(agent.kel("audit", "--since", "2999-01-01"), [])
            self.refused(agent.kel, "audit", "--since", "yesterday", code=2)

    def test_kel_shows_failures_by_its_exit_code(self):
        with Tree(BUILD, []) as tree:
            agent = tree.master
            self.refused(agent.kel, "status", code=3)
            self.refused(agent.kel, "publish", "/no/such/file", "--type", "t", code=2)
            tree.start()
            self.refused(agent.call, "NoSuchAction")
            agent.kel("settings", "set", "MulticastTTL=7")
            self.assertEqual(agent.kel("settings", "get", "MulticastTTL"), [{"name": "MulticastTTL", "value": "7"}])
            agent.kel("windows", "set", "up", "--slots", "0")
            self.assertEqual([(item["direction"], set(item["slots"].split())) for item in agent.kel("windows")], [("up", {"0"})])
            agent.kel("windows", "set", "up", "--remove")
            self.assertEqual(agent.kel("windows"), [])
            paths = write_files(tree.folder / "out", {"good.bin": 10, "empty.bin": 0})
            twin = write_files(tree.folder / "sub", {"good.bin": 11})["good.bin"]
            for files, text in ((paths.values(), "empty"), ([paths["good.bin"], twin], "named")):
                self.assertIn(text, self.refused(agent.kel, "send", "--type", "t", "--label", "l", *files))
            self.assertNotIn("good.bin", [file["name"] for file in agent.kel("files", "--upstream")])
            again = self.refused(agent.kel, "init", agent.root, "--role", "master", "--address", "127.9.9.9", "--port",
                                 20000, "--plain", "--password-file", tree.password_file)
            self.assertIn("exists", again)


class TlsTest(SystemTest):
    def test_basic_credentials_and_ranges_over_tls(self):
        with Tree(BUILD, []) as tree:
            agent = tree.master
            port, certificate = use_tls(agent)
            # The system's settings forbid old versions by themselves; the agent has to refuse them without their help.
            lax = tree.folder / "openssl.cnf"
            lax.write_text("openssl_conf=a\n[a]\nssl_conf=b\n[b]\nsystem_default=c\n"
                           "[c]\nMinProtocol=TLSv1\nCipherString=DEFAULT@SECLEVEL=0\n")
            with mock.patch.dict(os.environ, OPENSSL_CONF=str(lax)):
                tree.start()
            path = write_files(tree.folder / "files", {"data": 3 << 20})["data"]
            checksum = tree.publish([path], to="none")[0]["checksum"]
            server = f"{agent.address}:{port}"

            def curl(password, *options, scheme="https"):
                """Head and body of the answer, nothing when there is none."""
                return subprocess.run(["curl", "-s", "-i", "--basic", "-u", f"{AGENT_NAME}:{password}", "--cacert", certificate,
                                       *options, f"{scheme}://{server}/QuarnelDatabase/Packages/files/{checksum}/data"],
                                      capture_output=True, timeout=30).stdout
            content = path.read_bytes()
            self.assertTrue(curl(PASSWORD).endswith(b"\r\n\r\n" + content))
            part = curl(PASSWORD, "-r", "100000-2999999")
            self.assertTrue(part.startswith(b"HTTP/1.1 206 ") and part.endswith(b"\r\n\r\n" + content[100000:3000000]))
            refused = curl("wrong")
            self.assertTrue(refused.startswith(b"HTTP/1.1 401 ") and b"WWW-Authenticate: Basic" in refused, refused)
            self.assertEqual(curl(PASSWORD, "--tls-max", "1.1", "--ciphers", "DEFAULT@SECLEVEL=0"), b"")
            self.assertEqual(curl(PASSWORD, scheme="http"), b"")
            self.end(tree)


class WatchTest(SystemTest):
    def start_watching(self, tree, *arguments):
        return subprocess.Popen([tree.kel, "--root", tree.master.root, "--json", "publish", *map(str, arguments), "--watch"],
                                stdout=subprocess.PIPE, stderr=subprocess.PIPE, text=True)

    def counts(self, text):
        return [(item["targets"], item["delivered"], item["failed"], item["pending"]) for item in json.loads(text)]

    def test_watching_ends_with_the_last_target(self):
        with Tree(BUILD, [1]) as tree:
            relay, client = tree.relays[0], tree.clients[0]
            client.set_ini("Delivery", "Commands", "Doomed", "/bin/false")
            tree.start()
            paths = write_files(tree.folder / "files", {"a.bin": 1000, "b.bin": 200_000})
            watch = self.start_watching(tree, *paths.values(), "--type", "Demo", "--label", "l", "--to", "all")
            output, lines = watch.communicate(timeout=60)
            self.assertEqual((watch.returncode, self.counts(output)), (0, [(2, 2, 0, 0)] * 2), lines)
            self.assertIn("b.bin  2 of 2 delivered", lines)

            watch = self.start_watching(tree, paths["a.bin"], "--type", "Doomed", "--label", "l", "--to", "all")
            output, lines = watch.communicate(timeout=60)
            self.assertEqual((watch.returncode, self.counts(output)), (1, [(2, 1, 1, 0)]), lines)
            self.assertIn("a.bin  1 of 2 delivered, 1 failed", lines)
            publication = tree.master.kel("publications")[0]
            by_name = {item["name"]: item["status"] for item in tree.master.kel("publications", publication["publication"])}
            self.assertEqual(by_name, {relay.name: "delivered", client.name: "failed"})
            watch = self.start_watching(tree, paths["a.bin"], "--type", "Demo", "--label", "n", "--to", "none")
            self.assertEqual((self.counts(watch.communicate(timeout=20)[0]), watch.returncode), ([(0, 0, 0, 0)], 0))
            self.check_interruption(tree)
            self.end(tree)

    def check_interruption(self, tree):
        """SIGINT ends the watching only."""
        relay = tree.relays[0]
        relay.call("TransferWindowSetWindow", Direction=1, Slots=str(WATCHED_KILOBITS), SlotType=2, UseUTCTime=True)
        path = write_files(tree.folder / "files", {"slow.bin": 4 << 20})["slow.bin"]
        watch = self.start_watching(tree, path, "--type", "Demo", "--label", "slow", "--to", relay.name)
        wait_until(lambda: "0 of 1 delivered" in watch.stderr.readline(), 20, "the watch shows the publication")
        watch.send_signal(signal.SIGINT)
        output, _ = watch.communicate(timeout=10)
        self.assertEqual((watch.returncode, self.counts(output)), (1, [(1, 0, 0, 1)]))
        tree.wait_delivered({("slow", path.name): sha256_of(path)}, [relay], 60)
        wait_until(lambda: tree.master.kel("publications")[0]["delivered"] == 1, 30, "the receipt of the relay")


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
                self.assertEqual(agent.stop(STOP_SECONDS), 0, agent.stderr()[-2000:])
            self.end(tree)


if __name__ == "__main__":
    unittest.main()
