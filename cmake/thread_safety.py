"""Checks with clang that guarded members are used under their lock: -Wthread-safety over the product's sources.

Reads the flags and the headers of each source from a finished build; only sources that see KelMutex, whose lock rules are
annotated, are checked. Prints what clang says and a summary; exits with 1 when a source fails.
"""

import concurrent.futures
import json
import os
import shlex
import subprocess
import sys

PRODUCT = ("kel", "kelcore", "filestore", "modules", "agent", "cli")
PROCESSES = 2


def sources_with_locks(build, root):
    """The product's sources that include kel/mutex.h, directly or through other headers."""
    deps = subprocess.run(["ninja", "-C", build, "-t", "deps"], check=True, capture_output=True, text=True).stdout
    found = set()
    for block in deps.split("\n\n"):
        # A compiler cache may have made the paths relative to the build folder.
        files = [os.path.relpath(os.path.join(build, line.strip()), root) for line in block.splitlines()[1:]]
        if files and files[0].split(os.sep)[0] in PRODUCT and "kel/mutex.h" in files:
            found.add(files[0])
    return sorted(found)


def flags_by_source(build, root):
    """Includes, definitions and language of each source; warnings and code generation are left to the compiler."""
    with open(os.path.join(build, "compile_commands.json"), encoding="utf-8") as file:
        entries = json.load(file)
    flags = {}
    for entry in entries:
        words = shlex.split(entry["command"])
        kept = [word for word in words if word.startswith(("-I", "-D", "-std="))]
        system = [word for at, word in enumerate(words) if "-isystem" in (word, words[at - 1])]
        flags[os.path.relpath(entry["file"], root)] = kept + system
    return flags


def check(source, flags, root):
    command = ["clang++", "-fsyntax-only", "-Wthread-safety", "-Werror", *flags, source]
    return subprocess.run(command, cwd=root, stdout=subprocess.PIPE, stderr=subprocess.STDOUT, text=True)


def main():
    build, root = os.path.abspath(sys.argv[1]), os.getcwd()
    flags = flags_by_source(build, root)
    sources = sources_with_locks(build, root)
    with concurrent.futures.ThreadPoolExecutor(PROCESSES) as pool:
        results = list(pool.map(lambda source: check(source, flags[source], root), sources))
    failed = [source for source, result in zip(sources, results) if result.returncode != 0]
    for result in results:
        print(result.stdout, end="")
    print(f"{len(sources)} sources checked, {len(failed)} failed {' '.join(failed)}".rstrip())
    return 0 if sources and not failed else 1


sys.exit(main())
