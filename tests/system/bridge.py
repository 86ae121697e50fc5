"""A vehicle's broker and a fleet's, each with a CA, rules and nodes of its own, and the bridge between them: what the
tests of the bridge start."""

import os
import re
import select
import signal
import socket
import subprocess
import threading
import time

from harness import BIN, PATIENCE, Agent, Broker, Pki, Process, free_port
from requester import Requester

GROUP = "car"


class Link:
    """A TCP way that can be cut: to a wall, where connections end at once, or to a hole, where nothing is heard any
    more until it is mended."""

    def __init__(self, port):
        self.target = port
        self.cut_to = None
        self.pairs = []
        self.listener = socket.create_server(("127.0.0.1", 0))
        self.port = self.listener.getsockname()[1]
        self.ending = False
        self.thread = threading.Thread(target=self.run)
        self.thread.start()

    def run(self):
        while not self.ending:
            ends = [end for pair in self.pairs for end in pair] if self.cut_to is None else []
            for ready in select.select([self.listener, *ends], [], [], 0.02)[0]:
                if ready is self.listener:
                    self.accept()
                else:
                    self.carry(ready)
            if self.cut_to == "wall":
                self.drop()
        self.drop()

    def accept(self):
        near = self.listener.accept()[0]
        if self.cut_to == "wall":
            near.close()
        elif self.cut_to == "hole":
            self.pairs.append((near,))
        else:
            self.pairs.append((near, socket.create_connection(("127.0.0.1", self.target))))

    def carry(self, ready):
        pair = next((pair for pair in self.pairs if ready in pair), None)
        if pair is None:
            return
        try:
            part = ready.recv(65536)
            if part:
                pair[pair.index(ready) - 1].sendall(part)
                return
        except OSError:
            pass
        self.pairs.remove(pair)
        for end in pair:
            end.close()

    def drop(self):
        for pair in self.pairs:
            for end in pair:
                end.close()
        self.pairs = []

    def cut(self, to):
        self.cut_to = to
        time.sleep(0.1)

    def mend(self):
        """What was in a hole never comes back: those connections are gone."""
        self.cut_to = "wall"
        time.sleep(0.1)
        self.cut_to = None

    def close(self):
        self.ending = True
        self.thread.join()
        self.listener.close()


def client(program, cert_dir, port, *arguments):
    """Runs one of mosquitto's own clients under this identity; what it has printed."""
    command = [program, "-d", "-V", "5", "-h", "127.0.0.1", "-p", port, "-q", 1, "--cafile",
               cert_dir.parent / "ca" / "ca.pem", "--cert", cert_dir / "cert.pem", "--key", cert_dir / "private.pem",
               "-i", cert_dir.name, *arguments]
    return subprocess.run([str(part) for part in command], capture_output=True, text=True, timeout=20 * PATIENCE).stdout


def write(cert_dir, port, topic, payload="x"):
    """The broker's reason code for a publish."""
    return int(re.search(r"received PUBACK \(Mid: 1, RC:(\d+)\)",
                         client("mosquitto_pub", cert_dir, port, "-t", topic, "-m", payload))[1])


def read(cert_dir, port, topic):
    """The broker's reason code for a subscription."""
    return int(re.search(r"Subscribed \(mid: 1\): (\d+)", client("mosquitto_sub", cert_dir, port, "-t", topic, "-E"))[1])


def user_options():
    return ("--user", "mosquitto") if os.geteuid() == 0 else ()


def start_uplink(pki, name, far_port, port, folder, user=user_options(), host="127.0.0.1"):
    return Process("uplink", [BIN / "quillet-uplink", "--identity", pki.folder / name, "--to", f"{host}:{far_port}",
                              "--port", port, *user], folder)


def end_in_order(process):
    """A program that has lasted until now ends by this signal, whether it handles it or not."""
    assert process.running(), process.text()
    assert process.stop() in (0, -signal.SIGTERM)


def make_fleet(folder):
    fleet = Pki(folder / "fleet")
    for name in ("TESTER-1", "TESTER-2", "WATCHER"):
        fleet.run("node", name, "--role", "requester", "--group", GROUP)
    fleet.run("bridge", "CAR-7", "--units", "AGENT-1,UNIT-2")
    fleet.run("bridge", "CAR-8", "--units", "AGENT-8")
    return fleet


def make_vehicle(folder):
    vehicle = Pki(folder / "vehicle")
    vehicle.run("node", "AGENT-1", "--group", GROUP)
    vehicle.run("node", "UNIT-2", "--group", GROUP)
    vehicle.run("node", "LOCAL-1", "--role", "requester")
    return vehicle


class Sides:
    """Both brokers and the way between them."""

    def __init__(self, folder, plugin, can):
        self.folder = folder
        self.fleet = make_fleet(folder)
        self.vehicle = make_vehicle(folder)
        self.fleet_port, self.port = free_port(), free_port()
        self.link = Link(self.fleet_port)
        near = free_port()
        configuration = self.fleet.broker(self.fleet_port, plugin)
        own = self.vehicle.broker(self.port, plugin)
        self.vehicle.run("uplink", self.fleet.folder / "CAR-7", "--to", f"127.0.0.1:{self.link.port}", "--peers",
                         "TESTER-1,TESTER-2", "--port", near)
        self.processes = [Broker(configuration, self.fleet_port, folder),
                          start_uplink(self.vehicle, "CAR-7", self.link.port, near, folder),
                          Broker(own, self.port, folder)]
        self.can = can
        self.start_agent()

    def start_agent(self):
        self.agent = Agent(self.vehicle.folder / "AGENT-1", self.port, self.folder, can_port=self.can.port)
        self.agent.wait_until_connected()

    def fleet_node(self, name):
        return Requester(self.fleet.folder / name, self.fleet_port)

    def local_node(self, name):
        return Requester(self.vehicle.folder / name, self.port)

    def close(self):
        if self.agent.running():
            assert self.agent.interrupt() == 255
        for process in reversed(self.processes):
            end_in_order(process)
        self.link.close()
