"""Real processes for the system tests: broker, CAN server, virtual ECUs, agent. Each is started on ports of its own,
ended by its handle, and looked at afterwards for what a sanitizer may have said."""

import atexit
import json
import os
import re
import shutil
import signal
import socket
import subprocess
import sys
import tempfile
import time
from pathlib import Path

SOURCE = Path(__file__).resolve().parents[2]
sys.path.insert(0, str(SOURCE / "tests/support"))
from loopback import free_port  # noqa: E402,F401 - from the folder just named, for who imports this module

BUILD = Path(os.environ.get("QUILLET_BUILD_DIR", SOURCE / "build"))
BIN = BUILD / "bin"
LIB = BUILD / "lib"
BENCH = SOURCE / "tools" / "quillet-ecu" / "bench.json"
# Sanitizer builds are several times slower; every wait is that much longer, and no test waits for a time to pass.
PATIENCE = 4 if os.environ.get("QUILLET_SANITIZE") else 1
LONG_TIER = os.environ.get("QUILLET_TIER") == "long"
SANITIZER_REPORT = re.compile(r"(ERROR|WARNING): \w+Sanitizer|runtime error:|SUMMARY: \w+Sanitizer")
LOG_LINE = re.compile(r"^\[[^]]*\] \x1b\[1;\d+m(\w+) ?\x1b\[1;0m (\w+):(\d+) (.*)$")


def times(repetitions):
    """How often a test repeats its case: so often in the long tier, once in the short one."""
    return repetitions if LONG_TIER else 1


def wait_until(condition, what, timeout=10.0):
    """Waits for a condition; the last look comes after the time has passed."""
    end = time.monotonic() + timeout * PATIENCE
    while True:
        late = time.monotonic() >= end
        result = condition()
        if result:
            return result
        assert not late, f"{what}: not within {timeout * PATIENCE:.0f} s"
        time.sleep(0.01)


def accepts(port):
    with socket.socket() as probe:
        probe.settimeout(1)
        return probe.connect_ex(("127.0.0.1", port)) == 0


class Process:
    """One program with its output in a file."""

    started = []

    def __init__(self, name, command, folder, **environment):
        self.name = name
        self.path = Path(folder) / f"{name}.{time.monotonic_ns()}.log"
        self.out = open(self.path, "wb")
        self.popen = subprocess.Popen([str(part) for part in command], stdin=subprocess.DEVNULL, stdout=self.out,
                                      stderr=subprocess.STDOUT, env={**os.environ, **environment})
        Process.started.append(self.popen)

    def text(self):
        return self.path.read_text(errors="replace")

    def sockets(self):
        """How many it has open; one that it closes meanwhile may count or not."""
        def is_socket(path):
            try:
                return os.readlink(path).startswith("socket:")
            except FileNotFoundError:
                return False
        return sum(map(is_socket, Path(f"/proc/{self.popen.pid}/fd").iterdir()))

    def running(self):
        return self.popen.poll() is None

    def send(self, number):
        self.popen.send_signal(number)

    def wait(self, timeout=5.0):
        """The exit status of a program that ends; however it ends, no sanitizer may have said anything."""
        status = self.popen.wait(timeout * PATIENCE)
        self.out.close()
        assert not SANITIZER_REPORT.search(self.text()), self.text()
        return status

    def stop(self, number=signal.SIGTERM, timeout=5.0):
        """Ends the program if it still runs; its exit status."""
        if self.running():
            self.send(signal.SIGCONT)
            self.send(number)
        try:
            status = self.wait(timeout)
        except subprocess.TimeoutExpired:
            self.popen.kill()
            self.wait()
            raise
        return status

    def kill(self):
        if self.running():
            self.popen.kill()
        self.wait()


@atexit.register
def end_what_is_left():
    """What a failure in between has left running."""
    for popen in Process.started:
        if popen.poll() is None:
            popen.kill()
            popen.wait()


class Agent(Process):
    """The agent. Its log is read as (level, module, text)."""

    def __init__(self, cert_dir, broker_port, folder, host="127.0.0.1", can_port=None, options=()):
        environment = {"QUILLET_CAN_SERVER": f"127.0.0.1:{can_port}"} if can_port else {}
        super().__init__("agent", [BIN / "movra-quillet", "-k", cert_dir, "-u", host, "-b", broker_port, *options],
                         folder, **environment)

    def log(self):
        matches = (LOG_LINE.match(line) for line in self.text().splitlines())
        return [(match[1], match[2], match[4]) for match in matches if match]

    def lines(self, text, level=None):
        return [line for line in self.log() if line[2] == text and level in (None, line[0])]

    def wait_for(self, text, level=None, count=1, timeout=10.0):
        def seen():
            assert self.running(), f"the agent ended with {self.popen.returncode}:\n{self.text()}"
            return len(self.lines(text, level)) >= count
        try:
            wait_until(seen, f'line "{text}"', timeout)
        except AssertionError as failure:
            raise AssertionError(f"{failure}\n{self.text()}") from None

    def wait_until_connected(self, count=1):
        self.wait_for("Movra Bus connection: running", "INFO", count, timeout=20)

    def interrupt(self, timeout=5.0):
        """SIGINT; the exit status, which is 255 after an orderly stop."""
        return self.stop(signal.SIGINT, timeout)


class Pki:
    """A folder of identities, made with quillet-pki."""

    def __init__(self, folder):
        self.folder = Path(folder)
        self.run("init")

    def run(self, *arguments):
        done = subprocess.run([str(BIN / "quillet-pki"), "--dir", str(self.folder), *map(str, arguments)],
                              capture_output=True, text=True, timeout=60)
        assert done.returncode == 0, done.stderr

    def node(self, name, role="requester"):
        self.run("node", name, "--role", role)
        return self.folder / name

    def broker(self, port, plugin, *options):
        """The broker's files; as root, for a broker that drops its privileges."""
        user = ("--user", "mosquitto") if os.geteuid() == 0 else ()
        self.run("broker", "--port", port, "--plugin", plugin, "--force", *user, *options)
        return self.folder / "broker" / "mosquitto.conf"


class Broker(Process):
    def __init__(self, configuration, port, folder):
        program = shutil.which("mosquitto") or "/usr/sbin/mosquitto"
        super().__init__("broker", [program, "-c", configuration], folder)
        self.port = port
        wait_until(lambda: accepts(port) or not self.running(), "a broker that listens")
        data = Path(configuration).parent / "data" / "broker.log"
        assert self.running(), self.text() + (data.read_text() if data.exists() else "")


class CanServer(Process):
    def __init__(self, port, folder, *buses):
        super().__init__("can", [BIN / "quillet-can", "--port", port, *buses], folder)
        self.port = port
        wait_until(lambda: accepts(port) or not self.running(), "a CAN server that listens")
        assert self.running(), self.text()


class Ecus(Process):
    """The bench of virtual ECUs, with a log of the requests that reached them."""

    def __init__(self, can_port, folder, description=BENCH):
        self.request_log = Path(folder) / f"requests.{time.monotonic_ns()}"
        super().__init__("ecus", [BIN / "quillet-ecu", "--request-log", self.request_log, description], folder,
                         QUILLET_CAN_SERVER=f"127.0.0.1:{can_port}")
        wait_until(lambda: "serving 3 ECUs" in self.text() or not self.running(), "virtual ECUs that are ready")
        assert self.running(), self.text()

    def requests(self, ecu):
        """The requests that the ECU has received so far, in order, as upper-case hexadecimal text."""
        lines = self.request_log.read_text().splitlines() if self.request_log.exists() else []
        return [line.split()[2] for line in lines if line.split()[1] == ecu]


def bench_with(folder, overrides):
    """The bench with further overrides, {ECU's name: list}, which come before its own."""
    description = json.loads(BENCH.read_text())
    for ecu in description["ecus"]:
        ecu["overrides"] = overrides.get(ecu["name"], []) + ecu.get("overrides", [])
    path = Path(folder) / f"bench.{time.monotonic_ns()}.json"
    path.write_text(json.dumps(description))
    return path


def memory_folder():
    """Where files are kept in memory, or None where there is no room for them. The broker saves after each change and
    waits for the disk; a disk that others keep busy makes it as slow as no test can know."""
    folder = "/dev/shm"
    if not os.access(folder, os.W_OK):
        return None
    room = os.statvfs(folder)
    return folder if room.f_bavail * room.f_frsize >= 2 << 30 and not room.f_flag & os.ST_NOEXEC else None


def make_folder(parent=None):
    """A folder that the broker's user can reach the broker's files through, whoever runs the tests."""
    folder = Path(tempfile.mkdtemp(prefix="quillet-system-", dir=parent))
    folder.chmod(0o711)
    return folder


def copy_plugin(folder):
    """The plugin where the broker's user can read it."""
    return shutil.copy(LIB / "quillet_broker_plugin.so", folder)
