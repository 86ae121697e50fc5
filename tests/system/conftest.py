import shutil

import pytest

from harness import PATIENCE, Agent, Broker, CanServer, Ecus, Pki, copy_plugin, free_port, make_folder, memory_folder
from requester import Requester

REQUESTERS = ("TESTER-1", "TESTER-2", "TESTER-3")


@pytest.fixture(scope="module")
def folder():
    path = make_folder(memory_folder())
    yield path
    shutil.rmtree(path)


@pytest.fixture(scope="module")
def plugin(folder):
    return copy_plugin(folder)


@pytest.fixture(scope="module")
def pki(folder):
    made = Pki(folder / "pki")
    made.node("AGENT-1", "agent")
    for name in REQUESTERS:
        made.node(name)
    return made


@pytest.fixture(scope="module")
def broker(pki, plugin, folder):
    port = free_port()
    process = Broker(pki.broker(port, plugin), port, folder)
    yield process
    process.stop()


@pytest.fixture(scope="module")
def can(folder):
    process = CanServer(free_port(), folder, "can0")
    yield process
    process.stop()


@pytest.fixture(scope="module")
def ecus(can, folder):
    process = Ecus(can.port, folder)
    yield process
    process.stop()


@pytest.fixture(scope="module")
def agent(pki, broker, can, ecus, folder):
    """An agent that serves the whole module and ends in an orderly stop."""
    process = Agent(pki.folder / "AGENT-1", broker.port, folder, can_port=can.port)
    process.wait_until_connected()
    yield process
    assert process.interrupt() == 255


@pytest.fixture
def start_agent(pki, broker, can, ecus, folder):
    """Starts agents of a test's own; those that still run at its end are stopped."""
    started = []

    def start(connected=True, **settings):
        settings = {"cert_dir": pki.folder / "AGENT-1", "broker_port": broker.port, "can_port": can.port, **settings}
        process = Agent(folder=folder, **settings)
        started.append(process)
        if connected:
            process.wait_until_connected()
        return process

    yield start
    for process in started:
        if process.running():
            assert process.interrupt() == 255


@pytest.fixture
def requester(pki, broker):
    node = Requester(pki.folder / "TESTER-1", broker.port)
    yield node
    node.close()


@pytest.fixture
def requesters(pki, broker):
    nodes = [Requester(pki.folder / name, broker.port) for name in REQUESTERS]
    yield nodes
    for node in nodes:
        node.close()


@pytest.fixture
def slowness():
    """What a time limit is multiplied with under a sanitizer."""
    return PATIENCE
