"""The operator's guide from its first command to its last, on clean machines with systemd and a network.

Run by `./dev package --test`, which has built the packages. The version that the guide upgrades to is this build under a
later number."""

import functools
import unittest

from machines import BUILD, Machines, build_packages, why_not
from guide import DEVICES, Reader, read_blocks, write_files  # beside tree, where machines has looked

LATER = "99.0.0"


class GuideTest(unittest.TestCase):
    def setUp(self):
        if reason := why_not():
            self.skipTest(reason)

    def test_the_whole_guide(self):
        machines = Machines({name: int(address.rsplit(".", 1)[1]) for name, address in DEVICES.items()})
        self.addCleanup(machines.close)
        version = next((BUILD / "package").glob("kel-agent_*.deb")).name.split("_")[1]
        later = build_packages(LATER, machines.folder / "later")
        for machine in machines.machines.values():
            write_files(machine.home)
            machine.put(*(BUILD / "package").glob("*.deb"))
        reader = Reader(machines.run, NEW=LATER, OLD=version)
        blocks = [block for block in read_blocks() if block.mark in ("", "machines")]
        upgrade = next((i for i, block in enumerate(blocks) if "_NEW_" in block.text), len(blocks))
        tell = functools.partial(print, flush=True)
        reader.follow(blocks[:upgrade], tell)
        for machine in machines.machines.values():
            machine.put(*later.glob("*.deb"))
        reader.follow(blocks[upgrade:], tell)


if __name__ == "__main__":
    unittest.main()
