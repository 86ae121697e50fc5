"""Programs of the build as child processes: every wait is bounded, and each is ended by its own handle."""

import atexit
import os
import pathlib
import queue
import signal
import subprocess
import sys
import threading
import time

SOURCE = pathlib.Path(__file__).resolve().parents[2]
sys.path.insert(0, str(SOURCE / "tests/support"))
from loopback import free_port  # noqa: E402 - from the folder just named

BUILD = pathlib.Path(os.environ.get("QUILLET_BUILD", SOURCE / "build")).resolve()

# The description that is shipped, and the bus that it is served on in these tests.
BENCH = SOURCE / "tools/quillet-ecu/bench.json"
BENCH_BUS = "can1"

# Long enough for a sanitizer build on a busy machine; nothing waits that long when all is well.
PATIENCE_S = 20


class Process:
    """A child whose standard output is read line by line; standard error goes to the test's own."""

    started = []

    def __init__(self, *command, environment=None):
        self.command = [str(part) for part in command]
        self.lines = queue.Queue()
        self.child = subprocess.Popen(
            self.command,
            stdin=subprocess.PIPE,
            stdout=subprocess.PIPE,
            stderr=subprocess.PIPE,
            text=True,
            env={**os.environ, **(environment or {})},
        )
        Process.started.append(self.child)
        self.errors = []
        self.readers = [
            threading.Thread(target=self._read, args=(self.child.stdout, self.lines.put), daemon=True),
            threading.Thread(target=self._read, args=(self.child.stderr, self.errors.append), daemon=True),
        ]
        for reader in self.readers:
            reader.start()

    @staticmethod
    def _read(stream, take):
        for line in stream:
            take(line.rstrip("\n"))

    def tell(self, line):
        self.child.stdin.write(line + "\n")
        self.child.stdin.flush()

    def line(self, patience_s=PATIENCE_S):
        try:
            return self.lines.get(timeout=patience_s)
        except queue.Empty:
            raise AssertionError(
                f"{self.command[0]} said nothing for {patience_s} s; standard error: {self.errors}"
            ) from None

    def wait_for_error(self, text, patience_s=PATIENCE_S):
        end = time.monotonic() + patience_s
        while not any(text in line for line in self.errors):
            assert time.monotonic() < end, f"no {text!r} in {self.errors}"
            time.sleep(0.01)

    def end(self, with_signal=signal.SIGTERM):
        """Ends the child and returns its status; a child that does not end is killed and fails the test."""
        if self.child.poll() is None:
            self.child.send_signal(with_signal)
        try:
            status = self.child.wait(timeout=PATIENCE_S)
        except subprocess.TimeoutExpired:
            self.child.kill()
            self.child.wait()
            raise AssertionError(f"{self.command[0]} did not end") from None
        for reader in self.readers:
            reader.join(timeout=PATIENCE_S)
        for stream in (self.child.stdin, self.child.stdout, self.child.stderr):
            stream.close()
        return status


@atexit.register
def end_what_is_left():
    """What a failed test has left running."""
    for child in Process.started:
        if child.poll() is None:
            child.kill()
            child.wait()


class CanServer(Process):
    """quillet-can on a free port, or on the port of one that has gone."""

    def __init__(self, *buses, port=None):
        super().__init__(BUILD / "bin/quillet-can", "--port", port or free_port(), *buses)
        words = self.line().split()
        assert words[:2] == ["listening", "on"], words
        self.host, port_text = words[2].rsplit(":", 1)
        self.port = int(port_text)
        self.environment = {"QUILLET_CAN_SERVER": f"{self.host}:{self.port}"}


class UdsPeer(Process):
    """A node of our transport library; see uds_peer.cpp."""

    def __init__(self, server):
        super().__init__(BUILD / "tests/uds_peer", environment=server.environment)

    def ask(self, line):
        self.tell(line)
        return self.line()

    def open(self, bus, request_id, response_id, block_size=0, st_min=0):
        answer = self.ask(f"init {bus} {request_id:x} {response_id:x} {block_size} {st_min:x}")
        assert answer.startswith("handle "), answer
        return int(answer.split()[1])

    def begin_send(self, handle, pdu):
        self.tell(f"send {handle} {pdu.hex()}")

    def begin_receive(self, handle, timeout_ms=5000, capacity=8191):
        self.tell(f"receive {handle} {capacity} {timeout_ms}")

    def received(self):
        answer = self.line()
        assert answer.startswith("pdu "), answer
        return bytes.fromhex(answer[4:])

    def close(self, handle):
        assert self.ask(f"deinit {handle}") == "closed"


class VirtualEcus(Process):
    """quillet-ecu, ready to serve, with its request log."""

    def __init__(self, server, description, request_log, *arguments):
        self.request_log = pathlib.Path(request_log)
        super().__init__(
            BUILD / "bin/quillet-ecu",
            description,
            "--request-log",
            request_log,
            *arguments,
            environment=server.environment,
        )

    def ready(self, count, bus):
        assert self.line() == f"serving {count} ECU{'s' if count != 1 else ''} on {bus}"
        return self

    def requests(self, ecu):
        """What this ECU has received so far: hexadecimal, and " functional" behind it if it came that way."""
        lines = [line.split(" ", 2) for line in self.request_log.read_text().splitlines()]
        return [line[2] for line in lines if line[1] == ecu]
