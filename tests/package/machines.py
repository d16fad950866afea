"""Clean Debian machines with systemd and a network of their own, each in a container of systemd-nspawn.

The clean Debian is made once, in build/package_root, together with the packages that ours depend on: the machines have
no way to the world. What was started on a machine ends with it.
"""

import os
import pathlib
import shutil
import signal
import subprocess
import sys
import tempfile

SOURCES = pathlib.Path(__file__).resolve().parents[2]
sys.path.insert(0, str(SOURCES / "tests/system"))
from netns import Network  # noqa: E402
from netns import why_not as no_network  # noqa: E402
from tree import wait_until  # noqa: E402

BUILD = SOURCES / "build"
BASE = BUILD / "package_root"
HOME = "/srv/kel"  # where the agents, too, may read
INCLUDED = "adduser,ca-certificates,curl,dbus,iproute2,man-db,openssl,systemd-sysv"


def run(*command, **options):
    return subprocess.run(list(map(str, command)), text=True, capture_output=True, **options)


def why_not():
    """Why no machines can be made here; None when they can."""
    if reason := no_network():
        return reason
    for program in ("systemd-nspawn", "debootstrap"):
        if not shutil.which(program):
            return f"needs {program}"
    if (BASE / "complete").exists():
        return None
    mirror = run("apt-get", "indextargets", "--format", "$(SITE)", "Identifier: Packages").stdout.split("\n")[0]
    shutil.rmtree(BASE, ignore_errors=True)
    made = run("debootstrap", "--variant=minbase", f"--include={INCLUDED}", "bookworm", BASE, mirror)
    if made.returncode != 0:
        return "no Debian could be fetched: " + made.stdout[-200:]
    packages = [shutil.copy(package, BASE / "tmp") for package in (BUILD / "package").glob("*.deb")]
    shutil.copy("/etc/resolv.conf", BASE / "etc/resolv.conf")
    fetched = run("chroot", BASE, "apt-get", "install", "-y", "--download-only",
                  *["/tmp/" + pathlib.Path(package).name for package in packages])
    for package in packages:
        pathlib.Path(package).unlink()
    # The machines do not outlive a power cut.
    (BASE / "etc/dpkg/dpkg.cfg.d/unsafe-io").write_text("force-unsafe-io\n")
    if fetched.returncode != 0:
        return "what the packages depend on could not be fetched: " + fetched.stderr[-200:]
    (BASE / "complete").touch()
    return None


def build_packages(version, folder):
    """Builds this build's packages under another version number; the folder."""
    run("cpack", "--config", BUILD / "release/CPackConfig.cmake", "-B", folder, "-D", f"CPACK_PACKAGE_VERSION={version}",
        "-D", f"CPACK_DEBIAN_TOOLS_PACKAGE_DEPENDS=kel-agent (= {version})", cwd=BUILD, check=True)
    return folder


class Machine:
    """A copy of the clean Debian, booted."""

    def __init__(self, folder, name, network_namespace):
        self.root, self.name = folder / name, name
        subprocess.run(["cp", "-a", "--reflink=auto", BASE, self.root], check=True)
        self.home = self.root / HOME[1:]
        self.home.mkdir()
        (self.root / "etc/hostname").write_text(name + "\n")
        (self.root / "etc/hosts").write_text(f"127.0.0.1 localhost\n127.0.1.1 {name}\n")
        (self.root / "etc/resolv.conf").unlink(missing_ok=True)
        self.container = subprocess.Popen(
            ["systemd-nspawn", "--quiet", f"--directory={self.root}", "--boot", "--register=no", "--keep-unit",
             "--link-journal=no", "--resolv-conf=off", "--timezone=off", "--console=pipe",
             f"--machine=kel{os.getpid()}-{name}", f"--network-namespace-path=/run/netns/{network_namespace}"],
            stdin=subprocess.DEVNULL, stdout=subprocess.DEVNULL, stderr=subprocess.DEVNULL)

    def leader(self):
        """The process id of the machine's init here; None before it is started."""
        children = pathlib.Path(f"/proc/{self.container.pid}/task/{self.container.pid}/children").read_text().split()
        return children[0] if children else None

    def put(self, *files):
        """Copies files into the folder in which scripts run."""
        for file in files:
            shutil.copy(file, self.home)

    def run(self, script, timeout=300):
        """Runs a script of bash as root, in the folder HOME."""
        command = ["nsenter", "--target", self.leader(), "--all", "env", "-i", "HOME=/root", "TERM=dumb", "LANG=C.UTF-8",
                   "DEBIAN_FRONTEND=noninteractive", "PATH=/usr/local/sbin:/usr/local/bin:/usr/sbin:/usr/bin:/sbin:/bin",
                   "bash", "-euo", "pipefail", "-c", f"cd {HOME}\n{script}"]
        return subprocess.run(command, text=True, stdout=subprocess.PIPE, stderr=subprocess.STDOUT,
                              stdin=subprocess.DEVNULL, timeout=timeout)

    def wait_booted(self):
        def booted():
            return self.leader() and self.run("systemctl is-system-running").stdout.strip() in ("running", "degraded")
        wait_until(booted, 60, f"{self.name} has booted")

    def close(self):
        if leader := self.leader():
            os.kill(int(leader), signal.SIGKILL)
        self.container.wait(20)


class Machines:
    """Machines by name, with the addresses 192.0.2.N of one network."""

    def __init__(self, numbers):
        self.folder = pathlib.Path(tempfile.mkdtemp(prefix="kel_machines_", dir=BUILD))
        self.network, self.machines = Network("192.0.2"), {}
        try:
            for name, number in numbers.items():
                self.network.add(number)
                self.machines[name] = Machine(self.folder, name, self.network.namespace(number))
            for machine in self.machines.values():
                machine.wait_booted()
        except BaseException:
            self.close()
            raise

    def run(self, name, script):
        return self.machines[name].run(script)

    def __getitem__(self, name):
        return self.machines[name]

    def close(self):
        for machine in self.machines.values():
            machine.close()
        self.network.close()
        shutil.rmtree(self.folder, ignore_errors=True)
