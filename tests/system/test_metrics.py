"""The metrics of an agent, who may read them, and that the dashboard and the alerts ask for nothing else."""

import json
import pathlib
import re
import shutil
import subprocess
import time
import unittest

from case import BUILD, SystemTest, wait_collected, write_files
from tree import Tree, free_port, sha256_of, wait_until

MONITORING = pathlib.Path(__file__).resolve().parents[2] / "packaging" / "monitoring"
SIZE = 300_000
NAME = r"[a-zA-Z_:][a-zA-Z0-9_:]*"
LABEL = rf'[a-zA-Z_][a-zA-Z0-9_]*="(?:[^"\\\n]|\\["\\n])*"'
SAMPLE = re.compile(rf"({NAME})(\{{{LABEL}(?:,{LABEL})*\}})? (-?[0-9.]+(?:e[+-]?[0-9]+)?|NaN|[+-]Inf)")


class MetricsTest(SystemTest):
    def get(self, agent, port, path="/metrics", method="GET", keys=None):
        """HTTP status and body; with the certificate of the device that has these keys."""
        certificate = ["--cert", keys / "certificate.pem", "--key", keys / "key.pem"] if keys else []
        body = ["-H", "Content-Type: application/json", "-d", "{}"] if method == "POST" else []
        scheme = "https" if port == agent.port else "http"
        run = subprocess.run(["curl", "-sk", "-X", method, *body, "-w", "\n%{http_code}", *certificate,
                              f"{scheme}://{agent.address}:{port}{path}"], text=True, capture_output=True)
        answer, _, status = run.stdout.rpartition("\n")
        return int(status), answer

    def samples(self, text):
        """The values by (name, labels), and the names of all metrics; the text has to be well-formed."""
        values, heads = {}, []
        for line in text.splitlines():
            if line.startswith("# "):
                kind, name, rest = line[2:].split(" ", 2)
                self.assertIn(kind, ("HELP", "TYPE"))
                if kind == "HELP":
                    heads.append(name)
                    continue
                self.assertEqual(name, heads[-1])
                self.assertIn(rest, ("counter", "gauge", "summary"))
                self.assertEqual(rest == "counter", name.endswith("_total"), name)
                continue
            sample = SAMPLE.fullmatch(line)
            self.assertTrue(sample, line)
            self.assertIn(sample[1], {heads[-1], f"{heads[-1]}_sum", f"{heads[-1]}_count"})
            self.assertNotIn((sample[1], sample[2]), values)
            values[sample[1], sample[2]] = float(sample[3])
        self.assertEqual(len(heads), len(set(heads)))
        return values, {name for name, _ in values}

    def of(self, agent):
        text = agent.call("AgentGetMetrics")["Text"]
        if promtool := shutil.which("promtool"):
            subprocess.run([promtool, "check", "metrics"], input=text, text=True, check=True)
        values, names = self.samples(text)
        self.names |= names
        return values

    def moved(self, agent, direction, flow, transport):
        """Files and bytes."""
        labels = f'{{direction="{direction}",flow="{flow}",transport="{transport}"}}'
        values = self.of(agent)
        return tuple(values[f"kel_transfer_{unit}_total", labels] for unit in ("files", "bytes"))

    def test_the_numbers_of_a_tree(self):
        self.names = set()
        with Tree(BUILD, [1], keys=True) as tree:
            master, relay, client = tree.master, tree.relays[0], tree.clients[0]
            port = free_port(client.address)
            client.set_ini("HttpProtocol", "HttpProtocol", "MetricsPort", port)
            client.set_ini("HttpProtocol", "HttpProtocol", "MetricsAddress", client.address)
            tree.start()
            self.traffic(tree, master, relay, client)
            self.readers(relay, client, port)
            self.waiting(tree, master, relay, client)
            self.names_in_use()
            self.end(tree)

    def traffic(self, tree, master, relay, client):
        down, up = (write_files(tree.folder / way, {f"{way}.bin": SIZE}) for way in ("down", "up"))
        tree.publish(down.values())
        expected = client.send(*up.values())
        tree.wait_delivered({("files", name): sha256_of(path) for name, path in down.items()}, [client], 30)
        wait_collected(master, expected, 30)
        for agent, *way in ((master, "down", "in", "local"), (master, "down", "out", "http"), (relay, "down", "in", "http"),
                            (relay, "down", "out", "http"), (client, "down", "in", "http"), (client, "down", "out", "local"),
                            (client, "up", "in", "local"), (client, "up", "out", "http"), (relay, "up", "in", "http"),
                            (relay, "up", "out", "http"), (master, "up", "in", "http"), (master, "up", "out", "local")):
            wait_until(lambda: self.moved(agent, *way) >= (1, SIZE) and self.moved(agent, *way)[1] >= SIZE, 30,
                       f"{agent.name} {way}")
        # Small files travel with their offers.
        ways = [(agent, "up", flow, "http")
                for agent, flow in ((client, "out"), (relay, "in"), (relay, "out"), (master, "in"))]
        before = [self.moved(*way) for way in ways]
        wait_collected(master, client.send(*write_files(tree.folder / "up", {"small.bin": 10}).values()), 30)
        for way, moved in zip(ways, before):
            wait_until(lambda: self.moved(*way)[0] > moved[0] and self.moved(*way)[1] > moved[1], 30,
                       f"{way[0].name} {way[1:]}")
        self.assertEqual(self.moved(client, "down", "out", "http"), (0, 0))
        values = self.of(master)
        self.assertEqual([values["kel_devices", f'{{state="{state}"}}'] for state in ("reporting", "silent")], [2, 0])
        wait_until(lambda: self.of(master)["kel_publication_targets", '{status="delivered"}'] >= 1, 30, "receipts")

    def readers(self, relay, client, port):
        """The parent may read the metrics of a device, a stranger none; the port of the metrics serves nothing else."""
        keys = relay.data / "Keys"
        self.assertEqual(self.get(client, client.port)[0], 401)
        for where, certificate in ((client.port, keys), (port, None)):
            status, text = self.get(client, where, keys=certificate)
            self.assertEqual(status, 200)
            self.samples(text)
        for method, path in (("POST", "/Action/AgentGetMetrics"), ("GET", "/"), ("PUT", "/FileStore/upstream/a")):
            self.assertEqual(self.get(client, port, path, method)[0], 404, path)
        before = self.of(client)["kel_calls_refused_total", None]
        self.get(client, client.port, "/Action/RelayCheckParent", "POST", keys)
        self.assertGreater(self.of(client)["kel_calls_refused_total", None], before)

    def waiting(self, tree, master, relay, client):
        """A closed window is the reason why a file waits; what the textfile collector gets leaves out the process."""
        client.kel("windows", "set", "up", "--slots", "0")
        client.send(*write_files(tree.folder / "later", {"later.bin": 10}).values())
        wait_until(lambda: self.of(client).get(("kel_store_waiting_files", '{direction="up",status="to_be_uploaded",'
                                                                           'reason="window_closed"}')), 30, "it waits")
        self.assertEqual(self.of(client)["kel_window_open", '{direction="up"}'], 0)
        expiry = self.of(client)["kel_certificate_expiry_timestamp_seconds", '{certificate="device"}']
        self.assertGreater(expiry, time.time() + 300 * 86400)
        self.of(relay)
        output = tree.folder / "kel.prom"
        client.kel("metrics", "--output", output)
        _, names = self.samples(output.read_text())
        self.assertIn("kel_start_time_seconds", names)
        self.assertFalse([name for name in names if name.startswith("process_")])

    def names_in_use(self):
        dashboard = json.loads((MONITORING / "kel-dashboard.json").read_text())
        asked = [target["expr"] for panel in dashboard["panels"] for target in panel.get("targets", ())]
        asked += re.findall(r"^ +expr: (.*)$", (MONITORING / "kel-alerts.yml").read_text(), re.MULTILINE)
        self.assertGreater(len(asked), 30)
        used = {name for text in asked for name in re.findall(r"\b(?:kel|process)_[a-z_]+\b", text)}
        self.assertEqual(used - self.names, set())
        if promtool := shutil.which("promtool"):
            subprocess.run([promtool, "check", "rules", MONITORING / "kel-alerts.yml"], check=True, capture_output=True)


if __name__ == "__main__":
    unittest.main()
