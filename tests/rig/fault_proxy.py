"""A TCP proxy that cuts, stalls, delays and damages what passes, as rules say that may change while it runs."""

import random
import socket
import threading

UP, DOWN = "up", "down"  # from the connecting side to the target, and back
BLOCK = 16384


class Rule:
    """One fault: `action` is cut, stall, delay or flip (of one bit of the byte).

    It fires where `match` ends in the stream (a match is found again later), at `offset` bytes from the begin of a
    connection, or, for each byte or block, with `probability`; without any of these, at every block. `fired` counts.
    """

    def __init__(self, action, direction, match=None, offset=None, probability=None, seconds=0, times=None):
        self.action, self.direction = action, direction
        self.match, self.offset, self.probability = match, offset, probability
        self.seconds, self.times = seconds, times
        self.fired = 0
        self.released = threading.Event()

    def place(self, tail, block, position, source):
        """Where in `block` to fire, or None; `position` bytes of the stream were before it, `tail` the last ones."""
        if self.times is not None and self.fired >= self.times:
            return None
        if self.match is not None:
            found = (tail + block).find(self.match, max(0, len(tail) - len(self.match) + 1))
            return None if found < 0 else found + len(self.match) - 1 - len(tail)
        if self.offset is not None:
            return self.offset - position if position <= self.offset < position + len(block) else None
        if self.probability is not None:
            hit = source.random() < 1 - (1 - self.probability) ** len(block)
            return source.randrange(len(block)) if hit else None
        return 0


class FaultProxy:
    """Listens on `listen` and connects to `target` from the address `source`; both ends are (address, port).

    An agent knows its parent's address by name and a parent takes a caller for the child at the caller's address. So
    the proxy listens on another port of the parent's own address, and leaves from the address of the child.
    """

    def __init__(self, listen, target, source, seed=1):
        self.target, self.source = target, source
        self.random = random.Random(seed)
        self.lock = threading.Lock()
        self.rules, self.sockets = [], set()
        self.closed = False
        self.listener = socket.create_server(listen, reuse_port=False)
        self.port = self.listener.getsockname()[1]
        threading.Thread(target=self._accept, daemon=True).start()

    def add(self, action, direction, **trigger):
        rule = Rule(action, direction, **trigger)
        with self.lock:
            self.rules.append(rule)
        return rule

    def clear(self):
        """Ends all faults; what was stalled goes on."""
        with self.lock:
            rules, self.rules = self.rules, []
        for rule in rules:
            rule.released.set()

    def cut_all(self):
        with self.lock:
            sockets = list(self.sockets)
        for end in sockets:
            self._shut(end)

    def close(self):
        self.closed = True
        self._shut(self.listener)
        self.listener.close()
        self.clear()
        self.cut_all()

    @staticmethod
    def _shut(end):
        try:
            end.shutdown(socket.SHUT_RDWR)
        except OSError:
            pass

    def _accept(self):
        while not self.closed:
            try:
                near, _ = self.listener.accept()
            except OSError:
                return
            threading.Thread(target=self._serve, args=(near,), daemon=True).start()

    def _serve(self, near):
        with near:
            try:
                far = socket.create_connection(self.target, 10, (self.source, 0))
            except OSError:
                return
            far.settimeout(None)
            with far:
                with self.lock:
                    self.sockets |= {near, far}
                back = threading.Thread(target=self._pump, args=(far, near, DOWN), daemon=True)
                back.start()
                self._pump(near, far, UP)
                back.join()
                with self.lock:
                    self.sockets -= {near, far}

    def _pump(self, source, destination, direction):
        position, tail = 0, b""
        try:
            while block := source.recv(BLOCK):
                out, goes_on = self._apply(direction, tail, bytearray(block), position)
                destination.sendall(out)
                if not goes_on:
                    break
                position += len(block)
                tail = (tail + block)[-256:]
            else:
                destination.shutdown(socket.SHUT_WR)
                return
        except OSError:
            pass
        self._shut(source)
        self._shut(destination)

    def _apply(self, direction, tail, block, position):
        """What to send of a block, and whether the connection goes on."""
        fired = []
        with self.lock:
            seen = bytes(block)
            for rule in self.rules:
                place = rule.place(tail, seen, position, self.random) if rule.direction == direction else None
                if place is not None:
                    rule.fired += 1
                    fired.append((rule, place))
        for rule, place in fired:
            if rule.action == "flip":
                block[place] ^= 1
            elif rule.action == "stall":
                rule.released.wait()
            elif rule.action == "delay":
                rule.released.wait(rule.seconds)
            else:
                return block[:place], False
        return block, True
