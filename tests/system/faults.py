"""Trees with faults: agents whose file calls fail, links that cut and damage, clocks that step, and what has to be true
of a tree after all that.

A shim (tests/rig/fault_shim.cpp) is preloaded into an agent and steered by `Shim.fail`. A proxy
(tests/rig/fault_proxy.py) stands between an agent and its parent: it listens on another port of the parent's own
address, because an agent takes announcements only from the address that its ParentName has, and it connects to the
parent from the agent's address, because the parent knows its children by theirs. All calls that the agent makes to its
parent pass it: offers, uploads, requests, downloads, acknowledgements. What the parent calls the agent for
(announcements) goes straight to the agent.
"""

import hashlib
import json
import os
import pathlib
import sqlite3
import sys
import time
import urllib.parse

from case import BUILD, INDEX, rows
from digest_client import DigestClient
from tree import ActionFailed, Tree, VirtualClock, free_port, wait_until

sys.path.append(str(pathlib.Path(__file__).resolve().parent.parent / "rig"))
from fault_proxy import FaultProxy  # noqa: E402

SHIM = pathlib.Path(os.environ.get("KEL_FAULT_SHIM", pathlib.Path(BUILD) / "lib" / "fault_shim.so")).resolve()
AT_REST = {"available", "packed", "obsolete"}
WRITING = "write,sync,open,rename,mkdir,link"


class SteppedClock(VirtualClock):
    """A virtual clock that can be set; agents that are started afterwards have the new time."""

    def step(self, seconds):
        self.base += seconds


class Shim:
    """The faults of one agent's file calls."""

    def __init__(self, agent, seed):
        self.agent, self.seed = agent, seed
        self.control = agent.tree.folder / f"{agent.name}.faults"

    def add_to(self, environment):
        preload = [str(SHIM), *environment.get("LD_PRELOAD", "").split()]
        environment.update(LD_PRELOAD=" ".join(preload), FAULT_SHIM_CONTROL=str(self.control),
                           FAULT_SHIM_SEED=str(self.seed))

    def fail(self, operations, error, pattern, share=1):
        """Lets this share of the operations on matching paths, below the agent's data folder, fail from now on."""
        self._control(f"{operations} {error} {share} {self.agent.data}/{pattern}\n")

    def clear(self):
        self._control("")

    def _control(self, rules):
        made = self.control.with_suffix(".new")
        made.write_text(rules)
        made.rename(self.control)

    def faults(self):
        """The calls that failed so far, "operation path" each."""
        log = pathlib.Path(f"{self.control}.log")
        return log.read_text().splitlines() if log.exists() else []

    def wait_failed(self, count=1, seconds=30):
        wait_until(lambda: len(self.faults()) >= count, seconds, f"{count} failed calls of {self.agent.name}")


class FaultTree(Tree):
    """A tree in which the agents named in `shims` have a shim and those in `proxies` reach their parents by a proxy."""

    def __init__(self, shape, clock=None, shims=(), proxies=(), seed=1, short_intervals=True):
        self.shims, self.proxied, self.proxies, self.seed = shims, proxies, [], seed
        super().__init__(BUILD, shape, clock, short_intervals=short_intervals)

    def add(self, name, role, parent):
        agent = super().add(name, role, parent)
        agent.shim = Shim(agent, self.seed) if name in self.shims else None
        agent.proxy = None
        if name in self.proxied:
            agent.proxy = FaultProxy((parent.address, free_port(parent.address)), (parent.address, parent.port),
                                     agent.address)
            agent.set_ini("Relay", "Relay", "ParentPort", agent.proxy.port)
            self.proxies.append(agent.proxy)
        return agent

    def close(self):
        super().close()
        for proxy in self.proxies:
            proxy.close()


class Child:
    """A device below `parent` that this process plays: it offers and uploads as an agent does."""

    def __init__(self, parent, number=200):
        address = f"{parent.address.rsplit('.', 1)[0]}.{number}"
        self.client = DigestClient(parent, source=address)
        self.guid = f"{parent.identity()['GUID'][:4]}0000-0000-0000-0000-000000000{number}"
        self.url = f"{address}:1610/{self.guid}"

    def offer(self, key, size, **more):
        """Offers the file of a (type, label, name, checksum); the URL for its content, None when it is refused."""
        values = dict(zip(("FileType", "FileLabel", "FileName", "FileChecksum"), key), FileSize=size, Upstream=True,
                      SourceDevice=self.url) | more
        status, result, body = self.client.action("FileStoreReceiveFile", json.dumps(values))
        return urllib.parse.quote(json.loads(body)["FileURL"]) if (status, result) == (200, 0) else None

    def put(self, url, content):
        """Whether the parent takes the content; not without a URL."""
        return url is not None and self.client.request("PUT", url, content)[0] in (200, 201, 204)

    def upload(self, key, content, seconds=60):
        """Goes on until the parent has taken the file."""
        wait_until(lambda: self.put(self.offer(key, len(content)), content), seconds, f"{key[2]} is taken")


def md5_of(content):
    return hashlib.md5(content).hexdigest()


def packed_entries(kind, files):
    """The entries of an archive for these files, name -> content, of a type and the label "l"."""
    return [(f"upstream/{kind}/l/{md5_of(content)}/{name}", content) for name, content in files.items()]


def index_of(child, kind, files):
    """The entry that describes them as files of a device."""
    def record(file, content):
        values = (("FileType", "string", kind), ("FileLabel", "string", "l"), ("FileName", "string", file),
                  ("FileChecksum", "string", md5_of(content)), ("SourceDevice", "string", child.url),
                  ("Upstream", "bool", "true"), ("FileSize", "int64", len(content)))
        texts = (f'<Value name="{name}" type="{type_}">{value}</Value>' for name, type_, value in values)
        return f'<Value name="PackedFile" type="container">{"".join(texts)}</Value>'
    return INDEX, f"<Container>{''.join(record(*file) for file in files.items())}</Container>"


def waiting(agent):
    """What a running agent has yet to do: (direction, type, name, status) of its rows that are not at rest."""
    try:
        return [(direction, file["type"], file["name"], file["status"])
                for direction, option in (("down", ()), ("up", ("--upstream",)))
                for file in agent.kel("files", *option) if file["status"] not in AT_REST]
    except ActionFailed as failed:
        return [("agent", "", agent.name, failed.text.strip())]


def wait_at_rest(agents, seconds):
    """Waits until no row of the agents waits, or the time is over; what waits then, by agent."""
    deadline = time.monotonic() + seconds
    while True:
        left = {agent.name: found for agent in agents if (found := waiting(agent))}
        if not left or time.monotonic() > deadline:
            return left
        time.sleep(1)


def damage(path, offset, size):
    """Overwrites a part of a file."""
    with open(path, "r+b") as file:
        file.seek(offset)
        file.write(b"\xa5" * size)


def faults_of_rest(agent):
    """What is wrong with the data of a stopped agent: damaged databases, targets left, orphans, temporary files."""
    wrong = []
    for path in agent.data.rglob("*.sqlite"):
        database = sqlite3.connect(path)
        verdict = database.execute("PRAGMA integrity_check").fetchall()
        database.close()
        if verdict != [("ok",)]:
            wrong.append(f"{path.name}: {verdict[:3]}")
    wrong += [f"target left: {row}" for row in rows(agent, "SELECT F.FileType, F.FileName, T.DeviceGUID FROM Targets T "
                                                           "LEFT JOIN Files F USING (FileId)")]
    for folder, upstream in (("downstream", False), ("upstream", True)):
        store = agent.data / "FileStore" / folder
        known = set()
        for kind, label, checksum, name, path, url in rows(
                agent, "SELECT FileType, FileLabel, FileChecksum, FileName, FilePath, FileURL FROM Files", upstream):
            known |= {f"{kind}/{label}/{checksum}/{name}", path.removeprefix(f"{store}/"),
                      url.removeprefix(f"/FileStore/{folder}/")}
        files = {str(path.relative_to(store)) for path in store.rglob("*") if path.is_file()}
        wrong += [f"orphan: {folder}/{path}" for path in sorted(files - known)]
    patterns = (".kel-*", "Temp/PACKEDFILES_*", ".extract-*")
    temporary = [path for pattern in patterns for path in agent.data.rglob(pattern)]
    return wrong + [f"temporary: {path.relative_to(agent.data)}" for path in temporary]
