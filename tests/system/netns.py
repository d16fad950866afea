"""Network namespaces joined by a bridge, and a tree whose agents have one each, for what loopback addresses cannot show:
datagrams to groups, lost packets, and what travels on a link. Needs root, iproute2 and nftables."""

import json
import os
import shutil
import subprocess

from case import BUILD
from tree import Tree

PORT = 1610


def run(*command, check=True):
    return subprocess.run([str(part) for part in command], check=check, text=True, capture_output=True).stdout


def why_not():
    """Why this machine cannot make such a network; empty when it can."""
    if os.geteuid() != 0:
        return "only root makes network namespaces"
    for program in ("ip", "nft"):
        if not shutil.which(program):
            return f"needs {program} ('./dev setup' installs it)"
    name = f"kel{os.getpid()}probe"
    try:
        run("ip", "netns", "add", name)
        run("ip", "-n", name, "link", "add", "br0", "type", "bridge")
        run("ip", "netns", "exec", name, "nft", "add table ip probe")
        return ""
    except subprocess.CalledProcessError as error:
        return f"no network namespaces here: {error.stderr.strip()}"
    finally:
        run("ip", "netns", "del", name, check=False)


class Network:
    """Namespace number N has the address SUBNET.N on its interface eth0; the bridge is in a namespace of its own."""

    def __init__(self, subnet="10.77.0"):
        self.prefix, self.namespaces, self.subnet = f"kel{os.getpid()}n{subnet.rsplit('.', 1)[1]}n", [], subnet
        self.hub = self.make_namespace("hub")
        run("ip", "-n", self.hub, "link", "add", "br0", "up", "type", "bridge", "mcast_snooping", "0")

    def make_namespace(self, name):
        name = f"{self.prefix}{name}"
        run("ip", "netns", "add", name)
        self.namespaces.append(name)
        run("ip", "-n", name, "link", "set", "lo", "up")
        return name

    def add(self, number):
        """Makes a namespace; its address."""
        namespace, port = self.make_namespace(str(number)), f"port{number}"
        run("ip", "link", "add", "eth0", "netns", namespace, "type", "veth", "peer", port, "netns", self.hub)
        run("ip", "-n", namespace, "link", "set", "eth0", "up")
        run("ip", "-n", namespace, "address", "add", f"{self.subnet}.{number}/24", "dev", "eth0")
        run("ip", "-n", self.hub, "link", "set", port, "up", "master", "br0")
        return f"{self.subnet}.{number}"

    def namespace(self, number):
        return f"{self.prefix}{number}"

    def close(self):
        for namespace in self.namespaces:
            run("ip", "netns", "del", namespace, check=False)

    def inside(self, number):
        """What stands before a command that is to run in a namespace."""
        return ["ip", "netns", "exec", self.namespace(number)]

    def sent_bytes(self, number):
        """What a namespace has put on the wire so far, Ethernet headers included."""
        return self.link(number)["rx"]["bytes"]

    def link(self, number):
        """Statistics of the bridge's port to a namespace."""
        return json.loads(run("ip", "-n", self.hub, "-s", "-j", "link", "show", "dev", f"port{number}"))[0]["stats64"]

    def drop(self, number, rule, hook="input"):
        """Lets what an nftables rule matches be lost on its way into a namespace; None: nothing any more."""
        commands = ["add table ip loss", "delete table ip loss", "add table ip loss",
                    f"add chain ip loss lossy {{ type filter hook {hook} priority 0; }}"]
        if rule is not None:
            commands.append(f"add rule ip loss lossy {rule} counter drop")
        run(*self.inside(number), "nft", "; ".join(commands))

    def lost_datagrams(self, number):
        """How many datagrams to a namespace have been lost so far, at most: those that the current rule of `drop` has
        matched, and those that the kernel had no buffer for, which on a busy machine happens anywhere on the way. A
        datagram that lacks a fragment counts once for each one that was lost."""
        rules = json.loads(run(*self.inside(number), "nft", "-j", "list ruleset"))["nftables"]
        lost = sum(part["counter"]["packets"] for rule in rules if "rule" in rule
                   for part in rule["rule"]["expr"] if "counter" in part)
        lines = [line.split() for line in run(*self.inside(number), "cat", "/proc/net/snmp").splitlines()]
        counts = {f"{names[0]}{name}": int(value) for names, values in zip(lines[::2], lines[1::2])
                  for name, value in zip(names[1:], values[1:])}
        lost += counts["Udp:InErrors"] + counts["Ip:InDiscards"] + counts["Ip:ReasmFails"]
        return lost + self.link(number)["tx"]["dropped"]


class NetTree(Tree):
    """Agent number N is in namespace number N."""

    def __init__(self, shape, subnet="10.77.0", keys=False):
        self.network = Network(subnet)
        super().__init__(BUILD, shape, keys=keys)

    def choose_address(self, number):
        address = self.network.add(number)
        # Packets are cut before the bridge, so that they are lost and counted one by one.
        run(*self.network.inside(number), "ip", "link", "set", "eth0", "gso_max_segs", "1")
        return address

    @staticmethod
    def number(agent):
        return agent.address.rsplit(".", 1)[1]

    def choose_port(self, agent):
        return PORT

    def place(self, agent):
        return self.network.inside(self.number(agent))

    def close(self):
        super().close()
        self.network.close()

    def sent_bytes(self, agent):
        return self.network.sent_bytes(self.number(agent))

    def drop(self, agent, condition):
        """Lets what its parent sends to groups be lost on its way into an agent where it meets the nftables condition;
        with None, nothing."""
        rule = f"ip saddr {agent.parent.address} ip daddr 224.0.0.0/4 {condition}"
        self.network.drop(self.number(agent), None if condition is None else rule)

    def lost_datagrams(self, agent):
        """How many datagrams of its parent have been lost on their way to an agent, at most."""
        before_bridge = self.network.link(self.number(agent.parent))["rx"]["dropped"]
        return before_bridge + self.network.lost_datagrams(self.number(agent))
