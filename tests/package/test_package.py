"""The Debian packages in a clean Debian: install, first file, upgrade, remove, purge.

Run by `./dev package --test [COMMIT]`, which has built the packages. The clean Debian is made once, in build/package_root.
There is no systemd in it: agents are started as the unit's ExecStart says, as the unit's user. The packages that are
upgraded are those of COMMIT, in the folder KEL_EARLIER_PACKAGES, or else this build under an earlier version number.
"""

import json
import os
import pathlib
import re
import shutil
import signal
import subprocess
import sys
import tempfile
import unittest

SOURCES = pathlib.Path(__file__).resolve().parents[2]
sys.path.insert(0, str(SOURCES / "tests/system"))
from tree import wait_until  # noqa: E402

BUILD = SOURCES / "build"
BASE = BUILD / "package_root"
EARLIER = "0.0.1"
SHOP = ("--root", "/var/lib/kel-shop")


def run(*command):
    return subprocess.run(list(map(str, command)), text=True, capture_output=True)


def why_not():
    """Why no clean Debian can be made or entered here; None when it can."""
    if os.geteuid() != 0 or run("unshare", "--mount", "--pid", "--fork", "true").returncode != 0:
        return "needs root and namespaces (unshare)"
    if (BASE / "usr/sbin/adduser").exists():
        return None
    if not shutil.which("debootstrap"):
        return "needs debootstrap"
    mirror = run("apt-get", "indextargets", "--format", "$(SITE)", "Identifier: Packages").stdout.split("\n")[0]
    shutil.rmtree(BASE, ignore_errors=True)
    made = run("debootstrap", "--variant=minbase", "--include=adduser", "bookworm", BASE, mirror)
    return None if made.returncode == 0 else "no Debian could be fetched: " + made.stdout[-200:]


class Debian:
    """A copy of the clean Debian; what was started in it ends with it."""

    def __init__(self):
        self.folder = pathlib.Path(tempfile.mkdtemp(prefix="kel_package_"))
        self.root = self.folder / "root"
        subprocess.run(["cp", "-a", "--reflink=auto", BASE, self.root], check=True)
        shutil.copy("/etc/resolv.conf", self.root / "etc/resolv.conf")
        self.agents = []

    def command(self, *command):
        return ["unshare", "--mount", "--pid", "--fork", "--kill-child", f"--root={self.root}", "--mount-proc",
                *map(str, command)]

    def run(self, *command, code=0):
        done = subprocess.run(self.command(*command), text=True, capture_output=True,
                              env={"PATH": "/usr/sbin:/usr/bin:/sbin:/bin", "DEBIAN_FRONTEND": "noninteractive"})
        if done.returncode != code:
            raise AssertionError(f"{command}: {done.returncode}\n{done.stdout[-2000:]}{done.stderr[-2000:]}")
        return done.stdout

    def apt(self, verb, *packages):
        self.run("apt-get", verb, "-y", "-qq", "--no-install-recommends", "--allow-downgrades", "--reinstall", *packages)

    def install(self, folder):
        packages = [shutil.copy(package, self.root / "tmp") for package in folder.glob("*.deb")]
        self.apt("install", *["/tmp/" + pathlib.Path(package).name for package in packages])

    def start_agent(self, unit, instance=""):
        """Does what systemd would: the root folder gets the unit's user, then ExecStart runs."""
        text = (self.root / f"usr/lib/systemd/system/{unit}").read_text().replace("%i", instance)
        value = dict(re.findall(r"^(ExecStart|User|StateDirectory)=(.*)$", text, re.MULTILINE))
        self.run("chown", "-R", f"{value['User']}:", f"/var/lib/{value['StateDirectory']}")
        self.agents.append(subprocess.Popen(
            self.command("setpriv", "--reuid", value["User"], "--regid", value["User"], "--init-groups",
                         *value["ExecStart"].split()), stderr=subprocess.DEVNULL))

    def stop_agents(self, number=signal.SIGTERM):
        """Signals the agents themselves, children of what was started: they outlive it, having changed the user."""
        while self.agents:
            agent = self.agents.pop()
            for child in pathlib.Path(f"/proc/{agent.pid}/task/{agent.pid}/children").read_text().split():
                os.kill(int(child), number)
            agent.wait(20)

    def close(self):
        self.stop_agents(signal.SIGKILL)
        shutil.rmtree(self.folder, ignore_errors=True)


def earlier_packages(folder):
    given = os.environ.get("KEL_EARLIER_PACKAGES")
    if not given:
        subprocess.run(["cpack", "--config", BUILD / "release/CPackConfig.cmake", "-B", folder,
                        "-D", f"CPACK_PACKAGE_VERSION={EARLIER}",
                        "-D", f"CPACK_DEBIAN_TOOLS_PACKAGE_DEPENDS=kel-agent (= {EARLIER})"],
                       check=True, stdout=subprocess.DEVNULL, stderr=subprocess.DEVNULL, cwd=BUILD)
    return pathlib.Path(given or folder)


class PackageTest(unittest.TestCase):
    def setUp(self):
        if reason := why_not():
            self.skipTest(reason)
        self.debian = Debian()
        self.addCleanup(self.debian.close)

    def kel(self, *arguments):
        return self.debian.run("kel", *arguments)

    def start(self):
        """Starts both agents; their GUIDs."""
        self.debian.start_agent("kelagent.service")
        self.debian.start_agent("kelagent@.service", "shop")

        def guid(*place):
            try:
                return json.loads(self.kel(*place, "--json", "status"))[0]["identity"]["guid"]
            except AssertionError:
                return None
        return [wait_until(lambda place=place: guid(*place), 30, "the agent answers") for place in ((), SHOP)]

    def test_the_life_of_an_installation(self):
        debian = self.debian
        debian.install(earlier_packages(debian.folder / "earlier"))
        debian.run("sh", "-c", "umask 077; head -c 24 /dev/urandom | base64 > /root/password")
        plain = ["--plain"] if "--plain" in self.kel("init", "--help") else []  # an earlier version knows no keys
        common = ("--port", 21644, *plain, "--password-file", "/root/password")
        self.kel("init", "/var/lib/kel", "--role", "master", "--address", "127.0.44.1", *common)
        self.kel("init", SHOP[1], "--role", "client", "--address", "127.0.44.2", "--parent", "127.0.44.1:21644",
                 *common)
        self.start()
        wait_until(lambda: len(json.loads(self.kel("--json", "devices"))) == 2, 60, "the client has reported itself")
        self.kel("publish", "/etc/debian_version", "--type", "First", "--label", "l", "--to", "all", "--watch")
        inbox = self.kel(*SHOP, "inbox")
        self.assertIn("debian_version", inbox)
        guids = [json.loads(self.kel(*place, "--json", "status"))[0]["identity"]["guid"] for place in ((), SHOP)]
        debian.stop_agents()

        debian.install(BUILD / "package")
        self.assertEqual(self.start(), guids)
        self.assertEqual(self.kel(*SHOP, "inbox"), inbox)
        debian.stop_agents()

        debian.apt("remove", "kel-agent", "kel-tools")
        self.assertFalse((debian.root / "usr/lib/kel").exists())
        self.assertTrue((debian.root / "var/lib/kel/config/Agent.ini").exists())
        debian.apt("purge", "kel-agent", "kel-tools", "kel-doc")
        self.assertEqual(list((debian.root / "var/lib").glob("kel*")), [])
        debian.run("getent", "passwd", "kel", code=2)


if __name__ == "__main__":
    unittest.main()
