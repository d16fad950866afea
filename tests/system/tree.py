"""A tree of real agent processes on loopback addresses, for the demo and the system tests.

Every agent has an address of its own in 127.0.0.0/8 (never 127.0.0.1, which agents ignore as a target) and a free
port. A tree is a context manager: whatever happens, its processes are gone and its folder is removed at the end.
"""

import ctypes
import datetime
import hashlib
import json
import os
import pathlib
import random
import shutil
import signal
import socket
import subprocess
import tempfile
import time

PASSWORD = "tree secret; with #signs"
AGENT_NAME = "tree"
FAKETIME_LIBRARY = "faketime/libfaketime.so.1"
POLL_SECONDS = 0.1


class ActionFailed(Exception):
    """An action answered with another result than 0, or could not be called."""

    def __init__(self, action, exit_code, text):
        super().__init__(f"{action}: exit code {exit_code}: {text.strip()}")
        self.exit_code = exit_code
        self.text = text


class VirtualClock:
    """A clock `speed` times as fast as the real one, the same for all agents that are started with it.

    The monotonic clock keeps its pace, and with it waits for conditions and time-outs of connections; stored times
    grow old quickly and plain sleeps are shorter, so that paced transfers are not slowed. A process that is started
    later has to go on at the time that the others show by then, so the time is worked out at each start.
    """

    def __init__(self, speed):
        self.speed = speed
        self.begin = time.monotonic()
        self.base = time.time()

    def now(self):
        return self.base + (time.monotonic() - self.begin) * self.speed

    def environment(self):
        start = datetime.datetime.fromtimestamp(self.now(), datetime.timezone.utc)
        return {"LD_PRELOAD": str(find_faketime()), "TZ": "UTC",
                "FAKETIME": f"@{start:%Y-%m-%d %H:%M:%S} x{self.speed}",
                "FAKETIME_DONT_FAKE_MONOTONIC": "1", "DONT_FAKE_MONOTONIC": "1", "NO_FAKE_STAT": "1"}


class NotInTime(TimeoutError, AssertionError):
    """What a test waits for did not come: a failure of the test."""


def find_faketime():
    """The path of libfaketime, or None when it is not installed."""
    for folder in pathlib.Path("/usr/lib").glob("*-linux-gnu"):
        if (folder / FAKETIME_LIBRARY).exists():
            return folder / FAKETIME_LIBRARY
    return None


def wait_until(condition, seconds, what):
    """Polls until `condition` gives something true and returns that; NotInTime after `seconds`."""
    deadline = time.monotonic() + seconds
    while True:
        value = condition()
        if value:
            return value
        if time.monotonic() > deadline:
            raise NotInTime(f"not within {seconds} s: {what}")
        time.sleep(POLL_SECONDS)


def sha256_of(path):
    digest = hashlib.sha256()
    with open(path, "rb") as file:
        while block := file.read(1 << 20):
            digest.update(block)
    return digest.hexdigest()


def wait_arrived(files, expected, seconds, what):
    """Waits until `files()`, key -> path, has had each of `expected`, key -> SHA-256, with that content."""
    missing = dict(expected)

    def complete():
        for key, path in files().items():
            if key in missing and path.exists() and sha256_of(path) == missing[key]:
                del missing[key]
        return not missing
    try:
        wait_until(complete, seconds, "")
    except NotInTime:
        raise NotInTime(f"not {what} within {seconds} s: {sorted(missing)[:5]}; there: {sorted(files())[:9]}") from None


def free_port(address):
    """A free port below those that the system gives to outgoing connections: it must stay free over restarts."""
    while True:
        with socket.socket() as probe:
            port = random.randint(20000, 30000)
            try:
                probe.bind((address, port))
                return port
            except OSError:
                continue


def die_with_parent():
    """In the child before exec: an agent must not outlive a killed test."""
    ctypes.CDLL(None).prctl(1, signal.SIGKILL)  # PR_SET_PDEATHSIG


class Agent:
    """One agent: its root folder, its process and calls to it."""

    def __init__(self, tree, name, role, address, parent):
        self.tree, self.name, self.role, self.address, self.parent = tree, name, role, address, parent
        self.port = tree.choose_port(self)
        self.root = tree.folder / name
        self.build = tree.build_of(name)
        self.process = None
        self.shim = None  # makes file calls fail, see faults.py
        self.run_kel_init()

    def run_kel_init(self):
        command = [self.build / "kel", "init", self.root, "--role", self.role, "--address", self.address, "--port",
                   str(self.port), "--name", AGENT_NAME]
        if self.parent:
            command += ["--parent", f"{self.parent.address}:{self.parent.port}"]
        if not self.tree.keys:
            command += [*self.tree.plain_option(self), "--password-file", self.tree.password_file]
        elif self.parent:
            command += ["--join", self.tree.invitation(self.role)]
        subprocess.run(command, check=True, stdout=subprocess.DEVNULL)
        self.set_ini("Identity", "Identity", "HostName", self.name)
        if getattr(self.tree.clock, "speed", 1) > 1:  # the interval has to keep up with the time-outs
            self.set_ini("FileStore", "FileStore", "QueueGap", 1)
        if self.tree.short_intervals:
            for key in ("RetryInterval", "CheckInterval"):
                self.set_ini("Relay", "Relay", key, 1)
                if self.tree.keys:
                    self.set_ini("Keys", "Keys", key, 1)

    @property
    def data(self):
        return self.root / "data"

    def set_ini(self, module, section, key, value):
        """Sets one value in an ini file of the agent; the agent reads it when it is started."""
        path = self.root / "config" / f"{module}.ini"
        lines = path.read_text().split("\n") if path.exists() else []
        header = f"[{section}]"
        if header not in lines:
            lines += [header]
        begin = lines.index(header) + 1
        end = next((i for i in range(begin, len(lines)) if lines[i].startswith("[")), len(lines))
        kept = [line for line in lines[begin:end] if line.split("=")[0].strip() != str(key)]
        path.write_text("\n".join(lines[:begin] + [f"{key}={value}"] + kept + lines[end:]))

    def pack(self, policy="auto"):
        """Lets a relay pack what it sends up, files of a second in one archive, or not with "none"."""
        if policy != "none":
            self.set_ini("FileStore", "FileStore", "QueueGap", 1)
        self.set_ini("FileStore", "UploadPolicy", "ConcatFiles", policy)

    def start(self):
        """Starts its process, unless it runs."""
        if self.is_running():
            return
        environment = dict(os.environ)
        if self.tree.clock:
            environment.update(self.tree.clock.environment())
        if self.shim:
            self.shim.add_to(environment)
        with open(self.tree.folder / f"{self.name}.stderr", "ab") as stderr:
            self.process = subprocess.Popen([*self.tree.place(self), self.build / "kelagent", "--root", self.root],
                                            stdin=subprocess.DEVNULL, stdout=stderr, stderr=stderr, env=environment,
                                            preexec_fn=die_with_parent)

    def is_running(self):
        return self.process is not None and self.process.poll() is None

    def kill(self):
        """SIGKILL: as a power cut for the process."""
        if self.process:
            self.process.kill()
            self.process.wait()
            for left in ("faketime_shm_", "sem.faketime_sem_"):
                pathlib.Path(f"/dev/shm/{left}{self.process.pid}").unlink(missing_ok=True)

    def stop(self, seconds=10):
        """SIGTERM; the exit code. TimeoutExpired when the process does not end in time."""
        self.process.send_signal(signal.SIGTERM)
        return self.process.wait(seconds)

    def wait_ready(self, seconds=30):
        def ready():
            if not self.is_running():
                raise RuntimeError(f"{self.name} ended with {self.process.returncode}:\n{self.stderr()[-3000:]}")
            try:
                return self.call("AgentGetStatus")
            except ActionFailed:
                return None
        wait_until(ready, seconds, f"{self.name} answers")

    def kel(self, *arguments, timeout=120):
        """Runs `kel --root ROOT --json ARGUMENT...` and gives what it prints, parsed."""
        run = subprocess.run([*self.tree.place(self), self.build / "kel", "--root", self.root, "--json",
                              *map(str, arguments)], text=True, capture_output=True, timeout=timeout)
        if run.returncode != 0:
            raise ActionFailed(" ".join(map(str, arguments[:2])), run.returncode, run.stderr)
        return json.loads(run.stdout) if run.stdout.strip() else None

    def call(self, action, **values):
        return self.kel("call", action, *[f"{name}:={json.dumps(value)}" for name, value in values.items()])

    def log(self):
        """The text of the agent's log, rotated files first."""
        files = sorted((self.root / "log").glob("agent*.log*"), key=lambda path: path.stat().st_mtime)
        return "".join(path.read_text(errors="replace") for path in files)

    def stderr(self):
        return (self.tree.folder / f"{self.name}.stderr").read_text(errors="replace")

    def send(self, *paths, kind="Demo", label="l", options=()):
        """Hands files up; what the master will hold, as wait_collected takes it."""
        self.kel("send", "--type", kind, "--label", label, *options, "--", *paths)
        guid = self.identity()["GUID"]
        return {(guid, label, path.name): sha256_of(path) for path in paths}

    def inbox(self):
        """What was delivered here: (label, name) -> path."""
        return {(file["label"], file["name"]): pathlib.Path(file["path"]) for file in self.kel("inbox")}

    def stored_files(self):
        return self.kel("files")

    def identity(self):
        return self.call("IdentityGetValues")["Values"]

    def in_sync(self):
        """True when the parent answers and this agent's GUID has the master's scheme; before, it still changes."""
        if self.parent is None:
            return True
        try:
            scheme = self.tree.master.identity()["GUID"][:4]
            return self.call("RelayGetValues")["Values"]["ParentSync"] and self.identity()["GUID"][:4] == scheme
        except ActionFailed:
            return False


class Tree:
    """Agents with one master; `shape` gives the number of clients below each relay, as [2, 2].

    With `keys`, the devices have keys and certificates, otherwise they share a password. With `short_intervals`, agents
    look for their parent every second instead of at the defaults. The folder is kept for inspection with `keep` or when
    KEL_KEEP is in the environment.
    """

    def __init__(self, build, shape, clock=None, keep=False, short_intervals=True, keys=False):
        self.build = pathlib.Path(build).resolve()
        self.kelagent, self.kel = self.build / "bin" / "kelagent", self.build / "bin" / "kel"
        self.clock, self.keep = clock, keep or "KEL_KEEP" in os.environ
        self.short_intervals, self.keys = short_intervals, keys
        self.folder = pathlib.Path(tempfile.mkdtemp(prefix="kel_tree_"))
        self.password_file = self.folder / "password"
        self.password_file.touch(0o600)
        self.password_file.write_text(PASSWORD + "\n")
        self.agents = []
        try:
            self.master = self.add("master", "master", None)
            self.relays, self.clients = [], []
            for number, clients in enumerate(shape, 1):
                relay = self.add(f"relay{number}", "relay", self.master)
                self.relays.append(relay)
                for client in range(1, clients + 1):
                    self.clients.append(self.add(f"client{number}{client}", "client", relay))
        except BaseException:
            self.close()
            raise

    def invitation(self, role):
        """A token with which one device can join the tree; the master runs from the first one on."""
        self.run(self.master)
        return self.master.kel("invite", "--role", role)[0]["token"]

    def choose_address(self, number):
        # The process id keeps trees that run at the same time apart.
        pid = os.getpid()
        return f"127.{1 + pid % 250}.{1 + pid // 250 % 250}.{number}"

    def choose_port(self, agent):
        return free_port(agent.address)

    def build_of(self, name):
        """The folder of the programs of an agent."""
        return self.build / "bin"

    def plain_option(self, agent):
        """What makes an agent one of a plain tree."""
        return ["--plain"]

    def place(self, agent):
        """What stands before the commands of an agent: nothing, for one that runs here."""
        return []

    def add(self, name, role, parent):
        agent = Agent(self, name, role, self.choose_address(len(self.agents) + 1), parent)
        self.agents.append(agent)
        return agent

    def __enter__(self):
        return self

    def __exit__(self, *_):
        self.close()

    def close(self):
        for agent in self.agents:
            agent.kill()
        if self.keep:
            print(f"Kept {self.folder}")
        else:
            shutil.rmtree(self.folder, ignore_errors=True)

    @property
    def devices(self):
        """All agents but the master."""
        return self.relays + self.clients

    def start(self, seconds=60):
        """Starts all agents and waits until the master knows every device with its final GUID."""
        self.run(*self.agents)
        for agent in self.devices:  # parents stand before their children
            wait_until(agent.in_sync, seconds, f"{agent.name} in sync with its parent")
        self.wait_known(seconds)

    @staticmethod
    def run(*agents):
        """Starts agents and waits until they answer."""
        for agent in agents:
            agent.start()
        for agent in agents:
            agent.wait_ready()

    def wait_known(self, seconds=60):
        """Waits until the devices have told the master who they are: name, role, parent and path name."""
        identities = {agent: agent.identity() for agent in self.agents}
        expected = {(identities[agent]["GUID"], agent.name, agent.role, identities[agent.parent]["GUID"])
                    for agent in self.devices}

        def known():
            devices = self.master.kel("devices")
            return expected <= {(device["guid"], device["name"], device["role"], device["parent"])
                                for device in devices if device["path_name"].count("/") == 4}
        wait_until(known, seconds, "the master knows all devices")

    def publish(self, files, file_type="Demo", label="files", to="all", priority=100):
        return self.master.kel("publish", *files, "--type", file_type, "--label", label, "--to", to, "--priority",
                               priority, timeout=600)

    def wait_delivered(self, expected, agents, seconds):
        """Waits until every agent's inbox holds all of `expected`, (label, name) -> SHA-256, with that content."""
        for agent in agents:
            wait_arrived(agent.inbox, expected, seconds, f"delivered to {agent.name}")
