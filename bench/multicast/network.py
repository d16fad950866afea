"""Network namespaces that are joined by a bridge: one sender, several receivers, each with an interface `eth0`."""
import os
import subprocess


def run(*command):
    subprocess.run(command, check=True, stdout=subprocess.DEVNULL)


class Network:
    """10.77.0.1 is the sender's address, 10.77.0.2 and so on are the receivers'."""

    def __init__(self, receivers):
        self.bridge = f"kelb{os.getpid()}"
        self.spaces = [f"kelm{os.getpid()}n{i}" for i in range(receivers + 1)]
        self.addresses = [f"10.77.0.{i + 1}" for i in range(receivers + 1)]

    def __enter__(self):
        run("ip", "netns", "add", self.bridge)
        self.inside(self.bridge, "ip", "link", "add", "br0", "type", "bridge", "mcast_snooping", "0")
        self.inside(self.bridge, "ip", "link", "set", "br0", "up")
        for i, (space, address) in enumerate(zip(self.spaces, self.addresses)):
            run("ip", "netns", "add", space)
            run("ip", "link", "add", "eth0", "netns", space, "type", "veth", "peer", "name", f"port{i}", "netns",
                self.bridge)
            self.inside(self.bridge, "ip", "link", "set", f"port{i}", "master", "br0", "up")
            for command in (["addr", "add", f"{address}/24", "dev", "eth0"], ["link", "set", "eth0", "up"],
                            ["link", "set", "lo", "up"], ["route", "add", "224.0.0.0/4", "dev", "eth0"]):
                self.inside(space, "ip", *command)
        return self

    def __exit__(self, *_):
        for space in self.spaces + [self.bridge]:
            subprocess.run(["ip", "netns", "del", space], check=False)

    @staticmethod
    def inside(space, *command):
        run("ip", "netns", "exec", space, *command)

    def lose(self, percent):
        """Every receiver drops so much of the UDP packets that reach it."""
        for space in self.spaces[1:]:
            subprocess.run(["ip", "netns", "exec", space, "nft", "flush", "ruleset"], check=True)
            if percent:
                rules = ("table inet loss { chain input { type filter hook prerouting priority -500; "
                         f"meta l4proto udp numgen random mod 1000 < {round(percent * 10)} drop; }}; }}")
                self.inside(space, "nft", rules)

    def sent_bytes(self):
        """Bytes that the sender has put on the bridge, Ethernet headers included."""
        path = "/sys/class/net/eth0/statistics/tx_bytes"
        return int(subprocess.run(["ip", "netns", "exec", self.spaces[0], "cat", path], check=True,
                                  capture_output=True, text=True).stdout)
