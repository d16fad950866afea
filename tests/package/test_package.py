"""The Debian packages on a clean machine: install, first file, upgrade, remove, purge.

Run by `./dev package --test [COMMIT]`, which has built the packages. Those that are upgraded are of COMMIT, in the folder
KEL_EARLIER_PACKAGES, or else of this build under an earlier version number.
"""

import json
import os
import pathlib
import subprocess
import unittest

from machines import BUILD, Machines, build_packages, wait_until, why_not

MASTER, SHOP = "kel", "kel --root /var/lib/kel-shop"


class PackageTest(unittest.TestCase):
    def setUp(self):
        if reason := why_not():
            self.skipTest(reason)
        self.machines = Machines({"device": 10})
        self.addCleanup(self.machines.close)

    def do(self, script):
        """What a script prints that must end with 0."""
        done = self.machines.run("device", script)
        self.assertEqual(done.returncode, 0, f"{script}\n{done.stdout}")
        return done.stdout

    def install(self, folder):
        self.machines["device"].put(*folder.glob("*.deb"))
        self.do("apt-get install -y -qq --allow-downgrades --reinstall ./kel-*.deb && rm kel-*.deb")

    def guids(self):
        """Of both agents, when they answer."""
        def answers():
            both = [self.machines.run("device", f"{kel} --json status") for kel in (MASTER, SHOP)]
            return all(done.returncode == 0 for done in both) and both
        return [json.loads(done.stdout)[0]["identity"]["guid"] for done in wait_until(answers, 30, "the agents answer")]

    def test_the_life_of_an_installation(self):
        earlier = os.environ.get("KEL_EARLIER_PACKAGES")
        self.install(pathlib.Path(earlier or build_packages("0.0.1", self.machines.folder / "earlier")))
        self.do("umask 077; head -c 24 /dev/urandom | base64 > password")
        plain = "--plain" if "--plain" in self.do("kel init --help") else ""  # an earlier version knows no keys
        common = f"{plain} --password-file password"
        self.do(f"kel init /var/lib/kel --role master --address 192.0.2.10 --port 1610 {common}")
        self.do(f"kel init /var/lib/kel-shop --role client --address 192.0.2.10 --port 1611 --parent 192.0.2.10:1610 "
                f"{common}")
        self.do("systemctl enable --now kelagent kelagent@shop")
        wait_until(lambda: len(json.loads(self.do("kel --json devices"))) == 2, 60, "the client has reported itself")
        self.do("kel publish /etc/debian_version --type First --label l --to all --watch")
        guids, inbox = self.guids(), self.do(f"{SHOP} inbox")
        self.assertIn("debian_version", inbox)

        self.install(BUILD / "package")
        self.assertEqual(self.guids(), guids)
        self.assertEqual(self.do(f"{SHOP} inbox"), inbox)
        # Without warnings, and no less protected than now.
        self.do("! systemd-analyze verify kelagent.service kelagent@shop.service 2>&1 | grep kelagent")
        self.do("systemd-analyze security --threshold=15 kelagent.service kelagent@shop.service")

        self.do("apt-get remove -y -qq kel-agent kel-tools")
        self.do("test ! -e /usr/lib/kel && test -e /var/lib/kel/config/Agent.ini && ! pgrep kelagent")
        self.do("apt-get purge -y -qq kel-agent kel-tools kel-doc")
        self.do("! ls -d /var/lib/kel* && ! getent passwd kel")

    def test_lintian(self):
        """What is wrong with the packages themselves; the address of their maintainers is that of no real mail host."""
        found = subprocess.run(["lintian", "--allow-root", "--fail-on", "error,warning", "--suppress-tags",
                                "bogus-mail-host,bogus-mail-host-in-debian-changelog,maintainer-script-calls-systemctl",
                                *(BUILD / "package").glob("*.deb")], text=True, capture_output=True)
        self.assertEqual(found.returncode, 0, found.stdout)


if __name__ == "__main__":
    unittest.main()
