"""SIGINT at any moment ends in an orderly stop with status 255 within 5 s; SIGKILL leaves nothing behind."""

import signal
import time

import pytest

from diagnosis import BODY, ecu, everyone, report, request
from harness import PATIENCE, Broker, Ecus, bench_with, free_port, wait_until
from requester import outcomes, routine

# In segments that are 127 ms apart it takes more than a minute.
LONG_ANSWER = "590AFF" + "12345601" * 1000


@pytest.fixture(scope="module")
def ecus(can, folder):
    overrides = {"body": [{"request": "190A", "answer": LONG_ANSWER}, {"request": "22F189", "answer": LONG_ANSWER}]}
    process = Ecus(can.port, folder, bench_with(folder, overrides))
    yield process
    process.stop()


@pytest.mark.parametrize("delay_ms", [0, 2, 5, 10, 20, 50])
def test_sigint_during_start(start_agent, delay_ms):
    agent = start_agent(connected=False)
    time.sleep(delay_ms / 1000)
    # Before the program has taken SIGINT over, it ends as every program does.
    assert agent.interrupt() in (255, -signal.SIGINT)


@pytest.mark.parametrize("delay_ms", [0, 20, 100, 200])
def test_sigint_after_the_first_line(start_agent, delay_ms):
    agent = start_agent(connected=False)
    wait_until(lambda: "Version: " in agent.text(), "the line with the version")
    time.sleep(delay_ms / 1000)
    assert agent.interrupt() == 255


def test_sigint_while_idle(start_agent):
    agent = start_agent()
    assert agent.interrupt() == 255


def test_sigint_during_a_long_pause(start_agent, requester, ecus):
    agent = start_agent()
    requester.send("AGENT-1", routine("pause", [("3E", "00", "", "60"), ("22", "", "F187")]))
    agent.wait_for("Interface name: can0", "INFO")
    wait_until(lambda: "3E00" in ecus.requests("engine")[-1:], "the command before the pause")
    before = len(ecus.requests("engine"))
    assert agent.interrupt(timeout=5) == 255
    assert "22F187" not in ecus.requests("engine")[before:]


def test_sigint_during_an_endless_chain_of_pending_answers(start_agent, requester):
    agent = start_agent()
    requester.send("AGENT-1", routine("endless", [("31", "01", "0301")]))
    agent.wait_for("NRC: 0x78: requestCorrectlyReceived-ResponsePending", "INFO", count=2)
    assert agent.interrupt(timeout=5) == 255


@pytest.mark.parametrize("all_ecus", [False, True])
def test_sigint_during_a_dtc_answer_in_slow_segments(start_agent, requester, ecus, all_ecus):
    agent = start_agent()
    settings = everyone() if all_ecus else [ecu(BODY)]
    for one in settings:
        one["st-min"] = "7F"
    document = request("slow", report("SUPPORTED_DTCS"), settings)
    if not all_ecus:
        document["body"].update(targetAddress="18DA10F1", can=settings[0])
    asked = len(ecus.requests("body"))
    requester.send("AGENT-1", document)
    wait_until(lambda: "190A" in ecus.requests("body")[asked:], "the request")
    assert agent.interrupt(timeout=5) == 255


def test_sigint_during_a_version_in_slow_segments(start_agent, requester, ecus):
    agent = start_agent()
    document = request("slow", {"version": {"uds": ["22F189"]}}, BODY)
    document["body"]["can"]["st-min"] = "7F"
    asked = len(ecus.requests("body"))
    requester.send("AGENT-1", document)
    wait_until(lambda: "22F189" in ecus.requests("body")[asked:], "the request")
    assert agent.interrupt(timeout=5) == 255


def test_sigint_while_a_broadcast_does_not_come(start_agent, requester):
    agent = start_agent()
    query = {"ifname": "can0", "id": "18FEDA01", "timeout": "5000", "signal": []}
    requester.send("AGENT-1", request("never", {"version": {"j1939": query}}))
    agent.wait_for("Using J1939", "INFO")
    began = time.monotonic()
    assert agent.interrupt(timeout=5) == 255
    assert time.monotonic() - began < 4 * PATIENCE  # not the 5 s of the receive
    assert agent.lines("Unable to read Version", "ERR")


@pytest.fixture
def own_broker(pki, plugin, folder):
    port = free_port()
    process = Broker(pki.broker(port, plugin), port, folder)
    yield process
    process.stop()


def test_sigint_while_the_broker_is_frozen(start_agent, own_broker):
    agent = start_agent(broker_port=own_broker.port)
    own_broker.send(signal.SIGSTOP)
    assert agent.interrupt(timeout=5) == 255
    own_broker.send(signal.SIGCONT)


def test_sigint_while_a_frozen_broker_accepts_and_says_nothing(start_agent, own_broker):
    own_broker.send(signal.SIGSTOP)
    agent = start_agent(broker_port=own_broker.port, connected=False)
    agent.wait_for("Movra Bus connection: start", "INFO")
    assert agent.interrupt(timeout=5) == 255
    own_broker.send(signal.SIGCONT)


def test_a_killed_agent_leaves_no_state(start_agent, requester):
    first = start_agent()
    requester.send("AGENT-1", routine("never", [("31", "01", "0301")]))
    first.wait_for("NRC: 0x78: requestCorrectlyReceived-ResponsePending", "INFO")
    first.kill()
    second = start_agent()
    requester.send("AGENT-1", routine("works", [("3E", "00")], ecu=("7E1", "7E9")))
    reply = requester.next_reply()
    assert reply["reply-to"] == "works" and outcomes(reply) == [("0x3E", "7E00", "none")]
    assert second.interrupt() == 255


def test_a_second_sigint_changes_nothing(start_agent):
    agent = start_agent()
    agent.send(signal.SIGINT)
    assert agent.interrupt() == 255
