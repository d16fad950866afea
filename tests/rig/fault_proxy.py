"""A TCP proxy that counts, cuts and damages what passes, as rules say that may be added while it runs."""

import socket
import threading

UP, DOWN = "up", "down"  # from the connecting side to the target, and back
BLOCK = 16384


class Rule:
    """One fault, once, where `match` ends in the stream from `direction`: cut, or flip (of one bit)."""

    def __init__(self, action, direction, match):
        self.action, self.direction, self.match = action, direction, match
        self.fired = False

    def place(self, tail, block):
        """Where in `block` to fire, or None; `tail` is what came before it."""
        found = (tail + block).find(self.match, max(0, len(tail) - len(self.match) + 1))
        return None if found < 0 or self.fired else found + len(self.match) - 1 - len(tail)


class FaultProxy:
    """Listens on `listen` and connects to `target` from the address `source`; both ends are (address, port).

    An agent knows its parent's address by name and a parent takes a caller for the child at the caller's address. So
    the proxy listens on another port of the parent's own address, and leaves from the address of the child.
    """

    def __init__(self, listen, target, source):
        self.target, self.source = target, source
        self.lock = threading.Lock()
        self.rules, self.sockets = [], set()
        self.passed = {UP: 0, DOWN: 0}  # bytes
        self.closed = False
        self.listener = socket.create_server(listen, reuse_port=False)
        self.port = self.listener.getsockname()[1]
        threading.Thread(target=self._accept, daemon=True).start()

    def add(self, *rule):
        with self.lock:
            self.rules.append(Rule(*rule))
            return self.rules[-1]

    def close(self):
        self.closed = True
        with self.lock:
            ends = [self.listener, *self.sockets]
        for end in ends:
            self._shut(end)
        self.listener.close()

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
            for end in near, far:  # what stands in a buffer counts as passed
                end.setsockopt(socket.SOL_SOCKET, socket.SO_SNDBUF, 1 << 16)
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
        tail = b""
        try:
            while block := source.recv(BLOCK):
                out, goes_on = self._apply(direction, tail, bytearray(block))
                destination.sendall(out)
                with self.lock:
                    self.passed[direction] += len(out)
                if not goes_on:
                    break
                tail = (tail + block)[-256:]
            else:
                destination.shutdown(socket.SHUT_WR)
                return
        except OSError:
            pass
        self._shut(source)
        self._shut(destination)

    def _apply(self, direction, tail, block):
        """What to send of a block, and whether the connection goes on."""
        with self.lock:
            for rule in self.rules:
                place = rule.place(tail, bytes(block)) if rule.direction == direction else None
                if place is None:
                    continue
                rule.fired = True
                if rule.action == "cut":
                    return block[:place], False
                block[place] ^= 1
        return block, True
