"""A tree whose agents have a network namespace each, joined by a bridge, for what loopback addresses cannot show:
datagrams to groups, lost packets, and what travels on a link. Needs root, iproute2 and nftables."""

import json
import os
import shutil
import subprocess

from case import BUILD
from tree import Tree

PORT = 1610
DROPPED = "ip saddr {source} ip daddr 224.0.0.0/4 {condition} counter drop"


def run(*command, check=True):
    return subprocess.run([str(part) for part in command], check=check, text=True, capture_output=True).stdout


def why_not():
    """Why this machine cannot make such a tree; empty when it can."""
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


class NetTree(Tree):
    """Agent number N has the address 10.77.0.N; the bridge is in a namespace of its own."""

    def __init__(self, shape):
        self.prefix, self.namespaces = f"kel{os.getpid()}", []
        self.hub = self.make_namespace("hub")
        run("ip", "-n", self.hub, "link", "add", "br0", "up", "type", "bridge", "mcast_snooping", "0")
        super().__init__(BUILD, shape)

    def make_namespace(self, name):
        name = f"{self.prefix}{name}"
        run("ip", "netns", "add", name)
        self.namespaces.append(name)
        run("ip", "-n", name, "link", "set", "lo", "up")
        return name

    def choose_address(self, number):
        """Makes the namespace of the agent with this number, so that its address exists."""
        namespace, port = self.make_namespace(str(number)), f"port{number}"
        run("ip", "link", "add", "eth0", "netns", namespace, "type", "veth", "peer", port, "netns", self.hub)
        # Packets are cut before the bridge, so that they are lost and counted one by one.
        run("ip", "-n", namespace, "link", "set", "eth0", "up", "gso_max_segs", "1")
        run("ip", "-n", namespace, "address", "add", f"10.77.0.{number}/24", "dev", "eth0")
        run("ip", "-n", self.hub, "link", "set", port, "up", "master", "br0")
        return f"10.77.0.{number}"

    @staticmethod
    def number(agent):
        return agent.address.rsplit(".", 1)[1]

    def choose_port(self, agent):
        return PORT

    def place(self, agent):
        return ["ip", "netns", "exec", f"{self.prefix}{self.number(agent)}"]

    def close(self):
        super().close()
        for namespace in self.namespaces:
            run("ip", "netns", "del", namespace, check=False)

    def sent_bytes(self, agent):
        """What an agent has put on the wire so far."""
        shown = run("ip", "-n", self.hub, "-s", "-j", "link", "show", "dev", f"port{self.number(agent)}")
        return json.loads(shown)[0]["stats64"]["rx"]["bytes"]

    def drop(self, agent, condition):
        """Lets what its parent sends to groups be lost on its way into an agent where it meets the nftables condition;
        with None, nothing."""
        nft = [*self.place(agent), "nft"]
        run(*nft, "add table ip loss")
        run(*nft, "flush table ip loss")
        run(*nft, "add chain ip loss input { type filter hook input priority 0; }")
        if condition is not None:
            run(*nft, "add rule ip loss input " + DROPPED.format(source=agent.parent.address, condition=condition))

    def dropped_bytes(self, agent):
        shown = json.loads(run(*self.place(agent), "nft", "-j", "list table ip loss"))["nftables"]
        return sum(part["counter"]["bytes"] for rule in shown if "rule" in rule
                   for part in rule["rule"]["expr"] if "counter" in part)
