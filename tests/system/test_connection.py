"""Trouble between agent and broker: each cause gives its condition's line once, the process stays up, and it connects by
itself when the cause is gone."""

import shutil
import time

import pytest

from harness import Agent, Broker, Pki, free_port, wait_until

REFUSED = "Movra Bus error: connection failed"
UNRESOLVED = "Movra Bus error: resolution failed"
REGISTRATION = "Movra Bus error: registration failed"
# Long enough for the attempts at 0, 0.25 and 0.75 s.
SEVERAL_ATTEMPTS_S = 1.2


@pytest.fixture
def start_broker(folder):
    started = []

    def start(configuration, port):
        process = Broker(configuration, port, folder)
        started.append(process)
        return process

    yield start
    for process in started:
        process.stop()


@pytest.fixture
def lone_agent(folder):
    """An agent without a bus behind it."""
    started = []

    def start(cert_dir, port, **settings):
        process = Agent(cert_dir, port, folder, **settings)
        started.append(process)
        return process

    yield start
    for process in started:
        assert process.interrupt() == 255


def expect_once(agent, text):
    agent.wait_for(text, "ERR")
    time.sleep(SEVERAL_ATTEMPTS_S)
    assert len(agent.lines(text, "ERR")) == 1, agent.text()
    assert [line for line in agent.log() if line[0] == "ERR"] == agent.lines(text, "ERR"), agent.text()
    assert agent.running()


def test_connects_when_a_broker_comes_up(pki, plugin, lone_agent, start_broker):
    port = free_port()
    configuration = pki.broker(port, plugin)
    agent = lone_agent(pki.folder / "AGENT-1", port)
    expect_once(agent, REFUSED)
    start_broker(configuration, port)
    agent.wait_until_connected()


def test_says_once_that_the_name_does_not_resolve(pki, lone_agent):
    too_long = "x" * 64  # a label of more than 63 characters: no name server is asked
    expect_once(lone_agent(pki.folder / "AGENT-1", 9133, host=too_long), UNRESOLVED)


def other_ca(folder):
    return Pki(folder / f"other-{time.monotonic_ns()}")


def broker_of_another_ca(pki, plugin, port, folder):
    return other_ca(folder).broker(port, plugin)


def expired_broker(pki, plugin, port, folder):
    return pki.broker(port, plugin, "--start-days", "-10", "--days", "5")


def broker_of_another_host(pki, plugin, port, folder):
    return pki.broker(port, plugin, "--host", "elsewhere.example", "--ip", "192.0.2.1")


@pytest.mark.parametrize("make", [broker_of_another_ca, expired_broker, broker_of_another_host])
def test_keeps_away_from_an_unverified_broker_until_it_is_right(pki, plugin, folder, lone_agent, start_broker, make):
    port = free_port()
    wrong = start_broker(make(pki, plugin, port, folder), port)
    agent = lone_agent(pki.folder / "AGENT-1", port)
    expect_once(agent, REFUSED)
    wrong.stop()
    start_broker(pki.broker(port, plugin), port)
    agent.wait_until_connected()


def test_connects_when_the_broker_no_longer_refuses_its_certificate(pki, plugin, folder, lone_agent, start_broker):
    stranger = other_ca(folder)
    stranger.node("AGENT-1", "agent")
    its = {name: (stranger.folder / "ca" / name).read_text() for name in ("ca.pem", "crl.pem")}
    shutil.copy(pki.folder / "ca" / "ca.pem", stranger.folder / "ca" / "ca.pem")
    port = free_port()
    configuration = pki.broker(port, plugin)
    strict = start_broker(configuration, port)
    agent = lone_agent(stranger.folder / "AGENT-1", port)
    expect_once(agent, REGISTRATION)

    strict.stop()
    for name, text in its.items():
        own = pki.folder / "ca" / name
        both = configuration.parent / f"both-{name}"
        both.write_text(own.read_text() + text)
        configuration.write_text(configuration.read_text().replace(str(own), str(both)))
    start_broker(configuration, port)
    agent.wait_until_connected()


def test_connects_again_after_the_broker_has_gone(pki, plugin, lone_agent, start_broker):
    port = free_port()
    configuration = pki.broker(port, plugin)
    first = start_broker(configuration, port)
    agent = lone_agent(pki.folder / "AGENT-1", port)
    agent.wait_until_connected()
    first.kill()
    agent.wait_for("Movra Bus error: connection broke", "ERR")
    start_broker(configuration, port)
    agent.wait_until_connected(count=2)
    assert len(agent.lines("Movra Bus error: connection broke", "ERR")) == 1


MISSING = [
    ("private.pem", "identity->x509.private_key is NULL"),
    ("cert.pem", "identity->x509.chain[0] is NULL"),
    ("../ca/ca.pem", "identity->x509.trust[0] is NULL"),
]


def identity_copy(pki, folder):
    copy = folder / f"copy-{time.monotonic_ns()}"
    for name in ("AGENT-1", "ca"):
        shutil.copytree(pki.folder / name, copy / name)
    return copy / "AGENT-1"


@pytest.mark.parametrize("name, line", MISSING)
def test_waits_for_an_interrupt_when_a_file_of_its_identity_is_missing(pki, folder, lone_agent, name, line):
    cert_dir = identity_copy(pki, folder)
    (cert_dir / name).unlink()
    agent = lone_agent(cert_dir, free_port())
    agent.wait_for("Failed to init tervbus client err=-1.", "ERR")
    assert [text for level, _, text in agent.log() if level == "ERR"][:4] == [
        "unable to open path", line, f"Failed to load identity certificate from {cert_dir}",
        "Failed to init tervbus client err=-1."]
    assert agent.running()


@pytest.mark.parametrize("name", ["private.pem", "cert.pem", "../ca/ca.pem"])
def test_waits_for_an_interrupt_when_a_file_of_its_identity_is_unusable(pki, folder, lone_agent, name):
    cert_dir = identity_copy(pki, folder)
    (cert_dir / name).write_text("nothing like PEM\n")
    agent = lone_agent(cert_dir, free_port())
    agent.wait_for("Failed to init tervbus client err=-1.", "ERR", count=2)
    assert not agent.lines("Movra Bus connection: start")
    assert agent.running()
