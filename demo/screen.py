"""The output of the demonstration: progress while it runs, tables at the end."""

import sys
import time

BAR_MARKS = 24
LINE_SECONDS = 2


class Progress:
    """A bar for each device on a terminal, otherwise one line every two seconds."""

    def __init__(self):
        self.terminal = sys.stdout.isatty()
        self.drawn = 0
        self.next_line = 0.0

    def show(self, shares):
        """`shares`: agent -> the fraction of its files that has arrived, 0 to 1."""
        if self.terminal:
            if self.drawn:
                print(f"\x1b[{self.drawn}A", end="")
            for agent, share in shares.items():
                marks = int(min(share, 1) * BAR_MARKS)
                state = "" if agent.is_running() else "  killed"
                print(f"\x1b[K  {agent.name:9} [{'#' * marks}{'.' * (BAR_MARKS - marks)}] {min(share, 1):4.0%}{state}")
            self.drawn = len(shares)
        elif time.monotonic() >= self.next_line:
            print("  " + "  ".join(f"{agent.name} {min(share, 1):4.0%}" for agent, share in shares.items()), flush=True)
            self.next_line = time.monotonic() + LINE_SECONDS

    def say(self, text):
        print(text, flush=True)
        self.drawn = 0
        self.next_line = 0.0


class Result:
    """The files that one device received, or that were collected from it."""

    def __init__(self, agent, expected, seconds, present, right, size):
        self.agent, self.expected, self.seconds = agent, expected, seconds
        self.present, self.right, self.size = present, right, size

    @property
    def good(self):
        return self.seconds is not None and self.right == self.expected


def print_results(title, results):
    """Prints the table of all devices. True when every file is present and right."""
    print(f"\n{title}\n{'DEVICE':10}{'ROLE':8}{'FILES':>6}{'BYTES':>12}{'SECONDS':>9}  CHECKSUMS")
    for result in results:
        seconds = "-" if result.seconds is None else format(result.seconds, ".1f")
        verdict = "all good" if result.good else f"{result.expected - result.right} missing or wrong"
        print(f"{result.agent.name:10}{result.agent.role:8}{result.present:6}{result.size:12}{seconds:>9}  {verdict}")
    return all(result.good for result in results)
