"""The link between a node and its broker, which a test can cut, silence and slow down. One thread of the test's own
process per connection."""

import select
import socket
import struct
import threading
import time

MOST_HELD = 256 * 1024
FIN_PATIENCE_S = 1.0
TICK_S = 0.02
LOOK_S = 0.5  # how soon a moving connection notices that it is to be silent
LINGER_RESET = struct.pack("ii", 1, 0)


class _Direction:
    """What one end has sent and the other has not yet been given."""

    def __init__(self, source, sink):
        self.source = source
        self.sink = sink
        self.held = bytearray()

    def read(self):
        data = self.source.recv(MOST_HELD)
        self.held += data
        return bool(data)

    def write(self, most):
        del self.held[:self.sink.send(self.held[:most])]


class _Connection:
    def __init__(self, proxy, near):
        self.proxy = proxy
        self.order = None  # "reset" or "finish", once; the thread carries it out
        self.wake, self.woken = socket.socketpair()
        far = socket.create_connection(("127.0.0.1", proxy.target))
        self.ends = (near, far)
        for end in self.ends:
            end.setsockopt(socket.IPPROTO_TCP, socket.TCP_NODELAY, 1)
            end.setblocking(False)
        self.directions = (_Direction(near, far), _Direction(far, near))
        self.thread = threading.Thread(target=self.run, daemon=True)

    def cut(self, order):
        self.order = order
        try:
            self.wake.send(b"!")
        except OSError:
            pass  # it has just ended by itself
        self.thread.join()

    def run(self):
        try:
            while self.order is None and self.carry():
                pass
        except OSError:
            self.order = "reset"  # what one end did is what the other sees
        if self.order == "reset":
            for end in self.ends:
                end.setsockopt(socket.SOL_SOCKET, socket.SO_LINGER, LINGER_RESET)
        else:
            self.say_goodbye()
        for end in (*self.ends, self.woken):
            end.close()
        with self.proxy.lock:
            self.proxy.connections.remove(self)

    def carry(self):
        """Moves what can be moved now; False at the end of a stream."""
        quiet = self.proxy.silent
        readers = [] if quiet else [way.source for way in self.directions if len(way.held) < MOST_HELD]
        writers = [] if quiet else [way.sink for way in self.directions if way.held]
        readable, writable, _ = select.select([self.woken, *readers], writers, [], TICK_S if quiet else LOOK_S)
        for way in self.directions:
            if way.sink in writable:
                way.write(self.allowance())
            if way.source in readable and not way.read():
                return False
        return True

    def allowance(self):
        bytes_per_s = self.proxy.bytes_per_s
        if bytes_per_s is None:
            return MOST_HELD
        time.sleep(TICK_S)
        return max(1, int(bytes_per_s * TICK_S))

    def say_goodbye(self):
        """An end of stream to both; what they still send is read, because a close on unread bytes is a reset."""
        waiting = []
        for end in self.ends:
            try:
                end.shutdown(socket.SHUT_WR)
                waiting.append(end)
            except OSError:
                pass  # gone already
        late = time.monotonic() + FIN_PATIENCE_S
        while waiting and time.monotonic() < late:
            for end in select.select(waiting, [], [], TICK_S)[0]:
                try:
                    if end.recv(MOST_HELD):
                        continue
                except OSError:
                    pass
                waiting.remove(end)


class Proxy:
    """Listens on a port of its own and carries everything to the target's, until told otherwise."""

    def __init__(self, target):
        self.target = target
        self.silent = False
        self.bytes_per_s = None
        self.lock = threading.Lock()  # of the list
        self.connections = []
        self.listener = socket.create_server(("127.0.0.1", 0))
        self.port = self.listener.getsockname()[1]
        threading.Thread(target=self.accept, daemon=True).start()

    def accept(self):
        while True:
            try:
                near, _ = self.listener.accept()
            except OSError:
                return  # closed
            try:
                connection = _Connection(self, near)
            except OSError:
                near.setsockopt(socket.SOL_SOCKET, socket.SO_LINGER, LINGER_RESET)
                near.close()  # nobody there: as if refused
                continue
            with self.lock:
                self.connections.append(connection)
                connection.thread.start()

    def _cut(self, order):
        with self.lock:
            connections = list(self.connections)
        for connection in connections:
            connection.cut(order)
        return len(connections)

    def reset(self):
        """RST to both ends of every connection; how many there were."""
        return self._cut("reset")

    def finish(self):
        """FIN to both ends of every connection; how many there were."""
        return self._cut("finish")

    def black_hole(self, silent=True):
        """Nothing comes through any more, and nobody is told. With False what was on its way goes on."""
        self.silent = silent

    def throttle(self, bytes_per_s):
        """None for full speed."""
        self.bytes_per_s = bytes_per_s

    def close(self):
        self.listener.shutdown(socket.SHUT_RDWR)
        self.listener.close()
        self.reset()
