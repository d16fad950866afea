"""The demonstration: a tree of seven agents. 51 files go down to six devices while one relay is killed; 804 files come
up from four clients; two clients request a file.

Exit code 0 if every file arrived with the right SHA-256 and all other checks passed, otherwise 1.
"""

import argparse
import pathlib
import subprocess
import sys
import time

sys.path.append(str(pathlib.Path(__file__).resolve().parent.parent / "tests" / "system"))

from screen import Progress, print_results  # noqa: E402
from tree import Tree  # noqa: E402
from way_down import LARGE_BYTES, WayDown  # noqa: E402
from way_up import WayUp, check_publications, request_file  # noqa: E402


def show_devices(tree):
    print(subprocess.run([tree.kel, "--root", tree.master.root, "devices"], check=True, text=True, capture_output=True).stdout,
          flush=True)


def run(build, seed, keep, keys):
    begin = time.monotonic()
    progress = Progress()
    with Tree(build, [2, 2], keep=keep, keys=keys) as tree:
        tree.relays[-1].set_ini("FileStore", "UploadPolicy", "ConcatFiles", "auto")
        progress.say("Starting 1 master, 2 relays and 4 clients; they report to the master by themselves")
        tree.start()
        show_devices(tree)
        way_down = WayDown(tree, progress, seed)
        down = way_down.run()
        up = WayUp(tree, progress, seed).run()
        requested = request_file(tree, progress, seed)
        complete = check_publications(tree, progress)
    down_good = print_results("Down: files published by the master", down)
    up_good = print_results("Up: files collected from the clients", up)
    print(f"\nThe killed relay resumed at byte {way_down.offset} of {LARGE_BYTES}.")
    good = down_good and up_good and requested and complete and way_down.offset > 0
    print(f"{'Everything arrived' if good else 'FAILED'}; {time.monotonic() - begin:.0f} seconds in total.")
    return 0 if good else 1


def main():
    parser = argparse.ArgumentParser(description="Runs a tree of seven agents and moves files down and up in it.")
    parser.add_argument("--build", required=True, help="folder of the build")
    parser.add_argument("--seed", type=int, default=1, help="seed of the files' contents")
    parser.add_argument("--keep", action="store_true", help="keep the agents' folders for inspection")
    parser.add_argument("--plain", action="store_true", help="a tree with a password instead of keys")
    arguments = parser.parse_args()
    return run(arguments.build, arguments.seed, arguments.keep, not arguments.plain)


if __name__ == "__main__":
    sys.exit(main())
