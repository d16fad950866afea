"""A tree with keys: devices join through relays, and who does not belong to the tree gets nothing."""

import contextlib
import hashlib
import json
import socket
import ssl
import subprocess
import threading
import unittest

from case import BUILD, SystemTest, wait_collected, write_files
from faults import SHIM
from tree import AGENT_NAME, Agent, Tree, find_faketime, sha256_of, wait_until


class Impostor:
    """A server with a certificate of its own in the place of an agent; counts who came and what it was told."""

    def __init__(self, agent, folder):
        self.calls, self.heard = 0, []
        key, certificate = folder / "impostor_key.pem", folder / "impostor.pem"
        subprocess.run(["openssl", "req", "-x509", "-newkey", "ec", "-pkeyopt", "ec_paramgen_curve:P-256", "-nodes",
                        "-subj", f"/OU=relay/CN={agent.guid}", "-keyout", key, "-out", certificate],
                       check=True, capture_output=True)
        self.context = ssl.SSLContext(ssl.PROTOCOL_TLS_SERVER)
        self.context.load_cert_chain(certificate, key)
        self.listener = socket.create_server((agent.address, agent.port))
        self.thread = threading.Thread(target=self.serve, daemon=True)
        self.thread.start()

    def serve(self):
        while True:
            try:
                connection, _ = self.listener.accept()
            except OSError:
                return
            try:
                with self.context.wrap_socket(connection, server_side=True) as channel:
                    self.heard.append(channel.recv(1000))
            except OSError:
                pass
            self.calls += 1

    def close(self):
        """Gives the port back: the thread must not be in accept any more."""
        self.listener.shutdown(socket.SHUT_RDWR)
        self.thread.join()
        self.listener.close()


# Nothing can be preloaded in builds with sanitizers, which have no shim either.
CAN_FAKE_TIME = find_faketime() and SHIM.exists()


class LaterClock:
    """A clock that is ahead: by default that of a device that has run for eight months."""

    def __init__(self, days=248):
        self.days = days

    def environment(self):
        return {"LD_PRELOAD": str(find_faketime()), "FAKETIME": f"+{self.days}d", "FAKETIME_DONT_FAKE_MONOTONIC": "1"}


class KeysTest(SystemTest):
    def ask(self, agent, keys=None, action="AgentGetStatus", arguments="", user=None, url=None):
        """The HTTP status of a call, or of a GET, with the certificate in a device's folder, and the action's result."""
        certificate = ["--cert", keys / "certificate.pem", "--key", keys / "key.pem"] if keys else []
        certificate += ["--digest", "--user", user] if user else []
        call = ["-H", "Content-Type: application/json", "-d", arguments or "{}"] if url is None else []
        run = subprocess.run(["curl", "-sk", "-o", "/dev/null", "-w", "%{http_code} %header{kel-result}", *certificate,
                              *call, f"https://{agent.address}:{agent.port}/{url or f'Action/{action}'}"],
                             text=True, capture_output=True)
        return run.stdout.strip()

    def test_a_tree_with_keys_serves_its_devices_and_no_strangers(self):
        with Tree(BUILD, [1], keys=True) as tree:
            master, relay, client = tree.master, tree.relays[0], tree.clients[0]
            tree.start()
            for agent in tree.agents:
                agent.guid = agent.identity()["GUID"]
            keys = {agent: agent.call("KeysGetValues")["Values"] for agent in tree.agents}
            self.assertEqual((keys[client]["ParentGuid"], keys[client]["ParentFingerprint"]),
                             (relay.guid, keys[relay]["Fingerprint"]))
            self.assertEqual({(item["guid"], item["role"], item["revoked"]) for item in master.kel("keys", "list")},
                             {(agent.guid, agent.role, False) for agent in tree.agents})
            down, up = (write_files(tree.folder / way, {f"{way}.bin": 300_000}) for way in ("down", "up"))
            tree.publish(down.values())
            expected = client.send(*up.values())
            tree.wait_delivered({("files", name): sha256_of(path) for name, path in down.items()}, [client], 30)
            wait_collected(master, expected, 30)
            self.members(master, relay, client)
            self.readers(tree, master, relay, client)
            self.steering(master, relay, client)
            self.strangers(tree, master, relay, client)
            self.direct_calls(tree, master, relay, client)
            self.chains(relay)
            self.new_key(master, relay, client)
            self.impostor(tree, relay, client)
            self.renewal(tree, relay)
            self.wrong_clock(tree, master, relay)
            again = self.replacement(tree, master, relay, client)
            self.revocation(tree, master, again, client, {relay.guid, client.guid})
            self.end(tree)

    def members(self, master, relay, client):
        """A certificate makes the parent, or a child, whatever the address; never the device itself or an operator."""
        stop = ("HttpProtocolMulticastStopListen", '{"MulticastAddress": "239.1.1.1"}')
        for caller, agent, (action, arguments), result in (
                (relay, client, stop, 0), (master, client, stop, 17), (client, relay, stop, 17), (master, client, ("RelayCallDevice", "{}"), 17),
                (relay, relay, stop, 17), (client, relay, ("HttpProtocolGetThreadCount", "{}"), 0),
                (client, relay, ("KeysEnrol", "{}"), 1), (relay, client, ("RelaySetParent", "{}"), 17),
                (relay, relay, ("KeysForgetParent", "{}"), 17), (master, relay, ("AgentGetStatus", "{}"), 0),
                (client, relay, ("AgentGetStatus", "{}"), 17), (relay, client, ("AgentGetStatus", "{}"), 0)):
            answer = self.ask(agent, caller.data / "Keys", action, arguments)
            self.assertEqual(answer, f"200 {result}", (action, agent.name))
        ini = (relay.root / "config" / "Agent.ini").read_text()
        password = ini.partition("\nHttpPassword=")[2].partition("\n")[0]
        self.assertGreater(len(password), 20)
        self.assertEqual(self.ask(relay, user=f"{AGENT_NAME}:{password}"), "401")

    def readers(self, tree, master, relay, client):
        """A waiting file is served to its targets and to those above the device that has it."""
        self.assertEqual(client.stop(), 0)
        (name, path), = write_files(tree.folder / "own", {"own.bin": 100_000}).items()
        tree.publish([path], to=client.name)
        wait_until(lambda: [row["status"] for row in relay.kel("files") if row["name"] == name] == ["available"], 30,
                   "the relay has the file")
        below = f"files/{hashlib.md5(path.read_bytes()).hexdigest()}/{name}"
        for caller, agent, url, status in (
                (client, relay, f"FileStore/downstream/Demo/{below}", "200"), (client, relay, "FileStore/", "404"),
                (master, relay, f"FileStore/downstream/Demo/{below}", "200"),
                (client, master, f"QuarnelDatabase/Packages/{below}", "403")):
            answer = self.ask(agent, caller.data / "Keys", url=url)
            self.assertEqual(answer.split()[0], status, (caller.name, agent.name, url))
        tree.run(client)
        tree.wait_delivered({("files", name): sha256_of(path)}, [client], 30)
        wait_until(client.in_sync, 30, "the client is in sync again")

    def steering(self, master, relay, client):
        """Calls of the operator at the master go through the relay, which the client knows by its certificate."""
        master.kel("--device", client.name, "settings", "set", "QueueGap=29")
        self.assertEqual([(line["action"], line["address"], line["master"]) for line in client.kel("audit")][-1:],
                         [("FileStoreSetValues", relay.address, f"{master.address}:{master.port}")])

    def strangers(self, tree, master, relay, client):
        self.assertEqual(self.ask(relay, client.data / "Keys"), "200 17")
        self.assertEqual(self.ask(relay), "401")
        other = tree.folder / "other"
        subprocess.run([tree.kel, "init", other, "--role", "master", "--address", master.address, "--port", "1"],
                       check=True, stdout=subprocess.DEVNULL)
        self.assertEqual(self.ask(relay, other / "data" / "Keys"), "401")
        for arguments in ({}, {"Invitation": "0" * 16, "Proof": "0" * 64, "Request": "MAA="}):
            self.assertEqual(self.ask(relay, action="KeysEnrol", arguments=json.dumps(arguments)), "200 1")
        with socket.create_connection((relay.address, relay.port)) as plain, \
                contextlib.suppress(ConnectionResetError):
            plain.sendall(b"GET / HTTP/1.1\r\nHost: x\r\n\r\n")
            self.assertNotIn(b"HTTP", plain.recv(1000))

    def direct_calls(self, tree, master, relay, client):
        """`kel --url https://` is to another agent what the device is whose keys it has."""
        place = f"https://{client.address}:{client.port}"
        change = ("settings", "set", "QueueGap=28")
        for root, url, command, code, text in (
                (master.root, place, ("status",), 0, client.guid), (relay.root, f"{place}/{client.guid}", ("status",), 0, client.guid),
                (master.root, f"{place}/{relay.guid}", ("status",), 3, f"not {relay.guid}"), (master.root, place, change, 1, "operator"),
                (tree.folder / "other", place, ("status",), 3, "this tree's authority"),
                (tree.folder, place, ("status",), 1, "Agent.ini"), (master.root, place, ("doctor",), 2, "on the device itself")):
            self.called_with_keys(tree, root, url, command, code, text)
        path = tree.folder / "password"
        path.write_text("of a plain tree\n")
        path.chmod(0o600)
        run = subprocess.run([tree.kel, "--url", place.replace("https", "http"), "--user", "agent", "--password-file", path, "status"],
                             text=True, capture_output=True)
        self.assertEqual((run.returncode, "call it with https://" in run.stderr), (3, True), run.stderr)

    def called_with_keys(self, tree, root, url, command, code, text):
        run = subprocess.run([tree.kel, "--root", root, "--url", url, "--json", *command], text=True, capture_output=True)
        self.assertEqual(run.returncode, code, (url, command, run.stderr))
        self.assertIn(text, run.stdout + run.stderr)

    def chains(self, agent):
        """Only a client that does not name the authority, as one about to join, gets its certificate."""
        for known, count in (([], 2), (["-requestCAfile", agent.data / "Keys" / "authority.pem"], 1)):
            run = subprocess.run(["openssl", "s_client", "-connect", f"{agent.address}:{agent.port}", "-showcerts", *known],
                                 stdin=subprocess.DEVNULL, text=True, capture_output=True)
            self.assertEqual(run.stdout.count("BEGIN CERTIFICATE"), count, run.stderr)

    def new_key(self, master, relay, client):
        """A relay replaces its key while it runs; the client, which knew it by the former one, follows."""
        former = relay.call("KeysGetValues")["Values"]["Fingerprint"]
        relay.kel("keys", "renew")

        def has_followed():
            values = client.call("KeysGetValues")["Values"]
            return values["ParentFingerprint"] != former and values["ParentGuid"] == relay.guid and client.in_sync()
        wait_until(has_followed, 30, "the client follows the new key")
        self.assertEqual({(item["key"] == former, item["revoked"]) for item in master.kel("keys", "list")
                          if item["guid"] == relay.guid}, {(True, True), (False, False)})

    def impostor(self, tree, relay, client):
        self.assertEqual(relay.stop(), 0)
        impostor = Impostor(relay, tree.folder)
        wait_until(lambda: impostor.calls >= 2, 30, "the client calls the impostor")
        impostor.close()
        self.assertEqual(impostor.heard, [])
        self.assertIn(f"What answers at {relay.address}:{relay.port} is not trusted", client.log())
        self.assertFalse(client.in_sync())

    def renewal(self, tree, relay):
        """The relay comes back with a clock by which its certificate has to be renewed, where that can be faked."""
        before = relay.guid, tree.master.kel("keys", "list")
        if CAN_FAKE_TIME:
            tree.clock = LaterClock()
        tree.run(relay)
        tree.clock = None
        wait_until(tree.clients[0].in_sync, 30, "the client is in sync again")
        if CAN_FAKE_TIME:
            wait_until(lambda: tree.master.kel("keys", "list") != before[1], 30, "the relay has another certificate")
            self.assertEqual(relay.stop(), 0)
            tree.run(relay)
            wait_until(tree.clients[0].in_sync, 30, "the client is in sync with the renewed relay")

    def wrong_clock(self, tree, master, relay):
        """A certificate that the master has made with a clock that was ahead is of no use when the clock is right."""
        if not CAN_FAKE_TIME:
            return
        self.assertEqual(master.stop(), 0)
        tree.clock = LaterClock(400)
        tree.run(master)
        tree.clock = None
        wait_until(lambda: "certificate is valid from" in relay.call("RelayGetValues")["Values"]["ParentProblem"], 30,
                   "the relay says what is wrong with the master's certificate")
        self.assertEqual(master.stop(), 0)
        tree.run(master)
        wait_until(relay.in_sync, 30, "the relay is in sync with the master, whose clock is right")

    def replacement(self, tree, master, relay, client):
        """A relay that is set up again, with another key, in the place of one that was revoked."""
        self.assertEqual(relay.stop(), 0)
        master.kel("keys", "revoke", relay.guid)
        tree.choose_port = lambda _: relay.port
        again = Agent(tree, "again", "relay", relay.address, master)
        tree.agents.append(again)
        tree.run(again)
        guid = again.identity()["GUID"]
        wait_until(lambda: client.call("KeysGetValues")["Values"]["ParentGuid"] == guid and client.in_sync(), 30,
                   "the client follows the new relay")
        return again

    def revocation(self, tree, master, relay, client, revoked):
        master.kel("devices", "remove", client.name)
        wait_until(lambda: self.ask(relay, client.data / "Keys") == "401", 30, "the relay refuses the client")
        self.assertEqual(self.ask(master, client.data / "Keys"), "401")
        self.called_with_keys(tree, client.root, f"https://{master.address}:{master.port}", ("status",), 1, "was revoked")
        wait_until(lambda: not client.in_sync(), 30, "the client is out of sync")
        self.assertIn("certificate", client.call("RelayGetValues")["Values"]["ParentProblem"])
        self.assertEqual({item["guid"] for item in master.kel("keys", "list") if item["revoked"]}, revoked)


if __name__ == "__main__":
    unittest.main()
